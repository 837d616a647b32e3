#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "TestUtil.h"

namespace {

// Every test starts from the process as it was loaded, whatever ran before it.
class FreshProcessState : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override { capture_test::resetProcessState(); }
};

}  // namespace

int main(int argc, char** argv) {
    // Headless Mesa for the GPU path; quiet log unless a test captures it.
    setenv("EGL_PLATFORM", "surfaceless", 0);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new FreshProcessState());
    return RUN_ALL_TESTS();
}
