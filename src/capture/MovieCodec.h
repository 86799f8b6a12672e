#pragma once

namespace orvane {

// The video codec a recording is written in.
enum class MovieCodec {
    hevc,
    h264,
    proRes422Proxy,
};

} // namespace orvane
