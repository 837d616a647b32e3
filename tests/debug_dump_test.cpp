// debug(): the banner, the sub-HAL's own dump and the level it is asked for.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "SpineTestUtil.h"

namespace capture_test {
namespace {

using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using fake_subhal::Entry;

const std::string kBanner = "================ Capture Hal Dump ================\n";

class DebugDumpTest : public ServiceTest {
protected:
    // The dump target: one memfd, borrowed by the hidl_handle as lshal's would be.
    TestHandle target{1, 0};
    hidl_handle fdHandle{target.get()};
};

struct OptionsCase {
    const char* name;
    std::vector<std::string> options;
    uint32_t level;
};

void PrintTo(const OptionsCase& c, std::ostream* os) {
    *os << c.name;
}

class DebugLevelTest : public DebugDumpTest, public ::testing::WithParamInterface<OptionsCase> {};

TEST_P(DebugLevelTest, BannerThenSubHalDump) {
    loadLibrary();
    fake_subhal::setDumpText("capture instances: 0\n");
    hidl_vec<hidl_string> options(GetParam().options.size());
    for (size_t i = 0; i < options.size(); ++i) options[i] = GetParam().options[i];

    service->debug(fdHandle, options);

    EXPECT_EQ(kBanner + "capture instances: 0\n", readAll(target.fd()));
    const auto dumps = fake_subhal::callsOf(Entry::DumpInfo);
    ASSERT_EQ(1u, dumps.size());
    EXPECT_EQ(target.fd(), dumps[0].fd);
    EXPECT_EQ(GetParam().level, dumps[0].arg);
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_DumpInfo(), Ret: 0"));
}

// Only whether there are options counts, never what they say.
INSTANTIATE_TEST_SUITE_P(Debug, DebugLevelTest,
                         ::testing::Values(OptionsCase{"NoOptions", {}, 3},
                                           OptionsCase{"OneOption", {"-a"}, 32},
                                           OptionsCase{"EmptyWord", {""}, 32},
                                           OptionsCase{"SeveralWords", {"--verbose", "3"}, 32}),
                         [](const ::testing::TestParamInfo<OptionsCase>& info) {
                             return info.param.name;
                         });

TEST_F(DebugDumpTest, FailingDumpIsOnlyTraced) {
    loadLibrary();
    fake_subhal::setResult(Entry::DumpInfo, 5);
    service->debug(fdHandle, {});
    EXPECT_EQ(kBanner, readAll(target.fd()));
    EXPECT_EQ(1u, log.countExact("mDumpInfo fail! ret=5."));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_DumpInfo(), Ret: 5"));
    // The status is not translated.
    EXPECT_EQ(0u, log.count("Error Capture SubHal"));
}

TEST_F(DebugDumpTest, LibraryWithoutDumpEntry) {
    loadLibrary(/*partial=*/true);
    service->debug(fdHandle, {});
    EXPECT_EQ(kBanner, readAll(target.fd()));
    EXPECT_EQ(1u, log.countExact("mDumpInfo is nullptr!"));
    EXPECT_EQ(ANDROID_LOG_WARN, log.find("mDumpInfo is nullptr!").priority);
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_DumpInfo(), Ret: 8"));
}

TEST_F(DebugDumpTest, NoLibraryStillWritesTheBanner) {
    service->debug(fdHandle, {"-a"});
    EXPECT_EQ(kBanner, readAll(target.fd()));
    EXPECT_EQ(1u, log.countExact("mDumpInfo is nullptr!"));
}

TEST_F(DebugDumpTest, RefusesHandlesWithoutDescriptor) {
    loadLibrary();
    native_handle_t* intsOnly = native_handle_create(0, 1);
    native_handle_t* negative = native_handle_create(1, 0);
    negative->data[0] = -1;
    struct {
        const char* name;
        const native_handle_t* handle;
    } cases[] = {{"null", nullptr}, {"no descriptor", intsOnly}, {"negative descriptor", negative}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        log.clear();
        service->debug(hidl_handle(c.handle), {"-a"});
        EXPECT_EQ(1u, log.countExact("Invalid parameters passed to debug()"));
        EXPECT_EQ(ANDROID_LOG_ERROR, log.find("Invalid parameters passed to debug()").priority);
    }
    EXPECT_EQ(0u, fake_subhal::count(Entry::DumpInfo));

    // A refusal, so it is gated like one.
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 31u, __ATOMIC_RELAXED);
    log.clear();
    service->debug(hidl_handle(), {});
    EXPECT_TRUE(log.lines().empty());
    native_handle_delete(intsOnly);
    native_handle_delete(negative);
}

}  // namespace
}  // namespace capture_test
