#include "Commands.h"

#include <android-base/properties.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "Capture.h"
#include "Conformance.h"
#include "Conversion.h"
#include "EnumMapping.h"
#include "Picture.h"
#include "Session.h"
#include "VxCaptureHal.h"
#include "Y4m.h"
#include "capture_emulator/Emulator.h"

namespace capturectl {

using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using namespace ::vendor::quenlark::hardware::capture::V1_0;
using capture_emulator::FrameLayout;
using capture_emulator::PixelFormatInfo;
using Clock = std::chrono::steady_clock;

namespace {

// What to capture, from the command line.
struct Setup {
    uint32_t point = 0;
    int32_t pqId = -1;
    uint32_t engine = 1;
    uint32_t srcW = 1920, srcH = 1080, srcFps = 60;
    uint32_t cropX = 0, cropY = 0, cropW = 0, cropH = 0;  // zero: the whole source
    uint32_t dstW = 1280, dstH = 720, dstFps = 0;         // fps zero: the source's
    uint32_t format = 0x800;                              // NV12
    uint32_t rotate = 0;
    bool memory = false;         // query: the source is a frame in memory
    uint32_t srcFormat = 0x800;  // query: its format
};

void parseSize(const std::string& text, uint32_t* w, uint32_t* h, const char* what) {
    size_t x = text.find('x');
    if (x == std::string::npos)
        usageError((std::string("bad ") + what + " '%s' (WxH)").c_str(), text);
    *w = parseNumber(text.substr(0, x), what);
    *h = parseNumber(text.substr(x + 1), what);
    if (*w == 0 || *h == 0) usageError((std::string("empty ") + what + " '%s'").c_str(), text);
}

uint32_t parseFormat(const std::string& text) {
    uint32_t bit = 0;
    if (!formatFromName(text, &bit)) usageError("unknown format '%s'", text);
    return bit;
}

void parseCrop(const std::string& text, uint32_t* x, uint32_t* y, uint32_t* w, uint32_t* h) {
    unsigned cx, cy, cw, ch;
    char tail;
    if (sscanf(text.c_str(), "%u,%u,%u,%u%c", &cx, &cy, &cw, &ch, &tail) != 4 || text[0] == '-') {
        usageError("bad crop '%s' (X,Y,W,H)", text);
    }
    *x = cx;
    *y = cy;
    *w = cw;
    *h = ch;
}

Setup parseSetup(const Options& o) {
    Setup s;
    if (o.has("point")) s.point = parseNumber(o.get("point", ""), "capture point");
    if (o.has("pq")) s.pqId = static_cast<int32_t>(parseNumber(o.get("pq", ""), "pq stream"));
    if (o.has("engine")) s.engine = parseNumber(o.get("engine", ""), "engine");
    if (o.has("source")) parseSize(o.get("source", ""), &s.srcW, &s.srcH, "source size");
    if (o.has("source-fps")) s.srcFps = parseNumber(o.get("source-fps", ""), "source fps");
    if (o.has("size")) parseSize(o.get("size", ""), &s.dstW, &s.dstH, "size");
    if (o.has("fps")) s.dstFps = parseNumber(o.get("fps", ""), "fps");
    if (o.has("format")) s.format = parseFormat(o.get("format", ""));
    if (o.has("source-format")) s.srcFormat = parseFormat(o.get("source-format", ""));
    if (o.has("rotate")) s.rotate = parseNumber(o.get("rotate", ""), "rotation");
    s.memory = o.has("memory");
    if (o.has("crop")) parseCrop(o.get("crop", ""), &s.cropX, &s.cropY, &s.cropW, &s.cropH);
    if (s.dstFps == 0) s.dstFps = s.srcFps;
    return s;
}

const PixelFormatInfo& hardwareFormat(uint32_t captureFormat) {
    const PixelFormatInfo* f = capture_emulator::findCaptureFormat(captureFormat);
    if (f == nullptr || !f->writable) {
        usageError("the hardware does not write %s", formatName(captureFormat));
    }
    return *f;
}

FrameLayout layoutOf(const PixelFormatInfo& f, uint32_t w, uint32_t h) {
    FrameLayout layout;
    if (!capture_emulator::computeFrameLayout(f, w, h, 0, &layout)) {
        usageError("no frame layout for %s",
                   std::to_string(w) + "x" + std::to_string(h) + " " + f.name);
    }
    return layout;
}

sp<ICapture> service(const Options& o) {
    startLogCapture(o.verbose);
    sp<ICapture> s = bringUp(o.verbose);
    if (s == nullptr) throw Failure{kExitBringUp};
    return s;
}

// A picture's path, checked before anything is captured: an unwritable one is a bad command line.
std::string outputPath(const Options& o, const char* option, const std::string& fallback) {
    std::string path = o.get(option, fallback);
    if (path.empty()) return path;
    const bool existed = access(path.c_str(), F_OK) == 0;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) usageError("cannot write %s", path + ": " + strerror(errno));
    close(fd);
    if (!existed) unlink(path.c_str());
    return path;
}

// Ctrl-C while streaming: the streams stop as if their time were up.
std::atomic<bool> gInterrupted{false};

void stopOnInterrupt() {
    struct sigaction action = {};
    action.sa_handler = [](int) { gInterrupted = true; };
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
}

// A close refused while an instance went: the command's status is then "refused".
std::atomic<bool> gCloseRefused{false};

// An open instance, closed when it goes.
class Instance {
public:
    explicit Instance(const sp<ICapture>& service) : mService(service) {
        CaptureReturn ret = CaptureReturn::FAIL;
        mService->open([&](CaptureReturn r, int32_t id) {
            ret = r;
            mId = id;
        });
        if (ret != CaptureReturn::SUCCESS) refused("open", ret);
    }
    ~Instance() {
        CaptureReturn ret = mService->close(mId);
        if (ret != CaptureReturn::SUCCESS) {
            fprintf(stderr, "capturectl: close refused: %s\n", describe(ret).c_str());
            gCloseRefused = true;
        }
    }
    int32_t id() const { return mId; }

private:
    sp<ICapture> mService;
    int32_t mId = 0;
};

CaptureInfo liveInfo(const Setup& s, const Buffer& buffer) {
    CaptureInfo info = {};
    info.capPoint = static_cast<CapturePoint>(s.point);
    info.pqId = s.pqId;
    info.pqWinId = -1;
    info.srcWidth = s.srcW;
    info.srcHeight = s.srcH;
    info.hwEngine = static_cast<uint8_t>(s.engine);
    info.srcFps = s.srcFps;
    info.cropX = s.cropX;
    info.cropY = s.cropY;
    info.cropWidth = s.cropW;
    info.cropHeight = s.cropH;
    info.dstWidth = s.dstW;
    info.dstHeight = s.dstH;
    info.dstFps = s.dstFps;
    info.dstFmt = static_cast<CaptureFormat>(s.format);
    info.colorSpace = CaptureColorSpace::BT709;
    info.dstBuffer = hidl_handle(buffer.handle());
    info.secureBuffer = SecureBufferCfg::NON_SECURE;
    info.bandwidth = BandwidthCfg::NORMAL;
    return info;
}

// Configures a live capture into `buffer`. A rotation needs the frame records too: they keep
// the live source (source word 40 set to 1) and only turn the destination.
void configureLive(const sp<ICapture>& svc, int32_t id, const Setup& s, const Buffer& buffer) {
    CaptureReturn ret = svc->setCaptureInfo(id, liveInfo(s, buffer));
    if (ret != CaptureReturn::SUCCESS) refused("setCaptureInfo", ret);
    if (s.rotate == 0) return;
    CaptureSrcFrameInfo src = {};
    src.width = s.srcW;
    src.height = s.srcH;
    src.format = CaptureFormat::NV12;
    src.buffer = hidl_handle(buffer.handle());
    src.param40 = 1;
    src.vPlaneOffset = hidl_vec<uint32_t>{0u};
    CaptureDstFrameInfo dst = {};
    dst.cropX = s.cropX;
    dst.cropY = s.cropY;
    dst.cropWidth = s.cropW;
    dst.cropHeight = s.cropH;
    dst.width = s.dstW;
    dst.height = s.dstH;
    dst.rotateAngle = s.rotate;
    dst.format = static_cast<CaptureFormat>(s.format);
    dst.buffer = hidl_handle(buffer.handle());
    svc->setCaptureFrameInfo(id, src, dst,
                             [&](CaptureReturn r, const hidl_vec<uint32_t>&) { ret = r; });
    if (ret != CaptureReturn::SUCCESS) refused("setCaptureFrameInfo", ret);
}

FramePlanes planesOf(uint8_t* frame, const FrameLayout& layout) {
    FramePlanes p;
    p.base = frame;
    p.pitch = layout.pitch;
    p.chromaOffset = layout.chromaOffset;
    return p;
}

void savePng(const std::string& path, uint32_t format, const FramePlanes& planes, uint32_t w,
             uint32_t h) {
    ArgbImage image;
    if (!decodeFrame(format, planes, w, h, &image)) {
        fprintf(stderr, "capturectl: cannot turn %s into a picture\n", formatName(format).c_str());
        throw Failure{kExitRefused};
    }
    std::string error = writePng(path, image);
    if (!error.empty()) {
        fprintf(stderr, "capturectl: %s\n", error.c_str());
        throw Failure{kExitRefused};
    }
}

void savePng(const std::string& path, const PixelFormatInfo& f, const FrameLayout& layout,
             uint8_t* frame, uint32_t w, uint32_t h) {
    savePng(path, f.captureFormat, planesOf(frame, layout), w, h);
}

// A service that reported success may still have drawn nothing: the GPU path logs what the
// platform's graphics refuse and goes on. Say so rather than hand over a picture of nothing.
void noteIfUntouched(GraphicFrame* frame) {
    if (!frame->untouched()) return;
    frame->clear();
    fprintf(stderr,
            "capturectl: note: the GPU path reported success but left the destination untouched "
            "(it draws nothing where the platform's graphics lack what it needs; -v shows its "
            "log); the picture is black\n");
}

// CaptureFormat names passing `keep`, for messages.
template <typename Keep>
std::string formatList(Keep keep) {
    std::string list;
    for (uint32_t bit = 1; bit != 0 && bit <= 0x1000000; bit <<= 1) {
        if (keep(bit)) list += (list.empty() ? "" : " ") + formatName(bit);
    }
    return list;
}

bool gpuWrites(uint32_t format) {
    using ::vendor::quenlark::hardware::capture::V1_0::implementation::formatMappingGpu;
    return formatMappingGpu(format) != 0;
}

// A destination format of the GPU path. The service, not capturectl, refuses those it will not
// hand the GPU path.
uint32_t gpuDestinationFormat(uint32_t format) {
    if (!gpuWrites(format)) {
        usageError(("the GPU path does not write %s; it writes " + formatList(gpuWrites)).c_str(),
                   formatName(format));
    }
    return format;
}

std::unique_ptr<DumpFolder> dumpsFrom(const Options& o) {
    if (!o.has("dump-dir")) return nullptr;
    return std::make_unique<DumpFolder>(o.get("dump-dir", ""));
}

// -- stream ---------------------------------------------------------------------------------

struct Arrival {
    CaptureCallbackParams params;
    Clock::time_point at;
};

class StreamClient : public ICaptureCallback {
public:
    Return<void> onNotify(CaptureEventNotify, const CaptureCallbackParams& params) override {
        // The service holds its callback lock while this runs: hand the frame over and go.
        std::lock_guard<std::mutex> guard(mLock);
        mQueue.push_back(Arrival{params, Clock::now()});
        mArrived.notify_all();
        return Void();
    }
    bool next(Arrival* out, Clock::time_point until) {
        std::unique_lock<std::mutex> held(mLock);
        if (!mArrived.wait_until(held, until, [&] { return !mQueue.empty(); })) return false;
        *out = mQueue.front();
        mQueue.pop_front();
        return true;
    }

private:
    std::mutex mLock;
    std::condition_variable mArrived;
    std::deque<Arrival> mQueue;
};

struct StreamPlan {
    uint64_t frames = 300;
    double seconds = 0;  // non-zero: run for this long instead
    uint32_t buffers = 4;
    uint32_t holdMs = 0;  // the client keeps each buffer this long
    bool progress = true;
    bool perFrame = false;  // a line per frame on stderr
    std::string lastPng;
    std::string streamTo;  // raw frames: a file, a pattern with '#', or "-"
    bool y4m = false;      // YUV4MPEG2 rather than raw bytes
};

// What a YUV4MPEG2 stream needs to know of the frames.
struct Y4mFrames {
    const PixelFormatInfo* format = nullptr;  // null: raw bytes
    FrameLayout layout;
    uint32_t width = 0, height = 0, fps = 0;
};

// Where --stream-to puts each frame: its raw bytes, or YUV4MPEG2 (a header per file, then each
// frame's planes unpadded).
class FrameSink {
public:
    FrameSink(const std::string& pattern, const Y4mFrames& y4m) : mPattern(pattern), mY4m(y4m) {
        if (pattern == "-") {
            mFile = stdout;
        } else if (!pattern.empty() && pattern.find('#') == std::string::npos) {
            mFile = fopen(pattern.c_str(), "wb");
            if (mFile == nullptr) usageError("cannot write %s", pattern + ": " + strerror(errno));
        }
    }
    ~FrameSink() {
        if (mFile != nullptr && mFile != stdout) fclose(mFile);
        if (mFile == stdout) fflush(stdout);
    }
    void write(uint64_t number, const uint8_t* data, size_t size) {
        if (mPattern.empty()) return;
        FILE* out = mFile;
        std::string path;
        if (out == nullptr) {
            path = mPattern;
            for (size_t at; (at = path.find('#')) != std::string::npos;) {
                path.replace(at, 1, std::to_string(number));
            }
            out = fopen(path.c_str(), "wb");
        }
        bool ok = out != nullptr;
        if (ok && mY4m.format != nullptr) {
            if (out != mFile || !mHeaderWritten) {
                const std::string header =
                    y4mHeader(*mY4m.format, mY4m.width, mY4m.height, mY4m.fps);
                ok = fwrite(header.data(), 1, header.size(), out) == header.size();
                mHeaderWritten |= out == mFile;
            }
            y4mFrame(*mY4m.format, mY4m.layout, data, mY4m.width, mY4m.height, &mPlanes);
            data = mPlanes.data();
            size = mPlanes.size();
        }
        if (!ok || fwrite(data, 1, size, out) != size) {
            fprintf(stderr, "capturectl: cannot write frame %llu%s%s\n",
                    static_cast<unsigned long long>(number), path.empty() ? "" : " to ",
                    path.c_str());
            throw Failure{kExitRefused};
        }
        if (out != mFile) fclose(out);
    }

private:
    std::string mPattern;
    Y4mFrames mY4m;
    FILE* mFile = nullptr;
    bool mHeaderWritten = false;
    std::vector<uint8_t> mPlanes;
};

struct StreamResult {
    uint64_t received = 0;
    uint64_t errors = 0;
    uint64_t returned = 0;  // buffers handed back, over which the holding time is averaged
    double seconds = 0;
    double heldAvgMs = 0, heldMaxMs = 0;
    bool haveStats = false;
    capture_emulator::InstanceStats stats;
};

StreamResult runStream(const sp<ICapture>& svc, int32_t id, const Setup& s, const StreamPlan& plan,
                       const Buffer& buffer, const PixelFormatInfo& f, const FrameLayout& layout) {
    Y4mFrames y4m;
    if (plan.y4m) y4m = Y4mFrames{&f, layout, s.dstW, s.dstH, s.dstFps};
    FrameSink sink(plan.streamTo, y4m);
    sp<StreamClient> client = new StreamClient();
    CaptureReturn ret = svc->startCapture(id, client);
    if (ret != CaptureReturn::SUCCESS) refused("startCapture", ret);

    StreamResult r;
    struct Held {
        uint32_t index;
        Clock::time_point release, arrived;
    };
    std::deque<Held> held;
    std::vector<uint8_t> last;
    const auto start = Clock::now();
    const auto deadline =
        plan.seconds > 0
            ? start + std::chrono::milliseconds(static_cast<int64_t>(plan.seconds * 1000))
            : start + std::chrono::seconds(5 + plan.frames * 3 / std::max(s.dstFps, 1u));
    auto lastPrint = start;
    double heldSum = 0;
    uint64_t returned = 0;
    auto giveBack = [&](const Held& h) {
        CaptureReturn done = svc->frameProcessDone(id, h.index);
        if (done != CaptureReturn::SUCCESS) refused("frameProcessDone", done);
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - h.arrived).count();
        heldSum += ms;
        r.heldMaxMs = std::max(r.heldMaxMs, ms);
        ++returned;
    };
    while (!gInterrupted &&
           (plan.seconds > 0 ? Clock::now() < deadline : r.received < plan.frames)) {
        auto wake = std::min(deadline, Clock::now() + std::chrono::milliseconds(100));
        if (!held.empty()) wake = std::min(wake, held.front().release);
        Arrival a{};
        bool got = client->next(&a, wake);
        auto now = Clock::now();
        while (!held.empty() && held.front().release <= now) {
            giveBack(held.front());
            held.pop_front();
        }
        if (!got) {
            if (now >= deadline) break;
            continue;
        }
        ++r.received;
        if (a.params.result != CaptureReturn::SUCCESS) ++r.errors;
        const size_t frameBytes =
            layout.chromaSize == 0 ? layout.lumaSize : layout.chromaOffset + layout.chromaSize;
        const bool inside = uint64_t{a.params.yOffset} + frameBytes <= buffer.size();
        if (plan.perFrame) {
            fprintf(stderr, "frame %llu: buffer %u at %.3f ms%s\n",
                    static_cast<unsigned long long>(r.received), a.params.index,
                    std::chrono::duration<double, std::milli>(a.at - start).count(),
                    a.params.result != CaptureReturn::SUCCESS ? " (error)" : "");
        }
        if (inside) sink.write(r.received, buffer.data() + a.params.yOffset, frameBytes);
        uint64_t end = uint64_t{a.params.yOffset} + layout.lumaSize;
        if (!plan.lastPng.empty() && a.params.index < plan.buffers && end <= buffer.size() &&
            uint64_t{a.params.yOffset} + layout.chromaOffset + layout.chromaSize <= buffer.size()) {
            last.assign(buffer.data() + a.params.yOffset,
                        buffer.data() + a.params.yOffset + layout.chromaOffset + layout.chromaSize +
                            (layout.chromaSize == 0 ? layout.lumaSize : 0));
        }
        Held h{a.params.index, a.at + std::chrono::milliseconds(plan.holdMs), a.at};
        if (plan.holdMs == 0) {
            giveBack(h);
        } else {
            held.push_back(h);
        }
        if (plan.progress && now - lastPrint >= std::chrono::milliseconds(250)) {
            double t = std::chrono::duration<double>(now - start).count();
            capture_emulator::InstanceStats st;
            bool have = capture_emulator::getInstanceStats(id, &st);
            fprintf(stderr, "\r  %llu frames  %.1f fps  held %.2f ms  dropped %s  late %s   ",
                    static_cast<unsigned long long>(r.received), t > 0 ? r.received / t : 0.0,
                    returned != 0 ? heldSum / returned : 0.0,
                    have ? std::to_string(st.dropped).c_str() : "n/a",
                    have ? std::to_string(st.late).c_str() : "n/a");
            lastPrint = now;
        }
    }
    r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    r.haveStats = capture_emulator::getInstanceStats(id, &r.stats);
    ret = svc->stopCapture(id);
    for (const Held& h : held) svc->frameProcessDone(id, h.index);
    if (plan.progress) fprintf(stderr, "\n");
    if (ret != CaptureReturn::SUCCESS && gInterrupted) {
        fprintf(stderr, "capturectl: stopCapture after Ctrl-C refused: %s\n", describe(ret).c_str());
        throw Failure{kExitInterrupted};
    }
    if (ret != CaptureReturn::SUCCESS) refused("stopCapture", ret);
    r.heldAvgMs = returned != 0 ? heldSum / returned : 0;
    r.returned = returned;
    if (!plan.lastPng.empty() && !last.empty()) {
        savePng(plan.lastPng, f, layout, last.data(), s.dstW, s.dstH);
    }
    return r;
}

void printStreamSummary(const StreamResult& r, const char* indent = "", FILE* out = stdout) {
    fprintf(out,
            "%sreceived %llu frames in %.2f s (%.1f fps), buffers held avg %.2f ms, max %.2f ms\n",
            indent, static_cast<unsigned long long>(r.received), r.seconds,
            r.seconds > 0 ? r.received / r.seconds : 0.0, r.heldAvgMs, r.heldMaxMs);
    if (r.haveStats) {
        fprintf(out,
                "%sdropped %llu frames (%llu for want of a free buffer), %llu late (hardware "
                "produced %llu, delivered %llu)\n",
                indent, static_cast<unsigned long long>(r.stats.dropped),
                static_cast<unsigned long long>(r.stats.starved),
                static_cast<unsigned long long>(r.stats.late),
                static_cast<unsigned long long>(r.stats.produced),
                static_cast<unsigned long long>(r.stats.delivered));
    } else {
        fprintf(out, "%sdropped frames: not reported by this sub-HAL\n", indent);
    }
    if (r.errors != 0) {
        fprintf(out, "%s%llu frames came with an error\n", indent,
                static_cast<unsigned long long>(r.errors));
    }
}

Json streamJson(const StreamResult& r) {
    Json j;
    j.num("received", static_cast<double>(r.received))
        .num("seconds", r.seconds)
        .num("fps", r.seconds > 0 ? r.received / r.seconds : 0.0)
        .num("held_avg_ms", r.heldAvgMs)
        .num("held_max_ms", r.heldMaxMs)
        .num("errors", static_cast<double>(r.errors));
    if (r.haveStats) {
        j.num("dropped", static_cast<double>(r.stats.dropped))
            .num("starved", static_cast<double>(r.stats.starved))
            .num("late", static_cast<double>(r.stats.late))
            .num("produced", static_cast<double>(r.stats.produced))
            .num("delivered", static_cast<double>(r.stats.delivered));
    }
    return j;
}

// The sums of several streams' results: latencies averaged over every returned buffer.
StreamResult total(const std::vector<StreamResult>& results, double seconds) {
    StreamResult all;
    all.seconds = seconds;
    all.haveStats = !results.empty();
    double heldSum = 0;
    for (const StreamResult& r : results) {
        all.received += r.received;
        all.errors += r.errors;
        all.returned += r.returned;
        heldSum += r.heldAvgMs * static_cast<double>(r.returned);
        all.heldMaxMs = std::max(all.heldMaxMs, r.heldMaxMs);
        all.haveStats = all.haveStats && r.haveStats;
        all.stats.produced += r.stats.produced;
        all.stats.delivered += r.stats.delivered;
        all.stats.dropped += r.stats.dropped;
        all.stats.starved += r.stats.starved;
        all.stats.late += r.stats.late;
        all.stats.productionNs += r.stats.productionNs;
    }
    all.heldAvgMs = all.returned != 0 ? heldSum / static_cast<double>(all.returned) : 0;
    return all;
}

double cpuSeconds() {
    rusage use = {};
    getrusage(RUSAGE_SELF, &use);
    return static_cast<double>(use.ru_utime.tv_sec + use.ru_stime.tv_sec) +
           static_cast<double>(use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1e6;
}

// `count` capture instances streaming at once, each into a ring of its own; one summary of all.
int streamMany(const Options& o, const Setup& s, const PixelFormatInfo& f,
               const FrameLayout& layout, StreamPlan plan, uint32_t count) {
    sp<ICapture> svc = service(o);
    std::vector<std::unique_ptr<Buffer>> rings;
    std::vector<std::unique_ptr<Instance>> instances;
    for (uint32_t i = 0; i < count; ++i) {
        rings.push_back(
            std::make_unique<Buffer>(static_cast<size_t>(layout.frameStride) * plan.buffers));
        if (!rings.back()->valid()) throw Failure{kExitRefused};
        instances.push_back(std::make_unique<Instance>(svc));
        configureLive(svc, instances.back()->id(), s, *rings.back());
    }
    printf("streaming %u x %ux%u %s at %u fps from capture point %u into %u buffers each\n", count,
           s.dstW, s.dstH, f.name, s.dstFps, s.point, plan.buffers);
    fflush(stdout);
    const bool progress = plan.progress;
    plan.progress = false;
    std::vector<StreamResult> results(count);
    std::vector<int> status(count, kExitOk);
    std::atomic<uint32_t> running{count};
    const double cpuBefore = cpuSeconds();
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < count; ++i) {
        StreamPlan own = plan;
        if (i != 0) own.lastPng.clear();
        threads.emplace_back([&, i, own] {
            try {
                results[i] = runStream(svc, instances[i]->id(), s, own, *rings[i], f, layout);
            } catch (const Failure& failure) {
                status[i] = failure.status;
            }
            --running;
        });
    }
    while (running.load() != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        if (!progress) continue;
        capture_emulator::InstanceStats sum, st;
        for (const auto& inst : instances) {
            if (!capture_emulator::getInstanceStats(inst->id(), &st)) continue;
            sum.delivered += st.delivered;
            sum.dropped += st.dropped;
            sum.late += st.late;
        }
        double t = std::chrono::duration<double>(Clock::now() - start).count();
        fprintf(stderr, "\r  %llu frames  %.1f fps in all  dropped %llu  late %llu   ",
                static_cast<unsigned long long>(sum.delivered), t > 0 ? sum.delivered / t : 0.0,
                static_cast<unsigned long long>(sum.dropped),
                static_cast<unsigned long long>(sum.late));
    }
    for (std::thread& t : threads) t.join();
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpu = cpuSeconds() - cpuBefore;
    if (progress) fprintf(stderr, "\n");
    for (int st : status) {
        if (st != kExitOk) return st;
    }
    StreamResult all = total(results, wall);
    printf("%u streams in all:\n", count);
    printStreamSummary(all);
    printf("received %.1f fps per stream\n", all.received / wall / count);
    printf(
        "CPU: the process %.1f%% of one core (user + system %.2f s over %.2f s); producing "
        "frames %.1f%% (%.3f ms a frame)\n",
        100 * cpu / wall, cpu, wall, 100 * (all.stats.productionNs / 1e9) / wall,
        all.stats.produced != 0 ? all.stats.productionNs / 1e6 / all.stats.produced : 0.0);
    if (!plan.lastPng.empty()) printf("last frame of the first stream: %s\n", plan.lastPng.c_str());
    return kExitOk;
}

// -- commands -------------------------------------------------------------------------------

int cmdInfo(const Options& o) {
    sp<ICapture> svc = service(o);
    using Impl = ::vendor::quenlark::hardware::capture::V1_0::implementation::Capture;
    const auto& dts = Impl::mSystemDtsConfig;
    std::vector<uint32_t> points;
    for (uint32_t p = 0; p < 13; ++p) {
        if (Impl::mPointsSupportState[p] != 0) points.push_back(p);
    }
    auto names = [](uint32_t mask) {
        std::vector<std::string> list;
        for (uint32_t bit = 1; bit != 0 && bit <= 0x1000000; bit <<= 1) {
            if ((mask & bit) != 0) list.push_back(formatName(bit));
        }
        return list;
    };
    // The width limits come from the sub-HAL, for an instance and a conversion.
    Instance inst(svc);
    setQueryInfo q = {};
    q.src_width = 1920;
    q.src_height = 1080;
    q.src_format = CaptureFormat::NV12;
    q.dst_width = 1920;
    q.dst_height = 1080;
    q.dst_format = CaptureFormat::NV12;
    q.captureType = 1;
    CaptureReturn ret = CaptureReturn::FAIL;
    getQueryInfo answer = {};
    svc->getCaptureCapabilityInfo(inst.id(), q, [&](CaptureReturn r, const getQueryInfo& a) {
        ret = r;
        answer = a;
    });
    // The interface's answer carries the plain limits; the sub-HAL also knows the wider ones of
    // read/write-separated operation, which the service's checks accept too.
    VX_CAPTURE_getQueryInfo_s raw = {};
    if (void* lib = dlopen(getenv("CAPTURE_SUBHAL_PATH"), RTLD_NOW | RTLD_NOLOAD)) {
        using Entry = uint32_t (*)(int32_t, VX_CAPTURE_setQueryInfo_s*, VX_CAPTURE_getQueryInfo_s*);
        if (auto entry = reinterpret_cast<Entry>(dlsym(lib, "VX_CAPTURE_GetCapabilityInfo"))) {
            VX_CAPTURE_setQueryInfo_s vq = {1920, 1080, 11, 1920, 1080, 11, 0, 1, {}};
            if (entry(inst.id(), &vq, &raw) != 0) raw = {};
        }
        dlclose(lib);
    }
    takeLogLines();
    const bool limits = ret == CaptureReturn::SUCCESS && answer.engine == 2;
    const char* subHal = getenv("CAPTURE_SUBHAL_PATH");
    const char* tree = getenv("CAPTURE_DEVICE_TREE_ROOT");
    if (o.has("json")) {
        Json j;
        j.str("subhal", subHal != nullptr ? subHal : "").str("device_tree", tree ? tree : "");
        j.numbers("capture_points", points)
            .strings("dip_writes", names(dts.format_support_list_w))
            .strings("dip_reads", names(dts.format_support_list_r))
            .flag("rotate_90", dts.dip_rotate & 1)
            .flag("rotate_270", dts.dip_rotate & 2)
            .num("rotate_180_max_width", dts.dip_HMirrorSz)
            .flag("crop", dts.dip_crop)
            .flag("downscale", dts.dip_dscl)
            .flag("upscale", dts.dip_uscl)
            .num("tile_width_max", dts.TileWidthMax);
        if (limits) {
            j.obj("limits", Json()
                                .num("source_max_width", answer.srcMaxWidth)
                                .num("destination_max_width", answer.dstMaxWidth)
                                .num("source_width_align", answer.srcWidthAlign)
                                .num("destination_width_align", answer.dstWidthAlign)
                                .num("source_max_width_rwsep", raw.src_max_width_rwsep)
                                .num("destination_max_width_rwsep", raw.dst_max_width_rwsep));
        } else {
            j.str("limits_answer", returnName(ret));
        }
        printf("%s\n", j.text().c_str());
        return kExitOk;
    }
    auto joined = [](const std::vector<std::string>& list) {
        std::string text;
        for (const std::string& name : list) text += " " + name;
        return list.empty() ? std::string(" none") : text;
    };
    printf("sub-HAL: %s\ndevice tree: %s\n", subHal, tree);
    printf("capture points supported:");
    for (uint32_t p : points) printf(" %u", p);
    printf("\nDIP writes:%s\nDIP reads:%s\n", joined(names(dts.format_support_list_w)).c_str(),
           joined(names(dts.format_support_list_r)).c_str());
    printf(
        "rotation 90: %s, 270: %s, 180 up to %u px wide; crop: %s; downscale: %s; "
        "upscale: %s; tiled sources up to %u px\n",
        (dts.dip_rotate & 1) ? "yes" : "no", (dts.dip_rotate & 2) ? "yes" : "no",
        static_cast<uint32_t>(dts.dip_HMirrorSz), dts.dip_crop ? "yes" : "no",
        dts.dip_dscl ? "yes" : "no", dts.dip_uscl ? "yes" : "no",
        static_cast<uint32_t>(dts.TileWidthMax));
    if (limits) {
        printf(
            "limits (NV12 to NV12, memory to memory): source up to %u px wide (%u with read/write "
            "separation), destination up to %u px wide (%u), source width a multiple of %u, "
            "destination rows of %u px\n",
            answer.srcMaxWidth, raw.src_max_width_rwsep, answer.dstMaxWidth,
            raw.dst_max_width_rwsep, answer.srcWidthAlign, answer.dstWidthAlign);
    } else {
        printf("limits: the query answered %s%s\n", describe(ret).c_str(),
               answer.useGpu ? " (GPU path)" : "");
    }
    return kExitOk;
}

int cmdQuery(const Options& o) {
    Setup s = parseSetup(o);
    sp<ICapture> svc = service(o);
    Instance inst(svc);
    takeLogLines();
    setQueryInfo q = {};
    q.src_width = s.srcW;
    q.src_height = s.srcH;
    q.src_format = static_cast<CaptureFormat>(s.srcFormat);
    q.dst_width = s.dstW;
    q.dst_height = s.dstH;
    q.dst_format = static_cast<CaptureFormat>(s.format);
    q.rotationAngle = s.rotate;
    q.crop_x = s.cropX;
    q.crop_y = s.cropY;
    q.crop_width = s.cropW != 0 ? s.cropW : s.srcW;
    q.crop_height = s.cropH != 0 ? s.cropH : s.srcH;
    q.captureType = s.memory ? 1 : 0;
    if (o.has("gpu")) ::android::base::SetProperty("vendor.zor.capture.forcegpu", "1");
    CaptureReturn ret = CaptureReturn::FAIL;
    getQueryInfo a = {};
    svc->getCaptureCapabilityInfo(inst.id(), q, [&](CaptureReturn r, const getQueryInfo& info) {
        ret = r;
        a = info;
    });
    if (o.has("json")) {
        Json j;
        j.str("source", s.memory ? "memory" : "live")
            .num("source_width", s.srcW)
            .num("source_height", s.srcH)
            .str("source_format", formatName(s.srcFormat))
            .num("destination_width", s.dstW)
            .num("destination_height", s.dstH)
            .str("destination_format", formatName(s.format))
            .num("rotation", s.rotate)
            .numbers("crop", {q.crop_x, q.crop_y, q.crop_width, q.crop_height})
            .str("answer", returnName(ret));
        if (ret == CaptureReturn::SUCCESS) {
            j.str("engine", a.useGpu ? "GPU" : "DIP");
            if (a.dstWidthAlignValid) j.num("destination_width_align", a.dstWidthAlign);
            if (!a.useGpu) j.num("bandwidth_bytes_per_second", static_cast<double>(a.bwSize));
        }
        j.strings("reasons", takeReasons());
        printf("%s\n", j.text().c_str());
        return ret == CaptureReturn::SUCCESS ? kExitOk : kExitRefused;
    }
    printf("%s %ux%u %s -> %ux%u %s, rotation %u, crop (%u,%u %ux%u)\n",
           s.memory ? "memory" : "live", s.srcW, s.srcH, formatName(s.srcFormat).c_str(), s.dstW,
           s.dstH, formatName(s.format).c_str(), s.rotate, q.crop_x, q.crop_y, q.crop_width,
           q.crop_height);
    if (ret == CaptureReturn::SUCCESS) {
        printf("engine: %s\n", a.useGpu ? "GPU (the DIP cannot do it)" : "DIP");
        if (a.dstWidthAlignValid) printf("destination rows: multiples of %u px\n", a.dstWidthAlign);
        if (!a.useGpu) {
            printf("bandwidth: %.1f MB/s at %u fps\n", static_cast<double>(a.bwSize) / 1e6,
                   s.dstFps);
        }
    } else {
        printf("answer: %s%s\n", describe(ret).c_str(),
               ret == CaptureReturn::DIP_NOT_SUPPORT
                   ? " (the DIP cannot do it and a live source has no GPU fallback)"
                   : "");
    }
    printReasons("why:");
    return ret == CaptureReturn::SUCCESS ? kExitOk : kExitRefused;
}

// What a command that wrote a picture reports: a line, or with --json one object.
void reportPicture(const Options& o, const std::string& line, Json j, const std::string& out,
                   const DumpFolder* dumps) {
    if (o.has("json")) {
        j.str("written", out);
        if (dumps != nullptr) j.strings("dumps", dumps->written());
        printf("%s\n", j.text().c_str());
        return;
    }
    printf("%s\n", line.c_str());
    if (dumps != nullptr) dumps->report("");
}

// The GPU path converts frames in memory only: the capture point's frame is taken whole by the
// DIP, then cropped, scaled, turned and converted on the GPU path.
int onceThroughGpu(const Options& o, const Setup& s) {
    gpuDestinationFormat(s.format);
    std::string out = outputPath(o, "out", "capture.png");
    std::unique_ptr<DumpFolder> dumps = dumpsFrom(o);
    Placement p{s.cropX, s.cropY, s.cropW, s.cropH, s.rotate};
    if (p.cropW == 0 && p.cropH == 0) p = Placement{0, 0, s.srcW, s.srcH, s.rotate};
    sp<ICapture> svc = service(o);
    Instance inst(svc);

    Setup whole = s;
    whole.cropX = whole.cropY = whole.cropW = whole.cropH = 0;
    whole.dstW = s.srcW;
    whole.dstH = s.srcH;
    whole.format = static_cast<uint32_t>(CaptureFormat::NV12);
    whole.rotate = 0;
    const PixelFormatInfo& nv12 = hardwareFormat(whole.format);
    FrameLayout layout = layoutOf(nv12, whole.dstW, whole.dstH);
    Buffer live(layout.frameStride);
    GraphicFrame src(whole.format, s.srcW, s.srcH), dst(s.format, s.dstW, s.dstH);
    if (!live.valid() || !src.valid() || !dst.valid()) {
        fprintf(stderr, "capturectl: cannot allocate the frames\n");
        return kExitRefused;
    }
    configureLive(svc, inst.id(), whole, live);
    CaptureReturn ret = svc->captureOnce(inst.id());
    if (ret != CaptureReturn::SUCCESS) refused("captureOnce", ret);
    copyFrame(nv12, layout, live.data(), src.planes(), s.srcW);

    dst.markUntouched();
    convertInMemory(svc, inst.id(), Engine::kGpu, refOf(src), p, refOf(dst));
    noteIfUntouched(&dst);
    savePng(out, s.format, dst.planes(), s.dstW, s.dstH);
    char line[256];
    snprintf(line, sizeof(line),
             "wrote %s: %ux%u %s from capture point %u, converted on the GPU path", out.c_str(),
             s.dstW, s.dstH, formatName(s.format).c_str(), s.point);
    reportPicture(o, line,
                  Json()
                      .num("width", s.dstW)
                      .num("height", s.dstH)
                      .str("format", formatName(s.format))
                      .num("capture_point", s.point)
                      .str("engine", "GPU"),
                  out, dumps.get());
    return kExitOk;
}

int cmdOnce(const Options& o) {
    Setup s = parseSetup(o);
    if (o.has("gpu")) return onceThroughGpu(o, s);
    const PixelFormatInfo& f = hardwareFormat(s.format);
    FrameLayout layout = layoutOf(f, s.dstW, s.dstH);
    std::string out = outputPath(o, "out", "capture.png");
    std::unique_ptr<DumpFolder> dumps = dumpsFrom(o);
    sp<ICapture> svc = service(o);
    Buffer buffer(layout.frameStride);
    if (!buffer.valid()) throw Failure{kExitRefused};
    Instance inst(svc);
    configureLive(svc, inst.id(), s, buffer);
    CaptureReturn ret = svc->captureOnce(inst.id());
    if (ret != CaptureReturn::SUCCESS) refused("captureOnce", ret);
    savePng(out, f, layout, buffer.data(), s.dstW, s.dstH);
    char line[256];
    snprintf(line, sizeof(line), "wrote %s: %ux%u %s from capture point %u", out.c_str(), s.dstW,
             s.dstH, f.name, s.point);
    reportPicture(o, line,
                  Json()
                      .num("width", s.dstW)
                      .num("height", s.dstH)
                      .str("format", f.name)
                      .num("capture_point", s.point)
                      .str("engine", "DIP"),
                  out, dumps.get());
    return kExitOk;
}

int cmdStream(const Options& o) {
    Setup s = parseSetup(o);
    const PixelFormatInfo& f = hardwareFormat(s.format);
    FrameLayout layout = layoutOf(f, s.dstW, s.dstH);
    StreamPlan plan;
    if (o.has("frames")) plan.frames = parseNumber(o.get("frames", ""), "frame count");
    if (o.has("seconds")) {
        plan.seconds = atof(o.get("seconds", "").c_str());
        if (plan.seconds <= 0) usageError("bad duration '%s'", o.get("seconds", ""));
    }
    if (o.has("buffers")) plan.buffers = parseNumber(o.get("buffers", ""), "buffer count");
    if (plan.buffers == 0 || plan.buffers > capture_emulator::kMaxRingFrames) {
        usageError("buffers must be 1..8, not %s", std::to_string(plan.buffers));
    }
    if (o.has("hold-ms")) plan.holdMs = parseNumber(o.get("hold-ms", ""), "hold time");
    plan.progress = !o.has("quiet");
    plan.lastPng = outputPath(o, "last", "");
    plan.perFrame = o.verbose;
    plan.streamTo = o.get("stream-to", "");
    const std::string container = o.get("container", "");
    if (!container.empty() && container != "raw" && container != "y4m") {
        usageError("unknown container '%s' (raw or y4m)", container);
    }
    const bool y4mName = plan.streamTo.size() > 4 &&
                         plan.streamTo.compare(plan.streamTo.size() - 4, 4, ".y4m") == 0;
    plan.y4m = container == "y4m" || (container.empty() && y4mName);
    if (plan.y4m && y4mChromaTag(f).empty()) {
        usageError("YUV4MPEG2 holds YUV frames only, not %s (NV12 NV21 NV16 NV61 YUYV)", f.name);
    }
    if (plan.streamTo.find('#') != std::string::npos) {
        std::string first = plan.streamTo;
        first.replace(first.find('#'), 1, "1");
        Options probe;
        probe.values["path"] = first;
        outputPath(probe, "path", "");
    }
    FILE* text = plan.streamTo == "-" || o.has("json") ? stderr : stdout;
    uint32_t count = 1;
    if (o.has("instances")) count = parseNumber(o.get("instances", ""), "instance count");
    if (count == 0 || count > 32)
        usageError("instances must be 1..32, not %s", std::to_string(count));
    stopOnInterrupt();
    if (count > 1) return streamMany(o, s, f, layout, plan, count);
    sp<ICapture> svc = service(o);
    Buffer buffer(static_cast<size_t>(layout.frameStride) * plan.buffers);
    if (!buffer.valid()) throw Failure{kExitRefused};
    Instance inst(svc);
    configureLive(svc, inst.id(), s, buffer);
    fprintf(text, "streaming %ux%u %s at %u fps from capture point %u into %u buffers\n", s.dstW,
            s.dstH, f.name, s.dstFps, s.point, plan.buffers);
    StreamResult r = runStream(svc, inst.id(), s, plan, buffer, f, layout);
    if (o.has("json")) {
        Json j = streamJson(r);
        j.flag("interrupted", gInterrupted);
        fprintf(plan.streamTo == "-" ? stderr : stdout, "%s\n", j.text().c_str());
    } else {
        printStreamSummary(r, "", text);
    }
    if (!plan.lastPng.empty()) fprintf(text, "last frame: %s\n", plan.lastPng.c_str());
    if (gInterrupted) {
        fprintf(text, "stopped by Ctrl-C\n");
        return kExitOk;
    }
    if (plan.seconds == 0 && r.received < plan.frames) {
        fprintf(stderr, "capturectl: only %llu of %llu frames arrived\n",
                static_cast<unsigned long long>(r.received),
                static_cast<unsigned long long>(plan.frames));
        return kExitRefused;
    }
    return kExitOk;
}

int cmdDump(const Options& o) {
    sp<ICapture> svc = service(o);
    // A fresh service has nothing open; --while-streaming dumps with one instance streaming.
    std::unique_ptr<Instance> inst;
    std::unique_ptr<Buffer> ring;
    sp<StreamClient> client;
    if (o.has("while-streaming")) {
        Setup s = parseSetup(o);
        FrameLayout layout = layoutOf(hardwareFormat(s.format), s.dstW, s.dstH);
        ring = std::make_unique<Buffer>(static_cast<size_t>(layout.frameStride) * 4);
        if (!ring->valid()) throw Failure{kExitRefused};
        inst = std::make_unique<Instance>(svc);
        configureLive(svc, inst->id(), s, *ring);
        client = new StreamClient();
        CaptureReturn ret = svc->startCapture(inst->id(), client);
        if (ret != CaptureReturn::SUCCESS) refused("startCapture", ret);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    fflush(stdout);
    native_handle_t* h = native_handle_create(1, 0);
    h->data[0] = STDOUT_FILENO;
    hidl_vec<hidl_string> options;
    if (o.has("detail")) options = hidl_vec<hidl_string>{hidl_string("detail")};
    svc->debug(hidl_handle(h), options);
    native_handle_delete(h);  // the descriptor is stdout's: not closed
    if (inst != nullptr) {
        CaptureReturn ret = svc->stopCapture(inst->id());
        if (ret != CaptureReturn::SUCCESS) refused("stopCapture", ret);
    }
    return kExitOk;
}

int cmdDemo(const Options& o) {
    std::string dir = o.get("out-dir", "capturectl-demo");
    std::unique_ptr<DumpFolder> dumps = dumpsFrom(o);
    // Parents first, so that a fresh checkout can write straight into out/demo.
    for (size_t slash = dir.find('/', 1); slash != std::string::npos;
         slash = dir.find('/', slash + 1)) {
        mkdir(dir.substr(0, slash).c_str(), 0755);
    }
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        fprintf(stderr, "capturectl: cannot create %s: %s\n", dir.c_str(), strerror(errno));
        return kExitRefused;
    }
    // With --json the steps go to stderr and stdout carries one object: what each step found
    // and wrote.
    const bool json = o.has("json");
    FILE* text = json ? stderr : stdout;
    Setup s;
    s.srcW = 1920;
    s.srcH = 1080;
    s.dstW = 1280;
    s.dstH = 720;
    s.dstFps = 60;
    sp<ICapture> svc = service(o);
    const PixelFormatInfo& f = hardwareFormat(s.format);
    FrameLayout layout = layoutOf(f, s.dstW, s.dstH);
    fprintf(text, "1. open\n");
    Instance inst(svc);
    fprintf(text, "   instance 0x%08x\n", static_cast<uint32_t>(inst.id()));

    fprintf(text, "2. query: live 1920x1080 to 1280x720 NV12\n");
    takeLogLines();
    setQueryInfo q = {};
    q.src_width = s.srcW;
    q.src_height = s.srcH;
    q.src_format = CaptureFormat::NV12;
    q.dst_width = s.dstW;
    q.dst_height = s.dstH;
    q.dst_format = CaptureFormat::NV12;
    q.crop_width = s.srcW;
    q.crop_height = s.srcH;
    CaptureReturn ret = CaptureReturn::FAIL;
    getQueryInfo a = {};
    svc->getCaptureCapabilityInfo(inst.id(), q, [&](CaptureReturn r, const getQueryInfo& info) {
        ret = r;
        a = info;
    });
    if (ret != CaptureReturn::SUCCESS) refused("getCaptureCapabilityInfo", ret);
    fprintf(text, "   %s, %.1f MB/s\n", a.useGpu ? "GPU" : "DIP",
            static_cast<double>(a.bwSize) / 1e6);

    fprintf(text, "3. configure: capture point 0, whole source\n");
    Buffer ring(static_cast<size_t>(layout.frameStride) * 4);
    if (!ring.valid()) throw Failure{kExitRefused};
    configureLive(svc, inst.id(), s, ring);

    fprintf(text, "4. one frame\n");
    ret = svc->captureOnce(inst.id());
    if (ret != CaptureReturn::SUCCESS) refused("captureOnce", ret);
    std::string once = dir + "/once.png";
    savePng(once, f, layout, ring.data(), s.dstW, s.dstH);
    fprintf(text, "   %s\n", once.c_str());
    // Kept as the source of step 6.
    Buffer source(layout.frameStride);
    if (!source.valid()) throw Failure{kExitRefused};
    memcpy(source.data(), ring.data(), layout.frameStride);

    fprintf(text, "5. stream: 60 frames\n");
    configureLive(svc, inst.id(), s, ring);  // a capture consumes its configuration
    StreamPlan plan;
    plan.frames = 60;
    plan.progress = false;
    plan.lastPng = dir + "/stream-last.png";
    StreamResult r = runStream(svc, inst.id(), s, plan, ring, f, layout);
    printStreamSummary(r, "   ", text);
    fprintf(text, "   %s\n", plan.lastPng.c_str());

    // Both engines get the same request, so the two pictures can be laid side by side.
    fprintf(text,
            "6. memory to memory on the DIP: the centre of step 4's frame, turned 90 degrees, "
            "as ABGR8888\n");
    const uint32_t nv12 = static_cast<uint32_t>(CaptureFormat::NV12);
    const uint32_t abgr = static_cast<uint32_t>(CaptureFormat::ABGR8888);
    const Placement centre{320, 180, 640, 360, 90};
    FrameRef from{source.handle(), nv12, s.dstW, s.dstH, layout.chromaOffset};
    const PixelFormatInfo& rgb = hardwareFormat(abgr);
    FrameLayout outLayout = layoutOf(rgb, 360, 640);
    Buffer out(outLayout.frameStride);
    if (!out.valid()) throw Failure{kExitRefused};
    convertInMemory(svc, inst.id(), Engine::kDip, from, centre,
                    FrameRef{out.handle(), abgr, 360, 640, 0});
    std::string turned = dir + "/memory-rotated.png";
    savePng(turned, rgb, outLayout, out.data(), 360, 640);
    fprintf(text, "   %s\n", turned.c_str());

    fprintf(text, "7. the same on the GPU path (forced)\n");
    GraphicFrame gpuSource(nv12, s.dstW, s.dstH), gpuOut(abgr, 360, 640);
    if (!gpuSource.valid() || !gpuOut.valid()) throw Failure{kExitRefused};
    copyFrame(f, layout, source.data(), gpuSource.planes(), s.dstW);
    gpuOut.markUntouched();
    convertInMemory(svc, inst.id(), Engine::kGpu, refOf(gpuSource), centre, refOf(gpuOut));
    noteIfUntouched(&gpuOut);
    std::string turnedGpu = dir + "/memory-rotated-gpu.png";
    savePng(turnedGpu, abgr, gpuOut.planes(), 360, 640);
    fprintf(text, "   %s\n", turnedGpu.c_str());
    if (dumps && !json) dumps->report("   ");

    fprintf(text, "8. close\n");
    fprintf(text, "PNG files are in %s/\n", dir.c_str());
    if (json) {
        Json j;
        j.num("instance", static_cast<double>(static_cast<uint32_t>(inst.id())))
            .obj("query", Json()
                              .str("engine", a.useGpu ? "gpu" : "dip")
                              .num("bandwidth", static_cast<double>(a.bwSize)))
            .obj("stream", streamJson(r))
            .strings("written", {once, plan.lastPng, turned, turnedGpu});
        if (dumps) j.strings("dumps", dumps->written());
        printf("%s\n", j.text().c_str());
    }
    return kExitOk;
}

// -- convert --------------------------------------------------------------------------------

// Source formats capturectl can write for an engine.
bool dipReadsFrom(uint32_t format) {
    const PixelFormatInfo* f = capture_emulator::findCaptureFormat(format);
    return f != nullptr && f->readable && !f->tiled;
}

bool gpuReadsFrom(uint32_t format) {
    return dipReadsFrom(format) && gpuWrites(format);
}

int cmdConvert(const Options& o) {
    Engine engine = Engine::kDip;
    std::string engineText = o.get("engine", "dip");
    if (engineText == "gpu") {
        engine = Engine::kGpu;
    } else if (engineText != "dip") {
        usageError("unknown engine '%s' (dip or gpu)", engineText);
    }
    const bool gpu = engine == Engine::kGpu;

    ArgbImage picture;
    std::string origin;
    if (o.has("in")) {
        if (o.has("pattern") || o.has("source")) {
            usageError("--in %s takes its size from the file: no --pattern or --source with it",
                       o.get("in", ""));
        }
        origin = o.get("in", "");
        std::string error = readPng(origin, &picture);
        if (!error.empty()) usageError("%s", error);
    } else {
        uint32_t w = 1920, h = 1080;
        if (o.has("source")) parseSize(o.get("source", ""), &w, &h, "source size");
        origin = o.get("pattern", "bars");
        if (w > 16384 || h > 16384)
            usageError("source %s larger than 16384x16384", o.get("source", ""));
        if (!renderNamedPattern(origin, w, h, &picture)) {
            usageError((std::string("unknown pattern '%s' (") + kPatternNames + ")").c_str(),
                       origin);
        }
        origin = "the " + origin + " pattern";
    }
    const uint32_t srcW = picture.width(), srcH = picture.height();

    uint32_t srcFormat = parseFormat(o.get("source-format", "ARGB8888"));
    if (!(gpu ? gpuReadsFrom : dipReadsFrom)(srcFormat)) {
        usageError(
            ("no %s source for " + std::string(engineName(engine)) +
             ": capturectl writes its sources as " + formatList(gpu ? gpuReadsFrom : dipReadsFrom))
                .c_str(),
            formatName(srcFormat));
    }
    uint32_t dstFormat = parseFormat(o.get("format", "ARGB8888"));
    if (gpu) gpuDestinationFormat(dstFormat);

    Placement p{0, 0, srcW, srcH, 0};
    if (o.has("crop")) {
        std::string c = o.get("crop", "");
        parseCrop(c, &p.cropX, &p.cropY, &p.cropW, &p.cropH);
        if (p.cropW == 0 || p.cropH == 0 || p.cropX >= srcW || p.cropY >= srcH ||
            p.cropW > srcW - p.cropX || p.cropH > srcH - p.cropY) {
            usageError(("crop %s is not inside the " + std::to_string(srcW) + "x" +
                        std::to_string(srcH) + " source")
                           .c_str(),
                       c);
        }
    }
    if (o.has("rotate")) {
        p.rotate = parseNumber(o.get("rotate", ""), "rotation");
        if (p.rotate % 90 != 0 || p.rotate > 270) {
            usageError("rotation %s is not 0, 90, 180 or 270", o.get("rotate", ""));
        }
    }
    const bool turned = p.rotate % 180 != 0;
    uint32_t dstW = turned ? p.cropH : p.cropW, dstH = turned ? p.cropW : p.cropH;
    if (o.has("size")) parseSize(o.get("size", ""), &dstW, &dstH, "size");
    std::string out = outputPath(o, "out", "convert.png");
    std::unique_ptr<DumpFolder> dumps = dumpsFrom(o);

    auto allocated = [](bool ok) {
        if (ok) return;
        fprintf(stderr, "capturectl: cannot allocate the frames\n");
        throw Failure{kExitRefused};
    };
    auto written = [&](bool ok) {
        if (ok) return;
        fprintf(stderr, "capturectl: cannot write a %s source\n", formatName(srcFormat).c_str());
        throw Failure{kExitRefused};
    };
    sp<ICapture> svc = service(o);
    Instance inst(svc);
    if (gpu) {
        GraphicFrame src(srcFormat, srcW, srcH), dst(dstFormat, dstW, dstH);
        allocated(src.valid() && dst.valid());
        written(encodeFrame(srcFormat, picture, src.planes()));
        dst.markUntouched();
        convertInMemory(svc, inst.id(), engine, refOf(src), p, refOf(dst));
        noteIfUntouched(&dst);
        savePng(out, dstFormat, dst.planes(), dstW, dstH);
    } else {
        const PixelFormatInfo& sf = *capture_emulator::findCaptureFormat(srcFormat);
        const PixelFormatInfo& df = hardwareFormat(dstFormat);
        FrameLayout srcLayout = layoutOf(sf, srcW, srcH), dstLayout = layoutOf(df, dstW, dstH);
        Buffer src(srcLayout.frameStride), dst(dstLayout.frameStride);
        allocated(src.valid() && dst.valid());
        written(encodeFrame(srcFormat, picture, planesOf(src.data(), srcLayout)));
        convertInMemory(svc, inst.id(), engine,
                        FrameRef{src.handle(), srcFormat, srcW, srcH, srcLayout.chromaOffset}, p,
                        FrameRef{dst.handle(), dstFormat, dstW, dstH, dstLayout.chromaOffset});
        savePng(out, df, dstLayout, dst.data(), dstW, dstH);
    }
    char line[512];
    snprintf(line, sizeof(line),
             "wrote %s: %ux%u %s on %s, from %s (%ux%u %s), crop (%u,%u %ux%u), turned %u",
             out.c_str(), dstW, dstH, formatName(dstFormat).c_str(), engineName(engine),
             origin.c_str(), srcW, srcH, formatName(srcFormat).c_str(), p.cropX, p.cropY, p.cropW,
             p.cropH, p.rotate);
    reportPicture(o, line,
                  Json()
                      .num("width", dstW)
                      .num("height", dstH)
                      .str("format", formatName(dstFormat))
                      .str("engine", engine == Engine::kGpu ? "GPU" : "DIP")
                      .str("source", origin)
                      .num("source_width", srcW)
                      .num("source_height", srcH)
                      .str("source_format", formatName(srcFormat))
                      .numbers("crop", {p.cropX, p.cropY, p.cropW, p.cropH})
                      .num("rotation", p.rotate),
                  out, dumps.get());
    return kExitOk;
}

const char kCaptureOptions[] =
    "  --point N          capture point 0..12 (default 0)\n"
    "  --pq ID            picture-quality stream of capture points 2..8\n"
    "  --source WxH       source video size (default 1920x1080)\n"
    "  --source-fps N     source frame rate (default 60)\n"
    "  --crop X,Y,W,H     part of the source to capture (default all)\n"
    "  --size WxH         destination size, after rotation (default 1280x720)\n"
    "  --fps N            destination frame rate (default the source's)\n"
    "  --format NAME      destination format (default NV12): YUYV ARGB8888 ABGR8888\n"
    "                     ARGB2101010 ABGR2101010 RGB565 BGR888 NV16 NV61 NV12 NV21\n"
    "  --rotate DEG       0, 90, 180 or 270, clockwise\n"
    "  --engine N         DIP engine selector 1..3 (default 1)\n";

const char kDumpDirOption[] =
    "  --dump-dir DIR     raw dumps of the GPU path's input and output frames into DIR\n"
    "                     (vendor.zor.capture_hal.dumpdata=1, CAPTURE_DUMP_DIR=DIR/), named\n"
    "                     gpu_intput-NNNN[_sPITCH]_WxH_FORMAT.raw and gpu_output-...\n";

int guardedRun(int (*fn)(const Options&), const Options& o) {
    int status;
    try {
        status = fn(o);
    } catch (const Failure& failure) {
        status = failure.status;
    }
    return status == kExitOk && gCloseRefused ? kExitRefused : status;
}

}  // namespace

const std::vector<Command>& commands() {
    static const std::vector<std::string> kSetup = {
        "point", "pq", "source", "source-fps", "crop", "size", "fps", "format", "rotate", "engine"};
    auto with = [](std::vector<std::string> extra) {
        std::vector<std::string> all = kSetup;
        all.insert(all.end(), extra.begin(), extra.end());
        return all;
    };
    static const std::vector<Command> list = {
        {"info",
         "capture points, DIP formats and limits of the platform",
         "  --json             one JSON object instead of text\n",
         {},
         {"json"},
         [](const Options& o) { return guardedRun(cmdInfo, o); }},
        {"query",
         "would this conversion run on the DIP or the GPU, and why",
         std::string(kCaptureOptions) +
             "  --memory           the source is a frame in memory (default: live)\n"
             "  --source-format F  format of a memory source (default NV12)\n"
             "  --gpu              ask with the GPU path forced (vendor.zor.capture.forcegpu=1)\n"
             "  --json             one JSON object instead of text\n",
         with({"source-format"}),
         {"memory", "gpu", "json"},
         [](const Options& o) { return guardedRun(cmdQuery, o); }},
        {"once",
         "capture one frame into a PNG file",
         std::string(kCaptureOptions) +
             "  --out FILE         PNG to write (default capture.png)\n"
             "  --json             report as one JSON object\n"
             "  --gpu              crop, scale, turn and convert on the GPU path: the DIP takes\n"
             "                     the whole source as NV12, the service's GPU path (forced)\n"
             "                     converts that frame in memory\n" +
             kDumpDirOption,
         with({"out", "dump-dir"}),
         {"gpu", "json"},
         [](const Options& o) { return guardedRun(cmdOnce, o); }},
        {"stream",
         "capture continuously, with live progress and a summary",
         std::string(kCaptureOptions) +
             "  --frames N         frames to receive (default 300)\n"
             "  --seconds S        run for S seconds instead\n"
             "  --buffers K        buffers in the ring, 1..8 (default 4)\n"
             "  --hold-ms M        keep each buffer M ms before handing it back\n"
             "  --last FILE        write the last frame as a PNG (of the first instance)\n"
             "  --instances N      N capture instances stream at once, 1..32 (default 1): a\n"
             "                     summary of all, with the process's CPU share\n"
             "  --stream-to PAT    write every frame's raw bytes: PAT with '#' is one file per\n"
             "                     frame ('#' becomes the frame number), without it one file\n"
             "                     of all frames; '-' is standard output (text goes to stderr)\n"
             "  --container C      raw (default) or y4m: YUV4MPEG2, which video tools read as\n"
             "                     it is (NV12, NV21, NV16, NV61, YUYV); a PAT ending in .y4m\n"
             "                     writes it too\n"
             "  --json             the summary as one JSON object\n"
             "  --quiet            no progress line\n"
             "With -v, a line per frame: its number, buffer index and arrival time.\n",
         with({"frames", "seconds", "buffers", "hold-ms", "last", "instances", "stream-to",
               "container"}),
         {"quiet", "json"},
         [](const Options& o) { return guardedRun(cmdStream, o); }},
        {"dump",
         "print the service's debug output (the hardware's state)",
         "  --detail           the detailed level\n"
         "  --while-streaming  with one instance streaming (the capture options set it up)\n" +
             std::string(kCaptureOptions),
         with({}),
         {"detail", "while-streaming"},
         [](const Options& o) { return guardedRun(cmdDump, o); }},
        {"convert",
         "convert a picture in memory on the DIP or the GPU path, into a PNG file",
         std::string(
             "  --in FILE.png      the picture to convert (8-bit RGB or RGBA; any PNG libpng\n"
             "                     reads)\n"
             "  --pattern NAME     or a generated one: ") +
             kPatternNames +
             " (default bars)\n"
             "  --source WxH       size of the pattern (default 1920x1080)\n"
             "  --source-format F  format of the source frame (default ARGB8888)\n"
             "  --crop X,Y,W,H     part of the source to convert (default all)\n"
             "  --rotate DEG       0, 90, 180 or 270, clockwise\n"
             "  --size WxH         destination size, after rotation (default the crop's)\n"
             "  --format NAME      destination format (default ARGB8888)\n"
             "  --engine E         dip: the emulated DIP engines (default); gpu: the GPU path,\n"
             "                     forced with vendor.zor.capture.forcegpu=1\n"
             "  --out FILE         PNG to write (default convert.png)\n"
             "  --json             report as one JSON object\n" +
             kDumpDirOption,
         {"in", "pattern", "source", "source-format", "crop", "rotate", "size", "format", "engine",
          "out", "dump-dir"},
         {"json"},
         [](const Options& o) { return guardedRun(cmdConvert, o); }},
        {"demo",
         "open, query, one frame, a short stream, a conversion on each engine; PNGs",
         std::string("  --out-dir DIR      where the PNG files go (default ./capturectl-demo)\n"
                     "  --json             the steps on stderr, one JSON object on stdout\n") +
             kDumpDirOption,
         {"out-dir", "dump-dir"},
         {"json"},
         [](const Options& o) { return guardedRun(cmdDemo, o); }},
        {"conformance",
         kConformanceSummary,
         kConformanceUsage,
         {"subhal", "timeout"},
         {"json"},
         [](const Options& o) { return guardedRun(runConformance, o); }},
    };
    return list;
}

}  // namespace capturectl
