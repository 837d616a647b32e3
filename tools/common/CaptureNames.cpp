#include "CaptureNames.h"

namespace capture_tools {

using ::vendor::quenlark::hardware::capture::V1_0::CaptureReturn;

const char* returnName(CaptureReturn code) {
    switch (code) {
        case CaptureReturn::SUCCESS:
            return "SUCCESS";
        case CaptureReturn::NOT_INITIALIZED:
            return "NOT_INITIALIZED";
        case CaptureReturn::NO_MEMORY:
            return "NO_MEMORY";
        case CaptureReturn::FORMAT_NOT_SUPPORT:
            return "FORMAT_NOT_SUPPORT";
        case CaptureReturn::FAIL:
            return "FAIL";
        case CaptureReturn::INVALID_PARAMETER:
            return "INVALID_PARAMETER";
        case CaptureReturn::INVALID_CAPTURE_ID:
            return "INVALID_CAPTURE_ID";
        case CaptureReturn::INVALID_ARGUMENT:
            return "INVALID_ARGUMENT";
        case CaptureReturn::BUSY:
            return "BUSY";
        case CaptureReturn::TIMEOUT:
            return "TIMEOUT";
        case CaptureReturn::NOT_OPENED:
            return "NOT_OPENED";
        case CaptureReturn::SOURCE_NOT_READY:
            return "SOURCE_NOT_READY";
        case CaptureReturn::INVALID_CAPTURE_POINT:
            return "INVALID_CAPTURE_POINT";
        case CaptureReturn::INVALID_SIZE:
            return "INVALID_SIZE";
        case CaptureReturn::INVALID_CROP:
            return "INVALID_CROP";
        case CaptureReturn::INVALID_ROTATION:
            return "INVALID_ROTATION";
        case CaptureReturn::BANDWIDTH_EXCEEDED:
            return "BANDWIDTH_EXCEEDED";
        case CaptureReturn::SECURE_NOT_ALLOWED:
            return "SECURE_NOT_ALLOWED";
        case CaptureReturn::SECURE_BUFFER_ERROR:
            return "SECURE_BUFFER_ERROR";
        case CaptureReturn::HARDWARE_ERROR:
            return "HARDWARE_ERROR";
        case CaptureReturn::INVALID_BUFFER:
            return "INVALID_BUFFER";
        case CaptureReturn::INVALID_PLANE_OFFSET:
            return "INVALID_PLANE_OFFSET";
        case CaptureReturn::BUFFER_NOT_READY:
            return "BUFFER_NOT_READY";
        case CaptureReturn::CAPTURE_POINT_NOT_SUPPORT:
            return "CAPTURE_POINT_NOT_SUPPORT";
        case CaptureReturn::DIP_NOT_SUPPORT:
            return "DIP_NOT_SUPPORT";
        case CaptureReturn::DEVICE_ERROR:
            return "DEVICE_ERROR";
    }
    return "UNKNOWN";
}

std::string describe(CaptureReturn code) {
    return std::string(returnName(code)) + " (" + std::to_string(static_cast<int32_t>(code)) + ")";
}

namespace {

struct FormatName {
    const char* name;
    uint32_t bit;
};
// The interface's names; the hardware's subset is in capture_emulator::kPixelFormats.
constexpr FormatName kFormatNames[] = {
    {"YUYV", 0x1},           {"YUYV_10B", 0x2},         {"ARGB8888", 0x4},
    {"ABGR8888", 0x8},       {"RGBA8888", 0x10},        {"BGRA8888", 0x20},
    {"ARGB2101010", 0x40},   {"RGB565", 0x80},          {"BGR888", 0x100},
    {"NV16", 0x200},         {"NV61", 0x400},           {"NV12", 0x800},
    {"NV21", 0x1000},        {"RZ21S10L", 0x2000},      {"RZ21S", 0x4000},
    {"RZ21S10T", 0x8000},    {"RZ21S10R", 0x10000},     {"COMPRESS", 0x20000},
    {"VSD8X2", 0x40000},     {"VSD8X4", 0x80000},       {"ARGB16161616", 0x100000},
    {"YV12", 0x200000},      {"ABGR2101010", 0x400000}, {"VSD8X2_B", 0x800000},
    {"VSD8X4_B", 0x1000000},
};

}  // namespace

bool formatFromName(const std::string& name, uint32_t* captureFormat) {
    for (const FormatName& f : kFormatNames) {
        if (name == f.name) {
            *captureFormat = f.bit;
            return true;
        }
    }
    return false;
}

std::string formatName(uint32_t captureFormat) {
    for (const FormatName& f : kFormatNames) {
        if (f.bit == captureFormat) return f.name;
    }
    return "0x" + std::to_string(captureFormat);
}

}  // namespace capture_tools
