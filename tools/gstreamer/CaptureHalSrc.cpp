// capturehalsrc: a live source of the frames of one capture instance.
//
// The element opens an instance when it starts, asks the capability query which formats and
// sizes the hardware writes, configures and starts continuous capture once caps are set, and
// hands each frame downstream in the hardware's own memory. The buffer goes back to the hardware
// (frameProcessDone) when the last reference to that memory goes, wherever that happens.
#include <gst/base/gstpushsrc.h>
#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>

#include <algorithm>
#include <atomic>
#include <initializer_list>

#include "CaptureNames.h"
#include "ElementUtil.h"
#include "Elements.h"
#include "Formats.h"
#include "Hal.h"

GST_DEBUG_CATEGORY_STATIC(capture_hal_src_debug);
#define GST_CAT_DEFAULT capture_hal_src_debug

namespace {

using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace capturehal;

constexpr uint32_t kMaxRingFrames = 8;
// Rows of frames in the ring start on pages, as the platform's graphics buffers lay them out.
constexpr size_t kFrameAlign = 4096;
// How long stop waits for buffers downstream still holds before it closes the instance anyway.
constexpr std::chrono::milliseconds kStopWait{1000};
// A stream that has given no frame for this long has stalled.
constexpr std::chrono::milliseconds kFrameWait{5000};
constexpr uint32_t kMaxDimension = 16384;

struct Settings {
    uint32_t point = 0;
    Crop crop;
    GstVideoOrientationMethod direction = GST_VIDEO_ORIENTATION_IDENTITY;
    uint32_t buffers = 4;
    uint32_t sourceWidth = 1920, sourceHeight = 1080, sourceFps = 60;

    uint32_t angle() const {
        uint32_t degrees = 0;
        hardwareAngle(direction, &degrees);
        return degrees;
    }
    // The crop as the hardware is told it: the whole source when none is set.
    Crop effectiveCrop() const {
        return crop.whole() ? Crop{0, 0, sourceWidth, sourceHeight} : crop;
    }
    // The size of the picture after crop and turn, before any scaling.
    void naturalSize(uint32_t* width, uint32_t* height) const {
        const Crop c = effectiveCrop();
        const bool turned = angle() % 180 != 0;
        *width = turned ? c.height : c.width;
        *height = turned ? c.width : c.height;
    }
};

// What a frame in the ring looks like, read from the hardware's report of it.
struct FrameLayout {
    uint32_t pitch = 0;
    uint32_t chromaOffset = 0;  // from the frame's start; 0 for one plane
    size_t size = 0;
};

// Held by every buffer handed downstream: the frame goes back to the hardware when its memory is
// freed, and the ring stays mapped until then.
// A buffer reaches the thread that frees it through GStreamer's own queues and reference counts,
// which ThreadSanitizer cannot see into (Debian's GLib is not built with it): the lease is
// published with a release store and taken with an acquire load, an order it can see.
struct Lease {
    Lease(std::shared_ptr<Instance> i, std::shared_ptr<HalMemory> r, uint32_t n)
        : instance(std::move(i)), ring(std::move(r)), index(n) {
        published.store(true, std::memory_order_release);
    }
    std::shared_ptr<Instance> instance;
    std::shared_ptr<HalMemory> ring;
    uint32_t index;
    std::atomic<bool> published{false};
};

void releaseLease(gpointer data) {
    Lease* lease = static_cast<Lease*>(data);
    if (lease->published.load(std::memory_order_acquire)) {
        lease->instance->giveBack(lease->index, true);
    }
    delete lease;
}

}  // namespace

struct SrcState {
    // A mutex of the C++ library rather than the object lock: ThreadSanitizer sees it.
    std::mutex settingsLock;
    Settings settings;  // under settingsLock

    // The streaming thread's state against start and stop. GStreamer never runs them at once
    // (stop waits for the streaming thread), but orders them by means ThreadSanitizer cannot see
    // (Debian's GLib is not built with it); an uncontended lock it can see.
    std::mutex streamLock;
    sp<ICapture> service;
    std::shared_ptr<Instance> instance;
    std::shared_ptr<ArrivalQueue> queue;
    std::atomic<ArrivalQueue*> queueForUnlock{nullptr};
    sp<QueueingCallback> callback;
    std::shared_ptr<HalMemory> ring;
    std::atomic<bool> streaming{false};
    GstVideoInfo info;
    std::atomic<GstClockTime> period{GST_CLOCK_TIME_NONE};
    std::atomic<bool> downstreamTakesMeta{false};
    int64_t lastArrivalNs = -1;
    std::string capsRefusal;  // why get_caps found no format (under settingsLock)

    std::atomic<uint64_t> frames{0}, dropped{0}, copies{0}, errors{0};
};

struct _GstCaptureHalSrc {
    GstPushSrc parent;
    SrcState* state;
};

static void capture_hal_src_direction_init(GstVideoDirectionInterface*) {}

G_DEFINE_TYPE_WITH_CODE(GstCaptureHalSrc, gst_capture_hal_src, GST_TYPE_PUSH_SRC,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_VIDEO_DIRECTION,
                                              capture_hal_src_direction_init))

namespace {

enum {
    PROP_0,
    PROP_CAPTURE_POINT,
    PROP_CROP,
    PROP_BUFFERS,
    PROP_SOURCE_WIDTH,
    PROP_SOURCE_HEIGHT,
    PROP_SOURCE_FPS,
    PROP_STATS,
    PROP_VIDEO_DIRECTION,
};

// The formats the hardware may write whose layout GStreamer knows, linear ones only, NV12 first:
// what a pipeline that does not say gets.
std::vector<GstVideoFormat> candidateFormats() {
    size_t count = 0;
    const FormatEntry* table = formatTable(&count);
    std::vector<GstVideoFormat> formats = {GST_VIDEO_FORMAT_NV12};
    for (size_t i = 0; i < count; ++i) {
        const GstVideoFormat f = table[i].gstFormat;
        if (f == GST_VIDEO_FORMAT_UNKNOWN || f == GST_VIDEO_FORMAT_NV12) continue;
        if (GST_VIDEO_FORMAT_INFO_IS_TILED(gst_video_format_get_info(f))) continue;
        formats.push_back(f);
    }
    return formats;
}

// One structure per kind of colour: YUV formats, then RGB ones.
GstCaps* templateCaps() {
    std::vector<GstVideoFormat> yuv, rgb;
    for (GstVideoFormat f : candidateFormats()) {
        (GST_VIDEO_FORMAT_INFO_IS_YUV(gst_video_format_get_info(f)) ? yuv : rgb).push_back(f);
    }
    GstCaps* caps = gst_caps_new_empty();
    for (const std::vector<GstVideoFormat>* kind : {&yuv, &rgb}) {
        GstStructure* s =
            gst_structure_new("video/x-raw", "width", GST_TYPE_INT_RANGE, 1, kMaxDimension,
                              "height", GST_TYPE_INT_RANGE, 1, kMaxDimension, "framerate",
                              GST_TYPE_FRACTION_RANGE, 1, 1, G_MAXINT, 1, nullptr);
        setFormatList(s, kind->data(), kind->size());
        setHardwareColours(s, kind->front());
        gst_caps_append_structure(caps, s);
    }
    return caps;
}

setQueryInfo liveQuery(const Settings& s, uint32_t width, uint32_t height, uint32_t format) {
    const Crop c = s.effectiveCrop();
    setQueryInfo q = {};
    q.src_width = s.sourceWidth;
    q.src_height = s.sourceHeight;
    q.src_format = CaptureFormat::NV12;
    q.dst_width = width;
    q.dst_height = height;
    q.dst_format = static_cast<CaptureFormat>(format);
    q.rotationAngle = s.angle();
    q.crop_x = c.x;
    q.crop_y = c.y;
    q.crop_width = c.width;
    q.crop_height = c.height;
    q.captureType = 0;  // a live source
    return q;
}

Settings settingsOf(GstCaptureHalSrc* self) {
    std::lock_guard<std::mutex> guard(self->state->settingsLock);
    return self->state->settings;
}

std::string formatText(const GstVideoInfo& info) {
    return std::to_string(GST_VIDEO_INFO_WIDTH(&info)) + "x" +
           std::to_string(GST_VIDEO_INFO_HEIGHT(&info)) + " " +
           gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&info));
}

GstStructure* statsOf(SrcState* st) {
    const std::shared_ptr<Instance> instance = std::atomic_load(&st->instance);
    return gst_structure_new("capturehal-stats", "frames", G_TYPE_UINT64, st->frames.load(),
                             "dropped", G_TYPE_UINT64, st->dropped.load(), "copies", G_TYPE_UINT64,
                             st->copies.load(), "errors", G_TYPE_UINT64, st->errors.load(), "held",
                             G_TYPE_UINT, instance != nullptr ? instance->held() : 0u, nullptr);
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(object);
    std::unique_lock<std::mutex> guard(self->state->settingsLock);
    Settings& s = self->state->settings;
    switch (id) {
        case PROP_CAPTURE_POINT:
            s.point = static_cast<uint32_t>(g_value_get_enum(value));
            break;
        case PROP_CROP:
            if (!cropFromValue(value, &s.crop)) {
                GST_WARNING_OBJECT(self, "crop takes four numbers (x, y, width, height) or none");
            }
            break;
        case PROP_BUFFERS:
            s.buffers = g_value_get_uint(value);
            break;
        case PROP_SOURCE_WIDTH:
            s.sourceWidth = g_value_get_uint(value);
            break;
        case PROP_SOURCE_HEIGHT:
            s.sourceHeight = g_value_get_uint(value);
            break;
        case PROP_SOURCE_FPS:
            s.sourceFps = g_value_get_uint(value);
            break;
        case PROP_VIDEO_DIRECTION:
            // Kept as asked: start() refuses what the hardware cannot do, naming it.
            s.direction = static_cast<GstVideoOrientationMethod>(g_value_get_enum(value));
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(object);
    if (id == PROP_STATS) {
        g_value_take_boxed(value, statsOf(self->state));
        return;
    }
    const Settings s = settingsOf(self);
    switch (id) {
        case PROP_CAPTURE_POINT:
            g_value_set_enum(value, static_cast<gint>(s.point));
            break;
        case PROP_CROP:
            cropToValue(s.crop, value);
            break;
        case PROP_BUFFERS:
            g_value_set_uint(value, s.buffers);
            break;
        case PROP_SOURCE_WIDTH:
            g_value_set_uint(value, s.sourceWidth);
            break;
        case PROP_SOURCE_HEIGHT:
            g_value_set_uint(value, s.sourceHeight);
            break;
        case PROP_SOURCE_FPS:
            g_value_set_uint(value, s.sourceFps);
            break;
        case PROP_VIDEO_DIRECTION:
            g_value_set_enum(value, s.direction);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
}

void finalize(GObject* object) {
    delete GST_CAPTURE_HAL_SRC(object)->state;
    G_OBJECT_CLASS(gst_capture_hal_src_parent_class)->finalize(object);
}

gboolean start(GstBaseSrc* base) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(base);
    SrcState* st = self->state;
    const Settings s = settingsOf(self);
    if (s.buffers == 0 || s.buffers > kMaxRingFrames || s.sourceFps == 0) {
        GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS, ("buffers must be 1..8 and source-fps above 0"),
                          (nullptr));
        return FALSE;
    }
    std::lock_guard<std::mutex> guard(st->streamLock);
    std::atomic_store(&st->instance, startInstance(GST_ELEMENT(self), s.direction, &st->service));
    if (st->instance == nullptr) return FALSE;
    st->queue = std::make_shared<ArrivalQueue>();
    st->queueForUnlock = st->queue.get();
    st->callback = new QueueingCallback(st->queue);
    st->frames = st->dropped = st->copies = st->errors = 0;
    st->lastArrivalNs = -1;
    st->streaming = false;
    GST_DEBUG_OBJECT(self, "instance 0x%x open", st->instance->id());
    return TRUE;
}

gboolean stop(GstBaseSrc* base) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(base);
    SrcState* st = self->state;
    std::lock_guard<std::mutex> guard(st->streamLock);
    if (st->instance == nullptr) return TRUE;
    GST_INFO_OBJECT(self,
                    "stopping after %" G_GUINT64_FORMAT " frames: %" G_GUINT64_FORMAT
                    " copied, %" G_GUINT64_FORMAT " dropped, %" G_GUINT64_FORMAT " with errors",
                    st->frames.load(), st->copies.load(), st->dropped.load(), st->errors.load());
    if (st->streaming) {
        Return<CaptureReturn> ret = st->service->stopCapture(st->instance->id());
        const CaptureReturn code =
            ret.isOk() ? static_cast<CaptureReturn>(ret) : CaptureReturn::FAIL;
        if (code != CaptureReturn::SUCCESS) {
            GST_ELEMENT_WARNING(self, RESOURCE, CLOSE, ("%s", refusal("stopCapture", code).c_str()),
                                (nullptr));
        }
        st->streaming = false;
    }
    // Frames that arrived but never went downstream go straight back.
    for (const Arrival& a : st->queue->drain()) st->instance->giveBack(a.params.index, false);
    if (!st->instance->waitAllBack(kStopWait)) {
        GST_WARNING_OBJECT(self,
                           "%u buffers still held downstream: closing anyway; their memory stays "
                           "mapped until they are freed",
                           st->instance->held());
    }
    const CaptureReturn closed = st->instance->close();
    if (closed != CaptureReturn::SUCCESS) {
        GST_ELEMENT_WARNING(self, RESOURCE, CLOSE, ("%s", refusal("close", closed).c_str()),
                            (nullptr));
    }
    std::atomic_store(&st->instance, std::shared_ptr<Instance>());
    st->ring = nullptr;
    st->callback = nullptr;
    st->queueForUnlock = nullptr;
    st->queue = nullptr;
    st->service = nullptr;
    st->period = GST_CLOCK_TIME_NONE;
    return TRUE;
}

GstCaps* getCaps(GstBaseSrc* base, GstCaps* filter) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(base);
    SrcState* st = self->state;
    GstCaps* caps = nullptr;
    if (st->streaming) {
        caps = gst_pad_get_current_caps(GST_BASE_SRC_PAD(base));
    } else if (const std::shared_ptr<Instance> instance = std::atomic_load(&st->instance)) {
        // What the capability query lets this instance write, at the natural size.
        const Settings s = settingsOf(self);
        uint32_t width = 0, height = 0;
        s.naturalSize(&width, &height);
        caps = gst_caps_new_empty();
        std::string refused;
        for (GstVideoFormat f : candidateFormats()) {
            const FormatEntry* entry = formatByGst(f);
            getQueryInfo answer = {};
            const CaptureReturn ret = queryOnEngine(
                *instance, liveQuery(s, width, height, entry->captureFormat), false, &answer);
            if (ret != CaptureReturn::SUCCESS) {
                refused += std::string(refused.empty() ? "" : ", ") +
                           capture_tools::formatName(entry->captureFormat) + " " +
                           capture_tools::describe(ret);
                continue;
            }
            const int maxWidth = answer.dstMaxWidth != 0
                                     ? static_cast<int>(std::min(answer.dstMaxWidth, kMaxDimension))
                                     : static_cast<int>(kMaxDimension);
            GstStructure* structure = gst_structure_new(
                "video/x-raw", "width", GST_TYPE_INT_RANGE, 1, maxWidth, "height",
                GST_TYPE_INT_RANGE, 1, kMaxDimension, "framerate", GST_TYPE_FRACTION_RANGE, 1, 1,
                static_cast<int>(s.sourceFps), 1, nullptr);
            setFormatList(structure, &f, 1);
            setHardwareColours(structure, f);
            gst_caps_append_structure(caps, structure);
        }
        st->capsRefusal = gst_caps_is_empty(caps)
                              ? "the capability query refused every format (" + refused + ")"
                              : "";
    }
    if (caps == nullptr) caps = gst_pad_get_pad_template_caps(GST_BASE_SRC_PAD(base));
    if (filter != nullptr) {
        GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(caps);
        caps = both;
    }
    return caps;
}

gboolean negotiate(GstBaseSrc* base) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(base);
    if (GST_BASE_SRC_CLASS(gst_capture_hal_src_parent_class)->negotiate(base)) return TRUE;
    std::string refusal;
    {
        std::lock_guard<std::mutex> guard(self->state->settingsLock);
        refusal = self->state->capsRefusal;
    }
    if (!refusal.empty()) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("%s", refusal.c_str()), (nullptr));
    }
    return FALSE;
}

GstCaps* fixate(GstBaseSrc* base, GstCaps* caps) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(base);
    const Settings s = settingsOf(self);
    uint32_t width = 0, height = 0;
    s.naturalSize(&width, &height);
    caps = gst_caps_make_writable(caps);
    caps = gst_caps_truncate(caps);
    GstStructure* structure = gst_caps_get_structure(caps, 0);
    gst_structure_fixate_field_nearest_int(structure, "width", static_cast<int>(width));
    gst_structure_fixate_field_nearest_int(structure, "height", static_cast<int>(height));
    gst_structure_fixate_field_nearest_fraction(structure, "framerate",
                                                static_cast<int>(s.sourceFps), 1);
    return GST_BASE_SRC_CLASS(gst_capture_hal_src_parent_class)->fixate(base, caps);
}

// Configures the instance for `info` and starts the stream; an element error and false when
// the hardware refuses.
bool startStream(GstCaptureHalSrc* self, const GstVideoInfo& info) {
    SrcState* st = self->state;
    const Settings s = settingsOf(self);
    const GstVideoFormat format = GST_VIDEO_INFO_FORMAT(&info);
    const FormatEntry* entry = formatByGst(format);
    const uint32_t width = GST_VIDEO_INFO_WIDTH(&info), height = GST_VIDEO_INFO_HEIGHT(&info);
    const int fpsN = GST_VIDEO_INFO_FPS_N(&info), fpsD = GST_VIDEO_INFO_FPS_D(&info);
    if (entry == nullptr || fpsN <= 0 || fpsD <= 0 || fpsN % fpsD != 0) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("%s at %d/%d fps refused: the hardware streams whole frames a second",
                           formatText(info).c_str(), fpsN, fpsD),
                          (nullptr));
        return false;
    }
    const uint32_t fps = static_cast<uint32_t>(fpsN / fpsD);
    getQueryInfo answer = {};
    const CaptureReturn asked = queryOnEngine(
        *st->instance, liveQuery(s, width, height, entry->captureFormat), false, &answer);
    if (asked != CaptureReturn::SUCCESS) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("the capture hardware refuses %s at %u fps: %s",
                           formatText(info).c_str(), fps, capture_tools::describe(asked).c_str()),
                          ("getCaptureCapabilityInfo, live from capture point %u, %ux%u source",
                           s.point, s.sourceWidth, s.sourceHeight));
        return false;
    }

    // Ring frames as the hardware lays them out: rows of whole alignment units (the query's
    // answer, when it gives one), frames on pages. The frames' reports say where each really is.
    const uint32_t align =
        answer.dstWidthAlignValid != 0 && answer.dstWidthAlign != 0 ? answer.dstWidthAlign : 1;
    const uint32_t pitch = rowBytes(format, 0, (width + align - 1) / align * align);
    size_t frameBytes = 0;
    for (guint p = 0; p < GST_VIDEO_INFO_N_PLANES(&info); ++p) {
        frameBytes += size_t{pitch} * planeRows(format, p, height);
    }
    frameBytes = (frameBytes + kFrameAlign - 1) / kFrameAlign * kFrameAlign;
    st->ring = HalMemory::create(frameBytes * s.buffers);
    if (st->ring == nullptr) {
        GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT,
                          ("cannot allocate %zu bytes of frames", frameBytes * s.buffers),
                          (nullptr));
        return false;
    }

    const Crop c = s.crop;
    CaptureInfo ci = {};
    ci.capPoint = static_cast<CapturePoint>(s.point);
    ci.pqId = -1;
    ci.pqWinId = -1;
    ci.srcWidth = s.sourceWidth;
    ci.srcHeight = s.sourceHeight;
    ci.hwEngine = 1;
    ci.srcFps = s.sourceFps;
    ci.cropX = c.x;
    ci.cropY = c.y;
    ci.cropWidth = c.width;
    ci.cropHeight = c.height;
    ci.dstWidth = width;
    ci.dstHeight = height;
    ci.dstFps = fps;
    ci.dstFmt = static_cast<CaptureFormat>(entry->captureFormat);
    ci.colorSpace = CaptureColorSpace::BT601;
    ci.dstBuffer = hidl_handle(st->ring->handle());
    ci.secureBuffer = SecureBufferCfg::NON_SECURE;
    ci.bandwidth = BandwidthCfg::NORMAL;
    const int32_t id = st->instance->id();
    Return<CaptureReturn> configured = st->service->setCaptureInfo(id, ci);
    CaptureReturn ret =
        configured.isOk() ? static_cast<CaptureReturn>(configured) : CaptureReturn::FAIL;
    if (ret != CaptureReturn::SUCCESS) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("%s", refusal("setCaptureInfo", ret).c_str()),
                          (nullptr));
        return false;
    }
    if (s.angle() != 0) {
        // A turn needs the frame records too: the source stays live (word 40 set), only the
        // destination turns.
        CaptureSrcFrameInfo src = {};
        src.width = s.sourceWidth;
        src.height = s.sourceHeight;
        src.format = CaptureFormat::NV12;
        src.buffer = hidl_handle(st->ring->handle());
        src.param40 = 1;
        src.vPlaneOffset = hidl_vec<uint32_t>{0u};
        CaptureDstFrameInfo dst = {};
        dst.cropX = c.x;
        dst.cropY = c.y;
        dst.cropWidth = c.width;
        dst.cropHeight = c.height;
        dst.width = width;
        dst.height = height;
        dst.rotateAngle = s.angle();
        dst.format = static_cast<CaptureFormat>(entry->captureFormat);
        dst.buffer = hidl_handle(st->ring->handle());
        ret = CaptureReturn::FAIL;
        Return<void> status = st->service->setCaptureFrameInfo(
            id, src, dst, [&](CaptureReturn r, const hidl_vec<uint32_t>&) { ret = r; });
        if (!status.isOk() || ret != CaptureReturn::SUCCESS) {
            GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                              ("%s", refusal("setCaptureFrameInfo", ret).c_str()), (nullptr));
            return false;
        }
    }
    Return<CaptureReturn> started = st->service->startCapture(id, st->callback);
    ret = started.isOk() ? static_cast<CaptureReturn>(started) : CaptureReturn::FAIL;
    if (ret != CaptureReturn::SUCCESS) {
        GST_ELEMENT_ERROR(self, RESOURCE, FAILED, ("%s", refusal("startCapture", ret).c_str()),
                          (nullptr));
        // A failed start may leave the callback registered; stop removes it.
        (void)st->service->stopCapture(id).isOk();
        return false;
    }
    st->info = info;
    st->period = gst_util_uint64_scale_int(GST_SECOND, 1, static_cast<int>(fps));
    st->streaming = true;
    st->lastArrivalNs = -1;
    GST_INFO_OBJECT(self, "streaming %s at %u fps into %u buffers of %zu bytes",
                    formatText(info).c_str(), fps, s.buffers, frameBytes);
    return true;
}

gboolean setCaps(GstBaseSrc* base, GstCaps* caps) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(base);
    SrcState* st = self->state;
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) return FALSE;
    std::lock_guard<std::mutex> guard(st->streamLock);
    if (st->streaming) {
        if (gst_video_info_is_equal(&info, &st->info)) return TRUE;
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("caps changed while streaming, to %s", formatText(info).c_str()),
                          (nullptr));
        return FALSE;
    }
    return startStream(self, info) ? TRUE : FALSE;
}

gboolean decideAllocation(GstBaseSrc* base, GstQuery* query) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(base);
    self->state->downstreamTakesMeta =
        gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr) != FALSE;
    return GST_BASE_SRC_CLASS(gst_capture_hal_src_parent_class)->decide_allocation(base, query);
}

gboolean query(GstBaseSrc* base, GstQuery* q) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(base);
    if (GST_QUERY_TYPE(q) == GST_QUERY_LATENCY) {
        // A frame is handed over when the hardware has finished it: one frame period after its
        // period began.
        const GstClockTime period = self->state->period;
        if (!GST_CLOCK_TIME_IS_VALID(period)) return FALSE;
        gst_query_set_latency(q, TRUE, period, period);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(gst_capture_hal_src_parent_class)->query(base, q);
}

// Called while create() may be waiting (and holding the stream lock): the queue is the one
// thing it touches, through a pointer that lives from start to stop.
gboolean unlock(GstBaseSrc* base) {
    SrcState* st = GST_CAPTURE_HAL_SRC(base)->state;
    if (ArrivalQueue* queue = st->queueForUnlock.load()) queue->setFlushing(true);
    return TRUE;
}

gboolean unlockStop(GstBaseSrc* base) {
    SrcState* st = GST_CAPTURE_HAL_SRC(base)->state;
    if (ArrivalQueue* queue = st->queueForUnlock.load()) queue->setFlushing(false);
    return TRUE;
}

// Where the reported frame lies in the ring; false when the report does not fit the ring or
// the negotiated picture.
bool layoutOf(const SrcState* st, const CaptureCallbackParams& p, FrameLayout* out) {
    const GstVideoInfo& info = st->info;
    const GstVideoFormat format = GST_VIDEO_INFO_FORMAT(&info);
    const uint32_t width = GST_VIDEO_INFO_WIDTH(&info), height = GST_VIDEO_INFO_HEIGHT(&info);
    const uint32_t rows0 = planeRows(format, 0, height);
    if (rows0 == 0 || p.ySize % rows0 != 0) return false;
    out->pitch = p.ySize / rows0;
    if (out->pitch < rowBytes(format, 0, width)) return false;
    if (GST_VIDEO_INFO_N_PLANES(&info) == 1) {
        out->chromaOffset = 0;
        out->size = p.ySize;
    } else {
        if (p.cOffset < p.yOffset + uint64_t{p.ySize}) return false;
        if (uint64_t{planeRows(format, 1, height)} * out->pitch > p.cSize) return false;
        out->chromaOffset = p.cOffset - p.yOffset;
        out->size = size_t{out->chromaOffset} + p.cSize;
    }
    return uint64_t{p.yOffset} + out->size <= st->ring->size();
}

bool layoutIsGStreamers(const GstVideoInfo& info, const FrameLayout& layout) {
    if (static_cast<uint32_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info, 0)) != layout.pitch) return false;
    if (GST_VIDEO_INFO_N_PLANES(&info) == 1) return true;
    return static_cast<uint32_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info, 1)) == layout.pitch &&
           GST_VIDEO_INFO_PLANE_OFFSET(&info, 1) == layout.chromaOffset;
}

// The frame in the hardware's memory, with its layout as video meta.
GstBuffer* wrapFrame(SrcState* st, const Arrival& a, const FrameLayout& layout) {
    st->instance->lease();
    Lease* lease = new Lease(st->instance, st->ring, a.params.index);
    GstBuffer* buffer = gst_buffer_new();
    gst_buffer_append_memory(
        buffer, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, st->ring->data(), st->ring->size(),
                                       a.params.yOffset, layout.size, lease, releaseLease));
    gsize offsets[GST_VIDEO_MAX_PLANES] = {0, layout.chromaOffset};
    gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(layout.pitch),
                                          static_cast<gint>(layout.pitch)};
    gst_buffer_add_video_meta_full(
        buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&st->info),
        GST_VIDEO_INFO_WIDTH(&st->info), GST_VIDEO_INFO_HEIGHT(&st->info),
        GST_VIDEO_INFO_N_PLANES(&st->info), offsets, strides);
    return buffer;
}

// A copy in GStreamer's default layout, for a downstream that reads frames without video meta.
GstBuffer* copyFrame(SrcState* st, GstBuffer* wrapped) {
    GstBuffer* copy = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&st->info), nullptr);
    GstVideoFrame from, to;
    bool ok = false;
    if (gst_video_frame_map(&from, &st->info, wrapped, GST_MAP_READ)) {
        if (gst_video_frame_map(&to, &st->info, copy, GST_MAP_WRITE)) {
            ok = gst_video_frame_copy(&to, &from) != FALSE;
            gst_video_frame_unmap(&to);
        }
        gst_video_frame_unmap(&from);
    }
    gst_buffer_unref(wrapped);
    if (!ok) {
        gst_buffer_unref(copy);
        return nullptr;
    }
    ++st->copies;
    return copy;
}

void postQos(GstCaptureHalSrc* self, GstClockTime runningTime, GstClockTime pts, int64_t gapNs) {
    SrcState* st = self->state;
    GstMessage* msg = gst_message_new_qos(GST_OBJECT(self), TRUE, runningTime, GST_CLOCK_TIME_NONE,
                                          pts, st->period);
    gst_message_set_qos_values(msg, gapNs - static_cast<int64_t>(st->period), 1.0, 1000000);
    gst_message_set_qos_stats(msg, GST_FORMAT_BUFFERS, st->frames.load(), st->dropped.load());
    gst_element_post_message(GST_ELEMENT(self), msg);
}

GstFlowReturn create(GstPushSrc* push, GstBuffer** out) {
    GstCaptureHalSrc* self = GST_CAPTURE_HAL_SRC(push);
    SrcState* st = self->state;
    std::lock_guard<std::mutex> guard(st->streamLock);
    if (!st->streaming || st->queue == nullptr) return GST_FLOW_NOT_NEGOTIATED;
    for (;;) {
        Arrival a{};
        switch (st->queue->pop(&a, kFrameWait)) {
            case ArrivalQueue::Wait::kFlushing:
                return GST_FLOW_FLUSHING;
            case ArrivalQueue::Wait::kTimedOut:
                GST_ELEMENT_ERROR(self, RESOURCE, READ,
                                  ("no frame from the capture hardware for %lld ms",
                                   static_cast<long long>(kFrameWait.count())),
                                  (nullptr));
                return GST_FLOW_ERROR;
            case ArrivalQueue::Wait::kGot:
                break;
        }
        if (a.params.result != CaptureReturn::SUCCESS) {
            GST_WARNING_OBJECT(self, "frame in buffer %u came with %s", a.params.index,
                               capture_tools::describe(a.params.result).c_str());
            ++st->errors;
            st->instance->giveBack(a.params.index, false);
            continue;
        }
        FrameLayout layout;
        if (!layoutOf(st, a.params, &layout)) {
            GST_WARNING_OBJECT(self,
                               "frame in buffer %u does not fit the ring or the picture: luma at "
                               "%u (%u bytes), chroma at %u (%u bytes)",
                               a.params.index, a.params.yOffset, a.params.ySize, a.params.cOffset,
                               a.params.cSize);
            ++st->errors;
            st->instance->giveBack(a.params.index, false);
            continue;
        }

        // Arrival time on the pipeline clock: the clock now, less how long ago it arrived.
        GstClockTime pts = GST_CLOCK_TIME_NONE, runningTime = GST_CLOCK_TIME_NONE;
        if (GstClock* clock = gst_element_get_clock(GST_ELEMENT(self))) {
            const GstClockTime now = gst_clock_get_time(clock);
            gst_object_unref(clock);
            const int64_t ago = monotonicNs() - a.monotonicNs;
            const GstClockTime base = gst_element_get_base_time(GST_ELEMENT(self));
            const GstClockTime arrived = now > static_cast<GstClockTime>(std::max<int64_t>(ago, 0))
                                             ? now - std::max<int64_t>(ago, 0)
                                             : 0;
            if (arrived < base) {
                // It came before the pipeline ran: it belongs to no running time.
                st->instance->giveBack(a.params.index, false);
                continue;
            }
            runningTime = pts = arrived - base;
        }

        const int64_t gap = st->lastArrivalNs >= 0 ? a.monotonicNs - st->lastArrivalNs : 0;
        st->lastArrivalNs = a.monotonicNs;
        const int64_t period = static_cast<int64_t>(st->period);
        if (gap > period + period / 2) {
            st->dropped += static_cast<uint64_t>((gap + period / 2) / period - 1);
            postQos(self, runningTime, pts, gap);
        }

        GstBuffer* buffer = wrapFrame(st, a, layout);
        if (!st->downstreamTakesMeta && !layoutIsGStreamers(st->info, layout)) {
            buffer = copyFrame(st, buffer);
            if (buffer == nullptr) {
                GST_ELEMENT_ERROR(self, STREAM, FAILED, ("cannot copy a frame"), (nullptr));
                return GST_FLOW_ERROR;
            }
        }
        GST_BUFFER_PTS(buffer) = pts;
        GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
        GST_BUFFER_DURATION(buffer) = st->period;
        GST_BUFFER_OFFSET(buffer) = st->frames.fetch_add(1);
        GST_BUFFER_OFFSET_END(buffer) = GST_BUFFER_OFFSET(buffer) + 1;
        *out = buffer;
        return GST_FLOW_OK;
    }
}

}  // namespace

static void gst_capture_hal_src_class_init(GstCaptureHalSrcClass* klass) {
    GObjectClass* object = G_OBJECT_CLASS(klass);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    GstBaseSrcClass* base = GST_BASE_SRC_CLASS(klass);
    GstPushSrcClass* push = GST_PUSH_SRC_CLASS(klass);

    object->set_property = setProperty;
    object->get_property = getProperty;
    object->finalize = finalize;

    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                             GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        object, PROP_CAPTURE_POINT,
        g_param_spec_enum("capture-point", "Capture point",
                          "Where in the video path frames are taken (the interface's capture "
                          "points)",
                          capturePointType(), 0, rw));
    g_object_class_install_property(
        object, PROP_CROP,
        cropParamSpec("Part of the source to capture, in source pixels: <x,y,width,height>; "
                      "empty for all of it"));
    g_object_class_install_property(
        object, PROP_BUFFERS,
        g_param_spec_uint("buffers", "Buffers",
                          "Frames in the ring the hardware writes into; a buffer downstream "
                          "holds is not written again until it is freed",
                          1, kMaxRingFrames, 4, rw));
    g_object_class_install_property(
        object, PROP_SOURCE_WIDTH,
        g_param_spec_uint("source-width", "Source width", "Width of the video at the capture point",
                          1, kMaxDimension, 1920, rw));
    g_object_class_install_property(
        object, PROP_SOURCE_HEIGHT,
        g_param_spec_uint("source-height", "Source height",
                          "Height of the video at the capture point", 1, kMaxDimension, 1080, rw));
    g_object_class_install_property(
        object, PROP_SOURCE_FPS,
        g_param_spec_uint("source-fps", "Source frame rate",
                          "Frames a second of the video at the capture point; the stream's rate "
                          "(caps) may be lower",
                          1, 240, 60, rw));
    g_object_class_install_property(
        object, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics",
                           "frames (pushed), dropped (frame periods with no frame, from the gaps "
                           "between arrivals), copies (frames copied for a downstream without "
                           "video meta), errors (frames the hardware reported failed or that "
                           "did not fit), held (buffers downstream has not freed)",
                           GST_TYPE_STRUCTURE,
                           static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
    // identity, 90r (the hardware's 90: clockwise), 180 and 90l (its 270); flips, auto and
    // custom are refused when the element starts.
    g_object_class_override_property(object, PROP_VIDEO_DIRECTION, "video-direction");

    gst_element_class_set_static_metadata(
        element, "Capture HAL source", "Source/Video",
        "Live frames of a capture point of vendor.quenlark.hardware.capture@1.0, in the "
        "hardware's own memory",
        "Quenlark platform team");
    GstCaps* caps = templateCaps();
    gst_element_class_add_pad_template(
        element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);

    base->start = start;
    base->stop = stop;
    base->get_caps = getCaps;
    base->negotiate = negotiate;
    base->fixate = fixate;
    base->set_caps = setCaps;
    base->decide_allocation = decideAllocation;
    base->query = query;
    base->unlock = unlock;
    base->unlock_stop = unlockStop;
    push->create = create;

    GST_DEBUG_CATEGORY_INIT(capture_hal_src_debug, "capturehalsrc", 0, "capture HAL source");
}

static void gst_capture_hal_src_init(GstCaptureHalSrc* self) {
    self->state = new SrcState();
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}
