#include "settings/RecordingCodec.h"

namespace orvane {

QString rawValue(RecordingCodec codec)
{
    switch (codec) {
    case RecordingCodec::hevc:
        return QStringLiteral("hevc");
    case RecordingCodec::h264:
        return QStringLiteral("h264");
    case RecordingCodec::proRes422Proxy:
        return QStringLiteral("proRes422Proxy");
    }
    return {};
}

std::optional<RecordingCodec> recordingCodecFromRawValue(QStringView text)
{
    for (RecordingCodec codec : allRecordingCodecs) {
        if (text == rawValue(codec))
            return codec;
    }
    return std::nullopt;
}

QString label(RecordingCodec codec)
{
    switch (codec) {
    case RecordingCodec::hevc:
        return QStringLiteral("HEVC (smallest files)");
    case RecordingCodec::h264:
        return QStringLiteral("H.264 (plays anywhere)");
    case RecordingCodec::proRes422Proxy:
        return QStringLiteral("ProRes 422 Proxy (for editing)");
    }
    return {};
}

} // namespace orvane
