#include "gpu_draw.h"

#include <GLES2/gl2ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <sstream>

#include "GpuLog.h"
#include "PlatformConfig.h"
#include "gpu_dump.h"

extern "C" {
uint32_t GPU_LOG_LEVEL = 32;
}

using ::android::GraphicBuffer;
using ::android::NO_ERROR;
using ::android::sp;
using ::android::status_t;

GpuPhotoFeatureIn::GpuPhotoFeatureIn(native_handle_t* srcHandle, native_handle_t* dstHandle)
    : rotation(0.0f),
      srcWidth(0),
      srcHeight(0),
      dstWidth(0),
      dstHeight(0),
      cropX(0),
      cropY(0),
      cropWidth(0),
      cropHeight(0),
      srcHandle(srcHandle),
      dstHandle(dstHandle),
      srcFormat(0),
      dstFormat(0) {
    GPU_LOGD("GpuPhotoFeatureIn Constructor");
}

GpuPhotoFeatureIn::~GpuPhotoFeatureIn() {
    GPU_LOGD("GpuPhotoFeatureIn Destructor");
}

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

constexpr const char* kVertexShaderSource =
    "#version 300 es\n"
    "#extension GL_OES_EGL_image_external_essl3 : require\n"
    "precision mediump float;\n"
    "precision mediump int;\n"
    "in vec4 in_vertex_video;\n"
    "in vec2 in_texcoord_video;\n"
    "out highp vec2 texcoord_video;\n"
    "uniform mat4 transform;\n"
    "void main(void)\n"
    "{\n"
    "    gl_Position = transform * in_vertex_video;\n"
    "    texcoord_video = in_texcoord_video;\n"
    "}";

constexpr GLuint kPositionAttribute = 0;
constexpr GLuint kTexcoordAttribute = 1;
constexpr GLsizei kVertexStride = 6 * sizeof(GLfloat);
constexpr uintptr_t kTexcoordOffset = 4 * sizeof(GLfloat);

// Extension entry points are looked up at run time: the GLES library of a host need not export
// them, and a platform without them must still run the rest of the conversion.
PFNEGLCREATEIMAGEKHRPROC eglCreateImageKHRProc() {
    static const auto proc =
        reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    return proc;
}

PFNEGLDESTROYIMAGEKHRPROC eglDestroyImageKHRProc() {
    static const auto proc =
        reinterpret_cast<PFNEGLDESTROYIMAGEKHRPROC>(eglGetProcAddress("eglDestroyImageKHR"));
    return proc;
}

PFNGLEGLIMAGETARGETTEXTURE2DOESPROC glEGLImageTargetTexture2DOESProc() {
    static const auto proc = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(
        eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    return proc;
}

const char* glString(GLenum name) {
    const GLubyte* value = glGetString(name);
    return value != nullptr ? reinterpret_cast<const char*>(value) : "";
}

// Wraps a client buffer as a graphic buffer with its own clone of the handle. Null when there
// is nothing sane to wrap: the platform's wrap would dereference a null handle.
sp<GraphicBuffer> wrapBuffer(const native_handle_t* handle, int32_t width, int32_t height,
                             uint32_t format) {
    if (handle == nullptr || width <= 0 || height <= 0) {
        GPU_LOGE("no buffer to wrap: handle %p, %dx%d", handle, width, height);
        return nullptr;
    }
    const int32_t stride = allocatorStride(handle);
    sp<GraphicBuffer> buffer = new GraphicBuffer(
        handle, GraphicBuffer::CLONE_HANDLE, static_cast<uint32_t>(width),
        static_cast<uint32_t>(height), static_cast<::android::PixelFormat>(format), 1,
        kGpuWrapUsage, static_cast<uint32_t>(stride));
    const status_t status = buffer->initCheck();
    if (status != NO_ERROR) {
        GPU_LOGE("wrapping %dx%d, format %u failed: %d", width, height, format, status);
    }
    return buffer;
}

// Bytes that lock() maps for a buffer, so that a dump never reads past the mapping whatever
// size the client claimed: every descriptor of the handle, end to end, each but the last
// starting on a page of its own (planes may live behind separate descriptors).
// kDumpBufferSizeUnknown when a descriptor cannot tell.
uint64_t bufferBytes(const GraphicBuffer& buffer) {
    const native_handle_t* handle = buffer.handle;
    if (handle == nullptr || handle->numFds < 1 || handle->numFds > NATIVE_HANDLE_MAX_FDS) {
        return kDumpBufferSizeUnknown;
    }
    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    uint64_t total = 0;
    for (int i = 0; i < handle->numFds; ++i) {
        struct stat st;
        if (handle->data[i] < 0 || fstat(handle->data[i], &st) != 0 || st.st_size <= 0) {
            return kDumpBufferSizeUnknown;
        }
        const uint64_t bytes = static_cast<uint64_t>(st.st_size);
        total += i + 1 < handle->numFds ? (bytes + page - 1) / page * page : bytes;
    }
    return total;
}

}  // namespace

const char* gpu_vertex_shader_source() {
    return kVertexShaderSource;
}

std::string gpu_fragment_shader_source(gpu_format_covert_type type) {
    const int32_t value = static_cast<int32_t>(type);
    std::ostringstream fragment;
    fragment << "#version 300 es\n";
    fragment << "#extension GL_OES_EGL_image_external_essl3 : require\n";
    fragment << "#extension GL_EXT_YUV_target: require\n";
    const char* sampler =
        value == GPU_COVERT_YUV_TO_YUV ? "__samplerExternal2DY2YEXT" : "samplerExternalOES";
    fragment << "uniform " << sampler << " sampler_video;\n";
    fragment << "precision highp float;\n";
    fragment << "in vec2 texcoord_video;\n";
    // Types 1 and 3 have YUV destinations; the bit test keeps every out-of-range value on the
    // plain RGB text.
    if ((value & ~2) == GPU_COVERT_RGB_TO_YUV) fragment << "layout (yuv) ";
    fragment << "out vec4 outColor;\n";
    fragment << "void main() {\n";
    fragment << "  vec4 texColor = texture(sampler_video, texcoord_video);\n";
    if (value == GPU_COVERT_RGB_TO_YUV) {
        fragment << "  texColor = vec4(rgb_2_yuv(texColor.xyz, itu_601), texColor.w);\n";
    }
    fragment << "  outColor = texColor;\n";
    fragment << "}\n";
    return fragment.str();
}

bool gpu_texture_coords(const GpuPhotoFeatureIn& feature, GpuTextureCoords* coords) {
    if (coords == nullptr || feature.srcWidth <= 0 || feature.srcHeight <= 0) return false;
    const double width = feature.srcWidth;
    const double height = feature.srcHeight;
    coords->left = static_cast<float>(feature.cropX / width);
    coords->right =
        static_cast<float>((static_cast<double>(feature.cropX) + feature.cropWidth) / width);
    // The top edge of the quad samples the crop's last row, so the first crop row in memory
    // lands on the first row of the render target.
    coords->top =
        static_cast<float>((static_cast<double>(feature.cropY) + feature.cropHeight) / height);
    coords->bottom = static_cast<float>(feature.cropY / height);
    return true;
}

::android::mat4 gpu_rotation_matrix(float degrees) {
    const float angle = degrees * kGpuRotationPi / 180.0f;
    return ::android::details::TMatTransform<::android::details::TMat44, float>::rotate(
        angle, ::android::details::TVec3<float>(0.0f, 0.0f, 1.0f));
}

gpu_format_covert_type gpu_covert_type_for_formats(uint32_t srcFormat, uint32_t dstFormat) {
    auto isRgb = [](uint32_t format) {
        switch (format) {
            case 1:   // RGBA_8888
            case 3:   // RGB_888
            case 4:   // RGB_565
            case 5:   // BGRA_8888
            case 22:  // RGBA_FP16
            case 43:  // RGBA_1010102
                return true;
            default:
                return false;
        }
    };
    const bool srcRgb = isRgb(srcFormat);
    const bool dstRgb = isRgb(dstFormat);
    if (srcRgb) return dstRgb ? GPU_COVERT_RGB_TO_RGB : GPU_COVERT_RGB_TO_YUV;
    return dstRgb ? GPU_COVERT_YUV_TO_RGB : GPU_COVERT_YUV_TO_YUV;
}

GpuDrawing::GpuDrawing()
    : program(0),
      vertex_shader(0),
      fragment_shader(0),
      vertex_array(0),
      vertex_buffer(0),
      display(EGL_NO_DISPLAY),
      context(EGL_NO_CONTEXT) {
    GPU_LOGD("GpuDrawing Constructor");
}

GpuDrawing::~GpuDrawing() {
    GPU_LOGD("GpuDrawing Destructor");
    // GL objects go while the context is still current; the image records (source first) drop
    // their buffers after the EGL images that referenced them are gone.
    gles_cleanup();
    egl_cleanup();
}

uint32_t GpuDrawing::egl_init_env() {
    EGLDisplay dpy = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    eglInitialize(dpy, nullptr, nullptr);

    const EGLint configAttribs[] = {
        EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_SAMPLE_BUFFERS, 1, EGL_SAMPLES, 16, EGL_NONE};
    EGLint numConfigs = -1;
    GPU_CHECK_EGL(eglChooseConfig(dpy, configAttribs, nullptr, 0, &numConfigs));
    GPU_LOGI("eglGetConfigs numConfigs=%d\n", numConfigs);
    // Without a matching config the context is still attempted with none: platforms with
    // configless contexts get by, the others fail at eglMakeCurrent below.
    EGLConfig config = nullptr;
    if (numConfigs >= 1) {
        GPU_CHECK_EGL(eglChooseConfig(dpy, configAttribs, &config, 1, &numConfigs));
    }

    const EGLint contextAttribs[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE, EGL_NONE};
    EGLContext ctx = eglCreateContext(dpy, config, EGL_NO_CONTEXT, contextAttribs);
    // Only there to make the context current: all rendering goes to framebuffer objects.
    const EGLint surfaceAttribs[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE, EGL_NONE};
    EGLSurface surface = eglCreatePbufferSurface(dpy, config, surfaceAttribs);

    if (eglMakeCurrent(dpy, surface, surface, ctx) != EGL_TRUE) {
        GPU_LOGE("Failed to make the OpenGL ES Context current: %d", eglGetError());
        // Nothing is kept, so egl_cleanup will not see these: release them here.
        if (surface != EGL_NO_SURFACE) eglDestroySurface(dpy, surface);
        if (ctx != EGL_NO_CONTEXT) eglDestroyContext(dpy, ctx);
        // The display is the process's, not this environment's: another conversion may be
        // using it, so it is left initialised.
        return 0;
    }
    // The surface lives on with the current context until it is unbound.
    GPU_CHECK_EGL(eglDestroySurface(dpy, surface));
    display = dpy;
    context = ctx;
    GPU_LOGD("egl version = \"%s\", vendor = \"%s\"\n", glString(GL_VERSION), glString(GL_VENDOR));
    return 1;
}

uint32_t GpuDrawing::egl_cleanup() {
    if (display == EGL_NO_DISPLAY) return 1;
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    // The images hold the buffers on the GPU side; they must not outlive one conversion.
    for (GpuImageInfo* image : {&src_image, &dst_image}) {
        if (image->image == EGL_NO_IMAGE_KHR) continue;
        PFNEGLDESTROYIMAGEKHRPROC destroyImage = eglDestroyImageKHRProc();
        if (destroyImage != nullptr) GPU_CHECK_EGL(destroyImage(display, image->image));
        image->image = EGL_NO_IMAGE_KHR;
    }
    if (context != EGL_NO_CONTEXT) {
        GPU_CHECK_EGL(eglDestroyContext(display, context));
        context = EGL_NO_CONTEXT;
    }
    GPU_CHECK_EGL(eglTerminate(display));
    display = EGL_NO_DISPLAY;
    return 1;
}

uint32_t GpuDrawing::gles_cleanup() {
    // GL ignores names that are already gone, so these two need no guard.
    glDeleteVertexArrays(1, &vertex_array);
    glDeleteBuffers(1, &vertex_buffer);
    if (src_image.texture != 0) {
        glDeleteTextures(1, &src_image.texture);
        src_image.texture = 0;
    }
    if (src_image.framebuffer != 0) {
        glDeleteFramebuffers(1, &src_image.framebuffer);
        src_image.framebuffer = 0;
    }
    if (dst_image.texture != 0) {
        glDeleteTextures(1, &dst_image.texture);
        dst_image.texture = 0;
    }
    if (dst_image.framebuffer != 0) {
        glDeleteFramebuffers(1, &dst_image.framebuffer);
        dst_image.framebuffer = 0;
    }
    if (program != 0) {
        glDeleteProgram(program);
        program = 0;
    }
    if (vertex_shader != 0) {
        glDeleteShader(vertex_shader);
        vertex_shader = 0;
    }
    if (fragment_shader != 0) {
        glDeleteShader(fragment_shader);
        fragment_shader = 0;
    }
    return 1;
}

uint32_t GpuDrawing::gles_init_shaders(gpu_format_covert_type type) {
    GPU_LOGD("gpu_format_covert_type: %d ", static_cast<int>(type));
    const std::string fragment = gpu_fragment_shader_source(type);
    // A failed compile or link is already logged with the driver's words; the environment is
    // still handed out, and its draws then only produce GL errors.
    gles_compile_shaders(kVertexShaderSource, fragment.c_str());

    program = glCreateProgram();
    glAttachShader(program, vertex_shader);
    glAttachShader(program, fragment_shader);
    glBindAttribLocation(program, kPositionAttribute, "in_vertex_video");
    glBindAttribLocation(program, kTexcoordAttribute, "in_texcoord_video");
    gles_link_program();
    glUseProgram(program);
    glUniform1i(glGetUniformLocation(program, "sampler_video"), 0);
    GPU_CHECK_GL();

    glGenVertexArrays(1, &vertex_array);
    glGenBuffers(1, &vertex_buffer);
    return 1;
}

uint32_t GpuDrawing::gles_compile_shaders(const char* vertexSource, const char* fragmentSource) {
    GLuint shaders[2];
    shaders[0] = glCreateShader(GL_VERTEX_SHADER);
    shaders[1] = glCreateShader(GL_FRAGMENT_SHADER);
    GPU_CHECK_GL();
    const char* sources[2] = {vertexSource, fragmentSource};

    // The fragment shader is only compiled once the vertex shader is good.
    for (int i = 0; i < 2; ++i) {
        GLint compiled = GL_FALSE;
        if (sources[i] != nullptr) {
            glShaderSource(shaders[i], 1, &sources[i], nullptr);
            GPU_CHECK_GL();
            glCompileShader(shaders[i]);
            GPU_CHECK_GL();
            glGetShaderiv(shaders[i], GL_COMPILE_STATUS, &compiled);
            GPU_CHECK_GL();
        }
        if (compiled == GL_TRUE) continue;

        GLint length = 0;
        glGetShaderiv(shaders[i], GL_INFO_LOG_LENGTH, &length);
        GPU_CHECK_GL();
        if (length > 0) {
            char* text = new (std::nothrow) char[length];
            if (text != nullptr) {
                glGetShaderInfoLog(shaders[i], length, nullptr, text);
                GPU_CHECK_GL();
                text[length - 1] = '\0';
                GPU_LOG_INFO_LOG(text);
                delete[] text;
            }
        } else {
            GPU_LOG_INFO_LOG(sources[i] == nullptr ? "no shader source" : "");
        }
        // Not stored in the object, so deleted here or never.
        glDeleteShader(shaders[0]);
        glDeleteShader(shaders[1]);
        return 0;
    }
    vertex_shader = shaders[0];
    fragment_shader = shaders[1];
    return 1;
}

uint32_t GpuDrawing::gles_link_program() {
    glLinkProgram(program);
    GPU_CHECK_GL();
    GLint linked = GL_FALSE;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    GPU_CHECK_GL();
    if (linked == GL_TRUE) return 1;

    GLint length = 0;
    glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
    GPU_CHECK_GL();
    if (length > 0) {
        char* text = new (std::nothrow) char[length];
        if (text != nullptr) {
            glGetProgramInfoLog(program, length, nullptr, text);
            GPU_CHECK_GL();
            text[length - 1] = '\0';
            GPU_LOG_INFO_LOG(text);
            delete[] text;
        }
    } else {
        GPU_LOG_INFO_LOG("");
    }
    return 0;
}

void GpuDrawing::release_image(GpuImageInfo* image) {
    if (image->texture != 0) glDeleteTextures(1, &image->texture);
    if (image->framebuffer != 0) glDeleteFramebuffers(1, &image->framebuffer);
    if (image->image != EGL_NO_IMAGE_KHR) {
        PFNEGLDESTROYIMAGEKHRPROC destroyImage = eglDestroyImageKHRProc();
        if (destroyImage != nullptr) GPU_CHECK_EGL(destroyImage(display, image->image));
    }
    *image = GpuImageInfo();
}

namespace {

// An EGL image over a wrapped buffer; EGL_NO_IMAGE_KHR when the platform refuses (hosts have no
// Android native-buffer images).
EGLImageKHR createBufferImage(EGLDisplay display, const sp<GraphicBuffer>& buffer,
                              ANativeWindowBuffer* nativeBuffer) {
    // A buffer whose wrap failed still goes to EGL, which judges the native buffer itself.
    if (buffer == nullptr || nativeBuffer == nullptr) return EGL_NO_IMAGE_KHR;
    PFNEGLCREATEIMAGEKHRPROC createImage = eglCreateImageKHRProc();
    if (createImage == nullptr) {
        GPU_LOGE("eglCreateImageKHR is not available");
        return EGL_NO_IMAGE_KHR;
    }
    EGLImageKHR image = createImage(display, EGL_NO_CONTEXT, EGL_NATIVE_BUFFER_ANDROID,
                                    static_cast<EGLClientBuffer>(nativeBuffer), nullptr);
    if (image == EGL_NO_IMAGE_KHR) {
        __android_log_print(ANDROID_LOG_ERROR, GPU_LOG_TAG,
                            "[%s][%d] eglCreateImageKHR of a %dx%d buffer failed: 0x%04X", __func__,
                            __LINE__, nativeBuffer->width, nativeBuffer->height, eglGetError());
    }
    return image;
}

// Points the bound external texture at the image, when there is one to point at.
void bindImageToTexture(EGLImageKHR image) {
    if (image == EGL_NO_IMAGE_KHR) return;
    PFNGLEGLIMAGETARGETTEXTURE2DOESPROC target = glEGLImageTargetTexture2DOESProc();
    if (target == nullptr) {
        GPU_LOGE("glEGLImageTargetTexture2DOES is not available");
        return;
    }
    target(GL_TEXTURE_EXTERNAL_OES, static_cast<GLeglImageOES>(image));
}

}  // namespace

uint32_t GpuDrawing::gles_init_RenderTargets(GpuPhotoFeatureIn* feature) {
    if (feature == nullptr) {
        GPU_LOGE("no conversion request");
        return 0;
    }
    // Anything a previous draw left behind goes first, so no draw leaks the one before.
    release_image(&dst_image);
    release_image(&src_image);

    // Render target.
    glGenTextures(1, &dst_image.texture);
    GPU_CHECK_GL();
    glGenFramebuffers(1, &dst_image.framebuffer);
    GPU_CHECK_GL();
    dst_image.feature = feature;
    dst_image.buffer =
        wrapBuffer(feature->dstHandle, feature->dstWidth, feature->dstHeight, feature->dstFormat);
    GPU_LOGD("dst: private_handle->stride = [%d] ", allocatorStride(feature->dstHandle));
    if (dst_image.buffer != nullptr) dst_image.native_buffer = dst_image.buffer->getNativeBuffer();
    dst_image.image = createBufferImage(display, dst_image.buffer, dst_image.native_buffer);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, dst_image.texture);
    GPU_CHECK_GL();
    bindImageToTexture(dst_image.image);
    GPU_CHECK_GL();
    glBindFramebuffer(GL_FRAMEBUFFER, dst_image.framebuffer);
    GPU_CHECK_GL();
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_EXTERNAL_OES,
                           dst_image.texture, 0);
    GPU_CHECK_GL();
    const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
    GPU_CHECK_GL();
    if (status != GL_FRAMEBUFFER_COMPLETE) {
        GPU_LOGE("glCheckFramebufferStatus() error: %d", static_cast<int>(status));
    }
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    GPU_CHECK_GL();

    // Sampled input. It is dumped before any image work, so the dump shows what the client
    // handed in even where the platform cannot import the buffer.
    src_image.buffer =
        wrapBuffer(feature->srcHandle, feature->srcWidth, feature->srcHeight, feature->srcFormat);
    if (src_image.buffer != nullptr) {
        src_image.native_buffer = src_image.buffer->getNativeBuffer();
        int32_t bytesPerPixel = -1;
        int32_t bytesPerStride = -1;
        const status_t locked = src_image.buffer->lock(kGpuLockUsage, &src_image.mapping,
                                                       &bytesPerPixel, &bytesPerStride);
        GPU_LOGD("src: graphic_buffer_vaddr = [%p] ", static_cast<void*>(&src_image.mapping));
        GPU_LOGD("src: private_handle->stride = [%d], out_bytes_perstride = [%d]",
                 allocatorStride(feature->srcHandle), bytesPerStride);
        if (locked == NO_ERROR) {
            DumpInputData(static_cast<uint32_t>(bytesPerStride),
                          static_cast<uint32_t>(feature->srcWidth),
                          static_cast<uint32_t>(feature->srcHeight), feature->srcFormat,
                          src_image.mapping, bufferBytes(*src_image.buffer));
            src_image.buffer->unlock();
        } else {
            GPU_LOGE("src: lock failed: %d", locked);
        }
    }
    src_image.image = createBufferImage(display, src_image.buffer, src_image.native_buffer);
    glGenTextures(1, &src_image.texture);
    GPU_CHECK_GL();
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, src_image.texture);
    GPU_CHECK_GL();
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    GPU_CHECK_GL();
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    GPU_CHECK_GL();
    bindImageToTexture(src_image.image);
    GPU_CHECK_GL();
    return 1;
}

uint32_t GpuDrawing::gles_generate_vertex(float model_x_left, float model_x_right,
                                          float model_y_top, float model_y_bottom,
                                          float texture_x_left, float texture_x_right,
                                          float texture_y_top, float texture_y_bottom) {
    // Two triangles covering the quad; each vertex is x, y, z, w, s, t.
    const GLfloat vertices[6][6] = {
        {model_x_left, model_y_top, 0.0f, 1.0f, texture_x_left, texture_y_top},
        {model_x_left, model_y_bottom, 0.0f, 1.0f, texture_x_left, texture_y_bottom},
        {model_x_right, model_y_bottom, 0.0f, 1.0f, texture_x_right, texture_y_bottom},
        {model_x_right, model_y_bottom, 0.0f, 1.0f, texture_x_right, texture_y_bottom},
        {model_x_right, model_y_top, 0.0f, 1.0f, texture_x_right, texture_y_top},
        {model_x_left, model_y_top, 0.0f, 1.0f, texture_x_left, texture_y_top},
    };
    static_assert(sizeof(vertices) == 144, "six vertices of 24 bytes");

    glBindVertexArray(vertex_array);
    GPU_CHECK_GL();
    glBindBuffer(GL_ARRAY_BUFFER, vertex_buffer);
    GPU_CHECK_GL();
    glBufferData(GL_ARRAY_BUFFER, sizeof(vertices), vertices, GL_STATIC_DRAW);
    GPU_CHECK_GL();
    glVertexAttribPointer(kPositionAttribute, 4, GL_FLOAT, GL_FALSE, kVertexStride, nullptr);
    GPU_CHECK_GL();
    glEnableVertexAttribArray(kPositionAttribute);
    GPU_CHECK_GL();
    glVertexAttribPointer(kTexcoordAttribute, 2, GL_FLOAT, GL_FALSE, kVertexStride,
                          reinterpret_cast<const void*>(kTexcoordOffset));
    GPU_CHECK_GL();
    glEnableVertexAttribArray(kTexcoordAttribute);
    GPU_CHECK_GL();
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    GPU_CHECK_GL();
    glBindVertexArray(0);
    GPU_CHECK_GL();
    return 1;
}

uint32_t GpuDrawing::gles_draw_frame() {
    const GpuPhotoFeatureIn* feature = dst_image.feature;
    if (feature == nullptr) {
        GPU_LOGE("no render target: gles_init_RenderTargets has not run");
        return 0;
    }
    GPU_LOGD("debug postion 1");
    glBindFramebuffer(GL_FRAMEBUFFER, dst_image.framebuffer);
    GPU_CHECK_GL();
    glViewport(0, 0, feature->dstWidth, feature->dstHeight);
    GPU_CHECK_GL();

    GPU_LOGD("debug postion 2");
    glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
    GPU_CHECK_GL();
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    GPU_CHECK_GL();

    glUseProgram(program);
    GPU_CHECK_GL();
    glActiveTexture(GL_TEXTURE0);
    GPU_CHECK_GL();
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, src_image.texture);
    GPU_CHECK_GL();
    GPU_LOGD("debug postion 3");

    const ::android::mat4 transform = gpu_rotation_matrix(feature->rotation);
    const GLint transformLocation = glGetUniformLocation(program, "transform");
    glUniformMatrix4fv(transformLocation, 1, GL_FALSE, transform.asArray());
    GPU_CHECK_GL();
    GPU_LOGD("debug postion 4");

    glBindVertexArray(vertex_array);
    GPU_CHECK_GL();
    glDrawArrays(GL_TRIANGLES, 0, 6);
    GPU_CHECK_GL();
    glBindVertexArray(0);
    GPU_CHECK_GL();
    // The client reads the destination as soon as captureOnce returns; nothing else signals.
    glFinish();
    GPU_CHECK_GL();
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    GPU_CHECK_GL();
    GPU_LOGD("debug postion 5");

    if (dst_image.buffer != nullptr) {
        int32_t bytesPerPixel = -1;
        int32_t bytesPerStride = -1;
        const status_t locked = dst_image.buffer->lock(kGpuLockUsage, &dst_image.mapping,
                                                       &bytesPerPixel, &bytesPerStride);
        GPU_LOGD("out_bytes_perstride: %d", bytesPerStride);
        if (locked == NO_ERROR) {
            DumpOutputData(static_cast<uint32_t>(bytesPerStride),
                           static_cast<uint32_t>(feature->dstWidth),
                           static_cast<uint32_t>(feature->dstHeight), feature->dstFormat,
                           dst_image.mapping, bufferBytes(*dst_image.buffer));
            dst_image.buffer->unlock();
        } else {
            GPU_LOGE("dst: lock failed: %d", locked);
        }
    }
    return 1;
}

int32_t gpu_init_drawing_env(gpu_format_covert_type type, GpuDrawing** drawing) {
    if (drawing == nullptr) {
        GPU_LOGE("no place to return the environment");
        return 0;
    }
    *drawing = new (std::nothrow) GpuDrawing();
    if (*drawing == nullptr) {
        GPU_LOGE("out of memory");
        return 0;
    }
    // Without a current context the object is still usable: its GL calls then fail and log.
    (*drawing)->egl_init_env();
    return static_cast<int32_t>((*drawing)->gles_init_shaders(type));
}

void gpu_deinit_drawing_env(GpuDrawing* drawing) {
    delete drawing;
}

void gpu_set_debug_log_level(uint32_t level) {
    __atomic_store_n(&GPU_LOG_LEVEL, level, __ATOMIC_RELAXED);
}

GpuPhotoFeatureIn* gpu_feature_instance_create(float rotation, int srcWidth, int srcHeight,
                                               int dstWidth, int dstHeight, int cropX, int cropY,
                                               int cropWidth, int cropHeight,
                                               native_handle_t* srcHandle,
                                               native_handle_t* dstHandle) {
    GpuPhotoFeatureIn* feature = new (std::nothrow) GpuPhotoFeatureIn(srcHandle, dstHandle);
    if (feature == nullptr) {
        GPU_LOGE("out of memory");
        return nullptr;
    }
    feature->rotation = rotation;
    feature->srcWidth = srcWidth;
    feature->srcHeight = srcHeight;
    feature->dstWidth = dstWidth;
    feature->dstHeight = dstHeight;
    feature->cropX = cropX;
    feature->cropY = cropY;
    feature->cropWidth = cropWidth;
    feature->cropHeight = cropHeight;
    return feature;
}

void gpu_feature_instance_delete(GpuPhotoFeatureIn* feature) {
    delete feature;
}

int32_t gpu_draw_frame(GpuPhotoFeatureIn* feature, GpuDrawing* drawing) {
    if (feature == nullptr || drawing == nullptr) {
        GPU_LOGE("nothing to draw: feature %p, drawing %p", static_cast<void*>(feature),
                 static_cast<void*>(drawing));
        return 0;
    }
    GpuTextureCoords texture{};
    if (!gpu_texture_coords(*feature, &texture)) {
        GPU_LOGE("source size %dx%d cannot be sampled, nothing drawn", feature->srcWidth,
                 feature->srcHeight);
        return 0;
    }
    drawing->gles_init_RenderTargets(feature);

    constexpr float kModelLeft = -1.0f;
    constexpr float kModelRight = 1.0f;
    constexpr float kModelTop = 1.0f;
    constexpr float kModelBottom = -1.0f;
    GPU_LOGD("rotateAngle = %f", static_cast<double>(feature->rotation));
    GPU_LOGD("model_x_left = %f, model_x_right = %f, model_y_top = %f, model_y_bottom = %f",
             static_cast<double>(kModelLeft), static_cast<double>(kModelRight),
             static_cast<double>(kModelTop), static_cast<double>(kModelBottom));
    GPU_LOGD(
        "texture_x_left = %f, texture_x_right = %f, texture_y_top = %f, "
        "texture_y_bottom = %f",
        static_cast<double>(texture.left), static_cast<double>(texture.right),
        static_cast<double>(texture.top), static_cast<double>(texture.bottom));
    drawing->gles_generate_vertex(kModelLeft, kModelRight, kModelTop, kModelBottom, texture.left,
                                  texture.right, texture.top, texture.bottom);
    return static_cast<int32_t>(drawing->gles_draw_frame());
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
