// The HIDL runtime and the generated interface code as clients meet them: what must behave as on
// the platform, so that code tested here behaves the same there.
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <stdlib.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>
#include <vendor/quenlark/hardware/pq/1.0/IPq.h>

#include <array>
#include <fstream>
#include <string>
#include <vector>

namespace {

using ::android::DEAD_OBJECT;
using ::android::sp;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_enum_range;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hardware::Void;
using ::android::hidl::base::V1_0::IBase;
using namespace ::vendor::quenlark::hardware::capture::V1_0;
using ::vendor::quenlark::hardware::pq::V1_0::ST_CAPTURE_POINT_INFO;
using ::vendor::quenlark::hardware::pq::V1_0::ST_WIN_INFO;

Status dead() {
    return Status::fromStatusT(DEAD_OBJECT);
}

// Elements copied in from a pointer, out to std::array, compared, indexed in two dimensions.
TEST(HidlRuntimeTest, ArraysCopyCompareAndIndexLikeTheRecordsFields) {
    const uint32_t words[7] = {1, 2, 3, 4, 5, 6, 7};
    hidl_array<uint32_t, 7> param(words);
    EXPECT_EQ(7u, param.size());
    EXPECT_EQ(7u, (hidl_array<uint32_t, 7>::elementCount()));
    EXPECT_EQ(7u, param[6]);
    const std::array<uint32_t, 7> out = param;
    EXPECT_EQ(5u, out[4]);
    hidl_array<uint32_t, 7> other(param);
    EXPECT_TRUE(other == param);
    other[3] = 40;
    EXPECT_TRUE(other != param);
    EXPECT_EQ("[7]{1, 2, 3, 40, 5, 6, 7}", ::android::hardware::toString(other));

    hidl_array<uint8_t, 2, 3> grid;
    for (size_t r = 0; r < 2; ++r) {
        for (size_t c = 0; c < 3; ++c) grid[r][c] = static_cast<uint8_t>(10 * r + c);
    }
    EXPECT_EQ(std::make_tuple(size_t{2}, size_t{3}), grid.size());
    EXPECT_EQ(12, grid.data()[5]);  // row-major
    const std::array<std::array<uint8_t, 3>, 2> rows = grid;
    EXPECT_EQ(11, rows[1][1]);
    EXPECT_EQ("[2][3]{{0, 1, 2}, {10, 11, 12}}", ::android::hardware::toString(grid));
}

// Records print every field by name; enumerations by their names, bit sets as an OR of names.
TEST(HidlRuntimeTest, GeneratedRecordsAndEnumerationsPrintCompareAndIterate) {
    CaptureCallbackParams a{0x73000001, 2, 0, 0, 16, 32, 8, 4, CaptureReturn::BUSY};
    EXPECT_EQ(
        "{.captureId = 1929379841, .index = 2, .width = 0, .height = 0, .yOffset = 16, "
        ".cOffset = 32, .ySize = 8, .cSize = 4, .result = BUSY}",
        toString(a));
    CaptureCallbackParams b = a;
    EXPECT_TRUE(a == b);
    b.cSize = 5;
    EXPECT_TRUE(a != b);

    EXPECT_EQ("NV12", toString(CaptureFormat::NV12));
    EXPECT_EQ("0x3", toString(static_cast<CaptureFormat>(3)));
    const uint32_t set = CaptureFormat::NV12 | CaptureFormat::YUYV;
    EXPECT_EQ(0x801u, set);
    EXPECT_EQ("YUYV | NV12 (0x801)", toString<CaptureFormat>(set));
    uint32_t mask = 0x1800;
    mask &= CaptureFormat::NV21;
    EXPECT_EQ(0x1000u, mask);

    std::vector<CapturePoint> points;
    for (const CapturePoint p : hidl_enum_range<CapturePoint>()) points.push_back(p);
    ASSERT_EQ(14u, points.size());
    EXPECT_EQ(CapturePoint::VIDEO_INPUT, points.front());
    EXPECT_EQ(CapturePoint::NONE, points.back());

    ST_CAPTURE_POINT_INFO info{};
    info.winInfo.resize(1);
    info.winInfo[0] = ST_WIN_INFO{7, {}, 500};
    ST_CAPTURE_POINT_INFO copy = info;
    EXPECT_TRUE(copy == info);
    copy.u8Reserved[38] = 1;
    EXPECT_TRUE(copy != info);
}

TEST(HidlRuntimeDeathTest, FailedCallsMustBeLookedAt) {
    // Reading the value of a failed call, or dropping its status unread, ends the process.
    EXPECT_DEATH((void)static_cast<int32_t>(Return<int32_t>(dead())),
                 "failed HIDL call: Status\\(-129, EX_TRANSACTION_FAILED\\): transaction error -32");
    EXPECT_DEATH({ Return<void> ignored(dead()); }, "not checked");
    EXPECT_DEATH(
        {
            Return<void> first(dead());
            first = Return<void>(dead());
        },
        "not checked");
    // Looking at it is enough, and a call that succeeded needs no look.
    {
        Return<int32_t> failed(dead());
        EXPECT_TRUE(failed.isDeadObject());
        EXPECT_EQ(-1, failed.withDefault(-1));
    }
    {
        Return<void> failed = Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
        EXPECT_FALSE(failed.isDeadObject());
        EXPECT_FALSE(failed.isOk());
    }
    { Return<int32_t> fine(3); }
    EXPECT_EQ(3, static_cast<int32_t>(Return<int32_t>(3)));
}

struct Callback : public ICaptureCallback {
    Return<void> onNotify(CaptureEventNotify, const CaptureCallbackParams&) override {
        return Void();
    }
};

struct Recipient : public ::android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const ::android::wp<IBase>&) override {}
};

// What every interface inherits: its chain, a checked cast, death links, registration under
// every descriptor of the chain.
TEST(HidlRuntimeTest, InterfacesCastRegisterAndLinkAsOnThePlatform) {
    sp<ICaptureCallback> callback = new Callback();
    std::vector<std::string> chain;
    ASSERT_TRUE(callback
                    ->interfaceChain([&](const hidl_vec<hidl_string>& descriptors) {
                        for (const auto& d : descriptors) chain.push_back(d);
                    })
                    .isOk());
    EXPECT_EQ((std::vector<std::string>{"vendor.quenlark.hardware.capture@1.0::ICaptureCallback",
                                        "android.hidl.base@1.0::IBase"}),
              chain);
    sp<IBase> base = callback;
    EXPECT_EQ(callback, static_cast<sp<ICaptureCallback>>(ICaptureCallback::castFrom(base)));
    EXPECT_EQ(nullptr, static_cast<sp<ICapture>>(ICapture::castFrom(base)));
    EXPECT_FALSE(callback->isRemote());
    EXPECT_TRUE(callback->ping().isOk());
    sp<Recipient> recipient = new Recipient();
    EXPECT_TRUE(callback->linkToDeath(recipient, 1));
    EXPECT_TRUE(callback->unlinkToDeath(recipient));
    EXPECT_FALSE(callback->linkToDeath(nullptr, 1));
    // The chain's hashes: the .hal file's bytes, then IBase's as the platform publishes it.
    std::vector<std::string> hashes;
    ASSERT_TRUE(callback
                    ->getHashChain([&](const hidl_vec<hidl_array<uint8_t, 32>>& chainHashes) {
                        for (const auto& hash : chainHashes) {
                            std::string hex;
                            for (size_t i = 0; i < 32; ++i) {
                                char byte[3];
                                snprintf(byte, sizeof(byte), "%02x", hash[i]);
                                hex += byte;
                            }
                            hashes.push_back(hex);
                        }
                    })
                    .isOk());
    EXPECT_EQ((std::vector<std::string>{
                  CAPTURE_CALLBACK_HAL_SHA256,
                  "ec7fd79ed02dfa85bc499426adae3ebe23ef0524f3cd6957139324b83b18ca4c"}),
              hashes);

    ASSERT_EQ(::android::OK, callback->registerAsService("hidl-runtime-test"));
    EXPECT_EQ(callback, ICaptureCallback::getService("hidl-runtime-test"));
    EXPECT_EQ(callback, ICaptureCallback::tryGetService(hidl_string("hidl-runtime-test")));
    EXPECT_EQ(nullptr, ICapture::getService("hidl-runtime-test"));
    EXPECT_EQ(nullptr, ICaptureCallback::getService());  // "default"
    EXPECT_EQ(::android::OK, ::android::hardware::details::unregisterServiceInternal(
                                 IBase::descriptor, "hidl-runtime-test"));
    EXPECT_EQ(nullptr, ICaptureCallback::getService("hidl-runtime-test"));
}

// The manifest's instances of one interface, sorted; other interfaces and AIDL HALs left out.
TEST(HidlRuntimeTest, InstanceNamesComeFromTheManifest) {
    const std::string path = testing::TempDir() + "hidl_runtime_manifest.xml";
    std::ofstream(path) << R"(<manifest version="1.0" type="device">
    <hal format="hidl">
        <name>vendor.quenlark.hardware.capture</name>
        <transport>hwbinder</transport>
        <version>1.0</version>
        <interface>
            <name>ICapture</name>
            <instance>second</instance>
            <instance>default</instance>
        </interface>
        <interface>
            <name>ICaptureCallback</name>
            <instance>other</instance>
        </interface>
    </hal>
    <hal format="aidl">
        <name>vendor.quenlark.hardware.capture</name>
        <interface><name>ICapture</name><instance>aidl</instance></interface>
    </hal>
</manifest>
)";
    setenv("HOST_VINTF_MANIFEST", path.c_str(), 1);
    EXPECT_EQ((std::vector<std::string>{"default", "second"}),
              ::android::hardware::getAllHalInstanceNames(ICapture::descriptor));
    EXPECT_TRUE(::android::hardware::getAllHalInstanceNames("vendor.quenlark.hardware.capture@2.0::"
                                                            "ICapture")
                    .empty());
    unsetenv("HOST_VINTF_MANIFEST");
    // The service's own fragment by default.
    EXPECT_EQ(std::vector<std::string>{"default"},
              ::android::hardware::getAllHalInstanceNames(ICapture::descriptor));
    remove(path.c_str());
}

}  // namespace
