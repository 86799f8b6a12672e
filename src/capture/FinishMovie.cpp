#include "capture/FinishMovie.h"

#include "capture/CaptureLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/statvfs.h>
#include <unistd.h>

namespace orvane {

namespace {

// Room kept free on the disk beyond the copy itself, for the index and for everything else
// that writes there.
constexpr qint64 kSpareBytes = 64 * 1024 * 1024;

QString describe(int averror)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(averror, text, sizeof text);
    return QString::fromLocal8Bit(text);
}

std::optional<qint64> freeBytes(const QString& folder)
{
    struct statvfs disk {};
    if (::statvfs(QFile::encodeName(folder).constData(), &disk) != 0)
        return std::nullopt;
    return qint64(disk.f_bavail) * qint64(disk.f_frsize);
}

struct Input {
    AVFormatContext* context = nullptr;
    ~Input() { avformat_close_input(&context); }
};

struct Output {
    AVFormatContext* context = nullptr;
    ~Output()
    {
        if (!context)
            return;
        avio_closep(&context->pb);
        avformat_free_context(context);
    }
};

// The boxes of a QuickTime file, read one level at a time without reading their contents.
class BoxReader {
public:
    struct Box {
        QByteArray type;
        qint64 begin = 0;   // of its header
        qint64 start = 0;   // of its contents
        qint64 end = 0;     // past its last byte
        bool whole = false; // it lies entirely inside the file
    };

    explicit BoxReader(QFile& file)
        : file_(file)
    {
    }

    std::vector<Box> children(qint64 from, qint64 to)
    {
        std::vector<Box> boxes;
        const qint64 size = file_.size();
        while (from + 8 <= to && file_.seek(from)) {
            const QByteArray header = file_.read(16);
            if (header.size() < 8)
                break;
            quint64 length = qFromBigEndian<quint32>(header.constData());
            qint64 headerLength = 8;
            if (length == 1 && header.size() == 16) {
                length = qFromBigEndian<quint64>(header.constData() + 8);
                headerLength = 16;
            } else if (length == 0) {
                length = quint64(to - from);
            }
            if (length < quint64(headerLength))
                break;
            const qint64 end = from + qint64(length);
            boxes.push_back({header.mid(4, 4), from, from + headerLength, end, end <= size});
            from = end;
        }
        return boxes;
    }

    QByteArray contents(const Box& box, qint64 most = 4096)
    {
        if (!file_.seek(box.start))
            return {};
        return file_.read(std::min(most, box.end - box.start));
    }

private:
    QFile& file_;
};

quint32 u32(const QByteArray& bytes, qsizetype at)
{
    return at + 4 <= bytes.size() ? qFromBigEndian<quint32>(bytes.constData() + at) : 0;
}

quint64 u64(const QByteArray& bytes, qsizetype at)
{
    return at + 8 <= bytes.size() ? qFromBigEndian<quint64>(bytes.constData() + at) : 0;
}

const BoxReader::Box* find(const std::vector<BoxReader::Box>& boxes, const char* type)
{
    for (const auto& box : boxes)
        if (box.type == type)
            return &box;
    return nullptr;
}

// How long the pictures and sound of a fragmented movie last, in seconds, read from the
// headers of its fragments (a movie left by a crash or a full disk does not say it anywhere
// else). A fragment whose data the file does not hold in full (torn) ends the movie with its
// last sample that the file holds whole. None for an ordinary movie.
std::optional<double> wholeFragmentsLength(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    BoxReader reader(file);
    const qint64 fileSize = file.size();
    const auto top = reader.children(0, fileSize);
    const auto* moov = find(top, "moov");
    if (!moov || !find(top, "moof"))
        return std::nullopt;
    std::map<quint32, quint32> timescales; // by track
    for (const auto& trak : reader.children(moov->start, moov->end)) {
        if (trak.type != "trak")
            continue;
        const auto parts = reader.children(trak.start, trak.end);
        const auto* tkhd = find(parts, "tkhd");
        const auto* mdia = find(parts, "mdia");
        if (!tkhd || !mdia)
            continue;
        const QByteArray header = reader.contents(*tkhd);
        const quint32 track = u32(header, header.startsWith('\x01') ? 20 : 12);
        const auto media = reader.children(mdia->start, mdia->end);
        const auto* mdhd = find(media, "mdhd");
        if (!mdhd)
            continue;
        const QByteArray mediaHeader = reader.contents(*mdhd);
        const quint32 timescale = u32(mediaHeader, mediaHeader.startsWith('\x01') ? 20 : 12);
        if (timescale > 0)
            timescales[track] = timescale;
    }
    double length = 0;
    for (std::size_t i = 0; i < top.size(); ++i) {
        if (top[i].type != "moof")
            continue;
        if (!top[i].whole)
            break;
        // The fragment's data follows its header; when it is torn, its samples count up to
        // the first one whose bytes the file does not hold.
        const bool torn = i + 1 >= top.size() || top[i + 1].type != "mdat" || !top[i + 1].whole;
        double fragmentEnd = 0;
        for (const auto& traf : reader.children(top[i].start, top[i].end)) {
            if (traf.type != "traf")
                continue;
            const auto parts = reader.children(traf.start, traf.end);
            const auto* tfhd = find(parts, "tfhd");
            const auto* tfdt = find(parts, "tfdt");
            if (!tfhd || !tfdt)
                continue;
            const QByteArray header = reader.contents(*tfhd);
            const quint32 flags = u32(header, 0) & 0xffffff;
            const quint32 track = u32(header, 4);
            // Sample data is placed from the fragment's first byte unless the header says
            // (kept inside the file, so that a damaged header can't make it run away).
            const qint64 base =
                (flags & 0x01) ? qint64(std::min<quint64>(u64(header, 8), quint64(fileSize) + 1))
                               : top[i].begin;
            qsizetype at = 8 + ((flags & 0x01) ? 8 : 0) + ((flags & 0x02) ? 4 : 0);
            const quint32 defaultDuration = (flags & 0x08) ? u32(header, at) : 0;
            at += (flags & 0x08) ? 4 : 0;
            const quint32 defaultSize = (flags & 0x10) ? u32(header, at) : 0;
            const QByteArray decodeTime = reader.contents(*tfdt);
            quint64 time = decodeTime.startsWith('\x01') ? u64(decodeTime, 4) : u32(decodeTime, 4);
            qint64 offset = base;
            bool whole = true;
            for (const auto& trun : parts) {
                if (trun.type != "trun" || !whole)
                    continue;
                const QByteArray run = reader.contents(trun, trun.end - trun.start);
                const quint32 runFlags = u32(run, 0) & 0xffffff;
                if (runFlags & 0x01)
                    offset = base + qint32(u32(run, 8));
                qsizetype sample = 8 + ((runFlags & 0x01) ? 4 : 0) + ((runFlags & 0x04) ? 4 : 0);
                const qsizetype step = ((runFlags & 0x100) ? 4 : 0) + ((runFlags & 0x200) ? 4 : 0) +
                                       ((runFlags & 0x400) ? 4 : 0) + ((runFlags & 0x800) ? 4 : 0);
                quint32 samples = u32(run, 4);
                if (step > 0) // no more than the run has entries for
                    samples = quint32(std::min<qint64>(
                        samples, std::max<qint64>(0, (run.size() - sample) / step)));
                for (quint32 n = 0; n < samples; ++n, sample += step) {
                    if (offset <= fileSize) // kept from running away on a damaged header
                        offset += (runFlags & 0x200)
                                      ? u32(run, sample + ((runFlags & 0x100) ? 4 : 0))
                                      : defaultSize;
                    if (torn && offset > fileSize) {
                        whole = false;
                        break;
                    }
                    time += (runFlags & 0x100) ? u32(run, sample) : defaultDuration;
                }
            }
            const auto timescale = timescales.find(track);
            if (timescale != timescales.end())
                fragmentEnd = std::max(fragmentEnd, double(time) / timescale->second);
        }
        length = std::max(length, fragmentEnd);
        if (torn)
            break;
    }
    return length;
}

// Gives `output` the chapters in the order of their times, each lasting until the next one
// starts; the last one's end is set by endChapters().
void addChapters(AVFormatContext* output, std::vector<MovieChapter> chapters)
{
    std::erase_if(chapters, [](const MovieChapter& c) { return !std::isfinite(c.seconds); });
    std::stable_sort(chapters.begin(), chapters.end(),
                     [](const auto& a, const auto& b) { return a.seconds < b.seconds; });
    if (chapters.empty())
        return;
    output->chapters = static_cast<AVChapter**>(av_calloc(chapters.size(), sizeof(AVChapter*)));
    if (!output->chapters)
        return;
    auto milliseconds = [](double seconds) { return std::llround(std::max(0.0, seconds) * 1000); };
    for (std::size_t i = 0; i < chapters.size(); ++i) {
        auto* chapter = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
        if (!chapter)
            break;
        chapter->id = std::int64_t(i);
        chapter->time_base = {1, 1000};
        chapter->start = milliseconds(chapters[i].seconds);
        chapter->end =
            i + 1 < chapters.size() ? milliseconds(chapters[i + 1].seconds) : chapter->start;
        av_dict_set(&chapter->metadata, "title", chapters[i].title.toUtf8().constData(), 0);
        output->chapters[output->nb_chapters++] = chapter;
    }
}

// Drops the chapters that start after the movie's end and lets the last one end with the
// movie. Returns how many are left.
int endChapters(AVFormatContext* output, double duration)
{
    const auto end = std::int64_t(std::llround(duration * 1000));
    while (output->nb_chapters > 0 && output->chapters[output->nb_chapters - 1]->start >= end) {
        AVChapter* dropped = output->chapters[--output->nb_chapters];
        av_dict_free(&dropped->metadata);
        av_freep(&output->chapters[output->nb_chapters]);
    }
    if (output->nb_chapters == 0)
        return 0;
    output->chapters[output->nb_chapters - 1]->end = end;
    return int(output->nb_chapters);
}

// Copies the video and sound of `from` into an ordinary movie at `to`, packet for packet.
// Returns 0 or a negative AVERROR; `chapterCount` gets the chapters written.
int copyMovie(const QByteArray& from, const QByteArray& to, std::vector<MovieChapter> chapters,
              const std::atomic<bool>* cancel, int& chapterCount)
{
    Input input;
    int result = avformat_open_input(&input.context, from.constData(), nullptr, nullptr);
    if (result < 0)
        return result;
    result = avformat_find_stream_info(input.context, nullptr);
    if (result < 0)
        return result;
    Output output;
    result = avformat_alloc_output_context2(&output.context, nullptr, "mov", to.constData());
    if (result < 0)
        return result;
    // Video and sound only: the chapters of a movie finished before are made anew.
    std::vector<int> map(input.context->nb_streams, -1);
    for (unsigned i = 0; i < input.context->nb_streams; ++i) {
        const AVStream* in = input.context->streams[i];
        const auto type = in->codecpar->codec_type;
        if (type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO)
            continue;
        AVStream* out = avformat_new_stream(output.context, nullptr);
        if (!out)
            return AVERROR(ENOMEM);
        result = avcodec_parameters_copy(out->codecpar, in->codecpar);
        if (result < 0)
            return result;
        out->time_base = in->time_base;
        out->avg_frame_rate = in->avg_frame_rate;
        map[i] = out->index;
    }
    if (output.context->nb_streams == 0)
        return AVERROR_STREAM_NOT_FOUND;
    // The chapter track is written with the header, so the movie's length must be known now.
    const auto fragmented = wholeFragmentsLength(QFile::decodeName(from));
    double length = fragmented.value_or(0);
    if (!fragmented)
        for (unsigned i = 0; i < input.context->nb_streams; ++i)
            if (map[i] >= 0 && input.context->streams[i]->duration > 0)
                length = std::max(length, double(input.context->streams[i]->duration) *
                                              av_q2d(input.context->streams[i]->time_base));
    addChapters(output.context, std::move(chapters));
    chapterCount = endChapters(output.context, length);
    result = avio_open(&output.context->pb, to.constData(), AVIO_FLAG_WRITE);
    if (result < 0)
        return result;
    result = avformat_write_header(output.context, nullptr);
    if (result < 0)
        return result;
    AVPacket* packet = av_packet_alloc();
    // Samples of a torn fragment that can't be read: a fragment holds a second of pictures
    // and sound, so a few hundred at most.
    constexpr int kMostUnreadable = 1000;
    int unreadable = 0;
    while (result >= 0) {
        if (cancel && cancel->load()) {
            result = AVERROR_EXIT;
            break;
        }
        const int read = av_read_frame(input.context, packet);
        if (read == AVERROR_EOF)
            break;
        if (read < 0) {
            // A crash can leave the last fragment torn. The sound of a fragment lies after its
            // pictures, so the pictures the file holds whole are read past the sound it lost;
            // the reader moves on by a sample at each failure.
            if (read != AVERROR(EIO) && fragmented && ++unreadable <= kMostUnreadable)
                continue;
            if (read == AVERROR(EIO))
                result = read;
            else
                qCInfo(lcCapture,
                       "finishing: %s ends in a torn fragment (%s); kept what came "
                       "before it",
                       from.constData(), qPrintable(describe(read)));
            break;
        }
        const int target = map[std::size_t(packet->stream_index)];
        if (target < 0) {
            av_packet_unref(packet);
            continue;
        }
        const AVStream* in = input.context->streams[packet->stream_index];
        // A last picture that lasts no time would fall outside the movie's edit list, and
        // players would never show it: give it one frame's time.
        if (packet->duration <= 0 && in->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
            in->r_frame_rate.num > 0 && in->r_frame_rate.den > 0)
            packet->duration = av_rescale_q(1, av_inv_q(in->r_frame_rate), in->time_base);
        // Pictures of a torn fragment are left out with it.
        if (fragmented && packet->pts != AV_NOPTS_VALUE &&
            double(packet->pts) * av_q2d(in->time_base) >= length) {
            av_packet_unref(packet);
            continue;
        }
        av_packet_rescale_ts(packet, in->time_base, output.context->streams[target]->time_base);
        packet->stream_index = target;
        packet->pos = -1;
        result = av_write_frame(output.context, packet);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    const int trailer = av_write_trailer(output.context);
    if (result >= 0)
        result = trailer;
    if (result >= 0)
        result = avio_closep(&output.context->pb);
    return result;
}

} // namespace

void syncFileToDisk(const QString& path, bool folder)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
    if (folder)
        syncFileToDisk(QFileInfo(path).absolutePath(), false);
}

FinishedMovie finishMovie(const QString& path, std::vector<MovieChapter> chapters,
                          const std::atomic<bool>* cancel)
{
    const QFileInfo info(path);
    if (!info.isFile())
        return {FinishedMovie::Result::failed, QStringLiteral("The movie file is missing."), 0};
    const auto room = freeBytes(info.absolutePath());
    if (room && *room < info.size() + kSpareBytes) {
        qCWarning(lcCapture, "finishing: %s stays fragmented: %lld bytes free, %lld needed",
                  qPrintable(path), static_cast<long long>(*room),
                  static_cast<long long>(info.size() + kSpareBytes));
        return {FinishedMovie::Result::noRoom,
                QStringLiteral("There isn't enough room on the disk to finish the movie."), 0};
    }
    const QString copy =
        info.dir().filePath(QLatin1Char('.') + info.fileName() + QStringLiteral(".part"));
    int chapterCount = 0;
    const int result = copyMovie(QFile::encodeName(path), QFile::encodeName(copy),
                                 std::move(chapters), cancel, chapterCount);
    if (result < 0) {
        QFile::remove(copy);
        if (result == AVERROR_EXIT)
            return {FinishedMovie::Result::cancelled, {}, 0};
        const QString message = describe(result);
        qCWarning(lcCapture, "finishing: %s stays fragmented: %s", qPrintable(path),
                  qPrintable(message));
        if (result == AVERROR(ENOSPC) || result == AVERROR(EFBIG) || result == AVERROR(EDQUOT))
            return {FinishedMovie::Result::noRoom,
                    QStringLiteral("There isn't enough room on the disk to finish the movie."), 0};
        return {FinishedMovie::Result::failed, message, 0};
    }
    // The copy is whole and on the disk before it takes the movie's name.
    syncFileToDisk(copy, false);
    if (std::rename(QFile::encodeName(copy).constData(), QFile::encodeName(path).constData()) !=
        0) {
        const QString message = QString::fromLocal8Bit(std::strerror(errno));
        QFile::remove(copy);
        qCWarning(lcCapture, "finishing: could not replace %s: %s", qPrintable(path),
                  qPrintable(message));
        return {FinishedMovie::Result::failed, message, 0};
    }
    syncFileToDisk(path, true);
    return {FinishedMovie::Result::finished, {}, chapterCount};
}

} // namespace orvane
