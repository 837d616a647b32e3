// The emulated sub-HAL driven through its VX_CAPTURE_* entries, as the service drives it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "EmulatorTestUtil.h"
#include "VxCaptureHal.h"
#include "capture_emulator/Emulator.h"
#include "capture_emulator/FrameLayout.h"

namespace emulator_test {
namespace {

using namespace capture_emulator;

constexpr int32_t kBase = 0x73000000;

class SubHalTest : public ::testing::Test {
protected:
    void SetUp() override { resetForTest(); }
    void TearDown() override { resetForTest(); }
};

TEST_F(SubHalTest, HandsOutLowestFreeSlotAndRefusesTheThirtyThird) {
    uint8_t param = 0;
    ASSERT_EQ(VX_CAPTURE_Init(&param), 0u);
    for (int i = 0; i < 32; ++i) {
        uint32_t handle = 0;
        ASSERT_EQ(VX_CAPTURE_Open(&param, &handle), 0u);
        EXPECT_EQ(handle, static_cast<uint32_t>(kBase + i));
    }
    uint32_t handle = 0xAAAA;
    EXPECT_EQ(VX_CAPTURE_Open(&param, &handle), static_cast<uint32_t>(kBusy));
    EXPECT_EQ(handle, 0xAAAAu) << "a refused open must not hand out an identifier";

    ASSERT_EQ(VX_CAPTURE_Close(kBase + 5), 0u);
    EXPECT_EQ(VX_CAPTURE_Close(kBase + 5), static_cast<uint32_t>(kBadId));
    ASSERT_EQ(VX_CAPTURE_Open(&param, &handle), 0u);
    EXPECT_EQ(handle, static_cast<uint32_t>(kBase + 5));
}

TEST_F(SubHalTest, IdentifiersThatAreNotOpenAreRefusedWithSeven) {
    int32_t open = openInstance();
    ASSERT_EQ(open, kBase);
    VX_CAPTURE_CaptureInfo_s info = {};
    VX_CAPTURE_setQueryInfo_s query = {};
    VX_CAPTURE_getQueryInfo_s answer = {};
    VX_CAPTURE_DipInfo_s dip = {};
    for (int32_t id : {kBase + 1, kBase + 31, kBase - 1, kBase + 32, -1}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(VX_CAPTURE_Close(id), 7u);
        EXPECT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 7u);
        EXPECT_EQ(VX_CAPTURE_GetCapabilityInfo(id, &query, &answer), 7u);
        EXPECT_EQ(VX_CAPTURE_GetDipInfo(id, &query, &dip, 0), 7u);
        EXPECT_EQ(VX_CAPTURE_CaptureOnce(id), 7u);
        EXPECT_EQ(VX_CAPTURE_CaptureStart(id), 7u);
        EXPECT_EQ(VX_CAPTURE_CaptureStop(id), 7u);
        EXPECT_EQ(VX_CAPTURE_FrameProcessDone(id, 0), 7u);
        EXPECT_EQ(VX_CAPTURE_NotifyContinueCapture(id), 7u);
    }
}

TEST_F(SubHalTest, InitIsCountedAndPowerDownClosesWhatIsOpen) {
    uint8_t param = 0;
    uint32_t handle = 0;
    EXPECT_EQ(VX_CAPTURE_Open(&param, &handle), static_cast<uint32_t>(kNotInitialized));
    EXPECT_EQ(VX_CAPTURE_DeInit(), static_cast<uint32_t>(kNotInitialized));
    ASSERT_EQ(VX_CAPTURE_Init(&param), 0u);
    ASSERT_EQ(VX_CAPTURE_Init(&param), 0u);
    ASSERT_EQ(VX_CAPTURE_Open(&param, &handle), 0u);
    ASSERT_EQ(VX_CAPTURE_DeInit(), 0u);
    EXPECT_EQ(VX_CAPTURE_NotifyContinueCapture(static_cast<int32_t>(handle)), 0u)
        << "one Init is still in force";
    ASSERT_EQ(VX_CAPTURE_DeInit(), 0u);
    EXPECT_EQ(VX_CAPTURE_NotifyContinueCapture(static_cast<int32_t>(handle)), 7u);
    EXPECT_EQ(VX_CAPTURE_Open(&param, &handle), static_cast<uint32_t>(kNotInitialized));
}

TEST_F(SubHalTest, CaptureInfoIsCheckedAsTheHardwareWould) {
    int32_t id = openInstance();
    MemBuffer buffer(1 << 22);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    MemBuffer tiny(4096);
    struct Case {
        const char* what;
        void (*mutate)(VX_CAPTURE_CaptureInfo_s*, int pipeFd, int tinyFd);
        uint32_t status;
    };
    const Case cases[] = {
        {"accepted as is", [](VX_CAPTURE_CaptureInfo_s*, int, int) {}, kOk},
        {"capture point 13", [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->eCapPoint = 13; },
         kBadCapturePoint},
        {"OSD point, present in the tree",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->eCapPoint = 12; }, kOk},
        {"no engine", [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->u8Engine = 0; }, kBadParameter},
        {"tiled output (read only)",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->eOutputFormat = VX_CAPTURE_FMT_RZ21S; },
         kFormat},
        {"format absent from the tree",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->eOutputFormat = VX_CAPTURE_FMT_YUYV_10B; },
         kFormat},
        {"crop past the source",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int) {
             i->u32CropX = 1000;
             i->u32CropWidth = 1000;
             i->u32CropHeight = 100;
         },
         kBadCrop},
        {"narrower than the engines",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->u32DstWidth = 32; }, kBadSize},
        {"wider than read/write separation allows",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->u32DstWidth = 4160; }, kBadSize},
        {"more than eight times up",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int) {
             i->u32SrcWidth = 64;
             i->u32SrcHeight = 64;
             i->u32DstWidth = 640;
             i->u32DstHeight = 64;
         },
         kBadSize},
        {"faster than the source",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->u32DstFps = 120; }, kBadParameter},
        {"secure buffer", [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->eSecureBuffer = 1; },
         kSecure},
        {"no descriptor", [](VX_CAPTURE_CaptureInfo_s* i, int, int) { i->s32BufferFd = -1; },
         kBadBuffer},
        {"a pipe, not a buffer",
         [](VX_CAPTURE_CaptureInfo_s* i, int p, int) { i->s32BufferFd = p; }, kBadBuffer},
        {"buffer smaller than a frame",
         [](VX_CAPTURE_CaptureInfo_s* i, int, int t) { i->s32BufferFd = t; }, kBufferTooSmall},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VX_CAPTURE_CaptureInfo_s info =
            liveInfo(1920, 1080, 640, 360, VX_CAPTURE_FMT_NV12, buffer.fd());
        c.mutate(&info, pipeFds[0], tiny.fd());
        EXPECT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), c.status);
    }
    EXPECT_EQ(VX_CAPTURE_SetCaptureInfo(id, nullptr), static_cast<uint32_t>(kBadArgument));
    close(pipeFds[0]);
    close(pipeFds[1]);
}

TEST_F(SubHalTest, FrameInfoAnswersPlaneOffsetsOfTheLayout) {
    int32_t id = openInstance();
    MemBuffer src(1 << 23), dst(1 << 23);
    struct Case {
        uint32_t format, width, height, pitch;
        uint32_t chroma;  // expected second offset
    };
    const Case cases[] = {
        {VX_CAPTURE_FMT_NV12, 1920, 1080, 0, 1920 * 1080},
        {VX_CAPTURE_FMT_NV21, 1000, 500, 0, 1024 * 500},  // rows rounded to 64 bytes
        {VX_CAPTURE_FMT_NV12, 1920, 1080, 2048, 2048 * 1080},
        {VX_CAPTURE_FMT_NV16, 640, 480, 0, 640 * 480},
        {VX_CAPTURE_FMT_ABGR8888, 640, 480, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.format << " " << c.width << "x" << c.height);
        VX_CAPTURE_SrcFrameInfo_s s = {};
        s.u32Width = 1920;
        s.u32Height = 1080;
        s.eFormat = VX_CAPTURE_FMT_NV12;
        s.s32BufferFd = src.fd();
        s.s32BufferFd2 = -1;
        VX_CAPTURE_DstFrameInfo_s d = {};
        d.u32Width = c.width;
        d.u32Height = c.height;
        d.u32Pitch = c.pitch;
        d.eFormat = c.format;
        d.s32BufferFd = dst.fd();
        d.s32BufferFd2 = -1;
        VX_CAPTURE_PlaneOffset_s planes = {{0xFFFF, 0xFFFF}};
        ASSERT_EQ(VX_CAPTURE_SetCaptureFrameInfo(id, &s, &d, &planes), 0u);
        EXPECT_EQ(planes.u32Offset[0], 0u);
        EXPECT_EQ(planes.u32Offset[1], c.chroma);
    }
}

TEST_F(SubHalTest, FrameInfoRefusals) {
    int32_t id = openInstance();
    MemBuffer src(1 << 22), dst(1 << 22), small(8192);
    struct Case {
        const char* what;
        void (*mutate)(VX_CAPTURE_SrcFrameInfo_s*, VX_CAPTURE_DstFrameInfo_s*, int smallFd);
        uint32_t status;
    };
    const Case cases[] = {
        {"rotation 45", [](auto*, auto* d, int) { d->u32RotateAngle = 45; }, kBadRotation},
        {"180 wider than the mirror",
         [](auto* s, auto* d, int) {
             s->u32Width = 1984;
             d->u32Width = 1984;
             d->u32RotateAngle = 180;
         },
         kBadRotation},
        {"pitch below the width", [](auto*, auto* d, int) { d->u32Pitch = 100; }, kBadParameter},
        {"source planes past the buffer",
         [](auto* s, auto*, int) { s->u32PlaneOffset1 = 4u << 20; }, kBufferTooSmall},
        {"source smaller than its frame", [](auto* s, auto*, int f) { s->s32BufferFd = f; },
         kBufferTooSmall},
        {"odd crop origin on a YUV source",
         [](auto*, auto* d, int) {
             d->u32CropX = 3;
             d->u32CropWidth = 200;
             d->u32CropHeight = 200;
         },
         kBadCrop},
        {"source format not read", [](auto* s, auto*, int) { s->eFormat = 4; }, kFormat},
        {"live source before SetCaptureInfo", [](auto* s, auto*, int) { s->u32Param32 = 1; },
         kNotConfigured},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VX_CAPTURE_SrcFrameInfo_s s = {};
        s.u32Width = 1280;
        s.u32Height = 720;
        s.eFormat = VX_CAPTURE_FMT_NV12;
        s.s32BufferFd = src.fd();
        s.s32BufferFd2 = -1;
        VX_CAPTURE_DstFrameInfo_s d = {};
        d.u32Width = 640;
        d.u32Height = 360;
        d.eFormat = VX_CAPTURE_FMT_NV21;
        d.s32BufferFd = dst.fd();
        d.s32BufferFd2 = -1;
        c.mutate(&s, &d, small.fd());
        VX_CAPTURE_PlaneOffset_s planes = {};
        EXPECT_EQ(VX_CAPTURE_SetCaptureFrameInfo(id, &s, &d, &planes), c.status);
    }
}

TEST_F(SubHalTest, CapabilityAnswersAndBandwidth) {
    int32_t id = openInstance();
    VX_CAPTURE_setQueryInfo_s q = {};
    q.src_width = 3840;
    q.src_height = 2160;
    q.src_format = VX_CAPTURE_FMT_NV12;
    q.dst_width = 1920;
    q.dst_height = 1080;
    q.dst_format = VX_CAPTURE_FMT_ABGR8888;
    q.bIsDram = 1;
    VX_CAPTURE_getQueryInfo_s a = {};
    ASSERT_EQ(VX_CAPTURE_GetCapabilityInfo(id, &q, &a), 0u);
    EXPECT_EQ(a.src_max_width, 1920u);
    EXPECT_EQ(a.src_max_width_rwsep, 4096u) << "dip0 separates reads and writes";
    EXPECT_EQ(a.dst_max_width, 1920u);
    EXPECT_EQ(a.src_width_align, 2u);
    EXPECT_EQ(a.dst_width_align, 16u);
    EXPECT_EQ(a.dst_width_align_valid, 1u);

    VX_CAPTURE_DipInfo_s dip;
    memset(&dip, 0x55, sizeof(dip));
    ASSERT_EQ(VX_CAPTURE_GetDipInfo(id, &q, &dip, 1), 0u);
    EXPECT_EQ(dip.bDipUsable, 1);
    // 60 fps of a 1920x1080 4-byte frame written and a 3840x2160 NV12 frame read.
    EXPECT_EQ(dip.u64BwSize, (1920ull * 1080 * 4 + 3840ull * 2160 * 3 / 2) * 60);

    struct Case {
        const char* what;
        void (*mutate)(VX_CAPTURE_setQueryInfo_s*);
    };
    const Case unusable[] = {
        {"output not written", [](auto* x) { x->dst_format = VX_CAPTURE_FMT_RZ21S; }},
        {"source not read", [](auto* x) { x->src_format = VX_CAPTURE_FMT_RGBA8888; }},
        {"180 wider than the mirror", [](auto* x) { x->rotationAngle = 180; }},
        {"tiled wider than the reader",
         [](auto* x) {
             x->src_format = VX_CAPTURE_FMT_RZ21S;
             x->src_width = 4096 + 16;
         }},
        {"more than 8x down", [](auto* x) { x->dst_width = 256; }},
    };
    for (const Case& c : unusable) {
        SCOPED_TRACE(c.what);
        VX_CAPTURE_setQueryInfo_s bad = q;
        c.mutate(&bad);
        dip.bDipUsable = 1;
        ASSERT_EQ(VX_CAPTURE_GetDipInfo(id, &bad, &dip, 0), 0u);
        EXPECT_EQ(dip.bDipUsable, 0);
    }
    EXPECT_EQ(VX_CAPTURE_GetDipInfo(id, &q, &dip, 2), static_cast<uint32_t>(kBadParameter));
}

TEST_F(SubHalTest, InjectedFailuresFailOnlyTheirCalls) {
    int32_t id = openInstance();
    failNextCalls(Entry::NotifyContinueCapture, 18, 2);
    EXPECT_EQ(VX_CAPTURE_NotifyContinueCapture(id), 18u);
    EXPECT_EQ(VX_CAPTURE_NotifyContinueCapture(id), 18u);
    EXPECT_EQ(VX_CAPTURE_NotifyContinueCapture(id), 0u);
    failNextCalls(Entry::CaptureOnce, 67, 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(VX_CAPTURE_CaptureOnce(id), 67u);
    clearFaults();
    EXPECT_EQ(VX_CAPTURE_CaptureOnce(id), static_cast<uint32_t>(kNotConfigured));
}

TEST_F(SubHalTest, FaultsComeFromTheEnvironmentAndAControlFile) {
    std::string control = ::testing::TempDir() + "emu-control-" + std::to_string(getpid());
    setenv("CAPTURE_EMU_FAIL", "Open:17,Close:3:*,Bogus:5", 1);
    setenv("CAPTURE_EMU_CONTROL", control.c_str(), 1);
    resetForTest();
    uint8_t param = 0;
    uint32_t handle = 0;
    ASSERT_EQ(VX_CAPTURE_Init(&param), 0u);
    EXPECT_EQ(VX_CAPTURE_Open(&param, &handle), 17u);
    ASSERT_EQ(VX_CAPTURE_Open(&param, &handle), 0u);
    EXPECT_EQ(VX_CAPTURE_Close(static_cast<int32_t>(handle)), 3u);
    EXPECT_EQ(VX_CAPTURE_Close(static_cast<int32_t>(handle)), 3u);

    // A changed control file replaces what is armed.
    { std::ofstream(control) << "# steer the hardware\nfail DumpInfo 24 1\ndrop-every 5\n"; }
    EXPECT_EQ(VX_CAPTURE_Close(static_cast<int32_t>(handle)), 0u);
    EXPECT_EQ(VX_CAPTURE_DumpInfo(1, 3), 24u);
    { std::ofstream(control) << "clear\n"; }
    EXPECT_EQ(VX_CAPTURE_Open(&param, &handle), 0u);
    unsetenv("CAPTURE_EMU_FAIL");
    unsetenv("CAPTURE_EMU_CONTROL");
    unlink(control.c_str());
}

TEST_F(SubHalTest, DumpListsInstancesAndCounters) {
    int32_t id = openInstance();
    MemBuffer buffer(1 << 20);
    VX_CAPTURE_CaptureInfo_s info = liveInfo(1920, 1080, 320, 180, VX_CAPTURE_FMT_NV12, buffer.fd());
    ASSERT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureOnce(id), 0u);
    failNextCalls(Entry::CaptureStart, 17);
    std::string path = ::testing::TempDir() + "emu-dump-" + std::to_string(getpid());
    int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(VX_CAPTURE_DumpInfo(fd, 32), 0u);
    close(fd);
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    unlink(path.c_str());
    EXPECT_NE(text.find("Instances: 1 open"), std::string::npos) << text;
    EXPECT_NE(text.find("0x73000000: point 0 1920x1080@60"), std::string::npos) << text;
    EXPECT_NE(text.find("NV12 320x180@60"), std::string::npos) << text;
    EXPECT_NE(text.find("produced 1, delivered 0, dropped 0"), std::string::npos) << text;
    EXPECT_NE(text.find("writes: YUYV ARGB8888"), std::string::npos) << text;
    EXPECT_NE(text.find("fail VX_CAPTURE_CaptureStart with 17"), std::string::npos) << text;
    EXPECT_EQ(VX_CAPTURE_DumpInfo(-1, 3), static_cast<uint32_t>(kBadArgument));
}

}  // namespace
}  // namespace emulator_test
