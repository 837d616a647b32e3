// What the service adds to the vendor library: each ICapture method against the bare sub-HAL
// entries it calls (on a sub-HAL whose entries return at once, linked in so that the service's
// dlopen finds the same library), the delivery of a completion to the client's onNotify with 1 and
// 32 streams running, and whether many open/close cycles leave descriptors or heap behind.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <thread>
#include <vector>

#include "BenchUtil.h"
#include "Capture.h"
#include "VxCaptureHal.h"

extern "C" int NullSubHal_Complete(int32_t id, VX_CAPTURE_CaptureDoneInfo_s* info);

namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

thread_local double tFiredNs;                  // when the sub-HAL called the completion entry
thread_local std::vector<double>* tLatencies;  // this stream's samples, or none

struct TimingCallback : public ICaptureCallback {
    Return<void> onNotify(CaptureEventNotify, const CaptureCallbackParams&) override {
        if (tLatencies != nullptr) tLatencies->push_back(bench::nowNs() - tFiredNs);
        return Void();
    }
};

// One service on the null sub-HAL, with one instance open and a 4 MiB buffer; the warnings it
// logs are dropped.
struct Service {
    Service() {
        setenv("CAPTURE_SUBHAL_PATH", NULL_SUBHAL_PATH, 1);
        setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 1);
        __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
        sp<Capture> service = new Capture();
        service->initLib();
        capture = service;
        capture->open([&](CaptureReturn, int32_t opened) { id = opened; });
        buffer->data[0] = memfd_create("bench", MFD_CLOEXEC);
        if (ftruncate(buffer->data[0], 1 << 22) != 0) abort();
    }
    sp<ICapture> capture;
    int32_t id = -1;
    native_handle_t* buffer = native_handle_create(1, 0);
};

Service& service() {
    static Service* s = new Service();
    return *s;
}

CaptureInfo liveInfo(const native_handle_t* buffer) {
    CaptureInfo info{};
    info.capPoint = CapturePoint(1);
    info.pqId = -1;
    info.srcWidth = info.cropWidth = 1920;
    info.srcHeight = info.cropHeight = 1080;
    info.hwEngine = 1;
    info.srcFps = info.dstFps = 60;
    info.dstWidth = 1280;
    info.dstHeight = 720;
    info.dstFmt = CaptureFormat::NV12;
    info.dstBuffer = buffer;
    return info;
}

// Zeroed records for the bare entries; the null sub-HAL reads none of them.
struct BareRecords {
    VX_CAPTURE_CaptureInfo_s info{};
    VX_CAPTURE_SrcFrameInfo_s src{};
    VX_CAPTURE_DstFrameInfo_s dst{};
    VX_CAPTURE_PlaneOffset_s planes{};
    VX_CAPTURE_setQueryInfo_s query{};
    VX_CAPTURE_getQueryInfo_s answer{};
    VX_CAPTURE_DipInfo_s dip{};
    uint32_t sequence = 0;
    VX_CAPTURE_CallbackInputParams_s params{0, 0, nullptr, 1, &sequence, 0};
    uint8_t out[8]{}, init = 0;
    uint32_t handle = 0;
} raw;

// A method through the service (true when it answered SUCCESS), and the sub-HAL entries it
// calls straight.
struct Method {
    const char* name;
    std::function<bool()> service;
    std::function<void()> bare;
};

std::vector<Method> methods() {
    Service& s = service();
    const int32_t id = s.id;
    const CaptureInfo info = liveInfo(s.buffer);
    CaptureSrcFrameInfo src{};
    src.width = 1920;
    src.height = 1080;
    src.format = CaptureFormat::NV12;
    src.buffer = s.buffer;
    src.vPlaneOffset = hidl_vec<uint32_t>{0, 1920 * 1080};
    CaptureDstFrameInfo dst{};
    dst.width = 1280;
    dst.height = 720;
    dst.format = CaptureFormat::NV12;
    dst.buffer = s.buffer;
    setQueryInfo query{
        1920, 1080, CaptureFormat::NV12, 1280, 720, CaptureFormat::NV12, 0, 0, 0, 1920, 1080, 0};
    sp<ICaptureCallback> cb = new TimingCallback();
    const sp<ICapture>& c = s.capture;
    const auto ok = [](const Return<CaptureReturn>& r) { return r == CaptureReturn::SUCCESS; };
    const auto answered = [](auto call) {
        bool good = false;
        call([&](CaptureReturn r, const auto&) { good = r == CaptureReturn::SUCCESS; });
        return good;
    };
    return {
        {"setCaptureInfo", [=] { return ok(c->setCaptureInfo(id, info)); },
         [=] { VX_CAPTURE_SetCaptureInfo(id, &raw.info); }},
        {"setCaptureFrameInfo",
         [=] { return answered([&](auto reply) { c->setCaptureFrameInfo(id, src, dst, reply); }); },
         [=] { VX_CAPTURE_SetCaptureFrameInfo(id, &raw.src, &raw.dst, &raw.planes); }},
        {"getCaptureCapabilityInfo",
         [=] { return answered([&](auto reply) { c->getCaptureCapabilityInfo(id, query, reply); }); },
         [=] {  // a stream query asks the limits, the DIP, then the limits again
             VX_CAPTURE_GetCapabilityInfo(id, &raw.query, &raw.answer);
             VX_CAPTURE_GetDipInfo(id, &raw.query, &raw.dip, 1);
             VX_CAPTURE_GetCapabilityInfo(id, &raw.query, &raw.answer);
         }},
        {"captureOnce", [=] { return ok(c->captureOnce(id)); }, [=] { VX_CAPTURE_CaptureOnce(id); }},
        {"startCapture+stopCapture",
         [=] { return ok(c->startCapture(id, cb)) && ok(c->stopCapture(id)); },
         [=] {
             VX_CAPTURE_RegisterCallback(id, &raw.params, raw.out);
             VX_CAPTURE_CaptureStart(id);
             VX_CAPTURE_UnRegisterCallback(id, &raw.params);
             VX_CAPTURE_CaptureStop(id);
         }},
        {"frameProcessDone", [=] { return ok(c->frameProcessDone(id, 0)); },
         [=] { VX_CAPTURE_FrameProcessDone(id, 0); }},
        {"notifyContinueCapture", [=] { return ok(c->notifyContinueCapture(id)); },
         [=] { VX_CAPTURE_NotifyContinueCapture(id); }},
        {"setCallback", [=] { return c->setCallback(id, cb).isOk(); }, [] {}},
        {"open+close",
         [=] {
             int32_t opened = -1;
             c->open([&](CaptureReturn, int32_t i) { opened = i; });
             return ok(c->close(opened));
         },
         [=] {
             VX_CAPTURE_Init(&raw.init);
             VX_CAPTURE_Open(&raw.init, &raw.handle);
             VX_CAPTURE_Close(static_cast<int32_t>(raw.handle));
             VX_CAPTURE_DeInit();
         }},
    };
}

// CPU time per call through the service, and of the bare entries for as many calls; the
// difference is what the service adds. CPU time, not wall time, so that a busy machine does not
// blur the comparison.
void BM_PerCall(benchmark::State& state) {
    const Method m = methods().at(static_cast<size_t>(state.range(0)));
    state.SetLabel(m.name);
    if (!m.service()) {
        state.SkipWithError("the service refused the call");
        return;
    }
    const double t0 = bench::nowNs(CLOCK_THREAD_CPUTIME_ID);
    for (auto _ : state) benchmark::DoNotOptimize(m.service());
    const double t1 = bench::nowNs(CLOCK_THREAD_CPUTIME_ID);
    for (int64_t i = 0; i < state.iterations(); ++i) m.bare();
    const double t2 = bench::nowNs(CLOCK_THREAD_CPUTIME_ID);
    const double n = static_cast<double>(state.iterations());
    state.counters["service_ns"] = (t1 - t0) / n;
    state.counters["bare_ns"] = (t2 - t1) / n;
    state.counters["overhead_ns"] = (t1 - t0 - (t2 - t1)) / n;
}
BENCHMARK(BM_PerCall)->DenseRange(0, 8);

double percentile(std::vector<double>& v, double p) {
    if (v.empty()) return 0;
    const size_t k = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    return v[k];
}

// Each stream completes frames from a thread of its own, at 1,000 per second (a harsher load than
// 60 fps, to gather samples fast); the latency is from the completion entry's call to the client's
// onNotify.
void BM_DeliveryLatency(benchmark::State& state) {
    Service& s = service();
    const int streams = static_cast<int>(state.range(0));
    std::vector<int32_t> ids{s.id};
    for (int k = 1; k < streams; ++k) {
        s.capture->open([&](CaptureReturn r, int32_t id) {
            if (r == CaptureReturn::SUCCESS) ids.push_back(id);
        });
    }
    if (static_cast<int>(ids.size()) != streams) {
        state.SkipWithError("could not open the instances");
        return;
    }
    sp<ICaptureCallback> cb = new TimingCallback();
    for (int32_t id : ids) s.capture->startCapture(id, cb);
    std::vector<std::vector<double>> samples(ids.size());
    for (auto _ : state) {
        std::vector<std::thread> threads;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        for (size_t k = 0; k < ids.size(); ++k) {
            threads.emplace_back([&, k] {
                tLatencies = &samples[k];
                tLatencies->reserve(4096);
                VX_CAPTURE_CaptureDoneInfo_s info{};
                for (auto next = std::chrono::steady_clock::now(); next < end;
                     next += std::chrono::milliseconds(1)) {
                    std::this_thread::sleep_until(next);
                    info.index = (info.index + 1) % 8;
                    tFiredNs = bench::nowNs();
                    NullSubHal_Complete(ids[k], &info);
                }
                tLatencies = nullptr;
            });
        }
        for (auto& t : threads) t.join();
    }
    for (int32_t id : ids) s.capture->stopCapture(id);
    for (size_t k = 1; k < ids.size(); ++k) s.capture->close(ids[k]);
    std::vector<double> all;
    for (auto& v : samples) all.insert(all.end(), v.begin(), v.end());
    state.counters["frames"] = static_cast<double>(all.size());
    state.counters["median_ns"] = percentile(all, 0.5);
    state.counters["p99_ns"] = percentile(all, 0.99);
    state.counters["p99.9_ns"] = percentile(all, 0.999);
}
BENCHMARK(BM_DeliveryLatency)->Arg(1)->Arg(32)->Iterations(1)->Unit(benchmark::kMillisecond);

// The service's CPU per delivered frame, back to back on one stream: the completion entry, the
// sequence check, the lock and the client's (empty) onNotify.
void BM_DeliveryCpu(benchmark::State& state) {
    Service& s = service();
    sp<ICaptureCallback> cb = new TimingCallback();
    s.capture->startCapture(s.id, cb);
    VX_CAPTURE_CaptureDoneInfo_s info{};
    for (auto _ : state) benchmark::DoNotOptimize(NullSubHal_Complete(s.id, &info));
    s.capture->stopCapture(s.id);
}
BENCHMARK(BM_DeliveryCpu);

// Open/close cycles with a configuration in between: the descriptors and the heap in use after
// 10,000 of them, against what they were after a warm-up.
void BM_OpenCloseLeak(benchmark::State& state) {
    Service& s = service();
    const CaptureInfo info = liveInfo(s.buffer);
    const auto cycle = [&] {
        int32_t id = -1;
        s.capture->open([&](CaptureReturn, int32_t opened) { id = opened; });
        s.capture->setCaptureInfo(id, info);
        s.capture->close(id);
    };
    for (int i = 0; i < 100; ++i) cycle();
    const bench::Footprint before;
    for (auto _ : state) cycle();
    before.report(state);
}
BENCHMARK(BM_OpenCloseLeak)->Iterations(10000);

}  // namespace

BENCHMARK_MAIN();
