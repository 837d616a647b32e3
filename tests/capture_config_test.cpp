// setCaptureInfo: the checks and their order, the picture-quality binding, and the 152-byte
// record the sub-HAL receives.
#include <android/log.h>
#include <cutils/native_handle.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Capture.h"
#include "FakeSubHal.h"
#include "SubHal.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

using fake_subhal::Entry;

constexpr int32_t kId = 0x73000000;

void put32(std::vector<uint8_t>& rec, size_t offset, uint32_t value) {
    std::memcpy(rec.data() + offset, &value, sizeof(value));
}

// Reports every differing byte with its offset, so a shifted field names itself.
void expectSameBytes(const std::vector<uint8_t>& expected, const std::vector<uint8_t>& actual) {
    ASSERT_EQ(expected.size(), actual.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], actual[i]) << "record byte at offset " << i;
    }
}

// A handle the checks must refuse: no descriptors, or a first descriptor that is not open.
struct BadHandle {
    BadHandle(int numFds, int firstFd) : handle(native_handle_create(numFds, 1)) {
        if (numFds > 0) handle->data[0] = firstFd;
    }
    ~BadHandle() { native_handle_delete(handle); }
    native_handle_t* handle;
};

// Every field distinct, so that a field taken from the wrong offset shows.
CaptureInfo makeInfo(const native_handle_t* buffer) {
    CaptureInfo info{};
    info.capPoint = CapturePoint::PQ_STREAM_SCALED;
    info.reserved4 = 0xDEAD0004;
    info.pqId = 77;
    info.pqWinId = -5;
    info.srcWidth = 1920;
    info.srcHeight = 1080;
    info.srcFmt = 0x2A;
    info.hwEngine = 3;
    info.srcParam28 = 0x28282828;
    info.srcParam32 = 0x32323232;
    info.srcFps = 60;
    info.srcParam40 = 0x40;
    info.srcParam41 = 0x41;
    info.srcFlag = 1;
    info.cropX = 10;
    info.cropY = 20;
    info.cropWidth = 1280;
    info.cropHeight = 720;
    info.dstWidth = 1280;
    info.dstHeight = 720;
    info.dstFps = 30;
    info.dstParam76 = 0x76767676;
    info.dstParam80 = 0x80808080;
    info.dstFmt = CaptureFormat::NV12;
    info.dstFlag = 1;
    info.colorSpace = CaptureColorSpace::BT2020;
    info.dstBuffer = buffer;
    for (uint32_t i = 0; i < 7; ++i) info.param[i] = 0x11110000 + i;
    info.reserved140 = 0xDEAD0140;
    info.param144 = 0x44;
    info.secureBuffer = SecureBufferCfg::SECURE;
    info.bandwidth = BandwidthCfg::HIGH;
    info.b2rRbSwapped = false;
    info.param148 = 0x48;
    return info;
}

// The record makeInfo() must produce, written independently from the wire layout.
std::vector<uint8_t> expectedRecord(int fd) {
    std::vector<uint8_t> rec(152, 0);
    put32(rec, 0, 3);
    put32(rec, 8, 77);
    put32(rec, 12, static_cast<uint32_t>(-5));
    put32(rec, 16, 1920);
    put32(rec, 20, 1080);
    rec[24] = 0x2A;
    rec[25] = 3;
    put32(rec, 28, 0x28282828);
    put32(rec, 32, 0x32323232);
    put32(rec, 36, 60);
    rec[40] = 0x40;
    rec[41] = 0x41;
    put32(rec, 44, 1);
    put32(rec, 48, 10);
    put32(rec, 52, 20);
    put32(rec, 56, 1280);
    put32(rec, 60, 720);
    put32(rec, 64, 1280);
    put32(rec, 68, 720);
    put32(rec, 72, 30);
    put32(rec, 76, 0x76767676);
    put32(rec, 80, 0x80808080);
    put32(rec, 84, 11);  // NV12
    put32(rec, 88, 2);
    put32(rec, 92, 1);
    put32(rec, 96, static_cast<uint32_t>(fd));
    put32(rec, 100, static_cast<uint32_t>(-1));
    for (uint32_t i = 0; i < 7; ++i) put32(rec, 104 + 4 * i, 0x11110000 + i);
    put32(rec, 136, 0x44);
    put32(rec, 140, 1);
    put32(rec, 144, 2);
    put32(rec, 148, 0x48);
    return rec;
}

class SetCaptureInfoTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        for (auto& point : Capture::mPointsSupportState) point = 1;
        // A sentinel in the binding row shows whether a refused request touched it.
        mPqStreamInfo[0].pqId = 555;
        mPqStreamInfo[0].reserved = 666;
        mPqStreamInfo[0].capturePoint = 777;
    }

    CaptureReturn set(int32_t id, const CaptureInfo& info) {
        return static_cast<CaptureReturn>(service->setCaptureInfo(id, info));
    }

    std::vector<uint8_t> lastRecord() {
        auto calls = fake_subhal::callsOf(Entry::SetCaptureInfo);
        return calls.empty() ? std::vector<uint8_t>() : calls.back().rec1;
    }

    TestHandle buffer;
};

TEST_F(SetCaptureInfoTest, RecordMatchesClientFieldByField) {
    ASSERT_EQ(CaptureReturn::SUCCESS, set(kId, makeInfo(buffer.get())));
    auto calls = fake_subhal::callsOf(Entry::SetCaptureInfo);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(kId, calls[0].captureId);
    expectSameBytes(expectedRecord(buffer.fd()), calls[0].rec1);
    EXPECT_EQ(1u, log.countExact("numFds: 1 , dstBuffer->data[0]: " + std::to_string(buffer.fd())));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_SetCaptureInfo(), Ret: 0"));
}

// Flags pass only an exact 1; unknown enumerations take their mapping's fallback.
TEST_F(SetCaptureInfoTest, FlagsAndUnknownEnumerationsInRecord) {
    struct Case {
        const char* name;
        std::function<void(CaptureInfo&)> change;
        std::function<void(std::vector<uint8_t>&)> expect;
        const char* logLine;  // the mapping's complaint, when there is one
    };
    const Case cases[] = {
        {"src flag 2", [](CaptureInfo& i) { i.srcFlag = 2; },
         [](std::vector<uint8_t>& r) { put32(r, 44, 0); }, nullptr},
        {"dst flag all ones", [](CaptureInfo& i) { i.dstFlag = 0xFFFFFFFF; },
         [](std::vector<uint8_t>& r) { put32(r, 92, 0); }, nullptr},
        {"colour space 9", [](CaptureInfo& i) { i.colorSpace = CaptureColorSpace(9); },
         [](std::vector<uint8_t>& r) { put32(r, 88, 0); }, "can't support this colorSpace: 9!"},
        {"secure 3", [](CaptureInfo& i) { i.secureBuffer = SecureBufferCfg(3); },
         [](std::vector<uint8_t>& r) { put32(r, 140, 0); },
         "can't support this SecureBufferCfg: 3!"},
        {"bandwidth 3", [](CaptureInfo& i) { i.bandwidth = BandwidthCfg(3); },
         [](std::vector<uint8_t>& r) { put32(r, 144, 2); }, "can't support this BandwidthCfg: 3!"},
        {"no sub-HAL format", [](CaptureInfo& i) { i.dstFmt = CaptureFormat::ARGB16161616; },
         [](std::vector<uint8_t>& r) { put32(r, 84, 26); },
         "dip can't support this format: 0x100000!"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log.clear();
        CaptureInfo info = makeInfo(buffer.get());
        c.change(info);
        ASSERT_EQ(CaptureReturn::SUCCESS, set(kId, info));
        std::vector<uint8_t> expected = expectedRecord(buffer.fd());
        c.expect(expected);
        expectSameBytes(expected, lastRecord());
        if (c.logLine != nullptr) {
            EXPECT_EQ(1u, log.countExact(c.logLine)) << log.dump();
        }
    }
}

TEST_F(SetCaptureInfoTest, RedBlueSwapExchangesOnlyTheTwoRgbFormats) {
    struct Case {
        CaptureFormat format;
        uint8_t swappedByte;  // raw byte: any non-zero value means swapped
        uint32_t sent;
        const char* changedLine;
    };
    const Case cases[] = {
        {CaptureFormat::ARGB8888, 1, 3, "eOutputFormat changed to 3 "},
        {CaptureFormat::ABGR8888, 1, 2, "eOutputFormat changed to 2 "},
        {CaptureFormat::YUYV, 1, 0, "eOutputFormat changed to 0 "},
        {CaptureFormat::ARGB8888, 2, 3, "eOutputFormat changed to 3 "},
        {CaptureFormat::ARGB8888, 0, 2, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << "format 0x" << std::hex << static_cast<uint32_t>(c.format) << " swap byte "
                     << int(c.swappedByte));
        log.clear();
        CaptureInfo info = makeInfo(buffer.get());
        info.dstFmt = c.format;
        std::memcpy(&info.b2rRbSwapped, &c.swappedByte, 1);
        ASSERT_EQ(CaptureReturn::SUCCESS, set(kId, info));
        std::vector<uint8_t> rec = lastRecord();
        uint32_t sent = 0;
        std::memcpy(&sent, rec.data() + 84, 4);
        EXPECT_EQ(c.sent, sent);
        EXPECT_EQ(c.changedLine != nullptr ? 1u : 0u, log.count("eOutputFormat changed to"));
        if (c.changedLine != nullptr) {
            EXPECT_EQ(1u, log.countExact(c.changedLine));
        }
    }
}

struct RefusalCase {
    const char* name;
    int32_t id;
    std::function<void(CaptureInfo&, const native_handle_t* bad[3])> change;
    CaptureReturn code;
    std::string logLine;
};

// Failure messages name the case rather than dump its bytes.
void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }

class SetCaptureInfoRefusalTest : public SetCaptureInfoTest,
                                  public ::testing::WithParamInterface<RefusalCase> {};

// Each refusal: its own code and line, nothing written, the sub-HAL never called.
TEST_P(SetCaptureInfoRefusalTest, RefusedBeforeAnythingIsWritten) {
    const RefusalCase& c = GetParam();
    BadHandle noFds(0, 0);
    BadHandle negativeFd(1, -1);
    const native_handle_t* bad[3] = {nullptr, noFds.handle, negativeFd.handle};
    Capture::mPointsSupportState[5] = 0;
    CaptureInfo info = makeInfo(buffer.get());
    c.change(info, bad);

    EXPECT_EQ(c.code, set(c.id, info));
    EXPECT_EQ(0u, fake_subhal::count(Entry::SetCaptureInfo));
    EXPECT_EQ(1u, log.countExact(c.logLine)) << log.dump();
    EXPECT_EQ(ANDROID_LOG_WARN, log.find(c.logLine).priority);
    EXPECT_EQ(555, mPqStreamInfo[0].pqId);
    EXPECT_EQ(666, mPqStreamInfo[0].reserved);
    EXPECT_EQ(777u, mPqStreamInfo[0].capturePoint);
}

const RefusalCase kRefusals[] = {
    {"IdPastLastSlot", 0x73000020, [](CaptureInfo&, const native_handle_t**) {},
     CaptureReturn::INVALID_CAPTURE_ID, "setCaptureInfo , INVALID_CAPTURE_ID ERROR 0x73000020"},
    {"IdBelowBase", 0x72FFFFFF, [](CaptureInfo&, const native_handle_t**) {},
     CaptureReturn::INVALID_CAPTURE_ID, "setCaptureInfo , INVALID_CAPTURE_ID ERROR 0x72ffffff"},
    {"IdMinusOne", -1, [](CaptureInfo&, const native_handle_t**) {},
     CaptureReturn::INVALID_CAPTURE_ID, "setCaptureInfo , INVALID_CAPTURE_ID ERROR 0xffffffff"},
    {"IdBeforeBuffer", 0x73000020,
     [](CaptureInfo& i, const native_handle_t** b) { i.dstBuffer = b[0]; },
     CaptureReturn::INVALID_CAPTURE_ID, "setCaptureInfo , INVALID_CAPTURE_ID ERROR 0x73000020"},
    {"NullBuffer", kId, [](CaptureInfo& i, const native_handle_t** b) { i.dstBuffer = b[0]; },
     CaptureReturn::INVALID_BUFFER, "[0x73000000] setCaptureInfo fail, buffer is invalid!"},
    {"BufferWithoutFds", kId, [](CaptureInfo& i, const native_handle_t** b) { i.dstBuffer = b[1]; },
     CaptureReturn::INVALID_BUFFER, "[0x73000000] setCaptureInfo fail, buffer is invalid!"},
    {"BufferFdMinusOne", kId, [](CaptureInfo& i, const native_handle_t** b) { i.dstBuffer = b[2]; },
     CaptureReturn::INVALID_BUFFER, "[0x73000000] setCaptureInfo fail, buffer is invalid!"},
    {"BufferBeforeSizes", kId,
     [](CaptureInfo& i, const native_handle_t** b) {
         i.dstBuffer = b[0];
         i.srcWidth = 0;
     },
     CaptureReturn::INVALID_BUFFER, "[0x73000000] setCaptureInfo fail, buffer is invalid!"},
    {"SrcWidthZero", kId, [](CaptureInfo& i, const native_handle_t**) { i.srcWidth = 0; },
     CaptureReturn::INVALID_ARGUMENT, "Source width(0) or height(1080) is invalid!"},
    {"SrcHeightZero", kId, [](CaptureInfo& i, const native_handle_t**) { i.srcHeight = 0; },
     CaptureReturn::INVALID_ARGUMENT, "Source width(1920) or height(0) is invalid!"},
    {"SrcWidthBeforeEngine", kId,
     [](CaptureInfo& i, const native_handle_t**) {
         i.srcWidth = 0;
         i.hwEngine = 0;
     },
     CaptureReturn::INVALID_ARGUMENT, "Source width(0) or height(1080) is invalid!"},
    {"EngineZero", kId, [](CaptureInfo& i, const native_handle_t**) { i.hwEngine = 0; },
     CaptureReturn::INVALID_ARGUMENT, "Source u8pEngine(0) is invalid!"},
    {"EngineBeforeDst", kId,
     [](CaptureInfo& i, const native_handle_t**) {
         i.hwEngine = 0;
         i.dstWidth = 0;
     },
     CaptureReturn::INVALID_ARGUMENT, "Source u8pEngine(0) is invalid!"},
    {"DstWidthZero", kId, [](CaptureInfo& i, const native_handle_t**) { i.dstWidth = 0; },
     CaptureReturn::INVALID_ARGUMENT, "Output width(0) or height(720) is invalid!"},
    {"DstHeightZeroBeforePoint", kId,
     [](CaptureInfo& i, const native_handle_t**) {
         i.dstHeight = 0;
         i.capPoint = CapturePoint::NONE;
     },
     CaptureReturn::INVALID_ARGUMENT, "Output width(1280) or height(0) is invalid!"},
    {"PointThirteen", kId,
     [](CaptureInfo& i, const native_handle_t**) { i.capPoint = CapturePoint::NONE; },
     CaptureReturn::INVALID_CAPTURE_POINT,
     "[0x73000000] setCaptureInfo fail, capture point(13) is invalid!"},
    {"PointHuge", kId,
     [](CaptureInfo& i, const native_handle_t**) { i.capPoint = CapturePoint(0xFFFFFFFF); },
     CaptureReturn::INVALID_CAPTURE_POINT,
     "[0x73000000] setCaptureInfo fail, capture point(4294967295) is invalid!"},
    {"PointUnsupported", kId,
     [](CaptureInfo& i, const native_handle_t**) { i.capPoint = CapturePoint(5); },
     CaptureReturn::CAPTURE_POINT_NOT_SUPPORT,
     "[0x73000000] setCaptureInfo fail, platform unsupport this capture point(5)!"},
};

INSTANTIATE_TEST_SUITE_P(All, SetCaptureInfoRefusalTest, ::testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(SetCaptureInfoTest, LastSlotAndTwoDescriptorBufferAccepted) {
    TestHandle twoFds(2);
    CaptureInfo info = makeInfo(twoFds.get());
    ASSERT_EQ(CaptureReturn::SUCCESS, set(0x7300001F, info));
    auto calls = fake_subhal::callsOf(Entry::SetCaptureInfo);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(0x7300001F, calls[0].captureId);
    // The capture-info record has room for one descriptor only; the second stays -1.
    expectSameBytes(expectedRecord(twoFds.fd(0)), calls[0].rec1);
    EXPECT_EQ(77, mPqStreamInfo[31].pqId);
}

// Only capture points 2..8 belong to a picture-quality stream; the reserved word is not touched.
TEST_F(SetCaptureInfoTest, BindingKeepsPqIdOnlyForStreamPoints) {
    for (uint32_t point = 0; point < 13; ++point) {
        SCOPED_TRACE(::testing::Message() << "capture point " << point);
        CaptureInfo info = makeInfo(buffer.get());
        info.capPoint = CapturePoint(point);
        ASSERT_EQ(CaptureReturn::SUCCESS, set(kId, info));
        EXPECT_EQ(point >= 2 && point <= 8 ? 77 : -1, mPqStreamInfo[0].pqId);
        EXPECT_EQ(point, mPqStreamInfo[0].capturePoint);
        EXPECT_EQ(666, mPqStreamInfo[0].reserved);
        // The record carries the client's pqId whatever the point.
        std::vector<uint8_t> rec = lastRecord();
        int32_t sentPqId = 0;
        std::memcpy(&sentPqId, rec.data() + 8, 4);
        EXPECT_EQ(77, sentPqId);
    }
}

// The binding is recorded before the sub-HAL is asked, so it survives the sub-HAL's refusal.
TEST_F(SetCaptureInfoTest, SubHalFailureMappedAndBindingKept) {
    fake_subhal::setResult(Entry::SetCaptureInfo, 16);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, set(kId, makeInfo(buffer.get())));
    EXPECT_EQ(1u, log.countExact("mSetCaptureInfo fail! ret=16."));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_SetCaptureInfo(), Ret: 16"));
    EXPECT_EQ(77, mPqStreamInfo[0].pqId);
    EXPECT_EQ(3u, mPqStreamInfo[0].capturePoint);

    mSetCaptureInfo.store(nullptr);
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    EXPECT_EQ(CaptureReturn::INVALID_ARGUMENT, set(kId, makeInfo(buffer.get())));
    EXPECT_EQ(1u, log.countExact("mSetCaptureInfo is nullptr!"));
    EXPECT_EQ(1u, fake_subhal::count(Entry::SetCaptureInfo));
}

// Through initLib and a device tree: capture point 12 is allowed only when dip0 says so, and the
// other twelve need no entry at all.
class SetCaptureInfoDeviceTreeTest : public ServiceTest {
protected:
    DeviceTree tree;  // before loadLibrary: initLib reads it
};

TEST_F(SetCaptureInfoDeviceTreeTest, OsdPointFollowsCapOsd) {
    ASSERT_NO_FATAL_FAILURE(loadLibrary());
    TestHandle buffer;
    CaptureInfo info = makeInfo(buffer.get());
    info.capPoint = CapturePoint::OSD;
    EXPECT_EQ(CaptureReturn::CAPTURE_POINT_NOT_SUPPORT,
              static_cast<CaptureReturn>(service->setCaptureInfo(kId, info)));
    info.capPoint = CapturePoint::DISPLAY;
    EXPECT_EQ(CaptureReturn::SUCCESS,
              static_cast<CaptureReturn>(service->setCaptureInfo(kId, info)));

    tree.setCell("dip0/capability/CapOSD", 1);
    ASSERT_EQ(CaptureReturn::SUCCESS, static_cast<CaptureReturn>(service->initLib()));
    info.capPoint = CapturePoint::OSD;
    EXPECT_EQ(CaptureReturn::SUCCESS,
              static_cast<CaptureReturn>(service->setCaptureInfo(kId, info)));
    EXPECT_EQ(2u, fake_subhal::count(Entry::SetCaptureInfo));
}

}  // namespace
}  // namespace capture_test
