// capturectl end to end: the tool brings the service up on the emulated hardware in its own
// process; these tests run it as a user would and look at what it prints and writes.
#include <gtest/gtest.h>
#include <png.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "EmulatorTestUtil.h"
#include "capture_emulator/TestPattern.h"

namespace emulator_test {
namespace {

using namespace capture_emulator;

struct ToolRun {
    int status;
    std::string output;  // stdout and stderr
};

ToolRun run(const std::string& arguments, const std::string& environment = "") {
    std::string command = environment + " " CAPTURECTL_PATH " " + arguments + " 2>&1";
    ToolRun r{-1, ""};
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return r;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), pipe)) > 0) r.output.append(chunk, n);
    int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

struct Picture {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> rgb;
    uint32_t at(uint32_t x, uint32_t y) const {
        const uint8_t* p = rgb.data() + (static_cast<size_t>(y) * width + x) * 3;
        return (uint32_t{p[0]} << 16) | (uint32_t{p[1]} << 8) | p[2];
    }
};

bool readPng(const std::string& path, Picture* out) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
    image.format = PNG_FORMAT_RGB;
    out->width = image.width;
    out->height = image.height;
    out->rgb.resize(PNG_IMAGE_SIZE(image));
    return png_image_finish_read(&image, nullptr, out->rgb.data(), 0, nullptr) != 0;
}

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "capturectl-" + std::to_string(getpid()) + "-" + name;
}

TEST(Capturectl, OncePutsTheBarsWhereCropScaleAndRotationSay) {
    // Crop the right half of a 1920x1080 source, turn it clockwise into 270x480, as NV21.
    std::string png = tempPath("once.png");
    ToolRun r =
        run("once --source 1920x1080 --crop 960,0,960,1080 --size 270x480 --rotate 90 "
            "--format NV21 --out " +
            png);
    ASSERT_EQ(r.status, 0) << r.output;
    Picture picture;
    ASSERT_TRUE(readPng(png, &picture));
    unlink(png.c_str());
    ASSERT_EQ(picture.width, 270u);
    ASSERT_EQ(picture.height, 480u);
    // Bars 4..7 lie in the crop, a quarter of the pre-rotation width (120 px) each; turned
    // clockwise they run down the picture, and the top of the source is on the right.
    for (uint32_t bar = 4; bar < kBarCount; ++bar) {
        uint32_t y = (bar - 4) * 120 + 60;
        uint32_t x = 270 - 1 - 90;  // source row 360 of 1080, in the bars
        uint32_t got = picture.at(x, y);
        EXPECT_TRUE(near(got, kBarColours[bar])) << "bar " << bar << ": " << hex(got);
    }
    // Below the bars the source is black (the marker sweeps further down): the strip left of
    // the bars.
    EXPECT_TRUE(near(picture.at(60, 240), 0x000000)) << hex(picture.at(60, 240));
}

TEST(Capturectl, DemoWritesPicturesOfThePattern) {
    std::string dir = tempPath("demo");
    ToolRun r = run("demo --out-dir " + dir);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("PNG files are in " + dir), std::string::npos) << r.output;
    for (const char* name : {"once.png", "stream-last.png", "memory-rotated.png"}) {
        SCOPED_TRACE(name);
        Picture picture;
        ASSERT_TRUE(readPng(dir + "/" + name, &picture));
        EXPECT_GT(picture.width, 0u);
        unlink((dir + "/" + name).c_str());
    }
    rmdir(dir.c_str());
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
    unsigned long dropped = strtoul(r.output.c_str() + at + 9, nullptr, 10);
    // Two buffers out for 100 ms each at 60 fps: most frames find no free buffer.
    EXPECT_GT(dropped, 12u) << r.output;
}

TEST(Capturectl, RefusalsNameTheCaptureReturnCode) {
    struct Case {
        const char* environment;
        const char* arguments;
        int status;
        const char* message;
    };
    const Case cases[] = {
        {"CAPTURE_EMU_FAIL=CaptureOnce:67", "once --out /dev/null", 1,
         "captureOnce refused: HARDWARE_ERROR (19)"},
        // The service reports every failed open as an invalid identifier: the hardware
        // hands none out when it refuses.
        {"CAPTURE_EMU_FAIL=Open:17", "once --out /dev/null", 1,
         "open refused: INVALID_CAPTURE_ID (6)"},
        {"CAPTURE_EMU_FAIL=CaptureStart:51", "stream --frames 5 --quiet", 1,
         "startCapture refused: BANDWIDTH_EXCEEDED (16)"},
        {"", "once --point 13 --out /dev/null", 1,
         "setCaptureInfo refused: INVALID_CAPTURE_POINT (12)"},
        {"", "once --size 32x32 --out /dev/null", 1, "INVALID_SIZE (13)"},
        {"", "once --format YV12", 2, "the hardware does not write YV12"},
        {"", "once --size 12", 2, "bad size '12' (WxH)"},
        {"", "once --bogus", 2, "unknown option --bogus"},
        {"", "frobnicate", 2, "unknown command 'frobnicate'"},
        {"CAPTURE_SUBHAL_PATH=/nonexistent.so", "info", 3, "initLib refused: FAIL (4)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments);
        ToolRun r = run(c.arguments, c.environment);
        EXPECT_EQ(r.status, c.status) << r.output;
        EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
    }
}

TEST(Capturectl, EveryCommandHasHelp) {
    for (const char* command : {"info", "query", "once", "stream", "dump", "demo"}) {
        SCOPED_TRACE(command);
        ToolRun r = run(std::string(command) + " --help");
        EXPECT_EQ(r.status, 0);
        EXPECT_NE(r.output.find(std::string("usage: capturectl ") + command), std::string::npos);
    }
}

TEST(Capturectl, QueryExplainsWhyTheGpuIsTaken) {
    ToolRun r = run("query --memory --format YV12");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("engine: GPU"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("is not support by dip"), std::string::npos) << r.output;
    r = run("query --format NV12");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("engine: DIP"), std::string::npos) << r.output;
}

TEST(Capturectl, InfoAndDumpDescribeTheEmulatedPlatform) {
    ToolRun r = run("info");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("capture points supported: 0 1 2 3 4 5 6 7 8 9 10 11 12"),
              std::string::npos)
        << r.output;
    EXPECT_NE(r.output.find("DIP reads: YUYV ARGB8888"), std::string::npos) << r.output;
    r = run("dump");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("Capture Hal Dump"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("Emulated capture hardware: 2 DIP engines"), std::string::npos)
        << r.output;
}

}  // namespace
}  // namespace emulator_test
