// capturectl run as a user runs it, on the emulated hardware: its exit status, what it prints and
// the pictures it writes.
#include <gtest/gtest.h>
#include <png.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "EmulatorTestUtil.h"
#include "capture_emulator/TestPattern.h"

namespace emulator_test {

ToolRun runCapturectl(const std::string& arguments, const std::string& environment) {
    const std::string command = environment + " " CAPTURECTL_PATH " " + arguments + " 2>&1";
    ToolRun r;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return r;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) r.output.append(chunk, n);
    const int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

namespace {

using capture_emulator::barsEndRow;
using capture_emulator::kBarColours;
using capture_emulator::kBarCount;

ToolRun run(const std::string& arguments, const std::string& environment = "") {
    return runCapturectl(arguments, environment);
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

// Checks the middle of each bar, half way down the bars of the 1920x1080 source, in a picture of
// the pattern made with geometry g.
void expectBarsWhereGeometryPutsThem(const Picture& picture, const Geometry& g) {
    ASSERT_EQ(picture.image.width, g.dstW);
    ASSERT_EQ(picture.image.height, g.dstH);
    int checked = 0;
    for (uint32_t bar = 0; bar < kBarCount; ++bar) {
        uint32_t dx, dy, sx = (2 * bar + 1) * 1920 / (2 * kBarCount), sy = barsEndRow(1080) / 2;
        if (!project(g, sx, sy, &dx, &dy)) continue;
        EXPECT_TRUE(picture.near(dx, dy, kBarColours[bar])) << "bar " << bar;
        ++checked;
    }
    EXPECT_GE(checked, 3);
}

std::string geometryArguments(const Geometry& g) {
    char text[96];
    snprintf(text, sizeof(text), " --crop %u,%u,%u,%u --size %ux%u --rotate %u", g.cropX, g.cropY,
             g.cropW, g.cropH, g.dstW, g.dstH, g.rotation);
    return text;
}

class CapturectlOnce : public ::testing::TestWithParam<const char*> {};

TEST_P(CapturectlOnce, BarsLandWhereCropScaleAndRotationPutThem) {
    const Geometry geometries[] = {
        {0, 0, 1920, 1080, 640, 360, 0},    {960, 0, 960, 540, 1280, 720, 0},
        {480, 270, 960, 540, 360, 640, 90}, {0, 0, 1920, 1080, 360, 640, 270},
        {0, 0, 640, 810, 320, 404, 180},    {960, 0, 960, 1080, 270, 480, 90},
    };
    for (const Geometry& g : geometries) {
        std::string arguments = std::string("once --format ") + GetParam() + geometryArguments(g);
        SCOPED_TRACE(arguments);
        std::string png = tempPath("once.png");
        ToolRun r = run(arguments + " --out " + png);
        ASSERT_EQ(r.status, 0) << r.output;
        expectBarsWhereGeometryPutsThem(Picture(png), g);
    }
}

// Every format the hardware writes.
INSTANTIATE_TEST_SUITE_P(EveryWrittenFormat, CapturectlOnce,
                         ::testing::Values("YUYV", "ARGB8888", "ABGR8888", "ARGB2101010",
                                           "ABGR2101010", "RGB565", "BGR888", "NV16", "NV61",
                                           "NV12", "NV21"),
                         [](const auto& info) { return std::string(info.param); });

// The same pattern through both engines of a memory-to-memory conversion, and a capture point's
// frame converted on the GPU path: the pictures must agree with where crop, scale and rotation
// put each bar, in formats whose layouts differ between the hardware and the graphics allocator.
TEST(CapturectlConvert, BothEnginesPutTheBarsWhereCropScaleAndRotationSay) {
    const struct {
        const char* command;
        const char* formats;
        Geometry g;
    } cases[] = {
        {"convert --engine dip", "--format NV12", {480, 270, 960, 540, 360, 640, 90}},
        {"convert --engine gpu", "--format NV12", {480, 270, 960, 540, 360, 640, 90}},
        {"convert --engine dip",
         "--source-format NV16 --format ABGR8888",
         {0, 0, 1920, 1080, 960, 540, 180}},
        {"convert --engine gpu",
         "--source-format NV21 --format RGB565",
         {0, 0, 1920, 1080, 960, 540, 180}},
        {"convert --engine gpu",
         "--source-format YUYV --format YUYV_10B",
         {960, 0, 960, 1080, 270, 480, 270}},
        // The bars' sample row lands near the bottom: the last chroma rows are read too.
        {"convert --engine gpu",
         "--source-format BGR888 --format RZ21S10L",
         {0, 400, 1920, 410, 960, 206, 180}},
        {"convert --engine gpu",
         "--source-format ABGR2101010 --format BGR888",
         {240, 100, 1440, 900, 720, 450, 0}},
        {"once --gpu", "--format NV21", {480, 270, 960, 540, 360, 640, 90}},
    };
    for (const auto& c : cases) {
        std::string arguments = std::string(c.command) + " " + c.formats + geometryArguments(c.g);
        SCOPED_TRACE(arguments);
        std::string png = tempPath("convert.png");
        ToolRun r = run(arguments + " --out " + png);
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_EQ(r.output.find("untouched"), std::string::npos) << r.output;
        expectBarsWhereGeometryPutsThem(Picture(png), c.g);
    }
}

// A picture from a file, turned on the GPU path: its four quadrants change places clockwise.
TEST(CapturectlConvert, FileInputIsTurnedClockwise) {
    std::string quadrants = tempPath("quadrants.png"), turned = tempPath("turned.png");
    ToolRun made = run("convert --pattern quadrants --source 320x200 --out " + quadrants);
    ASSERT_EQ(made.status, 0) << made.output;
    ToolRun r = run("convert --engine gpu --rotate 90 --in " + quadrants + " --out " + turned);
    unlink(quadrants.c_str());
    ASSERT_EQ(r.status, 0) << r.output;
    Picture picture(turned);
    ASSERT_EQ(picture.image.width, 200u);
    ASSERT_EQ(picture.image.height, 320u);
    // Red, green / blue, white before; blue, red / white, green after.
    EXPECT_TRUE(picture.near(50, 80, 0x0000FF));
    EXPECT_TRUE(picture.near(150, 80, 0xFF0000));
    EXPECT_TRUE(picture.near(50, 240, 0xFFFFFF));
    EXPECT_TRUE(picture.near(150, 240, 0x00FF00));
}

// Dumps carry the sequence number, the pitch where rows are longer than the width, the size and
// the graphics format in their names, and the frame's bytes.
TEST(CapturectlConvert, DumpFolderReceivesTheGpuPathsInputAndOutput) {
    const std::string dir = tempPath("dumps");
    ASSERT_TRUE(std::filesystem::create_directory(dir));
    // Neither is a dump of this run.
    std::ofstream(dir + "/notes.txt") << "not a dump\n";
    std::ofstream(dir + "/gpu_output-0009_64x64_NV12.raw") << "an earlier run's\n";
    ToolRun r =
        run("convert --engine gpu --source 640x360 --rotate 90 --format NV12 --out "
            "/dev/null --dump-dir " +
            dir);
    EXPECT_EQ(r.status, 0) << r.output;
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        std::ifstream in(entry.path(), std::ios::binary);
        files[entry.path().filename()].assign(std::istreambuf_iterator<char>(in), {});
    }
    std::filesystem::remove_all(dir);
    const std::string input = "gpu_intput-0001_640x360_RGBA8888.raw";
    const std::string output = "gpu_output-0001_s384_360x640_NV12.raw";  // rows of 384 px
    ASSERT_EQ(files.size(), 4u) << r.output;
    EXPECT_EQ(r.output.find("notes.txt"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("0009"), std::string::npos) << r.output;
    ASSERT_EQ(files[input].size(), 640u * 360 * 4);
    EXPECT_EQ(files[output].size(), 384u * 640 * 3 / 2);
    EXPECT_NE(r.output.find("dump: " + dir + "/" + output), std::string::npos) << r.output;
    // R, G, B, A of the source: white in the first bar, blue in the seventh.
    EXPECT_EQ(files[input].substr(0, 4), std::string(4, '\xFF'));
    EXPECT_EQ(files[input].substr((100 * 640 + 520) * 4, 4), std::string("\0\0\xFF\xFF", 4));
}

// The service fits a dump's path into 127 characters; a folder that leaves too little room for
// the longest name would lose dumps without a word, so capturectl refuses it up front.
TEST(CapturectlConvert, DumpFolderMustLeaveRoomForTheNames) {
    if (tempPath("").size() >= 75) GTEST_SKIP() << "the temporary folder's path is too long";
    for (size_t length : {75u, 76u}) {  // without the '/' capturectl adds
        std::string dir = tempPath("");
        dir.resize(length, 'd');
        SCOPED_TRACE(dir);
        ASSERT_TRUE(std::filesystem::create_directory(dir));
        ToolRun r = run("convert --engine gpu --source 320x180 --out /dev/null --dump-dir " + dir);
        std::filesystem::remove_all(dir);
        EXPECT_EQ(r.status, length == 75 ? 0 : 2) << r.output;
        if (length == 76) {
            EXPECT_NE(r.output.find("at most 76"), std::string::npos) << r.output;
        }
    }
}

TEST(Capturectl, DemoWritesPicturesOfThePattern) {
    std::string dir = tempPath("demo");
    ToolRun r = run("demo --json --out-dir " + dir);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("PNG files are in " + dir), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("\"engine\": \"dip\""), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("\"written\": [\"" + dir + "/once.png\", \"" + dir +
                            "/stream-last.png\", \"" + dir + "/memory-rotated.png\""),
              std::string::npos)
        << r.output;
    Picture once(dir + "/once.png"), turned(dir + "/memory-rotated.png"),
        turnedGpu(dir + "/memory-rotated-gpu.png");
    EXPECT_EQ(Picture(dir + "/stream-last.png").image.width, 1280u);
    rmdir(dir.c_str());
    ASSERT_EQ(once.image.width, 1280u);
    ASSERT_EQ(turned.image.width, 360u);
    ASSERT_EQ(turnedGpu.image.width, 360u);
    for (uint32_t bar = 0; bar < kBarCount; ++bar) {
        EXPECT_TRUE(once.near(bar * 160 + 80, 270, kBarColours[bar])) << bar;
    }
    // From memory: the centre of that frame (bars 2..5), turned clockwise so they run down; the
    // DIP and the GPU path alike.
    for (uint32_t bar = 2; bar < 6; ++bar) {
        EXPECT_TRUE(turned.near(180, (bar - 2) * 160 + 80, kBarColours[bar])) << bar;
        EXPECT_TRUE(turnedGpu.near(180, (bar - 2) * 160 + 80, kBarColours[bar])) << bar;
    }
}

TEST(CapturectlStream, DropsForWantOfAFreeBufferAreCountedApart) {
    ToolRun r = run("stream --frames 300 --fps 60 --source 1280x720 --size 640x360 --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("received 300 frames"), std::string::npos) << r.output;
    // None for want of a buffer; on a loaded machine the engine itself may miss a few periods.
    EXPECT_NE(r.output.find(" frames (0 for want of a free buffer)"), std::string::npos) << r.output;

    r = run("stream --frames 12 --fps 60 --buffers 2 --hold-ms 100 --size 320x180 --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    size_t at = r.output.find("\ndropped ");
    ASSERT_NE(at, std::string::npos) << r.output;
    // Two buffers out for 100 ms each at 60 fps: most frames find no free buffer.
    EXPECT_GT(strtoul(r.output.c_str() + at + 9, nullptr, 10), 12u) << r.output;
    const size_t starved = r.output.find(" frames (", at);
    ASSERT_NE(starved, std::string::npos) << r.output;
    EXPECT_GT(strtoul(r.output.c_str() + starved + 9, nullptr, 10), 12u) << r.output;
}

// Ctrl-C ends a stream as its time would: stopped, summed up, the last frame written, status 0;
// 130 only when the stop that follows is refused.
TEST(CapturectlStream, CtrlCStopsCleanly) {
    const std::string png = tempPath("interrupted.png");
    const std::string interrupt = "timeout --preserve-status -s INT 2";
    ToolRun r = run("stream --seconds 60 --quiet --size 320x180 --last " + png, interrupt);
    EXPECT_EQ(0, r.status) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("stopped by Ctrl-C")) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("received ")) << r.output;
    EXPECT_EQ(180u, Picture(png).image.height) << r.output;  // read and removed
    r = run("stream --seconds 60 --quiet", "CAPTURE_EMU_FAIL=CaptureStop:18 " + interrupt);
    EXPECT_EQ(130, r.status) << r.output;
}

// Raw frames piped into another program: three 320x180 NV12 frames of the pattern, each the
// previous one but for the counter, timestamp and marker.
TEST(CapturectlStream, FramesPipedToAnotherProgram) {
    const ToolRun r =
        run("stream --frames 3 --size 320x180 --quiet --stream-to - 2>/dev/null | cat");
    EXPECT_EQ(0, r.status);
    const std::string& bytes = r.output;
    constexpr size_t kFrame = 320 * 180 * 3 / 2;
    ASSERT_EQ(3 * kFrame, bytes.size());
    EXPECT_NEAR(235, static_cast<uint8_t>(bytes[320 * 10 + 10]),
                4);  // the white bar's luma, top left
    for (size_t k = 1; k < 3; ++k) {
        size_t differing = 0;
        for (size_t i = 0; i < kFrame; ++i) differing += bytes[i] != bytes[k * kFrame + i];
        EXPECT_GT(differing, 0u) << "frame " << k;
        EXPECT_LT(differing, kFrame / 10) << "frame " << k;
    }
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
        {"", "info", 0,
         "source up to 1920 px wide (4096 with read/write separation), destination up to 1920 px "
         "wide (4096)"},
        {"", "query --memory --source 3840x2160 --size 1920x1080 --format ABGR8888", 0,
         "engine: DIP\ndestination rows: multiples of 16 px\nbandwidth: 1244.2 MB/s"},
        {"", "query --memory --format YV12", 0, "engine: GPU (the DIP cannot do it)"},
        {"", "query --memory --gpu", 0, "engine: GPU (the DIP cannot do it)"},
        {"", "query --gpu", 1, "answer: DIP_NOT_SUPPORT (30)"},
        {"", "info --json", 0, "\"capture_points\": [0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12]"},
        {"", "query --gpu --json", 1, "\"answer\": \"DIP_NOT_SUPPORT\""},
        {"", "stream --frames 3 --quiet --json", 0, "{\"received\": 3, \"seconds\": "},
        {"", "once --json --size 320x180 --out /dev/null", 0,
         "{\"width\": 320, \"height\": 180, \"format\": \"NV12\", \"capture_point\": 0, "
         "\"engine\": \"DIP\", \"written\": \"/dev/null\"}"},
        {"", "convert --engine gpu --source 320x180 --json --out /dev/null", 0,
         "\"engine\": \"GPU\", \"source\": \"the bars pattern\""},
        {"", "-v stream --frames 2 --quiet", 0, "frame 2: buffer 1 at "},
        {fail + "CaptureStart:17", "dump", 0, "faults:\n  fail VX_CAPTURE_CaptureStart with 17"},
        {"", "dump --while-streaming --size 320x180", 0, "Instances: 1 open\n  0x73000000: point 0"},
        {"", "dump --while-streaming --detail --size 320x180", 0, "buffer 0: with the client"},
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
        {fail + "Close:17", "stream --frames 5 --quiet", 1, "close refused: BUSY (8)"},
        // Fault settings the emulated hardware cannot use are reported, not ignored.
        {fail + "Start:17", "info", 0, "ignoring CAPTURE_EMU_FAIL item \"Start:17\""},
        {"CAPTURE_EMU_DROP_EVERY=often", "info", 0, "ignoring CAPTURE_EMU_DROP_EVERY=\"often\""},
        {"CAPTURE_EMU_CONTROL=/nonexistent/control", "info", 0,
         "control file /nonexistent/control: No such file or directory"},
        // What the GPU path cannot reach or capturectl cannot show, and conversions the DIP
        // cannot do.
        {"", "convert --engine gpu --format YV12", 1,
         "setCaptureFrameInfo refused: FORMAT_NOT_SUPPORT (3)\nwhy:"},
        {"", "convert --source 1920x1080 --size 64x64", 1,
         "the service would convert this on the GPU path, not on the DIP"},
        {"CAPTURE_HOST_GL=0", "convert --engine gpu --out /dev/null", 0,
         "reported success but left the destination untouched"},
        {"", "frobnicate", 2, "unknown command 'frobnicate'"},
        {"", "convert --crop 1800,0,200,100", 2,
         "crop 1800,0,200,100 is not inside the 1920x1080 source"},
        {"", "convert --crop 0,0,0,100", 2, "crop 0,0,0,100 is not inside"},
        {"", "convert --rotate 45", 2, "rotation 45 is not 0, 90, 180 or 270"},
        {"", "convert --engine gpu --format NV61", 2,
         "the GPU path does not write NV61; it writes YUYV YUYV_10B ARGB8888 ABGR8888 RGB565 "
         "BGR888 NV16 NV12 NV21 RZ21S10L ARGB16161616 YV12 ABGR2101010\n"},
        {"", "once --gpu --format ARGB2101010", 2, "the GPU path does not write ARGB2101010"},
        {"", "convert --engine dip --format YV12", 2, "the hardware does not write YV12"},
        {"", "convert --in /nonexistent.png", 2, "cannot read /nonexistent.png"},
        {"", "convert --dump-dir /nonexistent", 2, "dump folder /nonexistent does not exist"},
        {"", "once --dump-dir /dev/null", 2, "dump folder /dev/null is not a folder"},
        // An unwritable picture is refused before anything is captured.
        {"", "once --out /nonexistent/x.png", 2, "cannot write /nonexistent/x.png"},
        {"", "convert --out /proc/x.png", 2, "cannot write /proc/x.png"},
        {fail + "CaptureStart:51", "stream --frames 5 --last /nonexistent/x.png", 2,
         "cannot write /nonexistent/x.png"},
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

// YUV4MPEG2 as written for each YUV format: the header video tools read (size, rate, chroma
// layout and siting, range) and every frame's planes, unpadded and in Y, Cb, Cr order, whatever
// order the hardware interleaves them in: the white and blue bars' samples say which is which.
TEST(CapturectlY4m, EachYuvFormatBecomesPlanarYCbCr) {
    const struct {
        const char* format;
        const char* tag;
        uint32_t chromaRows;  // of 180
    } kFormats[] = {
        {"NV12", "C420jpeg", 90}, {"NV21", "C420jpeg", 90}, {"NV16", "C422", 180},
        {"NV61", "C422", 180},    {"YUYV", "C422", 180},
    };
    constexpr uint32_t kW = 320, kH = 180, kFrames = 3;
    for (const auto& f : kFormats) {
        SCOPED_TRACE(f.format);
        const std::string path = tempPath(std::string(f.format) + ".y4m");
        const ToolRun r = run(std::string("stream --frames 3 --size 320x180 --fps 30 --quiet ") +
                              "--format " + f.format + " --stream-to " + path);
        ASSERT_EQ(0, r.status) << r.output;
        std::ifstream in(path, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), {});
        unlink(path.c_str());
        const std::string header = std::string("YUV4MPEG2 W320 H180 F30:1 Ip A1:1 ") + f.tag +
                                   " XCOLORRANGE=LIMITED\n";
        ASSERT_EQ(header, bytes.substr(0, header.size()));
        const size_t chroma = size_t{kW / 2} * f.chromaRows;
        const size_t frame = 6 + size_t{kW} * kH + 2 * chroma;
        ASSERT_EQ(header.size() + kFrames * frame, bytes.size());
        for (uint32_t k = 0; k < kFrames; ++k) {
            const size_t at = header.size() + k * frame;
            ASSERT_EQ("FRAME\n", bytes.substr(at, 6));
            const auto* y = reinterpret_cast<const uint8_t*>(bytes.data() + at + 6);
            const uint8_t* cb = y + size_t{kW} * kH;
            const uint8_t* cr = cb + chroma;
            const uint32_t row = barsEndRow(kH) / 2, chromaRow = row * f.chromaRows / kH;
            // BT.601 in limited range: white (235, 128, 128), blue (41, 240, 110).
            const struct {
                uint32_t bar;
                int y, cb, cr;
            } kBars[] = {{0, 235, 128, 128}, {6, 41, 240, 110}};
            for (const auto& b : kBars) {
                const uint32_t x = (2 * b.bar + 1) * kW / 16;
                EXPECT_NEAR(b.y, y[size_t{row} * kW + x], 4) << "bar " << b.bar;
                EXPECT_NEAR(b.cb, cb[size_t{chromaRow} * (kW / 2) + x / 2], 4) << "bar " << b.bar;
                EXPECT_NEAR(b.cr, cr[size_t{chromaRow} * (kW / 2) + x / 2], 4) << "bar " << b.bar;
            }
        }
    }
}

// What ffprobe makes of it, from a file and from a pipe; RGB formats are refused before
// anything is captured.
TEST(CapturectlY4m, FfprobeReadsSizeRateAndFrames) {
    const std::string path = tempPath("probe.y4m");
    ToolRun r = run("stream --frames 24 --size 640x360 --fps 24 --quiet --stream-to " + path);
    ASSERT_EQ(0, r.status) << r.output;
    const std::string probe =
        "ffprobe -v error -count_frames -show_entries "
        "stream=width,height,r_frame_rate,nb_read_frames,pix_fmt,color_range,chroma_location "
        "-of default=nw=1 ";
    FILE* pipe = popen((probe + path + " 2>&1").c_str(), "r");
    ASSERT_NE(nullptr, pipe);
    std::string answer;
    char chunk[512];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) answer.append(chunk, n);
    EXPECT_EQ(0, pclose(pipe));
    unlink(path.c_str());
    for (const char* line : {"width=640\n", "height=360\n", "r_frame_rate=24/1\n",
                             "nb_read_frames=24\n", "pix_fmt=yuv420p\n", "color_range=tv\n",
                             "chroma_location=center\n"}) {
        EXPECT_NE(std::string::npos, answer.find(line)) << line << " in " << answer;
    }

    r = run("stream --frames 5 --size 320x180 --format NV16 --quiet --stream-to - --container "
            "y4m 2>/dev/null | " +
            probe + "- 2>&1");
    EXPECT_EQ(0, r.status) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("nb_read_frames=5\n")) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("pix_fmt=yuv422p\n")) << r.output;

    r = run("stream --frames 5 --format ARGB8888 --stream-to " + tempPath("rgb.y4m"));
    EXPECT_EQ(2, r.status) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("YUV4MPEG2 holds YUV frames only, not ARGB8888"))
        << r.output;
}

}  // namespace
}  // namespace emulator_test
