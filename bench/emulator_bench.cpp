// What the emulated hardware spends producing a live frame, per format, size and rotation: a
// stream runs for a second with a client that hands every buffer straight back, and the engine's
// own CPU time is divided by the frames it produced. The picture of a configuration is made once,
// when the stream starts; that is reported apart.
#include <benchmark/benchmark.h>

#include <thread>
#include <tuple>

#include "BenchUtil.h"
#include "EmulatorTestUtil.h"
#include "capture_emulator/Emulator.h"

namespace {

int returnAtOnce(int captureId, unsigned int, void* doneInfo, void*) {
    return static_cast<int>(VX_CAPTURE_FrameProcessDone(
        captureId, static_cast<VX_CAPTURE_CaptureDoneInfo_s*>(doneInfo)->index));
}

// Arguments: sub-HAL format, destination width and height, rotation.
void BM_EmulatedFrame(benchmark::State& state) {
    const auto format = static_cast<uint32_t>(state.range(0));
    const auto width = static_cast<uint32_t>(state.range(1));
    const auto height = static_cast<uint32_t>(state.range(2));
    const auto rotation = static_cast<uint32_t>(state.range(3));
    capture_emulator::resetForTest();
    emulator_test::MemBuffer ring(size_t{width} * height * 4 * 4);  // four frames of any format
    const int32_t id = emulator_test::openInstance();
    VX_CAPTURE_CaptureInfo_s live =
        emulator_test::liveInfo(1920, 1080, width, height, format, ring.fd());
    VX_CAPTURE_SrcFrameInfo_s src = {};
    src.u32Param32 = 1;  // the live source configured above
    src.s32BufferFd = src.s32BufferFd2 = -1;
    VX_CAPTURE_DstFrameInfo_s dst = {};
    std::tie(dst.u32Width, dst.u32Height, dst.eFormat, dst.u32RotateAngle) =
        std::tie(width, height, format, rotation);
    dst.s32BufferFd = ring.fd();
    dst.s32BufferFd2 = -1;
    VX_CAPTURE_PlaneOffset_s planes = {};
    uint32_t sequence = 1;
    VX_CAPTURE_CallbackInputParams_s reg = {0, 0, returnAtOnce, 1, &sequence, 0};
    if (VX_CAPTURE_SetCaptureInfo(id, &live) != 0 ||
        (rotation != 0 && VX_CAPTURE_SetCaptureFrameInfo(id, &src, &dst, &planes) != 0) ||
        VX_CAPTURE_RegisterCallback(id, &reg, nullptr) != 0) {
        state.SkipWithError("the emulated hardware refused the configuration");
        return;
    }
    double startNs = 0;
    capture_emulator::InstanceStats stats;
    for (auto _ : state) {
        const double t0 = bench::nowNs();
        VX_CAPTURE_CaptureStart(id);
        startNs += bench::nowNs() - t0;
        std::this_thread::sleep_for(std::chrono::seconds(1));
        capture_emulator::getInstanceStats(id, &stats);
        VX_CAPTURE_CaptureStop(id);
    }
    VX_CAPTURE_Close(id);
    VX_CAPTURE_DeInit();
    const double frames = static_cast<double>(stats.produced);
    state.counters["frames"] = frames;
    state.counters["frame_ms"] =
        frames > 0 ? static_cast<double>(stats.productionNs) / 1e6 / frames : 0;
    state.counters["start_ms"] = startNs / 1e6 / static_cast<double>(state.iterations());
    state.counters["dropped"] = static_cast<double>(stats.dropped);
    state.counters["late"] = static_cast<double>(stats.late);
}

constexpr int64_t kNv12 = VX_CAPTURE_FMT_NV12, kArgb = VX_CAPTURE_FMT_ARGB8888,
                  kYuyv = VX_CAPTURE_FMT_YUYV;

BENCHMARK(BM_EmulatedFrame)
    ->ArgNames({"format", "width", "height", "rotation"})
    ->Args({kNv12, 1280, 720, 0})
    ->Args({kNv12, 1920, 1080, 0})
    ->Args({kNv12, 1920, 1080, 90})
    ->Args({kNv12, 3840, 2160, 0})
    ->Args({kArgb, 1920, 1080, 0})
    ->Args({kArgb, 1920, 1080, 90})
    ->Args({kYuyv, 1920, 1080, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
