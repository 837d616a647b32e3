// Sub-HAL status codes to CaptureReturn: the whole table, its edges, and the lines it writes.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <map>

#include "SpineTestUtil.h"
#include "SubHal.h"

namespace capture_test {
namespace {

// The sub-HAL's documented codes, grouped by the CaptureReturn they stand for.
const std::map<int32_t, CaptureReturn>& documentedCodes() {
    static const std::map<int32_t, CaptureReturn> codes = [] {
        std::map<int32_t, CaptureReturn> m;
        const auto add = [&m](std::initializer_list<int32_t> statuses, CaptureReturn result) {
            for (int32_t status : statuses) m[status] = result;
        };
        add({3}, CaptureReturn::FAIL);
        add({4}, CaptureReturn::NOT_INITIALIZED);
        add({5, 36}, CaptureReturn::NO_MEMORY);
        add({7}, CaptureReturn::INVALID_CAPTURE_ID);
        add({8}, CaptureReturn::INVALID_ARGUMENT);
        add({10, 19, 20, 21, 22, 23, 25, 37, 38, 39, 40, 41, 42, 44, 46, 47, 50, 66},
            CaptureReturn::INVALID_PARAMETER);
        add({16, 45, 49}, CaptureReturn::FORMAT_NOT_SUPPORT);
        add({17}, CaptureReturn::BUSY);
        add({18}, CaptureReturn::TIMEOUT);
        add({24}, CaptureReturn::NOT_OPENED);
        add({32}, CaptureReturn::SOURCE_NOT_READY);
        add({33}, CaptureReturn::INVALID_CAPTURE_POINT);
        add({34}, CaptureReturn::INVALID_SIZE);
        add({35}, CaptureReturn::INVALID_CROP);
        add({43}, CaptureReturn::INVALID_ROTATION);
        add({48}, CaptureReturn::BUFFER_NOT_READY);
        add({51}, CaptureReturn::BANDWIDTH_EXCEEDED);
        add({64}, CaptureReturn::SECURE_NOT_ALLOWED);
        add({65}, CaptureReturn::SECURE_BUFFER_ERROR);
        add({67}, CaptureReturn::HARDWARE_ERROR);
        add({68, 69}, CaptureReturn::DEVICE_ERROR);
        return m;
    }();
    return codes;
}

std::string hexLine(const char* format, uint32_t value) {
    char text[96];
    snprintf(text, sizeof(text), format, value);
    return text;
}

class SubHalMappingTest : public ::testing::Test {
protected:
    void SetUp() override { __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 32u, __ATOMIC_RELAXED); }
    void TearDown() override { __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED); }
    LogCapture log;
};

TEST_F(SubHalMappingTest, EveryStatusAndItsLines) {
    std::vector<int32_t> statuses;
    for (int32_t status = -2; status <= 80; ++status) statuses.push_back(status);
    // Values that alias table entries when truncated to a byte or taken modulo the table.
    for (int32_t status : {0x103, 0x107, 70 + 7, 140 + 8, 0x10000003, INT_MAX, INT_MIN}) {
        statuses.push_back(status);
    }

    for (int32_t status : statuses) {
        SCOPED_TRACE("status " + std::to_string(status));
        const auto known = documentedCodes().find(status);
        const CaptureReturn expected =
            known != documentedCodes().end() ? known->second : CaptureReturn::FAIL;
        log.clear();

        EXPECT_EQ(expected, CaptureReturnMapping(status));

        std::vector<std::string> expectedLines = {
            hexLine("Error Capture SubHal eVxRet: 0x%x !", static_cast<uint32_t>(status))};
        if (known != documentedCodes().end()) {
            expectedLines.push_back(
                hexLine("Error Capture Hal return: 0x%x !", static_cast<uint32_t>(expected)));
        } else {
            expectedLines.push_back(hexLine("Error can't support this CaptureReturn: 0x%x!",
                                            static_cast<uint32_t>(status)));
        }
        EXPECT_EQ(expectedLines, strippedMessages(log));
        for (const LogLine& line : log.lines()) {
            EXPECT_EQ(ANDROID_LOG_WARN, line.priority);
            EXPECT_EQ("CAPTURE_HIDL", line.tag);
            EXPECT_EQ(0u, line.message.rfind("[CaptureReturnMapping][", 0)) << line.message;
        }
    }
}

TEST_F(SubHalMappingTest, QuietBelowTheRefusalLevel) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 31u, __ATOMIC_RELAXED);
    EXPECT_EQ(CaptureReturn::BUSY, CaptureReturnMapping(17));
    EXPECT_EQ(CaptureReturn::FAIL, CaptureReturnMapping(70));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

}  // namespace
}  // namespace capture_test
