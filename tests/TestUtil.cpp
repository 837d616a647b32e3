#include "TestUtil.h"

#include <android-base/properties.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "BandwidthInfo.h"
#include "CaptureLog.h"
#include "SubHal.h"
#include "gpu_draw.h"

namespace capture_test {

TestHandle::TestHandle(int numFds, size_t size, int numInts) {
    mHandle = native_handle_create(numFds, numInts);
    for (int i = 0; i < numFds; ++i) {
        int fd = memfd_create("capture-test", MFD_CLOEXEC);
        if (fd >= 0 && size > 0) {
            if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
                ::close(fd);
                fd = -1;
            }
        }
        mHandle->data[i] = fd;
    }
}

TestHandle::~TestHandle() {
    native_handle_close(mHandle);
    native_handle_delete(mHandle);
}

DeviceTree::DeviceTree() {
    char pattern[] = "/tmp/capture-dt-XXXXXX";
    const char* dir = mkdtemp(pattern);
    mRoot = std::string(dir != nullptr ? dir : "/tmp/capture-dt-failed") + "/";
    setenv("CAPTURE_DEVICE_TREE_ROOT", mRoot.c_str(), 1);
}

DeviceTree::~DeviceTree() {
    unsetenv("CAPTURE_DEVICE_TREE_ROOT");
    std::error_code ignored;
    std::filesystem::remove_all(mRoot, ignored);
}

void DeviceTree::setCell(const std::string& relPath, uint32_t value, int bytes) {
    std::string data;
    for (int i = bytes - 1; i >= 0; --i) {
        data.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
    setRaw(relPath, data);
}

void DeviceTree::setRaw(const std::string& relPath, const std::string& bytes) {
    std::string path = mRoot + relPath;
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

void resetProcessState() {
    fake_subhal::reset();
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

    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, loadedHalLevel, __ATOMIC_RELAXED);
    __atomic_store_n(&GPU_LOG_LEVEL, loadedGpuLevel, __ATOMIC_RELAXED);
    android::base::SetProperty("vendor.zor.capture.forcegpu", "");
    android::base::SetProperty("vendor.zor.capture_hal.dumpdata", "");
    for (const char* name : {"CAPTURE_SUBHAL_PATH", "CAPTURE_DEVICE_TREE_ROOT", "CAPTURE_DUMP_DIR",
                             "CAPTURE_HOST_GL"}) {
        unsetenv(name);
    }
}

void ServiceTest::SetUp() {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 64u, __ATOMIC_RELAXED);
    service = new Capture();
}

void ServiceTest::TearDown() {
    service.clear();
}

void ServiceTest::loadLibrary(bool partial) {
    setenv("CAPTURE_SUBHAL_PATH", partial ? FAKE_SUBHAL_PARTIAL_PATH : FAKE_SUBHAL_PATH, 1);
    ASSERT_EQ(CaptureReturn::SUCCESS, static_cast<CaptureReturn>(service->initLib()));
}

int32_t ServiceTest::openInstance() {
    int32_t id = -1;
    CaptureReturn ret = CaptureReturn::FAIL;
    service->open([&](CaptureReturn r, int32_t captureId) {
        ret = r;
        id = captureId;
    });
    EXPECT_EQ(CaptureReturn::SUCCESS, ret);
    return id;
}

void ServiceTest::expectRefusal(const std::string& line, const std::function<void()>& request) {
    for (uint32_t level : {31u, 32u}) {
        SCOPED_TRACE(::testing::Message() << "level " << level);
        __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, level, __ATOMIC_RELAXED);
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
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 64u, __ATOMIC_RELAXED);
}

int countOpenFds() {
    const auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds))) - 1;  // the iterator's own
}

}  // namespace capture_test
