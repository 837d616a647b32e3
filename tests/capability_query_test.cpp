// getCaptureCapabilityInfo: the DIP-or-GPU decision (device-tree tests, the sub-HAL's width
// limits, the DipInfo verdict), the records the sub-HAL receives and the answer the client gets.
#include <android-base/properties.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Capture.h"
#include "FakeSubHal.h"
#include "SubHal.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

using fake_subhal::Entry;

constexpr int32_t kId = 0x73000003;  // never opened: the query only checks the range
constexpr int kSlot = 3;
constexpr uint8_t kUntouched = 7;  // mUseGpu sentinel

using Step = std::pair<Entry, uint32_t>;  // entry and, for GetDipInfo, its mode
const Step kCap{Entry::GetCapabilityInfo, 0};
const Step kDip0{Entry::GetDipInfo, 0};
const Step kDip1{Entry::GetDipInfo, 1};

struct Reply {
    int calls = 0;
    CaptureReturn code = CaptureReturn::FAIL;
    getQueryInfo info;
};

// 1920x1080 NV12 into 1920x1080 NV21, crop the whole frame, no rotation.
setQueryInfo plainQuery(uint8_t captureType) {
    setQueryInfo query{};
    query.src_width = query.dst_width = query.crop_width = 1920;
    query.src_height = query.dst_height = query.crop_height = 1080;
    query.src_format = CaptureFormat::NV12;
    query.dst_format = CaptureFormat::NV21;
    query.captureType = captureType;
    return query;
}

VX_CAPTURE_getQueryInfo_s wideLimits() {
    VX_CAPTURE_getQueryInfo_s limits;
    std::memset(&limits, 0, sizeof(limits));
    limits.src_min_width = 16;
    limits.src_max_width = 4096;
    limits.dst_min_width = 16;
    limits.dst_max_width = 4096;
    return limits;
}

VX_CAPTURE_DipInfo_s dipInfo(uint8_t usable, uint64_t bwSize) {
    VX_CAPTURE_DipInfo_s info;
    std::memset(&info, 0, sizeof(info));
    info.bDipUsable = usable;
    for (uint8_t i = 0; i < 7; ++i) info.u8Reserved[i] = static_cast<uint8_t>(0x20 + i);
    info.u64BwSize = bwSize;
    return info;
}

std::vector<uint8_t> bytesOf(const void* p, size_t n) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    return std::vector<uint8_t>(b, b + n);
}

class CapabilityQueryTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        // A DIP that can do everything, so each test switches off only what it is about.
        SystemDtsConfig& dts = Capture::mSystemDtsConfig;
        dts.dip_rotate = 0x03;
        dts.dip_HMirrorSz = 4096;
        dts.dip_crop = 1;
        dts.dip_dscl = 1;
        dts.dip_uscl = 1;
        dts.format_support_list_w = 0xFFFFFFFF;
        dts.format_support_list_r = 0xFFFFFFFF;
        dts.TileWidthMax = 4096;
        fake_subhal::setCapabilityAnswer(wideLimits());
        for (auto& row : mUseGpu) row = kUntouched;
    }

    Reply query(const setQueryInfo& q, int32_t id = kId) {
        Reply reply;
        service->getCaptureCapabilityInfo(id, q,
                                          [&reply](CaptureReturn code, const getQueryInfo& info) {
                                              ++reply.calls;
                                              reply.code = code;
                                              reply.info = info;
                                          });
        return reply;
    }

    // The capability and DipInfo calls, in order; every one must carry the identifier.
    std::vector<Step> steps(int32_t id = kId) {
        std::vector<Step> out;
        for (const auto& call : fake_subhal::calls()) {
            if (call.entry != Entry::GetCapabilityInfo && call.entry != Entry::GetDipInfo) continue;
            EXPECT_EQ(id, call.captureId);
            out.emplace_back(call.entry, call.entry == Entry::GetDipInfo ? call.arg : 0);
        }
        return out;
    }

    bool allRowsUntouched() {
        for (const auto& row : mUseGpu) {
            if (row != kUntouched) return false;
        }
        return true;
    }
};

void expectZeroRecord(const getQueryInfo& info) {
    getQueryInfo zero;
    std::memset(&zero, 0, sizeof(zero));
    EXPECT_EQ(bytesOf(&zero, sizeof(zero)), bytesOf(&info, sizeof(info)));
}

TEST_F(CapabilityQueryTest, IdentifierAndAngleRefusals) {
    struct Case {
        int32_t id;
        uint32_t angle;
        CaptureReturn code;
        const char* line;
    };
    const Case cases[] = {
        {0x73000020, 0, CaptureReturn::INVALID_CAPTURE_ID,
         "getCaptureCapabilityInfo fail, INVALID_CAPTURE_ID ERROR 0x73000020"},
        {0x72FFFFFF, 0, CaptureReturn::INVALID_CAPTURE_ID,
         "getCaptureCapabilityInfo fail, INVALID_CAPTURE_ID ERROR 0x72ffffff"},
        {0x73000020, 45, CaptureReturn::INVALID_CAPTURE_ID,
         "getCaptureCapabilityInfo fail, INVALID_CAPTURE_ID ERROR 0x73000020"},
        // The line prints the identifier where the angle would be.
        {kId, 45, CaptureReturn::INVALID_ARGUMENT,
         "getCaptureCapabilityInfo fail, rotateAngle(1929379843) not support!!"},
        {kId, 360, CaptureReturn::INVALID_ARGUMENT,
         "getCaptureCapabilityInfo fail, rotateAngle(1929379843) not support!!"},
        {kId, 0xFFFFFFFF, CaptureReturn::INVALID_ARGUMENT,
         "getCaptureCapabilityInfo fail, rotateAngle(1929379843) not support!!"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << std::hex << c.id << std::dec << " angle " << c.angle);
        log.clear();
        setQueryInfo q = plainQuery(1);
        q.rotationAngle = c.angle;
        Reply reply = query(q, c.id);
        EXPECT_EQ(1, reply.calls);
        EXPECT_EQ(c.code, reply.code);
        expectZeroRecord(reply.info);
        EXPECT_EQ(1u, log.countExact(c.line)) << log.dump();
        EXPECT_EQ(ANDROID_LOG_WARN, log.find(c.line).priority);
        EXPECT_TRUE(fake_subhal::calls().empty());
        EXPECT_TRUE(allRowsUntouched());
    }
}

TEST_F(CapabilityQueryTest, LastSlotPassesWithoutOpen) {
    Reply reply = query(plainQuery(0), 0x7300001F);
    EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
    EXPECT_EQ(2, reply.info.engine);
    EXPECT_EQ(0, mUseGpu[31]);
    EXPECT_EQ(kUntouched, mUseGpu[kSlot]);
    EXPECT_EQ((std::vector<Step>{kCap, kDip1, kCap}), steps(0x7300001F));
}

struct DecisionCase {
    const char* name;
    uint8_t captureType;
    bool dipAble;      // the device tree lets the DIP write the destination format
    int dipInfoMode0;  // byte 0 answered in mode 0; -1: DipInfo left alone; -2: call fails
    bool gpuFormats;   // both formats have a GPU mapping
    CaptureReturn code;
    uint8_t useGpu;
    uint8_t engine;
    uint8_t row;  // mUseGpu afterwards
    uint32_t gpuSrc, gpuDst;
    std::vector<Step> steps;
};

void PrintTo(const DecisionCase& c, std::ostream* os) {
    *os << c.name;
}

class CapabilityDecisionTest : public CapabilityQueryTest,
                               public ::testing::WithParamInterface<DecisionCase> {};

TEST_P(CapabilityDecisionTest, PathCodeAndSubHalCalls) {
    const DecisionCase& c = GetParam();
    if (!c.dipAble) Capture::mSystemDtsConfig.format_support_list_w = 0;
    if (c.dipInfoMode0 >= 0) {
        fake_subhal::setDipInfo(0, dipInfo(static_cast<uint8_t>(c.dipInfoMode0), 0));
    } else if (c.dipInfoMode0 == -2) {
        fake_subhal::setResultOnce(Entry::GetDipInfo, 3);
    }
    setQueryInfo q = plainQuery(c.captureType);
    if (!c.gpuFormats) q.dst_format = CaptureFormat::ARGB2101010;

    Reply reply = query(q);
    EXPECT_EQ(1, reply.calls);
    EXPECT_EQ(c.code, reply.code);
    EXPECT_EQ(c.useGpu, reply.info.useGpu);
    EXPECT_EQ(c.engine, reply.info.engine);
    EXPECT_EQ(c.row, mUseGpu[kSlot]);
    EXPECT_EQ(c.gpuSrc, reply.info.gpuSrcFormat);
    EXPECT_EQ(c.gpuDst, reply.info.gpuDstFormat);
    EXPECT_EQ(c.steps, steps());
    if (c.code == CaptureReturn::FORMAT_NOT_SUPPORT) {
        EXPECT_EQ(1u, log.countExact("dst_format(0x40) is not support by gpu!")) << log.dump();
    }
}

const DecisionCase kDecisions[] = {
    {"StreamDip", 0, true, -1, true, CaptureReturn::SUCCESS, 0, 2, 0, 0, 0, {kCap, kDip1, kCap}},
    {"StreamDipWithoutGpuFormats",
     0,
     true,
     -1,
     false,
     CaptureReturn::SUCCESS,
     0,
     2,
     0,
     0,
     0,
     {kCap, kDip1, kCap}},
    {"StreamNoDip", 0, false, -1, true, CaptureReturn::DIP_NOT_SUPPORT, 0, 0, kUntouched, 0, 0, {}},
    {"DramDipUsable",
     1,
     true,
     1,
     true,
     CaptureReturn::SUCCESS,
     0,
     2,
     0,
     0,
     0,
     {kCap, kDip0, kDip1, kCap}},
    {"DramDipInfoLeftAlone",
     1,
     true,
     -1,
     true,
     CaptureReturn::SUCCESS,
     0,
     2,
     0,
     0,
     0,
     {kCap, kDip0, kDip1, kCap}},
    {"DramDipInfoFails",
     1,
     true,
     -2,
     true,
     CaptureReturn::SUCCESS,
     0,
     2,
     0,
     0,
     0,
     {kCap, kDip0, kDip1, kCap}},
    {"DramDipUnusable", 1, true, 0, true, CaptureReturn::SUCCESS, 1, 0, 1, 21, 17, {kCap, kDip0}},
    {"DramDipUnusableWithoutGpuFormats",
     1,
     true,
     0,
     false,
     CaptureReturn::FORMAT_NOT_SUPPORT,
     0,
     0,
     0,
     21,
     0,
     {kCap, kDip0}},
    {"DramNoDip", 1, false, -1, true, CaptureReturn::SUCCESS, 1, 0, 1, 21, 17, {}},
    {"DramNoDipWithoutGpuFormats",
     1,
     false,
     -1,
     false,
     CaptureReturn::FORMAT_NOT_SUPPORT,
     0,
     0,
     0,
     21,
     0,
     {}},
    // Any type other than 0 and 1 is a stream that may still fall back to the GPU.
    {"OtherTypeDipNeverAsksMode0",
     2,
     true,
     0,
     true,
     CaptureReturn::SUCCESS,
     0,
     2,
     0,
     0,
     0,
     {kCap, kDip1, kCap}},
    {"OtherTypeNoDip", 2, false, -1, true, CaptureReturn::SUCCESS, 1, 0, 1, 21, 17, {}},
    {"OtherTypeNoDipWithoutGpuFormats",
     2,
     false,
     -1,
     false,
     CaptureReturn::FORMAT_NOT_SUPPORT,
     0,
     0,
     0,
     21,
     0,
     {}},
};

INSTANTIATE_TEST_SUITE_P(All, CapabilityDecisionTest, ::testing::ValuesIn(kDecisions),
                         [](const auto& info) { return std::string(info.param.name); });

// The VX query in every call, the zeroed answer record, and the DipInfo filled once with 0x01.
TEST_F(CapabilityQueryTest, SubHalRecordsMatchQuery) {
    const VX_CAPTURE_DipInfo_s afterMode0 = dipInfo(5, 0x1122334455667788ull);
    for (uint8_t type : {uint8_t(1), uint8_t(0), uint8_t(2)}) {
        SCOPED_TRACE(::testing::Message() << "captureType " << int(type));
        fake_subhal::reset();
        fake_subhal::setCapabilityAnswer(wideLimits());
        fake_subhal::setDipInfo(0, afterMode0);
        setQueryInfo q = plainQuery(type);
        q.src_width = 1280;
        q.src_height = 720;
        q.dst_width = 640;
        q.dst_height = 360;
        q.dst_format = CaptureFormat::ABGR8888;
        q.rotationAngle = 90;
        q.crop_x = 4;
        q.crop_y = 6;
        q.crop_width = 1200;
        q.crop_height = 700;
        ASSERT_EQ(CaptureReturn::SUCCESS, query(q).code);

        VX_CAPTURE_setQueryInfo_s vx;
        std::memset(&vx, 0, sizeof(vx));
        vx.src_width = 1280;
        vx.src_height = 720;
        vx.src_format = 11;  // NV12
        vx.dst_width = 640;
        vx.dst_height = 360;
        vx.dst_format = 3;  // ABGR8888
        vx.rotationAngle = 90;
        vx.bIsDram = type == 1 ? 1 : 0;
        const std::vector<uint8_t> zeroAnswer(sizeof(VX_CAPTURE_getQueryInfo_s), 0);
        std::vector<uint8_t> ones(16, 0x01);
        auto calls = fake_subhal::calls();
        ASSERT_EQ(type == 1 ? 4u : 3u, calls.size());
        for (const auto& call : calls) {
            EXPECT_EQ(bytesOf(&vx, sizeof(vx)), call.rec1) << fake_subhal::entryName(call.entry);
            if (call.entry == Entry::GetCapabilityInfo) {
                EXPECT_EQ(zeroAnswer, call.rec2);
            }
        }
        // Mode 1 sees what mode 0 left behind: the record is not refilled in between.
        auto dips = fake_subhal::callsOf(Entry::GetDipInfo);
        EXPECT_EQ(ones, dips.front().rec2);
        if (type == 1) {
            EXPECT_EQ(bytesOf(&afterMode0, sizeof(afterMode0)), dips.back().rec2);
        }
    }
}

TEST_F(CapabilityQueryTest, DipAnswerCopiedIntoResult) {
    uint32_t words[15];
    for (uint32_t i = 0; i < 15; ++i) words[i] = 0xA0 + i;
    VX_CAPTURE_getQueryInfo_s answer;
    static_assert(sizeof(answer) == sizeof(words), "fifteen words");
    std::memcpy(&answer, words, sizeof(answer));
    answer.src_width_align = 16;
    answer.u32Word8 = 0x1234;
    answer.src_min_width = 64;
    answer.src_max_width = 4096;
    answer.src_max_width_rwsep = 8192;
    answer.dst_min_width = 32;
    answer.dst_max_width = 3840;
    answer.dst_max_width_rwsep = 7680;
    fake_subhal::setCapabilityAnswer(answer);
    fake_subhal::setDipInfo(1, dipInfo(1, 123456789012ull));

    Reply reply = query(plainQuery(1));
    getQueryInfo expected;
    std::memset(&expected, 0, sizeof(expected));
    expected.capWord0 = 0xA0;
    expected.capWord1 = 0xA1;
    expected.dstWidthAlign = 0xA2;
    expected.capWord3 = 0xA3;
    expected.dstWidthAlignValid = 0xA4;
    expected.engine = 2;
    expected.capWord7 = 0xA7;
    expected.capByte8 = 0x34;
    expected.bwSize = 123456789012ull;
    expected.srcMaxWidth = 4096;
    expected.dstMaxWidth = 3840;
    expected.srcWidthAlign = 16;
    EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
    EXPECT_EQ(bytesOf(&expected, sizeof(expected)), bytesOf(&reply.info, sizeof(reply.info)));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_GetDipInfo(), bw_size: 123456789012"));
    EXPECT_EQ(0, mUseGpu[kSlot]);
}

// A failing capability call decides the code; a failing GetDipInfo never does.
TEST_F(CapabilityQueryTest, SubHalFailuresOnTheDipPath) {
    fake_subhal::setDipInfo(1, dipInfo(1, 99));
    fake_subhal::setResultOnce(Entry::GetCapabilityInfo, 0);  // the width check passes
    fake_subhal::setResultOnce(Entry::GetCapabilityInfo, 16);
    Reply reply = query(plainQuery(1));
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, reply.code);
    expectZeroRecord(reply.info);
    EXPECT_EQ(0, mUseGpu[kSlot]);
    EXPECT_EQ(1u, log.countExact("mGetCaptureCapabilityInfo fail! ret=16."));

    log.clear();
    mGetCaptureDipInfo.store(nullptr);
    reply = query(plainQuery(1));
    EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
    EXPECT_EQ(2, reply.info.engine);
    EXPECT_EQ(0u, reply.info.bwSize);
    EXPECT_EQ(2u, log.countExact("mGetCaptureDipInfo is nullptr!"));
    EXPECT_EQ(2u, log.countExact("Call VX_CAPTURE_GetDipInfo(), Ret: 8"));
    EXPECT_EQ(0u, log.count("bw_size"));
}

// Even with logging off the missing entry is reported, by the width check itself.
TEST_F(CapabilityQueryTest, MissingCapabilityEntry) {
    mGetCaptureCapabilityInfo.store(nullptr);
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    EXPECT_EQ(CaptureReturn::DIP_NOT_SUPPORT, query(plainQuery(0)).code);
    ASSERT_EQ(1u, log.countExact("mGetCaptureCapabilityInfo is nullptr!")) << log.dump();
    EXPECT_EQ(0u, log.find("is nullptr!").message.rfind("[checkDipSupportWithVxInfo]", 0));
    EXPECT_EQ(ANDROID_LOG_WARN, log.find("is nullptr!").priority);

    Reply reply = query(plainQuery(1));
    EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
    EXPECT_EQ(1, reply.info.useGpu);
}

TEST_F(CapabilityQueryTest, GpuWidthAlignmentByDestinationFormat) {
    const std::pair<uint32_t, int> table[] = {
        {0x1, 0},   {0x2, 1},   {0x4, 2},   {0x8, 3},     {0x100000, 4}, {0x400000, 5},  {0x80, 6},
        {0x100, 7}, {0x200, 8}, {0x800, 9}, {0x1000, 10}, {0x2000, 11},  {0x200000, 12},
    };
    for (int i = 0; i < kGpuWidthAlignEntries; ++i) mGpuDstWidthAlign[i] = 100 + i;
    Capture::mSystemDtsConfig.format_support_list_w = 0;  // every request goes to the GPU
    for (const auto& entry : table) {
        SCOPED_TRACE(::testing::Message() << "dst_format 0x" << std::hex << entry.first);
        setQueryInfo q = plainQuery(1);
        q.dst_format = CaptureFormat(entry.first);
        Reply reply = query(q);
        EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
        EXPECT_EQ(1, reply.info.useGpu);
        EXPECT_EQ(1u, reply.info.dstWidthAlignValid);
        EXPECT_EQ(100u + entry.second, reply.info.dstWidthAlign);
    }
    // An entry of 0 is no alignment at all.
    mGpuDstWidthAlign[10] = 0;
    Reply reply = query(plainQuery(1));
    EXPECT_EQ(0u, reply.info.dstWidthAlignValid);
    EXPECT_EQ(0u, reply.info.dstWidthAlign);
}

TEST_F(CapabilityQueryTest, BothGpuFormatsUnknown) {
    Capture::mSystemDtsConfig.format_support_list_w = 0;
    setQueryInfo q = plainQuery(1);
    q.src_format = CaptureFormat::RGBA8888;
    q.dst_format = CaptureFormat::ARGB2101010;
    Reply reply = query(q);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, reply.code);
    EXPECT_EQ(0, reply.info.useGpu);
    EXPECT_EQ(0, mUseGpu[kSlot]);
    EXPECT_EQ(1u, log.countExact("gpu_src_format:0  gpu_dst_format:0 "));
    EXPECT_EQ(1u, log.countExact("src_format(0x10) is not support by gpu!"));
    EXPECT_EQ(1u, log.countExact("dst_format(0x40) is not support by gpu!"));
}

TEST_F(CapabilityQueryTest, ForceGpuProperty) {
    struct Case {
        const char* value;
        bool forced;
    };
    for (const Case& c : {Case{"1", true}, Case{"0", false}, Case{"11", false}, Case{"", false}}) {
        SCOPED_TRACE(::testing::Message() << "property \"" << c.value << "\"");
        ASSERT_TRUE(::android::base::SetProperty("vendor.zor.capture.forcegpu", c.value));
        for (uint8_t type : {uint8_t(0), uint8_t(1)}) {
            fake_subhal::reset();
            fake_subhal::setCapabilityAnswer(wideLimits());
            log.clear();
            Reply reply = query(plainQuery(type));
            if (c.forced) {
                EXPECT_EQ(type == 0 ? CaptureReturn::DIP_NOT_SUPPORT : CaptureReturn::SUCCESS,
                          reply.code);
                EXPECT_EQ(type == 0 ? 0 : 1, reply.info.useGpu);
                EXPECT_TRUE(fake_subhal::calls().empty());
            } else {
                EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
                EXPECT_EQ(2, reply.info.engine);
            }
            EXPECT_EQ(c.forced ? 1u : 0u,
                      log.countExact("vendor.zor.capture.forcegpu=1, force use gpu"));
        }
    }
    ::android::base::SetProperty("vendor.zor.capture.forcegpu", "");
}

// One device-tree or width-limit test: does the DIP take the request, and which line says no.
struct CheckCase {
    const char* name;
    uint8_t captureType;
    std::function<void(setQueryInfo&, SystemDtsConfig&, VX_CAPTURE_getQueryInfo_s&)> setUp;
    bool dip;
    const char* line;      // the refusal; for a pass, a line that must not appear
    const char* function;  // the function the refusal line is logged under
    size_t capabilityCalls;
};

void PrintTo(const CheckCase& c, std::ostream* os) {
    *os << c.name;
}

class CapabilityDipCheckTest : public CapabilityQueryTest,
                               public ::testing::WithParamInterface<CheckCase> {};

TEST_P(CapabilityDipCheckTest, DecidesAndSaysWhy) {
    const CheckCase& c = GetParam();
    setQueryInfo q = plainQuery(c.captureType);
    VX_CAPTURE_getQueryInfo_s limits = wideLimits();
    c.setUp(q, Capture::mSystemDtsConfig, limits);
    fake_subhal::setCapabilityAnswer(limits);

    Reply reply = query(q);
    if (c.dip) {
        EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
        EXPECT_EQ(2, reply.info.engine);
        EXPECT_EQ(0, reply.info.useGpu);
    } else if (c.captureType == 0) {
        EXPECT_EQ(CaptureReturn::DIP_NOT_SUPPORT, reply.code);
    } else {
        // The GPU path: no DipInfo question, the GPU formats filled in (the tiled sources have
        // none, which is the GPU path's own refusal).
        EXPECT_EQ(0u, fake_subhal::count(Entry::GetDipInfo));
        EXPECT_NE(0u, reply.info.gpuDstFormat);
    }
    if (c.line != nullptr) {
        EXPECT_EQ(c.dip ? 0u : 1u, log.countExact(c.line)) << log.dump();
    }
    if (!c.dip) {
        const LogLine line = log.find(c.line);
        EXPECT_EQ(ANDROID_LOG_WARN, line.priority);
        EXPECT_EQ(0u, line.message.rfind(std::string("[") + c.function + "]", 0)) << line.message;
    }
    EXPECT_EQ(c.capabilityCalls, fake_subhal::count(Entry::GetCapabilityInfo));
}

using Q = setQueryInfo;
using D = SystemDtsConfig;
using L = VX_CAPTURE_getQueryInfo_s;
constexpr const char* kDt = "IsDipCanSupport";
constexpr const char* kVx = "checkDipSupportWithVxInfo";

// A UHD tiled frame into NV21, whole or cropped to full width, on a DIP whose tile limit is below
// UHD; the sub-HAL's limits would refuse it.
void uhdTileCopy(Q& q, D& d, L& l) {
    q.src_width = q.dst_width = 3840;
    q.src_height = q.dst_height = 2160;
    q.crop_width = q.crop_height = 0;
    q.src_format = CaptureFormat::RZ21S;
    d.TileWidthMax = 2048;
    l.dst_max_width = 1920;
}

const CheckCase kDeviceTreeChecks[] = {
    {"SrcNotReadableDram", 1, [](Q&, D& d, L&) { d.format_support_list_r = ~0x800u; }, false,
     "src_format(0x800) is not support by dip!", kDt, 0},
    {"SrcNotReadableStream", 0, [](Q&, D& d, L&) { d.format_support_list_r = ~0x800u; }, true,
     "src_format(0x800) is not support by dip!", kDt, 2},
    {"DstNotWritableDram", 1, [](Q&, D& d, L&) { d.format_support_list_w = ~0x1000u; }, false,
     "dst_format(0x1000) is not support by dip!", kDt, 0},
    {"DstNotWritableStream", 0, [](Q&, D& d, L&) { d.format_support_list_w = ~0x1000u; }, false,
     "dst_format(0x1000) is not support by dip!", kDt, 0},
    {"Rotate270Dram", 1,
     [](Q& q, D& d, L&) {
         q.rotationAngle = 270;
         d.dip_rotate = 0x01;
     },
     false, "dip not support rotate 270!", kDt, 0},
    {"Rotate270Stream", 0,
     [](Q& q, D& d, L&) {
         q.rotationAngle = 270;
         d.dip_rotate = 0;
     },
     true, "dip not support rotate 270!", kDt, 2},
    {"Rotate270WithItsBit", 1,
     [](Q& q, D& d, L&) {
         q.rotationAngle = 270;
         d.dip_rotate = 0x02;
     },
     true, "dip not support rotate 270!", kDt, 2},
    {"Rotate90Dram", 1,
     [](Q& q, D& d, L&) {
         q.rotationAngle = 90;
         d.dip_rotate = 0x02;
     },
     false, "dip not support rotate 90!", kDt, 0},
    {"Rotate180NoMirrorDram", 1,
     [](Q& q, D& d, L&) {
         q.rotationAngle = 180;
         d.dip_HMirrorSz = 0;
     },
     false, "dip not support rotate 180!", kDt, 0},
    {"Rotate180NoMirrorStream", 0,
     [](Q& q, D& d, L&) {
         q.rotationAngle = 180;
         d.dip_HMirrorSz = 0;
     },
     true, "dip not support rotate 180!", kDt, 2},
    {"Rotate180CropWiderThanMirror", 1,
     [](Q& q, D& d, L&) {
         q.rotationAngle = 180;
         q.src_width = q.crop_width = 2000;
         d.dip_HMirrorSz = 1920;
     },
     false, "crop width exceed for rotate 180! cropWidth(2000)", kDt, 0},
    {"Rotate180CropAsWideAsMirror", 1,
     [](Q& q, D& d, L&) {
         q.rotationAngle = 180;
         d.dip_HMirrorSz = 1920;
     },
     true, "crop width exceed for rotate 180! cropWidth(1920)", kDt, 2},
    {"CropWithoutCropping", 1,
     [](Q& q, D& d, L&) {
         q.crop_width = q.dst_width = 1280;
         d.dip_crop = 0;
     },
     false, "dip not support crop !", kDt, 0},
    {"CropShorterThanSourceWithoutCropping", 0,
     [](Q& q, D& d, L&) {
         q.crop_height = q.dst_height = 1000;
         d.dip_crop = 0;
     },
     false, "dip not support crop !", kDt, 0},
    {"WholeFrameWithoutCropping", 1, [](Q&, D& d, L&) { d.dip_crop = 0; }, true,
     "dip not support crop !", kDt, 2},
    {"Downscale", 1,
     [](Q& q, D& d, L&) {
         q.dst_height = 540;
         d.dip_dscl = 0;
     },
     false, "dip not support do downscale !", kDt, 0},
    {"Upscale", 0,
     [](Q& q, D& d, L&) {
         q.dst_width = 3840;
         d.dip_uscl = 0;
     },
     false, "dip not support do upscale !", kDt, 0},
    {"ScaleMeasuredFromCrop", 1,
     [](Q& q, D& d, L&) {
         q.src_width = 3840;
         q.src_height = 2160;
         d.dip_dscl = d.dip_uscl = 0;
     },
     true, "dip not support do downscale !", kDt, 2},
    {"SrcTileTooWideDram", 1,
     [](Q& q, D& d, L&) {
         q.src_width = q.crop_width = q.dst_width = 4096;
         q.src_format = CaptureFormat::RZ21S10T;
         d.TileWidthMax = 2048;
     },
     false, "src width exceed ! src_format(0x8000) mQueryInfo.src_width(4096) TileWidthMax(2048)",
     kDt, 0},
    {"SrcTileTooWideStream", 0,
     [](Q& q, D& d, L&) {
         q.src_width = q.crop_width = q.dst_width = 4096;
         q.src_format = CaptureFormat::RZ21S10T;
         d.TileWidthMax = 2048;
     },
     true, "src width exceed ! src_format(0x8000) mQueryInfo.src_width(4096) TileWidthMax(2048)",
     kDt, 2},
    {"DstTileTooWideStream", 0,
     [](Q& q, D& d, L&) {
         q.src_width = q.crop_width = q.dst_width = 4096;
         q.dst_format = CaptureFormat::RZ21S10R;
         d.TileWidthMax = 2048;
     },
     false, "dst width exceed ! dst_format(0x10000) mQueryInfo.dst_width(4096) TileWidthMax(2048)",
     kDt, 0},
    {"UhdTileCopyWholeFrame", 1, uhdTileCopy, true,
     "dst_width(3840) exceed dst_max_width(1920) and dst_max_width_rwsep(0) !!", kVx, 1},
    {"UhdTileCopyFullWidthCrop", 1,
     [](Q& q, D& d, L& l) {
         uhdTileCopy(q, d, l);
         q.crop_width = 3840;
         q.crop_height = 2160;
     },
     true, "dst_width(3840) exceed dst_max_width(1920) and dst_max_width_rwsep(0) !!", kVx, 1},
    {"UhdTileCopyNeedsTileLimitBelowUhd", 1,
     [](Q& q, D& d, L& l) {
         uhdTileCopy(q, d, l);
         d.TileWidthMax = 3840;
     },
     false, "dst_width(3840) exceed dst_max_width(1920) and dst_max_width_rwsep(0) !!", kVx, 1},
    {"UhdTileCopyTileLimitJustBelowUhd", 1,
     [](Q& q, D& d, L& l) {
         uhdTileCopy(q, d, l);
         d.TileWidthMax = 3839;
     },
     true, "dst_width(3840) exceed dst_max_width(1920) and dst_max_width_rwsep(0) !!", kVx, 1},
    {"UhdTileCopyNeedsTileLimit", 1,
     [](Q& q, D& d, L& l) {
         uhdTileCopy(q, d, l);
         d.TileWidthMax = 0;
     },
     false, "src width exceed ! src_format(0x4000) mQueryInfo.src_width(3840) TileWidthMax(0)", kDt,
     0},
    {"UhdTileCopyNeedsNoOffset", 1,
     [](Q& q, D& d, L& l) {
         uhdTileCopy(q, d, l);
         q.crop_y = 8;
     },
     false, "src width exceed ! src_format(0x4000) mQueryInfo.src_width(3840) TileWidthMax(2048)",
     kDt, 0},
    {"UhdTileCopyNeedsNv21", 1,
     [](Q& q, D& d, L& l) {
         uhdTileCopy(q, d, l);
         q.dst_format = CaptureFormat::NV12;
     },
     false, "src width exceed ! src_format(0x4000) mQueryInfo.src_width(3840) TileWidthMax(2048)",
     kDt, 0},
    {"UhdTileCopyNeedsSameHeight", 1,
     [](Q& q, D& d, L& l) {
         uhdTileCopy(q, d, l);
         q.dst_height = 1080;
     },
     false, "src width exceed ! src_format(0x4000) mQueryInfo.src_width(3840) TileWidthMax(2048)",
     kDt, 0},
    {"UhdTileCopyNeedsDram", 0, uhdTileCopy, false,
     "dst_width(3840) exceed dst_max_width(1920) and dst_max_width_rwsep(0) !!", kVx, 1},
};

INSTANTIATE_TEST_SUITE_P(DeviceTree, CapabilityDipCheckTest, ::testing::ValuesIn(kDeviceTreeChecks),
                         [](const auto& info) { return std::string(info.param.name); });

const CheckCase kWidthLimitChecks[] = {
    {"SrcBetweenMaxAndRwsep", 1,
     [](Q& q, D&, L& l) {
         q.src_width = q.crop_width = q.dst_width = 3840;
         l.src_max_width = 1920;
         l.src_max_width_rwsep = 4096;
     },
     true, "src_width(3840) exceed src_max_width(1920) and src_max_width_rwsep(4096) !!", kVx, 2},
    {"SrcAboveMaxNoRwsep", 1,
     [](Q& q, D&, L& l) {
         q.src_width = q.crop_width = q.dst_width = 3840;
         l.src_max_width = 1920;
     },
     false, "src_width(3840) exceed src_max_width(1920) and src_max_width_rwsep(0) !!", kVx, 1},
    {"SrcAboveRwsep", 1,
     [](Q& q, D&, L& l) {
         q.src_width = q.crop_width = q.dst_width = 3840;
         l.src_max_width = 1920;
         l.src_max_width_rwsep = 2560;
     },
     false, "src_width(3840) exceed src_max_width(1920) and src_max_width_rwsep(2560) !!", kVx, 1},
    {"SrcMaxZero", 1, [](Q&, D&, L& l) { l.src_max_width = 0; }, false,
     "src_max_width(0) is invalid !!", kVx, 1},
    {"StreamSkipsSourceLimits", 0,
     [](Q&, D&, L& l) {
         l.src_max_width = 0;
         l.src_min_width = 8000;
         l.src_width_align = 7;
     },
     true, "src_max_width(0) is invalid !!", kVx, 2},
    {"SrcBelowMin", 1, [](Q&, D&, L& l) { l.src_min_width = 2000; }, false,
     "src_width(1920) smaller than src_min_width(2000) !!", kVx, 1},
    {"SrcNotAligned", 1,
     [](Q& q, D&, L& l) {
         q.src_width = q.crop_width = q.dst_width = 1000;
         l.src_width_align = 16;
     },
     false, "src_width(1000) not align(16) !!", kVx, 1},
    {"SrcAlignmentZero", 1, [](Q& q, D&, L&) { q.src_width = q.crop_width = q.dst_width = 1000; },
     true, nullptr, kVx, 2},
    {"SrcAligned", 1,
     [](Q& q, D&, L& l) {
         q.src_width = q.crop_width = q.dst_width = 1008;
         l.src_width_align = 16;
     },
     true, "src_width(1008) not align(16) !!", kVx, 2},
    {"DstMaxZero", 0, [](Q&, D&, L& l) { l.dst_max_width = 0; }, false,
     "dst_max_width(0) is invalid !!", kVx, 1},
    {"DstAboveMaxNoRwsep", 1,
     [](Q& q, D&, L& l) {
         q.dst_width = 3840;
         l.dst_max_width = 1920;
     },
     false, "dst_width(3840) exceed dst_max_width(1920) and dst_max_width_rwsep(0) !!", kVx, 1},
    {"DstBetweenMaxAndRwsep", 0,
     [](Q& q, D&, L& l) {
         q.dst_width = 3840;
         l.dst_max_width = 1920;
         l.dst_max_width_rwsep = 4096;
     },
     true, "dst_width(3840) exceed dst_max_width(1920) and dst_max_width_rwsep(4096) !!", kVx, 2},
    {"DstAtMin", 1, [](Q&, D&, L& l) { l.dst_min_width = 1920; }, true,
     "dst_width(1920) smaller than dst_min_width(1920) !!", kVx, 2},
    {"DstBelowMin", 1, [](Q&, D&, L& l) { l.dst_min_width = 1921; }, false,
     "dst_width(1920) smaller than dst_min_width(1921) !!", kVx, 1},
    {"HeightsNeverCompared", 1,
     [](Q& q, D&, L&) { q.src_height = q.crop_height = q.dst_height = 100000; }, true, nullptr, kVx,
     2},
};

INSTANTIATE_TEST_SUITE_P(WidthLimits, CapabilityDipCheckTest, ::testing::ValuesIn(kWidthLimitChecks),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(CapabilityQueryTest, SubHalRefusingTheWidthCheck) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    fake_subhal::setResultOnce(Entry::GetCapabilityInfo, 16);
    Reply reply = query(plainQuery(1));
    EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
    EXPECT_EQ(1, reply.info.useGpu);
    const LogLine line = log.find("mGetCaptureCapabilityInfo fail! ret=16.");
    EXPECT_EQ(0u, line.message.rfind("[checkDipSupportWithVxInfo]", 0)) << log.dump();
}

// From the device tree through initLib to the decision.
class CapabilityDeviceTreeTest : public ServiceTest {
protected:
    DeviceTree tree;
};

TEST_F(CapabilityDeviceTreeTest, DecisionFollowsDeviceTree) {
    tree.setCell("dip0/capability/Rotate", 0x01);
    tree.setCell("dip1/capability/HMirrorSz", 1920);
    tree.setCell("dip0/capability/CropAlign", 2);
    tree.setCell("dip0/capability/DSCL", 1);
    tree.setCell("dip1/capability/USCL", 1);
    tree.setCell("dip0/capability/TileWidthMax", 2048, 2);
    tree.setCell("dip0/format_support/NV12", 0x11);  // read and written
    tree.setCell("dip1/format_support/NV21", 0x01);  // written only
    ASSERT_NO_FATAL_FAILURE(loadLibrary());
    fake_subhal::setCapabilityAnswer(wideLimits());

    struct Case {
        const char* name;
        uint8_t type;
        CaptureFormat src, dst;
        uint32_t angle;
        uint8_t engine, useGpu;
    };
    const Case cases[] = {
        {"NV12 to NV21", 1, CaptureFormat::NV12, CaptureFormat::NV21, 0, 2, 0},
        {"NV21 is not read", 1, CaptureFormat::NV21, CaptureFormat::NV12, 0, 0, 1},
        {"no 270 on DRAM", 1, CaptureFormat::NV12, CaptureFormat::NV21, 270, 0, 1},
        {"90 on DRAM", 1, CaptureFormat::NV12, CaptureFormat::NV21, 90, 2, 0},
        {"270 on a stream", 0, CaptureFormat::NV12, CaptureFormat::NV21, 270, 2, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        setQueryInfo q = plainQuery(c.type);
        q.src_format = c.src;
        q.dst_format = c.dst;
        q.rotationAngle = c.angle;
        Reply reply;
        service->getCaptureCapabilityInfo(kId, q,
                                          [&reply](CaptureReturn code, const getQueryInfo& info) {
                                              reply.code = code;
                                              reply.info = info;
                                          });
        EXPECT_EQ(CaptureReturn::SUCCESS, reply.code);
        EXPECT_EQ(c.engine, reply.info.engine);
        EXPECT_EQ(c.useGpu, reply.info.useGpu);
        EXPECT_EQ(c.useGpu, mUseGpu[kSlot]);
    }
    EXPECT_EQ(1u, log.countExact("dip_rotate(1) dip_HMirrorSz(1920) dip_crop(1) dip_dscl(1) "
                                 "dip_uscl(1) format_support_list_w(0x1800) "
                                 "format_support_list_r(0x800) TileWidthMax(2048) "
                                 "CaptureType(STREAM-DRAM)"))
        << log.dump();
}

}  // namespace
}  // namespace capture_test
