#include <android/hidl/base/1.0/IBase.h>
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using android::BAD_VALUE;
using android::NAME_NOT_FOUND;
using android::OK;
using android::sp;
using android::hardware::hidl_string;
using android::hidl::base::V1_0::IBase;

namespace android::hardware::details {
namespace {

// Two interfaces written the way generated headers write them.
struct IFoo : public IBase {
    static constexpr const char* descriptor = "host.test@1.0::IFoo";
    virtual int foo() = 0;
    static sp<IFoo> getService(const std::string& name = "default", bool getStub = false) {
        return getServiceAs<IFoo>(name, getStub);
    }
    status_t registerAsService(const std::string& name = "default") {
        return registerAsServiceAs<IFoo>(this, name);
    }
};

struct IBar : public IBase {
    static constexpr const char* descriptor = "host.test@1.0::IBar";
    static sp<IBar> getService(const std::string& name = "default", bool getStub = false) {
        return getServiceAs<IBar>(name, getStub);
    }
    status_t registerAsService(const std::string& name = "default") {
        return registerAsServiceInternal(this, descriptor, name);
    }
};

struct Foo : public IFoo {
    explicit Foo(int v, std::atomic<int>* destroyed = nullptr) : value(v), counter(destroyed) {}
    ~Foo() override {
        if (counter != nullptr) ++*counter;
    }
    int foo() override { return value; }
    int value;
    std::atomic<int>* counter;
};

struct Bar : public IBar {};

TEST(ServiceManagementTest, RegisteredServiceIsFoundAsItsInterfaceOnly) {
    sp<Foo> foo = new Foo(42);
    ASSERT_EQ(foo->registerAsService("reg"), OK);

    sp<IFoo> found = IFoo::getService("reg");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found.get(), foo.get());
    EXPECT_EQ(found->foo(), 42);

    EXPECT_EQ(IFoo::getService("missing"), nullptr);
    EXPECT_EQ(IBar::getService("reg"), nullptr);

    // An object of another interface registered under IFoo's name is not handed out as an IFoo.
    sp<Bar> bar = new Bar();
    ASSERT_EQ(registerAsServiceInternal(bar, IFoo::descriptor, "wrong"), OK);
    EXPECT_NE(getRawServiceInternal(IFoo::descriptor, "wrong"), nullptr);
    EXPECT_EQ(IFoo::getService("wrong"), nullptr);

    EXPECT_EQ(unregisterServiceInternal(IFoo::descriptor, "reg"), OK);
    EXPECT_EQ(unregisterServiceInternal(IFoo::descriptor, "wrong"), OK);
    EXPECT_EQ(IFoo::getService("reg"), nullptr);
    EXPECT_EQ(unregisterServiceInternal(IFoo::descriptor, "reg"), NAME_NOT_FOUND);
}

TEST(ServiceManagementTest, ReRegistrationReplacesAndReleasesTheOldService) {
    std::atomic<int> destroyed{0};
    {
        sp<Foo> first = new Foo(1, &destroyed);
        ASSERT_EQ(first->registerAsService("swap"), OK);
    }
    EXPECT_EQ(destroyed.load(), 0);  // the registry keeps it alive

    sp<Foo> second = new Foo(2, &destroyed);
    ASSERT_EQ(second->registerAsService("swap"), OK);
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_EQ(IFoo::getService("swap")->foo(), 2);

    ASSERT_EQ(unregisterServiceInternal(IFoo::descriptor, "swap"), OK);
    second.clear();
    EXPECT_EQ(destroyed.load(), 2);
}

TEST(ServiceManagementTest, RefusesNullServicesAndEmptyNames) {
    sp<Foo> foo = new Foo(0);
    EXPECT_EQ(registerAsServiceInternal(nullptr, IFoo::descriptor, "default"), BAD_VALUE);
    EXPECT_EQ(registerAsServiceInternal(foo, "", "default"), BAD_VALUE);
    EXPECT_EQ(foo->registerAsService(""), BAD_VALUE);
    EXPECT_EQ(getRawServiceInternal(IFoo::descriptor, ""), nullptr);
    EXPECT_EQ(OK, configureRpcThreadpool(1, true));
}

TEST(ServiceManagementTest, BaseInterfaceDescribesItself) {
    sp<Bar> bar = new Bar();
    std::string described;
    EXPECT_TRUE(bar->interfaceDescriptor([&](const hidl_string& d) { described = d; }).isOk());
    EXPECT_EQ(described, "android.hidl.base@1.0::IBase");
}

TEST(ServiceManagementTest, ConcurrentRegistrationAndLookup) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &mismatches] {
            const std::string name = "concurrent" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                sp<Foo> foo = new Foo(t * kRounds + i);
                if (foo->registerAsService(name) != OK) ++mismatches;
                sp<IFoo> found = IFoo::getService(name);
                if (found == nullptr || found->foo() != t * kRounds + i) ++mismatches;
                // Another thread's entry may come and go, but never as a wrong object.
                sp<IFoo> other = IFoo::getService("concurrent" + std::to_string((t + 1) % 4));
                if (other != nullptr && other->foo() / kRounds != (t + 1) % kThreads) {
                    ++mismatches;
                }
                if (i % 2 == 0 && unregisterServiceInternal(IFoo::descriptor, name) != OK) {
                    ++mismatches;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    for (int t = 0; t < kThreads; ++t) {
        unregisterServiceInternal(IFoo::descriptor, "concurrent" + std::to_string(t));
    }
}

}  // namespace
}  // namespace android::hardware::details
