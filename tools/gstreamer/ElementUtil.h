// What both elements share: the crop rectangle and the turn, as GStreamer spells them and as the
// hardware takes them, and their start: the service and an open instance.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>
#include <stdint.h>

#include <memory>

#include "Hal.h"

namespace capturehal {

struct Crop {
    uint32_t x = 0, y = 0, width = 0, height = 0;  // width 0: everything
    bool whole() const { return width == 0 || height == 0; }
};

// "crop": an array of four unsigned numbers, x, y, width, height (gst-launch: crop="<x,y,w,h>");
// empty for the whole picture.
GParamSpec* cropParamSpec(const char* blurb);
// False (leaving *crop alone) unless the array holds four numbers or none.
bool cropFromValue(const GValue* value, Crop* crop);
void cropToValue(const Crop& crop, GValue* value);

// The hardware's rotation, clockwise in degrees, of a video-direction: identity 0, 90r 90,
// 180 180, 90l 270. False for flips, auto and custom, which the hardware cannot do.
bool hardwareAngle(GstVideoOrientationMethod method, uint32_t* degrees);
// "90r" and so on: the nick of the enumeration value.
const char* directionNick(GstVideoOrientationMethod method);

// An element's start: the turn it was given must be the hardware's, then the service is taken
// and an instance opened. Null, with the element error posted, when any step fails.
std::shared_ptr<Instance> startInstance(GstElement* element, GstVideoOrientationMethod direction,
                                        ::android::sp<ICapture>* service);

}  // namespace capturehal
