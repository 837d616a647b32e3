#include <gtest/gtest.h>

#include <cstdlib>

#include "TestUtil.h"

// Every test starts from the process as it was loaded, whatever ran before it.
struct FreshProcessState : ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override { capture_test::resetProcessState(); }
};

int main(int argc, char** argv) {
    setenv("EGL_PLATFORM", "surfaceless", 0);  // headless Mesa for the GPU path
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new FreshProcessState());
    return RUN_ALL_TESTS();
}
