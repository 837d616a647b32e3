// Frame dump files, captureOnce's GPU branch run with real buffers on Mesa, and the drawing
// environment's entry points.
#include <android-base/properties.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <ui/GrallocPrivate.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <set>
#include <tuple>

#include "CaptureLog.h"
#include "GpuTestUtil.h"
#include "TestUtil.h"
#include "gpu_dump.h"
// clang-format off
#include <GLES2/gl2ext.h>  // after the GLES headers it extends
// clang-format on

namespace {

using namespace capture_test;
using namespace gpu_test;
using ::android::GraphicBuffer;
using ::android::sp;
using Names = std::set<std::string>;

// Bytes that tell a copy from a near miss: each a function of its offset and `seed`.
std::vector<uint8_t> pattern(size_t size, uint8_t seed) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 131 + (i >> 8) + seed);
    return bytes;
}

// A buffer from the host allocator whose memory holds pattern(its size, seed).
sp<GraphicBuffer> makeFilledBuffer(uint32_t width, uint32_t height, int32_t format, uint8_t seed) {
    sp<GraphicBuffer> buffer = allocate(format, width, height);
    const bool filled = withMemory(buffer, [seed](uint8_t* memory, size_t size) {
        const std::vector<uint8_t> bytes = pattern(size, seed);
        memcpy(memory, bytes.data(), size);
    });
    return filled ? buffer : nullptr;
}

// A temporary folder that CAPTURE_DUMP_DIR points at while alive, with dumping switched on.
struct DumpFolder {
    DumpFolder() {
        setenv("CAPTURE_DUMP_DIR", path.c_str(), 1);
        ::android::base::SetProperty(kDumpDataProperty, "1");
    }
    ~DumpFolder() { std::filesystem::remove_all(path); }
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            names.insert(entry.path().filename());
        }
        return names;
    }
    std::vector<uint8_t> read(const std::string& name) const {
        std::ifstream in(path + name, std::ios::binary);
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
    }

    const std::string path = []() {
        char pattern[] = "/tmp/capture-dump-XXXXXX";
        return std::string(mkdtemp(pattern) != nullptr ? pattern : "/tmp/capture-dump-none") + "/";
    }();
};

TEST(DumpFormatTest, EveryRowOfTheTableAndNothingOutsideIt) {
    gpu_set_debug_log_level(32);
    // Format, name, stride in bytes, height; the pitch and size expected.
    const std::tuple<uint32_t, const char*, uint32_t, uint32_t, uint32_t, uint64_t> rows[] = {
        {1, "RGBA8888", 7680, 1080, 1920, 7680ull * 1080},
        {3, "RGB888", 100, 3, 33, 300},  // the pitch rounds down
        {4, "RGB565", 3840, 1080, 1920, 3840ull * 1080},
        {5, "BGRA8888", 7680, 1080, 1920, 7680ull * 1080},
        {16, "NV16", 1920, 1080, 1920, 1920ull * 1080 * 2},
        {17, "NV21", 3, 3, 3, 13},  // so does the size
        {20, "YUV422", 3840, 1080, 1920, 3840ull * 1080},
        {21, "NV12", 65536, 65536, 65536, 65536ull * 65536 * 3 / 2},  // past 32 bits
        {22, "ARGB16161616", 15360, 1080, 1920, 15360ull * 1080},
        {43, "ABGR2101010", 7680, 1080, 1920, 7680ull * 1080},
        // The 10-bit rows scale the byte stride up by 5/4 for the pitch.
        {54, "YC420_10B", 2400, 1080, 3000, 2400ull * 1080 * 3 / 2},
        {262, "YUV422_10B", 2400, 1080, 3000, 2400ull * 1080},
        {0x32315659, "YUV420_8B", 1920, 1080, 1920, 1920ull * 1080 * 3 / 2},
        // Outside the table: nothing, and an error line.
        {53, "", 1920, 1080, 0, 0},
        {0x32315658, "", 1920, 1080, 0, 0},
    };
    for (const auto& [format, expectedName, stride, height, expectedPitch, expectedSize] : rows) {
        SCOPED_TRACE(format);
        LogCapture log;
        uint32_t pitch = 5;
        uint64_t size = 5;
        char name[kDumpNameSize] = "stale";
        CalculateDumpInfo(stride, height, format, &pitch, &size, name);
        EXPECT_EQ(expectedPitch, pitch);
        EXPECT_EQ(expectedSize, size);
        EXPECT_STREQ(expectedName, name);
        // A row of the table logs nothing; any other format one error line.
        const std::string error = "can't find this format: " + std::to_string(format) + "!";
        EXPECT_EQ(expectedPitch == 0 ? 1u : 0u, log.countExact(error));
        EXPECT_EQ(expectedPitch == 0 ? 1u : 0u, log.lines().size()) << log.dump();
    }
}

// The counters are process-wide; every test starts them where a fresh process has them.
class DumpDataTest : public ::testing::Test {
protected:
    void SetUp() override {
        dump_input_index = 1;
        dump_output_index = 1;
        gpu_set_debug_log_level(48);
    }
    DumpFolder folder;
    const std::vector<uint8_t> frame = pattern(1920 * 1080 * 3 / 2, 0);
};

TEST_F(DumpDataTest, NamesCarryPrefixCounterPitchWhenItDiffersSizeAndFormat) {
    EXPECT_EQ(2u, DumpInputData(1920, 1916, 1080, 21, frame.data(), frame.size()));
    EXPECT_EQ(2u, DumpOutputData(1920, 1920, 1080, 21, frame.data(), frame.size()));
    dump_output_index = 9999;  // the last number before the counter wraps
    EXPECT_EQ(10000u, DumpOutputData(1920, 1920, 1080, 21, frame.data(), frame.size()));
    EXPECT_EQ(2u, DumpOutputData(64, 16, 2, 1, frame.data()));
    EXPECT_EQ(1, DumpData("p-", 7, 2400, 1920, 4, 54, frame.data()));  // 10-bit pitch
    // A prefix of 21 characters or more is left out.
    EXPECT_EQ(1, DumpData(std::string(20, 'a').c_str(), 1, 64, 16, 2, 1, frame.data()));
    EXPECT_EQ(1, DumpData(std::string(21, 'b').c_str(), 2, 64, 16, 2, 1, frame.data()));
    EXPECT_EQ((Names{"0002_16x2_RGBA8888.raw", std::string(20, 'a') + "0001_16x2_RGBA8888.raw",
                     "gpu_intput-0001_s1920_1916x1080_NV12.raw",
                     "gpu_output-0001_1920x1080_NV12.raw", "gpu_output-0001_16x2_RGBA8888.raw",
                     "gpu_output-9999_1920x1080_NV12.raw", "p-0007_s3000_1920x4_YC420_10B.raw"}),
              folder.files());
    EXPECT_EQ(frame, folder.read("gpu_intput-0001_s1920_1916x1080_NV12.raw"));
}

TEST_F(DumpDataTest, NothingIsWrittenForAPropertyOtherThanOneOrABadFrame) {
    for (const char* value : {"", "0", "true", "11", " 1"}) {
        SCOPED_TRACE(std::string("property \"") + value + "\"");
        ::android::base::SetProperty(kDumpDataProperty, value);
        EXPECT_EQ(0u, DumpInputData(64, 16, 2, 1, frame.data()));
        EXPECT_EQ(0u, DumpOutputData(64, 16, 2, 1, frame.data()));
    }
    ::android::base::SetProperty(kDumpDataProperty, "1");
    EXPECT_EQ(0, DumpData("p-", 1, 64, 16, 2, 1, nullptr));
    EXPECT_EQ(0u, DumpInputData(64, 16, 3, 1, frame.data(), 64 * 2));  // larger than its memory
    // A folder that leaves too little room for the file name.
    const std::string deep = folder.path + std::string(90, 'd') + "/";
    ASSERT_EQ(0, mkdir(deep.c_str(), 0755));
    setenv("CAPTURE_DUMP_DIR", deep.c_str(), 1);
    EXPECT_EQ(0u, DumpInputData(64, 16, 2, 1, frame.data()));
    EXPECT_EQ(0, rmdir(deep.c_str()));
    // A folder that is not there.
    setenv("CAPTURE_DUMP_DIR", (folder.path + "gone/").c_str(), 1);
    EXPECT_EQ(0u, DumpOutputData(64, 16, 2, 1, frame.data()));
    EXPECT_TRUE(folder.files().empty());
    EXPECT_EQ(1u, dump_input_index.load());
    EXPECT_EQ(1u, dump_output_index.load());
    // The property is read for every frame.
    setenv("CAPTURE_DUMP_DIR", folder.path.c_str(), 1);
    EXPECT_EQ(2u, DumpInputData(64, 16, 2, 1, frame.data()));
}

constexpr int kSlot = 5;

class GpuCaptureTest : public ServiceTest {
protected:
    void SetUp() override {
        host_gl::keepDriverLoaded();
        ServiceTest::SetUp();
    }

    // The rows and flag setCaptureFrameInfo keeps for a GPU conversion (the handles cloned).
    void keepRows(CaptureFormat srcFormat = CaptureFormat::NV12,
                  CaptureFormat dstFormat = CaptureFormat::ARGB8888) {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        CaptureSrcFrameInfo& srcRow = mSrcFrameInfo[kSlot] = CaptureSrcFrameInfo{};
        CaptureDstFrameInfo& dstRow = mDstFrameInfo[kSlot] = CaptureDstFrameInfo{};
        srcRow.format = srcFormat;
        srcRow.width = dstRow.cropWidth = src->getWidth();
        srcRow.height = dstRow.cropHeight = src->getHeight();
        srcRow.buffer = hidl_handle(src->handle);
        dstRow.format = dstFormat;
        dstRow.width = dst->getWidth();
        dstRow.height = dst->getHeight();
        dstRow.buffer = hidl_handle(dst->handle);
        mUseGpu[kSlot] = 1;
    }

    CaptureReturn captureOnce() {
        return static_cast<CaptureReturn>(service->captureOnce(kCaptureIdBase + kSlot));
    }

    sp<GraphicBuffer> src = makeFilledBuffer(64, 32, GRALLOC_PRIVATE_FORMAT_NV12, 3);
    sp<GraphicBuffer> dst = makeFilledBuffer(32, 32, HAL_PIXEL_FORMAT_RGBA_8888, 4);
};

// A conversion done clears the instance's GPU flag; a format without a GPU mapping is refused
// and keeps it, so that the client may reconfigure and retry. Either way the rows go.
TEST_F(GpuCaptureTest, ClearsTheFlagOnceConvertedAndKeepsItWhenRefused) {
    ASSERT_TRUE(src != nullptr && dst != nullptr);
    const int fds = countOpenFds();
    keepRows();
    EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce());
    EXPECT_EQ(0, mUseGpu[kSlot]);
    EXPECT_EQ(nullptr, mDstFrameInfo[kSlot].buffer.getNativeHandle());
    keepRows(CaptureFormat::NV12, CaptureFormat::ARGB2101010);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, captureOnce());
    EXPECT_EQ(1, mUseGpu[kSlot]);
    EXPECT_EQ(nullptr, mSrcFrameInfo[kSlot].buffer.getNativeHandle());
    // Every clone made for the conversions is closed again.
    EXPECT_EQ(fds, countOpenFds());

    // Rows without a buffer are refused before anything is drawn.
    keepRows();
    mDstFrameInfo[kSlot].buffer = hidl_handle();
    EXPECT_EQ(CaptureReturn::INVALID_BUFFER, captureOnce());
    EXPECT_EQ(1, mUseGpu[kSlot]);
}

// The dump holds what the client handed in, read within the buffer's memory whatever size the
// client claims, even where the platform cannot import the buffer.
TEST_F(GpuCaptureTest, DumpsTheSourceBuffersBytesAndNeverReadsPastThem) {
    DumpFolder folder;
    dump_input_index = 1;
    dump_output_index = 1;
    src = makeFilledBuffer(1916, 1080, GRALLOC_PRIVATE_FORMAT_NV12, 3);
    dst = makeFilledBuffer(640, 360, HAL_PIXEL_FORMAT_RGBA_8888, 4);
    ASSERT_TRUE(src != nullptr && dst != nullptr);
    setenv("CAPTURE_HOST_GL", "0", 1);  // as on a platform without native-buffer images
    keepRows();
    EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce());
    unsetenv("CAPTURE_HOST_GL");
    // The whole NV12 frame with its 1920-byte stride, as the client filled it.
    EXPECT_TRUE(pattern(1920 * 1080 * 3 / 2, 3) ==
                folder.read("gpu_intput-0001_s1920_1916x1080_NV12.raw"));
    // Mesa has no Android native-buffer images: both are refused and logged, the draw goes on,
    // and the destination read back still holds what the client put there.
    EXPECT_EQ(2u, log.count("eglCreateImageKHR of a ")) << log.dump();
    EXPECT_EQ(ANDROID_LOG_ERROR, log.find("glCheckFramebufferStatus() error: ").priority);
    EXPECT_TRUE(pattern(640 * 360 * 4, 4) == folder.read("gpu_output-0001_640x360_RGBA8888.raw"));

    // A source claiming more rows than its memory holds is neither dumped nor sampled.
    log.clear();
    keepRows();
    mSrcFrameInfo[kSlot].height = 4096;
    EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce());
    EXPECT_EQ(
        (Names{"gpu_intput-0001_s1920_1916x1080_NV12.raw", "gpu_output-0001_640x360_RGBA8888.raw",
               "gpu_output-0002_640x360_RGBA8888.raw"}),
        folder.files());
    EXPECT_EQ(1u, log.count("eglCreateImageKHR of a 1916x4096 buffer failed")) << log.dump();
}

class GpuEnvTest : public ::testing::Test {
protected:
    void SetUp() override { host_gl::keepDriverLoaded(); }
    LogCapture log;
};

TEST_F(GpuEnvTest, WithoutTheYuvTargetTheDriversRefusalIsLoggedAndTheEnvironmentHandedOut) {
    setenv("CAPTURE_HOST_GL", "0", 1);
    gpu_set_debug_log_level(64);
    GpuDrawing env;
    ASSERT_EQ(1u, env.egl_init_env()) << log.dump();
    EXPECT_EQ(env.context, eglGetCurrentContext());

    for (int32_t type = 0; type <= 3; ++type) {
        SCOPED_TRACE("type " + std::to_string(type));
        log.clear();
        GpuDrawing full;  // in the context made above
        EXPECT_EQ(1u, full.gles_init_shaders(static_cast<gpu_format_covert_type>(type)));
        // The driver's complaint is logged, the link then fails, and using the unlinked program
        // is an OpenGL error; the environment still gets its program and vertex names.
        const LogLine refused = log.find("[gles_compile_shaders(");
        EXPECT_EQ(ANDROID_LOG_ERROR, refused.priority) << log.dump();
        EXPECT_NE(std::string::npos, refused.message.find("GL_EXT_YUV_target"));
        // The driver's text and nothing after it.
        EXPECT_THAT(refused.message, ::testing::MatchesRegex("[[:print:]\n]*"));
        EXPECT_EQ(1u, log.count("[gles_link_program("));
        EXPECT_EQ(1u, log.count("OpenGL error 0x0502 in tv/hardware/interfaces/capture/1.0/"
                                "default/gpu/gpu_draw,gles_init_shaders,"));
        EXPECT_TRUE(full.program != 0 && full.vertex_array != 0 && full.fragment_shader == 0);
    }
    EXPECT_EQ(1u, env.egl_cleanup());
    EXPECT_EQ(EGL_NO_DISPLAY, env.display);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
}

TEST_F(GpuEnvTest, EntryPointsOwnWhatTheyMakeAndRefuseWhatCannotBeDrawn) {
    gpu_set_debug_log_level(48);
    gpu_deinit_drawing_env(nullptr);
    gpu_feature_instance_delete(nullptr);
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    GpuDrawing* drawing = nullptr;
    ASSERT_EQ(1, gpu_init_drawing_env(GPU_COVERT_RGB_TO_YUV, &drawing));
    EXPECT_EQ(drawing->context, eglGetCurrentContext());
    EXPECT_EQ(GL_TRUE, glIsProgram(drawing->program));
    gpu_deinit_drawing_env(drawing);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
    EXPECT_EQ(1u, log.countExact("GpuDrawing Destructor"));  // a debug line: 48 lets it through
    EXPECT_EQ(0u, log.count("eglGetConfigs numConfigs="));   // an information line does not

    // A source without size never reaches the texture-coordinate division; nothing is drawn
    // without a request or an environment either.
    GpuDrawing bare;  // no context
    GpuPhotoFeatureIn feature(nullptr, nullptr);
    feature.srcHeight = 1080;
    EXPECT_EQ(0, gpu_draw_frame(&feature, &bare));
    feature.srcWidth = 1920;
    feature.srcHeight = 0;
    EXPECT_EQ(0, gpu_draw_frame(&feature, &bare));
    EXPECT_EQ(1u, log.countExact("source size 0x1080 cannot be sampled, nothing drawn"));
    EXPECT_EQ(1u, log.countExact("source size 1920x0 cannot be sampled, nothing drawn"));
    EXPECT_EQ(0, gpu_draw_frame(&feature, nullptr));
    EXPECT_EQ(0, gpu_draw_frame(nullptr, &bare));
    EXPECT_EQ(0u, log.count("debug postion")) << log.dump();
}

// The host graphics layer does GL work of its own behind the client's calls: an error the client
// raised before it is still the client's to read, once.
TEST_F(GpuEnvTest, HostLayerLeavesTheClientsPendingErrorToTheClient) {
    ASSERT_TRUE(host_gl::layerInterposed());
    GpuDrawing env;
    ASSERT_EQ(1u, env.egl_init_env());
    const auto buffer = allocate(HAL_PIXEL_FORMAT_RGBA_8888, 64, 32);
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, texture);
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_WRAP_S, GL_REPEAT);  // invalid here
    const auto create =
        reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    EGLImageKHR image = create(eglGetCurrentDisplay(), EGL_NO_CONTEXT, EGL_NATIVE_BUFFER_ANDROID,
                               static_cast<EGLClientBuffer>(buffer->getNativeBuffer()), nullptr);
    ASSERT_NE(EGL_NO_IMAGE_KHR, image);
    const auto target = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(
        eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    target(GL_TEXTURE_EXTERNAL_OES, image);  // the layer uploads and binds its own texture here
    EXPECT_EQ(static_cast<GLenum>(GL_INVALID_ENUM), glGetError());
    EXPECT_EQ(static_cast<GLenum>(GL_NO_ERROR), glGetError());
    glDeleteTextures(1, &texture);
    EXPECT_EQ(1u, env.egl_cleanup());
}

}  // namespace
