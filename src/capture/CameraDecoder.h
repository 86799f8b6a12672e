#pragma once

#include <cstdint>
#include <memory>

struct AVCodecContext;
struct AVCodecParameters;
struct AVFrame;
struct AVPacket;

namespace orvane {

// Turns one camera picture, as the driver delivered it (MJPEG from a UVC camera, or raw
// pixels), into a decoded picture, and refuses one that arrived damaged: cut short by a lost
// USB transfer, flagged corrupt by the driver, or not decodable. A refused picture is dropped
// and counted, never recorded or shown as black. Capture thread only.
class CameraDecoder {
public:
    // nullptr when FFmpeg has no decoder for the camera's format.
    static std::unique_ptr<CameraDecoder> open(const AVCodecParameters& format);
    ~CameraDecoder();
    CameraDecoder(const CameraDecoder&) = delete;
    CameraDecoder& operator=(const CameraDecoder&) = delete;

    // Decodes `size` bytes; whether a whole, undamaged picture came out. `corrupt`: the driver
    // flagged the buffer.
    bool decode(const std::uint8_t* data, int size, bool corrupt = false);
    // The picture of the last successful decode().
    const AVFrame& picture() const { return *picture_; }
    int width() const;
    int height() const;

private:
    CameraDecoder() = default;
    AVCodecContext* context_ = nullptr;
    AVFrame* picture_ = nullptr;
    AVPacket* packet_ = nullptr;
    bool jpeg_ = false;
};

} // namespace orvane
