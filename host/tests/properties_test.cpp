#include <android-base/properties.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <tuple>

namespace {

TEST(PropertyGetTest, ValueOrDefaultTruncatedNeverPastTheBuffer) {
    const std::string longText(200, 'q');
    const std::string truncated(PROPERTY_VALUE_MAX - 1, 'q');
    // Hosts keep properties in-process with no length limit.
    ASSERT_TRUE(android::base::SetProperty("host.test.long", longText));
    ASSERT_TRUE(android::base::SetProperty("host.test.set", "1"));
    ASSERT_TRUE(android::base::SetProperty("host.test.empty", ""));
    for (const auto& [key, defaultValue, expected] :
         {std::tuple<const char*, const char*, std::string>{"host.test.set", "0", "1"},
          {"host.test.unset", "dflt", "dflt"},
          {"host.test.empty", "dflt", "dflt"},
          {"host.test.unset", nullptr, ""},
          {nullptr, "dflt", "dflt"},
          {"host.test.unset", longText.c_str(), truncated},
          {"host.test.long", "", truncated}}) {
        SCOPED_TRACE(key == nullptr ? "null key" : key);
        char buffer[PROPERTY_VALUE_MAX + 16];
        memset(buffer, 0x5a, sizeof(buffer));
        EXPECT_EQ(property_get(key, buffer, defaultValue), static_cast<int>(expected.size()));
        EXPECT_EQ(std::string(buffer, strnlen(buffer, sizeof(buffer))), expected);
        EXPECT_EQ(std::string(buffer + PROPERTY_VALUE_MAX, 16), std::string(16, 0x5a));
    }
    EXPECT_LT(property_get("host.test.set", nullptr, "x"), 0);
}

}  // namespace
