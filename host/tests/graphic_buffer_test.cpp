#include <gtest/gtest.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

using android::GraphicBuffer;
using android::NO_ERROR;
using android::sp;

namespace {

constexpr uint32_t kUsage = 0x02001B33;

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

}  // namespace
