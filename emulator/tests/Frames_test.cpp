// The pictures the emulated hardware writes: the test pattern where crop, scale and rotation put
// it, in every format it writes, and memory sources converted the same way.
#include <gtest/gtest.h>
#include <libyuv.h>

#include "EmulatorTestUtil.h"
#include "VxCaptureHal.h"
#include "capture_emulator/Emulator.h"
#include "capture_emulator/FrameLayout.h"
#include "capture_emulator/TestPattern.h"

namespace emulator_test {
namespace {

using namespace capture_emulator;

struct Geometry {
    const char* name;
    uint32_t cropX, cropY, cropW, cropH;  // zero size: the whole source
    uint32_t dstW, dstH, rotation;
};

const Geometry kGeometries[] = {
    {"whole, downscaled", 0, 0, 0, 0, 640, 360, 0},
    {"right half, upscaled", 960, 0, 960, 540, 1280, 720, 0},
    {"centre, turned 90", 480, 270, 960, 540, 360, 640, 90},
    {"whole, turned 270", 0, 0, 0, 0, 360, 640, 270},
    {"left third, turned 180", 0, 0, 640, 810, 320, 404, 180},
};

// Where source point (sx, sy) lands in the destination, or false when the crop leaves it out.
bool project(const Geometry& g, uint32_t srcW, uint32_t srcH, uint32_t sx, uint32_t sy,
             uint32_t* dx, uint32_t* dy) {
    uint32_t cw = g.cropW != 0 ? g.cropW : srcW, ch = g.cropH != 0 ? g.cropH : srcH;
    if (sx < g.cropX || sy < g.cropY || sx >= g.cropX + cw || sy >= g.cropY + ch) return false;
    bool turned = g.rotation == 90 || g.rotation == 270;
    uint32_t preW = turned ? g.dstH : g.dstW, preH = turned ? g.dstW : g.dstH;
    uint32_t px = static_cast<uint32_t>(uint64_t{sx - g.cropX} * preW / cw);
    uint32_t py = static_cast<uint32_t>(uint64_t{sy - g.cropY} * preH / ch);
    switch (g.rotation) {
        case 90:
            *dx = preH - 1 - py;
            *dy = px;
            break;  // clockwise
        case 180:
            *dx = preW - 1 - px;
            *dy = preH - 1 - py;
            break;
        case 270:
            *dx = py;
            *dy = preW - 1 - px;
            break;
        default:
            *dx = px;
            *dy = py;
            break;
    }
    return true;
}

class PatternTest : public ::testing::TestWithParam<uint32_t> {
protected:
    void SetUp() override { resetForTest(); }
    void TearDown() override { resetForTest(); }
};

TEST_P(PatternTest, BarsLandWhereCropScaleAndRotationPutThem) {
    const PixelFormatInfo* format = findVxFormat(GetParam());
    ASSERT_NE(format, nullptr);
    const uint32_t srcW = 1920, srcH = 1080;
    int32_t id = openInstance();
    ASSERT_GE(id, 0);
    for (const Geometry& g : kGeometries) {
        SCOPED_TRACE(g.name);
        FrameLayout layout;
        ASSERT_TRUE(computeFrameLayout(*format, g.dstW, g.dstH, 0, &layout));
        MemBuffer buffer(layout.frameStride);
        VX_CAPTURE_CaptureInfo_s info =
            liveInfo(srcW, srcH, g.dstW, g.dstH, format->vxFormat, buffer.fd());
        info.u32CropX = g.cropX;
        info.u32CropY = g.cropY;
        info.u32CropWidth = g.cropW;
        info.u32CropHeight = g.cropH;
        if (g.rotation == 90 || g.rotation == 270) std::swap(info.u32DstWidth, info.u32DstHeight);
        ASSERT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 0u);
        // The frame records keep the live source and turn the destination.
        VX_CAPTURE_SrcFrameInfo_s src = {};
        src.u32Param32 = 1;
        src.s32BufferFd = buffer.fd();
        VX_CAPTURE_DstFrameInfo_s dst = {};
        dst.u32CropX = g.cropX;
        dst.u32CropY = g.cropY;
        dst.u32CropWidth = g.cropW;
        dst.u32CropHeight = g.cropH;
        dst.u32Width = g.dstW;
        dst.u32Height = g.dstH;
        dst.u32RotateAngle = g.rotation;
        dst.eFormat = format->vxFormat;
        dst.s32BufferFd = buffer.fd();
        VX_CAPTURE_PlaneOffset_s planes = {};
        ASSERT_EQ(VX_CAPTURE_SetCaptureFrameInfo(id, &src, &dst, &planes), 0u);
        ASSERT_EQ(VX_CAPTURE_CaptureOnce(id), 0u);

        int checked = 0;
        for (uint32_t bar = 0; bar < kBarCount; ++bar) {
            // The middle of each bar, half way down the bars.
            uint32_t sx = (2 * bar + 1) * srcW / (2 * kBarCount), sy = barsEndRow(srcH) / 2;
            uint32_t dx, dy;
            if (!project(g, srcW, srcH, sx, sy, &dx, &dy)) continue;
            uint32_t got = pixelAt(*format, buffer.data(), layout, g.dstW, g.dstH, dx, dy);
            EXPECT_TRUE(near(got, kBarColours[bar]))
                << "bar " << bar << " at (" << dx << "," << dy << "): " << hex(got)
                << " instead of " << hex(kBarColours[bar]);
            ++checked;
        }
        EXPECT_GE(checked, 3);
    }
}

std::vector<uint32_t> writableFormats() {
    std::vector<uint32_t> list;
    for (const PixelFormatInfo& f : kPixelFormats) {
        if (f.writable) list.push_back(f.vxFormat);
    }
    return list;
}

INSTANTIATE_TEST_SUITE_P(EveryWrittenFormat, PatternTest, ::testing::ValuesIn(writableFormats()),
                         [](const ::testing::TestParamInfo<uint32_t>& info) {
                             return std::string(findVxFormat(info.param)->name);
                         });

class MemoryTest : public ::testing::Test {
protected:
    void SetUp() override { resetForTest(); }
    void TearDown() override { resetForTest(); }
};

// Four quadrants of known colours, scaled, cropped and turned from memory.
TEST_F(MemoryTest, SourceBufferIsCroppedScaledTurnedAndConverted) {
    const uint32_t w = 256, h = 128;
    const uint32_t quad[4] = {0xFF0000, 0x00FF00, 0x0000FF, 0xFFFFFF};  // TL TR BL BR
    FrameLayout inLayout;
    ASSERT_TRUE(computeFrameLayout(*findVxFormat(VX_CAPTURE_FMT_ARGB8888), w, h, 0, &inLayout));
    // Source rows start 64 bytes in: plane offsets are honoured.
    MemBuffer src(64 + inLayout.frameStride);
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            uint32_t c = quad[(y >= h / 2 ? 2 : 0) + (x >= w / 2 ? 1 : 0)];
            uint8_t* p = src.data() + 64 + y * inLayout.pitch + x * 4;
            p[0] = c >> 16;  // ARGB8888 is laid out R, G, B, A
            p[1] = (c >> 8) & 0xFF;
            p[2] = c & 0xFF;
            p[3] = 0xFF;
        }
    }
    const PixelFormatInfo& out = *findVxFormat(VX_CAPTURE_FMT_NV21);
    FrameLayout outLayout;
    ASSERT_TRUE(computeFrameLayout(out, 64, 128, 0, &outLayout));
    MemBuffer dst(outLayout.frameStride);
    int32_t id = openInstance();
    VX_CAPTURE_SrcFrameInfo_s s = {};
    s.u32Width = w;
    s.u32Height = h;
    s.eFormat = VX_CAPTURE_FMT_ARGB8888;
    s.s32BufferFd = src.fd();
    s.u32PlaneOffset0 = 64;
    VX_CAPTURE_DstFrameInfo_s d = {};
    d.u32CropX = 64;  // the middle half: left half red/blue, right half green/white
    d.u32CropWidth = 128;
    d.u32CropHeight = 128;
    d.u32Width = 64;
    d.u32Height = 128;
    d.u32RotateAngle = 90;
    d.eFormat = VX_CAPTURE_FMT_NV21;
    d.s32BufferFd = dst.fd();
    VX_CAPTURE_PlaneOffset_s planes = {};
    ASSERT_EQ(VX_CAPTURE_SetCaptureFrameInfo(id, &s, &d, &planes), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureOnce(id), 0u);
    // Turned clockwise: the crop's top-left (red) is now top-right, its bottom-left (blue)
    // top-left, its top-right (green) bottom-right, its bottom-right (white) bottom-left.
    struct Probe {
        uint32_t x, y, colour;
    } probes[] = {{48, 32, 0xFF0000}, {16, 32, 0x0000FF}, {48, 96, 0x00FF00}, {16, 96, 0xFFFFFF}};
    for (const Probe& p : probes) {
        uint32_t got = pixelAt(out, dst.data(), outLayout, 64, 128, p.x, p.y);
        EXPECT_TRUE(near(got, p.colour)) << "(" << p.x << "," << p.y << "): " << hex(got);
    }
}

// 16x32 luma tiles and 16x16 chroma tiles, row-major tiles, as the decoder writes them.
void tile(const uint8_t* linear, uint32_t pitch, uint32_t rows, uint32_t tileH, uint8_t* out) {
    size_t o = 0;
    for (uint32_t ty = 0; ty < rows; ty += tileH) {
        for (uint32_t tx = 0; tx < pitch; tx += 16) {
            for (uint32_t y = ty; y < ty + tileH; ++y) {
                for (uint32_t x = tx; x < tx + 16; ++x) {
                    out[o++] = y < rows ? linear[y * pitch + x] : 0;
                }
            }
        }
    }
}

TEST_F(MemoryTest, TiledDecoderOutputIsRead) {
    const uint32_t w = 128, h = 64;
    const PixelFormatInfo& tiled = *findVxFormat(VX_CAPTURE_FMT_RZ21S);
    FrameLayout layout;
    ASSERT_TRUE(computeFrameLayout(tiled, w, h, 128, &layout));
    // Left half yellow, right half blue, as linear NV12 first.
    std::vector<uint8_t> argb(w * h * 4), y(w * h), uv(w * h / 2);
    for (uint32_t i = 0; i < w * h; ++i) {
        uint32_t c = (i % w) < w / 2 ? 0xFFFF00 : 0x0000FF;
        argb[4 * i] = c & 0xFF;
        argb[4 * i + 1] = (c >> 8) & 0xFF;
        argb[4 * i + 2] = c >> 16;
        argb[4 * i + 3] = 0xFF;
    }
    libyuv::ARGBToNV12(argb.data(), w * 4, y.data(), w, uv.data(), w, w, h);
    MemBuffer src(layout.frameStride);
    tile(y.data(), w, h, 32, src.data());
    tile(uv.data(), w, h / 2, 16, src.data() + layout.chromaOffset);

    const PixelFormatInfo& out = *findVxFormat(VX_CAPTURE_FMT_ABGR8888);
    FrameLayout outLayout;
    ASSERT_TRUE(computeFrameLayout(out, w, h, 0, &outLayout));
    MemBuffer dst(outLayout.frameStride);
    int32_t id = openInstance();
    VX_CAPTURE_SrcFrameInfo_s s = {};
    s.u32Width = w;
    s.u32Height = h;
    s.u32Param8 = 128;
    s.eFormat = VX_CAPTURE_FMT_RZ21S;
    s.s32BufferFd = src.fd();
    VX_CAPTURE_DstFrameInfo_s d = {};
    d.u32Width = w;
    d.u32Height = h;
    d.eFormat = VX_CAPTURE_FMT_ABGR8888;
    d.s32BufferFd = dst.fd();
    VX_CAPTURE_PlaneOffset_s planes = {};
    ASSERT_EQ(VX_CAPTURE_SetCaptureFrameInfo(id, &s, &d, &planes), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureOnce(id), 0u);
    for (uint32_t yy : {5u, 40u}) {
        EXPECT_TRUE(near(pixelAt(out, dst.data(), outLayout, w, h, 20, yy), 0xFFFF00));
        EXPECT_TRUE(near(pixelAt(out, dst.data(), outLayout, w, h, 100, yy), 0x0000FF));
    }
}

TEST_F(MemoryTest, ShrunkenBufferIsRefusedNotOverrun) {
    const PixelFormatInfo& f = *findVxFormat(VX_CAPTURE_FMT_NV12);
    FrameLayout layout;
    ASSERT_TRUE(computeFrameLayout(f, 640, 360, 0, &layout));
    MemBuffer buffer(layout.frameStride);
    int32_t id = openInstance();
    VX_CAPTURE_CaptureInfo_s info = liveInfo(1920, 1080, 640, 360, VX_CAPTURE_FMT_NV12, buffer.fd());
    ASSERT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 0u);
    // The client shrinks its buffer behind the hardware's back.
    ASSERT_EQ(ftruncate(buffer.fd(), 4096), 0);
    EXPECT_EQ(VX_CAPTURE_CaptureOnce(id), static_cast<uint32_t>(kBufferTooSmall));
}

}  // namespace
}  // namespace emulator_test
