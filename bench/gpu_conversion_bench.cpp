// What one GPU conversion through the service costs on this machine's GL (llvmpipe on hosts),
// and where the time goes: EGL and shader set-up, upload of the source, the draw, and the
// write-back of the destination into its buffer.
#include <android-base/properties.h>
#include <benchmark/benchmark.h>
#include <ui/GrallocPrivate.h>
#include <ui/GraphicBuffer.h>

#include <mutex>
#include <tuple>

#include "BenchUtil.h"
#include "Capture.h"
#include "hostgl/HostGl.h"

namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using ::android::GraphicBuffer;
using ::android::sp;
using ::android::hardware::hidl_handle;

constexpr int kSlot = 3;

// A format as the service names it and as the graphics allocator does.
struct Format {
    CaptureFormat capture;
    int32_t hal;
};
constexpr Format kRgba{CaptureFormat::ARGB8888, HAL_PIXEL_FORMAT_RGBA_8888};
constexpr Format kNv12{CaptureFormat::NV12, GRALLOC_PRIVATE_FORMAT_NV12};
constexpr Format kNv21{CaptureFormat::NV21, HAL_PIXEL_FORMAT_YCrCb_420_SP};

// One pair per conversion kind: RGB to RGB, RGB to YUV, YUV to RGB, YUV to YUV.
struct Pair {
    Format src, dst;
} constexpr kPairs[] = {{kRgba, kRgba}, {kRgba, kNv12}, {kNv12, kRgba}, {kNv12, kNv21}};

sp<GraphicBuffer> filledBuffer(uint32_t width, uint32_t height, int32_t format) {
    sp<GraphicBuffer> buffer = new GraphicBuffer(width, height, format, 0x02001B33, "bench");
    void* memory = nullptr;
    if (buffer->initCheck() != ::android::NO_ERROR || buffer->lock(0x33, &memory) != 0) {
        return nullptr;
    }
    const size_t bytes = static_cast<size_t>(buffer->handle->data[kGrallocPrivateSizeLow]);
    auto* p = static_cast<uint8_t*>(memory);
    for (size_t i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>(i * 7 + (i >> 12));
    buffer->unlock();
    return buffer;
}

// A source and a destination of one size for a pair, and a service to convert between them: the
// slot gets them as setCaptureFrameInfo keeps them, with a crop of 5/6 of the frame in the middle.
struct Conversion {
    Conversion(const Pair& p, uint32_t w, uint32_t h, uint32_t rotation)
        : src(filledBuffer(w, h, p.src.hal)), dst(filledBuffer(w, h, p.dst.hal)) {
        std::tie(s.format, s.width, s.height) = std::tuple(p.src.capture, w, h);
        std::tie(d.format, d.rotateAngle, d.width, d.height) =
            std::tuple(p.dst.capture, rotation, w, h);
        std::tie(d.cropX, d.cropY, d.cropWidth, d.cropHeight) =
            std::tuple(w / 12, h / 12, w * 5 / 6, h * 5 / 6);
    }
    bool once() {
        {
            std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
            (mSrcFrameInfo[kSlot] = s).buffer = hidl_handle(src->handle);
            (mDstFrameInfo[kSlot] = d).buffer = hidl_handle(dst->handle);
        }
        mUseGpu[kSlot] = 1;
        return service->captureOnce(kCaptureIdBase + kSlot) == CaptureReturn::SUCCESS;
    }
    // Converts once per iteration; false (and the benchmark skipped) when a conversion fails.
    bool run(benchmark::State& state) {
        if (src == nullptr || dst == nullptr) state.SkipWithError("no buffers");
        for (auto _ : state) {  // none when skipped
            if (!once()) {
                state.SkipWithError("conversion refused");
                break;
            }
        }
        return !state.error_occurred();
    }

    const sp<GraphicBuffer> src, dst;
    const sp<Capture> service = new Capture();
    CaptureSrcFrameInfo s{};
    CaptureDstFrameInfo d{};
};

// 1920x1080 source, a 1600x900 crop, into a 1920x1080 destination; arguments: pair, rotation.
void BM_GpuConversion1080p(benchmark::State& state) {
    Conversion c(kPairs[state.range(0)], 1920, 1080, static_cast<uint32_t>(state.range(1)));
    host_gl::resetStats();
    const double start = bench::nowNs();
    if (!c.run(state)) return;
    const double totalNs = bench::nowNs() - start;
    const host_gl::Stats s = host_gl::stats();
    if (s.writeBacks != static_cast<uint64_t>(state.iterations())) {
        state.SkipWithError("the host graphics layer drew nothing (CAPTURE_HOST_GL=0?)");
        return;
    }
    // Set-up is the rest: EGL display and context, shaders, images, and their teardown.
    const double layerNs = static_cast<double>(s.uploadNs + s.drawNs + s.writeBackNs);
    const auto ms = [&](double ns) { return ns / 1e6 / static_cast<double>(state.iterations()); };
    state.counters["setup_ms"] = ms(std::max(totalNs - layerNs, 0.0));
    state.counters["upload_ms"] = ms(static_cast<double>(s.uploadNs));
    state.counters["draw_ms"] = ms(static_cast<double>(s.drawNs));
    state.counters["writeback_ms"] = ms(static_cast<double>(s.writeBackNs));
}

BENCHMARK(BM_GpuConversion1080p)
    ->ArgNames({"kind", "rotation"})
    ->ArgsProduct({{0, 1, 2, 3}, {0}})
    ->Args({1, 90})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

// Small conversions back to back: descriptors and heap in use after 1,000 of them, against what
// they were after a warm-up (EGL, shaders and the layer's first allocations).
void BM_GpuConversionLeak(benchmark::State& state) {
    Conversion c(kPairs[1], 96, 64, 90);
    for (int i = 0; i < 20; ++i) c.once();
    const bench::Footprint before;
    if (c.run(state)) before.report(state);
}

BENCHMARK(BM_GpuConversionLeak)->Iterations(1000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
