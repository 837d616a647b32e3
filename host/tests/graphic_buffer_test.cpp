#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <ui/GrallocPrivate.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

using android::GraphicBuffer;
using android::NO_ERROR;
using android::sp;

namespace {

constexpr uint32_t kUsage = 0x02001B33;
constexpr int32_t kRgba = HAL_PIXEL_FORMAT_RGBA_8888;

// Descriptors are allocated lowest first, so a leaked one changes the next number handed out.
int nextFd() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

// The 1-pixel strides (the alignments the service reads) are checked with gpu_get_width_align.
TEST(GraphicBufferTest, StrideSizeAndLockGeometryPerFormat) {
    // A 100 x 3 buffer, worked out by hand from the allocator's documented layout.
    const struct {
        int32_t format;
        int stride;
        off_t size;
        int32_t bytesPerPixel, bytesPerStride;
    } formats[] = {
        {1, 112, 112 * 4 * 3, 4, 448},        {2, 112, 112 * 4 * 3, 4, 448},
        {3, 128, 128 * 3 * 3, 3, 384},        {4, 128, 128 * 2 * 3, 2, 256},
        {5, 112, 112 * 4 * 3, 4, 448},        {16, 128, 128 * 3 * 2, 1, 128},
        {17, 128, 128 * 3 + 128 * 2, 1, 128}, {20, 128, 128 * 2 * 3, 2, 256},
        {21, 128, 128 * 3 + 128 * 2, 1, 128}, {22, 104, 104 * 8 * 3, 8, 832},
        {43, 112, 112 * 4 * 3, 4, 448},       {54, 128, 160 * 3 + 160 * 2, -1, 160},
        {262, 128, 160 * 3 * 2, -1, 160},     {0x32315659, 128, 128 * 3 + 2 * 64 * 2, 1, 128},
    };
    for (const auto& c : formats) {
        SCOPED_TRACE(c.format);
        sp<GraphicBuffer> buffer = new GraphicBuffer(100, 3, c.format, kUsage, "geometry");
        ASSERT_EQ(buffer->initCheck(), NO_ERROR);
        EXPECT_EQ(buffer->handle->data[15], c.stride);
        EXPECT_EQ(lseek(buffer->handle->data[0], 0, SEEK_END), c.size);
        void* vaddr = nullptr;
        int32_t bytesPerPixel = 0;
        int32_t bytesPerStride = 0;
        ASSERT_EQ(buffer->lock(0x33, &vaddr, &bytesPerPixel, &bytesPerStride), NO_ERROR);
        EXPECT_EQ(bytesPerPixel, c.bytesPerPixel);
        EXPECT_EQ(bytesPerStride, c.bytesPerStride);
        static_cast<volatile uint8_t*>(vaddr)[c.size - 1] = 0xab;  // all of it is mapped
        EXPECT_EQ(buffer->unlock(), NO_ERROR);
    }
}

TEST(GraphicBufferTest, CloneSharesThePixelsAndReleasingItUnmapsAndCloses) {
    sp<GraphicBuffer> source = new GraphicBuffer(64, 4, kRgba, kUsage);
    sp<GraphicBuffer> clone = new GraphicBuffer(source->handle, GraphicBuffer::CLONE_HANDLE, 64, 4,
                                                kRgba, 1, 0x02000133, 64);
    ASSERT_EQ(clone->initCheck(), NO_ERROR);
    EXPECT_NE(clone->handle->data[0], source->handle->data[0]);
    const int cloneFd = clone->handle->data[0];
    void* a = nullptr;
    void* b = nullptr;
    ASSERT_EQ(source->lock(0x33, &a), NO_ERROR);
    ASSERT_EQ(clone->lock(0x33, &b), NO_ERROR);
    memset(a, 0x5c, 64 * 4 * 4);
    EXPECT_EQ(static_cast<uint8_t*>(b)[64 * 4 * 4 - 1], 0x5c);
    clone.clear();  // while locked
    EXPECT_NE(msync(b, 4096, MS_ASYNC), 0);
    EXPECT_EQ(fcntl(cloneFd, F_GETFD), -1);
}

void expectUnusable(const sp<GraphicBuffer>& buffer) {
    EXPECT_NE(buffer->initCheck(), NO_ERROR);
    void* vaddr = &vaddr;
    EXPECT_NE(buffer->lock(0x33, &vaddr), NO_ERROR);
    EXPECT_EQ(vaddr, nullptr);
}

void expectRefused(uint32_t width, uint32_t height, int32_t format) {
    SCOPED_TRACE(testing::Message() << width << "x" << height << " format " << format);
    sp<GraphicBuffer> buffer = new GraphicBuffer(width, height, format, kUsage);
    EXPECT_EQ(buffer->handle, nullptr);
    expectUnusable(buffer);
}

TEST(GraphicBufferTest, RefusalsAndMisuseLeaveNothingUsableAndNoDescriptor) {
    const int fdBefore = nextFd();
    for (const int32_t format : {0, 6, 34, 35, -1}) expectRefused(1, 1, format);
    for (const uint32_t side : {0u, 16385u, 0x80000000u}) {
        expectRefused(side, 16, kRgba);
        expectRefused(16, side, kRgba);
    }
    // Handles that cannot be buffers: null, without descriptor, corrupt header, too short.
    native_handle_t* noFd = native_handle_create(0, 16);
    native_handle_t* corrupt = native_handle_create(1, 15);
    corrupt->numFds = -3;
    for (const native_handle_t* h : {static_cast<native_handle_t*>(nullptr), noFd, corrupt}) {
        expectUnusable(new GraphicBuffer(h, GraphicBuffer::CLONE_HANDLE, 8, 8, 4, 1, 0, 32));
    }
    native_handle_t* tooShort = native_handle_create(1, 3);  // the stride would lie past its end
    EXPECT_EQ(gralloc_private_stride(tooShort), 0);
    EXPECT_EQ(gralloc_private_stride(corrupt), 0);
    corrupt->numFds = 0;
    for (native_handle_t* h : {noFd, tooShort, corrupt}) native_handle_delete(h);
    EXPECT_EQ(nextFd(), fdBefore);

    sp<GraphicBuffer> buffer = new GraphicBuffer(8, 8, HAL_PIXEL_FORMAT_RGB_565, kUsage);
    EXPECT_EQ(buffer->lock(0x33, nullptr), android::BAD_VALUE);
    EXPECT_EQ(buffer->unlock(), android::INVALID_OPERATION);
    void* first = nullptr;
    void* second = &second;
    ASSERT_EQ(buffer->lock(0x33, &first), NO_ERROR);
    EXPECT_EQ(buffer->lock(0x33, &second), android::INVALID_OPERATION);
    EXPECT_EQ(second, nullptr);
}

}  // namespace
