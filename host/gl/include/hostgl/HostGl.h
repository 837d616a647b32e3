// Host graphics layer: what a device's EGL and GLES give the capture service's GPU path and
// headless Mesa does not, supplied in front of Mesa so that the unchanged GPU code draws real
// pixels on a workstation.
//
// The layer is a shared library linked ahead of libEGL and libGLESv2; it defines the entry
// points below under their own names, so the service's calls reach it first, and forwards to
// Mesa what is not its business (dlsym(RTLD_NEXT)):
//
//   eglCreateImageKHR(EGL_NATIVE_BUFFER_ANDROID)   an image over a graphic buffer's memory
//                                                  (format, size and stride from the
//                                                  ANativeWindowBuffer, planes as the host
//                                                  allocator lays them out)
//   glEGLImageTargetTexture2DOES                   backs the bound texture with a GL texture of
//                                                  the layer, sibling of the same image storage
//   glFramebufferTexture2D(GL_TEXTURE_EXTERNAL_OES) attaches that storage instead, so an
//                                                  external texture can be a render target
//   glDraw*                                        uploads the sampled images from their buffers
//   glFinish                                       writes drawn render targets back into their
//                                                  buffers, packed into the buffer's format
//   glShaderSource                                 turns GL_EXT_YUV_target fragment text into
//                                                  plain GLSL ES 3.00
//   glGetError                                     keeps the client's errors apart from the
//                                                  layer's own GL work
//   eglDestroyImageKHR, eglDestroyContext, eglTerminate, glDelete{Textures,Framebuffers}
//                                                  forget what they end
//
// Colour. YUV sources sampled through a plain external sampler are presented as RGB converted
// with ITU-R BT.601 limited range (Y 16..235, C 16..240); through __samplerExternal2DY2YEXT the
// samples pass as (Y, Cb, Cr). Chroma applies to every pixel of its block (no interpolation
// before the texture filter). rgb_2_yuv/yuv_2_rgb write: itu_601 and itu_709 limited range,
// itu_601_full_range full range. A YUV render target stores (Y, Cb, Cr) per pixel and is written
// back with the chroma of each block averaged.
//
// CAPTURE_HOST_GL=0 in the environment switches the layer off for images and shaders made from
// then on: the GPU path then meets Mesa as it is, as on a platform lacking these features.
#pragma once

#include <stdint.h>

namespace host_gl {

// The variable that switches the layer off ("0"); anything else, or unset, leaves it on.
constexpr const char* kLayerSwitchEnv = "CAPTURE_HOST_GL";

bool layerEnabled();

// True when the service's GL and EGL calls reach the layer (it is linked ahead of Mesa).
bool layerInterposed();

// Time the layer spent on behalf of draws, for benchmarks: where a conversion's time goes.
struct Stats {
    uint64_t images = 0;       // native-buffer images made
    uint64_t uploads = 0;      // source textures filled from buffer memory
    uint64_t uploadNs = 0;
    uint64_t draws = 0;        // draw calls reaching Mesa, and the glFinish that waits for them
    uint64_t drawNs = 0;
    uint64_t writeBacks = 0;   // render targets packed back into buffer memory
    uint64_t writeBackNs = 0;
    uint64_t shaderRewrites = 0;
};

Stats stats();
void resetStats();

// Keeps Mesa's driver loaded until the process ends. Mesa unloads it at every eglTerminate, and
// the GPU path terminates its display after every conversion: each conversion would load it
// again, and LeakSanitizer would blame a module that is gone for what the driver kept.
void keepDriverLoaded();

}  // namespace host_gl
