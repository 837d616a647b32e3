// capturehalconvert: crop, scale, turn and convert frames through the hardware's memory-to-memory
// path, on the DIP engines or on the GPU path.
//
// The hardware reads and writes graphics buffers of the platform's allocator (the GPU path reads
// their row stride from the buffer's handle), so every frame is copied into one, converted, and
// the result copied out: two copies a frame, on top of the conversion itself.
#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>
#include <ui/GraphicBuffer.h>

#include <algorithm>
#include <initializer_list>

#include "CaptureNames.h"
#include "ElementUtil.h"
#include "Elements.h"
#include "Formats.h"
#include "Hal.h"

GST_DEBUG_CATEGORY_STATIC(capture_hal_convert_debug);
#define GST_CAT_DEFAULT capture_hal_convert_debug

namespace {

using ::android::GraphicBuffer;
using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace capturehal;

// CPU reads and writes often, GPU texture, GPU render target.
constexpr uint32_t kFrameUsage = 0x33 | 0x100 | 0x200;
constexpr uint32_t kMaxDimension = 16384;

enum class Engine { kDip = 0, kGpu = 1 };

struct Settings {
    Engine engine = Engine::kDip;
    Crop crop;
    GstVideoOrientationMethod direction = GST_VIDEO_ORIENTATION_IDENTITY;
};

// A frame in a graphics buffer, mapped while the object lives.
class HalFrame {
public:
    bool allocate(const FormatEntry& format, const GstVideoInfo& info) {
        mInfo = info;
        mBuffer = new GraphicBuffer(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                    format.graphicsFormat, kFrameUsage, "capturehalconvert");
        if (mBuffer->initCheck() != ::android::NO_ERROR) return false;
        void* mapping = nullptr;
        int32_t bytesPerPixel = -1, bytesPerStride = -1;
        if (mBuffer->lock(kFrameUsage, &mapping, &bytesPerPixel, &bytesPerStride) !=
                ::android::NO_ERROR ||
            bytesPerStride <= 0) {
            return false;
        }
        mData = static_cast<uint8_t*>(mapping);
        mPitch = static_cast<uint32_t>(bytesPerStride);
        return true;
    }
    ~HalFrame() {
        if (mData != nullptr) mBuffer->unlock();
    }
    const native_handle_t* handle() const { return mBuffer->handle; }
    // The allocator puts the planes one after the other, each row `pitch` bytes.
    uint8_t* plane(guint p) const {
        const GstVideoFormat f = GST_VIDEO_INFO_FORMAT(&mInfo);
        size_t offset = 0;
        for (guint i = 0; i < p; ++i) {
            offset += size_t{mPitch} * planeRows(f, i, GST_VIDEO_INFO_HEIGHT(&mInfo));
        }
        return mData + offset;
    }
    uint32_t chromaOffset() const {
        return GST_VIDEO_INFO_N_PLANES(&mInfo) > 1 ? static_cast<uint32_t>(plane(1) - mData) : 0;
    }
    uint32_t pitch() const { return mPitch; }

private:
    GstVideoInfo mInfo;
    sp<GraphicBuffer> mBuffer;
    uint8_t* mData = nullptr;
    uint32_t mPitch = 0;
};

enum class Copy { kIntoHal, kOutOfHal };

void copyPlanes(GstVideoFrame* frame, const HalFrame& hal, Copy way) {
    const GstVideoFormat f = GST_VIDEO_FRAME_FORMAT(frame);
    for (guint p = 0; p < GST_VIDEO_FRAME_N_PLANES(frame); ++p) {
        const uint32_t bytes = rowBytes(f, p, GST_VIDEO_FRAME_WIDTH(frame));
        const uint32_t rows = planeRows(f, p, GST_VIDEO_FRAME_HEIGHT(frame));
        uint8_t* gst = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, p));
        const size_t gstStride = static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(frame, p));
        uint8_t* mine = hal.plane(p);
        for (uint32_t r = 0; r < rows; ++r) {
            uint8_t* a = gst + r * gstStride;
            uint8_t* b = mine + size_t{r} * hal.pitch();
            if (way == Copy::kIntoHal) {
                memcpy(b, a, bytes);
            } else {
                memcpy(a, b, bytes);
            }
        }
    }
}

// What the hardware reads and writes through this element: linear formats a graphics buffer
// of the platform can hold.
std::vector<GstVideoFormat> convertibleFormats() {
    size_t count = 0;
    const FormatEntry* table = formatTable(&count);
    std::vector<GstVideoFormat> formats;
    for (size_t i = 0; i < count; ++i) {
        const FormatEntry& e = table[i];
        if (e.gstFormat == GST_VIDEO_FORMAT_UNKNOWN || e.graphicsFormat == 0) continue;
        // No DIP format, so the service takes it on neither engine.
        if (e.gstFormat == GST_VIDEO_FORMAT_YV12) continue;
        formats.push_back(e.gstFormat);
    }
    return formats;
}

// One structure per kind of colour: YUV formats, then RGB ones.
GstCaps* templateCaps() {
    std::vector<GstVideoFormat> yuv, rgb;
    for (GstVideoFormat f : convertibleFormats()) {
        (GST_VIDEO_FORMAT_INFO_IS_YUV(gst_video_format_get_info(f)) ? yuv : rgb).push_back(f);
    }
    GstCaps* caps = gst_caps_new_empty();
    for (const std::vector<GstVideoFormat>* kind : {&yuv, &rgb}) {
        GstStructure* s =
            gst_structure_new("video/x-raw", "width", GST_TYPE_INT_RANGE, 1, kMaxDimension,
                              "height", GST_TYPE_INT_RANGE, 1, kMaxDimension, "framerate",
                              GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, nullptr);
        setFormatList(s, kind->data(), kind->size());
        setHardwareColours(s, kind->front());
        gst_caps_append_structure(caps, s);
    }
    return caps;
}

const char* engineName(Engine engine) {
    return engine == Engine::kGpu ? "the GPU path" : "the DIP";
}

}  // namespace

struct ConvertState {
    // A mutex of the C++ library rather than the object lock: ThreadSanitizer sees it.
    std::mutex settingsLock;
    Settings settings;  // under settingsLock
    sp<ICapture> service;
    std::shared_ptr<Instance> instance;
    Settings active;
    setQueryInfo query = {};
    std::unique_ptr<HalFrame> source, destination;
};

struct _GstCaptureHalConvert {
    GstVideoFilter parent;
    ConvertState* state;
};

static void capture_hal_convert_direction_init(GstVideoDirectionInterface*) {}

G_DEFINE_TYPE_WITH_CODE(GstCaptureHalConvert, gst_capture_hal_convert, GST_TYPE_VIDEO_FILTER,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_VIDEO_DIRECTION,
                                              capture_hal_convert_direction_init))

namespace {

enum { PROP_0, PROP_ENGINE, PROP_CROP, PROP_VIDEO_DIRECTION };

Settings settingsOf(GstCaptureHalConvert* self) {
    std::lock_guard<std::mutex> guard(self->state->settingsLock);
    return self->state->settings;
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
    GstCaptureHalConvert* self = GST_CAPTURE_HAL_CONVERT(object);
    std::unique_lock<std::mutex> guard(self->state->settingsLock);
    Settings& s = self->state->settings;
    switch (id) {
        case PROP_ENGINE:
            s.engine = static_cast<Engine>(g_value_get_enum(value));
            break;
        case PROP_CROP:
            if (!cropFromValue(value, &s.crop)) {
                GST_WARNING_OBJECT(self, "crop takes four numbers (x, y, width, height) or none");
            }
            break;
        case PROP_VIDEO_DIRECTION:
            s.direction = static_cast<GstVideoOrientationMethod>(g_value_get_enum(value));
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
    guard.unlock();
    gst_base_transform_reconfigure_src(GST_BASE_TRANSFORM(self));
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    const Settings s = settingsOf(GST_CAPTURE_HAL_CONVERT(object));
    switch (id) {
        case PROP_ENGINE:
            g_value_set_enum(value, static_cast<gint>(s.engine));
            break;
        case PROP_CROP:
            cropToValue(s.crop, value);
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
    delete GST_CAPTURE_HAL_CONVERT(object)->state;
    G_OBJECT_CLASS(gst_capture_hal_convert_parent_class)->finalize(object);
}

gboolean start(GstBaseTransform* base) {
    GstCaptureHalConvert* self = GST_CAPTURE_HAL_CONVERT(base);
    ConvertState* st = self->state;
    const Settings s = settingsOf(self);
    st->instance = startInstance(GST_ELEMENT(self), s.direction, &st->service);
    return st->instance != nullptr ? TRUE : FALSE;
}

gboolean stop(GstBaseTransform* base) {
    ConvertState* st = GST_CAPTURE_HAL_CONVERT(base)->state;
    st->source = nullptr;
    st->destination = nullptr;
    if (st->instance != nullptr) {
        const CaptureReturn closed = st->instance->close();
        if (closed != CaptureReturn::SUCCESS) {
            GST_ELEMENT_WARNING(base, RESOURCE, CLOSE, ("%s", refusal("close", closed).c_str()),
                                (nullptr));
        }
    }
    st->instance = nullptr;
    st->service = nullptr;
    return TRUE;
}

// The other side's caps of `caps`: any size and any format the hardware takes, same rate.
GstCaps* transformCaps(GstBaseTransform* base, GstPadDirection direction, GstCaps* caps,
                       GstCaps* filter) {
    GstCaps* loose = gst_caps_new_empty();
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        GstStructure* s = gst_structure_copy(gst_caps_get_structure(caps, i));
        gst_structure_remove_fields(s, "format", "width", "height", "colorimetry", "chroma-site",
                                    nullptr);
        gst_structure_set(s, "width", GST_TYPE_INT_RANGE, 1, kMaxDimension, "height",
                          GST_TYPE_INT_RANGE, 1, kMaxDimension, nullptr);
        loose = gst_caps_merge_structure(loose, s);
    }
    GstPad* other = direction == GST_PAD_SINK ? GST_BASE_TRANSFORM_SRC_PAD(base)
                                              : GST_BASE_TRANSFORM_SINK_PAD(base);
    GstCaps* templ = gst_pad_get_pad_template_caps(other);
    GstCaps* result = gst_caps_intersect_full(templ, loose, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(templ);
    gst_caps_unref(loose);
    if (filter != nullptr) {
        GstCaps* both = gst_caps_intersect_full(filter, result, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(result);
        result = both;
    }
    return result;
}

// The output takes the input's format where it can, and the crop's size, turned.
GstCaps* fixateCaps(GstBaseTransform* base, GstPadDirection direction, GstCaps* caps,
                    GstCaps* othercaps) {
    othercaps = gst_caps_make_writable(othercaps);
    if (direction != GST_PAD_SINK) return gst_caps_fixate(othercaps);
    GstVideoInfo in;
    if (!gst_video_info_from_caps(&in, caps)) return gst_caps_fixate(othercaps);
    const char* inFormat = gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&in));
    guint chosen = 0;
    for (guint i = 0; i < gst_caps_get_size(othercaps); ++i) {
        GstStructure* s = gst_caps_get_structure(othercaps, i);
        const GValue* v = gst_structure_get_value(s, "format");
        GValue want = G_VALUE_INIT;
        g_value_init(&want, G_TYPE_STRING);
        g_value_set_static_string(&want, inFormat);
        const bool has = v != nullptr && gst_value_intersect(nullptr, v, &want);
        g_value_unset(&want);
        if (has) {
            chosen = i;
            break;
        }
    }
    GstStructure* keep = gst_structure_copy(gst_caps_get_structure(othercaps, chosen));
    gst_caps_unref(othercaps);
    othercaps = gst_caps_new_full(keep, nullptr);

    const Settings s = settingsOf(GST_CAPTURE_HAL_CONVERT(base));
    const Crop c = s.crop.whole() ? Crop{0, 0, static_cast<uint32_t>(GST_VIDEO_INFO_WIDTH(&in)),
                                         static_cast<uint32_t>(GST_VIDEO_INFO_HEIGHT(&in))}
                                  : s.crop;
    uint32_t degrees = 0;
    hardwareAngle(s.direction, &degrees);
    const bool turned = degrees % 180 != 0;
    gst_structure_fixate_field_string(keep, "format", inFormat);
    gst_structure_fixate_field_nearest_int(keep, "width",
                                           static_cast<int>(turned ? c.height : c.width));
    gst_structure_fixate_field_nearest_int(keep, "height",
                                           static_cast<int>(turned ? c.width : c.height));
    return gst_caps_fixate(othercaps);
}

std::string describeConversion(const GstVideoInfo* in, const GstVideoInfo* out, const Crop& c,
                               uint32_t degrees) {
    char text[256];
    snprintf(text, sizeof(text), "%dx%d %s -> %dx%d %s (crop %u,%u %ux%u, turned %u)",
             GST_VIDEO_INFO_WIDTH(in), GST_VIDEO_INFO_HEIGHT(in),
             gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(in)), GST_VIDEO_INFO_WIDTH(out),
             GST_VIDEO_INFO_HEIGHT(out), gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(out)),
             c.x, c.y, c.width, c.height, degrees);
    return text;
}

// Asks whether this instance's conversion runs on the engine the element wants; an element
// error and false when not.
bool askEngine(GstCaptureHalConvert* self, const std::string& conversion) {
    ConvertState* st = self->state;
    getQueryInfo answer = {};
    const bool gpu = st->active.engine == Engine::kGpu;
    const CaptureReturn ret = queryOnEngine(*st->instance, st->query, gpu, &answer);
    if (ret != CaptureReturn::SUCCESS) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("%s refuses %s: %s", engineName(st->active.engine), conversion.c_str(),
                           capture_tools::describe(ret).c_str()),
                          ("getCaptureCapabilityInfo, memory to memory"));
        return false;
    }
    if ((answer.useGpu != 0) != gpu) {
        GST_ELEMENT_ERROR(
            self, CORE, NEGOTIATION,
            ("the service would convert %s on %s, not on %s", conversion.c_str(),
             answer.useGpu != 0 ? "the GPU path" : "the DIP", engineName(st->active.engine)),
            (nullptr));
        return false;
    }
    return true;
}

gboolean setInfo(GstVideoFilter* filter, GstCaps*, GstVideoInfo* in, GstCaps*, GstVideoInfo* out) {
    GstCaptureHalConvert* self = GST_CAPTURE_HAL_CONVERT(filter);
    ConvertState* st = self->state;
    st->active = settingsOf(self);
    uint32_t degrees = 0;
    if (!hardwareAngle(st->active.direction, &degrees)) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("video-direction %s refused: the hardware turns by quarter turns only "
                           "(identity, 90r, 180, 90l)",
                           directionNick(st->active.direction)),
                          (nullptr));
        return FALSE;
    }
    const uint32_t inW = GST_VIDEO_INFO_WIDTH(in), inH = GST_VIDEO_INFO_HEIGHT(in);
    const Crop c = st->active.crop.whole() ? Crop{0, 0, inW, inH} : st->active.crop;
    const std::string conversion = describeConversion(in, out, c, degrees);
    if (c.x >= inW || c.y >= inH || c.width > inW - c.x || c.height > inH - c.y) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("crop %u,%u %ux%u is not inside the %ux%u input", c.x, c.y, c.width,
                           c.height, inW, inH),
                          (nullptr));
        return FALSE;
    }
    const FormatEntry* from = formatByGst(GST_VIDEO_INFO_FORMAT(in));
    const FormatEntry* to = formatByGst(GST_VIDEO_INFO_FORMAT(out));
    if (from == nullptr || to == nullptr) return FALSE;
    setQueryInfo& q = st->query;
    q = {};
    q.src_width = inW;
    q.src_height = inH;
    q.src_format = static_cast<CaptureFormat>(from->captureFormat);
    q.dst_width = GST_VIDEO_INFO_WIDTH(out);
    q.dst_height = GST_VIDEO_INFO_HEIGHT(out);
    q.dst_format = static_cast<CaptureFormat>(to->captureFormat);
    q.rotationAngle = degrees;
    q.crop_x = c.x;
    q.crop_y = c.y;
    q.crop_width = c.width;
    q.crop_height = c.height;
    q.captureType = 1;  // memory to memory: the only kind with a GPU path
    if (!askEngine(self, conversion)) return FALSE;

    st->source = std::make_unique<HalFrame>();
    st->destination = std::make_unique<HalFrame>();
    if (!st->source->allocate(*from, *in) || !st->destination->allocate(*to, *out)) {
        GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT,
                          ("cannot allocate graphics buffers for %s", conversion.c_str()),
                          (nullptr));
        return FALSE;
    }
    GST_INFO_OBJECT(self, "%s on %s", conversion.c_str(), engineName(st->active.engine));
    return TRUE;
}

GstFlowReturn transformFrame(GstVideoFilter* filter, GstVideoFrame* in, GstVideoFrame* out) {
    GstCaptureHalConvert* self = GST_CAPTURE_HAL_CONVERT(filter);
    ConvertState* st = self->state;
    const setQueryInfo& q = st->query;
    copyPlanes(in, *st->source, Copy::kIntoHal);

    // The decision is the instance's until a GPU conversion clears it: ask before every frame.
    if (!askEngine(self, describeConversion(&in->info, &out->info,
                                            Crop{q.crop_x, q.crop_y, q.crop_width, q.crop_height},
                                            q.rotationAngle))) {
        return GST_FLOW_ERROR;
    }
    CaptureSrcFrameInfo src = {};
    src.width = q.src_width;
    src.height = q.src_height;
    src.format = q.src_format;
    src.buffer = hidl_handle(st->source->handle());
    src.vPlaneOffset = hidl_vec<uint32_t>{0u, st->source->chromaOffset()};
    CaptureDstFrameInfo dst = {};
    dst.cropX = q.crop_x;
    dst.cropY = q.crop_y;
    dst.cropWidth = q.crop_width;
    dst.cropHeight = q.crop_height;
    dst.width = q.dst_width;
    dst.height = q.dst_height;
    dst.rotateAngle = q.rotationAngle;
    dst.format = q.dst_format;
    dst.buffer = hidl_handle(st->destination->handle());
    dst.vPlaneOffset = hidl_vec<uint32_t>{0u, st->destination->chromaOffset()};
    const int32_t id = st->instance->id();
    CaptureReturn ret = CaptureReturn::FAIL;
    Return<void> status = st->service->setCaptureFrameInfo(
        id, src, dst, [&](CaptureReturn r, const hidl_vec<uint32_t>&) { ret = r; });
    if (!status.isOk() || ret != CaptureReturn::SUCCESS) {
        GST_ELEMENT_ERROR(self, STREAM, FAILED, ("%s", refusal("setCaptureFrameInfo", ret).c_str()),
                          (nullptr));
        return GST_FLOW_ERROR;
    }
    Return<CaptureReturn> captured = st->service->captureOnce(id);
    ret = captured.isOk() ? static_cast<CaptureReturn>(captured) : CaptureReturn::FAIL;
    if (ret != CaptureReturn::SUCCESS) {
        GST_ELEMENT_ERROR(self, STREAM, FAILED, ("%s", refusal("captureOnce", ret).c_str()),
                          (nullptr));
        return GST_FLOW_ERROR;
    }
    copyPlanes(out, *st->destination, Copy::kOutOfHal);
    return GST_FLOW_OK;
}

}  // namespace

static void gst_capture_hal_convert_class_init(GstCaptureHalConvertClass* klass) {
    GObjectClass* object = G_OBJECT_CLASS(klass);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transform = GST_BASE_TRANSFORM_CLASS(klass);
    GstVideoFilterClass* video = GST_VIDEO_FILTER_CLASS(klass);

    object->set_property = setProperty;
    object->get_property = getProperty;
    object->finalize = finalize;

    g_object_class_install_property(
        object, PROP_ENGINE,
        g_param_spec_enum(
            "engine", "Engine",
            "dip: the DIP engines; gpu: the GPU path, forced through vendor.zor.capture.forcegpu "
            "(a process-wide property: elements asking for different engines take turns at the "
            "capability query)",
            engineType(), 0,
            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                     GST_PARAM_MUTABLE_READY)));
    g_object_class_install_property(
        object, PROP_CROP,
        cropParamSpec("Part of the input to convert, in input pixels: <x,y,width,height>; empty "
                      "for all of it"));
    // identity, 90r (the hardware's 90: clockwise), 180 and 90l (its 270); flips, auto and
    // custom are refused when the element starts.
    g_object_class_override_property(object, PROP_VIDEO_DIRECTION, "video-direction");

    gst_element_class_set_static_metadata(
        element, "Capture HAL converter", "Filter/Converter/Video/Scaler",
        "Crops, scales, turns and converts frames through the memory-to-memory path of "
        "vendor.quenlark.hardware.capture@1.0, on the DIP or the GPU path",
        "Quenlark platform team");
    GstCaps* caps = templateCaps();
    gst_element_class_add_pad_template(
        element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_element_class_add_pad_template(
        element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);

    transform->start = start;
    transform->stop = stop;
    transform->transform_caps = transformCaps;
    transform->fixate_caps = fixateCaps;
    transform->passthrough_on_same_caps = FALSE;
    video->set_info = setInfo;
    video->transform_frame = transformFrame;

    GST_DEBUG_CATEGORY_INIT(capture_hal_convert_debug, "capturehalconvert", 0,
                            "capture HAL converter");
}

static void gst_capture_hal_convert_init(GstCaptureHalConvert* self) {
    self->state = new ConvertState();
}
