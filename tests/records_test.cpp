// Copy semantics of the frame records that the service keeps per slot.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "SpineTestUtil.h"

namespace capture_test {
namespace {

ino_t inodeOf(int fd) {
    struct stat st {};
    return fstat(fd, &st) == 0 ? st.st_ino : 0;
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

CaptureDstFrameInfo makeDst(const native_handle_t* buffer, std::vector<uint32_t> offsets) {
    CaptureDstFrameInfo dst;
    dst.cropX = 1;
    dst.cropY = 2;
    dst.cropWidth = 300;
    dst.cropHeight = 200;
    dst.width = 640;
    dst.height = 480;
    dst.pitch = 704;
    dst.rotateAngle = 90;
    dst.format = CaptureFormat::NV12;
    dst.colorSpace = CaptureColorSpace::BT709;
    dst.buffer = buffer;
    dst.param56 = 0x56;
    dst.param84 = 0x84;
    dst.secureBuffer = SecureBufferCfg::SECURE;
    dst.vPlaneOffset = offsets;
    dst.bandwidth = BandwidthCfg::HIGH;
    dst.colorimetry = CaptureColorimetry::FULL;
    dst.param124 = 0x124;
    return dst;
}

void expectSameScalars(const CaptureDstFrameInfo& a, const CaptureDstFrameInfo& b) {
    EXPECT_EQ(a.cropX, b.cropX);
    EXPECT_EQ(a.cropHeight, b.cropHeight);
    EXPECT_EQ(a.width, b.width);
    EXPECT_EQ(a.pitch, b.pitch);
    EXPECT_EQ(a.rotateAngle, b.rotateAngle);
    EXPECT_EQ(a.format, b.format);
    EXPECT_EQ(a.param56, b.param56);
    EXPECT_EQ(a.param84, b.param84);
    EXPECT_EQ(a.secureBuffer, b.secureBuffer);
    EXPECT_EQ(a.bandwidth, b.bandwidth);
    EXPECT_EQ(a.colorimetry, b.colorimetry);
    EXPECT_EQ(a.param124, b.param124);
}

TEST(Records, CopyOwnsItsPlaneOffsetsAndItsHandle) {
    TestHandle buffer(2);
    const int baseline = countOpenFds();
    {
        const CaptureDstFrameInfo original = makeDst(buffer.get(), {0, 307200});
        CaptureDstFrameInfo copy = original;
        expectSameScalars(original, copy);

        ASSERT_EQ(2u, copy.vPlaneOffset.size());
        EXPECT_EQ(original.vPlaneOffset, copy.vPlaneOffset);
        EXPECT_NE(original.vPlaneOffset.data(), copy.vPlaneOffset.data());
        copy.vPlaneOffset[1] = 1;
        EXPECT_EQ(307200u, original.vPlaneOffset[1]);

        // The copy holds its own descriptors for the same buffers.
        const native_handle_t* cloned = copy.buffer.getNativeHandle();
        ASSERT_NE(nullptr, cloned);
        EXPECT_NE(buffer.get(), cloned);
        ASSERT_EQ(2, cloned->numFds);
        for (int i = 0; i < 2; ++i) {
            EXPECT_NE(buffer.fd(i), cloned->data[i]);
            EXPECT_EQ(inodeOf(buffer.fd(i)), inodeOf(cloned->data[i]));
        }
        EXPECT_EQ(baseline + 2, countOpenFds());
    }
    // Dropping the copy closes only its own descriptors.
    EXPECT_EQ(baseline, countOpenFds());
    EXPECT_TRUE(isOpen(buffer.fd(0)));
    EXPECT_TRUE(isOpen(buffer.fd(1)));
}

TEST(Records, EmptyPlaneOffsetsStayEmpty) {
    const CaptureDstFrameInfo original = makeDst(nullptr, {});
    const CaptureDstFrameInfo copy = original;
    EXPECT_EQ(0u, copy.vPlaneOffset.size());
    EXPECT_EQ(nullptr, copy.buffer.getNativeHandle());

    CaptureSrcFrameInfo src;
    src.colorimetry = 0x100000002ull;
    const CaptureSrcFrameInfo srcCopy = src;
    EXPECT_EQ(0u, srcCopy.vPlaneOffset.size());
    EXPECT_EQ(0x100000002ull, srcCopy.colorimetry);
}

TEST(Records, SelfCopyChangesNothing) {
    TestHandle buffer;
    CaptureDstFrameInfo dst = makeDst(buffer.get(), {0, 4096, 8192});
    CaptureDstFrameInfo owned = dst;  // owns a clone, like a kept row
    const CaptureDstFrameInfo reference = makeDst(buffer.get(), {0, 4096, 8192});
    for (CaptureDstFrameInfo* record : {&dst, &owned}) {
        const uint32_t* offsets = record->vPlaneOffset.data();
        const native_handle_t* handle = record->buffer.getNativeHandle();
        const int fds = countOpenFds();
        CaptureDstFrameInfo& alias = *record;
        *record = alias;
        EXPECT_EQ(offsets, record->vPlaneOffset.data());
        EXPECT_EQ(reference.vPlaneOffset, record->vPlaneOffset);
        EXPECT_EQ(handle, record->buffer.getNativeHandle());
        EXPECT_TRUE(isOpen(record->buffer->data[0]));
        EXPECT_EQ(fds, countOpenFds());
        expectSameScalars(reference, *record);
    }
}

TEST(Records, KeptRowsReleaseWhatTheyReplace) {
    TestHandle first;
    TestHandle second(2);
    const int baseline = countOpenFds();
    CaptureSrcFrameInfo src;
    src.width = 1920;
    src.buffer = first.get();
    src.vPlaneOffset = hidl_vec<uint32_t>{0, 2073600};
    for (int i = 0; i < 5; ++i) mSrcFrameInfo[7] = src;
    EXPECT_EQ(baseline + 1, countOpenFds());
    EXPECT_EQ(1920u, mSrcFrameInfo[7].width);
    EXPECT_EQ(src.vPlaneOffset, mSrcFrameInfo[7].vPlaneOffset);

    src.buffer = second.get();
    mSrcFrameInfo[7] = src;
    EXPECT_EQ(baseline + 2, countOpenFds());

    // Resetting a row hands its descriptors back.
    mSrcFrameInfo[7] = CaptureSrcFrameInfo();
    EXPECT_EQ(baseline, countOpenFds());
    EXPECT_EQ(nullptr, mSrcFrameInfo[7].buffer.getNativeHandle());
    EXPECT_EQ(0u, mSrcFrameInfo[7].vPlaneOffset.size());
    EXPECT_TRUE(isOpen(first.fd()));
}

}  // namespace
}  // namespace capture_test
