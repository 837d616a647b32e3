// capturectl conformance run as a vendor runs it: the emulated hardware passes every check, and
// a sub-HAL with one fault fails the check that is about that fault.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace emulator_test {
namespace {

struct Row {
    const char* environment;
    const char* subhal;
    int status;
    const char* expected;  // in the output
};

TEST(ConformanceTest, FaultsFailTheirCheck) {
    const std::string broken = " --subhal " BROKEN_SUBHAL_PATH;
    const Row rows[] = {
        {"", "", 0, ", 0 failed, 0 warnings"},
        {"", " --subhal /nonexistent/libvx3.so", 2, "cannot load /nonexistent/libvx3.so"},
        {"BROKEN_SUBHAL_FAULT=ids", broken.c_str(), 1, "\nFAIL unknown-id: "},
        {"BROKEN_SUBHAL_FAULT=unknown-status", broken.c_str(), 1,
         "\nFAIL status-codes: VX_CAPTURE_Open returned 99"},
        {"BROKEN_SUBHAL_FAULT=writes-held", broken.c_str(), 1, "\nFAIL held-untouched: "},
        {"BROKEN_SUBHAL_FAULT=no-join", broken.c_str(), 1, "\nFAIL stop-joins: "},
        {"BROKEN_SUBHAL_FAULT=late-callback", broken.c_str(), 1, "\nFAIL unregister-joins: "},
    };
    for (const Row& row : rows) {
        std::string command = std::string(row.environment) + " " CAPTURECTL_PATH " conformance" +
                              row.subhal + " 2>&1";
        SCOPED_TRACE(command);
        std::string output;
        FILE* pipe = popen(command.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        char chunk[4096];
        for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) output.append(chunk, n);
        const int status = pclose(pipe);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == row.status) << output;
        EXPECT_NE(output.find(row.expected), std::string::npos) << output;
    }
}

}  // namespace
}  // namespace emulator_test
