// setCaptureFrameInfo: check order, the two records the sub-HAL receives, the plane offsets it
// answers, and the GPU branch that keeps the records instead.
#include <android/log.h>
#include <cutils/native_handle.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

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
constexpr uint32_t kTileWidthMax = 0x1234;

void put32(std::vector<uint8_t>& rec, size_t offset, uint32_t value) {
    std::memcpy(rec.data() + offset, &value, sizeof(value));
}

void expectSameBytes(const std::vector<uint8_t>& expected, const std::vector<uint8_t>& actual) {
    ASSERT_EQ(expected.size(), actual.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], actual[i]) << "record byte at offset " << i;
    }
}

struct BadHandle {
    BadHandle(int numFds, int firstFd) : handle(native_handle_create(numFds, 1)) {
        if (numFds > 0) handle->data[0] = firstFd;
    }
    ~BadHandle() { native_handle_delete(handle); }
    native_handle_t* handle;
};

// Distinct values everywhere, including the words the service must not forward.
CaptureSrcFrameInfo makeSrc(const native_handle_t* buffer) {
    CaptureSrcFrameInfo src{};
    src.width = 1920;
    src.height = 1080;
    src.param8 = 0x08080808;
    src.format = CaptureFormat::NV12;
    src.colorSpace = CaptureColorSpace::BT709;
    src.param20 = 0xDEAD0020;
    src.buffer = buffer;
    src.param40 = 0x40404040;
    src.param44 = 0x44444444;
    src.param48 = 0x48;
    src.param52 = 0x52525252;
    src.param56 = 0x56565656;
    src.param60 = 0x60606060;
    src.param64 = 0x64646464;
    src.param68 = 0xDEAD0068;
    src.param72 = 0x72727272;
    src.vPlaneOffset = hidl_vec<uint32_t>{0x100, 0x200};
    src.colorimetry = 2;
    return src;
}

CaptureDstFrameInfo makeDst(const native_handle_t* buffer) {
    CaptureDstFrameInfo dst{};
    dst.cropX = 8;
    dst.cropY = 16;
    dst.cropWidth = 640;
    dst.cropHeight = 360;
    dst.width = 1280;
    dst.height = 720;
    dst.pitch = 1344;
    dst.rotateAngle = 90;
    dst.format = CaptureFormat::NV21;
    dst.colorSpace = CaptureColorSpace::SRGB;
    dst.buffer = buffer;
    dst.param56 = 0x56;
    dst.param60 = 0x60606060;
    dst.param64 = 0x64;
    dst.param68 = 0x68686868;
    dst.param72 = 0x72727272;
    dst.param76 = 0x76767676;
    dst.param80 = 0x80808080;
    dst.param84 = 0xDEAD0084;
    dst.secureBuffer = SecureBufferCfg::SECURE_AUTO;
    dst.vPlaneOffset = hidl_vec<uint32_t>{7, 8};
    dst.bandwidth = BandwidthCfg::NORMAL;
    dst.colorimetry = CaptureColorimetry::HLG;
    dst.param120 = 0x20;
    dst.param124 = 0xDEAD0124;
    return dst;
}

std::vector<uint8_t> expectedSrcRecord(int fd0, int fd1) {
    std::vector<uint8_t> rec(80, 0);
    put32(rec, 0, 1920);
    put32(rec, 4, 1080);
    put32(rec, 8, 0x08080808);
    put32(rec, 12, 11);  // NV12
    put32(rec, 16, 1);
    put32(rec, 20, 2);
    put32(rec, 24, static_cast<uint32_t>(fd0));
    put32(rec, 28, static_cast<uint32_t>(fd1));
    put32(rec, 32, 0x40404040);
    put32(rec, 36, 0x44444444);
    put32(rec, 40, 0x48);
    put32(rec, 44, 0x52525252);
    put32(rec, 48, 0x56565656);
    put32(rec, 52, 0x60606060);
    put32(rec, 56, 0x64646464);
    put32(rec, 64, 0x72727272);
    put32(rec, 68, 0x100);
    put32(rec, 72, 0x200);
    put32(rec, 76, kTileWidthMax);
    return rec;
}

std::vector<uint8_t> expectedDstRecord(int fd0, int fd1) {
    std::vector<uint8_t> rec(108, 0);
    put32(rec, 0, 8);
    put32(rec, 4, 16);
    put32(rec, 8, 640);
    put32(rec, 12, 360);
    put32(rec, 16, 1280);
    put32(rec, 20, 720);
    put32(rec, 24, 1344);
    put32(rec, 28, 90);
    put32(rec, 32, 12);  // NV21
    put32(rec, 36, 3);
    put32(rec, 40, 3);
    put32(rec, 48, static_cast<uint32_t>(fd0));
    put32(rec, 52, static_cast<uint32_t>(fd1));
    put32(rec, 56, 0x56);
    put32(rec, 60, 0x60606060);
    put32(rec, 64, 0x64);
    put32(rec, 68, 0x68686868);
    put32(rec, 72, 0x72727272);
    put32(rec, 76, 0x76767676);
    put32(rec, 80, 0x80808080);
    put32(rec, 88, 2);
    put32(rec, 100, 1);
    put32(rec, 104, 0x20);
    return rec;
}

struct Answer {
    int calls = 0;
    CaptureReturn code = CaptureReturn::FAIL;
    std::vector<uint32_t> offsets;
};

class SetCaptureFrameInfoTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        Capture::mSystemDtsConfig.TileWidthMax = kTileWidthMax;
        mPqStreamInfo[0].pqId = 555;
        mPqStreamInfo[0].capturePoint = 3;
    }

    Answer set(int32_t id, const CaptureSrcFrameInfo& src, const CaptureDstFrameInfo& dst) {
        Answer answer;
        service->setCaptureFrameInfo(id, src, dst,
                                     [&answer](CaptureReturn code, const hidl_vec<uint32_t>& v) {
                                         ++answer.calls;
                                         answer.code = code;
                                         answer.offsets.assign(v.begin(), v.end());
                                     });
        return answer;
    }

    TestHandle srcBuffer;
    TestHandle dstBuffer;
};

// Every descriptor count on either side: the second descriptor travels, or -1 does.
TEST_F(SetCaptureFrameInfoTest, RecordsMatchClientFieldByField) {
    fake_subhal::setPlaneOffsets(0x1000, 0x2000);
    for (int srcFds : {1, 2}) {
        for (int dstFds : {1, 2}) {
            SCOPED_TRACE(::testing::Message() << srcFds << " src fds, " << dstFds << " dst fds");
            log.clear();
            TestHandle src(srcFds);
            TestHandle dst(dstFds);
            Answer answer = set(kId, makeSrc(src.get()), makeDst(dst.get()));
            EXPECT_EQ(1, answer.calls);
            EXPECT_EQ(CaptureReturn::SUCCESS, answer.code);
            EXPECT_EQ((std::vector<uint32_t>{0x1000, 0x2000}), answer.offsets);

            auto calls = fake_subhal::callsOf(Entry::SetCaptureFrameInfo);
            ASSERT_FALSE(calls.empty());
            EXPECT_EQ(kId, calls.back().captureId);
            expectSameBytes(expectedSrcRecord(src.fd(0), srcFds == 2 ? src.fd(1) : -1),
                            calls.back().rec1);
            expectSameBytes(expectedDstRecord(dst.fd(0), dstFds == 2 ? dst.fd(1) : -1),
                            calls.back().rec2);

            const std::string srcLine =
                srcFds == 2 ? "numFds = 2, srcBuffer->data[0]:" + std::to_string(src.fd(0)) +
                                  ", srcBuffer->data[1]:" + std::to_string(src.fd(1)) + " "
                            : "numFds = 1, srcBuffer->data[0]:" + std::to_string(src.fd(0)) + " ";
            EXPECT_EQ(1u, log.countExact(srcLine)) << log.dump();
            EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_SetCaptureFrameInfo(),Ret:0, "
                                         "stDstPlaneOffset = (0x1000,0x2000)"));
        }
    }
    // The sub-HAL path keeps nothing in the service's tables.
    EXPECT_EQ(nullptr, mSrcFrameInfo[0].buffer.getNativeHandle());
    EXPECT_EQ(0u, mDstFrameInfo[0].width);
    // The stream binding is dropped, the capture point stays.
    EXPECT_EQ(-1, mPqStreamInfo[0].pqId);
    EXPECT_EQ(3u, mPqStreamInfo[0].capturePoint);
}

TEST_F(SetCaptureFrameInfoTest, PlaneOffsetsAndColorimetryInSourceRecord) {
    struct Case {
        const char* name;
        std::vector<uint32_t> planes;
        uint64_t colorimetry;
        uint32_t plane0, plane1, sentColorimetry;
    };
    const Case cases[] = {
        {"one plane", {0x300}, 2, 0x300, 0, 2},
        {"three planes", {1, 2, 3}, 2, 1, 2, 2},
        {"colorimetry 3", {1, 2}, 3, 1, 2, 3},
        {"colorimetry 4", {1, 2}, 4, 1, 2, 0},
        // Truncating to 32 bits would turn this into the valid value 2.
        {"colorimetry above 32 bits", {1, 2}, 0x100000002ull, 1, 2, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CaptureSrcFrameInfo src = makeSrc(srcBuffer.get());
        src.vPlaneOffset = c.planes;
        src.colorimetry = c.colorimetry;
        ASSERT_EQ(CaptureReturn::SUCCESS, set(kId, src, makeDst(dstBuffer.get())).code);
        std::vector<uint8_t> expected = expectedSrcRecord(srcBuffer.fd(), -1);
        put32(expected, 20, c.sentColorimetry);
        put32(expected, 68, c.plane0);
        put32(expected, 72, c.plane1);
        expectSameBytes(expected, fake_subhal::callsOf(Entry::SetCaptureFrameInfo).back().rec1);
    }
}

struct RefusalCase {
    const char* name;
    int32_t id;
    bool gpuInstance;
    std::function<void(CaptureSrcFrameInfo&, CaptureDstFrameInfo&, const native_handle_t**)> change;
    CaptureReturn code;
    bool withOffsets;  // {0, 0} rather than an empty vector
    std::string logLine;
};

// Failure messages name the case rather than dump its bytes.
void PrintTo(const RefusalCase& c, std::ostream* os) {
    *os << c.name;
}

class FrameInfoRefusalTest : public SetCaptureFrameInfoTest,
                             public ::testing::WithParamInterface<RefusalCase> {};

// Every refusal: one callback, its code, its vector shape and line; no sub-HAL call, no table
// written (neither the binding nor the GPU rows).
TEST_P(FrameInfoRefusalTest, RefusedBeforeAnythingIsWritten) {
    const RefusalCase& c = GetParam();
    BadHandle noFds(0, 0);
    BadHandle negativeFd(1, -1);
    const native_handle_t* bad[3] = {nullptr, noFds.handle, negativeFd.handle};
    mUseGpu[0] = c.gpuInstance ? 1 : 0;
    CaptureSrcFrameInfo src = makeSrc(srcBuffer.get());
    CaptureDstFrameInfo dst = makeDst(dstBuffer.get());
    c.change(src, dst, bad);

    Answer answer = set(c.id, src, dst);
    EXPECT_EQ(1, answer.calls);
    EXPECT_EQ(c.code, answer.code);
    const std::vector<uint32_t> expectedOffsets =
        c.withOffsets ? std::vector<uint32_t>(2, 0) : std::vector<uint32_t>();
    EXPECT_EQ(expectedOffsets, answer.offsets);
    EXPECT_EQ(1u, log.countExact(c.logLine)) << log.dump();
    EXPECT_EQ(ANDROID_LOG_WARN, log.find(c.logLine).priority);
    EXPECT_EQ(0u, fake_subhal::count(Entry::SetCaptureFrameInfo));
    EXPECT_EQ(555, mPqStreamInfo[0].pqId);
    EXPECT_EQ(0u, mSrcFrameInfo[0].width);
    EXPECT_EQ(0u, mDstFrameInfo[0].width);
}

using Src = CaptureSrcFrameInfo;
using Dst = CaptureDstFrameInfo;
using Bad = const native_handle_t**;

const RefusalCase kRefusals[] = {
    {"IdPastLastSlot", 0x73000020, false, [](Src&, Dst&, Bad) {}, CaptureReturn::INVALID_CAPTURE_ID,
     true, "setCaptureFrameInfo , INVALID_CAPTURE_ID ERROR 0x73000020"},
    {"IdMinusOne", -1, false, [](Src&, Dst&, Bad) {}, CaptureReturn::INVALID_CAPTURE_ID, true,
     "setCaptureFrameInfo , INVALID_CAPTURE_ID ERROR 0xffffffff"},
    {"SrcFormatWithoutSubHalFormat", kId, false,
     [](Src& s, Dst&, Bad) { s.format = CaptureFormat::ARGB16161616; },
     CaptureReturn::FORMAT_NOT_SUPPORT, true,
     "setCaptureFrameInfo , FORMAT_NOT_SUPPORT ERROR !! src_fmt: 0x100000, dst_fmt: 0x1000"},
    {"DstFormatUnknownBit", kId, false, [](Src&, Dst& d, Bad) { d.format = CaptureFormat(0); },
     CaptureReturn::FORMAT_NOT_SUPPORT, true,
     "setCaptureFrameInfo , FORMAT_NOT_SUPPORT ERROR !! src_fmt: 0x800, dst_fmt: 0x0"},
    // The GPU could convert YV12, but the format check comes first and knows only the DIP's.
    {"GpuFormatCheckBeforeBuffers", kId, true,
     [](Src& s, Dst& d, Bad b) {
         d.format = CaptureFormat::YV12;
         s.buffer = b[0];
     },
     CaptureReturn::FORMAT_NOT_SUPPORT, true,
     "setCaptureFrameInfo , FORMAT_NOT_SUPPORT ERROR !! src_fmt: 0x800, dst_fmt: 0x200000"},
    {"SrcBufferNull", kId, false, [](Src& s, Dst&, Bad b) { s.buffer = b[0]; },
     CaptureReturn::INVALID_BUFFER, false,
     "[0x73000000] setCaptureFrameInfo fail, srcBufInfo.buffer is invalid!"},
    {"SrcBufferWithoutFds", kId, false, [](Src& s, Dst&, Bad b) { s.buffer = b[1]; },
     CaptureReturn::INVALID_BUFFER, false,
     "[0x73000000] setCaptureFrameInfo fail, srcBufInfo.buffer is invalid!"},
    {"SrcBufferBeforeDstBuffer", kId, false,
     [](Src& s, Dst& d, Bad b) {
         s.buffer = b[2];
         d.buffer = b[0];
     },
     CaptureReturn::INVALID_BUFFER, false,
     "[0x73000000] setCaptureFrameInfo fail, srcBufInfo.buffer is invalid!"},
    {"DstBufferNull", kId, false, [](Src&, Dst& d, Bad b) { d.buffer = b[0]; },
     CaptureReturn::INVALID_BUFFER, false,
     "[0x73000000] setCaptureFrameInfo fail, dstBufInfo.buffer is invalid!"},
    {"DstBufferWithoutFds", kId, false, [](Src&, Dst& d, Bad b) { d.buffer = b[1]; },
     CaptureReturn::INVALID_BUFFER, false,
     "[0x73000000] setCaptureFrameInfo fail, dstBufInfo.buffer is invalid!"},
    {"DstBufferFdMinusOne", kId, false, [](Src&, Dst& d, Bad b) { d.buffer = b[2]; },
     CaptureReturn::INVALID_BUFFER, false,
     "[0x73000000] setCaptureFrameInfo fail, dstBufInfo.buffer is invalid!"},
    {"SrcPlaneOffsetsEmpty", kId, false,
     [](Src& s, Dst&, Bad) {
         s.vPlaneOffset = hidl_vec<uint32_t>();
         s.width = 0;
     },
     CaptureReturn::INVALID_PLANE_OFFSET, false,
     "[0x73000000] vPlaneOffset.size() is invalid! src: 0, dst: 2"},
    {"SrcWidthZero", kId, false, [](Src& s, Dst&, Bad) { s.width = 0; },
     CaptureReturn::INVALID_ARGUMENT, false, "SrcFrameInfo width(0) or height(1080) is invalid!"},
    {"SrcHeightBeforeDst", kId, false,
     [](Src& s, Dst& d, Bad) {
         s.height = 0;
         d.width = 0;
     },
     CaptureReturn::INVALID_ARGUMENT, false, "SrcFrameInfo width(1920) or height(0) is invalid!"},
    {"DstHeightBeforeAngle", kId, false,
     [](Src&, Dst& d, Bad) {
         d.height = 0;
         d.rotateAngle = 45;
     },
     CaptureReturn::INVALID_ARGUMENT, false, "DstFrameInfo width(1280) or height(0) is invalid!"},
    {"Angle45", kId, false, [](Src&, Dst& d, Bad) { d.rotateAngle = 45; },
     CaptureReturn::INVALID_ARGUMENT, false, "[0x73000000] RotateAngle is invalid! rotateAngle: 45"},
    {"Angle360", kId, true, [](Src&, Dst& d, Bad) { d.rotateAngle = 360; },
     CaptureReturn::INVALID_ARGUMENT, false,
     "[0x73000000] RotateAngle is invalid! rotateAngle: 360"},
    {"AngleMinus90", kId, false, [](Src&, Dst& d, Bad) { d.rotateAngle = uint32_t(-90); },
     CaptureReturn::INVALID_ARGUMENT, false,
     "[0x73000000] RotateAngle is invalid! rotateAngle: -90"},
};

INSTANTIATE_TEST_SUITE_P(All, FrameInfoRefusalTest, ::testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(SetCaptureFrameInfoTest, AnglesAndEmptyDstOffsetsAccepted) {
    for (uint32_t angle : {0u, 90u, 180u, 270u}) {
        SCOPED_TRACE(::testing::Message() << "angle " << angle);
        CaptureDstFrameInfo dst = makeDst(dstBuffer.get());
        dst.rotateAngle = angle;
        dst.vPlaneOffset = hidl_vec<uint32_t>();
        EXPECT_EQ(CaptureReturn::SUCCESS, set(kId, makeSrc(srcBuffer.get()), dst).code);
    }
    EXPECT_EQ(4u, fake_subhal::count(Entry::SetCaptureFrameInfo));
}

TEST_F(SetCaptureFrameInfoTest, SubHalFailureMappedWithZeroOffsets) {
    fake_subhal::setPlaneOffsets(0x1000, 0x2000);
    fake_subhal::setResult(Entry::SetCaptureFrameInfo, 16);
    Answer answer = set(kId, makeSrc(srcBuffer.get()), makeDst(dstBuffer.get()));
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, answer.code);
    EXPECT_EQ((std::vector<uint32_t>{0, 0}), answer.offsets);
    EXPECT_EQ(1u, log.countExact("mSetCaptureFrameInfo fail! ret=16."));

    mSetCaptureFrameInfo.store(nullptr);
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    answer = set(kId, makeSrc(srcBuffer.get()), makeDst(dstBuffer.get()));
    EXPECT_EQ(CaptureReturn::INVALID_ARGUMENT, answer.code);
    EXPECT_EQ((std::vector<uint32_t>{0, 0}), answer.offsets);
    EXPECT_EQ(1u, log.countExact("mSetCaptureFrameInfo is nullptr!"));
}

bool sameFile(int a, int b) {
    struct stat sa {};
    struct stat sb {};
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_ino == sb.st_ino &&
           sa.st_dev == sb.st_dev;
}

// A GPU instance keeps its own copies: cloned handles, deep-copied offsets, no sub-HAL call.
TEST_F(SetCaptureFrameInfoTest, GpuInstanceKeepsCopiesOfBothRecords) {
    mUseGpu[5] = 1;
    const int32_t id = kId + 5;
    fake_subhal::setPlaneOffsets(0x1000, 0x2000);
    TestHandle twoFds(2);
    CaptureSrcFrameInfo src = makeSrc(twoFds.get());
    CaptureDstFrameInfo dst = makeDst(dstBuffer.get());
    Answer answer = set(id, src, dst);
    EXPECT_EQ(CaptureReturn::SUCCESS, answer.code);
    EXPECT_EQ((std::vector<uint32_t>{0, 0}), answer.offsets);
    EXPECT_EQ(0u, fake_subhal::count(Entry::SetCaptureFrameInfo));
    EXPECT_EQ(1u, log.countExact("mFeaturein->src_format[21], mFeaturein->dst_format[17]"));
    EXPECT_EQ(-1, mPqStreamInfo[5].pqId);

    // Clobber the client's records: the kept rows must not follow.
    src.vPlaneOffset[0] = 0xBAD;
    dst.vPlaneOffset[1] = 0xBAD;
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    const CaptureSrcFrameInfo& keptSrc = mSrcFrameInfo[5];
    const CaptureDstFrameInfo& keptDst = mDstFrameInfo[5];
    EXPECT_EQ(0xDEAD0068u, keptSrc.param68);
    EXPECT_EQ(2u, keptSrc.colorimetry);
    EXPECT_EQ(CaptureFormat::NV12, keptSrc.format);
    EXPECT_EQ((std::vector<uint32_t>{0x100, 0x200}),
              std::vector<uint32_t>(keptSrc.vPlaneOffset.begin(), keptSrc.vPlaneOffset.end()));
    EXPECT_EQ((std::vector<uint32_t>{7, 8}),
              std::vector<uint32_t>(keptDst.vPlaneOffset.begin(), keptDst.vPlaneOffset.end()));
    EXPECT_EQ(0xDEAD0124u, keptDst.param124);
    EXPECT_EQ(90u, keptDst.rotateAngle);
    const native_handle_t* srcCopy = keptSrc.buffer.getNativeHandle();
    ASSERT_NE(nullptr, srcCopy);
    EXPECT_NE(twoFds.get(), srcCopy);
    ASSERT_EQ(2, srcCopy->numFds);
    EXPECT_TRUE(sameFile(twoFds.fd(0), srcCopy->data[0]));
    EXPECT_TRUE(sameFile(twoFds.fd(1), srcCopy->data[1]));
    ASSERT_NE(nullptr, keptDst.buffer.getNativeHandle());
    EXPECT_TRUE(sameFile(dstBuffer.fd(), keptDst.buffer->data[0]));
}

// Formats the DIP knows but the GPU path does not: refused after the checks, nothing kept.
TEST_F(SetCaptureFrameInfoTest, GpuInstanceRefusesFormatsTheGpuLacks) {
    struct Case {
        CaptureFormat src, dst;
    };
    for (const Case& c : {Case{CaptureFormat::NV12, CaptureFormat::ARGB2101010},
                          Case{CaptureFormat::RGBA8888, CaptureFormat::NV21}}) {
        SCOPED_TRACE(::testing::Message() << std::hex << static_cast<uint32_t>(c.src) << " -> "
                                          << static_cast<uint32_t>(c.dst));
        log.clear();
        mUseGpu[0] = 1;
        CaptureSrcFrameInfo src = makeSrc(srcBuffer.get());
        CaptureDstFrameInfo dst = makeDst(dstBuffer.get());
        src.format = c.src;
        dst.format = c.dst;
        Answer answer = set(kId, src, dst);
        EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, answer.code);
        EXPECT_EQ((std::vector<uint32_t>{0, 0}), answer.offsets);
        EXPECT_EQ(1u, log.countExact("GPU Not Support!!!")) << log.dump();
        EXPECT_EQ(0u, log.count("FORMAT_NOT_SUPPORT ERROR"));
        EXPECT_EQ(0u, fake_subhal::count(Entry::SetCaptureFrameInfo));
        EXPECT_EQ(0u, mSrcFrameInfo[0].width);
        EXPECT_EQ(nullptr, mDstFrameInfo[0].buffer.getNativeHandle());
    }
}

// Through initLib, a device tree and the capability query: the query's GPU decision makes the
// next frame configuration keep its records instead of calling the sub-HAL.
class FrameAfterQueryTest : public ServiceTest {
protected:
    DeviceTree tree;  // empty: no DIP capability at all, whatever the host has
};

TEST_F(FrameAfterQueryTest, GpuDecisionRoutesFrameRecords) {
    ASSERT_NO_FATAL_FAILURE(loadLibrary());
    const int32_t id = openInstance();
    ASSERT_EQ(kId, id);

    // The DIP writes no format here, so a memory-to-memory job goes to the GPU.
    setQueryInfo query{};
    query.src_width = query.dst_width = query.crop_width = 1920;
    query.src_height = query.dst_height = query.crop_height = 1080;
    query.src_format = CaptureFormat::NV12;
    query.dst_format = CaptureFormat::NV21;
    query.captureType = 1;
    uint8_t useGpu = 0;
    service->getCaptureCapabilityInfo(id, query,
                                      [&useGpu](CaptureReturn code, const getQueryInfo& info) {
                                          EXPECT_EQ(CaptureReturn::SUCCESS, code);
                                          useGpu = info.useGpu;
                                      });
    ASSERT_EQ(1, useGpu);

    TestHandle src;
    TestHandle dst;
    Answer answer;
    service->setCaptureFrameInfo(id, makeSrc(src.get()), makeDst(dst.get()),
                                 [&answer](CaptureReturn code, const hidl_vec<uint32_t>& v) {
                                     ++answer.calls;
                                     answer.code = code;
                                     answer.offsets.assign(v.begin(), v.end());
                                 });
    EXPECT_EQ(CaptureReturn::SUCCESS, answer.code);
    EXPECT_EQ(0u, fake_subhal::count(Entry::SetCaptureFrameInfo));
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    EXPECT_EQ(1920u, mSrcFrameInfo[0].width);
    EXPECT_EQ(1280u, mDstFrameInfo[0].width);
}

}  // namespace
}  // namespace capture_test
