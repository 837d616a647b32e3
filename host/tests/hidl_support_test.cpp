#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ProcessResources.h"

using android::hardware::hidl_handle;
using android::hardware::hidl_string;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Status;
using android::hardware::Void;

namespace {

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A handle over two fresh memfds and one int, as a buffer producer would hand over.
native_handle_t* makeHandle() {
    native_handle_t* h = native_handle_create(2, 1);
    h->data[0] = memfd_create("hidl_handle_test_a", MFD_CLOEXEC);
    h->data[1] = memfd_create("hidl_handle_test_b", MFD_CLOEXEC);
    h->data[2] = 1234;
    return h;
}

void freeHandle(native_handle_t* h) {
    native_handle_close(h);
    native_handle_delete(h);
}

TEST(HidlStringTest, CopiesAreIndependentAndEmptyIsNeverNull) {
    hidl_string empty;
    EXPECT_NE(empty.c_str(), nullptr);
    EXPECT_STREQ(empty.c_str(), "");
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(hidl_string(static_cast<const char*>(nullptr)).empty());

    std::string source = "capture";
    hidl_string s(source);
    source[0] = 'X';
    EXPECT_EQ(s, "capture");
    EXPECT_EQ(s.size(), 7u);

    hidl_string copy(s);
    EXPECT_NE(copy.c_str(), s.c_str());
    EXPECT_EQ(copy, s);
    EXPECT_EQ(std::string(copy), "capture");

    hidl_string moved(std::move(copy));
    EXPECT_EQ(moved, "capture");
    EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move)

    // Self-assignment, and assignment from our own characters, keep the text.
    hidl_string& alias = moved;
    moved = alias;
    EXPECT_EQ(moved, "capture");
    moved = moved.c_str() + 3;
    EXPECT_EQ(moved, "ture");
    EXPECT_NE(moved, "tur");
    EXPECT_NE(moved, std::string("ture2"));

    // Embedded NULs are part of the value.
    hidl_string withNul("a\0b", 3);
    EXPECT_EQ(withNul.size(), 3u);
    EXPECT_NE(withNul, hidl_string("a"));
}

TEST(HidlVecTest, CopyIsDeepAndEmptyStaysEmpty) {
    hidl_vec<uint32_t> original{1, 2, 3};
    hidl_vec<uint32_t> copy(original);
    ASSERT_EQ(copy.size(), 3u);
    EXPECT_NE(copy.data(), original.data());
    original[0] = 99;
    EXPECT_EQ(copy[0], 1u);
    EXPECT_NE(copy, original);

    hidl_vec<uint32_t> assigned;
    assigned = original;
    EXPECT_EQ(assigned, original);
    EXPECT_NE(assigned.data(), original.data());

    hidl_vec<uint32_t> empty;
    hidl_vec<uint32_t> emptyCopy(empty);
    EXPECT_EQ(emptyCopy.size(), 0u);
    EXPECT_EQ(emptyCopy.begin(), emptyCopy.end());
    assigned = empty;
    EXPECT_EQ(assigned.size(), 0u);

    // Non-trivial elements are deep-copied too.
    hidl_vec<hidl_string> names{"a", "bb"};
    hidl_vec<hidl_string> namesCopy = names;
    names[1] = "changed";
    EXPECT_EQ(namesCopy[1], "bb");
}

TEST(HidlVecTest, SelfCopyLeavesItUnchanged) {
    hidl_vec<uint8_t> v{7, 8, 9};
    const uint8_t* before = v.data();
    hidl_vec<uint8_t>& alias = v;
    v = alias;
    EXPECT_EQ(v.data(), before);
    EXPECT_EQ(std::vector<uint8_t>(v), (std::vector<uint8_t>{7, 8, 9}));

    v = std::move(alias);
    EXPECT_EQ(std::vector<uint8_t>(v), (std::vector<uint8_t>{7, 8, 9}));
}

TEST(HidlVecTest, ExternalDataIsBorrowedOrOwnedAsAsked) {
    uint16_t borrowed[] = {10, 20, 30};
    {
        hidl_vec<uint16_t> v;
        v.setToExternal(borrowed, 3);
        EXPECT_EQ(v.data(), borrowed);
        v[1] = 21;
        // A copy of borrowed data is an owned array of its own.
        hidl_vec<uint16_t> copy(v);
        EXPECT_NE(copy.data(), borrowed);
        EXPECT_EQ(copy[1], 21);
    }  // destroying v must not delete[] a stack array (ASan would report it)
    EXPECT_EQ(borrowed[1], 21);

    // Owned external arrays are freed with the vector (LSan would report a leak).
    hidl_vec<uint16_t> owner;
    owner.setToExternal(new uint16_t[4](), 4, true);
    EXPECT_EQ(owner.size(), 4u);

    // A null array with a non-zero size is refused and the old contents stay.
    hidl_vec<uint16_t> kept{1};
    kept.setToExternal(nullptr, 5);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0], 1);
}

TEST(HidlVecTest, ResizeMoveAndConversions) {
    hidl_vec<int32_t> v(2);
    EXPECT_EQ(std::vector<int32_t>(v), (std::vector<int32_t>{0, 0}));
    v[0] = 5;
    v[1] = 6;
    v.resize(4);
    EXPECT_EQ(std::vector<int32_t>(v), (std::vector<int32_t>{5, 6, 0, 0}));
    v.resize(1);
    EXPECT_EQ(std::vector<int32_t>(v), (std::vector<int32_t>{5}));
    v.resize(0);
    EXPECT_EQ(v.size(), 0u);

    hidl_vec<int32_t> fromStd(std::vector<int32_t>{3, 4});
    hidl_vec<int32_t> moved(std::move(fromStd));
    EXPECT_EQ(moved.size(), 2u);
    EXPECT_EQ(fromStd.size(), 0u);  // NOLINT(bugprone-use-after-move)
    int32_t sum = 0;
    for (int32_t x : moved) sum += x;
    EXPECT_EQ(sum, 7);
}

TEST(HidlHandleTest, CopyClonesAndOwnsTheClone) {
    const int fdsBefore = host_test::countOpenFds();
    native_handle_t* raw = makeHandle();
    {
        hidl_handle borrowed(raw);
        EXPECT_EQ(borrowed.getNativeHandle(), raw);

        hidl_handle copy(borrowed);
        ASSERT_NE(copy.getNativeHandle(), nullptr);
        EXPECT_NE(copy.getNativeHandle(), raw);
        EXPECT_EQ(copy->numFds, 2);
        EXPECT_EQ(copy->numInts, 1);
        EXPECT_NE(copy->data[0], raw->data[0]);
        EXPECT_EQ(copy->data[2], 1234);
        EXPECT_EQ(host_test::countOpenFds(), fdsBefore + 4);

        hidl_handle assigned;
        assigned = copy;
        EXPECT_NE(assigned.getNativeHandle(), copy.getNativeHandle());
        EXPECT_EQ(host_test::countOpenFds(), fdsBefore + 6);
    }
    // Both clones closed; the borrowed original untouched.
    EXPECT_EQ(host_test::countOpenFds(), fdsBefore + 2);
    EXPECT_TRUE(isOpen(raw->data[0]));
    EXPECT_TRUE(isOpen(raw->data[1]));
    freeHandle(raw);
    EXPECT_EQ(host_test::countOpenFds(), fdsBefore);
}

TEST(HidlHandleTest, OwnershipFollowsSetToMoveAndReassignment) {
    const int fdsBefore = host_test::countOpenFds();
    {
        hidl_handle owner;
        owner.setTo(makeHandle(), true);
        EXPECT_EQ(host_test::countOpenFds(), fdsBefore + 2);

        hidl_handle& alias = owner;
        owner = alias;
        ASSERT_NE(owner.getNativeHandle(), nullptr);
        EXPECT_TRUE(isOpen(owner->data[0]));

        hidl_handle moved(std::move(owner));
        EXPECT_EQ(owner.getNativeHandle(), nullptr);  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(host_test::countOpenFds(), fdsBefore + 2);

        // Replacing an owned handle closes it; the new one is only borrowed.
        native_handle_t* second = makeHandle();
        moved = second;
        EXPECT_EQ(host_test::countOpenFds(), fdsBefore + 2);
        moved = hidl_handle();
        EXPECT_TRUE(isOpen(second->data[0]));
        freeHandle(second);

        hidl_handle nullCopy(moved);
        EXPECT_EQ(nullCopy.getNativeHandle(), nullptr);
        EXPECT_EQ(static_cast<const native_handle_t*>(nullCopy), nullptr);
    }
    EXPECT_EQ(host_test::countOpenFds(), fdsBefore);
}

TEST(HidlStatusTest, ReturnCarriesValueOrStatus) {
    Return<int32_t> good(5);
    EXPECT_TRUE(good.isOk());
    EXPECT_EQ(static_cast<int32_t>(good), 5);
    EXPECT_EQ(good.withDefault(7), 5);

    Return<int32_t> failed(Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "gone"));
    EXPECT_FALSE(failed.isOk());
    EXPECT_EQ(failed.withDefault(7), 7);
    EXPECT_NE(failed.description().find("gone"), std::string::npos);
    EXPECT_FALSE(failed.isDeadObject());

    Return<void> dead(Status::fromStatusT(android::DEAD_OBJECT));
    EXPECT_FALSE(dead.isOk());
    EXPECT_TRUE(dead.isDeadObject());

    EXPECT_TRUE(Void().isOk());
    EXPECT_TRUE(Status::fromStatusT(android::OK).isOk());
}

}  // namespace
