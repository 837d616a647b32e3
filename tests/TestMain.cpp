#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
    // Headless Mesa for the GPU path; quiet log unless a test captures it.
    setenv("EGL_PLATFORM", "surfaceless", 0);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
