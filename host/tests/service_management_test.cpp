#include <android/hidl/base/1.0/IBase.h>
#include <gtest/gtest.h>
#include <hidl/ServiceManagement.h>

#include <string>

using android::hidl::base::V1_0::IBase;

namespace android::hardware::details {
namespace {

// An interface written the way generated headers write it.
struct IFoo : public IBase {
    static constexpr const char* descriptor = "host.test@1.0::IFoo";
    static sp<IFoo> getService(const std::string& name) { return getServiceAs<IFoo>(name); }
    status_t registerAsService(const std::string& name) { return registerAsServiceAs(this, name); }
};

struct Foo : public IFoo {
    explicit Foo(int* destroyed) : counter(destroyed) {}
    ~Foo() override { ++*counter; }
    int* const counter;
};

TEST(ServiceManagementTest, LookupByInterfaceReplacementAndRefusals) {
    int destroyed = 0;
    ASSERT_EQ(sp<Foo>(new Foo(&destroyed))->registerAsService("reg"), OK);
    sp<Foo> second = new Foo(&destroyed);
    ASSERT_EQ(second->registerAsService("reg"), OK);
    EXPECT_EQ(destroyed, 1);  // the registry kept the first until it was replaced
    EXPECT_EQ(IFoo::getService("reg"), second);
    EXPECT_EQ(IFoo::getService("missing"), nullptr);
    EXPECT_EQ(unregisterServiceInternal(IFoo::descriptor, "reg"), OK);
    second.clear();
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(IFoo::getService("reg"), nullptr);

    // An object of another interface under IFoo's name is not handed out as an IFoo.
    const sp<IBase> base = new IBase();
    ASSERT_EQ(registerAsServiceInternal(base, IFoo::descriptor, "wrong"), OK);
    EXPECT_EQ(getRawServiceInternal(IFoo::descriptor, "wrong"), base);
    EXPECT_EQ(IFoo::getService("wrong"), nullptr);
    EXPECT_EQ(unregisterServiceInternal(IFoo::descriptor, "wrong"), OK);

    EXPECT_EQ(registerAsServiceInternal(nullptr, IFoo::descriptor, "x"), BAD_VALUE);
    EXPECT_EQ(registerAsServiceInternal(base, "", "x"), BAD_VALUE);
    EXPECT_EQ(registerAsServiceInternal(base, IFoo::descriptor, ""), BAD_VALUE);
}

}  // namespace
}  // namespace android::hardware::details
