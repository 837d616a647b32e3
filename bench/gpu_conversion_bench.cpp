// What one GPU conversion through the service costs on this machine's GL (llvmpipe on hosts),
// and where the time goes: EGL and shader set-up, upload of the source, the draw, and the
// write-back of the destination into its buffer.
#include <android-base/properties.h>
#include <benchmark/benchmark.h>
#include <ui/GrallocPrivate.h>
#include <ui/GraphicBuffer.h>

#include <mutex>

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

struct Pair {
    Format src, dst;
};
// One pair per conversion kind: RGB to RGB, RGB to YUV, YUV to RGB, YUV to YUV.
constexpr Pair kPairs[] = {{kRgba, kRgba}, {kRgba, kNv12}, {kNv12, kRgba}, {kNv12, kNv21}};

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

double ms(double ns, int64_t iterations) {
    return iterations > 0 ? ns / 1e6 / static_cast<double>(iterations) : 0;
}

// Hands the slot a source and a destination, as setCaptureFrameInfo keeps them, and converts.
bool convert(Capture& service, const Pair& pair, const sp<GraphicBuffer>& src,
             const sp<GraphicBuffer>& dst, uint32_t rotation) {
    const uint32_t w = src->getWidth(), h = src->getHeight();
    {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        CaptureSrcFrameInfo& s = mSrcFrameInfo[kSlot] = CaptureSrcFrameInfo{};
        s.format = pair.src.capture;
        s.width = w;
        s.height = h;
        s.buffer = hidl_handle(src->handle);
        CaptureDstFrameInfo& d = mDstFrameInfo[kSlot] = CaptureDstFrameInfo{};
        d.format = pair.dst.capture;
        d.width = w;
        d.height = h;
        d.cropX = w / 12;
        d.cropY = h / 12;
        d.cropWidth = w * 5 / 6;
        d.cropHeight = h * 5 / 6;
        d.rotateAngle = rotation;
        d.buffer = hidl_handle(dst->handle);
    }
    mUseGpu[kSlot] = 1;
    return service.captureOnce(kCaptureIdBase + kSlot) == CaptureReturn::SUCCESS;
}

// 1920x1080 source, a 1600x900 crop, into a 1920x1080 destination; arguments: pair, rotation.
void BM_GpuConversion1080p(benchmark::State& state) {
    const Pair& pair = kPairs[state.range(0)];
    const uint32_t rotation = static_cast<uint32_t>(state.range(1));
    sp<GraphicBuffer> src = filledBuffer(1920, 1080, pair.src.hal);
    sp<GraphicBuffer> dst = filledBuffer(1920, 1080, pair.dst.hal);
    if (src == nullptr || dst == nullptr) {
        state.SkipWithError("no buffers");
        return;
    }
    sp<Capture> service = new Capture();
    host_gl::resetStats();
    const double start = bench::nowNs();
    for (auto _ : state) {
        if (!convert(*service, pair, src, dst, rotation)) {
            state.SkipWithError("conversion refused");
            break;
        }
    }
    const double totalNs = bench::nowNs() - start;
    const host_gl::Stats s = host_gl::stats();
    if (s.writeBacks != static_cast<uint64_t>(state.iterations())) {
        state.SkipWithError("the host graphics layer drew nothing (CAPTURE_HOST_GL=0?)");
        return;
    }
    const int64_t n = state.iterations();
    // Set-up is the rest: EGL display and context, shaders, images, and their teardown.
    const double layerNs = static_cast<double>(s.uploadNs + s.drawNs + s.writeBackNs);
    state.counters["setup_ms"] = ms(std::max(totalNs - layerNs, 0.0), n);
    state.counters["upload_ms"] = ms(static_cast<double>(s.uploadNs), n);
    state.counters["draw_ms"] = ms(static_cast<double>(s.drawNs), n);
    state.counters["writeback_ms"] = ms(static_cast<double>(s.writeBackNs), n);
}

BENCHMARK(BM_GpuConversion1080p)
    ->ArgNames({"kind", "rotation"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({3, 0})
    ->Args({1, 90})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

// Small conversions back to back: descriptors and heap in use after 1,000 of them, against what
// they were after a warm-up (EGL, shaders and the layer's first allocations).
void BM_GpuConversionLeak(benchmark::State& state) {
    const Pair& pair = kPairs[1];
    sp<GraphicBuffer> src = filledBuffer(96, 64, pair.src.hal);
    sp<GraphicBuffer> dst = filledBuffer(96, 64, pair.dst.hal);
    sp<Capture> service = new Capture();
    for (int i = 0; i < 20; ++i) convert(*service, pair, src, dst, 90);
    const bench::Footprint before;
    for (auto _ : state) {
        if (!convert(*service, pair, src, dst, 90)) {
            state.SkipWithError("conversion refused");
            break;
        }
    }
    before.report(state);
}

BENCHMARK(BM_GpuConversionLeak)->Iterations(1000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
