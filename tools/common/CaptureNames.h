// Names of the interface's values as the tools print them: capturectl's messages and the
// GStreamer elements' errors say "startCapture refused: BUSY (8)" alike.
#pragma once

#include <stdint.h>
#include <vendor/quenlark/hardware/capture/1.0/types.h>

#include <string>

namespace capture_tools {

// "BUSY"; "UNKNOWN" for a value the interface does not name.
const char* returnName(::vendor::quenlark::hardware::capture::V1_0::CaptureReturn code);
// "BUSY (8)"
std::string describe(::vendor::quenlark::hardware::capture::V1_0::CaptureReturn code);

// A CaptureFormat bit by its interface name ("NV12"); false when unknown.
bool formatFromName(const std::string& name, uint32_t* captureFormat);
// The interface name of a CaptureFormat bit; a number when it has none.
std::string formatName(uint32_t captureFormat);

}  // namespace capture_tools
