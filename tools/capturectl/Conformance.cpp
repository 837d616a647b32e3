// capturectl conformance: a sub-HAL library, loaded on its own (not through the service), held
// against the behaviour the service counts on: its entries, identifiers, status codes, record
// layouts, capabilities, completions and buffer ownership, stopping, concurrency, dumps.
#include "Conformance.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "DeviceTreeConfig.h"
#include "Session.h"
#include "SubHal.h"
#include "VxCaptureHal.h"

namespace capturectl {

const char kConformanceSummary[] = "check a sub-HAL library against what the service relies on";
const char kConformanceUsage[] =
    "  --subhal PATH      the sub-HAL library to check (default: the emulated hardware,\n"
    "                     " CAPTURE_EMULATOR_LIBRARY
    ")\n"
    "  --timeout S        an entry that has not returned after S seconds fails the run\n"
    "                     (default 10)\n"
    "\n"
    "The library is loaded with dlopen (RTLD_LOCAL) and called directly; it streams\n"
    "320x180 NV12 at 120 fps into memfd buffers for a second or so. The device tree is\n"
    "read from CAPTURE_DEVICE_TREE_ROOT, else the emulated hardware's. One line per check,\n"
    "PASS, FAIL or WARN; exit status 0 when nothing failed, 1 when a check failed, 2 when\n"
    "the library cannot be loaded. With --json the lines go to stderr and stdout gets one\n"
    "object: the counts and every check with its verdict and detail.\n";

namespace {

using ::vendor::quenlark::hardware::capture::V1_0::implementation::getConfigValue;
using ::vendor::quenlark::hardware::capture::V1_0::implementation::isMappedSubHalStatus;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int32_t kIdBase = 0x73000000;
constexpr int kSlots = 32;
constexpr uint32_t kBadIdStatus = 7;
constexpr uint32_t kFormatStatus = 16;
constexpr uint32_t kUntouched = 0xA5A5A5A5u;

// The stream every completion check uses: small, fast, a ring of four buffers.
constexpr uint32_t kWidth = 320, kHeight = 180, kFps = 120;
constexpr uint32_t kLumaSize = kWidth * kHeight, kChromaSize = kLumaSize / 2;
constexpr uint32_t kFrameStride = (kLumaSize + kChromaSize + 4095) / 4096 * 4096;
constexpr uint32_t kRing = 4;
constexpr size_t kRingBytes = size_t{kRing} * kFrameStride;
constexpr milliseconds kPeriod(1000 / kFps);
constexpr milliseconds kQuiet = kPeriod * 8;  // watched for stray completions
constexpr milliseconds kFrameTimeout(1000);

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

uint64_t checksum(const uint8_t* data, size_t size) {
    uint64_t hash = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i) hash = (hash ^ data[i]) * 1099511628211ull;
    return hash;
}

pid_t threadId() {
    return gettid();
}

// -- completions ------------------------------------------------------------------------------

struct Completion {
    int32_t id = 0;
    VX_CAPTURE_CaptureDoneInfo_s done = {};
    bool hasRecord = false;
    bool hasSequence = false;
    uint32_t sequence = 0;
    pid_t thread = 0;
};

// Everything the sub-HAL hands to the completion entry, queued per identifier.
struct Sink {
    std::mutex lock;
    std::condition_variable arrived;
    std::map<int32_t, std::deque<Completion>> queues;
    std::map<int32_t, uint64_t> counts;  // ever delivered, per identifier
} gSink;

int onCompletion(int captureId, unsigned int /*reserved*/, void* doneInfo, void* sequenceIdRef) {
    Completion c;
    c.id = captureId;
    c.thread = threadId();
    if (doneInfo != nullptr) {
        memcpy(&c.done, doneInfo, sizeof(c.done));
        c.hasRecord = true;
    }
    if (sequenceIdRef != nullptr) {
        c.sequence = *static_cast<const uint32_t*>(sequenceIdRef);
        c.hasSequence = true;
    }
    std::lock_guard<std::mutex> guard(gSink.lock);
    ++gSink.counts[captureId];
    gSink.queues[captureId].push_back(c);
    gSink.arrived.notify_all();
    return 0;
}

bool nextCompletion(int32_t id, Completion* out, milliseconds timeout = kFrameTimeout) {
    std::unique_lock<std::mutex> held(gSink.lock);
    auto& queue = gSink.queues[id];
    if (!gSink.arrived.wait_for(held, timeout, [&] { return !queue.empty(); })) return false;
    *out = queue.front();
    queue.pop_front();
    return true;
}

uint64_t deliveredSoFar(int32_t id) {
    std::lock_guard<std::mutex> guard(gSink.lock);
    return gSink.counts[id];
}

void forget(int32_t id) {
    std::lock_guard<std::mutex> guard(gSink.lock);
    gSink.queues.erase(id);
}

// Registration records stay in place for the library's life, as the service's do.
VX_CAPTURE_CallbackInputParams_s gParams[kSlots];
uint32_t gSequence[kSlots];

uint32_t sequenceOf(int32_t id) {
    return 0x5E000000u + static_cast<uint32_t>(id - kIdBase);
}

// -- the library ------------------------------------------------------------------------------

struct Entries {
    decltype(&VX_CAPTURE_Init) Init = nullptr;
    decltype(&VX_CAPTURE_DeInit) DeInit = nullptr;
    decltype(&VX_CAPTURE_Open) Open = nullptr;
    decltype(&VX_CAPTURE_Close) Close = nullptr;
    decltype(&VX_CAPTURE_SetCaptureInfo) SetCaptureInfo = nullptr;
    decltype(&VX_CAPTURE_SetCaptureFrameInfo) SetCaptureFrameInfo = nullptr;
    decltype(&VX_CAPTURE_GetCapabilityInfo) GetCapabilityInfo = nullptr;
    decltype(&VX_CAPTURE_GetDipInfo) GetDipInfo = nullptr;
    decltype(&VX_CAPTURE_CaptureOnce) CaptureOnce = nullptr;
    decltype(&VX_CAPTURE_CaptureStart) CaptureStart = nullptr;
    decltype(&VX_CAPTURE_CaptureStop) CaptureStop = nullptr;
    decltype(&VX_CAPTURE_RegisterCallback) RegisterCallback = nullptr;
    decltype(&VX_CAPTURE_UnRegisterCallback) UnRegisterCallback = nullptr;
    decltype(&VX_CAPTURE_FrameProcessDone) FrameProcessDone = nullptr;
    decltype(&VX_CAPTURE_NotifyContinueCapture) NotifyContinueCapture = nullptr;
    decltype(&VX_CAPTURE_DumpInfo) DumpInfo = nullptr;
};

class Harness {
public:
    Harness(void* library, bool json, int timeoutS)
        : mLibrary(library), mJson(json), mOut(json ? stderr : stdout), mTimeoutS(timeoutS) {}
    int run();

private:
    // Output.
    void heading(const char* title) { fprintf(mOut, "\n%s\n", title); }
    void result(const char* verdict, const std::string& name, const std::string& detail);
    void pass(const std::string& name, const std::string& detail) { result("PASS", name, detail); }
    void fail(const std::string& name, const std::string& detail) { result("FAIL", name, detail); }
    void warn(const std::string& name, const std::string& detail) { result("WARN", name, detail); }
    void check(const std::string& name, const std::string& problem, const std::string& detail) {
        problem.empty() ? pass(name, detail) : fail(name, problem);
    }

    // Every status the library returns goes through here.
    uint32_t seen(const char* entry, uint32_t status);
    // Every call into the library runs through here, so that one that never returns ends the
    // run with a FAIL naming it instead of hanging the tool.
    template <typename Call>
    uint32_t watched(const char* entry, Call call);
    void watch();
    void summary();

    bool resolveEntries();
    void records();
    bool power();
    void identifiers();
    void planeOffsets();
    void capabilities();
    void completions();
    void holding(int32_t id, uint32_t ring, const Buffer& buffer);
    void stopping(int32_t id, const Buffer& buffer);
    void concurrency();
    void dump();
    void statuses();

    int32_t open();
    uint32_t configure(int32_t id, const Buffer& buffer);
    uint32_t registerEntry(int32_t id);
    std::string recordProblem(const Completion& c, int32_t id, pid_t caller, const Buffer& buffer,
                              uint32_t ring);
    std::string stream(int32_t id, const Buffer& buffer, int frames, pid_t caller);

    void* mLibrary;
    const bool mJson;
    FILE* const mOut;
    std::vector<Json> mResults;
    const int mTimeoutS;
    std::mutex mCallLock;
    std::map<std::thread::id, std::pair<const char*, Clock::time_point>> mCalls;  // in progress
    bool mDone = false;
    std::condition_variable mWatchEnds;
    Entries e;
    int mChecks = 0, mPassed = 0, mFailed = 0, mWarnings = 0;
    std::mutex mStatusLock;
    std::map<std::string, int> mUnmapped;  // "Open returned 99" -> times
    int mStatuses = 0;
};

#define CALL(entry, ...) seen(#entry, watched(#entry, [&] { return e.entry(__VA_ARGS__); }))

template <typename Call>
uint32_t Harness::watched(const char* entry, Call call) {
    {
        std::lock_guard<std::mutex> guard(mCallLock);
        mCalls[std::this_thread::get_id()] = {entry, Clock::now()};
    }
    const uint32_t status = call();
    std::lock_guard<std::mutex> guard(mCallLock);
    mCalls.erase(std::this_thread::get_id());
    return status;
}

// Runs beside the checks for the whole run. The library's threads may be stuck with the call,
// so a timeout ends the process here.
void Harness::watch() {
    std::unique_lock<std::mutex> guard(mCallLock);
    while (!mWatchEnds.wait_for(guard, std::chrono::milliseconds(100), [&] { return mDone; })) {
        for (const auto& [thread, call] : mCalls) {
            if (Clock::now() - call.second < std::chrono::seconds(mTimeoutS)) continue;
            fail("returns",
                 format("VX_CAPTURE_%s has not returned after %d s", call.first, mTimeoutS));
            summary();
            fflush(nullptr);
            _exit(kExitRefused);
        }
    }
}

void Harness::result(const char* verdict, const std::string& name, const std::string& detail) {
    ++mChecks;
    if (verdict[0] == 'P') ++mPassed;
    if (verdict[0] == 'F') ++mFailed;
    if (verdict[0] == 'W') ++mWarnings;
    fprintf(mOut, "%s %s: %s\n", verdict, name.c_str(), detail.c_str());
    fflush(mOut);
    if (mJson)
        mResults.push_back(Json().str("verdict", verdict).str("check", name).str("detail", detail));
}

uint32_t Harness::seen(const char* entry, uint32_t status) {
    std::lock_guard<std::mutex> guard(mStatusLock);
    ++mStatuses;
    if (!isMappedSubHalStatus(static_cast<int32_t>(status))) {
        ++mUnmapped[format("VX_CAPTURE_%s returned %u", entry, status)];
    }
    return status;
}

bool Harness::resolveEntries() {
    heading("Entry points");
    std::string missing;
    int found = 0;
    auto resolve = [&](auto* slot, const char* name, bool required) {
        *slot = reinterpret_cast<std::remove_pointer_t<decltype(slot)>>(dlsym(mLibrary, name));
        if (*slot != nullptr) {
            ++found;
        } else if (required) {
            missing += missing.empty() ? name : std::string(", ") + name;
        }
    };
    resolve(&e.Init, "VX_CAPTURE_Init", true);
    resolve(&e.DeInit, "VX_CAPTURE_DeInit", true);
    resolve(&e.Open, "VX_CAPTURE_Open", true);
    resolve(&e.Close, "VX_CAPTURE_Close", true);
    resolve(&e.SetCaptureInfo, "VX_CAPTURE_SetCaptureInfo", true);
    resolve(&e.SetCaptureFrameInfo, "VX_CAPTURE_SetCaptureFrameInfo", true);
    resolve(&e.GetCapabilityInfo, "VX_CAPTURE_GetCapabilityInfo", true);
    resolve(&e.GetDipInfo, "VX_CAPTURE_GetDipInfo", true);
    resolve(&e.CaptureOnce, "VX_CAPTURE_CaptureOnce", true);
    resolve(&e.CaptureStart, "VX_CAPTURE_CaptureStart", true);
    resolve(&e.CaptureStop, "VX_CAPTURE_CaptureStop", true);
    resolve(&e.RegisterCallback, "VX_CAPTURE_RegisterCallback", true);
    resolve(&e.UnRegisterCallback, "VX_CAPTURE_UnRegisterCallback", true);
    resolve(&e.FrameProcessDone, "VX_CAPTURE_FrameProcessDone", true);
    resolve(&e.NotifyContinueCapture, "VX_CAPTURE_NotifyContinueCapture", false);
    resolve(&e.DumpInfo, "VX_CAPTURE_DumpInfo", false);
    check("entries", missing.empty() ? "" : "missing " + missing,
          format("%d of 16 VX_CAPTURE_* entries resolve", found));
    if (e.NotifyContinueCapture == nullptr) {
        warn("entry-NotifyContinueCapture",
             "missing: the service's notifyContinueCapture will answer INVALID_ARGUMENT");
    }
    if (e.DumpInfo == nullptr) {
        warn("entry-DumpInfo", "missing: the service's debug output will lack the hardware's");
    }
    return missing.empty();
}

void Harness::records() {
    heading("Records (this host's layout, fixed at build time)");
    struct Size {
        const char* name;
        size_t bytes;
    };
    const Size sizes[] = {
        {"VX_CAPTURE_CaptureInfo_s", sizeof(VX_CAPTURE_CaptureInfo_s)},
        {"VX_CAPTURE_SrcFrameInfo_s", sizeof(VX_CAPTURE_SrcFrameInfo_s)},
        {"VX_CAPTURE_DstFrameInfo_s", sizeof(VX_CAPTURE_DstFrameInfo_s)},
        {"VX_CAPTURE_PlaneOffset_s", sizeof(VX_CAPTURE_PlaneOffset_s)},
        {"VX_CAPTURE_setQueryInfo_s", sizeof(VX_CAPTURE_setQueryInfo_s)},
        {"VX_CAPTURE_getQueryInfo_s", sizeof(VX_CAPTURE_getQueryInfo_s)},
        {"VX_CAPTURE_DipInfo_s", sizeof(VX_CAPTURE_DipInfo_s)},
        {"VX_CAPTURE_CaptureDoneInfo_s", sizeof(VX_CAPTURE_CaptureDoneInfo_s)},
        {"VX_CAPTURE_CallbackInputParams_s", sizeof(VX_CAPTURE_CallbackInputParams_s)},
    };
    for (const Size& s : sizes) {
        pass(std::string("record-") + s.name, format("%zu bytes", s.bytes));
    }
    // The registration record holds two addresses: 24 bytes on the 32-bit device userland.
}

bool Harness::power() {
    heading("Power: VX_CAPTURE_Init / VX_CAPTURE_DeInit");
    uint8_t param = 0;
    uint32_t handle = kUntouched;
    uint32_t s = CALL(Open, &param, &handle);
    std::string problem;
    if (s == 0) {
        problem = format("Open before Init succeeded (handle 0x%x)", handle);
        CALL(Close, static_cast<int32_t>(handle));
    } else if (handle != kUntouched) {
        problem = format("Open before Init was refused (%u) but wrote the handle", s);
    } else if ((s = CALL(DeInit)) == 0) {
        problem = "DeInit before Init succeeded";
    }
    check("before-init", problem, "Open and DeInit before Init refused");

    // Init is counted: every open Inits, every close DeInits, and one close must not power down
    // what another open still uses.
    problem.clear();
    int32_t id = 0;
    if ((s = CALL(Init, &param)) != 0 || (s = CALL(Init, &param)) != 0) {
        problem = format("Init refused with %u", s);
    } else if ((s = CALL(DeInit)) != 0) {
        problem = format("DeInit refused with %u", s);
    } else if ((id = open()) == 0) {
        problem = "Open refused after Init, Init, DeInit";
    } else {
        CALL(Close, id);
        if ((s = CALL(DeInit)) != 0) {
            problem = format("the second DeInit refused with %u", s);
        } else if ((id = open()) != 0) {
            problem = "Open succeeded after Init, Init, DeInit, DeInit";
            CALL(Close, id);
        }
    }
    check("init-counted", problem, "two Inits need two DeInits");
    if ((s = CALL(Init, &param)) != 0) {
        fail("init", format("Init refused with %u; nothing more can be checked", s));
        return false;
    }
    return true;
}

int32_t Harness::open() {
    uint8_t param = 0;
    uint32_t handle = kUntouched;
    return CALL(Open, &param, &handle) == 0 ? static_cast<int32_t>(handle) : 0;
}

void Harness::identifiers() {
    heading("Identifiers");
    std::string problem;
    for (int slot = 0; slot < kSlots; ++slot) {
        int32_t id = open();
        if (id != kIdBase + slot && problem.empty()) {
            problem = format("open %d gave 0x%x, not 0x%x", slot + 1, static_cast<uint32_t>(id),
                             static_cast<uint32_t>(kIdBase + slot));
        }
    }
    check("id-numbering", problem, "32 opens gave 0x73000000 + slot, in slot order");

    uint8_t param = 0;
    uint32_t handle = kUntouched;
    uint32_t s = CALL(Open, &param, &handle);
    problem.clear();
    if (s == 0) {
        problem = format("a 33rd open succeeded (0x%x)", handle);
        CALL(Close, static_cast<int32_t>(handle));
    } else if (handle != kUntouched) {
        problem = format("the 33rd open was refused (%u) but wrote the handle", s);
    }
    check("open-limit", problem, format("the 33rd open refused with %u, handle untouched", s));

    problem.clear();
    CALL(Close, kIdBase + 17);
    CALL(Close, kIdBase + 5);
    const int32_t first = open(), second = open();
    if (first != kIdBase + 5 || second != kIdBase + 17) {
        problem = format("after closing slots 5 and 17, opens gave 0x%x and 0x%x",
                         static_cast<uint32_t>(first), static_cast<uint32_t>(second));
    }
    check("lowest-free-slot", problem, "after closing slots 17 and 5, opens gave 5, then 17");

    problem.clear();
    for (int slot = 0; slot < kSlots; ++slot) {
        if ((s = CALL(Close, kIdBase + slot)) != 0 && problem.empty()) {
            problem = format("closing 0x%x refused with %u", kIdBase + slot, s);
        }
    }
    check("close", problem, "all 32 closed");

    // Identifiers the library did not hand out (a closed slot, and either side of the range).
    problem.clear();
    int calls = 0, wrong = 0;
    for (int32_t id : {kIdBase + 3, kIdBase - 1, kIdBase + kSlots}) {
        VX_CAPTURE_CaptureInfo_s info = {};
        VX_CAPTURE_SrcFrameInfo_s src = {};
        VX_CAPTURE_DstFrameInfo_s dst = {};
        VX_CAPTURE_PlaneOffset_s planes = {};
        VX_CAPTURE_setQueryInfo_s query = {};
        VX_CAPTURE_getQueryInfo_s answer = {};
        VX_CAPTURE_DipInfo_s dip = {};
        VX_CAPTURE_CallbackInputParams_s params = {};
        params.pfnCallback = onCompletion;
        params.u32Flag = 1;
        uint8_t out[8] = {};
        auto expect = [&](const char* entry, uint32_t status) {
            ++calls;
            if (status != kBadIdStatus && ++wrong <= 3) {
                problem += format("%s%s(0x%x) returned %u", problem.empty() ? "" : ", ", entry,
                                  static_cast<uint32_t>(id), status);
            }
        };
        expect("Close", CALL(Close, id));
        expect("SetCaptureInfo", CALL(SetCaptureInfo, id, &info));
        expect("SetCaptureFrameInfo", CALL(SetCaptureFrameInfo, id, &src, &dst, &planes));
        expect("GetCapabilityInfo", CALL(GetCapabilityInfo, id, &query, &answer));
        expect("GetDipInfo", CALL(GetDipInfo, id, &query, &dip, 1));
        expect("CaptureOnce", CALL(CaptureOnce, id));
        expect("CaptureStart", CALL(CaptureStart, id));
        expect("CaptureStop", CALL(CaptureStop, id));
        expect("RegisterCallback", CALL(RegisterCallback, id, &params, out));
        expect("UnRegisterCallback", CALL(UnRegisterCallback, id, &params));
        expect("FrameProcessDone", CALL(FrameProcessDone, id, 0));
        if (e.NotifyContinueCapture != nullptr) {
            expect("NotifyContinueCapture", CALL(NotifyContinueCapture, id));
        }
    }
    if (wrong != 0) problem = format("%d of %d calls not refused with 7: ", wrong, calls) + problem;
    if (wrong > 3) problem += ", ...";
    check("unknown-id", problem,
          format("%d calls on identifiers not open (a closed slot, 0x72ffffff, 0x73000020) "
                 "refused with 7",
                 calls));
}

void Harness::planeOffsets() {
    heading("Frame layout: plane offsets of VX_CAPTURE_SetCaptureFrameInfo");
    struct Layout {
        const char* name;
        uint32_t format;
        uint32_t pitch;
        bool twoPlanes;
    };
    const Layout layouts[] = {
        {"NV12", VX_CAPTURE_FMT_NV12, kWidth, true},
        {"NV16", VX_CAPTURE_FMT_NV16, kWidth, true},
        {"YUYV", VX_CAPTURE_FMT_YUYV, kWidth * 2, false},
        {"ARGB8888", VX_CAPTURE_FMT_ARGB8888, kWidth * 4, false},
    };
    const int32_t id = open();
    Buffer source(kLumaSize + kChromaSize), destination(size_t{kWidth} * 4 * kHeight);
    for (const Layout& l : layouts) {
        VX_CAPTURE_SrcFrameInfo_s src = {};
        src.u32Width = kWidth;
        src.u32Height = kHeight;
        src.eFormat = VX_CAPTURE_FMT_NV12;
        src.s32BufferFd = source.handle()->data[0];
        src.s32BufferFd2 = -1;
        VX_CAPTURE_DstFrameInfo_s dst = {};
        dst.u32Width = kWidth;
        dst.u32Height = kHeight;
        dst.u32Pitch = l.pitch;
        dst.eFormat = l.format;
        dst.s32BufferFd = destination.handle()->data[0];
        dst.s32BufferFd2 = -1;
        VX_CAPTURE_PlaneOffset_s planes = {{kUntouched, kUntouched}};
        const std::string name = std::string("plane-offsets-") + l.name;
        uint32_t s = CALL(SetCaptureFrameInfo, id, &src, &dst, &planes);
        const uint32_t want = l.twoPlanes ? l.pitch * kHeight : 0;
        if (s == kFormatStatus) {
            warn(name, format("%ux%u %s not supported (16)", kWidth, kHeight, l.name));
        } else if (s != 0) {
            fail(name, format("NV12 -> %ux%u %s pitch %u refused with %u", kWidth, kHeight, l.name,
                              l.pitch, s));
        } else {
            check(name,
                  planes.u32Offset[0] == 0 && planes.u32Offset[1] == want
                      ? ""
                      : format("pitch %u: offsets (%u, %u), expected (0, %u)", l.pitch,
                               planes.u32Offset[0], planes.u32Offset[1], want),
                  format("pitch %u: offsets (0, %u)", l.pitch, want));
        }
    }
    CALL(Close, id);
}

void Harness::capabilities() {
    heading("Capabilities");
    const char* env = getenv("CAPTURE_DEVICE_TREE_ROOT");
    std::string root = env != nullptr && env[0] != '\0' ? env : CAPTURE_EMULATOR_DEVICE_TREE;
    if (root.back() != '/') root += '/';
    const bool rwSep = ((getConfigValue(root + "dip0/capability/RWSep", 0) |
                         getConfigValue(root + "dip1/capability/RWSep", 0)) &
                        0xFF) != 0;
    const int32_t id = open();
    VX_CAPTURE_setQueryInfo_s query = {
        kWidth, kHeight, VX_CAPTURE_FMT_NV12, kWidth, kHeight, VX_CAPTURE_FMT_NV12, 0, 0, {}};
    VX_CAPTURE_getQueryInfo_s a = {};
    uint32_t s = CALL(GetCapabilityInfo, id, &query, &a);
    std::string problem;
    if (s != 0) {
        problem =
            format("GetCapabilityInfo of NV12 %ux%u -> same refused with %u", kWidth, kHeight, s);
    } else if (a.src_max_width == 0 || a.dst_max_width == 0) {
        problem = format("maximum widths %u (source) and %u (destination)", a.src_max_width,
                         a.dst_max_width);
    } else if (a.src_min_width > a.src_max_width || a.dst_min_width > a.dst_max_width) {
        problem = format("minimum widths %u/%u above the maximum %u/%u", a.src_min_width,
                         a.dst_min_width, a.src_max_width, a.dst_max_width);
    } else if (!rwSep && (a.src_max_width_rwsep != 0 || a.dst_max_width_rwsep != 0)) {
        problem = format(
            "widths %u/%u with separate read and write paths, which the device "
            "tree (%s) does not give the engines",
            a.src_max_width_rwsep, a.dst_max_width_rwsep, root.c_str());
    }
    check("capability-limits", problem,
          format("source widths %u..%u (%u read/write separated), destination %u..%u (%u); "
                 "device tree %s: RWSep %s",
                 a.src_min_width, a.src_max_width, a.src_max_width_rwsep, a.dst_min_width,
                 a.dst_max_width, a.dst_max_width_rwsep, root.c_str(), rwSep ? "yes" : "no"));
    CALL(Close, id);
}

uint32_t Harness::configure(int32_t id, const Buffer& buffer) {
    VX_CAPTURE_CaptureInfo_s info = {};
    info.eCapPoint = 0;
    info.s32PqId = -1;
    info.s32PqWinId = -1;
    info.u32SrcWidth = kWidth;
    info.u32SrcHeight = kHeight;
    info.u8Engine = 1;
    info.u32SrcFps = kFps;
    info.u32DstWidth = kWidth;
    info.u32DstHeight = kHeight;
    info.u32DstFps = kFps;
    info.eOutputFormat = VX_CAPTURE_FMT_NV12;
    info.s32BufferFd = buffer.handle()->data[0];
    info.s32BufferFd2 = -1;
    return CALL(SetCaptureInfo, id, &info);
}

uint32_t Harness::registerEntry(int32_t id) {
    if (id < kIdBase || id >= kIdBase + kSlots) return kBadIdStatus;  // an open that failed
    const size_t slot = static_cast<size_t>(id - kIdBase);
    gSequence[slot] = sequenceOf(id);
    gParams[slot] = {};
    gParams[slot].pfnCallback = onCompletion;
    gParams[slot].u32Flag = 1;
    gParams[slot].pu32SequenceId = &gSequence[slot];
    uint8_t out[8] = {};
    return CALL(RegisterCallback, id, &gParams[slot], out);
}

// What is wrong with a completion of the 320x180 NV12 configuration; empty when nothing.
std::string Harness::recordProblem(const Completion& c, int32_t id, pid_t caller,
                                   const Buffer& buffer, uint32_t ring) {
    const VX_CAPTURE_CaptureDoneInfo_s& d = c.done;
    if (c.id != id) return format("completion for 0x%x, not 0x%x", c.id, id);
    if (!c.hasRecord) return "completion without a record";
    if (c.thread == caller) return "completion delivered on the calling thread";
    if (!c.hasSequence || c.sequence != sequenceOf(id)) {
        return "the sequence reference does not point to the registration's value";
    }
    if (d.ErrorNo != 0) return format("frame error %u", d.ErrorNo);
    if (d.index >= ring) return format("index %u outside a ring of %u", d.index, ring);
    if (d.Y_Size != kLumaSize || d.C_Size != kChromaSize) {
        return format("plane sizes %u + %u, the frame's are %u + %u", d.Y_Size, d.C_Size, kLumaSize,
                      kChromaSize);
    }
    const auto& at = d.stBuf[d.index];
    if (uint64_t{at.Y_offSet} + d.Y_Size > buffer.size() ||
        uint64_t{at.C_offSet} + d.C_Size > buffer.size()) {
        return format("buffer %u's planes at %u and %u run past the %zu-byte buffer", d.index,
                      at.Y_offSet, at.C_offSet, buffer.size());
    }
    const uint8_t* luma = buffer.data() + at.Y_offSet;
    if (std::all_of(luma, luma + d.Y_Size, [](uint8_t b) { return b == 0; })) {
        return format("buffer %u holds no picture", d.index);
    }
    return "";
}

// Receives `frames` completions, handing each buffer back; the first problem, if any.
std::string Harness::stream(int32_t id, const Buffer& buffer, int frames, pid_t caller) {
    for (int k = 0; k < frames; ++k) {
        Completion c;
        if (!nextCompletion(id, &c)) {
            return format("%d of %d frames arrived within %lld ms each", k, frames,
                          static_cast<long long>(kFrameTimeout.count()));
        }
        std::string problem = recordProblem(c, id, caller, buffer, kRing);
        if (!problem.empty()) return problem;
        if (uint32_t s = CALL(FrameProcessDone, id, c.done.index); s != 0) {
            return format("FrameProcessDone(%u) refused with %u", c.done.index, s);
        }
    }
    return "";
}

void Harness::completions() {
    heading("Completions");
    const int32_t id = open();
    Buffer buffer(kRingBytes);
    const pid_t caller = threadId();
    uint32_t s = 0;
    std::string problem;
    if ((s = configure(id, buffer)) != 0 || (s = registerEntry(id)) != 0) {
        fail("configure", format("%ux%u NV12 at %u fps from capture point 0 refused with %u",
                                 kWidth, kHeight, kFps, s));
        CALL(Close, id);
        return;
    }
    Completion c;
    if ((s = CALL(CaptureOnce, id)) != 0) {
        problem = format("CaptureOnce refused with %u", s);
    } else if (!nextCompletion(id, &c)) {
        problem = "no completion within a second";
    } else {
        problem = recordProblem(c, id, caller, buffer, kRing);
    }
    check("once-completion", problem,
          format("CaptureOnce: a valid record (buffer %u) on another thread", c.done.index));
    std::this_thread::sleep_for(kQuiet);
    forget(id);

    if ((s = CALL(CaptureStart, id)) != 0) {
        fail("stream-completions", format("CaptureStart refused with %u", s));
        CALL(Close, id);
        return;
    }
    check("stream-completions", stream(id, buffer, 2 * kRing, caller),
          format("%u frames: valid records, pictures in the buffers, on another thread", 2 * kRing));
    if (e.NotifyContinueCapture != nullptr) {
        s = CALL(NotifyContinueCapture, id);
        check("notify-continue", s == 0 ? "" : format("refused with %u while streaming", s),
              "accepted while streaming");
    }
    holding(id, kRing, buffer);
    stopping(id, buffer);
    CALL(Close, id);
    forget(id);
}

// The client keeps every buffer it is given: none may be delivered or written again until it is
// handed back, and one handed back must be used again.
void Harness::holding(int32_t id, uint32_t ring, const Buffer& buffer) {
    std::map<uint32_t, uint64_t> held;  // index -> checksum of its planes when delivered
    auto sum = [&](uint32_t index, const VX_CAPTURE_CaptureDoneInfo_s& d) {
        const auto& at = d.stBuf[index];
        return checksum(buffer.data() + at.Y_offSet, d.Y_Size) ^
               checksum(buffer.data() + at.C_offSet, d.C_Size) * 31;
    };
    std::string problem;
    VX_CAPTURE_CaptureDoneInfo_s layout = {};
    // Take frames until the ring runs dry, then watch a while longer.
    const auto until = Clock::now() + kQuiet * 4;
    Completion c;
    while (Clock::now() < until) {
        if (!nextCompletion(id, &c, kPeriod)) continue;
        problem = recordProblem(c, id, 0, buffer, ring);
        if (problem.empty() && held.count(c.done.index) != 0) {
            problem = format("buffer %u delivered again while the client holds it", c.done.index);
        }
        if (!problem.empty()) break;
        layout = c.done;
        held[c.done.index] = sum(c.done.index, c.done);
    }
    for (const auto& [index, before] : held) {
        if (problem.empty() && sum(index, layout) != before) {
            problem = format("buffer %u written while the client holds it", index);
        }
    }
    if (problem.empty() && held.empty()) problem = "no frame arrived";
    check("held-untouched", problem,
          format("%zu buffers held for %lld ms: none delivered or written again", held.size(),
                 static_cast<long long>((kQuiet * 4).count())));

    // Hand one back: the next frame goes into it.
    problem.clear();
    const uint32_t back = held.empty() ? 0 : held.begin()->first;
    uint32_t s = CALL(FrameProcessDone, id, back);
    if (s != 0) problem = format("FrameProcessDone(%u) refused with %u", back, s);
    held.erase(back);
    while (problem.empty()) {
        if (!nextCompletion(id, &c)) {
            problem = format("buffer %u handed back was not used within a second", back);
        } else if (held.count(c.done.index) != 0) {
            problem = format("buffer %u delivered again while the client holds it", c.done.index);
        } else if (c.done.index == back) {
            break;
        } else {
            held[c.done.index] = 0;
        }
    }
    held[back] = 0;
    check("buffer-return", problem,
          format("FrameProcessDone(%u): the next frame went into buffer %u", back, back));
    for (const auto& entry : held) {
        const uint32_t index = entry.first;  // a plain local: CALL wraps the call in a lambda
        CALL(FrameProcessDone, id, index);
    }
}

// What is wrong when `entry` returned `status` and completions for `id` kept coming in the
// quiet time after it; empty when nothing is.
std::string quietAfter(int32_t id, const char* entry, uint32_t status) {
    const uint64_t before = deliveredSoFar(id);
    std::this_thread::sleep_for(kQuiet);
    const uint64_t after = deliveredSoFar(id);
    if (status != 0) return format("%s refused with %u", entry, status);
    if (after == before) return "";
    return format("%llu completions in the %lld ms after %s returned",
                  static_cast<unsigned long long>(after - before),
                  static_cast<long long>(kQuiet.count()), entry);
}

// No completion may arrive once CaptureStop or UnRegisterCallback has returned.
void Harness::stopping(int32_t id, const Buffer& buffer) {
    std::string problem = stream(id, buffer, 2, 0);
    if (problem.empty()) {
        problem = quietAfter(id, "CaptureStop", CALL(CaptureStop, id));
    }
    check("stop-joins", problem,
          format("no completion in the %lld ms after CaptureStop returned",
                 static_cast<long long>(kQuiet.count())));
    forget(id);

    problem.clear();
    uint32_t s = registerEntry(id);
    if (s == 0) s = CALL(CaptureStart, id);
    if (s != 0) {
        problem = format("registering and starting again refused with %u", s);
    } else if ((problem = stream(id, buffer, 2, 0)).empty()) {
        problem = quietAfter(id, "UnRegisterCallback",
                             CALL(UnRegisterCallback, id, &gParams[id - kIdBase]));
    }
    CALL(CaptureStop, id);
    check("unregister-joins", problem,
          format("no completion in the %lld ms after UnRegisterCallback returned (streaming)",
                 static_cast<long long>(kQuiet.count())));
}

void Harness::concurrency() {
    heading("Concurrency");
    constexpr int kFrames = 6;
    struct Side {
        int32_t id = 0;
        std::string problem;
    } sides[2];
    sides[0].id = open();
    sides[1].id = open();
    auto work = [this](Side* side) {
        Buffer buffer(kRingBytes);
        uint32_t s = configure(side->id, buffer);
        if (s == 0) s = registerEntry(side->id);
        if (s == 0) s = CALL(CaptureStart, side->id);
        if (s != 0) {
            side->problem = format("0x%x: configuring or starting refused with %u", side->id, s);
            return;
        }
        side->problem = stream(side->id, buffer, kFrames, threadId());
        if (!side->problem.empty()) side->problem = format("0x%x: ", side->id) + side->problem;
        CALL(CaptureStop, side->id);
    };
    std::thread first(work, &sides[0]), second(work, &sides[1]);
    first.join();
    second.join();
    std::string problem = !sides[0].problem.empty() ? sides[0].problem : sides[1].problem;
    {
        std::lock_guard<std::mutex> guard(gSink.lock);
        for (const auto& [id, queue] : gSink.queues) {
            if (id != sides[0].id && id != sides[1].id && !queue.empty() && problem.empty()) {
                problem = format("completions for 0x%x, which no thread streams", id);
            }
        }
    }
    check("two-streams", problem,
          format("0x%x and 0x%x streamed from two threads at once: %d frames each, in their "
                 "own buffers",
                 sides[0].id, sides[1].id, kFrames));
    for (const Side& side : sides) {
        CALL(Close, side.id);
        forget(side.id);
    }
}

void Harness::dump() {
    heading("Diagnostics");
    if (e.DumpInfo == nullptr) {
        warn("dump-info", "VX_CAPTURE_DumpInfo missing");
        return;
    }
    const int32_t id = open();
    int fd = memfd_create("conformance-dump", MFD_CLOEXEC);
    uint32_t s = CALL(DumpInfo, fd, 32);
    off_t written = lseek(fd, 0, SEEK_END);
    close(fd);
    CALL(Close, id);
    check("dump-info",
          s != 0 ? format("refused with %u", s)
                 : (written <= 0 ? "nothing written to the descriptor" : ""),
          format("%lld bytes written to a memfd", static_cast<long long>(written)));
}

void Harness::statuses() {
    heading("Status codes");
    std::string problem;
    for (const auto& [what, times] : mUnmapped) {
        problem += format("%s%s (%d call%s)", problem.empty() ? "" : "; ", what.c_str(), times,
                          times == 1 ? "" : "s");
    }
    if (!problem.empty()) problem += ": the service maps it to FAIL";
    check("status-codes", problem,
          format("all %d statuses returned are 0 or codes the service maps", mStatuses));
}

void Harness::summary() {
    fprintf(mOut, "\nconformance: %d checks, %d passed, %d failed, %d warnings\n", mChecks, mPassed,
            mFailed, mWarnings);
    if (mJson) {
        printf("%s\n", Json()
                           .num("checks", mChecks)
                           .num("passed", mPassed)
                           .num("failed", mFailed)
                           .num("warnings", mWarnings)
                           .objects("results", mResults)
                           .text()
                           .c_str());
    }
}

int Harness::run() {
    std::thread watchdog(&Harness::watch, this);
    if (resolveEntries()) {
        records();
        if (power()) {
            identifiers();
            planeOffsets();
            capabilities();
            completions();
            concurrency();
            dump();
            statuses();
            CALL(DeInit);
        }
    }
    {
        std::lock_guard<std::mutex> guard(mCallLock);  // not while the watchdog reports
        mDone = true;
        summary();
    }
    mWatchEnds.notify_all();
    watchdog.join();
    return mFailed == 0 ? kExitOk : kExitRefused;
}

}  // namespace

int runConformance(const Options& options) {
    const std::string path = options.get("subhal", CAPTURE_EMULATOR_LIBRARY);
    startLogCapture(options.verbose);
    // Never closed: a library may still run threads of its own when the checks end.
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        fprintf(stderr, "capturectl conformance: cannot load %s: %s\n", path.c_str(), dlerror());
        return kExitUsage;
    }
    const bool json = options.has("json");
    const int timeoutS = static_cast<int>(parseNumber(options.get("timeout", "10"), "timeout"));
    if (timeoutS < 1)
        usageError("the timeout must be at least 1 s, not %s", std::to_string(timeoutS));
    fprintf(json ? stderr : stdout, "Sub-HAL conformance of %s\n", path.c_str());
    return Harness(library, json, timeoutS).run();
}

}  // namespace capturectl
