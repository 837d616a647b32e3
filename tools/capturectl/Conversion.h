// Memory-to-memory conversions through the service, on the DIP engines or on the GPU path, and
// the switches that reach the GPU path and its frame dumps from the command line.
#pragma once

#include <cutils/native_handle.h>
#include <stdint.h>
#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

#include <map>
#include <string>
#include <vector>

#include "Picture.h"
#include "Session.h"

namespace capturectl {

// A frame in a buffer of the host graphics allocator. The GPU path reads the row stride from the
// buffer's handle, as it does with the platform allocator's, so its frames must live in these.
// Mapped for the object's life.
class GraphicFrame {
public:
    GraphicFrame(uint32_t captureFormat, uint32_t width, uint32_t height);
    ~GraphicFrame();
    GraphicFrame(const GraphicFrame&) = delete;
    GraphicFrame& operator=(const GraphicFrame&) = delete;

    bool valid() const { return mMapping != nullptr; }
    const native_handle_t* handle() const;
    FramePlanes planes() const;
    uint32_t format() const { return mFormat; }
    uint32_t width() const { return mWidth; }
    uint32_t height() const { return mHeight; }

    // Fills every byte with a value no conversion writes everywhere; untouched() then tells
    // whether a conversion left the buffer as it was.
    void markUntouched();
    bool untouched() const;
    void clear();

private:
    uint32_t mFormat, mWidth, mHeight;
    ::android::sp<::android::GraphicBuffer> mBuffer;
    uint8_t* mMapping = nullptr;
    size_t mSize = 0;
};

// One side of a conversion as the service is told about it.
struct FrameRef {
    const native_handle_t* handle = nullptr;
    uint32_t format = 0;  // CaptureFormat
    uint32_t width = 0, height = 0;
    uint32_t chromaOffset = 0;  // second plane, from the buffer's start
};
FrameRef refOf(const GraphicFrame& frame);

struct Placement {
    uint32_t cropX = 0, cropY = 0, cropW = 0, cropH = 0;  // in source pixels
    uint32_t rotate = 0;                                  // clockwise
};

enum class Engine { kDip, kGpu };
const char* engineName(Engine engine);

// Asks the capability query (a memory source; the GPU path forced for kGpu), hands the service
// both frames and captures once. A refusal, or the service choosing the other engine, ends the
// command with kExitRefused after the service's and the hardware's reasons.
void convertInMemory(const ::android::sp<ICapture>& svc, int32_t captureId, Engine engine,
                     const FrameRef& src, const Placement& placement, const FrameRef& dst);

// Frame dumps of the GPU path into `dir`: checks up front that the folder exists and takes
// files, points the service at it and switches dumps on. A bad folder ends the command with
// kExitUsage.
class DumpFolder {
public:
    explicit DumpFolder(const std::string& dir);
    // Prints the dump files written since construction, or that there are none.
    void report(const char* indent) const;
    // The paths of the dump files written since construction.
    std::vector<std::string> written() const;

private:
    std::map<std::string, int64_t> listing() const;  // dump file name -> modification time
    std::string mDir;                                // ends with '/'
    std::map<std::string, int64_t> mBefore;
};

}  // namespace capturectl
