#pragma once

// The part of the NDI runtime's C interface that Orvane uses, declared here with the names and
// layouts the NDI SDK publishes, because the runtime is a closed library loaded at run time
// (see NDILibrary) and its SDK is not something the build can depend on. Only the five
// functions below are ever called.

#include <cstdint>

extern "C" {

// Video pixel layouts, as the runtime's four-character codes.
enum NDIlib_FourCC_video_type_e : std::int32_t {
    NDIlib_FourCC_video_type_BGRA = 'B' | ('G' << 8) | ('R' << 16) | ('A' << 24),
    NDIlib_FourCC_video_type_BGRX = 'B' | ('G' << 8) | ('R' << 16) | ('X' << 24),
    NDIlib_FourCC_video_type_I420 = 'I' | ('4' << 8) | ('2' << 16) | ('0' << 24),
    NDIlib_FourCC_video_type_max = 0x7fffffff,
};

enum NDIlib_frame_format_type_e : std::int32_t {
    NDIlib_frame_format_type_interleaved = 0,
    NDIlib_frame_format_type_progressive = 1,
    NDIlib_frame_format_type_field_0 = 2,
    NDIlib_frame_format_type_field_1 = 3,
    NDIlib_frame_format_type_max = 0x7fffffff,
};

// Asks the runtime to make the time code itself.
inline constexpr std::int64_t NDIlib_send_timecode_synthesize = INT64_MAX;

struct NDIlib_send_instance_type;
using NDIlib_send_instance_t = NDIlib_send_instance_type*;

struct NDIlib_send_create_t {
    const char* p_ndi_name;
    const char* p_groups;
    bool clock_video;
    bool clock_audio;
};

struct NDIlib_video_frame_v2_t {
    int xres;
    int yres;
    NDIlib_FourCC_video_type_e FourCC;
    int frame_rate_N;
    int frame_rate_D;
    float picture_aspect_ratio;
    NDIlib_frame_format_type_e frame_format_type;
    std::int64_t timecode;
    std::uint8_t* p_data;
    union {
        int line_stride_in_bytes;
        int data_size_in_bytes;
    };
    const char* p_metadata;
    std::int64_t timestamp;
};

// The five functions, as types of pointers resolved by name.
using NDIlib_initialize_f = bool (*)();
using NDIlib_send_create_f = NDIlib_send_instance_t (*)(const NDIlib_send_create_t*);
using NDIlib_send_destroy_f = void (*)(NDIlib_send_instance_t);
using NDIlib_send_send_video_v2_f = void (*)(NDIlib_send_instance_t,
                                             const NDIlib_video_frame_v2_t*);
using NDIlib_send_get_no_connections_f = int (*)(NDIlib_send_instance_t, std::uint32_t);

} // extern "C"
