#include "Conversion.h"

#include <android-base/properties.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <ui/GrallocPrivate.h>
#include <unistd.h>

#include "EnumMapping.h"
#include "hostgl/HostGl.h"

namespace capturectl {

using ::android::GraphicBuffer;
using ::android::NO_ERROR;
using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_vec;
using namespace ::vendor::quenlark::hardware::capture::V1_0;
using ::vendor::quenlark::hardware::capture::V1_0::implementation::formatMappingGpu;

namespace {

constexpr const char* kForceGpuProperty = "vendor.zor.capture.forcegpu";
constexpr const char* kDumpDataProperty = "vendor.zor.capture_hal.dumpdata";
constexpr const char* kDumpDirEnv = "CAPTURE_DUMP_DIR";
const std::string kDumpPrefixes[] = {"gpu_intput-", "gpu_output-"};
// The service builds dump paths in 128 bytes; its longest name after the folder,
// "gpu_output-9999_s16384_16384x16384_ARGB16161616.raw", is 51 characters.
constexpr size_t kDumpDirMax = 127 - 51;

// CPU read and write often, GPU texture, GPU render target.
constexpr uint32_t kFrameUsage = 0x33 | 0x100 | 0x200;
constexpr uint8_t kUntouched = 0xA5;

}  // namespace

GraphicFrame::GraphicFrame(uint32_t captureFormat, uint32_t width, uint32_t height)
    : mFormat(captureFormat), mWidth(width), mHeight(height) {
    const uint32_t halFormat = formatMappingGpu(captureFormat);
    if (halFormat == 0) return;
    mBuffer = new GraphicBuffer(width, height, static_cast<::android::PixelFormat>(halFormat),
                                kFrameUsage, "capturectl");
    if (mBuffer->initCheck() != NO_ERROR) return;
    const native_handle_t* h = mBuffer->handle;
    mSize = static_cast<size_t>(
        static_cast<uint64_t>(static_cast<uint32_t>(h->data[kGrallocPrivateSizeLow])) |
        static_cast<uint64_t>(static_cast<uint32_t>(h->data[kGrallocPrivateSizeHigh])) << 32);
    void* mapping = nullptr;
    if (mBuffer->lock(kFrameUsage, &mapping) == NO_ERROR) mMapping = static_cast<uint8_t*>(mapping);
}

GraphicFrame::~GraphicFrame() {
    if (mMapping != nullptr) mBuffer->unlock();
}

const native_handle_t* GraphicFrame::handle() const {
    return mBuffer != nullptr ? mBuffer->handle : nullptr;
}

FramePlanes GraphicFrame::planes() const {
    const native_handle_t* h = mBuffer->handle;
    FramePlanes p;
    p.base = mMapping;
    p.pitch = static_cast<uint32_t>(h->data[kGrallocPrivateByteStride]);
    p.chromaOffset = static_cast<uint32_t>(h->data[kGrallocPrivatePlane1Offset]);
    return p;
}

void GraphicFrame::markUntouched() {
    memset(mMapping, kUntouched, mSize);
}

bool GraphicFrame::untouched() const {
    for (size_t i = 0; i < mSize; ++i) {
        if (mMapping[i] != kUntouched) return false;
    }
    return true;
}

void GraphicFrame::clear() {
    memset(mMapping, 0, mSize);
}

FrameRef refOf(const GraphicFrame& frame) {
    FrameRef r;
    r.handle = frame.handle();
    r.format = frame.format();
    r.width = frame.width();
    r.height = frame.height();
    r.chromaOffset = frame.planes().chromaOffset;
    return r;
}

const char* engineName(Engine engine) {
    return engine == Engine::kGpu ? "the GPU path" : "the DIP";
}

void convertInMemory(const sp<ICapture>& svc, int32_t captureId, Engine engine, const FrameRef& src,
                     const Placement& placement, const FrameRef& dst) {
    if (engine == Engine::kGpu) host_gl::keepDriverLoaded();
    takeLogLines();
    setQueryInfo q = {};
    q.src_width = src.width;
    q.src_height = src.height;
    q.src_format = static_cast<CaptureFormat>(src.format);
    q.dst_width = dst.width;
    q.dst_height = dst.height;
    q.dst_format = static_cast<CaptureFormat>(dst.format);
    q.rotationAngle = placement.rotate;
    q.crop_x = placement.cropX;
    q.crop_y = placement.cropY;
    q.crop_width = placement.cropW;
    q.crop_height = placement.cropH;
    q.captureType = 1;  // memory to memory: the only kind with a GPU path
    // The query reads the property; what it decides stays with the instance.
    ::android::base::SetProperty(kForceGpuProperty, engine == Engine::kGpu ? "1" : "0");
    CaptureReturn ret = CaptureReturn::FAIL;
    getQueryInfo answer = {};
    svc->getCaptureCapabilityInfo(captureId, q, [&](CaptureReturn r, const getQueryInfo& a) {
        ret = r;
        answer = a;
    });
    ::android::base::SetProperty(kForceGpuProperty, "0");
    if (ret != CaptureReturn::SUCCESS) refusedBecause("getCaptureCapabilityInfo", ret);
    if ((answer.useGpu != 0) != (engine == Engine::kGpu)) {
        fprintf(stderr, "capturectl: the service would convert this on %s, not on %s%s\n",
                answer.useGpu ? "the GPU path" : "the DIP", engineName(engine),
                answer.useGpu ? " (the DIP cannot do it: try --engine gpu)" : "");
        printReasons("why:", stderr);
        throw Failure{kExitRefused};
    }

    CaptureSrcFrameInfo s = {};
    s.width = src.width;
    s.height = src.height;
    s.format = static_cast<CaptureFormat>(src.format);
    s.buffer = hidl_handle(src.handle);
    s.vPlaneOffset = hidl_vec<uint32_t>{0u, src.chromaOffset};
    CaptureDstFrameInfo d = {};
    d.cropX = placement.cropX;
    d.cropY = placement.cropY;
    d.cropWidth = placement.cropW;
    d.cropHeight = placement.cropH;
    d.width = dst.width;
    d.height = dst.height;
    d.rotateAngle = placement.rotate;
    d.format = static_cast<CaptureFormat>(dst.format);
    d.buffer = hidl_handle(dst.handle);
    d.vPlaneOffset = hidl_vec<uint32_t>{0u, dst.chromaOffset};
    svc->setCaptureFrameInfo(captureId, s, d,
                             [&](CaptureReturn r, const hidl_vec<uint32_t>&) { ret = r; });
    if (ret != CaptureReturn::SUCCESS) refusedBecause("setCaptureFrameInfo", ret);
    ret = svc->captureOnce(captureId);
    if (ret != CaptureReturn::SUCCESS) refusedBecause("captureOnce", ret);
    takeLogLines();
}

DumpFolder::DumpFolder(const std::string& dir) : mDir(dir) {
    struct stat st;
    if (mDir.empty()) usageError("--dump-dir needs a folder%s", "");  // --dump-dir=
    if (stat(mDir.c_str(), &st) != 0) usageError("dump folder %s does not exist", mDir);
    if (!S_ISDIR(st.st_mode)) usageError("dump folder %s is not a folder", mDir);
    if (access(mDir.c_str(), W_OK | X_OK) != 0) {
        usageError("dump folder %s does not let this user create files", mDir);
    }
    if (mDir.back() != '/') mDir += '/';
    if (mDir.size() > kDumpDirMax) {
        usageError(("dump folder %s: the service fits dump paths into 127 characters, so the "
                    "folder may have at most " +
                    std::to_string(kDumpDirMax) + " (a relative path is shorter)")
                       .c_str(),
                   mDir);
    }
    mBefore = listing();
    setenv(kDumpDirEnv, mDir.c_str(), 1);
    ::android::base::SetProperty(kDumpDataProperty, "1");
}

std::map<std::string, int64_t> DumpFolder::listing() const {
    std::map<std::string, int64_t> files;
    DIR* d = opendir(mDir.c_str());
    if (d == nullptr) return files;
    while (const dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        bool dump = false;
        for (const std::string& prefix : kDumpPrefixes) dump |= name.rfind(prefix, 0) == 0;
        struct stat st;
        if (!dump || stat((mDir + name).c_str(), &st) != 0) continue;
        files[name] = int64_t{st.st_mtim.tv_sec} * 1000000000 + st.st_mtim.tv_nsec;
    }
    closedir(d);
    return files;
}

std::vector<std::string> DumpFolder::written() const {
    std::vector<std::string> paths;
    for (const auto& [name, mtime] : listing()) {
        auto before = mBefore.find(name);
        if (before == mBefore.end() || before->second != mtime) paths.push_back(mDir + name);
    }
    return paths;
}

void DumpFolder::report(const char* indent) const {
    int count = 0;
    for (const std::string& path : written()) {
        struct stat st;
        long long bytes = stat(path.c_str(), &st) == 0 ? st.st_size : -1;
        printf("%sdump: %s (%lld bytes)\n", indent, path.c_str(), bytes);
        ++count;
    }
    if (count == 0) {
        printf("%sno frame dumps in %s: only the GPU path writes them\n", indent, mDir.c_str());
    }
}

}  // namespace capturectl
