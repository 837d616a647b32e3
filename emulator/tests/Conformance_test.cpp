// capturectl conformance run as a vendor runs it: the emulated hardware passes every check, and
// a sub-HAL with one fault fails the check that is about that fault.
#include <gtest/gtest.h>

#include "EmulatorTestUtil.h"

namespace emulator_test {
namespace {

TEST(ConformanceTest, FaultsFailTheirCheck) {
    const std::string broken = " --subhal " BROKEN_SUBHAL_PATH;
    const struct {
        std::string environment, subhal;
        int status;
        const char* expected;  // in the output
    } rows[] = {
        {"", "", 0, ", 0 failed, 0 warnings"},
        {"", " --subhal /nonexistent/libvx3.so", 2, "cannot load /nonexistent/libvx3.so"},
        {"BROKEN_SUBHAL_FAULT=ids", broken, 1, "\nFAIL unknown-id: "},
        {"BROKEN_SUBHAL_FAULT=unknown-status", broken, 1,
         "\nFAIL status-codes: VX_CAPTURE_Open returned 99"},
        {"BROKEN_SUBHAL_FAULT=writes-held", broken, 1, "\nFAIL held-untouched: "},
        {"BROKEN_SUBHAL_FAULT=no-join", broken, 1, "\nFAIL stop-joins: "},
        {"BROKEN_SUBHAL_FAULT=late-callback", broken, 1, "\nFAIL unregister-joins: "},
        {"BROKEN_SUBHAL_FAULT=hangs", broken + " --timeout 1", 1,
         "\nFAIL returns: VX_CAPTURE_CaptureStop has not returned after 1 s\n\nconformance: "},
        // The lines go to stderr, the object to stdout.
        {"", " --json 2>/dev/null | cat", 0, "\"failed\": 0, \"warnings\": 0, \"results\": [{"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.environment + row.subhal);
        const ToolRun r = runCapturectl("conformance" + row.subhal, row.environment);
        EXPECT_EQ(r.status, row.status) << r.output;
        EXPECT_NE(r.output.find(row.expected), std::string::npos) << r.output;
    }
}

}  // namespace
}  // namespace emulator_test
