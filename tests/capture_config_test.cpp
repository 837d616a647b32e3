// setCaptureInfo, setCaptureFrameInfo and the capability query with its DIP-or-GPU decision.
#include <android-base/properties.h>
#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "SubHal.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

using fake_subhal::Entry;
using R = CaptureReturn;
using Fmt = CaptureFormat;
using Src = CaptureSrcFrameInfo;
using Dst = CaptureDstFrameInfo;
using Offsets = std::vector<uint32_t>;
using Bytes = std::vector<uint8_t>;
using Point = CapturePoint;
using Space = CaptureColorSpace;
using Colorimetry = CaptureColorimetry;
using Secure = SecureBufferCfg;
using Bw = BandwidthCfg;

constexpr R kBadId = R::INVALID_CAPTURE_ID;
constexpr R kBadBuffer = R::INVALID_BUFFER;
constexpr R kBadArgument = R::INVALID_ARGUMENT;
constexpr R kBadFormat = R::FORMAT_NOT_SUPPORT;

constexpr int32_t kId = 0x7300001F;  // the last slot, never opened: only the range is checked
constexpr int kSlot = 31;
constexpr uint32_t kTileWidthMax = 0x1234;
constexpr uint8_t kUntouched = 7;  // mUseGpu sentinel

template <typename T>
Bytes bytesOf(const T& record) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&record);
    return Bytes(p, p + sizeof(record));
}

// Consecutive 32-bit words, as the sub-HAL's records hold them.
Bytes bytesOf(std::initializer_list<uint32_t> words) {
    return Bytes(reinterpret_cast<const uint8_t*>(words.begin()),
                 reinterpret_cast<const uint8_t*>(words.end()));
}

void put32(Bytes& rec, size_t offset, uint32_t word) {
    std::memcpy(&rec.at(offset), &word, sizeof(word));
}

std::string sizeLine(const std::string& what, int width, int height) {
    return what + " width(" + std::to_string(width) + ") or height(" + std::to_string(height) +
           ") is invalid!";
}

// A fault, whether it comes with those of every case below it (which must stay unheard), its code.
template <typename... Records>
struct Refusal {
    std::function<void(Records&...)> change;
    bool later;
    R code;
    std::string line;
};

// Every field distinct, so that one read from the wrong offset shows.
CaptureInfo makeInfo(const native_handle_t* buffer) {
    CaptureInfo info = {Point(3),   0xDEAD0004, 77,         -5,    1920,     1080,   0x2A,
                        3,          0x28282828, 0x32323232, 60,    0x40,     0x41,   1,
                        10,         20,         1280,       720,   1280,     720,    30,
                        0x76767676, 0x80808080, Fmt::NV12,  1,     Space(2), buffer, {},
                        0xDEAD0140, 0x44,       Secure(1),  Bw(2), false,    0x48};
    for (uint32_t i = 0; i < 7; ++i) info.param[i] = 0x111 + i;
    return info;
}

// The record makeInfo() must become (the words at 24 and 40 hold two bytes each).
Bytes expectedInfo(uint32_t fd) {
    return bytesOf(
        {3, 0,    77, 0xFFFFFFFB, 1920,  1080,  0x032A, 0x28282828, 0x32323232, 60,         0x4140,
         1, 10,   20, 1280,       720,   1280,  720,    30,         0x76767676, 0x80808080, 11,
         2, 1,    fd, 0xFFFFFFFF, 0x111, 0x112, 0x113,  0x114,      0x115,      0x116,      0x117,
         0, 0x44, 1,  2,          0x48});
}

Src makeSrc(const native_handle_t* buffer) {
    Src src = {1920,       1080,       0x08080808, Fmt::NV12,  Space(1),   0xDEAD0020,
               buffer,     0x40404040, 0x44444444, 0x48,       0x52525252, 0x56565656,
               0x60606060, 0x64646464, 0xDEAD0068, 0x72727272, {},         2};
    src.vPlaneOffset = Offsets{0x100, 0x200};
    return src;
}

Dst makeDst(const native_handle_t* buffer) {
    Dst dst = {8,          16,        640,        360,        1280,           720,
               1344,       90,        Fmt::NV21,  Space(3),   buffer,         0x56,
               0x60606060, 0x64,      0x68686868, 0x72727272, 0x76767676,     0x80808080,
               0xDEAD0084, Secure(2), {},         Bw(1),      Colorimetry(3), 0x20,
               0xDEAD0124};
    dst.vPlaneOffset = Offsets{7, 8};
    return dst;
}

// The records makeSrc() and makeDst() must become, with the words that the tests vary.
Bytes expectedSrc(uint32_t fd0, uint32_t fd1, uint32_t colorimetry, uint32_t plane1) {
    return bytesOf({1920,       1080,       0x08080808, 11,    1,          colorimetry,  fd0,
                    fd1,        0x40404040, 0x44444444, 0x48,  0x52525252, 0x56565656,   0x60606060,
                    0x64646464, 0,          0x72727272, 0x100, plane1,     kTileWidthMax});
}

Bytes expectedDst(uint32_t fd0, uint32_t fd1, uint32_t angle) {
    return bytesOf({8,     16,         640,  360,        1280,       720,        1344,
                    angle, 12,         3,    3,          0,          fd0,        fd1,
                    0x56,  0x60606060, 0x64, 0x68686868, 0x72727272, 0x76767676, 0x80808080,
                    0,     2,          0,    0,          1,          0x20});
}

class ConfigTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        Capture::mSystemDtsConfig.TileWidthMax = kTileWidthMax;
        // A sentinel binding shows whether a request touched the row.
        mPqStreamInfo[kSlot].pqId = 555;
        mPqStreamInfo[kSlot].capturePoint = 777;
        ::close(minusOne.fd());
        minusOne.get()->data[0] = -1;
    }

    R setInfo(const CaptureInfo& info) { return static_cast<R>(service->setCaptureInfo(id, info)); }

    // The result and the plane offsets, given to a callback that must be called exactly once.
    std::pair<R, Offsets> setFrame(const Src& src, const Dst& dst) {
        std::pair<R, Offsets> answer{R::FAIL, {}};
        int calls = 0;
        service->setCaptureFrameInfo(id, src, dst, [&](R code, const hidl_vec<uint32_t>& v) {
            ++calls;
            answer = {code, v};
        });
        EXPECT_EQ(1, calls);
        return answer;
    }

    int32_t id = kId;
    TestHandle buffer{2};  // the capture-info record has room for the first descriptor only
    TestHandle noFds{0};
    TestHandle minusOne{1};
};

// Each case changes one word of the record; only the picture-quality points 2..8 bind the slot.
TEST_F(ConfigTest, CaptureInfoRecordAndBinding) {
    const struct {
        std::function<void(CaptureInfo&)> change;
        bool swap;
        size_t offset;
        uint32_t word;
    } cases[] = {
        {[](auto& i) { i.srcFlag = 2; }, false, 44, 0},
        {[](auto& i) { i.dstFlag = 2; }, false, 92, 0},
        {[](auto& i) { i.dstFmt = Fmt::ARGB8888; }, true, 84, 3},
        {[](auto& i) { i.dstFmt = Fmt::ABGR8888; }, true, 84, 2},
        {[](auto& i) { i.dstFmt = Fmt::YUYV; }, true, 84, 0},
        {[](auto& i) { i.dstFmt = Fmt::ARGB8888; }, false, 84, 2},
        {[](auto& i) { i.capPoint = Point(1); }, false, 0, 1},
        {[](auto& i) { i.capPoint = Point(2); }, false, 0, 2},
        {[](auto& i) { i.capPoint = Point(8); }, false, 0, 8},
        {[](auto& i) { i.capPoint = Point(9); }, false, 0, 9},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "case " << &c - cases);
        CaptureInfo info = makeInfo(buffer.get());
        c.change(info);
        info.b2rRbSwapped = c.swap;
        ASSERT_EQ(R::SUCCESS, setInfo(info));
        Bytes expected = expectedInfo(buffer.fd(0));
        put32(expected, c.offset, c.word);
        const fake_subhal::Call call = fake_subhal::callsOf(Entry::SetCaptureInfo).back();
        EXPECT_EQ(kId, call.captureId);
        EXPECT_EQ(expected, call.rec1);
        const int32_t point = static_cast<int32_t>(info.capPoint);
        EXPECT_EQ(point >= 2 && point <= 8 ? 77 : -1, mPqStreamInfo[kSlot].pqId);
        EXPECT_EQ(point, mPqStreamInfo[kSlot].capturePoint);
    }
    // Descriptor 0 is as good as any other.
    native_handle_t* zero = native_handle_create(1, 0);
    zero->data[0] = 0;
    EXPECT_EQ(R::SUCCESS, setInfo(makeInfo(zero)));
    EXPECT_EQ(expectedInfo(0), fake_subhal::callsOf(Entry::SetCaptureInfo).back().rec1);
    native_handle_delete(zero);
}

// Each refusal gives its code and warning before anything is written or the sub-HAL is called.
TEST_F(ConfigTest, CaptureInfoRefusalsInCheckOrder) {
    Capture::mPointsSupportState[5] = 0;
    const std::string buf = "[0x7300001f] setCaptureInfo fail, buffer is invalid!";
    const std::string point = "[0x7300001f] setCaptureInfo fail, ";
    const Refusal<CaptureInfo> cases[] = {
        {[&](auto&) { id = 0x73000020; }, true, kBadId,
         "setCaptureInfo , INVALID_CAPTURE_ID ERROR 0x73000020"},
        {[&](auto&) { id = 0x72FFFFFF; }, true, kBadId,
         "setCaptureInfo , INVALID_CAPTURE_ID ERROR 0x72ffffff"},
        {[](auto& i) { i.dstBuffer = nullptr; }, true, kBadBuffer, buf},
        {[&](auto& i) { i.dstBuffer = noFds.get(); }, true, kBadBuffer, buf},
        {[&](auto& i) { i.dstBuffer = minusOne.get(); }, true, kBadBuffer, buf},
        {[](auto& i) { i.srcWidth = i.hwEngine = 0; }, false, kBadArgument,
         sizeLine("Source", 0, 1080)},
        {[](auto& i) { i.srcHeight = 0; }, true, kBadArgument, sizeLine("Source", 1920, 0)},
        {[](auto& i) { i.hwEngine = 0; }, true, kBadArgument, "Source u8pEngine(0) is invalid!"},
        {[](auto& i) { i.dstWidth = 0; }, false, kBadArgument, sizeLine("Output", 0, 720)},
        {[](auto& i) { i.dstHeight = 0; }, true, kBadArgument, sizeLine("Output", 1280, 0)},
        {[](auto& i) { i.capPoint = Point::NONE; }, true, R::INVALID_CAPTURE_POINT,
         point + "capture point(13) is invalid!"},
        {[](auto& i) { i.capPoint = Point(5); }, true, R::CAPTURE_POINT_NOT_SUPPORT,
         point + "platform unsupport this capture point(5)!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        id = kId;
        CaptureInfo info = makeInfo(buffer.get());
        for (auto n = &c + 1; c.later && n != std::end(cases); ++n) n->change(info);
        c.change(info);
        expectRefusal(c.line, [&] { EXPECT_EQ(c.code, setInfo(info)); });
        EXPECT_EQ(555, mPqStreamInfo[kSlot].pqId);
    }
    EXPECT_EQ(0u, fake_subhal::count(Entry::SetCaptureInfo));
}

// Two rounds swap the descriptor counts (a second one travels, else -1) and vary the angle, the
// source's plane offsets (the second word is 0 when one is given) and its 64-bit colorimetry.
TEST_F(ConfigTest, FrameRecordsFollowRequest) {
    fake_subhal::state().planeOffsets = VX_CAPTURE_PlaneOffset_s{{0x1000, 0x2000}};
    for (bool first : {true, false}) {
        SCOPED_TRACE(first ? "first round" : "second round");
        TestHandle src(first ? 2 : 1);
        TestHandle dst(first ? 1 : 2);
        Src srcInfo = makeSrc(src.get());
        srcInfo.vPlaneOffset = first ? Offsets{0x100} : Offsets{0x100, 0x200};
        srcInfo.colorimetry = first ? 0x100000002ull : 3;  // cut to its low word: 2
        Dst dstInfo = makeDst(dst.get());
        dstInfo.rotateAngle = first ? 270 : 0;
        dstInfo.vPlaneOffset = Offsets();  // not needed on the destination side
        EXPECT_EQ(std::make_pair(R::SUCCESS, Offsets{0x1000, 0x2000}), setFrame(srcInfo, dstInfo));
        const fake_subhal::Call call = fake_subhal::callsOf(Entry::SetCaptureFrameInfo).back();
        EXPECT_EQ(kId, call.captureId);
        const uint32_t colorimetry = first ? 2 : 3;
        EXPECT_EQ(expectedSrc(src.fd(0), first ? src.fd(1) : -1, colorimetry, first ? 0 : 0x200),
                  call.rec1);
        EXPECT_EQ(expectedDst(dst.fd(0), first ? -1 : dst.fd(1), dstInfo.rotateAngle), call.rec2);
    }
    // Nothing is kept in the service's tables; the stream binding is dropped, the point stays.
    EXPECT_EQ(0u, mSrcFrameInfo[kSlot].width);
    EXPECT_EQ(-1, mPqStreamInfo[kSlot].pqId);
    EXPECT_EQ(777, mPqStreamInfo[kSlot].capturePoint);
}

// Each refusal, for a sub-HAL instance and a GPU one alike: its code (two zero offsets for the
// identifier and format refusals, none after), its warning, nothing written and no sub-HAL call.
TEST_F(ConfigTest, FrameRefusalsInCheckOrder) {
    const std::string src = "[0x7300001f] setCaptureFrameInfo fail, srcBufInfo.buffer is invalid!";
    const std::string dst = "[0x7300001f] setCaptureFrameInfo fail, dstBufInfo.buffer is invalid!";
    const std::string format = "setCaptureFrameInfo , FORMAT_NOT_SUPPORT ERROR !! src_fmt: ";
    const std::string angle = "[0x7300001f] RotateAngle is invalid! rotateAngle: ";
    const Refusal<Src, Dst> cases[] = {
        {[&](Src&, Dst&) { id = 0x73000020; }, true, kBadId,
         "setCaptureFrameInfo , INVALID_CAPTURE_ID ERROR 0x73000020"},
        {[](Src& s, Dst&) { s.format = Fmt::ARGB16161616; }, true, kBadFormat,
         format + "0x100000, dst_fmt: 0x200000"},
        // The GPU could convert YV12, but the check knows only the sub-HAL's formats.
        {[](Src&, Dst& d) { d.format = Fmt::YV12; }, true, kBadFormat,
         format + "0x800, dst_fmt: 0x200000"},
        {[](Src& s, Dst&) { s.buffer = nullptr; }, true, kBadBuffer, src},
        {[&](Src& s, Dst&) { s.buffer = minusOne.get(); }, true, kBadBuffer, src},
        {[&](Src&, Dst& d) { d.buffer = noFds.get(); }, true, kBadBuffer, dst},
        {[](Src& s, Dst&) { s.vPlaneOffset = Offsets(); }, true, R::INVALID_PLANE_OFFSET,
         "[0x7300001f] vPlaneOffset.size() is invalid! src: 0, dst: 2"},
        {[](Src& s, Dst&) { s.width = 0; }, false, kBadArgument, sizeLine("SrcFrameInfo", 0, 1080)},
        {[](Src& s, Dst&) { s.height = 0; }, true, kBadArgument, sizeLine("SrcFrameInfo", 1920, 0)},
        {[](Src&, Dst& d) { d.height = 0; }, true, kBadArgument, sizeLine("DstFrameInfo", 1280, 0)},
        {[](Src&, Dst& d) { d.rotateAngle = 45; }, false, kBadArgument, angle + "45"},
    };
    for (uint8_t gpu : {0, 1}) {
        mUseGpu[kSlot] = gpu;
        for (const auto& c : cases) {
            SCOPED_TRACE(c.line + (gpu ? " (GPU)" : ""));
            id = kId;
            Src src = makeSrc(buffer.get());
            Dst dst = makeDst(buffer.get());
            for (auto n = &c + 1; c.later && n != std::end(cases); ++n) n->change(src, dst);
            c.change(src, dst);
            const bool early = c.code == kBadId || c.code == kBadFormat;
            expectRefusal(c.line, [&] {
                EXPECT_EQ(std::make_pair(c.code, early ? Offsets{0, 0} : Offsets()),
                          setFrame(src, dst));
            });
        }
    }
    EXPECT_EQ(0u, fake_subhal::count(Entry::SetCaptureFrameInfo));
    EXPECT_EQ(555, mPqStreamInfo[kSlot].pqId);
    EXPECT_EQ(0u, mSrcFrameInfo[kSlot].width);
}

// A GPU instance refuses formats that only the sub-HAL knows, after the checks; otherwise it keeps
// its own copies (cloned handles, deep-copied offsets) and calls no sub-HAL.
TEST_F(ConfigTest, GpuInstanceKeepsCopiesOfBothRecords) {
    mUseGpu[kSlot] = 1;
    TestHandle twoFds(2);
    Src src = makeSrc(twoFds.get());
    Dst dst = makeDst(buffer.get());
    dst.format = Fmt::ARGB2101010;
    EXPECT_EQ(kBadFormat, setFrame(src, dst).first);
    EXPECT_EQ(1u, log.countExact("GPU Not Support!!!")) << log.dump();
    dst.format = Fmt::NV21;
    EXPECT_EQ(std::make_pair(R::SUCCESS, Offsets{0, 0}), setFrame(src, dst));
    EXPECT_EQ(0u, fake_subhal::count(Entry::SetCaptureFrameInfo));
    src.vPlaneOffset[0] = 0xBAD;  // the kept rows must not follow the client's records
    dst.vPlaneOffset[1] = 0xBAD;
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    EXPECT_EQ(0xDEAD0068u, mSrcFrameInfo[kSlot].param68);
    EXPECT_EQ((Offsets{0x100, 0x200}), Offsets(mSrcFrameInfo[kSlot].vPlaneOffset));
    EXPECT_EQ((Offsets{7, 8}), Offsets(mDstFrameInfo[kSlot].vPlaneOffset));
    const native_handle_t* copy = mSrcFrameInfo[kSlot].buffer.getNativeHandle();
    ASSERT_TRUE(copy != nullptr && copy->numFds == 2);
    EXPECT_NE(twoFds.fd(1), copy->data[1]);
    EXPECT_NE(-1, fcntl(copy->data[1], F_GETFD));
}

class CapabilityTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        resetScenario();
    }

    // 1080p NV12 to NV21 from memory on a DIP that can do it all: cases switch off what they test.
    void resetScenario() {
        q = {1920, 1080, Fmt::NV12, 1920, 1080, Fmt::NV21, 0, 0, 0, 1920, 1080, 1};
        dts = SystemDtsConfig{0x03, 4096, 1, 1, 1, ~0u, ~0u, 4096};
        limits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 16, 4096, 0, 16, 4096, 0};
        fake_subhal::reset();
        fake_subhal::state().capabilityAnswer = limits;
        mUseGpu[kSlot] = kUntouched;
        log.clear();
    }

    void query(int32_t id = kId) {
        int replies = 0;
        service->getCaptureCapabilityInfo(id, q, [&](R result, const getQueryInfo& answer) {
            ++replies;
            code = result;
            std::memcpy(&info, &answer, sizeof(info));
        });
        EXPECT_EQ(1, replies);
    }

    // " C" for a capability call, " D0" and " D1" for DipInfo's two modes.
    std::string steps() {
        std::string out;
        for (const auto& call : fake_subhal::state().calls) {
            EXPECT_EQ(kId, call.captureId);
            EXPECT_EQ(q.captureType == 1 ? 1 : 0, call.rec1.at(28)) << "memory-to-memory flag";
            if (call.entry == Entry::GetCapabilityInfo) out += " C";
            if (call.entry == Entry::GetDipInfo) out += " D" + std::to_string(call.arg);
        }
        return out;
    }

    setQueryInfo q;
    SystemDtsConfig& dts = Capture::mSystemDtsConfig;
    VX_CAPTURE_getQueryInfo_s limits;
    R code = R::FAIL;
    getQueryInfo info;
};

// Refused before any sub-HAL call, with a zeroed record and the slot's flag left alone. The
// identifier is checked first; the angle's line prints it where the angle would be.
TEST_F(CapabilityTest, IdentifierAndAngleRefusals) {
    q.rotationAngle = 45;
    for (const auto& [id, line] : {std::pair(0x73000020, "INVALID_CAPTURE_ID ERROR 0x73000020"),
                                   std::pair(kId, "rotateAngle(1929379871) not support!!")}) {
        expectRefusal(std::string("getCaptureCapabilityInfo fail, ") + line, [&, id = id] {
            query(id);
            EXPECT_EQ(id == kId ? kBadArgument : kBadId, code);
            EXPECT_EQ(Bytes(sizeof(info), 0), bytesOf(info));
        });
    }
    EXPECT_EQ("", steps());
    EXPECT_EQ(kUntouched, mUseGpu[kSlot]);
}

// The path table. Types: stream (0), memory to memory (1), another (2). DIP: able ('y'), refused
// by its write list ('n') or by the property ('f'). DipInfo byte 0 in mode 0 (-1: left as passed
// in; -2: the mode-0 call fails; -3: the capability answer fails). GPU formats known: both (2),
// source only (1), destination only (3), neither (0).
TEST_F(CapabilityTest, DecisionTable) {
    const struct {
        uint8_t type;
        char dip;
        int dipByte0, gpu;
        R code;
        uint8_t useGpu, engine, row;
        const char* steps;
    } decisions[] = {
        {0, 'y', -1, 2, R::SUCCESS, 0, 2, 0, " C D1 C"},
        {0, 'n', -1, 2, R::DIP_NOT_SUPPORT, 0, 0, kUntouched, ""},
        {1, 'y', -1, 2, R::SUCCESS, 0, 2, 0, " C D0 D1 C"},
        {1, 'y', 0, 2, R::SUCCESS, 1, 0, 1, " C D0"},
        {1, 'y', 0, 1, kBadFormat, 0, 0, 0, " C D0"},
        {1, 'y', -2, 2, R::SUCCESS, 0, 2, 0, " C D0 D1 C"},
        {1, 'y', -3, 2, R::TIMEOUT, 0, 0, 0, " C D0 D1 C"},
        {1, 'n', -1, 2, R::SUCCESS, 1, 0, 1, ""},
        {1, 'n', -1, 0, kBadFormat, 0, 0, 0, ""},
        {1, 'n', -1, 3, kBadFormat, 0, 0, 0, ""},
        {1, 'f', -1, 2, R::SUCCESS, 1, 0, 1, ""},
        {2, 'y', 0, 2, R::SUCCESS, 0, 2, 0, " C D1 C"},
    };
    for (int i = 0; i < kGpuWidthAlignEntries; ++i) mGpuDstWidthAlign[i] = 100 + i;  // NV21: 10
    for (const auto& c : decisions) {
        SCOPED_TRACE(::testing::Message() << "row " << &c - decisions);
        resetScenario();
        q.captureType = c.type;
        if (c.dip == 'n') dts.format_support_list_w = 0;
        ASSERT_TRUE(
            android::base::SetProperty("vendor.zor.capture.forcegpu", c.dip == 'f' ? "1" : "0"));
        if (c.dipByte0 >= 0)
            fake_subhal::state().dipInfo[0] = VX_CAPTURE_DipInfo_s{uint8_t(c.dipByte0), {}, 0};
        if (c.dipByte0 == -2) fake_subhal::setResultOnce(Entry::GetDipInfo, 5);
        if (c.dipByte0 == -3) {
            fake_subhal::setResultOnce(Entry::GetCapabilityInfo, 0);
            fake_subhal::setResultOnce(Entry::GetCapabilityInfo, 18);
        }
        if (c.gpu < 2) q.dst_format = Fmt::ARGB2101010;
        if (c.gpu == 0 || c.gpu == 3) q.src_format = Fmt::RGBA8888;
        query();
        EXPECT_EQ(c.code, code);
        EXPECT_EQ(c.useGpu, info.useGpu);
        EXPECT_EQ(c.engine, info.engine);
        EXPECT_EQ(c.row, mUseGpu[kSlot]);
        EXPECT_EQ(c.steps, steps());
        EXPECT_EQ(c.useGpu || c.gpu == 3 ? 110u : 0u, info.dstWidthAlign);  // NV21 has one
        const bool refused = c.code == kBadFormat;
        EXPECT_EQ(refused && c.gpu < 2, log.contains("dst_format(0x40) is not support by gpu!"));
        EXPECT_EQ(refused && c.gpu % 3 == 0,
                  log.contains("src_format(0x10) is not support by gpu!"));
    }
}

// A GPU answer carries the destination's own entry of the alignment table, listed in its order.
TEST_F(CapabilityTest, GpuWidthAlignmentFollowsTheDestinationFormat) {
    const uint32_t formats[] = {0x1,   0x2,   0x4,   0x8,    0x100000, 0x400000, 0x80,
                                0x100, 0x200, 0x800, 0x1000, 0x2000,   0x200000};
    for (int i = 0; i < kGpuWidthAlignEntries; ++i) mGpuDstWidthAlign[i] = 100 + i;
    for (uint32_t i = 0; i < std::size(formats); ++i) {
        SCOPED_TRACE(::testing::Message() << "dst_format 0x" << std::hex << formats[i]);
        resetScenario();
        ASSERT_TRUE(android::base::SetProperty("vendor.zor.capture.forcegpu", "1"));
        q.dst_format = static_cast<Fmt>(formats[i]);
        query();
        EXPECT_EQ(R::SUCCESS, code);
        EXPECT_EQ(100 + i, info.dstWidthAlign);
        EXPECT_EQ(1u, info.dstWidthAlignValid);
    }
}

// The query record in every call, a zeroed limits record, the DipInfo filled with 0x01, and the
// answer copied into the result as the interface lays it out.
TEST_F(CapabilityTest, RecordsToAndFromTheSubHal) {
    limits = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 16, 0xA7, 0x1234, 64, 4096, 8192, 32, 3840, 7680};
    fake_subhal::state().capabilityAnswer = limits;
    fake_subhal::state().dipInfo[1] = VX_CAPTURE_DipInfo_s{1, {}, 0x1122334455667788ull};
    q = {1280, 720, Fmt::NV12, 640, 360, Fmt::ABGR8888, 90, 4, 6, 1200, 700, 1};
    query();
    ASSERT_EQ(R::SUCCESS, code);
    const uint32_t sent[8] = {1280, 720, 11, 640, 360, 3, 90, 1};
    for (const auto& call : fake_subhal::state().calls) EXPECT_EQ(bytesOf(sent), call.rec1);
    EXPECT_EQ(Bytes(60, 0), fake_subhal::callsOf(Entry::GetCapabilityInfo).at(0).rec2);
    EXPECT_EQ(Bytes(60, 0), fake_subhal::callsOf(Entry::GetCapabilityInfo).at(1).rec2);
    EXPECT_EQ(Bytes(16, 0x01), fake_subhal::callsOf(Entry::GetDipInfo).at(0).rec2);
    // Answer words 0..4, useGpu and engine, GPU formats, words 7 and 8, bwSize, maxima, alignment.
    EXPECT_EQ(bytesOf({0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0x0200, 0, 0, 0xA7, 0x34, 0x55667788,
                       0x11223344, 4096, 3840, 16, 0}),
              bytesOf(info));
}

// Even with logging off, the width check reports a missing capability entry, and says no.
TEST_F(CapabilityTest, MissingCapabilityEntry) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    mGetCaptureCapabilityInfo.store(nullptr);
    query();
    EXPECT_EQ(1, info.useGpu);
    const LogLine line = log.find("mGetCaptureCapabilityInfo is nullptr!");
    EXPECT_EQ(0u, line.message.rfind("[checkDipSupportWithVxInfo]", 0)) << log.dump();
    EXPECT_EQ(ANDROID_LOG_WARN, line.priority);
}

// How a memory-to-memory or stream request is judged: the DIP takes it after asking the sub-HAL's
// limits or without asking (a tile copy), or the device-tree tests or the width limits refuse it.
enum Verdict { kDip, kTile, kTree, kLimits };

class DipCheckTest : public CapabilityTest {
protected:
    // A change to the 1080p scenario, judged for both capture types.
    struct Case {
        std::function<void()> change;
        std::string line;  // the refusal, or for a pass one that must not appear
        Verdict dram, stream;
        std::string streamLine = "";  // when a stream is refused with a line of its own
    };

    void expectVerdicts(const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            c.change();
            for (uint8_t type : {1, 0}) {
                const Verdict v = type == 1 ? c.dram : c.stream;
                const std::string& line = type == 1 || c.streamLine.empty() ? c.line : c.streamLine;
                SCOPED_TRACE(::testing::Message() << "case " << &c - cases.data() << ", " << line
                                                  << (type == 1 ? " (memory)" : " (stream)"));
                const bool dip = v == kDip || v == kTile;
                const auto run = [&] {
                    fake_subhal::reset();
                    fake_subhal::state().capabilityAnswer = limits;
                    q.captureType = type;
                    query();
                };
                if (dip) {
                    log.clear();
                    run();
                    EXPECT_EQ(0u, log.countExact(line)) << log.dump();
                } else {
                    expectRefusal(line, run);
                }
                EXPECT_EQ(dip ? 2 : 0, info.engine);
                EXPECT_EQ(!dip && type == 0, code == R::DIP_NOT_SUPPORT);
                const size_t asked = v == kDip ? 2 : v == kTree ? 0 : 1;
                EXPECT_EQ(asked, fake_subhal::count(Entry::GetCapabilityInfo));
            }
            resetScenario();
        }
    }
};

std::string tile(const char* end, uint32_t width, uint32_t max = 4096) {
    return std::string(end) + " width exceed ! " + end + "_format(0x4000) mQueryInfo." + end +
           "_width(" + std::to_string(width) + ") TileWidthMax(" + std::to_string(max) + ")";
}

std::string exceed(const std::string& end, uint32_t width, uint32_t max, uint32_t rwsep) {
    const auto n = [](uint32_t v) { return std::to_string(v); };
    return end + "_width(" + n(width) + ") exceed " + end + "_max_width(" + n(max) + ") and " +
           end + "_max_width_rwsep(" + n(rwsep) + ") !!";
}

// Streams skip the read list, the rotation and the source tile tests; scaling is judged against
// the crop. A whole UHD tiled frame (or one cropped to its full width) copied into NV21 from
// memory goes to the DIP unasked when the tiles are narrower than UHD; the sub-HAL's limits would
// refuse it.
TEST_F(DipCheckTest, DeviceTreeTests) {
    const std::string crop = "dip not support crop !", down = "dip not support do downscale !",
                      up = "dip not support do upscale !";
    const std::string r90 = "dip not support rotate 90!", r270 = "dip not support rotate 270!";
    const std::string r180 = "crop width exceed for rotate 180! cropWidth(1920)";
    const std::string limit = exceed("dst", 3840, 1920, 0), uhdTile = tile("src", 3840, 3839);
    const auto uhd = [&] {
        q = {3840, 2160, Fmt::RZ21S, 3840, 2160, Fmt::NV21, 0, 0, 0, 0, 0, 1};
        dts.TileWidthMax = 3839;
        limits.dst_max_width = 1920;
    };
    expectVerdicts({
        {[&] { dts.format_support_list_r = ~0x800u; }, "src_format(0x800) is not support by dip!",
         kTree, kDip},
        {[&] { dts.format_support_list_w = ~0x1000u; }, "dst_format(0x1000) is not support by dip!",
         kTree, kTree},
        {[&] { q.rotationAngle = 270, dts.dip_rotate = 1; }, r270, kTree, kDip},
        {[&] { q.rotationAngle = 270, dts.dip_rotate = 2; }, r270, kDip, kDip},
        {[&] { q.rotationAngle = 90, dts.dip_rotate = 2; }, r90, kTree, kDip},
        {[&] { q.rotationAngle = 90, dts.dip_rotate = 1; }, r90, kDip, kDip},
        {[&] { q.rotationAngle = 180, dts.dip_HMirrorSz = 0; }, "dip not support rotate 180!",
         kTree, kDip},
        {[&] { q.rotationAngle = 180, dts.dip_HMirrorSz = 1919; }, r180, kTree, kDip},
        {[&] { q.rotationAngle = 180, dts.dip_HMirrorSz = 1920; }, r180, kDip, kDip},
        {[&] { dts.dip_crop = 0, q.crop_width = 1919; }, crop, kTree, kTree},
        {[&] { dts.dip_crop = 0, q.crop_height = 1079; }, crop, kTree, kTree},
        {[&] { dts.dip_crop = 0; }, crop, kDip, kDip},
        {[&] { dts.dip_crop = 0, q.crop_width = 1921, q.crop_height = 1081; }, crop, kDip, kDip},
        {[&] { dts.dip_dscl = 0, q.dst_width = 1919; }, down, kTree, kTree},
        {[&] { dts.dip_dscl = 0, q.dst_height = 1079; }, down, kTree, kTree},
        {[&] { dts.dip_dscl = 0, q.dst_width = 1921, q.dst_height = 1081; }, down, kDip, kDip},
        {[&] { dts.dip_uscl = 0, q.dst_width = 1921; }, up, kTree, kTree},
        {[&] { dts.dip_uscl = 0, q.dst_height = 1081; }, up, kTree, kTree},
        {[&] { dts.dip_uscl = 0, q.dst_width = 1919, q.dst_height = 1079; }, up, kDip, kDip},
        {[&] { q.src_width = 3840, dts.dip_dscl = dts.dip_uscl = 0; }, down, kDip, kDip},
        {[&] { q.dst_format = Fmt::RZ21S, q.dst_width = 4097; }, tile("dst", 4097), kTree, kTree},
        {[&] { q.dst_format = Fmt::RZ21S, q.dst_width = 4096; }, tile("dst", 4096), kDip, kDip},
        {[&] { q.src_format = Fmt::RZ21S, q.src_width = 4097; }, tile("src", 4097), kTree, kDip},
        {[&] { q.src_format = Fmt::RZ21S, q.src_width = 4096; }, tile("src", 4096), kDip, kDip},
        {uhd, uhdTile, kTile, kLimits, limit},
        {[&] { uhd(), q.crop_width = 3840, q.crop_height = 2160; }, uhdTile, kTile, kLimits, limit},
        {[&] { uhd(), q.crop_width = 3840, q.crop_height = 2159; }, uhdTile, kTree, kLimits, limit},
        {[&] { uhd(), q.crop_height = 2160; }, uhdTile, kTree, kLimits, limit},
        {[&] { uhd(), q.dst_height = 2000; }, uhdTile, kTree, kLimits, limit},
        {[&] { uhd(), q.crop_x = 1; }, uhdTile, kTree, kLimits, limit},
        {[&] { uhd(), q.crop_y = 1; }, uhdTile, kTree, kLimits, limit},
        {[&] { uhd(), q.rotationAngle = 90; }, uhdTile, kTree, kLimits, limit},
        {[&] { uhd(), q.dst_format = Fmt::NV12; }, uhdTile, kTree, kLimits, limit},
        {[&] { uhd(), q.src_width = 3839; }, limit, kLimits, kLimits},
        {[&] { uhd(), dts.TileWidthMax = 3840; }, limit, kLimits, kLimits},
        {[&] { uhd(), dts.TileWidthMax = 0; }, tile("src", 3840, 0), kTree, kLimits, limit},
    });
}

// Source limits apply to memory-to-memory requests only.
TEST_F(DipCheckTest, SubHalWidthLimits) {
    const auto wide = [&](uint32_t width) { q.src_width = q.crop_width = q.dst_width = width; };
    expectVerdicts({
        {[&] { wide(3840), limits.src_max_width = 1920, limits.src_max_width_rwsep = 4096; },
         exceed("src", 3840, 1920, 4096), kDip, kDip},
        {[&] {
             wide(4160), limits.src_max_width = 1920, limits.src_max_width_rwsep = 4096;
             limits.dst_max_width = 8192;
         },
         exceed("src", 4160, 1920, 4096), kLimits, kDip},
        {[&] { wide(3840), limits.src_max_width = 1920; }, exceed("src", 3840, 1920, 0), kLimits,
         kDip},
        {[&] { limits.src_max_width = 0; }, "src_max_width(0) is invalid !!", kLimits, kDip},
        {[&] { limits.dst_max_width = 0; }, "dst_max_width(0) is invalid !!", kLimits, kLimits},
        {[&] { wide(1000), limits.src_width_align = 16; }, "src_width(1000) not align(16) !!",
         kLimits, kDip},
        {[&] { limits.dst_max_width = 1000, limits.dst_max_width_rwsep = 1920; },
         exceed("dst", 1920, 1000, 1920), kDip, kDip},
        {[&] { limits.dst_max_width = 1000, limits.dst_max_width_rwsep = 1919; },
         exceed("dst", 1920, 1000, 1919), kLimits, kLimits},
        {[&] { limits.dst_min_width = 1920; },
         "dst_width(1920) smaller than dst_min_width(1920) !!", kDip, kDip},
        {[&] { limits.dst_min_width = 1921; },
         "dst_width(1920) smaller than dst_min_width(1921) !!", kLimits, kLimits},
    });
}

}  // namespace
}  // namespace capture_test
