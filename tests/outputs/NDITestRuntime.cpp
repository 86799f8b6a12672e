// A stand-in for the NDI runtime, built as libndi.so.6 and found through the real search path
// (NDI_RUNTIME_DIR_V6). It exports the five functions Orvane resolves and does what the
// environment says, read at every call:
//   ORVANE_NDI_TEST_LOG=FILE           append one line per call received (see docs/outputs.md)
//   ORVANE_NDI_TEST_FAIL_INITIALIZE=1  NDIlib_initialize returns false
//   ORVANE_NDI_TEST_FAIL_CREATE=1      NDIlib_send_create returns no sender
//   ORVANE_NDI_TEST_CONNECTIONS=N      NDIlib_send_get_no_connections answers N
//   ORVANE_NDI_TEST_SEND_MS=N          NDIlib_send_send_video_v2 takes N ms, like a busy network

#include "outputs/NDIApi.h"

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

struct NDIlib_send_instance_type {
    int id;
    std::string name;
};

namespace {

std::mutex logMutex;
std::atomic<int> nextSender{1};

int number(const char* name)
{
    const char* value = std::getenv(name);
    return value ? std::atoi(value) : 0;
}

__attribute__((format(printf, 1, 2))) void logLine(const char* format, ...)
{
    const char* path = std::getenv("ORVANE_NDI_TEST_LOG");
    std::lock_guard lock(logMutex);
    if (std::FILE* file = path && *path ? std::fopen(path, "a") : nullptr) {
        va_list arguments;
        va_start(arguments, format);
        std::vfprintf(file, format, arguments);
        va_end(arguments);
        std::fputc('\n', file);
        std::fclose(file);
    }
}

// A checksum of the picture, read as the runtime reads an I420 frame (Y, then Cb and Cr at
// half the stride, down to the last chroma row), so a reader can tell frames apart and see
// that the planes were readable for the whole call.
std::uint32_t pictureSum(const NDIlib_video_frame_v2_t& frame)
{
    std::uint32_t sum = 0;
    const int stride = frame.line_stride_in_bytes;
    for (int y = 0; y < frame.yres; ++y)
        for (int x = y % 7; x < frame.xres; x += 13)
            sum = sum * 31 + frame.p_data[std::ptrdiff_t(y) * stride + x];
    const std::uint8_t* chroma = frame.p_data + std::ptrdiff_t(frame.yres) * stride;
    for (int y = 0; y < frame.yres; ++y) { // two chroma planes of yres / 2 rows
        const std::uint8_t* line = chroma + std::ptrdiff_t(y) * (stride / 2);
        sum = sum * 31 + line[0] + line[frame.xres / 2 - 1];
    }
    return sum;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) bool NDIlib_initialize()
{
    const bool ok = number("ORVANE_NDI_TEST_FAIL_INITIALIZE") != 1;
    logLine("initialize %s", ok ? "ok" : "failed");
    return ok;
}

__attribute__((visibility("default"))) NDIlib_send_instance_t
NDIlib_send_create(const NDIlib_send_create_t* settings)
{
    if (number("ORVANE_NDI_TEST_FAIL_CREATE") == 1 || !settings) {
        logLine("create failed");
        return nullptr;
    }
    auto* sender = new NDIlib_send_instance_type{nextSender++,
                                                 settings->p_ndi_name ? settings->p_ndi_name : ""};
    logLine("create sender=%d name=%s groups=%s clock_video=%d clock_audio=%d", sender->id,
            sender->name.c_str(), settings->p_groups ? settings->p_groups : "(none)",
            int(settings->clock_video), int(settings->clock_audio));
    return sender;
}

__attribute__((visibility("default"))) void NDIlib_send_destroy(NDIlib_send_instance_t sender)
{
    if (!sender)
        return;
    logLine("destroy sender=%d name=%s", sender->id, sender->name.c_str());
    delete sender;
}

__attribute__((visibility("default"))) void
NDIlib_send_send_video_v2(NDIlib_send_instance_t sender, const NDIlib_video_frame_v2_t* frame)
{
    if (!sender || !frame)
        return;
    static const char* const formats[] = {"interleaved", "progressive", "field0", "field1"};
    const int format = frame->frame_format_type;
    const std::uint32_t before = pictureSum(*frame);
    std::this_thread::sleep_for(std::chrono::milliseconds(number("ORVANE_NDI_TEST_SEND_MS")));
    const std::uint32_t after = pictureSum(*frame);
    logLine("video sender=%d size=%dx%d fourcc=%.4s rate=%d/%d aspect=%g format=%s timecode=%s "
            "stride=%d metadata=%s picture=%08" PRIx32 "%s",
            sender->id, frame->xres, frame->yres, reinterpret_cast<const char*>(&frame->FourCC),
            frame->frame_rate_N, frame->frame_rate_D, double(frame->picture_aspect_ratio),
            format >= 0 && format < 4 ? formats[format] : "unknown",
            frame->timecode == NDIlib_send_timecode_synthesize ? "synthesize" : "given",
            frame->line_stride_in_bytes, frame->p_metadata ? frame->p_metadata : "(none)", after,
            before == after ? "" : " changed-while-sending");
}

__attribute__((visibility("default"))) int
NDIlib_send_get_no_connections(NDIlib_send_instance_t sender, std::uint32_t)
{
    return sender ? number("ORVANE_NDI_TEST_CONNECTIONS") : 0;
}

} // extern "C"
