// GPU conversion path: renders a source graphic buffer into a destination graphic buffer with
// OpenGL ES, with crop, scaling and rotation. Entry points used by the capture service.
#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl3.h>
#include <cutils/native_handle.h>
#include <ui/GraphicBuffer.h>
#include <math/mat4.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <string>

extern "C" {
// Verbosity of the GPU path (initially 32): debug lines at 48, information at 64.
extern uint32_t GPU_LOG_LEVEL;
}

// One conversion request. Fields 1..9 are filled by gpu_feature_instance_create; the caller
// writes the two formats before drawing.
struct GpuPhotoFeatureIn {
    GpuPhotoFeatureIn(native_handle_t* srcHandle, native_handle_t* dstHandle);
    ~GpuPhotoFeatureIn();

    float rotation;  // degrees
    int32_t srcWidth;
    int32_t srcHeight;
    int32_t dstWidth;  // also the viewport
    int32_t dstHeight;
    int32_t cropX;  // crop rectangle, in source pixels
    int32_t cropY;
    int32_t cropWidth;
    int32_t cropHeight;
    native_handle_t* srcHandle;  // not owned
    native_handle_t* dstHandle;  // not owned
    uint32_t srcFormat;          // HAL pixel format
    uint32_t dstFormat;          // HAL pixel format
};

// The GL side of one graphic buffer of a conversion.
struct GpuImageInfo {
    GLuint texture = 0;
    GLuint framebuffer = 0;  // render target only
    EGLImageKHR image = EGL_NO_IMAGE_KHR;
    ::android::sp<::android::GraphicBuffer> buffer;
    ANativeWindowBuffer* native_buffer = nullptr;
    void* mapping = nullptr;               // CPU address while the buffer is locked
    GpuPhotoFeatureIn* feature = nullptr;  // destination record only
};

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

enum gpu_format_covert_type : int32_t {
    GPU_COVERT_RGB_TO_RGB = 0,
    GPU_COVERT_RGB_TO_YUV = 1,
    GPU_COVERT_YUV_TO_RGB = 2,
    GPU_COVERT_YUV_TO_YUV = 3,
};

// Slightly below the float nearest to pi (bit pattern 0x40490FDA). Rotations have always been
// computed with it; a change would move every rotated pixel of existing captures.
constexpr float kGpuRotationPi = 3.1415925f;

// Buffer usage of both wrapped buffers: CPU read/write often, GPU texture, platform bit.
constexpr uint64_t kGpuWrapUsage = 0x02000133;
// CPU read and write often, for the dump mappings.
constexpr uint32_t kGpuLockUsage = 0x33;

// The one off-screen OpenGL ES 3 environment of a conversion. Every call after egl_init_env must
// come from the thread that made it, since the context is current only there.
class GpuDrawing {
public:
    GpuDrawing();
    virtual ~GpuDrawing();
    GpuDrawing(const GpuDrawing&) = delete;
    GpuDrawing& operator=(const GpuDrawing&) = delete;

    // 1 when the context is current on the calling thread, 0 otherwise.
    uint32_t egl_init_env();
    uint32_t egl_cleanup();
    uint32_t gles_cleanup();

    uint32_t gles_init_shaders(gpu_format_covert_type type);
    uint32_t gles_compile_shaders(const char* vertexSource, const char* fragmentSource);
    uint32_t gles_link_program();

    uint32_t gles_init_RenderTargets(GpuPhotoFeatureIn* feature);
    uint32_t gles_generate_vertex(float model_x_left, float model_x_right, float model_y_top,
                                  float model_y_bottom, float texture_x_left, float texture_x_right,
                                  float texture_y_top, float texture_y_bottom);
    uint32_t gles_draw_frame();

    GLuint program;
    GLuint vertex_shader;
    GLuint fragment_shader;
    GLuint vertex_array;
    GLuint vertex_buffer;
    EGLDisplay display;
    EGLContext context;
    GpuImageInfo dst_image;  // render target
    GpuImageInfo src_image;  // sampled input; declared last so that it is destroyed first

private:
    void release_image(GpuImageInfo* image);
};

// Texture coordinates of the crop rectangle within the source.
struct GpuTextureCoords {
    float left;
    float right;
    float top;
    float bottom;
};

// The shader texts of a conversion type (out-of-range types get the type-0 text).
const char* gpu_vertex_shader_source();
std::string gpu_fragment_shader_source(gpu_format_covert_type type);
// false (and nothing written) when the source has no width or height to divide by.
bool gpu_texture_coords(const GpuPhotoFeatureIn& feature, GpuTextureCoords* coords);
// Rotation about the screen normal, in the form glUniformMatrix4fv takes it.
::android::mat4 gpu_rotation_matrix(float degrees);
// The conversion type for a pair of HAL pixel formats, by whether each side is RGB.
gpu_format_covert_type gpu_covert_type_for_formats(uint32_t srcFormat, uint32_t dstFormat);

int32_t gpu_init_drawing_env(gpu_format_covert_type type, GpuDrawing** drawing);
void gpu_deinit_drawing_env(GpuDrawing* drawing);
void gpu_set_debug_log_level(uint32_t level);
GpuPhotoFeatureIn* gpu_feature_instance_create(float rotation, int srcWidth, int srcHeight,
                                               int dstWidth, int dstHeight, int cropX, int cropY,
                                               int cropWidth, int cropHeight,
                                               native_handle_t* srcHandle,
                                               native_handle_t* dstHandle);
void gpu_feature_instance_delete(GpuPhotoFeatureIn* feature);
int32_t gpu_draw_frame(GpuPhotoFeatureIn* feature, GpuDrawing* drawing);
// Width alignment, in pixels, of the platform allocator for a HAL pixel format; 0 if rejected.
uint32_t gpu_get_width_align(uint32_t format);

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
