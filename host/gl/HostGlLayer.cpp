// The host graphics layer's entry points (see <hostgl/HostGl.h>). Each one is defined under the
// name the service calls and forwards to Mesa what is not the layer's business.
#define LOG_TAG "HOST_GL"

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl3.h>
#include <GLES2/gl2ext.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <log/log.h>
#include <nativebase/nativebase.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <ui/GrallocPrivate.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "HostGlPixels.h"
#include "HostGlShader.h"
#include "hostgl/HostGl.h"

namespace host_gl {

namespace {

// --- the implementation behind the layer ---

void* resolveReal(const char* name) {
    if (void* symbol = dlsym(RTLD_NEXT, name)) return symbol;
    // Loaded ahead of us (or not at all): ask the libraries themselves.
    static void* const egl = dlopen("libEGL.so.1", RTLD_NOW | RTLD_GLOBAL);
    static void* const gles = dlopen("libGLESv2.so.2", RTLD_NOW | RTLD_GLOBAL);
    for (void* library : {egl, gles}) {
        if (library == nullptr) continue;
        if (void* symbol = dlsym(library, name)) return symbol;
    }
    // Extension entry points are only reachable through EGL.
    using GetProcAddress = __eglMustCastToProperFunctionPointerType (*)(const char*);
    static const auto getProcAddress = reinterpret_cast<GetProcAddress>(
        egl != nullptr ? dlsym(egl, "eglGetProcAddress") : nullptr);
    return getProcAddress != nullptr ? reinterpret_cast<void*>(getProcAddress(name)) : nullptr;
}

template <typename Fn>
Fn realFunction(const char* name) {
    Fn fn = reinterpret_cast<Fn>(resolveReal(name));
    if (fn == nullptr) ALOGE("%s not found behind the host graphics layer", name);
    return fn;
}

#define REAL(name)                                                             \
    ([]() {                                                                    \
        static const auto fn = ::host_gl::realFunction<decltype(&::name)>(#name);         \
        return fn;                                                             \
    }())

uint64_t nowNs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

// --- state ---

struct LayerImage;

// One image in one context: a texture of the layer holding the pixels, and an EGL image of
// that texture through which client textures share them.
struct Binding {
    LayerImage* image = nullptr;
    EGLContext context = EGL_NO_CONTEXT;
    GLuint texture = 0;
    EGLImageKHR sibling = EGL_NO_IMAGE_KHR;
    bool valid = false;  // the texture holds the buffer's pixels or was cleared whole
    bool dirty = false;  // drawn into since the last write-back
};

// An EGL_NATIVE_BUFFER_ANDROID image: the buffer's memory, mapped through a descriptor of our
// own so that the image outlives the client's graphic buffer as on a device.
struct LayerImage {
    EGLDisplay display = EGL_NO_DISPLAY;
    int fd = -1;
    uint8_t* memory = nullptr;
    size_t mapSize = 0;
    BufferLayout layout;
    std::map<EGLContext, Binding> bindings;
};

struct ContextState {
    EGLDisplay display = EGL_NO_DISPLAY;
    std::map<GLuint, Binding*> textures;      // client texture names backed by an image
    std::map<GLuint, Binding*> framebuffers;  // client framebuffers drawing into one
    std::map<GLuint, bool> yuvSamplerShaders;
    std::vector<GLenum> clientErrors;  // raised before the layer's own GL work, not yet read
    GLuint readFramebuffer = 0;
};

struct Layer {
    std::recursive_mutex lock;
    std::set<LayerImage*> images;
    std::map<EGLContext, ContextState> contexts;
    // Texels on their way through the CPU. Kept across conversions, whose contexts do not last,
    // so that frames of a size seen before cost no allocation.
    std::vector<uint8_t> staging;
    Stats stats;
};

Layer& layer() {
    static Layer* const instance = new Layer();  // used until the process ends
    return *instance;
}

LayerImage* findImage(Layer& l, EGLImageKHR image) {
    auto* candidate = static_cast<LayerImage*>(image);
    return l.images.count(candidate) != 0 ? candidate : nullptr;
}

ContextState* currentState(Layer& l, bool create) {
    const EGLContext context = REAL(eglGetCurrentContext)();
    if (context == EGL_NO_CONTEXT) return nullptr;
    auto it = l.contexts.find(context);
    if (it != l.contexts.end()) return &it->second;
    if (!create) return nullptr;
    ContextState& state = l.contexts[context];
    state.display = REAL(eglGetCurrentDisplay)();
    return &state;
}

// The layer's GL work must neither clear errors the client has not read yet nor leave its own.
void stashClientErrors(ContextState& state) {
    for (GLenum e; (e = REAL(glGetError)()) != GL_NO_ERROR;) state.clientErrors.push_back(e);
}

void dropOwnErrors(const char* what) {
    for (GLenum e; (e = REAL(glGetError)()) != GL_NO_ERROR;) {
        ALOGE("%s: OpenGL error 0x%04X in the host graphics layer", what, e);
    }
}

GLint getInteger(GLenum name) {
    GLint value = 0;
    REAL(glGetIntegerv)(name, &value);
    return value;
}

// Saves what the layer's transfers change and puts it back.
class TransferState {
public:
    TransferState() {
        for (size_t i = 0; i < kCount; ++i) mValues[i] = getInteger(kNames[i]);
    }
    ~TransferState() {
        const auto gl = REAL(glPixelStorei);
        for (size_t i = 0; i < kStoreCount; ++i) gl(kNames[i], mValues[i]);
        REAL(glBindBuffer)(GL_PIXEL_UNPACK_BUFFER, static_cast<GLuint>(mValues[kStoreCount]));
        REAL(glBindBuffer)(GL_PIXEL_PACK_BUFFER, static_cast<GLuint>(mValues[kStoreCount + 1]));
        REAL(glBindFramebuffer)(GL_READ_FRAMEBUFFER, static_cast<GLuint>(mValues[kStoreCount + 2]));
        REAL(glActiveTexture)(static_cast<GLenum>(mValues[kStoreCount + 3]));
        REAL(glBindTexture)(GL_TEXTURE_2D, static_cast<GLuint>(mValues[kStoreCount + 4]));
    }
    TransferState(const TransferState&) = delete;
    TransferState& operator=(const TransferState&) = delete;

private:
    static constexpr size_t kStoreCount = 10;
    static constexpr size_t kCount = kStoreCount + 5;
    static constexpr GLenum kNames[kCount] = {
        GL_UNPACK_ROW_LENGTH, GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_PIXELS,
        GL_UNPACK_ALIGNMENT,  GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_IMAGES,
        GL_PACK_ROW_LENGTH,   GL_PACK_SKIP_ROWS,   GL_PACK_SKIP_PIXELS,
        GL_PACK_ALIGNMENT,
        // restored by their own calls
        GL_PIXEL_UNPACK_BUFFER_BINDING, GL_PIXEL_PACK_BUFFER_BINDING,
        GL_READ_FRAMEBUFFER_BINDING, GL_ACTIVE_TEXTURE,
        GL_TEXTURE_BINDING_2D,  // of the active unit, which is the one the layer uses
    };
    GLint mValues[kCount];
};

constexpr GLenum TransferState::kNames[];

void resetTransferState() {
    const auto gl = REAL(glPixelStorei);
    for (GLenum name : {GL_UNPACK_ROW_LENGTH, GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_PIXELS,
                        GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_IMAGES, GL_PACK_ROW_LENGTH,
                        GL_PACK_SKIP_ROWS, GL_PACK_SKIP_PIXELS}) {
        gl(name, 0);
    }
    gl(GL_UNPACK_ALIGNMENT, 1);
    gl(GL_PACK_ALIGNMENT, 1);
    REAL(glBindBuffer)(GL_PIXEL_UNPACK_BUFFER, 0);
    REAL(glBindBuffer)(GL_PIXEL_PACK_BUFFER, 0);
}

// Fills the binding's texture from the buffer. Render targets of YUV formats hold samples as
// they are, like sources sampled through the YUV sampler.
void upload(Layer& l, Binding& binding, bool yuvRaw) {
    const uint64_t start = nowNs();
    const LayerImage& image = *binding.image;
    const BufferLayout& layout = image.layout;
    const TexelFormat& tf = texelFormat(layout.storage);
    TransferState saved;
    resetTransferState();
    const void* pixels = image.memory;
    if (uploadsDirect(layout.storage)) {
        REAL(glPixelStorei)(GL_UNPACK_ROW_LENGTH, static_cast<GLint>(layout.stride));
    } else {
        presentSource(layout, image.memory, yuvRaw, &l.staging);
        pixels = l.staging.data();
    }
    REAL(glBindTexture)(GL_TEXTURE_2D, binding.texture);
    REAL(glTexSubImage2D)(GL_TEXTURE_2D, 0, 0, 0, static_cast<GLsizei>(layout.width),
                          static_cast<GLsizei>(layout.height), tf.uploadFormat, tf.uploadType,
                          pixels);
    binding.valid = true;
    l.stats.uploads++;
    l.stats.uploadNs += nowNs() - start;
}

uint16_t floatToHalf(float value) {
    uint32_t bits;
    memcpy(&bits, &value, 4);
    const uint32_t sign = (bits >> 16) & 0x8000u;
    const float magnitude = std::fabs(value);
    if (!(magnitude == magnitude)) return static_cast<uint16_t>(sign | 0x7e00u);  // NaN
    if (magnitude >= 65520.0f) return static_cast<uint16_t>(sign | 0x7c00u);
    if (magnitude < 6.103515625e-05f) {  // subnormal halves: steps of 2^-24
        return static_cast<uint16_t>(sign | static_cast<uint32_t>(std::lrint(magnitude * 16777216.0f)));
    }
    int exponent;
    const float mantissa = std::frexp(magnitude, &exponent);  // [0.5, 1)
    uint32_t m = static_cast<uint32_t>(std::lrint((mantissa * 2.0f - 1.0f) * 1024.0f));
    uint32_t e = static_cast<uint32_t>(exponent - 1 + 15);
    if (m == 1024) {
        m = 0;
        ++e;
    }
    return static_cast<uint16_t>(sign | e << 10 | m);
}

void writeBackBinding(Layer& l, ContextState& state, Binding& binding) {
    const uint64_t start = nowNs();
    LayerImage& image = *binding.image;
    const BufferLayout& layout = image.layout;
    const TexelFormat& tf = texelFormat(layout.storage);
    TransferState saved;
    resetTransferState();
    if (state.readFramebuffer == 0) REAL(glGenFramebuffers)(1, &state.readFramebuffer);
    REAL(glBindFramebuffer)(GL_READ_FRAMEBUFFER, state.readFramebuffer);
    REAL(glFramebufferTexture2D)(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D,
                                 binding.texture, 0);
    const GLsizei width = static_cast<GLsizei>(layout.width);
    const GLsizei height = static_cast<GLsizei>(layout.height);
    GLenum readType = tf.readType;
    if (layout.storage == Storage::kRgba16F &&
        getInteger(GL_IMPLEMENTATION_COLOR_READ_TYPE) != GL_HALF_FLOAT) {
        readType = GL_FLOAT;  // always allowed for float targets; halved below
    }
    if (readsDirect(layout.storage) && readType == tf.readType) {
        REAL(glPixelStorei)(GL_PACK_ROW_LENGTH, static_cast<GLint>(layout.stride));
        REAL(glReadPixels)(0, 0, width, height, GL_RGBA, readType, image.memory);
    } else if (readType == GL_FLOAT) {
        std::vector<float> floats(static_cast<size_t>(width) * height * 4);
        REAL(glReadPixels)(0, 0, width, height, GL_RGBA, GL_FLOAT, floats.data());
        for (uint32_t y = 0; y < layout.height; ++y) {
            auto* row = reinterpret_cast<uint16_t*>(image.memory + layout.rowBytes * y);
            const float* in = floats.data() + static_cast<size_t>(y) * width * 4;
            for (size_t i = 0; i < static_cast<size_t>(width) * 4; ++i) {
                const uint16_t half = floatToHalf(in[i]);
                memcpy(row + i, &half, 2);
            }
        }
    } else {
        l.staging.resize(static_cast<size_t>(width) * height * tf.readBytes);
        REAL(glReadPixels)(0, 0, width, height, GL_RGBA, readType, l.staging.data());
        writeBack(layout, l.staging.data(), image.memory);
    }
    REAL(glFramebufferTexture2D)(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 0, 0);
    binding.dirty = false;
    l.stats.writeBacks++;
    l.stats.writeBackNs += nowNs() - start;
}

Binding* framebufferTarget(ContextState& state, GLenum bindingName) {
    if (state.framebuffers.empty()) return nullptr;
    auto it = state.framebuffers.find(static_cast<GLuint>(getInteger(bindingName)));
    return it != state.framebuffers.end() ? it->second : nullptr;
}

bool programSamplesYuv(const ContextState& state, GLuint program) {
    if (program == 0 || state.yuvSamplerShaders.empty()) return false;
    GLuint shaders[8];
    GLsizei count = 0;
    REAL(glGetAttachedShaders)(program, 8, &count, shaders);
    for (GLsizei i = 0; i < count; ++i) {
        auto it = state.yuvSamplerShaders.find(shaders[i]);
        if (it != state.yuvSamplerShaders.end() && it->second) return true;
    }
    return false;
}

constexpr GLint kScannedUnits = 8;

// Brings the images a draw samples and draws into up to date.
void beforeDraw(Layer& l) {
    ContextState* state = currentState(l, false);
    if (state == nullptr || (state->textures.empty() && state->framebuffers.empty())) return;
    stashClientErrors(*state);
    Binding* target = framebufferTarget(*state, GL_DRAW_FRAMEBUFFER_BINDING);
    if (target != nullptr && !target->valid) upload(l, *target, true);
    if (!state->textures.empty()) {
        const bool yuvRaw =
            programSamplesYuv(*state, static_cast<GLuint>(getInteger(GL_CURRENT_PROGRAM)));
        const GLint active = getInteger(GL_ACTIVE_TEXTURE);
        for (GLint unit = 0; unit < kScannedUnits; ++unit) {
            REAL(glActiveTexture)(static_cast<GLenum>(GL_TEXTURE0 + unit));
            for (GLenum bindingName : {GL_TEXTURE_BINDING_EXTERNAL_OES, GL_TEXTURE_BINDING_2D}) {
                auto it = state->textures.find(static_cast<GLuint>(getInteger(bindingName)));
                if (it == state->textures.end()) continue;
                Binding* sampled = it->second;
                // What the GPU drew and has not yet written back is newer than the memory.
                if (sampled != target && !sampled->dirty) upload(l, *sampled, yuvRaw);
            }
        }
        REAL(glActiveTexture)(static_cast<GLenum>(active));
    }
    if (target != nullptr) target->dirty = true;
    dropOwnErrors("draw");
}

// A client draw: its images brought up to date first, its time counted.
template <typename Draw>
void draw(Draw&& mesaDraw) {
    Layer& l = layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    beforeDraw(l);
    const uint64_t start = nowNs();
    mesaDraw();
    l.stats.draws++;
    l.stats.drawNs += nowNs() - start;
}

void writeBackContext(Layer& l) {
    const EGLContext context = REAL(eglGetCurrentContext)();
    ContextState* state = currentState(l, false);
    if (state == nullptr) return;
    bool any = false;
    for (LayerImage* image : l.images) {
        auto it = image->bindings.find(context);
        if (it == image->bindings.end() || !it->second.dirty) continue;
        if (!any) stashClientErrors(*state);
        any = true;
        writeBackBinding(l, *state, it->second);
    }
    if (any) dropOwnErrors("write-back");
}

// Drops every reference a context's records hold to a binding that is going away.
void unlinkBinding(Layer& l, Binding& binding) {
    auto it = l.contexts.find(binding.context);
    if (it == l.contexts.end()) return;
    for (auto* table : {&it->second.textures, &it->second.framebuffers}) {
        for (auto entry = table->begin(); entry != table->end();) {
            entry = entry->second == &binding ? table->erase(entry) : std::next(entry);
        }
    }
}

void destroyImage(Layer& l, LayerImage* image) {
    const EGLContext current = REAL(eglGetCurrentContext)();
    for (auto& [context, binding] : image->bindings) {
        unlinkBinding(l, binding);
        if (binding.sibling != EGL_NO_IMAGE_KHR) {
            REAL(eglDestroyImageKHR)(image->display, binding.sibling);
        }
        // Elsewhere the texture goes with its context.
        if (context == current && binding.texture != 0) {
            REAL(glDeleteTextures)(1, &binding.texture);
        }
    }
    if (image->memory != nullptr) munmap(image->memory, image->mapSize);
    if (image->fd >= 0) close(image->fd);
    l.images.erase(image);
    delete image;
}

void forgetContext(Layer& l, EGLContext context) {
    for (LayerImage* image : l.images) {
        auto it = image->bindings.find(context);
        if (it == image->bindings.end()) continue;
        if (it->second.sibling != EGL_NO_IMAGE_KHR) {
            REAL(eglDestroyImageKHR)(image->display, it->second.sibling);
        }
        image->bindings.erase(it);
    }
    l.contexts.erase(context);
}

bool isSaneHandle(const native_handle_t* h) {
    return h != nullptr && h->version == static_cast<int>(sizeof(native_handle_t)) &&
           h->numFds >= 1 && h->numFds <= NATIVE_HANDLE_MAX_FDS && h->numInts >= 0 &&
           h->numInts <= NATIVE_HANDLE_MAX_INTS && h->data[0] >= 0;
}

// The allocator puts chroma planes after the rows it allocated, which may be more than the
// rows the buffer was wrapped with.
void adoptAllocatorPlanes(const native_handle_t* h, BufferLayout* layout) {
    if (h->numFds != kGrallocPrivateNumFds || h->numInts < kGrallocPrivateNumInts ||
        h->data[kGrallocPrivateMagicIndex] != kGrallocPrivateMagic ||
        h->data[kGrallocPrivateFormat] != layout->format ||
        h->data[kGrallocPrivateHeight] < static_cast<int>(layout->height) ||
        layout->chroma == Chroma::kNone || layout->chroma == Chroma::kPairs422) {
        return;
    }
    const int64_t plane1 = h->data[kGrallocPrivatePlane1Offset];
    const int64_t plane2 = h->data[kGrallocPrivatePlane2Offset];
    if (plane1 < static_cast<int64_t>(layout->plane1)) return;
    layout->plane1 = static_cast<uint64_t>(plane1);
    if (layout->chroma == Chroma::kPlanar420) {
        if (plane2 < plane1) return;
        layout->plane2 = static_cast<uint64_t>(plane2);
    }
}

bool fitsIn(const BufferLayout& l, uint64_t size) {
    if (l.rowBytes * l.height > size) return false;
    const uint64_t chromaBytes = l.chromaRowBytes * l.chromaRows;
    if (chromaBytes != 0 && l.plane1 + chromaBytes > size) return false;
    if (l.chroma == Chroma::kPlanar420 && l.plane2 + chromaBytes > size) return false;
    return true;
}

// The image over a native buffer, or null (with the reason logged) when it cannot be made.
LayerImage* makeImage(EGLDisplay display, EGLContext context, EGLClientBuffer clientBuffer) {
    if (context != EGL_NO_CONTEXT) {
        ALOGE("native-buffer images take no context");
        return nullptr;
    }
    const auto* buffer = static_cast<const ANativeWindowBuffer*>(clientBuffer);
    if (buffer == nullptr || !isSaneHandle(buffer->handle)) {
        ALOGE("native buffer %p has no usable handle", clientBuffer);
        return nullptr;
    }
    BufferLayout layout;
    if (buffer->width <= 0 || buffer->height <= 0 || buffer->stride <= 0 ||
        !describeBuffer(buffer->format, static_cast<uint32_t>(buffer->width),
                        static_cast<uint32_t>(buffer->height),
                        static_cast<uint32_t>(buffer->stride), &layout)) {
        ALOGE("native buffer %dx%d, stride %d, format %d cannot be an image", buffer->width,
              buffer->height, buffer->stride, buffer->format);
        return nullptr;
    }
    adoptAllocatorPlanes(buffer->handle, &layout);
    const int fd = fcntl(buffer->handle->data[0], F_DUPFD_CLOEXEC, 0);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || st.st_size <= 0 ||
        !fitsIn(layout, static_cast<uint64_t>(st.st_size))) {
        ALOGE("native buffer %dx%d, format %d does not fit its memory (%lld bytes)",
              buffer->width, buffer->height, buffer->format,
              fd < 0 ? -1LL : static_cast<long long>(st.st_size));
        if (fd >= 0) close(fd);
        return nullptr;
    }
    const size_t size = static_cast<size_t>(st.st_size);
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        ALOGE("mapping a native buffer of %zu bytes failed", size);
        close(fd);
        return nullptr;
    }
    auto* image = new LayerImage();
    image->display = display;
    image->fd = fd;
    image->memory = static_cast<uint8_t*>(memory);
    image->mapSize = size;
    image->layout = layout;
    return image;
}

bool isColorAttachment(GLenum attachment) {
    return attachment >= GL_COLOR_ATTACHMENT0 && attachment < GL_COLOR_ATTACHMENT0 + 32;
}

// This library's own address, to tell its definitions from Mesa's.
void layerAnchor() {}

}  // namespace

bool layerEnabled() {
    const char* value = getenv(kLayerSwitchEnv);
    return value == nullptr || strcmp(value, "0") != 0;
}

bool layerInterposed() {
    Dl_info mine{};
    Dl_info called{};
    void* symbol = dlsym(RTLD_DEFAULT, "glShaderSource");
    return dladdr(reinterpret_cast<void*>(&layerAnchor), &mine) != 0 && symbol != nullptr &&
           dladdr(symbol, &called) != 0 && mine.dli_fbase == called.dli_fbase;
}

Stats stats() {
    Layer& l = layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    return l.stats;
}

void keepDriverLoaded() {
    static const bool done = []() {
        EGLDisplay display = REAL(eglGetDisplay)(EGL_DEFAULT_DISPLAY);
        if (REAL(eglInitialize)(display, nullptr, nullptr) != EGL_TRUE) return false;
        dl_iterate_phdr(
            [](dl_phdr_info* info, size_t, void*) {
                if (info->dlpi_name != nullptr && strstr(info->dlpi_name, "/dri/") != nullptr) {
                    dlopen(info->dlpi_name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
                }
                return 0;
            },
            nullptr);
        REAL(eglTerminate)(display);
        return true;
    }();
    (void)done;
}

void resetStats() {
    Layer& l = layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    l.stats = Stats();
}

}  // namespace host_gl

using host_gl::Binding;
using host_gl::ContextState;
using host_gl::LayerImage;

extern "C" {

EGLImageKHR eglCreateImageKHR(EGLDisplay dpy, EGLContext ctx, EGLenum target,
                              EGLClientBuffer buffer, const EGLint* attribs) {
    if (target != EGL_NATIVE_BUFFER_ANDROID || !host_gl::layerEnabled() ||
        REAL(eglQueryString)(dpy, EGL_VENDOR) == nullptr) {
        return REAL(eglCreateImageKHR)(dpy, ctx, target, buffer, attribs);
    }
    host_gl::Layer& l = host_gl::layer();
    LayerImage* image = host_gl::makeImage(dpy, ctx, buffer);
    if (image == nullptr) {
        // Mesa refuses the same request, which leaves the EGL error a refusal should.
        return REAL(eglCreateImageKHR)(dpy, ctx, target, buffer, attribs);
    }
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    l.images.insert(image);
    l.stats.images++;
    return image;
}

EGLBoolean eglDestroyImageKHR(EGLDisplay dpy, EGLImageKHR image) {
    host_gl::Layer& l = host_gl::layer();
    {
        std::lock_guard<std::recursive_mutex> guard(l.lock);
        if (LayerImage* mine = host_gl::findImage(l, image)) {
            host_gl::destroyImage(l, mine);
            return EGL_TRUE;
        }
    }
    return REAL(eglDestroyImageKHR)(dpy, image);
}

EGLBoolean eglDestroyContext(EGLDisplay dpy, EGLContext ctx) {
    host_gl::Layer& l = host_gl::layer();
    {
        std::lock_guard<std::recursive_mutex> guard(l.lock);
        host_gl::forgetContext(l, ctx);
    }
    return REAL(eglDestroyContext)(dpy, ctx);
}

EGLBoolean eglTerminate(EGLDisplay dpy) {
    host_gl::Layer& l = host_gl::layer();
    {
        std::lock_guard<std::recursive_mutex> guard(l.lock);
        // Terminating a display ends every image and context made on it.
        std::vector<LayerImage*> images;
        for (LayerImage* image : l.images) {
            if (image->display == dpy) images.push_back(image);
        }
        for (LayerImage* image : images) host_gl::destroyImage(l, image);
        std::vector<EGLContext> contexts;
        for (const auto& [context, state] : l.contexts) {
            if (state.display == dpy) contexts.push_back(context);
        }
        for (EGLContext context : contexts) host_gl::forgetContext(l, context);
    }
    return REAL(eglTerminate)(dpy);
}

void glEGLImageTargetTexture2DOES(GLenum target, GLeglImageOES image) {
    host_gl::Layer& l = host_gl::layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    LayerImage* mine = host_gl::findImage(l, image);
    ContextState* state = mine != nullptr ? host_gl::currentState(l, true) : nullptr;
    if (state == nullptr) {
        REAL(glEGLImageTargetTexture2DOES)(target, image);
        return;
    }
    host_gl::stashClientErrors(*state);
    const EGLContext context = REAL(eglGetCurrentContext)();
    Binding& binding = mine->bindings[context];
    if (binding.texture == 0) {
        binding.image = mine;
        binding.context = context;
        const host_gl::TexelFormat& tf = host_gl::texelFormat(mine->layout.storage);
        const GLint previous = host_gl::getInteger(GL_TEXTURE_BINDING_2D);
        REAL(glGenTextures)(1, &binding.texture);
        REAL(glBindTexture)(GL_TEXTURE_2D, binding.texture);
        REAL(glTexStorage2D)(GL_TEXTURE_2D, 1, tf.internalFormat,
                             static_cast<GLsizei>(mine->layout.width),
                             static_cast<GLsizei>(mine->layout.height));
        REAL(glBindTexture)(GL_TEXTURE_2D, static_cast<GLuint>(previous));
        const EGLint attribs[] = {EGL_GL_TEXTURE_LEVEL_KHR, 0, EGL_NONE};
        binding.sibling = REAL(eglCreateImageKHR)(
            state->display, context, EGL_GL_TEXTURE_2D_KHR,
            reinterpret_cast<EGLClientBuffer>(static_cast<uintptr_t>(binding.texture)), attribs);
        if (binding.sibling == EGL_NO_IMAGE_KHR) {
            ALOGE("no EGL image of the layer's %ux%u texture: 0x%04X", mine->layout.width,
                  mine->layout.height, REAL(eglGetError)());
        }
    }
    const GLint bound = host_gl::getInteger(target == GL_TEXTURE_EXTERNAL_OES
                                                ? GL_TEXTURE_BINDING_EXTERNAL_OES
                                                : GL_TEXTURE_BINDING_2D);
    host_gl::dropOwnErrors("image target");
    REAL(glEGLImageTargetTexture2DOES)(target, binding.sibling);
    if (bound != 0) state->textures[static_cast<GLuint>(bound)] = &binding;
}

void glFramebufferTexture2D(GLenum target, GLenum attachment, GLenum textarget, GLuint texture,
                            GLint level) {
    host_gl::Layer& l = host_gl::layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    ContextState* state = host_gl::currentState(l, false);
    if (state == nullptr || !host_gl::isColorAttachment(attachment)) {
        REAL(glFramebufferTexture2D)(target, attachment, textarget, texture, level);
        return;
    }
    const GLuint framebuffer = static_cast<GLuint>(host_gl::getInteger(
        target == GL_READ_FRAMEBUFFER ? GL_READ_FRAMEBUFFER_BINDING
                                      : GL_DRAW_FRAMEBUFFER_BINDING));
    auto it = state->textures.find(texture);
    if (texture == 0 || it == state->textures.end() ||
        (textarget != GL_TEXTURE_EXTERNAL_OES && textarget != GL_TEXTURE_2D)) {
        if (attachment == GL_COLOR_ATTACHMENT0) state->framebuffers.erase(framebuffer);
        REAL(glFramebufferTexture2D)(target, attachment, textarget, texture, level);
        return;
    }
    // An external texture cannot be attached; the layer's texture of the same image can.
    REAL(glFramebufferTexture2D)(target, attachment, GL_TEXTURE_2D, it->second->texture, level);
    if (attachment == GL_COLOR_ATTACHMENT0) state->framebuffers[framebuffer] = it->second;
}

void glDrawArrays(GLenum mode, GLint first, GLsizei count) {
    host_gl::draw([&]() { REAL(glDrawArrays)(mode, first, count); });
}

void glDrawElements(GLenum mode, GLsizei count, GLenum type, const void* indices) {
    host_gl::draw([&]() { REAL(glDrawElements)(mode, count, type, indices); });
}

void glClear(GLbitfield mask) {
    host_gl::Layer& l = host_gl::layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    ContextState* state = host_gl::currentState(l, false);
    Binding* target = state != nullptr && (mask & GL_COLOR_BUFFER_BIT) != 0
                          ? host_gl::framebufferTarget(*state, GL_DRAW_FRAMEBUFFER_BINDING)
                          : nullptr;
    if (target != nullptr) {
        // A scissored clear keeps what lies outside the box, so that must be there first.
        if (!target->valid && REAL(glIsEnabled)(GL_SCISSOR_TEST)) {
            host_gl::stashClientErrors(*state);
            host_gl::upload(l, *target, true);
            host_gl::dropOwnErrors("clear");
        }
        target->valid = true;
        target->dirty = true;
    }
    REAL(glClear)(mask);
}

void glFinish(void) {
    host_gl::Layer& l = host_gl::layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    const uint64_t start = host_gl::nowNs();
    REAL(glFinish)();
    l.stats.drawNs += host_gl::nowNs() - start;
    host_gl::writeBackContext(l);
}

GLenum glGetError(void) {
    host_gl::Layer& l = host_gl::layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    ContextState* state = host_gl::currentState(l, false);
    if (state != nullptr && !state->clientErrors.empty()) {
        const GLenum error = state->clientErrors.front();
        state->clientErrors.erase(state->clientErrors.begin());
        return error;
    }
    return REAL(glGetError)();
}

void glShaderSource(GLuint shader, GLsizei count, const GLchar* const* strings,
                    const GLint* lengths) {
    host_gl::Layer& l = host_gl::layer();
    std::lock_guard<std::recursive_mutex> guard(l.lock);
    ContextState* state = host_gl::currentState(l, true);
    bool readable = strings != nullptr && count > 0;
    for (GLsizei i = 0; readable && i < count; ++i) readable = strings[i] != nullptr;
    if (state == nullptr || !readable || !host_gl::layerEnabled()) {
        if (state != nullptr) state->yuvSamplerShaders.erase(shader);
        REAL(glShaderSource)(shader, count, strings, lengths);
        return;
    }
    std::string text;
    for (GLsizei i = 0; i < count; ++i) {
        if (lengths != nullptr && lengths[i] >= 0) {
            text.append(strings[i], static_cast<size_t>(lengths[i]));
        } else {
            text.append(strings[i]);
        }
    }
    const host_gl::ShaderRewrite rewrite = host_gl::rewriteYuvTargetShader(text);
    state->yuvSamplerShaders[shader] = rewrite.yuvSampler;
    if (!rewrite.rewritten) {
        REAL(glShaderSource)(shader, count, strings, lengths);
        return;
    }
    l.stats.shaderRewrites++;
    const GLchar* source = rewrite.text.c_str();
    REAL(glShaderSource)(shader, 1, &source, nullptr);
}

void glDeleteTextures(GLsizei n, const GLuint* textures) {
    host_gl::Layer& l = host_gl::layer();
    {
        std::lock_guard<std::recursive_mutex> guard(l.lock);
        ContextState* state = host_gl::currentState(l, false);
        for (GLsizei i = 0; state != nullptr && textures != nullptr && i < n; ++i) {
            state->textures.erase(textures[i]);
        }
    }
    REAL(glDeleteTextures)(n, textures);
}

void glDeleteFramebuffers(GLsizei n, const GLuint* framebuffers) {
    host_gl::Layer& l = host_gl::layer();
    {
        std::lock_guard<std::recursive_mutex> guard(l.lock);
        ContextState* state = host_gl::currentState(l, false);
        for (GLsizei i = 0; state != nullptr && framebuffers != nullptr && i < n; ++i) {
            state->framebuffers.erase(framebuffers[i]);
        }
    }
    REAL(glDeleteFramebuffers)(n, framebuffers);
}

__eglMustCastToProperFunctionPointerType eglGetProcAddress(const char* procname) {
    using Proc = __eglMustCastToProperFunctionPointerType;
    static const std::map<std::string, Proc> kLayerEntries = {
        {"eglCreateImageKHR", reinterpret_cast<Proc>(&eglCreateImageKHR)},
        {"eglDestroyImageKHR", reinterpret_cast<Proc>(&eglDestroyImageKHR)},
        {"eglDestroyContext", reinterpret_cast<Proc>(&eglDestroyContext)},
        {"eglTerminate", reinterpret_cast<Proc>(&eglTerminate)},
        {"glEGLImageTargetTexture2DOES", reinterpret_cast<Proc>(&glEGLImageTargetTexture2DOES)},
        {"glFramebufferTexture2D", reinterpret_cast<Proc>(&glFramebufferTexture2D)},
        {"glDrawArrays", reinterpret_cast<Proc>(&glDrawArrays)},
        {"glDrawElements", reinterpret_cast<Proc>(&glDrawElements)},
        {"glClear", reinterpret_cast<Proc>(&glClear)},
        {"glFinish", reinterpret_cast<Proc>(&glFinish)},
        {"glGetError", reinterpret_cast<Proc>(&glGetError)},
        {"glShaderSource", reinterpret_cast<Proc>(&glShaderSource)},
        {"glDeleteTextures", reinterpret_cast<Proc>(&glDeleteTextures)},
        {"glDeleteFramebuffers", reinterpret_cast<Proc>(&glDeleteFramebuffers)},
    };
    if (procname != nullptr) {
        auto it = kLayerEntries.find(procname);
        if (it != kLayerEntries.end()) return it->second;
    }
    return REAL(eglGetProcAddress)(procname);
}

}  // extern "C"
