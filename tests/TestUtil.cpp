#include "TestUtil.h"

#include <android-base/properties.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

#include "BandwidthInfo.h"
#include "Doubles.h"
#include "SubHal.h"
#include "gpu_draw.h"

namespace capture_test {

TestHandle::TestHandle(int numFds, size_t size) : mHandle(native_handle_create(numFds, 0)) {
    for (int i = 0; i < numFds; ++i) {
        mHandle->data[i] = memfd_create("capture-test", MFD_CLOEXEC);
        EXPECT_EQ(0, ftruncate(mHandle->data[i], static_cast<off_t>(size)));
    }
}

TestHandle::~TestHandle() {
    native_handle_close(mHandle);
    native_handle_delete(mHandle);
}

DeviceTree::DeviceTree() {
    char pattern[] = "/tmp/capture-dt-XXXXXX";
    mRoot = std::string(mkdtemp(pattern)) + "/";
    setenv("CAPTURE_DEVICE_TREE_ROOT", mRoot.c_str(), 1);
}

DeviceTree::~DeviceTree() {
    unsetenv("CAPTURE_DEVICE_TREE_ROOT");
    std::filesystem::remove_all(mRoot);
}

void DeviceTree::setCell(const std::string& relPath, uint32_t value) {
    setRaw(relPath, {char(value >> 24), char(value >> 16), char(value >> 8), char(value)});
}

void DeviceTree::setRaw(const std::string& relPath, const std::string& bytes) {
    const std::filesystem::path path = mRoot + relPath;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

void resetProcessState() {
    fake_subhal::reset();
    FakePq::instance()->reset();
    if (void* library = Capture::mLibHandle.exchange(nullptr)) dlclose(library);
    [](auto&... entries) { (entries.store(nullptr), ...); }(
        mInitCapture, mDeInitCapture, mOpenCapture, mCloseCapture, mSetCaptureInfo,
        mSetCaptureFrameInfo, mGetCaptureCapabilityInfo, mGetCaptureDipInfo, mCaptureOnce,
        mCaptureStart, mCaptureStop, mRegisterCallback, mUnRegisterCallback, mFrameProcessDone,
        mNotifyContinueCapture, mDumpInfo);
    {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        for (auto& row : mSrcFrameInfo) row = CaptureSrcFrameInfo{};
        for (auto& row : mDstFrameInfo) row = CaptureDstFrameInfo{};
    }
    {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        for (int slot = 0; slot < kMaxCaptureSlots; ++slot) {
            Capture::setCallbackLocked(slot, nullptr);
            Capture::mCallbackSequeceId[slot] = 0;
            Capture::stCallbackInputParams[slot] = VX_CAPTURE_CallbackInputParams_s{};
        }
    }
    // The static image as the process was loaded, taken before the first test changes anything.
    static const std::vector<PqStreamInfo> loadedPq(std::begin(mPqStreamInfo),
                                                    std::end(mPqStreamInfo));
    static const uint32_t loadedHalLevel = CAPTURE_HAL_LOG_LEVEL;
    static const uint32_t loadedGpuLevel = GPU_LOG_LEVEL;
    for (int slot = 0; slot < kMaxCaptureSlots; ++slot) {
        mUseGpu[slot] = 0;
        mPqStreamInfo[slot] = loadedPq[slot];
    }
    for (auto& align : mGpuDstWidthAlign) align = 0;
    for (auto& state : Capture::mPointsSupportState) state = 0;
    Capture::mSystemDtsConfig = SystemDtsConfig{};
    std::memset(static_cast<void*>(bw_info), 0, sizeof(bw_info));
    std::memset(static_cast<void*>(bw_info_hw_set), 0, sizeof(bw_info_hw_set));

    setLogLevel(loadedHalLevel);
    __atomic_store_n(&GPU_LOG_LEVEL, loadedGpuLevel, __ATOMIC_RELAXED);
    android::base::SetProperty("vendor.zor.capture.forcegpu", "");
    android::base::SetProperty("vendor.zor.capture_hal.dumpdata", "");
    for (const char* name : {"CAPTURE_SUBHAL_PATH", "CAPTURE_DEVICE_TREE_ROOT", "CAPTURE_DUMP_DIR",
                             "CAPTURE_HOST_GL"}) {
        unsetenv(name);
    }
}

void ServiceTest::SetUp() {
    setLogLevel(64);
    service = new Capture();
}

void ServiceTest::loadLibrary(bool partial) {
    setenv("CAPTURE_SUBHAL_PATH", partial ? FAKE_SUBHAL_PARTIAL_PATH : FAKE_SUBHAL_PATH, 1);
    ASSERT_EQ(CaptureReturn::SUCCESS, static_cast<CaptureReturn>(service->initLib()));
}

int32_t ServiceTest::openInstance() {
    int32_t id = -1;
    service->open([&](CaptureReturn r, int32_t captureId) {
        EXPECT_EQ(CaptureReturn::SUCCESS, r);
        id = captureId;
    });
    return id;
}

void ServiceTest::expectRefusal(const std::string& line, const std::function<void()>& request) {
    for (uint32_t level : {31u, 32u}) {
        SCOPED_TRACE(::testing::Message() << "level " << level);
        setLogLevel(level);
        log.clear();
        request();
        std::vector<LogLine> found;
        for (const LogLine& l : log.lines()) {
            if (stripLogPrefix(l.message) == line) found.push_back(l);
        }
        ASSERT_EQ(level >= 32 ? 1u : 0u, found.size()) << line << "\n" << log.dump();
        if (level >= 32) {
            EXPECT_EQ(ANDROID_LOG_WARN, found[0].priority) << line;
            EXPECT_EQ("CAPTURE_HIDL", found[0].tag) << line;
        }
    }
    setLogLevel(64);
}

int countOpenFds() {
    const auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds))) - 1;  // the iterator's own
}

Strings strippedMessages(const LogCapture& log, size_t limit) {
    Strings messages;
    for (const auto& line : log.lines()) messages.push_back(stripLogPrefix(line.message));
    messages.resize(std::min(limit, messages.size()));
    return messages;
}

Strings functionsLogging(const LogCapture& log, const std::string& text) {
    Strings out;
    for (const auto& line : log.lines()) {
        if (line.message.find(text) == std::string::npos) continue;
        out.push_back(line.message.substr(1, line.message.find(']') - 1));
    }
    return out;
}

Strings rendered(const LogCapture& log) {
    static const std::regex lineNumber("^(\\[[^\\]]+\\])\\[[0-9]+\\]");
    Strings out;
    for (const auto& line : log.lines()) {
        out.push_back(line.tag + "/" + std::to_string(line.priority) + " " +
                      std::regex_replace(line.message, lineNumber, "$1"));
    }
    return out;
}

}  // namespace capture_test
