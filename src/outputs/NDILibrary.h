#pragma once

#include "outputs/NDIApi.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

namespace orvane {

// The NDI runtime, found and opened at run time: the five functions Orvane calls, resolved
// from the first candidate file that opens, has them all and initialises. Kept open for the
// life of the object. Any thread (the functions are called on the NDI thread).
class NDILibrary {
public:
    struct LoadResult {
        std::shared_ptr<const NDILibrary> library; // none when no candidate worked
        bool foundRuntime = false; // a candidate file exists (so "installed but couldn't start")
    };

    // The folders the runtime is looked for in, in order: the executable's own folder,
    // $NDI_RUNTIME_DIR_V6, $NDI_RUNTIME_DIR_V5 (each only when set), /usr/local/lib, /usr/lib
    // and the multiarch library folder; in each, libndi.so.6 and then libndi.so.5. Pure.
    static QStringList candidatePaths(const QString& executableFolder,
                                      const std::optional<QString>& runtimeFolderV6,
                                      const std::optional<QString>& runtimeFolderV5);
    // The candidates for this process, from its executable's folder and its environment.
    static QStringList candidatePaths();

    // Tries `candidates` in order: open with immediate binding and local symbols, resolve the
    // five functions, call NDIlib_initialize.
    static LoadResult load(const QStringList& candidates);
    // load(candidatePaths()), once: a runtime that loaded is kept for the life of the process;
    // after a failure the next call looks again. Thread-safe.
    static LoadResult loadOnce();

    ~NDILibrary();
    NDILibrary(const NDILibrary&) = delete;
    NDILibrary& operator=(const NDILibrary&) = delete;

    QString path;
    NDIlib_initialize_f initialize = nullptr;
    NDIlib_send_create_f sendCreate = nullptr;
    NDIlib_send_destroy_f sendDestroy = nullptr;
    NDIlib_send_send_video_v2_f sendVideo = nullptr;
    NDIlib_send_get_no_connections_f connections = nullptr;

private:
    NDILibrary() = default;
    void* handle_ = nullptr;
};

} // namespace orvane
