// What every implementation of vendor.quenlark.hardware.capture@1.0::ICapture must do, checked
// through the interface alone: on a device against the service and its hardware, on a
// workstation against the service on the emulated hardware. Every test closes what it opened;
// other clients may hold instances, so none is taken for granted.
#include <EGL/egl.h>
#include <gtest/gtest.h>
#include <hidl/GtestPrinter.h>
#include <hidl/ServiceManagement.h>
#include <sys/types.h>
#include <system/graphics.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using ::android::GraphicBuffer;
using ::android::NO_ERROR;
using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace std::chrono_literals;

constexpr int32_t kIdBase = 0x73000000;
constexpr int kSlots = 32;
// The platform allocator's NV12 (Cb first); RGBA_8888 is the platform's own number.
constexpr int32_t kHalNv12 = 21;
constexpr uint32_t kBufferUsage = 0x33 | 0x100 | 0x200;  // CPU read/write, GPU texture/target
constexpr uint8_t kSentinel = 0xA5;
// A live capture the platform supports everywhere: the video input, scaled down to a width that
// leaves the allocator's rows some padding.
constexpr uint32_t kSrcWidth = 1920, kSrcHeight = 1080, kWidth = 312, kHeight = 180;

const std::string kBanner = "================ Capture Hal Dump ================";

// A buffer of the platform allocator, and the bytes of its planes.
class Buffer {
public:
    Buffer(uint32_t width, uint32_t height, int32_t halFormat)
        : mBuffer(new GraphicBuffer(width, height, halFormat, kBufferUsage, "vts")) {}

    bool valid() const { return mBuffer->initCheck() == NO_ERROR && mBuffer->handle != nullptr; }
    const native_handle_t* handle() const { return mBuffer->handle; }

    // Every byte from the first plane to the end of the last, while locked.
    struct Bytes {
        uint8_t* base = nullptr;
        size_t size = 0;
        uint32_t pitch = 0;   // bytes per row of the first plane
        uint32_t chroma = 0;  // offset of the interleaved chroma plane (YUV only)
    };
    Bytes lock() {
        Bytes b;
        if (mBuffer->getPixelFormat() == kHalNv12) {
            android_ycbcr ycbcr = {};
            if (mBuffer->lockYCbCr(kBufferUsage, &ycbcr) != NO_ERROR) return b;
            b.base = static_cast<uint8_t*>(ycbcr.y);
            b.pitch = static_cast<uint32_t>(ycbcr.ystride);
            b.chroma = static_cast<uint32_t>(static_cast<uint8_t*>(ycbcr.cb) - b.base);
            b.size = b.chroma + ycbcr.cstride * ((mBuffer->getHeight() + 1) / 2);
        } else {
            void* vaddr = nullptr;
            int32_t bytesPerPixel = 0, bytesPerStride = 0;
            if (mBuffer->lock(kBufferUsage, &vaddr, &bytesPerPixel, &bytesPerStride) != NO_ERROR) {
                return b;
            }
            b.base = static_cast<uint8_t*>(vaddr);
            b.pitch = static_cast<uint32_t>(bytesPerStride);
            b.size = size_t{b.pitch} * mBuffer->getHeight();
        }
        return b;
    }
    void unlock() { mBuffer->unlock(); }

    // The buffer's bytes after `fill` had them; unlocked again.
    std::vector<uint8_t> snapshot(const std::function<void(Bytes&)>& fill = nullptr) {
        Bytes b = lock();
        if (b.base == nullptr) return {};
        if (fill) fill(b);
        std::vector<uint8_t> copy(b.base, b.base + b.size);
        unlock();
        return copy;
    }

private:
    sp<GraphicBuffer> mBuffer;
};

// Where a frame's rows lie in a buffer: `rows` rows of `rowBytes` bytes every `pitch` bytes
// from `offset`, per plane.
struct Plane {
    uint32_t offset, rows, rowBytes, pitch;
};

std::vector<Plane> nv12Planes(uint32_t lumaOffset, uint32_t chromaOffset, uint32_t pitch,
                              uint32_t width, uint32_t height) {
    return {{lumaOffset, height, width, pitch}, {chromaOffset, (height + 1) / 2, width, pitch}};
}

// Every row of every plane differs from the sentinel somewhere; nothing else in the buffer
// changed. Failures say which promise broke.
void expectFrameWrittenInItsAreaOnly(const std::vector<uint8_t>& before,
                                     const std::vector<uint8_t>& after,
                                     const std::vector<Plane>& planes) {
    ASSERT_EQ(before.size(), after.size());
    std::vector<bool> inFrame(after.size(), false);
    for (size_t p = 0; p < planes.size(); ++p) {
        const Plane& plane = planes[p];
        for (uint32_t row = 0; row < plane.rows; ++row) {
            const size_t start = size_t{plane.offset} + size_t{row} * plane.pitch;
            ASSERT_LE(start + plane.rowBytes, after.size())
                << "plane " << p << " row " << row << " lies outside the buffer";
            bool written = false;
            for (size_t i = start; i < start + plane.rowBytes; ++i) {
                inFrame[i] = true;
                written = written || after[i] != kSentinel;
            }
            EXPECT_TRUE(written) << "plane " << p << " row " << row << " was not written";
        }
    }
    size_t outside = 0, first = 0;
    for (size_t i = 0; i < after.size(); ++i) {
        if (!inFrame[i] && after[i] != before[i] && outside++ == 0) first = i;
    }
    EXPECT_EQ(0u, outside) << "the frame was written outside its area, first at byte " << first;
}

// The result of a call, its transport checked: a service that died fails the test, not the
// process.
CaptureReturn call(const Return<CaptureReturn>& ret) {
    if (!ret.isOk()) {
        ADD_FAILURE() << "transport error: " << ret.description();
        return CaptureReturn::FAIL;
    }
    return ret;
}

bool eglDriverPresent() {
    static const bool present = [] {
        EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
        if (display == EGL_NO_DISPLAY || !eglInitialize(display, nullptr, nullptr)) return false;
        eglTerminate(display);
        return true;
    }();
    return present;
}

// Events of one client, in order; frameProcessDone is the test's to call.
struct EventLog : public ICaptureCallback {
    Return<void> onNotify(CaptureEventNotify notify, const CaptureCallbackParams& params) override {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back({notify, params});
        arrived.notify_all();
        return Void();
    }
    // True once `count` events arrived, within `wait`.
    bool waitFor(size_t count, std::chrono::milliseconds wait = 2s) {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, wait, [&] { return events.size() >= count; });
    }
    size_t size() {
        std::lock_guard<std::mutex> lock(mutex);
        return events.size();
    }
    std::pair<CaptureEventNotify, CaptureCallbackParams> at(size_t i) {
        std::lock_guard<std::mutex> lock(mutex);
        return events[i];
    }

    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::pair<CaptureEventNotify, CaptureCallbackParams>> events;
};

class CaptureHidlTest : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        capture = ICapture::getService(GetParam());
        ASSERT_NE(nullptr, capture) << "no ICapture/" << GetParam();
        // initLib reloads process-wide tables without a lock: once per instance and process.
        static std::set<std::string> loaded;
        if (loaded.insert(GetParam()).second) {
            ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->initLib()));
        }
    }

    void TearDown() override {
        for (int32_t id : mOpen) {
            (void)capture->stopCapture(id).isOk();  // the instance may not stream
            EXPECT_EQ(CaptureReturn::SUCCESS, call(capture->close(id)))
                << "close of " << std::hex << id;
        }
    }

    // Opens an instance, closed again at the end of the test.
    int32_t open() {
        CaptureReturn ret = CaptureReturn::FAIL;
        int32_t id = -1;
        EXPECT_TRUE(capture
                        ->open([&](CaptureReturn r, int32_t i) {
                            ret = r;
                            id = i;
                        })
                        .isOk());
        EXPECT_EQ(CaptureReturn::SUCCESS, ret) << "open refused";
        if (ret != CaptureReturn::SUCCESS) return -1;
        mOpen.push_back(id);
        return id;
    }
    CaptureReturn close(int32_t id) {
        mOpen.erase(std::remove(mOpen.begin(), mOpen.end(), id), mOpen.end());
        return call(capture->close(id));
    }

    static CaptureInfo liveInfo(const Buffer& buffer) {
        CaptureInfo info = {};
        info.capPoint = CapturePoint::VIDEO_INPUT;
        info.pqId = info.pqWinId = -1;
        info.srcWidth = kSrcWidth;
        info.srcHeight = kSrcHeight;
        info.hwEngine = 1;
        info.srcFps = info.dstFps = 60;
        info.cropWidth = kSrcWidth;
        info.cropHeight = kSrcHeight;
        info.dstWidth = kWidth;
        info.dstHeight = kHeight;
        info.dstFmt = CaptureFormat::NV12;
        info.dstBuffer = hidl_handle(buffer.handle());
        return info;
    }

    // The frame records of a live capture into `buffer` at its pitch. The platform's sub-HAL
    // reads source word 40 = 1 as "the live source of setCaptureInfo".
    static std::pair<CaptureSrcFrameInfo, CaptureDstFrameInfo> liveFrames(const Buffer& buffer,
                                                                          uint32_t pitch) {
        CaptureSrcFrameInfo src = {};
        src.width = kSrcWidth;
        src.height = kSrcHeight;
        src.format = CaptureFormat::NV12;
        src.buffer = hidl_handle(buffer.handle());
        src.param40 = 1;
        src.vPlaneOffset = hidl_vec<uint32_t>{0u};
        CaptureDstFrameInfo dst = {};
        dst.cropWidth = kSrcWidth;
        dst.cropHeight = kSrcHeight;
        dst.width = kWidth;
        dst.height = kHeight;
        dst.pitch = pitch;
        dst.format = CaptureFormat::NV12;
        dst.buffer = hidl_handle(buffer.handle());
        return {src, dst};
    }

    std::pair<CaptureReturn, std::vector<uint32_t>> setFrames(int32_t id,
                                                              const CaptureSrcFrameInfo& src,
                                                              const CaptureDstFrameInfo& dst) {
        std::pair<CaptureReturn, std::vector<uint32_t>> result{CaptureReturn::FAIL, {}};
        int calls = 0;
        EXPECT_TRUE(capture
                        ->setCaptureFrameInfo(id, src, dst,
                                              [&](CaptureReturn r, const hidl_vec<uint32_t>& o) {
                                                  ++calls;
                                                  result = {r, o};
                                              })
                        .isOk());
        EXPECT_EQ(1, calls) << "setCaptureFrameInfo must answer exactly once";
        return result;
    }

    std::pair<CaptureReturn, getQueryInfo> query(int32_t id, const setQueryInfo& q) {
        std::pair<CaptureReturn, getQueryInfo> answer{CaptureReturn::FAIL, {}};
        EXPECT_TRUE(capture
                        ->getCaptureCapabilityInfo(id, q,
                                                   [&](CaptureReturn r, const getQueryInfo& info) {
                                                       answer = {r, info};
                                                   })
                        .isOk());
        return answer;
    }

    sp<ICapture> capture;

private:
    std::vector<int32_t> mOpen;
};

// Identifiers are 0x73000000 + slot, distinct while open; a closed one is refused.
TEST_P(CaptureHidlTest, OpenHandsOutDistinctIdentifiersOfItsRange) {
    std::set<int32_t> ids;
    for (int i = 0; i < 4; ++i) {
        const int32_t id = open();
        ASSERT_NE(-1, id);
        EXPECT_EQ(kIdBase, id & ~(kSlots - 1)) << "identifier " << std::hex << id;
        EXPECT_TRUE(ids.insert(id).second)
            << "identifier " << std::hex << id << " handed out twice while open";
    }
    const int32_t last = *ids.rbegin();
    EXPECT_EQ(CaptureReturn::SUCCESS, close(last));
    EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, close(last)) << "a closed instance was closed";
}

// Every method refuses an identifier outside 0x73000000..0x7300001F, except the source-rotation
// pair, which answers SUCCESS to any, and setCallback, which has no result.
TEST_P(CaptureHidlTest, EveryMethodRefusesAnIdentifierOutsideTheRange) {
    sp<EventLog> callback = new EventLog();
    const Buffer buffer(kWidth, kHeight, kHalNv12);
    ASSERT_TRUE(buffer.valid());
    const auto [src, dst] = liveFrames(buffer, kWidth);
    for (int32_t bad : {kIdBase - 1, kIdBase + kSlots, -1, 0}) {
        SCOPED_TRACE(testing::Message() << "identifier 0x" << std::hex << bad);
        const std::pair<const char*, CaptureReturn> refusals[] = {
            {"close", call(capture->close(bad))},
            {"setCaptureInfo", call(capture->setCaptureInfo(bad, liveInfo(buffer)))},
            {"setCaptureFrameInfo", setFrames(bad, src, dst).first},
            {"getCaptureCapabilityInfo", query(bad, {}).first},
            {"captureOnce", call(capture->captureOnce(bad))},
            {"captureOnceWithCallback", call(capture->captureOnceWithCallback(bad, callback))},
            {"startCapture", call(capture->startCapture(bad, callback))},
            {"stopCapture", call(capture->stopCapture(bad))},
            {"frameProcessDone", call(capture->frameProcessDone(bad, 0))},
            {"notifyContinueCapture", call(capture->notifyContinueCapture(bad))},
        };
        for (const auto& [method, ret] : refusals) {
            EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, ret) << method;
        }
        EXPECT_TRUE(capture->setCallback(bad, callback).isOk());
        EXPECT_EQ(CaptureReturn::SUCCESS, call(capture->startAllSourceRotation(bad, {}, callback)));
        EXPECT_EQ(CaptureReturn::SUCCESS, call(capture->stopAllSourceRotation(bad)));
    }
    EXPECT_EQ(0u, callback->size()) << "an event for an identifier that was refused";
}

// The records' rules, as ICapture.hal states them: each refusal with its own code.
TEST_P(CaptureHidlTest, ConfigurationRefusesInvalidRecordsWithTheirCodes) {
    const int32_t id = open();
    ASSERT_NE(-1, id);
    const Buffer buffer(kWidth, kHeight, kHalNv12);
    ASSERT_TRUE(buffer.valid());
    const std::pair<const char*, std::function<void(CaptureInfo&)>> infoCases[] = {
        {"no destination buffer", [](CaptureInfo& i) { i.dstBuffer = hidl_handle(); }},
        {"source width 0", [](CaptureInfo& i) { i.srcWidth = 0; }},
        {"engine 0", [](CaptureInfo& i) { i.hwEngine = 0; }},
        {"destination height 0", [](CaptureInfo& i) { i.dstHeight = 0; }},
        {"capture point 13", [](CaptureInfo& i) { i.capPoint = CapturePoint::NONE; }},
    };
    const CaptureReturn infoCodes[] = {
        CaptureReturn::INVALID_BUFFER, CaptureReturn::INVALID_ARGUMENT,
        CaptureReturn::INVALID_ARGUMENT, CaptureReturn::INVALID_ARGUMENT,
        CaptureReturn::INVALID_CAPTURE_POINT};
    for (size_t k = 0; k < std::size(infoCases); ++k) {
        CaptureInfo info = liveInfo(buffer);
        infoCases[k].second(info);
        EXPECT_EQ(infoCodes[k], call(capture->setCaptureInfo(id, info))) << infoCases[k].first;
    }
    ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->setCaptureInfo(id, liveInfo(buffer))));

    using Change = std::function<void(CaptureSrcFrameInfo&, CaptureDstFrameInfo&)>;
    const std::tuple<const char*, Change, CaptureReturn> frameCases[] = {
        {"a source format without a sub-HAL format",
         [](auto& s, auto&) { s.format = CaptureFormat::ARGB16161616; },
         CaptureReturn::FORMAT_NOT_SUPPORT},
        {"no source buffer", [](auto& s, auto&) { s.buffer = hidl_handle(); },
         CaptureReturn::INVALID_BUFFER},
        {"no destination buffer", [](auto&, auto& d) { d.buffer = hidl_handle(); },
         CaptureReturn::INVALID_BUFFER},
        {"no source plane offsets", [](auto& s, auto&) { s.vPlaneOffset = hidl_vec<uint32_t>(); },
         CaptureReturn::INVALID_PLANE_OFFSET},
        {"source height 0", [](auto& s, auto&) { s.height = 0; }, CaptureReturn::INVALID_ARGUMENT},
        {"destination width 0", [](auto&, auto& d) { d.width = 0; },
         CaptureReturn::INVALID_ARGUMENT},
        {"rotation 45", [](auto&, auto& d) { d.rotateAngle = 45; }, CaptureReturn::INVALID_ARGUMENT},
    };
    for (const auto& [what, change, code] : frameCases) {
        auto [src, dst] = liveFrames(buffer, kWidth);
        change(src, dst);
        EXPECT_EQ(code, setFrames(id, src, dst).first) << what;
    }
    const auto [src, dst] = liveFrames(buffer, kWidth);
    const auto [ret, offsets] = setFrames(id, src, dst);
    EXPECT_EQ(CaptureReturn::SUCCESS, ret);
    EXPECT_EQ(2u, offsets.size()) << "the destination's two plane offsets";
}

// A single frame lands in its area of a buffer the client filled with a sentinel, synchronously
// and with its event, and nowhere else.
TEST_P(CaptureHidlTest, OneFrameFillsItsAreaAndNothingElse) {
    const int32_t id = open();
    ASSERT_NE(-1, id);
    Buffer buffer(kWidth, kHeight + 16, kHalNv12);  // rows below the frame too
    ASSERT_TRUE(buffer.valid());
    const uint32_t pitch = buffer.lock().pitch;
    buffer.unlock();
    for (bool withCallback : {false, true}) {
        SCOPED_TRACE(withCallback ? "captureOnceWithCallback" : "captureOnce");
        const std::vector<uint8_t> before =
            buffer.snapshot([](Buffer::Bytes& b) { memset(b.base, kSentinel, b.size); });
        ASSERT_FALSE(before.empty());
        ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->setCaptureInfo(id, liveInfo(buffer))));
        const auto [src, dst] = liveFrames(buffer, pitch);
        const auto [ret, offsets] = setFrames(id, src, dst);
        ASSERT_EQ(CaptureReturn::SUCCESS, ret);
        ASSERT_EQ(2u, offsets.size());
        std::vector<Plane> planes = nv12Planes(offsets[0], offsets[1], pitch, kWidth, kHeight);
        if (withCallback) {
            sp<EventLog> events = new EventLog();
            ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->captureOnceWithCallback(id, events)));
            ASSERT_TRUE(events->waitFor(1)) << "no event for the single frame";
            const auto [notify, p] = events->at(0);
            EXPECT_EQ(CaptureEventNotify::FRAME_DONE, notify);
            EXPECT_EQ(id, p.captureId);
            EXPECT_EQ(CaptureReturn::SUCCESS, p.result);
            EXPECT_EQ(offsets[1] - offsets[0], p.cOffset - p.yOffset);
            planes = nv12Planes(p.yOffset, p.cOffset, pitch, kWidth, kHeight);
            std::this_thread::sleep_for(100ms);
            EXPECT_EQ(1u, events->size()) << "one frame asked for, more events came";
        } else {
            ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->captureOnce(id)));
        }
        expectFrameWrittenInItsAreaOnly(before, buffer.snapshot(), planes);
    }
}

// Asked about a conversion, the service names the engine; a memory-to-memory capture then
// succeeds on it and fills the destination's frame area only. A conversion no engine can do is
// refused.
TEST_P(CaptureHidlTest, CapabilityQueryNamesTheEngineAConversionSucceedsOn) {
    const int32_t id = open();
    ASSERT_NE(-1, id);
    setQueryInfo live = {
        kSrcWidth, kSrcHeight, CaptureFormat::NV12, kWidth,     kHeight, CaptureFormat::NV12, 0,
        0,         0,          kSrcWidth,           kSrcHeight, 0};
    EXPECT_EQ(CaptureReturn::SUCCESS, query(id, live).first) << "a downscaled live capture";
    setQueryInfo tooWide = live;
    tooWide.dst_width = tooWide.src_width = tooWide.crop_width = 65536;
    EXPECT_EQ(CaptureReturn::DIP_NOT_SUPPORT, query(id, tooWide).first)
        << "a live capture 65536 pixels wide";
    setQueryInfo slanted = live;
    slanted.rotationAngle = 45;
    EXPECT_EQ(CaptureReturn::INVALID_ARGUMENT, query(id, slanted).first);

    // An NV12 picture in memory to RGBA: scaled down, and turned upside down whole (an engine
    // that mirrors only narrower pictures hands that to the GPU path).
    struct Conversion {
        const char* what;
        uint32_t srcWidth, srcHeight, dstWidth, dstHeight, rotation;
    };
    const Conversion conversions[] = {{"scaled", 1280, 720, 630, 360, 0},
                                      {"turned whole", 2560, 1440, 630, 360, 180}};
    std::set<std::string> engines;
    for (const Conversion& c : conversions) {
        SCOPED_TRACE(c.what);
        Buffer source(c.srcWidth, c.srcHeight, kHalNv12);
        Buffer target(c.dstWidth, c.dstHeight, HAL_PIXEL_FORMAT_RGBA_8888);
        ASSERT_TRUE(source.valid() && target.valid());
        setQueryInfo q = {c.srcWidth, c.srcHeight, CaptureFormat::NV12,
                          c.dstWidth, c.dstHeight, CaptureFormat::ARGB8888,
                          c.rotation, 0,           0,
                          c.srcWidth, c.srcHeight, 1};
        const auto [ret, answer] = query(id, q);
        ASSERT_EQ(CaptureReturn::SUCCESS, ret);
        const bool gpu = answer.useGpu != 0;
        EXPECT_TRUE(gpu || answer.engine != 0) << "the answer names no engine";
        if (gpu && !eglDriverPresent()) {
            engines.insert("GPU (skipped: no EGL driver)");
            continue;
        }
        engines.insert(gpu ? "GPU" : "DIP");
        uint32_t srcPitch = 0, srcChroma = 0;
        source.snapshot([&](Buffer::Bytes& b) {
            for (size_t i = 0; i < b.size; ++i) b.base[i] = static_cast<uint8_t>(i * 7 + i / 4096);
            srcPitch = b.pitch;
            srcChroma = b.chroma;
        });
        uint32_t dstPitch = 0;
        const std::vector<uint8_t> before = target.snapshot([&](Buffer::Bytes& b) {
            memset(b.base, kSentinel, b.size);
            dstPitch = b.pitch;
        });
        CaptureSrcFrameInfo src = {};
        src.width = c.srcWidth;
        src.height = c.srcHeight;
        src.param8 = srcPitch;
        src.format = CaptureFormat::NV12;
        src.buffer = hidl_handle(source.handle());
        src.vPlaneOffset = hidl_vec<uint32_t>{0u, srcChroma};
        CaptureDstFrameInfo dst = {};
        dst.cropWidth = c.srcWidth;
        dst.cropHeight = c.srcHeight;
        dst.width = c.dstWidth;
        dst.height = c.dstHeight;
        dst.pitch = dstPitch;
        dst.rotateAngle = c.rotation;
        dst.format = CaptureFormat::ARGB8888;
        dst.buffer = hidl_handle(target.handle());
        ASSERT_EQ(CaptureReturn::SUCCESS, setFrames(id, src, dst).first);
        ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->captureOnce(id)))
            << "refused on the " << (gpu ? "GPU path" : "DIP") << " the query named";
        expectFrameWrittenInItsAreaOnly(before, target.snapshot(),
                                        {{0, c.dstHeight, c.dstWidth * 4, dstPitch}});
    }
    std::string covered;
    for (const std::string& e : engines) covered += (covered.empty() ? "" : ", ") + e;
    RecordProperty("engines", covered);
}

// A stream names buffers of its ring, never one the client still holds, with the layout
// setCaptureFrameInfo answered; it goes on as buffers come back, stops when told, starts again.
TEST_P(CaptureHidlTest, StreamNamesOnlyBuffersTheClientHandedBack) {
    const int32_t id = open();
    ASSERT_NE(-1, id);
    Buffer buffer(kWidth, kHeight * 6, kHalNv12);  // room for a ring of several frames
    ASSERT_TRUE(buffer.valid());
    const Buffer::Bytes bytes = buffer.lock();
    const uint32_t pitch = bytes.pitch;
    const size_t size = bytes.size;
    buffer.unlock();
    ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->setCaptureInfo(id, liveInfo(buffer))));
    const auto [src, dst] = liveFrames(buffer, pitch);
    const auto [ret, offsets] = setFrames(id, src, dst);
    ASSERT_EQ(CaptureReturn::SUCCESS, ret);
    ASSERT_EQ(2u, offsets.size());

    for (int run = 0; run < 2; ++run) {
        SCOPED_TRACE(run == 0 ? "first stream" : "restarted stream");
        sp<EventLog> events = new EventLog();
        ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->startCapture(id, events)));
        EXPECT_EQ(CaptureReturn::SUCCESS, call(capture->notifyContinueCapture(id)));
        // Hold buffers as a consumer does: the first one long (the stream must go round it),
        // the others two at a time. Every event is checked against the buffers held.
        std::map<uint32_t, std::pair<uint32_t, uint32_t>> ring;  // index -> offsets
        std::deque<uint32_t> held;
        int32_t kept = -1;
        size_t seen = 0;
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (seen < 24 && std::chrono::steady_clock::now() < deadline) {
            if (!events->waitFor(seen + 1, 200ms)) {
                ASSERT_FALSE(held.empty()) << "no frame though buffers are back";
                EXPECT_EQ(CaptureReturn::SUCCESS, call(capture->frameProcessDone(id, held.front())));
                held.pop_front();
                continue;
            }
            const CaptureCallbackParams p = events->at(seen++).second;
            ASSERT_EQ(id, p.captureId);
            ASSERT_LT(p.index, 8u) << "not a buffer of the ring";
            EXPECT_TRUE(std::find(held.begin(), held.end(), p.index) == held.end() &&
                        int32_t(p.index) != kept)
                << "buffer " << p.index << " named again before it was handed back";
            EXPECT_EQ(offsets[1] - offsets[0], p.cOffset - p.yOffset)
                << "plane offsets other than setCaptureFrameInfo answered";
            EXPECT_LE(size_t{p.cOffset} + p.cSize, size) << "a frame past the buffer's end";
            EXPECT_GE(p.ySize, kWidth * kHeight);
            const auto known = ring.emplace(p.index, std::make_pair(p.yOffset, p.cOffset));
            EXPECT_EQ(known.first->second, std::make_pair(p.yOffset, p.cOffset))
                << "buffer " << p.index << " moved";
            if (kept < 0) {
                kept = static_cast<int32_t>(p.index);
                continue;
            }
            held.push_back(p.index);
            if (held.size() > 2) {
                EXPECT_EQ(CaptureReturn::SUCCESS, call(capture->frameProcessDone(id, held.front())));
                held.pop_front();
            }
        }
        if (kept >= 0) held.push_back(static_cast<uint32_t>(kept));
        EXPECT_GE(seen, 24u) << "the stream stopped going while buffers came back";
        EXPECT_EQ(CaptureReturn::SUCCESS, call(capture->stopCapture(id)));
        const size_t atStop = events->size();
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(atStop, events->size()) << "events after stopCapture returned";
        for (uint32_t index : held) (void)capture->frameProcessDone(id, index).isOk();
    }
}

// Two instances streaming at once each get their own events.
TEST_P(CaptureHidlTest, TwoStreamsEachGetTheirOwnEvents) {
    std::vector<std::unique_ptr<Buffer>> buffers;
    std::vector<int32_t> ids;
    std::vector<sp<EventLog>> logs;
    for (int k = 0; k < 2; ++k) {
        ids.push_back(open());
        ASSERT_NE(-1, ids.back());
        buffers.push_back(std::make_unique<Buffer>(kWidth, kHeight * 6, kHalNv12));
        ASSERT_TRUE(buffers.back()->valid());
        ASSERT_EQ(CaptureReturn::SUCCESS,
                  call(capture->setCaptureInfo(ids[k], liveInfo(*buffers[k]))));
        logs.push_back(new EventLog());
    }
    for (int k = 0; k < 2; ++k) {
        ASSERT_EQ(CaptureReturn::SUCCESS, call(capture->startCapture(ids[k], logs[k])));
    }
    for (int k = 0; k < 2; ++k) {
        EXPECT_TRUE(logs[k]->waitFor(2)) << "instance " << k << " got no frames";
    }
    for (int k = 0; k < 2; ++k) {
        EXPECT_EQ(CaptureReturn::SUCCESS, call(capture->stopCapture(ids[k])));
        for (size_t i = 0; i < logs[k]->size(); ++i) {
            EXPECT_EQ(ids[k], logs[k]->at(i).second.captureId) << "another instance's event";
        }
    }
}

// debug() writes the service's banner, and then the hardware's state, into the given descriptor.
TEST_P(CaptureHidlTest, DebugWritesTheBanner) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = fds[1];
    std::string text;
    std::thread reader([&] {
        char chunk[4096];
        ssize_t n;
        while ((n = read(fds[0], chunk, sizeof(chunk))) > 0) text.append(chunk, size_t(n));
    });
    EXPECT_TRUE(capture->debug(hidl_handle(handle), hidl_vec<hidl_string>{}).isOk());
    native_handle_close(handle);
    native_handle_delete(handle);
    reader.join();
    close(fds[0]);
    EXPECT_NE(std::string::npos, text.find(kBanner)) << "debug() wrote: \"" << text << "\"";
}

// A device without the HAL declares no instance, and passes.
#ifdef GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CaptureHidlTest);
#endif
INSTANTIATE_TEST_SUITE_P(
    PerInstance, CaptureHidlTest,
    testing::ValuesIn(android::hardware::getAllHalInstanceNames(ICapture::descriptor)),
    android::hardware::PrintInstanceNameToString);

}  // namespace
