// The plugin "capturehal": capturehalsrc, a live source of the frames a capture point gives, and
// capturehalconvert, which converts frames through the hardware's memory-to-memory path.
#pragma once

#include <gst/base/gstpushsrc.h>
#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>

G_BEGIN_DECLS

#define GST_TYPE_CAPTURE_HAL_SRC (gst_capture_hal_src_get_type())
G_DECLARE_FINAL_TYPE(GstCaptureHalSrc, gst_capture_hal_src, GST, CAPTURE_HAL_SRC, GstPushSrc)

#define GST_TYPE_CAPTURE_HAL_CONVERT (gst_capture_hal_convert_get_type())
G_DECLARE_FINAL_TYPE(GstCaptureHalConvert, gst_capture_hal_convert, GST, CAPTURE_HAL_CONVERT,
                     GstVideoFilter)

G_END_DECLS

namespace capturehal {

// Registers both elements with `plugin`.
gboolean registerElements(GstPlugin* plugin);
// Registers the plugin from this binary rather than from libgstcapturehal.so (tests).
gboolean registerStatic();

// The enumeration of the capture-point property: the interface's capture points by their
// interface names (VIDEO_INPUT ... OSD).
GType capturePointType();
// The enumeration of capturehalconvert's engine property: dip, gpu.
GType engineType();

}  // namespace capturehal
