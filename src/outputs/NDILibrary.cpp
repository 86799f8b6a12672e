#include "outputs/NDILibrary.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QLoggingCategory>

#include <dlfcn.h>
#include <mutex>

namespace orvane {

namespace {

Q_LOGGING_CATEGORY(logNDI, "orvane.outputs.ndi")

const char* const kFileNames[] = {"libndi.so.6", "libndi.so.5"};

std::optional<QString> environmentFolder(const char* name)
{
    if (!qEnvironmentVariableIsSet(name))
        return std::nullopt;
    return qEnvironmentVariable(name);
}

QString executableFolder()
{
    if (QCoreApplication::instance())
        return QCoreApplication::applicationDirPath();
    return QFileInfo(QStringLiteral("/proc/self/exe"))
        .symLinkTarget()
        .section(QLatin1Char('/'), 0, -2);
}

template <class F> bool resolve(void* handle, const char* name, F& function)
{
    function = reinterpret_cast<F>(::dlsym(handle, name));
    return function != nullptr;
}

} // namespace

QStringList NDILibrary::candidatePaths(const QString& executableFolder,
                                       const std::optional<QString>& runtimeFolderV6,
                                       const std::optional<QString>& runtimeFolderV5)
{
    QStringList folders;
    if (!executableFolder.isEmpty())
        folders.append(executableFolder);
    if (runtimeFolderV6)
        folders.append(*runtimeFolderV6);
    if (runtimeFolderV5)
        folders.append(*runtimeFolderV5);
    folders.append(QStringLiteral("/usr/local/lib"));
    folders.append(QStringLiteral("/usr/lib"));
#ifdef ORVANE_MULTIARCH
    folders.append(QStringLiteral("/usr/lib/" ORVANE_MULTIARCH));
#endif
    QStringList paths;
    for (QString folder : folders) {
        while (folder.size() > 1 && folder.endsWith(QLatin1Char('/')))
            folder.chop(1);
        for (const char* file : kFileNames)
            paths.append(folder + QLatin1Char('/') + QLatin1String(file));
    }
    return paths;
}

QStringList NDILibrary::candidatePaths()
{
    return candidatePaths(executableFolder(), environmentFolder("NDI_RUNTIME_DIR_V6"),
                          environmentFolder("NDI_RUNTIME_DIR_V5"));
}

NDILibrary::LoadResult NDILibrary::load(const QStringList& candidates)
{
    LoadResult result;
    for (const QString& path : candidates) {
        if (!QFileInfo::exists(path))
            continue;
        result.foundRuntime = true;
        void* handle = ::dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            qCWarning(logNDI, "ndi: could not open %s: %s", qPrintable(path), ::dlerror());
            continue;
        }
        std::shared_ptr<NDILibrary> library(new NDILibrary);
        library->handle_ = handle;
        library->path = path;
        const bool resolved =
            resolve(handle, "NDIlib_initialize", library->initialize) &&
            resolve(handle, "NDIlib_send_create", library->sendCreate) &&
            resolve(handle, "NDIlib_send_destroy", library->sendDestroy) &&
            resolve(handle, "NDIlib_send_send_video_v2", library->sendVideo) &&
            resolve(handle, "NDIlib_send_get_no_connections", library->connections);
        if (!resolved) {
            qCWarning(logNDI, "ndi: %s lacks a function Orvane needs", qPrintable(path));
            continue; // the library closes its handle
        }
        if (!library->initialize()) {
            qCWarning(logNDI, "ndi: %s did not initialise", qPrintable(path));
            continue;
        }
        qCInfo(logNDI, "ndi: using %s", qPrintable(path));
        result.library = std::move(library);
        return result;
    }
    return result;
}

NDILibrary::LoadResult NDILibrary::loadOnce()
{
    static std::mutex mutex;
    static LoadResult loaded;
    std::lock_guard lock(mutex);
    if (!loaded.library)
        loaded = load(candidatePaths());
    return loaded;
}

NDILibrary::~NDILibrary()
{
    if (handle_)
        ::dlclose(handle_);
}

} // namespace orvane
