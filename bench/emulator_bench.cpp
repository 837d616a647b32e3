// What the emulated hardware spends producing a live frame, per format, size and rotation: a
// stream runs for a second with a client that hands every buffer straight back, and the engine's
// own CPU time is divided by the frames it produced. The picture of a configuration is made once,
// when the stream starts; that is reported apart.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "VxCaptureHal.h"
#include "capture_emulator/Emulator.h"

namespace {

using Clock = std::chrono::steady_clock;

int returnAtOnce(int captureId, unsigned int, void* doneInfo, void*) {
    return static_cast<int>(VX_CAPTURE_FrameProcessDone(
        captureId, static_cast<VX_CAPTURE_CaptureDoneInfo_s*>(doneInfo)->index));
}

// Arguments: sub-HAL format, destination width and height, rotation.
void BM_EmulatedFrame(benchmark::State& state) {
    const uint32_t format = static_cast<uint32_t>(state.range(0));
    const uint32_t width = static_cast<uint32_t>(state.range(1));
    const uint32_t height = static_cast<uint32_t>(state.range(2));
    const uint32_t rotation = static_cast<uint32_t>(state.range(3));
    capture_emulator::resetForTest();
    const size_t bytes = size_t{width} * height * 4 * 4;  // room for four frames of any format
    const int fd = memfd_create("emulator-bench", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        state.SkipWithError("no buffer");
        return;
    }
    uint8_t param = 0;
    uint32_t handle = 0;
    VX_CAPTURE_Init(&param);
    VX_CAPTURE_Open(&param, &handle);
    const int32_t id = static_cast<int32_t>(handle);
    VX_CAPTURE_CaptureInfo_s live = {};
    live.s32PqId = -1;
    live.u32SrcWidth = 1920;
    live.u32SrcHeight = 1080;
    live.u8Engine = 1;
    live.u32SrcFps = live.u32DstFps = 60;
    live.u32DstWidth = width;
    live.u32DstHeight = height;
    live.eOutputFormat = format;
    live.s32BufferFd = fd;
    live.s32BufferFd2 = -1;
    VX_CAPTURE_SrcFrameInfo_s src = {};
    src.u32Param32 = 1;  // the live source configured above
    src.s32BufferFd = src.s32BufferFd2 = -1;
    VX_CAPTURE_DstFrameInfo_s dst = {};
    dst.u32Width = width;
    dst.u32Height = height;
    dst.eFormat = format;
    dst.u32RotateAngle = rotation;
    dst.s32BufferFd = fd;
    dst.s32BufferFd2 = -1;
    VX_CAPTURE_PlaneOffset_s planes = {};
    uint32_t sequence = 1;
    VX_CAPTURE_CallbackInputParams_s reg = {};
    reg.pfnCallback = returnAtOnce;
    reg.u32Flag = 1;
    reg.pu32SequenceId = &sequence;
    if (VX_CAPTURE_SetCaptureInfo(id, &live) != 0 ||
        (rotation != 0 && VX_CAPTURE_SetCaptureFrameInfo(id, &src, &dst, &planes) != 0) ||
        VX_CAPTURE_RegisterCallback(id, &reg, nullptr) != 0) {
        state.SkipWithError("the emulated hardware refused the configuration");
        close(fd);
        return;
    }
    double startMs = 0;
    capture_emulator::InstanceStats stats;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        VX_CAPTURE_CaptureStart(id);
        startMs += std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        capture_emulator::getInstanceStats(id, &stats);
        VX_CAPTURE_CaptureStop(id);
    }
    VX_CAPTURE_Close(id);
    VX_CAPTURE_DeInit();
    close(fd);
    const double frames = static_cast<double>(stats.produced);
    state.counters["frames"] = frames;
    state.counters["frame_ms"] =
        frames > 0 ? static_cast<double>(stats.productionNs) / 1e6 / frames : 0;
    state.counters["start_ms"] = startMs / static_cast<double>(state.iterations());
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
