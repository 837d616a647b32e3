// The service spine: loading the sub-HAL, the service object's life, open, close, debug, and the
// frame records kept per slot.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <regex>

#include "Doubles.h"
#include "SubHal.h"
#include "gpu_draw.h"

namespace capture_test {
namespace {

using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using fake_subhal::Entry;

// The sixteen entry pointers in the order of fake_subhal::Entry, which is initLib's order.
std::vector<void*> entryPointers() {
    return [](const auto&... p) {
        return std::vector<void*>{reinterpret_cast<void*>(p.load())...};
    }(mInitCapture, mDeInitCapture, mOpenCapture, mCloseCapture, mSetCaptureInfo,
           mSetCaptureFrameInfo, mGetCaptureCapabilityInfo, mGetCaptureDipInfo, mCaptureOnce,
           mCaptureStart, mCaptureStop, mRegisterCallback, mUnRegisterCallback, mFrameProcessDone,
           mNotifyContinueCapture, mDumpInfo);
}

bool pqRowIs(int row, int32_t pqId, int32_t reserved, int32_t point) {
    const PqStreamInfo& info = mPqStreamInfo[row];
    return info.pqId == pqId && info.reserved == reserved && info.capturePoint == point;
}

sp<RecordingCallback> installCallback(int slot) {
    sp<RecordingCallback> callback = new RecordingCallback();
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    Capture::setCallbackLocked(slot, callback);
    return callback;
}

const std::string kBanner = "================ Capture Hal Dump ================\n";

// Runs debug() on a fresh memfd, borrowed as lshal's would be; returns what it received.
std::string debugInto(Capture& service, const hidl_vec<hidl_string>& options) {
    TestHandle target(1, 0);
    service.debug(hidl_handle(target.get()), options);
    if (fake_subhal::count(Entry::DumpInfo) > 0) {
        EXPECT_EQ(target.fd(), fake_subhal::callsOf(Entry::DumpInfo).back().fd);
    }
    std::string content(256, '\0');
    content.resize(std::max<ssize_t>(0, pread(target.fd(), &content[0], content.size(), 0)));
    return content;
}

using SpineTest = ServiceTest;

TEST_F(SpineTest, WithoutTheLibraryEveryCallFails) {
    EXPECT_EQ(Strings{"CAPTURE_HIDL/4 [Capture] [HIDL] Capture Service Constructor"}, rendered(log));
    setenv("CAPTURE_SUBHAL_PATH", "/nonexistent/libmissing.so", 1);
    for (uint32_t level : {31u, 32u}) {
        setLogLevel(level);
        log.clear();
        EXPECT_EQ(CaptureReturn::FAIL, service->initLib());
    }
    const Strings lines = rendered(log);  // only at level 32
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex("CAPTURE_HIDL/5 \\[initLib\\] \\[initLib\\]"
                                                      "\\[[0-9]+\\] Open libvx3_capture_hal\\.so "
                                                      "failed! .*/nonexistent/libmissing\\.so.*")))
        << lines[0];
    // Nothing after the failed load happened: all is as loaded, where only row 0 of the static
    // image is bound to "no capture point".
    EXPECT_EQ(std::vector<void*>(16, nullptr), entryPointers());
    for (int row = 0; row < kMaxCaptureSlots; ++row) {
        EXPECT_TRUE(row == 0 ? pqRowIs(0, -1, -1, 13) : pqRowIs(row, 0, 0, 0)) << row;
    }
    EXPECT_TRUE(Capture::mLibHandle.load() == nullptr && Capture::mPointsSupportState[0] == 0 &&
                mGpuDstWidthAlign[0] == 0 && mCloseFd == nullptr && mSetBlendingDispInfo == nullptr);

    // The missing-entry lines are written whatever the level.
    setLogLevel(0);
    log.clear();
    int calls = 0;
    service->open([&](CaptureReturn ret, int32_t id) {
        calls += ret == CaptureReturn::INVALID_ARGUMENT && id == 0 ? 1 : 100;
    });
    EXPECT_EQ(1, calls);
    const sp<RecordingCallback> callback = installCallback(4);
    EXPECT_EQ(CaptureReturn::INVALID_ARGUMENT, service->close(kCaptureIdBase + 4));
    EXPECT_EQ(kBanner, debugInto(*service, {}));
    EXPECT_EQ((Strings{"CAPTURE_HIDL/5 [open] mInitCapture is nullptr!",
                       "CAPTURE_HIDL/5 [close] mUnRegisterCallback is nullptr!",
                       "CAPTURE_HIDL/5 [close] mCloseCapture is nullptr!",
                       "CAPTURE_HIDL/5 [debug] mDumpInfo is nullptr!"}),
              rendered(log));
    EXPECT_EQ(1, callback->getStrongCount());

    // A build lacking VX_CAPTURE_DumpInfo and VX_CAPTURE_NotifyContinueCapture loads all the same.
    loadLibrary(/*partial=*/true);
    const std::vector<void*> pointers = entryPointers();
    EXPECT_TRUE(pointers[static_cast<size_t>(Entry::DumpInfo)] == nullptr &&
                pointers[static_cast<size_t>(Entry::NotifyContinueCapture)] == nullptr);
    EXPECT_EQ(2, std::count(pointers.begin(), pointers.end(), nullptr));
}

// A second initLib keeps the library and its entries, and redoes the rest. The service's end
// closes the library, but makes no sub-HAL call and clears nothing else.
TEST_F(SpineTest, InitLibResolvesEveryEntryThenCompletesStartUp) {
    DeviceTree tree;
    tree.setCell("dip0/capability/CapOSD", 1);
    log.clear();
    loadLibrary();
    void* fake = dlopen(FAKE_SUBHAL_PATH, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(fake, Capture::mLibHandle.load());
    const std::vector<void*> pointers = entryPointers();
    for (size_t i = 0; i < fake_subhal::kEntryCount; ++i) {
        const char* symbol = fake_subhal::entryName(static_cast<Entry>(i));
        EXPECT_EQ(dlsym(fake, symbol), pointers[i]) << symbol;
    }
    dlclose(fake);
    EXPECT_TRUE(mCloseFd == nullptr && mSetBlendingDispInfo == nullptr);
    EXPECT_TRUE(fake_subhal::state().calls.empty());  // VX_CAPTURE_Init is left to open

    // The device tree is read right after the symbols, CapOSD first.
    EXPECT_EQ((Strings{"Call initLib()", "Capture::initLib get symbol ok.",
                       "Capture::initLib get symbol ok done.",
                       tree.root() + "dip0/capability/RWSep : 0 set as default"}),
              strippedMessages(log, 4));
    EXPECT_EQ(1u, Capture::mPointsSupportState[12]);
    for (int row = 0; row < kMaxCaptureSlots; ++row) EXPECT_TRUE(pqRowIs(row, -1, -1, 13)) << row;
    // The host allocator's row alignment of each GPU format, in the order of the table; a format
    // it refuses has none.
    const uint32_t formats[] = {20, 262, 1, 5, 22, 43, 4, 3, 16, 21, 17, 54, 0x32315659};
    const uint32_t aligns[kGpuWidthAlignEntries] = {32, 64, 16, 16, 8,  16, 32,
                                                    64, 64, 64, 64, 64, 32};
    for (int i = 0; i < kGpuWidthAlignEntries; ++i) {
        EXPECT_EQ(aligns[i], mGpuDstWidthAlign[i]) << i;
        if (i < 13) {
            EXPECT_EQ(aligns[i], gpu_get_width_align(formats[i])) << formats[i];
        }
    }
    for (uint32_t format : {0u, 2000u, 0xFFFFFFFFu}) EXPECT_EQ(0u, gpu_get_width_align(format));

    // Disturb everything the second call must redo. A second dlopen would now find the partial
    // build, which lacks VX_CAPTURE_DumpInfo.
    void* library = Capture::mLibHandle.load();
    mDumpInfo.store(nullptr);
    mPqStreamInfo[17] = PqStreamInfo{3, 0, 4};
    mGpuDstWidthAlign[4] = 12345;
    tree.setCell("dip0/capability/CapOSD", 7);
    setenv("CAPTURE_SUBHAL_PATH", FAKE_SUBHAL_PARTIAL_PATH, 1);
    log.clear();
    EXPECT_EQ(CaptureReturn::SUCCESS, service->initLib());
    EXPECT_EQ((Strings{"Call initLib()", "Capture::initLib libvx3_capture_hal.so is already dlopen.",
                       "Capture::initLib get symbol ok.", "Capture::initLib get symbol ok done."}),
              strippedMessages(log, 4));
    EXPECT_TRUE(library == Capture::mLibHandle.load() && pointers == entryPointers());
    EXPECT_TRUE(Capture::mPointsSupportState[12] == 7 && pqRowIs(17, -1, -1, 13) &&
                mGpuDstWidthAlign[4] == aligns[4]);

    mSrcFrameInfo[3].width = 640;
    log.clear();
    service.clear();
    EXPECT_EQ(Strings{"CAPTURE_HIDL/4 [~Capture] [HIDL] Capture Service Distructor"}, rendered(log));
    EXPECT_TRUE(Capture::mLibHandle.load() == nullptr && fake_subhal::state().calls.empty());
    EXPECT_TRUE(pointers == entryPointers() && mSrcFrameInfo[3].width == 640);
}

// Every in-process user gets the process's one service object, so dropping a reference never
// unloads the sub-HAL under another user. (The partial build is the library no one else here
// loads.)
TEST_F(SpineTest, FetchedServiceIsTheProcesssOneObject) {
    setenv("CAPTURE_SUBHAL_PATH", FAKE_SUBHAL_PARTIAL_PATH, 1);
    const auto loaded = [] {
        void* handle = dlopen(FAKE_SUBHAL_PARTIAL_PATH, RTLD_NOW | RTLD_NOLOAD);
        if (handle != nullptr) dlclose(handle);
        return handle != nullptr;
    };
    ASSERT_FALSE(loaded());
    sp<ICapture> first = HIDL_FETCH_ICapture("default");
    sp<ICapture> second = HIDL_FETCH_ICapture("default");
    EXPECT_EQ(first, second);
    ASSERT_EQ(CaptureReturn::SUCCESS, static_cast<CaptureReturn>(first->initLib()));
    first.clear();
    EXPECT_TRUE(loaded());
    int32_t id = -1;
    second->open([&](CaptureReturn ret, int32_t captureId) {
        EXPECT_EQ(CaptureReturn::SUCCESS, ret);
        id = captureId;
    });
    EXPECT_EQ(CaptureReturn::SUCCESS, static_cast<CaptureReturn>(second->close(id)));
    second.clear();
    EXPECT_TRUE(loaded());
    resetProcessState();  // unloads it, as the fixture's next test expects
    EXPECT_FALSE(loaded());
}

TEST_F(SpineTest, OpenFollowsTheSubHal) {
    constexpr CaptureReturn kOk = CaptureReturn::SUCCESS;
    constexpr CaptureReturn kBadId = CaptureReturn::INVALID_CAPTURE_ID;
    const struct {
        uint32_t initStatus, openStatus, handle;  // handle 0: the double's own choice
        CaptureReturn expected;
        uint32_t expectedId;
    } cases[] = {{0, 0, 0, kOk, 0x73000000},
                 {0, 0, 0x7300001F, kOk, 0x7300001F},
                 {0, 0, 0x73000020, kBadId, 0x73000020},
                 {0, 0, 0x72FFFFFF, kBadId, 0x72FFFFFF},
                 {0, 18, 0x73000004, CaptureReturn::TIMEOUT, 0x73000004},
                 {0, 16, 0, kBadId, 0},  // the identifier check has the last word
                 {7, 0, 0, kBadId, 0}};
    loadLibrary();
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        fake_subhal::reset();
        fake_subhal::setResultOnce(Entry::Init, c.initStatus);
        fake_subhal::setResultOnce(Entry::Open, c.openStatus);
        if (c.handle != 0) fake_subhal::state().openHandle = c.handle;
        log.clear();
        int calls = 0;
        service->open([&](CaptureReturn ret, int32_t id) {
            ++calls;
            EXPECT_EQ(c.expected, ret);
            EXPECT_EQ(c.expectedId, static_cast<uint32_t>(id));
        });
        EXPECT_EQ(1, calls);
        // Open only after a successful Init; both get a zero parameter.
        const std::vector<fake_subhal::Call> subHal = fake_subhal::state().calls;
        ASSERT_EQ(c.initStatus == 0 ? 2u : 1u, subHal.size());
        EXPECT_TRUE(subHal[0].entry == Entry::Init && subHal[0].arg == 0);
        if (c.initStatus != 0) continue;
        EXPECT_TRUE(subHal[1].entry == Entry::Open && subHal[1].arg == 0);
        const std::string refusal = formatted("open , INVALID_CAPTURE_ID ERROR 0x%x", c.expectedId);
        EXPECT_EQ(c.expected == kBadId ? 1u : 0u, log.countExact(refusal));
    }
}

// Without a callback there is nothing to unregister; DeInit only after a good Close.
TEST_F(SpineTest, CloseFollowsTheSubHal) {
    const struct {
        int32_t id;
        uint32_t closeStatus, deinitStatus;
        CaptureReturn expected;
    } cases[] = {{0x73000000, 0, 0, CaptureReturn::SUCCESS},
                 {0x7300001F, 0, 0, CaptureReturn::SUCCESS},
                 {0x73000002, 16, 0, CaptureReturn::FORMAT_NOT_SUPPORT},
                 {0x73000002, 70, 0, CaptureReturn::FAIL},
                 {0x73000002, 0, 8, CaptureReturn::INVALID_ARGUMENT}};
    loadLibrary();
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        fake_subhal::reset();
        fake_subhal::setResultOnce(Entry::Close, c.closeStatus);
        fake_subhal::setResultOnce(Entry::DeInit, c.deinitStatus);
        log.clear();
        EXPECT_EQ(c.expected, service->close(c.id));
        EXPECT_EQ(c.closeStatus == 0 ? (Strings{"Close", "DeInit"}) : Strings{"Close"},
                  fake_subhal::state().journal);
        EXPECT_EQ(c.id, fake_subhal::state().calls.at(0).captureId);
        EXPECT_EQ(Strings{formatted("Call close(), captureId: 0x%x", c.id)},
                  strippedMessages(log, 1));
    }

    const sp<RecordingCallback> callback = installCallback(0);
    fake_subhal::reset();
    setLogLevel(32);
    for (int32_t id : {0x73000020, -1, 0x72FFFFFF, INT_MIN, INT_MAX, 0}) {
        log.clear();
        EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, service->close(id));
        EXPECT_EQ(Strings{"CAPTURE_HIDL/5 [close] " +
                          formatted("close , INVALID_CAPTURE_ID ERROR 0x%x", id)},
                  rendered(log));
    }
    EXPECT_TRUE(fake_subhal::state().calls.empty() && Capture::hasCallback(0));
}

TEST_F(SpineTest, CloseUnregistersTheCallbackAndLeavesTheRest) {
    loadLibrary();
    const int slot = 5;
    const sp<RecordingCallback> callback = installCallback(slot), neighbour = installCallback(6);
    VX_CAPTURE_CallbackInputParams_s& params = Capture::stCallbackInputParams[slot];
    params.u32Flag = 1;
    params.pu32SequenceId = &Capture::mCallbackSequeceId[slot];
    Capture::mCallbackSequeceId[slot] = 3;
    mUseGpu[slot] = 1;
    mPqStreamInfo[slot].pqId = 2;

    // The unregistration's verdict is only logged.
    fake_subhal::setResultOnce(Entry::UnRegisterCallback, 7);
    EXPECT_EQ(CaptureReturn::SUCCESS, service->close(kCaptureIdBase + slot));
    EXPECT_EQ((Strings{"UnRegisterCallback", "Close", "DeInit"}), fake_subhal::state().journal);
    const auto unregistration = fake_subhal::callsOf(Entry::UnRegisterCallback).at(0);
    EXPECT_EQ(kCaptureIdBase + slot, unregistration.captureId);
    ASSERT_EQ(sizeof(params), unregistration.rec1.size());
    EXPECT_EQ(0, memcmp(&params, unregistration.rec1.data(), sizeof(params)));
    EXPECT_EQ(1u, log.countExact("mUnRegisterCallback fail! ret=7."));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_UnRegisterCallback(), Ret: 7"));
    EXPECT_EQ(1, callback->getStrongCount());
    EXPECT_TRUE(!Capture::hasCallback(slot) && Capture::hasCallback(6));
    EXPECT_TRUE(mUseGpu[slot] == 1 && mPqStreamInfo[slot].pqId == 2 &&
                Capture::mCallbackSequeceId[slot] == 3);
}

TEST_F(SpineTest, DebugWritesTheBannerThenTheSubHalDump) {
    loadLibrary();
    fake_subhal::state().dumpText = "capture instances: 0\n";
    // Only whether there are options counts, never what they say.
    for (const hidl_vec<hidl_string>& options :
         std::vector<hidl_vec<hidl_string>>{{}, {"-a"}, {""}, {"--verbose", "3"}}) {
        log.clear();
        EXPECT_EQ(kBanner + "capture instances: 0\n", debugInto(*service, options));
        EXPECT_EQ(options.size() == 0 ? 3u : 32u, fake_subhal::callsOf(Entry::DumpInfo).back().arg);
        EXPECT_EQ(Strings{"Call VX_CAPTURE_DumpInfo(), Ret: 0"}, strippedMessages(log));
    }
    // A failing dump is only logged, and its status is not translated.
    fake_subhal::setResultOnce(Entry::DumpInfo, 5);
    log.clear();
    EXPECT_EQ(kBanner, debugInto(*service, {}));
    EXPECT_EQ((Strings{"mDumpInfo fail! ret=5.", "Call VX_CAPTURE_DumpInfo(), Ret: 5"}),
              strippedMessages(log));

    // Only handles without a descriptor are refused; a negative one is still passed on.
    native_handle_t* intsOnly = native_handle_create(0, 1);
    native_handle_t* negative = native_handle_create(1, 0);
    negative->data[0] = -1;
    for (const native_handle_t* handle : {static_cast<native_handle_t*>(nullptr), intsOnly}) {
        log.clear();
        service->debug(hidl_handle(handle), {"-a"});
        EXPECT_EQ(Strings{"CAPTURE_HIDL/6 [debug] Invalid parameters passed to debug()"},
                  rendered(log));
    }
    EXPECT_EQ(5u, fake_subhal::count(Entry::DumpInfo));
    service->debug(hidl_handle(negative), {});
    EXPECT_EQ(-1, fake_subhal::callsOf(Entry::DumpInfo).back().fd);
    native_handle_delete(intsOnly);
    native_handle_delete(negative);
}

}  // namespace
}  // namespace capture_test
