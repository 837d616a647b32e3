// The plugin as users meet it: libgstcapturehal.so found on GST_PLUGIN_PATH by gst-inspect-1.0
// and gst-launch-1.0, a recording read back by FFmpeg, and the live view in an X server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture_emulator/TestPattern.h"

extern char** environ;

namespace {

struct ToolRun {
    int status = -1;
    std::string output;
};

// Children are not built with the sanitizers this binary may be: they get the runtime the
// plugin needs preloaded (CAPTUREHAL_CHILD_PRELOAD, set by the build for AddressSanitizer).
std::string childEnvironment() {
    const char* preload = getenv("CAPTUREHAL_CHILD_PRELOAD");
    if (preload == nullptr || preload[0] == '\0') return "";
    return std::string("LD_PRELOAD=") + preload + " ASAN_OPTIONS=detect_leaks=0 ";
}

// A shell command line; its exit status and what it printed (stdout and stderr).
ToolRun sh(const std::string& command) {
    ToolRun r;
    FILE* pipe = popen((childEnvironment() + command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return r;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) r.output.append(chunk, n);
    const int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "capturehal-" + std::to_string(getpid()) + "-" + name;
}

// A picture as R, G, B bytes, decoded by ffmpeg from any file it reads (the first frame).
struct Picture {
    uint32_t width = 0, height = 0;
    std::string rgb;
    ::testing::AssertionResult near(uint32_t x, uint32_t y, uint32_t want) const {
        if (x >= width || y >= height || rgb.size() < size_t{width} * height * 3) {
            return ::testing::AssertionFailure() << "no pixel (" << x << "," << y << ")";
        }
        const uint8_t* p =
            reinterpret_cast<const uint8_t*>(rgb.data()) + (size_t{y} * width + x) * 3;
        for (int c = 0; c < 3; ++c) {
            if (abs(p[c] - static_cast<int>((want >> (16 - 8 * c)) & 0xFF)) > 48) {
                char text[80];
                snprintf(text, sizeof(text), "(%u,%u) is %02x%02x%02x, not %06x", x, y, p[0], p[1],
                         p[2], want);
                return ::testing::AssertionFailure() << text;
            }
        }
        return ::testing::AssertionSuccess();
    }
};

Picture decode(const std::string& path, uint32_t width, uint32_t height) {
    Picture p;
    p.width = width;
    p.height = height;
    p.rgb =
        sh("ffmpeg -v error -i " + path + " -frames:v 1 -f rawvideo -pix_fmt rgb24 - 2>/dev/null")
            .output;
    EXPECT_EQ(size_t{width} * height * 3, p.rgb.size()) << "ffmpeg could not decode " << path;
    return p;
}

// The eight bars in order, half way down the bars of a picture showing the whole source at
// (x0, y0) and w x h.
void expectBars(const Picture& picture, uint32_t x0, uint32_t y0, uint32_t w, uint32_t h) {
    for (uint32_t k = 0; k < capture_emulator::kBarCount; ++k) {
        const uint32_t y = y0 + capture_emulator::barsEndRow(h) / 2;
        EXPECT_TRUE(picture.near(x0 + (2 * k + 1) * w / 16, y, capture_emulator::kBarColours[k]))
            << "bar " << k;
    }
}

TEST(GstInspect, ListsBothElementsWithTheirProperties) {
    const struct {
        const char* element;
        std::vector<const char*> properties;
    } kElements[] = {
        {"capturehalsrc",
         {"capture-point", "crop", "video-direction", "buffers", "num-buffers", "stats",
          "source-width", "source-height", "source-fps"}},
        {"capturehalconvert", {"engine", "crop", "video-direction"}},
    };
    for (const auto& e : kElements) {
        SCOPED_TRACE(e.element);
        const ToolRun r = sh(std::string("gst-inspect-1.0 ") + e.element);
        ASSERT_EQ(0, r.status) << r.output;
        EXPECT_NE(std::string::npos, r.output.find("libgstcapturehal.so")) << r.output;
        EXPECT_NE(std::string::npos, r.output.find("GstVideoDirection")) << r.output;
        for (const char* p : e.properties) {
            EXPECT_NE(std::string::npos, r.output.find(std::string("  ") + p + " ")) << p;
        }
    }
}

// A recording as the README makes one: 60 frames at 30 fps into WebM, read back by ffprobe and
// a frame decoded by ffmpeg.
TEST(GstLaunchRecording, WebmReadBackByFfprobeAndFfmpeg) {
    const std::string webm = tempPath("clip.webm");
    ToolRun r =
        sh("gst-launch-1.0 -q capturehalsrc num-buffers=60 ! "
           "video/x-raw,width=320,height=180,framerate=30/1 ! videoconvert ! vp8enc ! "
           "webmmux ! filesink location=" +
           webm);
    ASSERT_EQ(0, r.status) << r.output;
    r =
        sh("ffprobe -v error -count_frames -show_entries "
           "stream=codec_name,width,height,r_frame_rate,nb_read_frames -of default=nw=1 " +
           webm);
    ASSERT_EQ(0, r.status) << r.output;
    for (const char* line : {"codec_name=vp8\n", "width=320\n", "height=180\n",
                             "r_frame_rate=30/1\n", "nb_read_frames=60\n"}) {
        EXPECT_NE(std::string::npos, r.output.find(line)) << line << " in " << r.output;
    }
    expectBars(decode(webm, 320, 180), 0, 0, 320, 180);
    unlink(webm.c_str());
}

// The converter in a pipeline: the GPU path turns the captured frame a quarter clockwise, the
// first bar lands on top.
TEST(GstLaunchConversion, GpuPathTurnsTheCapturedFrame) {
    const std::string png = tempPath("turned.png");
    const ToolRun r =
        sh("gst-launch-1.0 -q capturehalsrc num-buffers=1 ! "
           "video/x-raw,format=RGBA,width=320,height=180 ! "
           "capturehalconvert engine=gpu video-direction=90r ! videoconvert ! pngenc ! "
           "filesink location=" +
           png);
    ASSERT_EQ(0, r.status) << r.output;
    const Picture p = decode(png, 180, 320);
    const uint32_t x = 180 - 1 - capture_emulator::barsEndRow(180) / 2;
    for (uint32_t k = 0; k < capture_emulator::kBarCount; ++k) {
        EXPECT_TRUE(p.near(x, (2 * k + 1) * 320 / 16, capture_emulator::kBarColours[k]))
            << "bar " << k;
    }
    unlink(png.c_str());
}

// A process started with posix_spawn, stopped (SIGTERM) and reaped when the object goes.
class Child {
public:
    explicit Child(const std::vector<std::string>& argv, int keepFd = -1,
                   const std::vector<std::string>& environment = {}) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
        posix_spawn_file_actions_adddup2(&actions, devnull, 1);
        posix_spawn_file_actions_adddup2(&actions, devnull, 2);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        std::vector<std::string> env;
        for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
        for (const std::string& e : environment) env.push_back(e);
        std::vector<char*> envp;
        for (std::string& e : env) envp.push_back(e.data());
        envp.push_back(nullptr);
        (void)keepFd;  // inherited: not close-on-exec
        if (posix_spawnp(&mPid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) {
            mPid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(devnull);
    }
    ~Child() {
        if (mPid <= 0) return;
        kill(mPid, SIGTERM);
        int status = 0;
        waitpid(mPid, &status, 0);
    }
    pid_t pid() const { return mPid; }

private:
    pid_t mPid = -1;
};

// The live view: ximagesink in an X server of the test's own (Xvfb picks a free display), the
// root window dumped with xwd and the bars sampled where the window shows them.
TEST(LiveView, XimagesinkUnderXvfbShowsTheBars) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Child xvfb({"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen", "0", "800x600x24",
                "-nolisten", "tcp"},
               fds[1]);
    close(fds[1]);
    ASSERT_GT(xvfb.pid(), 0);
    std::string display;
    char c;
    while (read(fds[0], &c, 1) == 1 && c != '\n') display += c;
    close(fds[0]);
    ASSERT_FALSE(display.empty()) << "Xvfb gave no display";
    display = ":" + display;

    std::vector<std::string> environment = {"DISPLAY=" + display};
    const char* preload = getenv("CAPTUREHAL_CHILD_PRELOAD");
    if (preload != nullptr && preload[0] != '\0') {
        environment.push_back(std::string("LD_PRELOAD=") + preload);
        environment.push_back("ASAN_OPTIONS=detect_leaks=0");
    }
    Child view(
        {"gst-launch-1.0", "-q", "capturehalsrc", "!",
         "video/x-raw,width=640,height=360,framerate=30/1", "!", "videoconvert", "!", "ximagesink"},
        -1, environment);
    ASSERT_GT(view.pid(), 0);

    // The window appears, and shows frames, when it does: dumped until the bars are there, a
    // bounded number of times.
    const std::string xwd = tempPath("view.xwd");
    Picture screen;
    bool shown = false;
    for (int attempt = 0; attempt < 100 && !shown; ++attempt) {
        usleep(100000);
        if (sh("xwd -root -silent -display " + display + " -out " + xwd).status != 0) continue;
        screen.width = 800;
        screen.height = 600;
        screen.rgb =
            sh("ffmpeg -v error -i " + xwd + " -f rawvideo -pix_fmt rgb24 - 2>/dev/null").output;
        shown = screen.near(40, 135, capture_emulator::kBarColours[0]) &&
                screen.near(600, 135, capture_emulator::kBarColours[7]) &&
                screen.near(520, 135, capture_emulator::kBarColours[6]);
    }
    ASSERT_TRUE(shown) << "no picture of the bars on " << display;
    expectBars(screen, 0, 0, 640, 360);
    if (const char* keep = getenv("CAPTUREHAL_KEEP_XWD")) {
        sh("cp " + xwd + " " + keep);
    }
    unlink(xwd.c_str());
}

}  // namespace
