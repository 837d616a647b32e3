#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <ui/GrallocPrivate.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <string>

#include "ProcessResources.h"

using android::BAD_VALUE;
using android::GraphicBuffer;
using android::INVALID_OPERATION;
using android::NO_ERROR;
using android::sp;

namespace {

constexpr uint32_t kUsage = 0x02001B33;

struct FormatCase {
    const char* name;
    int32_t format;
    uint32_t alignment;  // stride of a 1-pixel-wide buffer
    // A 100 x 3 buffer, worked out by hand from the allocator's documented layout.
    uint32_t stride100;
    int64_t size100x3;
    int32_t bytesPerPixel;
    int32_t bytesPerStride100;
};

const FormatCase kFormats[] = {
    {"RGBA_8888", 1, 16, 112, 112 * 4 * 3, 4, 448},
    {"RGBX_8888", 2, 16, 112, 112 * 4 * 3, 4, 448},
    {"RGB_888", 3, 64, 128, 128 * 3 * 3, 3, 384},
    {"RGB_565", 4, 32, 128, 128 * 2 * 3, 2, 256},
    {"BGRA_8888", 5, 16, 112, 112 * 4 * 3, 4, 448},
    {"NV16", 16, 64, 128, 128 * 3 * 2, 1, 128},
    {"NV21", 17, 64, 128, 128 * 3 + 128 * 2, 1, 128},
    {"YUYV", 20, 32, 128, 128 * 2 * 3, 2, 256},
    {"NV12", 21, 64, 128, 128 * 3 + 128 * 2, 1, 128},
    {"RGBA_FP16", 22, 8, 104, 104 * 8 * 3, 8, 832},
    {"RGBA_1010102", 43, 16, 112, 112 * 4 * 3, 4, 448},
    {"YC420_10B", 54, 64, 128, 160 * 3 + 160 * 2, -1, 160},
    {"YUV422_10B", 262, 64, 128, 160 * 3 * 2, -1, 160},
    {"YV12", 0x32315659, 32, 128, 128 * 3 + 2 * 64 * 2, 1, 128},
};

off_t fileSize(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 ? st.st_size : -1;
}

class GraphicBufferFormatTest : public ::testing::TestWithParam<FormatCase> {};

TEST_P(GraphicBufferFormatTest, OnePixelStrideIsTheAlignment) {
    const FormatCase& c = GetParam();
    sp<GraphicBuffer> buffer = new GraphicBuffer(1, 1, c.format, kUsage, "<Unknown>");
    ASSERT_EQ(buffer->initCheck(), NO_ERROR);
    const native_handle_t* h = buffer->handle;
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->numFds, 1);
    EXPECT_EQ(h->numInts, 15);
    EXPECT_EQ(h->data[15], static_cast<int>(c.alignment));
    int32_t atOffset72 = 0;
    memcpy(&atOffset72, reinterpret_cast<const char*>(h) + 72, sizeof(atOffset72));
    EXPECT_EQ(atOffset72, static_cast<int32_t>(c.alignment));
    EXPECT_EQ(gralloc_private_stride(h), static_cast<int32_t>(c.alignment));
    EXPECT_EQ(buffer->getStride(), c.alignment);
}

TEST_P(GraphicBufferFormatTest, SizeAndLockGeometry) {
    const FormatCase& c = GetParam();
    sp<GraphicBuffer> buffer = new GraphicBuffer(100, 3, c.format, kUsage, "geometry");
    ASSERT_EQ(buffer->initCheck(), NO_ERROR);
    EXPECT_EQ(buffer->getWidth(), 100u);
    EXPECT_EQ(buffer->getHeight(), 3u);
    EXPECT_EQ(buffer->getPixelFormat(), c.format);
    EXPECT_EQ(buffer->getUsage(), kUsage);
    EXPECT_EQ(buffer->getStride(), c.stride100);
    EXPECT_EQ(gralloc_private_stride(buffer->handle), static_cast<int32_t>(c.stride100));
    EXPECT_EQ(fileSize(buffer->handle->data[0]), c.size100x3);

    void* vaddr = nullptr;
    int32_t bytesPerPixel = 0;
    int32_t bytesPerStride = 0;
    ASSERT_EQ(buffer->lock(0x33, &vaddr, &bytesPerPixel, &bytesPerStride), NO_ERROR);
    ASSERT_NE(vaddr, nullptr);
    EXPECT_EQ(bytesPerPixel, c.bytesPerPixel);
    EXPECT_EQ(bytesPerStride, c.bytesPerStride100);
    // The whole buffer is mapped writable: touch its last byte.
    static_cast<volatile uint8_t*>(vaddr)[c.size100x3 - 1] = 0xab;
    EXPECT_EQ(buffer->unlock(), NO_ERROR);
}

INSTANTIATE_TEST_SUITE_P(AcceptedFormats, GraphicBufferFormatTest, ::testing::ValuesIn(kFormats),
                         [](const ::testing::TestParamInfo<FormatCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(GraphicBufferTest, RefusedAllocationsLeaveNoHandleAndNoDescriptor) {
    const int fdsBefore = host_test::countOpenFds();
    struct Case {
        const char* name;
        uint32_t width;
        uint32_t height;
        int32_t format;
    };
    const Case cases[] = {
        {"format 0", 1, 1, 0},
        {"format 6", 1, 1, 6},
        {"implementation defined", 1, 1, 34},
        {"YCbCr_420_888", 1, 1, 35},
        {"negative format", 1, 1, -1},
        {"zero width", 0, 16, 1},
        {"zero height", 16, 0, 1},
        {"width above the limit", 16385, 1, 1},
        {"height above the limit", 1, 16385, 1},
        {"width beyond int", 0x80000000u, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sp<GraphicBuffer> buffer = new GraphicBuffer(c.width, c.height, c.format, kUsage);
        EXPECT_EQ(buffer->handle, nullptr);
        EXPECT_NE(buffer->initCheck(), NO_ERROR);
        EXPECT_EQ(gralloc_private_stride(buffer->handle), 0);
        void* vaddr = &vaddr;
        EXPECT_NE(buffer->lock(0x33, &vaddr), NO_ERROR);
        EXPECT_EQ(vaddr, nullptr);
    }
    EXPECT_EQ(host_test::countOpenFds(), fdsBefore);
}

TEST(GraphicBufferTest, CloneWrapSharesPixelsAndReleasesEverything) {
    const int fdsBefore = host_test::countOpenFds();
    const std::string tag = "clone-roundtrip";
    {
        const int32_t rgba = HAL_PIXEL_FORMAT_RGBA_8888;
        sp<GraphicBuffer> source = new GraphicBuffer(64, 4, rgba, kUsage, tag);
        ASSERT_EQ(source->initCheck(), NO_ERROR);
        const int32_t stride = gralloc_private_stride(source->handle);
        sp<GraphicBuffer> wrapped =
            new GraphicBuffer(source->handle, GraphicBuffer::CLONE_HANDLE, 64, 4,
                              HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x02000133, stride);
        ASSERT_EQ(wrapped->initCheck(), NO_ERROR);
        ASSERT_NE(wrapped->handle, nullptr);
        EXPECT_NE(wrapped->handle, source->handle);
        EXPECT_NE(wrapped->handle->data[0], source->handle->data[0]);
        EXPECT_EQ(wrapped->getStride(), 64u);
        EXPECT_EQ(wrapped->getLayerCount(), 1u);
        EXPECT_EQ(wrapped->getNativeBuffer()->handle, wrapped->handle);
        EXPECT_EQ(wrapped->getNativeBuffer()->stride, 64);
        EXPECT_EQ(host_test::countOpenFds(), fdsBefore + 2);

        void* a = nullptr;
        void* b = nullptr;
        int32_t bytesPerStride = 0;
        ASSERT_EQ(source->lock(0x33, &a), NO_ERROR);
        ASSERT_EQ(wrapped->lock(0x33, &b, nullptr, &bytesPerStride), NO_ERROR);
        EXPECT_NE(a, b);
        EXPECT_EQ(bytesPerStride, 256);
        const size_t size = 64 * 4 * 4;
        for (size_t i = 0; i < size; ++i) static_cast<uint8_t*>(a)[i] = uint8_t(i * 7 + 1);
        EXPECT_EQ(memcmp(a, b, size), 0);
        static_cast<uint8_t*>(b)[size - 1] = 0x5c;
        EXPECT_EQ(static_cast<uint8_t*>(a)[size - 1], 0x5c);
        EXPECT_EQ(host_test::countMappings("gralloc:" + tag), 2);

        EXPECT_EQ(source->unlock(), NO_ERROR);
        // The wrapped buffer stays locked: releasing it must unmap it.
    }
    EXPECT_EQ(host_test::countMappings("gralloc:" + tag), 0);
    EXPECT_EQ(host_test::countOpenFds(), fdsBefore);
}

TEST(GraphicBufferTest, WrapMethodsDecideOwnership) {
    sp<GraphicBuffer> source = new GraphicBuffer(16, 16, HAL_PIXEL_FORMAT_RGBA_8888, kUsage);
    ASSERT_EQ(source->initCheck(), NO_ERROR);
    const int fdsBefore = host_test::countOpenFds();

    sp<GraphicBuffer> borrowed = new GraphicBuffer(source->handle, GraphicBuffer::WRAP_HANDLE, 16,
                                                   16, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0, 16);
    EXPECT_EQ(borrowed->handle, source->handle);
    borrowed.clear();
    EXPECT_NE(fcntl(source->handle->data[0], F_GETFD), -1);

    native_handle_t* taken = native_handle_clone(source->handle);
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(host_test::countOpenFds(), fdsBefore + 1);
    sp<GraphicBuffer> owner = new GraphicBuffer(taken, GraphicBuffer::TAKE_HANDLE, 16, 16,
                                                HAL_PIXEL_FORMAT_RGBA_8888, 1, 0, 16);
    EXPECT_EQ(owner->handle, taken);
    owner.clear();
    EXPECT_EQ(host_test::countOpenFds(), fdsBefore);
}

TEST(GraphicBufferTest, MisuseIsRefusedWithoutCrashing) {
    sp<GraphicBuffer> buffer = new GraphicBuffer(8, 8, HAL_PIXEL_FORMAT_RGB_565, kUsage);
    ASSERT_EQ(buffer->initCheck(), NO_ERROR);
    EXPECT_EQ(buffer->lock(0x33, nullptr), BAD_VALUE);
    EXPECT_EQ(buffer->unlock(), INVALID_OPERATION);
    void* first = nullptr;
    void* second = &second;
    ASSERT_EQ(buffer->lock(0x33, &first), NO_ERROR);
    EXPECT_EQ(buffer->lock(0x33, &second), INVALID_OPERATION);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(buffer->unlock(), NO_ERROR);
    EXPECT_EQ(buffer->unlock(), INVALID_OPERATION);

    // Handles that cannot be buffers: null, no descriptor, too few ints, a corrupt header.
    sp<GraphicBuffer> fromNull = new GraphicBuffer(nullptr, GraphicBuffer::CLONE_HANDLE, 8, 8,
                                                   HAL_PIXEL_FORMAT_RGB_565, 1, 0, 32);
    EXPECT_EQ(fromNull->handle, nullptr);
    EXPECT_NE(fromNull->initCheck(), NO_ERROR);

    native_handle_t* noFd = native_handle_create(0, 16);
    sp<GraphicBuffer> fdless = new GraphicBuffer(noFd, GraphicBuffer::CLONE_HANDLE, 8, 8,
                                                 HAL_PIXEL_FORMAT_RGB_565, 1, 0, 32);
    EXPECT_NE(fdless->initCheck(), NO_ERROR);
    void* vaddr = &vaddr;
    EXPECT_NE(fdless->lock(0x33, &vaddr), NO_ERROR);
    EXPECT_EQ(vaddr, nullptr);
    // Sixteen words reach offset 72 whatever the split between descriptors and ints.
    noFd->data[15] = 77;
    EXPECT_EQ(gralloc_private_stride(noFd), 77);
    native_handle_delete(noFd);

    native_handle_t* shortHandle = native_handle_create(1, 3);
    shortHandle->data[0] = dup(buffer->handle->data[0]);
    EXPECT_EQ(gralloc_private_stride(shortHandle), 0);
    sp<GraphicBuffer> tooShort = new GraphicBuffer(shortHandle, GraphicBuffer::WRAP_HANDLE, 8, 8,
                                                   HAL_PIXEL_FORMAT_RGB_565, 1, 0, 32);
    EXPECT_NE(tooShort->initCheck(), NO_ERROR);
    tooShort.clear();
    native_handle_close(shortHandle);
    native_handle_delete(shortHandle);

    native_handle_t* corrupt = native_handle_create(1, 15);
    corrupt->numFds = -3;
    sp<GraphicBuffer> fromCorrupt = new GraphicBuffer(corrupt, GraphicBuffer::TAKE_HANDLE, 8, 8,
                                                      HAL_PIXEL_FORMAT_RGB_565, 1, 0, 32);
    EXPECT_EQ(fromCorrupt->handle, nullptr);
    EXPECT_EQ(gralloc_private_stride(corrupt), 0);
    fromCorrupt.clear();
    corrupt->numFds = 1;
    corrupt->data[0] = -1;
    native_handle_delete(corrupt);
}

}  // namespace
