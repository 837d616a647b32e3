// capturectl run as a user runs it, on the emulated hardware: its exit status, what it prints and
// the pictures it writes.
#include <gtest/gtest.h>
#include <png.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "capture_emulator/TestPattern.h"

namespace emulator_test {
namespace {

using capture_emulator::barsEndRow;
using capture_emulator::kBarColours;
using capture_emulator::kBarCount;

struct ToolRun {
    int status = -1;
    std::string output;  // stdout and stderr
};

ToolRun run(const std::string& arguments, const std::string& environment = "") {
    std::string command = environment + " " CAPTURECTL_PATH " " + arguments + " 2>&1";
    ToolRun r;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return r;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) r.output.append(chunk, n);
    int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "capturectl-" + std::to_string(getpid()) + "-" + name;
}

// A PNG file read back (and removed); zero-sized when it cannot be read.
struct Picture {
    explicit Picture(const std::string& path) {
        image.version = PNG_IMAGE_VERSION;
        if (png_image_begin_read_from_file(&image, path.c_str())) {
            image.format = PNG_FORMAT_RGB;
            rgb.resize(PNG_IMAGE_SIZE(image));
            if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) image.width = 0;
        }
        unlink(path.c_str());
    }
    // Whether pixel (x, y) is within 40 per channel of 0xRRGGBB `want`.
    ::testing::AssertionResult near(uint32_t x, uint32_t y, uint32_t want) const {
        const uint8_t* p = &rgb.at((size_t{y} * image.width + x) * 3);
        for (int c = 0; c < 3; ++c) {
            if (abs(p[c] - static_cast<int>((want >> (16 - 8 * c)) & 0xFF)) > 40) {
                return ::testing::AssertionFailure()
                       << "(" << x << "," << y << ") is " << +p[0] << " " << +p[1] << " " << +p[2];
            }
        }
        return ::testing::AssertionSuccess();
    }
    png_image image = {};
    std::vector<uint8_t> rgb;
};

struct Geometry {
    uint32_t cropX, cropY, cropW, cropH, dstW, dstH, rotation;
};

// Where source point (sx, sy) lands in the destination; false when the crop leaves it out.
bool project(const Geometry& g, uint32_t sx, uint32_t sy, uint32_t* dx, uint32_t* dy) {
    if (sx < g.cropX || sy < g.cropY || sx >= g.cropX + g.cropW || sy >= g.cropY + g.cropH) {
        return false;
    }
    bool turned = g.rotation % 180 != 0;
    uint32_t w = turned ? g.dstH : g.dstW, h = turned ? g.dstW : g.dstH;  // before turning
    uint32_t x = (sx - g.cropX) * w / g.cropW, y = (sy - g.cropY) * h / g.cropH;
    const uint32_t turns[4][2] = {{x, y}, {h - 1 - y, x}, {w - 1 - x, h - 1 - y}, {y, w - 1 - x}};
    *dx = turns[g.rotation / 90][0];  // clockwise
    *dy = turns[g.rotation / 90][1];
    return true;
}

class CapturectlOnce : public ::testing::TestWithParam<const char*> {};

TEST_P(CapturectlOnce, BarsLandWhereCropScaleAndRotationPutThem) {
    const Geometry geometries[] = {
        {0, 0, 1920, 1080, 640, 360, 0},    {960, 0, 960, 540, 1280, 720, 0},
        {480, 270, 960, 540, 360, 640, 90}, {0, 0, 1920, 1080, 360, 640, 270},
        {0, 0, 640, 810, 320, 404, 180},    {960, 0, 960, 1080, 270, 480, 90},
    };
    for (const Geometry& g : geometries) {
        char arguments[160];
        snprintf(arguments, sizeof(arguments),
                 "once --format %s --crop %u,%u,%u,%u --size %ux%u --rotate %u --out ", GetParam(),
                 g.cropX, g.cropY, g.cropW, g.cropH, g.dstW, g.dstH, g.rotation);
        SCOPED_TRACE(arguments);
        std::string png = tempPath("once.png");
        ToolRun r = run(arguments + png);
        ASSERT_EQ(r.status, 0) << r.output;
        Picture picture(png);
        ASSERT_EQ(picture.image.width, g.dstW);
        ASSERT_EQ(picture.image.height, g.dstH);
        int checked = 0;
        for (uint32_t bar = 0; bar < kBarCount; ++bar) {
            // The middle of each bar, half way down the bars of the 1920x1080 source.
            uint32_t dx, dy, sx = (2 * bar + 1) * 1920 / (2 * kBarCount), sy = barsEndRow(1080) / 2;
            if (!project(g, sx, sy, &dx, &dy)) continue;
            EXPECT_TRUE(picture.near(dx, dy, kBarColours[bar])) << "bar " << bar;
            ++checked;
        }
        EXPECT_GE(checked, 3);
    }
}

// Every format the hardware writes.
INSTANTIATE_TEST_SUITE_P(EveryWrittenFormat, CapturectlOnce,
                         ::testing::Values("YUYV", "ARGB8888", "ABGR8888", "ARGB2101010",
                                           "ABGR2101010", "RGB565", "BGR888", "NV16", "NV61",
                                           "NV12", "NV21"),
                         [](const auto& info) { return std::string(info.param); });

TEST(Capturectl, DemoWritesPicturesOfThePattern) {
    std::string dir = tempPath("demo");
    ToolRun r = run("demo --out-dir " + dir);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("PNG files are in " + dir), std::string::npos) << r.output;
    Picture once(dir + "/once.png"), turned(dir + "/memory-rotated.png");
    EXPECT_EQ(Picture(dir + "/stream-last.png").image.width, 1280u);
    rmdir(dir.c_str());
    ASSERT_EQ(once.image.width, 1280u);
    ASSERT_EQ(turned.image.width, 360u);
    for (uint32_t bar = 0; bar < kBarCount; ++bar) {
        EXPECT_TRUE(once.near(bar * 160 + 80, 270, kBarColours[bar])) << bar;
    }
    // From memory: the centre of that frame (bars 2..5), turned clockwise so they run down.
    for (uint32_t bar = 2; bar < 6; ++bar) {
        EXPECT_TRUE(turned.near(180, (bar - 2) * 160 + 80, kBarColours[bar])) << bar;
    }
}

TEST(CapturectlStream, ClientReturningEveryBufferDropsNoneOf300FramesAt60Fps) {
    ToolRun r = run("stream --frames 300 --fps 60 --source 1280x720 --size 640x360 --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("received 300 frames"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("dropped 0 frames"), std::string::npos) << r.output;
}

TEST(CapturectlStream, ClientHoldingBuffersSeesDropsCounted) {
    ToolRun r = run("stream --frames 12 --fps 60 --buffers 2 --hold-ms 100 --size 320x180 --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    size_t at = r.output.find("\ndropped ");
    ASSERT_NE(at, std::string::npos) << r.output;
    // Two buffers out for 100 ms each at 60 fps: most frames find no free buffer.
    EXPECT_GT(strtoul(r.output.c_str() + at + 9, nullptr, 10), 12u) << r.output;
}

TEST(Capturectl, AnswersAndRefusalsNameWhatHappened) {
    std::string control = tempPath("control");
    std::ofstream(control) << "# steer the hardware\nfail CaptureStop 18\n";
    const std::string fail = "CAPTURE_EMU_FAIL=";
    const struct {
        std::string environment;
        const char* arguments;
        int status;
        const char* text;
    } cases[] = {
        {"", "info", 0, "capture points supported: 0 1 2 3 4 5 6 7 8 9 10 11 12"},
        {"", "info", 0, "source up to 1920 px wide, destination up to 1920 px wide, source width"},
        {"", "query --memory --source 3840x2160 --size 1920x1080 --format ABGR8888", 0,
         "engine: DIP\ndestination rows: multiples of 16 px\nbandwidth: 1244.2 MB/s"},
        {"", "query --memory --format YV12", 0, "engine: GPU (the DIP cannot do it)"},
        {fail + "CaptureStart:17", "dump", 0, "faults:\n  fail VX_CAPTURE_CaptureStart with 17"},
        // The done record of ring buffer 1 of 1280x720 NV12 frames (0x152000 bytes apart).
        {"", "stream --frames 3 --verbose", 0,
         "index(1) Y_offSet(0x152000) C_offSet(0x233000) Y_Size(0xe1000) C_Size(0x70800)"},
        // The emulated PQ service answers for capture point 5 and notifies while streaming.
        {"", "stream --point 5 --pq 1 --frames 5 --verbose", 0,
         "activeWinNum(2) capPoint(3) pqID(1) win_i(1)"},
        {"", "stream --point 5 --pq 1 --frames 5 --verbose", 0,
         "PQId[1] found = true, winInfo_i(1)"},
        // Injected failures, as the client sees them.
        {fail + "Init:5", "info", 1, "open refused: NO_MEMORY (2)"},
        {fail + "Open:17", "info", 1, "open refused: INVALID_CAPTURE_ID (6)"},
        {fail + "SetCaptureInfo:33", "once --out /dev/null", 1,
         "setCaptureInfo refused: INVALID_CAPTURE_POINT (12)"},
        {fail + "CaptureOnce:67", "once --out /dev/null", 1,
         "captureOnce refused: HARDWARE_ERROR (19)"},
        {fail + "CaptureStart:51", "stream --frames 5 --quiet", 1,
         "startCapture refused: BANDWIDTH_EXCEEDED (16)"},
        {fail + "FrameProcessDone:48", "stream --frames 5 --quiet", 1,
         "frameProcessDone refused: BUFFER_NOT_READY (22)"},
        {"CAPTURE_EMU_CONTROL=" + control, "stream --frames 5 --quiet", 1,
         "stopCapture refused: TIMEOUT (9)"},
        {"", "frobnicate", 2, "unknown command 'frobnicate'"},
        {"CAPTURE_SUBHAL_PATH=/nonexistent.so", "info", 3, "initLib refused: FAIL (4)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.environment + " " + c.arguments);
        ToolRun r = run(c.arguments, c.environment);
        EXPECT_EQ(r.status, c.status) << r.output;
        EXPECT_NE(r.output.find(c.text), std::string::npos) << r.output;
    }
    unlink(control.c_str());
}

}  // namespace
}  // namespace emulator_test
