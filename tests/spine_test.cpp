// The service spine: loading the sub-HAL, the service object's life, open and close.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <iterator>
#include <regex>
#include <thread>

#include "SpineTestUtil.h"
#include "SubHal.h"
#include "gpu_draw.h"

namespace capture_test {
namespace {

using fake_subhal::Entry;

struct EntryPointer {
    const char* symbol;
    void* (*get)();
};

#define ENTRY_POINTER(symbol, pointer)                                 \
    {                                                                  \
        symbol, [] { return reinterpret_cast<void*>(pointer.load()); } \
    }

const EntryPointer kEntryPointers[] = {
    ENTRY_POINTER("VX_CAPTURE_Init", mInitCapture),
    ENTRY_POINTER("VX_CAPTURE_DeInit", mDeInitCapture),
    ENTRY_POINTER("VX_CAPTURE_Open", mOpenCapture),
    ENTRY_POINTER("VX_CAPTURE_Close", mCloseCapture),
    ENTRY_POINTER("VX_CAPTURE_SetCaptureInfo", mSetCaptureInfo),
    ENTRY_POINTER("VX_CAPTURE_SetCaptureFrameInfo", mSetCaptureFrameInfo),
    ENTRY_POINTER("VX_CAPTURE_GetCapabilityInfo", mGetCaptureCapabilityInfo),
    ENTRY_POINTER("VX_CAPTURE_GetDipInfo", mGetCaptureDipInfo),
    ENTRY_POINTER("VX_CAPTURE_CaptureOnce", mCaptureOnce),
    ENTRY_POINTER("VX_CAPTURE_CaptureStart", mCaptureStart),
    ENTRY_POINTER("VX_CAPTURE_CaptureStop", mCaptureStop),
    ENTRY_POINTER("VX_CAPTURE_RegisterCallback", mRegisterCallback),
    ENTRY_POINTER("VX_CAPTURE_UnRegisterCallback", mUnRegisterCallback),
    ENTRY_POINTER("VX_CAPTURE_FrameProcessDone", mFrameProcessDone),
    ENTRY_POINTER("VX_CAPTURE_NotifyContinueCapture", mNotifyContinueCapture),
    ENTRY_POINTER("VX_CAPTURE_DumpInfo", mDumpInfo),
};

// Row stride of a 1x1 buffer of the host allocator, per GPU destination format, in the order of
// mGpuDstWidthAlign.
struct AlignCase {
    uint32_t format;
    uint32_t align;
};
const AlignCase kAllocatorAlignments[] = {
    {20, 32}, {262, 64}, {1, 16},  {5, 16},  {22, 8},  {43, 16},         {4, 32},
    {3, 64},  {16, 64},  {21, 64}, {17, 64}, {54, 64}, {0x32315659, 32},
};

bool allBytesZero(const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

void setLogLevel(uint32_t level) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, level, __ATOMIC_RELAXED);
}

void expectRowUnbound(int row) {
    SCOPED_TRACE("row " + std::to_string(row));
    EXPECT_EQ(-1, mPqStreamInfo[row].pqId);
    EXPECT_EQ(-1, mPqStreamInfo[row].reserved);
    EXPECT_EQ(13u, mPqStreamInfo[row].capturePoint);
}

class SpineTest : public ServiceTest {
protected:
    void TearDown() override {
        ServiceTest::TearDown();
        unsetenv("CAPTURE_SUBHAL_PATH");
    }

    void useMissingLibrary() { setenv("CAPTURE_SUBHAL_PATH", "/nonexistent/libmissing.so", 1); }

    struct OpenResult {
        int calls = 0;
        CaptureReturn ret = CaptureReturn::SUCCESS;
        int32_t id = 0;
    };
    OpenResult openOnce() {
        OpenResult result;
        service->open([&](CaptureReturn ret, int32_t id) {
            ++result.calls;
            result.ret = ret;
            result.id = id;
        });
        return result;
    }
};

TEST(SpineStaticImage, TablesBeforeInitLib) {
    expectRowUnbound(0);
    for (int row = 1; row < kMaxCaptureSlots; ++row) {
        SCOPED_TRACE("row " + std::to_string(row));
        EXPECT_EQ(0, mPqStreamInfo[row].pqId);
        EXPECT_EQ(0, mPqStreamInfo[row].reserved);
        EXPECT_EQ(0u, mPqStreamInfo[row].capturePoint);
    }
    for (int slot = 0; slot < kMaxCaptureSlots; ++slot) {
        SCOPED_TRACE("slot " + std::to_string(slot));
        EXPECT_EQ(0, mUseGpu[slot]);
        EXPECT_EQ(nullptr, Capture::mCallback[slot].get());
        EXPECT_FALSE(Capture::hasCallback(slot));
        EXPECT_EQ(0u, Capture::mCallbackSequeceId[slot]);
        EXPECT_TRUE(allBytesZero(&Capture::stCallbackInputParams[slot],
                                 sizeof(Capture::stCallbackInputParams[slot])));

        const CaptureSrcFrameInfo& src = mSrcFrameInfo[slot];
        EXPECT_EQ(nullptr, src.buffer.getNativeHandle());
        EXPECT_EQ(0u, src.vPlaneOffset.size());
        EXPECT_TRUE(allBytesZero(&src, offsetof(CaptureSrcFrameInfo, buffer)));
        EXPECT_TRUE(allBytesZero(&src.param40, offsetof(CaptureSrcFrameInfo, vPlaneOffset) -
                                                   offsetof(CaptureSrcFrameInfo, param40)));
        EXPECT_EQ(0u, src.colorimetry);

        const CaptureDstFrameInfo& dst = mDstFrameInfo[slot];
        EXPECT_EQ(nullptr, dst.buffer.getNativeHandle());
        EXPECT_EQ(0u, dst.vPlaneOffset.size());
        EXPECT_TRUE(allBytesZero(&dst, offsetof(CaptureDstFrameInfo, buffer)));
        EXPECT_TRUE(allBytesZero(&dst.param56, offsetof(CaptureDstFrameInfo, vPlaneOffset) -
                                                   offsetof(CaptureDstFrameInfo, param56)));
        EXPECT_TRUE(allBytesZero(&dst.bandwidth, sizeof(CaptureDstFrameInfo) -
                                                     offsetof(CaptureDstFrameInfo, bandwidth)));
    }
    for (int i = 0; i < kGpuWidthAlignEntries; ++i) EXPECT_EQ(0u, mGpuDstWidthAlign[i]) << i;
    EXPECT_EQ(nullptr, Capture::mLibHandle.load());
    for (const auto& entry : kEntryPointers) EXPECT_EQ(nullptr, entry.get()) << entry.symbol;
    EXPECT_EQ(nullptr, mCloseFd);
    EXPECT_EQ(nullptr, mSetBlendingDispInfo);
    EXPECT_EQ(0u, Capture::mSystemDtsConfig.format_support_list_w);
    EXPECT_EQ(0u, Capture::mSystemDtsConfig.TileWidthMax);
}

TEST_F(SpineTest, ConstructionAndDestructionOnlyLog) {
    EXPECT_EQ(1u, log.countExact("[HIDL] Capture Service Constructor"));
    EXPECT_EQ(ANDROID_LOG_INFO, log.find("Capture Service Constructor").priority);
    EXPECT_EQ("CAPTURE_HIDL", log.find("Capture Service Constructor").tag);

    // Per-slot state outlives the service object.
    mUseGpu[3] = 1;
    mSrcFrameInfo[3].width = 640;
    service.clear();
    EXPECT_EQ(1u, log.countExact("[HIDL] Capture Service Distructor"));
    EXPECT_EQ(ANDROID_LOG_INFO, log.find("Capture Service Distructor").priority);
    EXPECT_TRUE(fake_subhal::calls().empty());
    EXPECT_EQ(1, mUseGpu[3]);
    EXPECT_EQ(640u, mSrcFrameInfo[3].width);
}

TEST_F(SpineTest, PassthroughEntryMakesAService) {
    ::android::sp<ICapture> fetched = HIDL_FETCH_ICapture("default");
    ASSERT_NE(nullptr, fetched.get());
    EXPECT_NE(nullptr, dynamic_cast<Capture*>(fetched.get()));
    EXPECT_EQ(2u, log.countExact("[HIDL] Capture Service Constructor"));
}

TEST_F(SpineTest, TracesFollowTheLevel) {
    service.clear();
    log.clear();
    setLogLevel(63);
    service = new Capture();
    service.clear();
    EXPECT_EQ(0u, log.count("Capture Service"));
}

TEST_F(SpineTest, DestructorClosesTheLibraryOnly) {
    loadLibrary();
    ASSERT_NE(nullptr, Capture::mLibHandle.load());
    service.clear();
    EXPECT_EQ(nullptr, Capture::mLibHandle.load());
    // No sub-HAL operation, and the entry pointers are not cleared.
    EXPECT_TRUE(fake_subhal::calls().empty());
    for (const auto& entry : kEntryPointers) EXPECT_NE(nullptr, entry.get()) << entry.symbol;
}

TEST_F(SpineTest, InitLibWithoutLibrary) {
    useMissingLibrary();
    setLogLevel(31);
    EXPECT_EQ(CaptureReturn::FAIL, service->initLib());
    EXPECT_EQ(0u, log.count("failed"));

    setLogLevel(32);
    EXPECT_EQ(CaptureReturn::FAIL, service->initLib());
    const LogLine failure = log.find("Open libvx3_capture_hal.so failed!");
    EXPECT_EQ(ANDROID_LOG_WARN, failure.priority);
    EXPECT_EQ("CAPTURE_HIDL", failure.tag);
    EXPECT_TRUE(std::regex_match(failure.message,
                                 std::regex("\\[initLib\\]\\[[0-9]+\\] \\[initLib\\]\\[[0-9]+\\] "
                                            "Open libvx3_capture_hal\\.so failed! "
                                            ".*/nonexistent/libmissing\\.so.*")))
        << failure.message;

    // Nothing else happened: no pointer, no device tree, no table reset, no alignments.
    EXPECT_EQ(nullptr, Capture::mLibHandle.load());
    for (const auto& entry : kEntryPointers) EXPECT_EQ(nullptr, entry.get()) << entry.symbol;
    EXPECT_EQ(0u, log.count("set as default"));
    EXPECT_EQ(0u, log.count("get symbol ok"));
    EXPECT_EQ(0u, Capture::mPointsSupportState[0]);
    EXPECT_EQ(0, mPqStreamInfo[1].pqId);
    EXPECT_EQ(0u, mGpuDstWidthAlign[0]);
}

TEST_F(SpineTest, EveryCallFailsWithoutLibrary) {
    useMissingLibrary();
    ASSERT_EQ(CaptureReturn::FAIL, service->initLib());
    // The missing-entry lines are written whatever the level.
    setLogLevel(0);
    log.clear();

    const OpenResult opened = openOnce();
    EXPECT_EQ(1, opened.calls);
    EXPECT_EQ(CaptureReturn::INVALID_ARGUMENT, opened.ret);
    EXPECT_EQ(0, opened.id);
    EXPECT_EQ(1u, log.countExact("mInitCapture is nullptr!"));
    EXPECT_EQ(ANDROID_LOG_WARN, log.find("mInitCapture is nullptr!").priority);
    EXPECT_EQ(0u, log.count("mOpenCapture"));

    bool released = false;
    installCallback(4, new TestCallback(&released));
    EXPECT_EQ(CaptureReturn::INVALID_ARGUMENT, service->close(kCaptureIdBase + 4));
    EXPECT_EQ(
        (std::vector<std::string>{"mInitCapture is nullptr!", "mUnRegisterCallback is nullptr!",
                                  "mCloseCapture is nullptr!"}),
        strippedMessages(log));
    EXPECT_TRUE(released);
    EXPECT_FALSE(Capture::hasCallback(4));
}

TEST_F(SpineTest, InitLibResolvesEveryEntry) {
    DeviceTree tree;
    tree.setCell("dip0/capability/CapOSD", 1);
    loadLibrary();

    void* fake = dlopen(FAKE_SUBHAL_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(nullptr, fake);
    EXPECT_EQ(fake, Capture::mLibHandle.load());
    for (const auto& entry : kEntryPointers) {
        EXPECT_EQ(dlsym(fake, entry.symbol), entry.get()) << entry.symbol;
    }
    dlclose(fake);
    EXPECT_EQ(nullptr, mCloseFd);
    EXPECT_EQ(nullptr, mSetBlendingDispInfo);
    // initLib leaves VX_CAPTURE_Init to open.
    EXPECT_TRUE(fake_subhal::calls().empty());

    // Traces in order, and the device tree is read after the symbols.
    const std::vector<std::string> messages = strippedMessages(log);
    const auto at = [&](const std::string& text) {
        return std::find(messages.begin(), messages.end(), text) - messages.begin();
    };
    const auto firstDefault = std::find_if(messages.begin(), messages.end(),
                                           [](const std::string& m) {
                                               return m.find("set as default") != std::string::npos;
                                           }) -
                              messages.begin();
    EXPECT_LT(at("Call initLib()"), at("Capture::initLib get symbol ok."));
    EXPECT_LT(at("Capture::initLib get symbol ok."), at("Capture::initLib get symbol ok done."));
    EXPECT_LT(at("Capture::initLib get symbol ok done."), firstDefault);
    EXPECT_LT(firstDefault, static_cast<long>(messages.size()));
    EXPECT_EQ(0u, log.count("already dlopen"));

    EXPECT_EQ(1u, Capture::mPointsSupportState[12]);
    for (int row = 0; row < kMaxCaptureSlots; ++row) expectRowUnbound(row);
    for (size_t i = 0; i < std::size(kAllocatorAlignments); ++i) {
        EXPECT_EQ(kAllocatorAlignments[i].align, mGpuDstWidthAlign[i]) << i;
    }
    for (int i = std::size(kAllocatorAlignments); i < kGpuWidthAlignEntries; ++i) {
        EXPECT_EQ(0u, mGpuDstWidthAlign[i]) << i;
    }
}

TEST_F(SpineTest, PartialLibraryLoadsWithGaps) {
    loadLibrary(/*partial=*/true);
    for (const auto& entry : kEntryPointers) {
        const bool missing = strcmp(entry.symbol, "VX_CAPTURE_DumpInfo") == 0 ||
                             strcmp(entry.symbol, "VX_CAPTURE_NotifyContinueCapture") == 0;
        EXPECT_EQ(missing, entry.get() == nullptr) << entry.symbol;
    }
}

TEST_F(SpineTest, SecondInitLibKeepsTheLibraryAndRedoesTheRest) {
    DeviceTree tree;
    loadLibrary();
    void* library = Capture::mLibHandle.load();
    const auto dumpInfo = mDumpInfo.load();
    EXPECT_EQ(0u, Capture::mPointsSupportState[12]);

    // Disturb everything the second call must redo.
    mDumpInfo.store(nullptr);
    mPqStreamInfo[0].pqId = 9;
    mPqStreamInfo[17].pqId = 3;
    mPqStreamInfo[17].reserved = 0;
    mPqStreamInfo[17].capturePoint = 4;
    mGpuDstWidthAlign[4] = 12345;
    tree.setCell("dip0/capability/CapOSD", 7);
    // A second dlopen would now find the partial build, which lacks VX_CAPTURE_DumpInfo.
    setenv("CAPTURE_SUBHAL_PATH", FAKE_SUBHAL_PARTIAL_PATH, 1);
    log.clear();

    EXPECT_EQ(CaptureReturn::SUCCESS, service->initLib());
    const std::vector<std::string> messages = strippedMessages(log);
    ASSERT_GE(messages.size(), 4u);
    EXPECT_EQ((std::vector<std::string>{
                  "Call initLib()", "Capture::initLib libvx3_capture_hal.so is already dlopen.",
                  "Capture::initLib get symbol ok.", "Capture::initLib get symbol ok done."}),
              std::vector<std::string>(messages.begin(), messages.begin() + 4));
    EXPECT_EQ(library, Capture::mLibHandle.load());
    EXPECT_EQ(dumpInfo, mDumpInfo.load());
    EXPECT_EQ(7u, Capture::mPointsSupportState[12]);
    expectRowUnbound(0);
    expectRowUnbound(17);
    EXPECT_EQ(kAllocatorAlignments[4].align, mGpuDstWidthAlign[4]);
}

TEST(GpuWidthAlign, OneByOneStrideOfTheAllocator) {
    for (const AlignCase& c : kAllocatorAlignments) {
        EXPECT_EQ(c.align, gpu_get_width_align(c.format)) << "format " << c.format;
    }
    // Formats the allocator refuses have no buffer and so no alignment.
    for (uint32_t format : {0u, 2000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(0u, gpu_get_width_align(format)) << "format " << format;
    }
}

struct OpenCase {
    const char* name;
    uint32_t initStatus;
    uint32_t openStatus;
    bool scriptHandle;
    uint32_t handle;
    CaptureReturn expected;
    int32_t expectedId;
};

void PrintTo(const OpenCase& c, std::ostream* os) {
    *os << c.name;
}

class OpenTest : public SpineTest, public ::testing::WithParamInterface<OpenCase> {};

TEST_P(OpenTest, FollowsTheSubHal) {
    const OpenCase& c = GetParam();
    loadLibrary();
    if (c.initStatus != 0) fake_subhal::setResult(Entry::Init, c.initStatus);
    if (c.openStatus != 0) fake_subhal::setResult(Entry::Open, c.openStatus);
    if (c.scriptHandle) fake_subhal::setNextOpenHandle(c.handle);
    log.clear();

    const OpenResult opened = openOnce();
    EXPECT_EQ(1, opened.calls);
    EXPECT_EQ(c.expected, opened.ret);
    EXPECT_EQ(c.expectedId, opened.id);

    const bool initOk = c.initStatus == 0;
    const auto calls = fake_subhal::calls();
    ASSERT_EQ(initOk ? 2u : 1u, calls.size());
    EXPECT_EQ(Entry::Init, calls[0].entry);
    EXPECT_EQ(0, calls[0].param);
    EXPECT_EQ(1u, log.countExact("Call open()"));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_Init(), Ret: " + std::to_string(c.initStatus)));
    if (!initOk) {
        EXPECT_EQ(1u,
                  log.countExact("mInitCapture fail! ret=" + std::to_string(c.initStatus) + "."));
        EXPECT_EQ(0u, log.count("VX_CAPTURE_Open"));
        return;
    }
    EXPECT_EQ(Entry::Open, calls[1].entry);
    EXPECT_EQ(0, calls[1].param);
    char trace[96];
    snprintf(trace, sizeof(trace), "Call VX_CAPTURE_Open(), Ret: %u, hHandle: 0x%x", c.openStatus,
             static_cast<uint32_t>(c.expectedId));
    EXPECT_EQ(1u, log.countExact(trace)) << log.dump();

    char refusal[64];
    snprintf(refusal, sizeof(refusal), "open , INVALID_CAPTURE_ID ERROR 0x%x",
             static_cast<uint32_t>(c.expectedId));
    const bool badHandle = (static_cast<uint32_t>(c.expectedId) & ~31u) != 0x73000000u;
    EXPECT_EQ(badHandle ? 1u : 0u, log.countExact(refusal));
    if (badHandle) {
        EXPECT_EQ(ANDROID_LOG_WARN, log.find(refusal).priority);
    }
}

constexpr CaptureReturn kOk = CaptureReturn::SUCCESS;
constexpr CaptureReturn kBadId = CaptureReturn::INVALID_CAPTURE_ID;
constexpr CaptureReturn kTimeout = CaptureReturn::TIMEOUT;

INSTANTIATE_TEST_SUITE_P(
    Spine, OpenTest,
    ::testing::Values(
        OpenCase{"FirstSlot", 0, 0, false, 0, kOk, 0x73000000},
        OpenCase{"LastSlot", 0, 0, true, 0x7300001F, kOk, 0x7300001F},
        OpenCase{"AboveRange", 0, 0, true, 0x73000020, kBadId, 0x73000020},
        OpenCase{"BelowRange", 0, 0, true, 0x72FFFFFF, kBadId, 0x72FFFFFF},
        OpenCase{"HighBitSet", 0, 0, true, 0xF3000001, kBadId, static_cast<int32_t>(0xF3000001)},
        OpenCase{"OpenFailsValidHandle", 0, 18, true, 0x73000004, kTimeout, 0x73000004},
        OpenCase{"OpenFailsUnknownStatus", 0, 2, true, 0x73000004, CaptureReturn::FAIL, 0x73000004},
        // The identifier check has the last word over the mapped status.
        OpenCase{"OpenFailsWithoutHandle", 0, 16, false, 0, kBadId, 0},
        OpenCase{"InitFailsInvalidId", 7, 0, false, 0, kBadId, 0},
        OpenCase{"InitFailsBusy", 17, 0, false, 0, CaptureReturn::BUSY, 0}),
    [](const ::testing::TestParamInfo<OpenCase>& info) { return info.param.name; });

TEST_F(SpineTest, CloseRefusesIdentifiersOutOfRange) {
    loadLibrary();
    bool released = false;
    installCallback(0, new TestCallback(&released));
    installCallback(31, new TestCallback());
    for (int32_t id : {0x73000020, -1, 0x72FFFFFF, INT_MIN, INT_MAX, 0}) {
        char text[64];
        snprintf(text, sizeof(text), "close , INVALID_CAPTURE_ID ERROR 0x%x",
                 static_cast<uint32_t>(id));
        SCOPED_TRACE(text);
        log.clear();
        EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, service->close(id));
        EXPECT_EQ(1u, log.countExact(text));
        EXPECT_EQ(ANDROID_LOG_WARN, log.find(text).priority);
    }
    EXPECT_TRUE(fake_subhal::calls().empty());
    EXPECT_TRUE(Capture::hasCallback(0));
    EXPECT_TRUE(Capture::hasCallback(31));
    installCallback(0, nullptr);
    installCallback(31, nullptr);
    EXPECT_TRUE(released);
}

TEST_F(SpineTest, CloseWithoutCallbackClosesAndDeinits) {
    loadLibrary();
    for (int32_t id : {0x73000000, 0x7300001F}) {
        SCOPED_TRACE(id);
        fake_subhal::reset();
        log.clear();
        EXPECT_EQ(CaptureReturn::SUCCESS, service->close(id));
        const auto calls = fake_subhal::calls();
        ASSERT_EQ(2u, calls.size());
        EXPECT_EQ(Entry::Close, calls[0].entry);
        EXPECT_EQ(id, calls[0].captureId);
        EXPECT_EQ(Entry::DeInit, calls[1].entry);
        char entry[48];
        snprintf(entry, sizeof(entry), "Call close(), captureId: 0x%x", static_cast<uint32_t>(id));
        EXPECT_EQ((std::vector<std::string>{entry, "Call VX_CAPTURE_Close(), Ret: 0",
                                            "Call VX_CAPTURE_DeInit(), Ret: 0"}),
                  strippedMessages(log));
    }
}

TEST_F(SpineTest, CloseUnregistersTheCallbackAndLeavesTheRest) {
    loadLibrary();
    const int slot = 5;
    const int32_t id = kCaptureIdBase + slot;
    bool released = false;
    bool neighbourReleased = false;
    installCallback(slot, new TestCallback(&released));
    installCallback(slot + 1, new TestCallback(&neighbourReleased));
    VX_CAPTURE_CallbackInputParams_s& params = Capture::stCallbackInputParams[slot];
    params.u32Reserved0 = 0x11;
    params.u32Flag = 1;
    params.pu32SequenceId = &Capture::mCallbackSequeceId[slot];
    params.u32Reserved2 = 0x22;
    mUseGpu[slot] = 1;
    mPqStreamInfo[slot].pqId = 2;
    mSrcFrameInfo[slot].width = 320;
    mDstFrameInfo[slot].vPlaneOffset = hidl_vec<uint32_t>{0, 4096};
    Capture::mCallbackSequeceId[slot] = 3;

    // The unregistration's verdict is only logged.
    fake_subhal::setResultOnce(Entry::UnRegisterCallback, 7);
    EXPECT_EQ(CaptureReturn::SUCCESS, service->close(id));

    EXPECT_EQ((std::vector<Entry>{Entry::UnRegisterCallback, Entry::Close, Entry::DeInit}),
              entrySequence());
    const auto unregistration = fake_subhal::callsOf(Entry::UnRegisterCallback).at(0);
    EXPECT_EQ(id, unregistration.captureId);
    ASSERT_EQ(sizeof(params), unregistration.rec1.size());
    EXPECT_EQ(0, memcmp(&params, unregistration.rec1.data(), sizeof(params)));
    EXPECT_EQ(1u, log.countExact("mUnRegisterCallback fail! ret=7."));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_UnRegisterCallback(), Ret: 7"));

    EXPECT_TRUE(released);
    EXPECT_EQ(nullptr, Capture::mCallback[slot].get());
    EXPECT_FALSE(Capture::hasCallback(slot));
    EXPECT_FALSE(neighbourReleased);
    EXPECT_TRUE(Capture::hasCallback(slot + 1));
    installCallback(slot + 1, nullptr);

    EXPECT_EQ(1, mUseGpu[slot]);
    EXPECT_EQ(2, mPqStreamInfo[slot].pqId);
    EXPECT_EQ(320u, mSrcFrameInfo[slot].width);
    EXPECT_EQ(2u, mDstFrameInfo[slot].vPlaneOffset.size());
    EXPECT_EQ(3u, Capture::mCallbackSequeceId[slot]);
}

struct CloseFailureCase {
    uint32_t closeStatus;
    uint32_t deinitStatus;
    CaptureReturn expected;
};

void PrintTo(const CloseFailureCase& c, std::ostream* os) {
    *os << "Close " << c.closeStatus << ", DeInit " << c.deinitStatus;
}

using CloseFailureParam = ::testing::WithParamInterface<CloseFailureCase>;
class CloseFailureTest : public SpineTest, public CloseFailureParam {};

TEST_P(CloseFailureTest, MapsTheFirstFailure) {
    const CloseFailureCase& c = GetParam();
    loadLibrary();
    fake_subhal::setResult(Entry::Close, c.closeStatus);
    fake_subhal::setResult(Entry::DeInit, c.deinitStatus);
    EXPECT_EQ(c.expected, service->close(0x73000002));
    const std::vector<Entry> expectedCalls = c.closeStatus == 0
                                                 ? std::vector<Entry>{Entry::Close, Entry::DeInit}
                                                 : std::vector<Entry>{Entry::Close};
    EXPECT_EQ(expectedCalls, entrySequence());
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_Close(), Ret: " + std::to_string(c.closeStatus)));
}

INSTANTIATE_TEST_SUITE_P(
    Spine, CloseFailureTest,
    ::testing::Values(CloseFailureCase{16, 0, CaptureReturn::FORMAT_NOT_SUPPORT},
                      CloseFailureCase{3, 0, CaptureReturn::FAIL},
                      CloseFailureCase{70, 0, CaptureReturn::FAIL},
                      CloseFailureCase{7, 0, CaptureReturn::INVALID_CAPTURE_ID},
                      CloseFailureCase{0, 8, CaptureReturn::INVALID_ARGUMENT},
                      CloseFailureCase{0, 45, CaptureReturn::FORMAT_NOT_SUPPORT},
                      CloseFailureCase{0, 1, CaptureReturn::FAIL}),
    [](const ::testing::TestParamInfo<CloseFailureCase>& info) {
        return "Close" + std::to_string(info.param.closeStatus) + "DeInit" +
               std::to_string(info.param.deinitStatus);
    });

TEST_F(SpineTest, ConcurrentOpenAndClose) {
    loadLibrary();
    setLogLevel(0);
    std::vector<std::thread> clients;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        clients.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                int32_t id = -1;
                CaptureReturn ret = CaptureReturn::FAIL;
                service->open([&](CaptureReturn r, int32_t captureId) {
                    ret = r;
                    id = captureId;
                });
                if (ret != CaptureReturn::SUCCESS || !isValidCaptureId(id)) {
                    ++failures;
                    continue;
                }
                if (i % 2 == 0) installCallback(slotOf(id), new TestCallback());
                if (service->close(id) != CaptureReturn::SUCCESS) ++failures;
            }
        });
    }
    for (auto& client : clients) client.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(200u, fake_subhal::count(Entry::Open));
    EXPECT_EQ(200u, fake_subhal::count(Entry::DeInit));
    EXPECT_EQ(100u, fake_subhal::count(Entry::UnRegisterCallback));
    for (int slot = 0; slot < kMaxCaptureSlots; ++slot) EXPECT_FALSE(Capture::hasCallback(slot));
}

}  // namespace
}  // namespace capture_test
