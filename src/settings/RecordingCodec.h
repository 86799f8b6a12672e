#pragma once

#include <QString>
#include <QStringView>

#include <array>
#include <optional>

namespace orvane {

// The video codec of recorded movies. Stored in the settings by its raw text; the order of
// the cases is the order of the choices shown in the settings.
enum class RecordingCodec {
    hevc,
    h264,
    proRes422Proxy,
};

inline constexpr std::array<RecordingCodec, 3> allRecordingCodecs{
    RecordingCodec::hevc, RecordingCodec::h264, RecordingCodec::proRes422Proxy};

// "hevc", "h264", "proRes422Proxy".
QString rawValue(RecordingCodec codec);
std::optional<RecordingCodec> recordingCodecFromRawValue(QStringView text);

// The choice as the settings show it, e.g. "HEVC (smallest files)".
QString label(RecordingCodec codec);

} // namespace orvane
