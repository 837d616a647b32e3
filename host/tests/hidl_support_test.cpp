#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <sys/mman.h>

#include <string>
#include <vector>

using android::hardware::hidl_handle;
using android::hardware::hidl_string;
using android::hardware::hidl_vec;

namespace {

TEST(HidlSupportTest, StringsAndVectorsCopyDeeplyAndBorrowOnlyWhenAsked) {
    EXPECT_STREQ(hidl_string(static_cast<const char*>(nullptr)).c_str(), "");  // never null
    hidl_string s("capture");
    hidl_string copy(s);
    EXPECT_NE(copy.c_str(), s.c_str());
    hidl_string moved(std::move(copy));
    EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move)
    moved = moved.c_str() + 3;  // from its own characters
    EXPECT_EQ(moved, "ture");
    EXPECT_NE(moved, "tur");
    EXPECT_NE(hidl_string("a\0b", 3), hidl_string("a"));  // embedded NULs count

    hidl_vec<hidl_string> names{"a", "bb"};
    hidl_vec<hidl_string> copies = names;
    hidl_vec<hidl_string>& alias = copies;
    copies = alias;
    names[1] = "changed";
    copies.resize(3);
    EXPECT_EQ(std::vector<std::string>(copies.begin(), copies.end()),
              (std::vector<std::string>{"a", "bb", ""}));

    int32_t borrowed[] = {10, 20};
    {
        hidl_vec<int32_t> view;
        view.setToExternal(borrowed, 2);
        view[1] = 21;
        EXPECT_NE(hidl_vec<int32_t>(view).data(), borrowed);
    }  // must not delete[] a stack array (ASan)
    EXPECT_EQ(borrowed[1], 21);
    hidl_vec<int32_t> owner;
    owner.setToExternal(new int32_t[4](), 4, true);  // freed with the vector (LSan)
    owner.setToExternal(nullptr, 5);                 // refused: the contents stay
    EXPECT_EQ(owner.size(), 4u);
}

native_handle_t* makeHandle() {
    native_handle_t* h = native_handle_create(2, 1);
    h->data[0] = memfd_create("hidl_handle_test", MFD_CLOEXEC);
    h->data[1] = memfd_create("hidl_handle_test", MFD_CLOEXEC);
    h->data[2] = 1234;
    return h;
}

TEST(HidlSupportTest, HandleCopiesCloneAndOwnershipDecidesWhatCloses) {
    const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
    native_handle_t* raw = makeHandle();
    int clonedFds[2] = {-1, -1};
    {
        hidl_handle borrowed(raw);
        hidl_handle copy(borrowed);
        hidl_handle assigned;
        assigned = copy;
        clonedFds[0] = copy->data[0];
        clonedFds[1] = assigned->data[1];
        EXPECT_NE(clonedFds[0], raw->data[0]);
        EXPECT_EQ(assigned->data[2], 1234);

        hidl_handle owner;
        owner.setTo(makeHandle(), true);
        const int ownedFd = owner->data[0];
        hidl_handle& alias = owner;
        owner = alias;
        hidl_handle moved(std::move(owner));
        EXPECT_EQ(owner.getNativeHandle(), nullptr);  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(hidl_handle(owner).getNativeHandle(), nullptr);
        EXPECT_TRUE(isOpen(ownedFd));
        moved = raw;  // closes the owned one, only borrows raw
        EXPECT_FALSE(isOpen(ownedFd));
    }
    EXPECT_FALSE(isOpen(clonedFds[0]) || isOpen(clonedFds[1]));
    EXPECT_TRUE(isOpen(raw->data[0]) && isOpen(raw->data[1]));
    native_handle_close(raw);
    native_handle_delete(raw);
}

}  // namespace
