#include <android-base/properties.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

namespace {

constexpr char kGuard = '\x5a';

// A value buffer followed by guard bytes that property_get must never touch.
struct Buffer {
    Buffer() { memset(bytes, kGuard, sizeof(bytes)); }
    bool guardIntact() const {
        for (size_t i = PROPERTY_VALUE_MAX; i < sizeof(bytes); ++i) {
            if (bytes[i] != kGuard) return false;
        }
        return true;
    }
    char bytes[PROPERTY_VALUE_MAX + 16];
};

TEST(PropertyGetTest, ValueDefaultAndTruncation) {
    ASSERT_EQ(PROPERTY_VALUE_MAX, 92);
    const std::string longText(200, 'q');
    ASSERT_TRUE(android::base::SetProperty("host.test.set", "1"));
    ASSERT_TRUE(android::base::SetProperty("host.test.empty", ""));
    // Hosts keep properties in-process with no length limit, so a long value can be stored.
    const bool longStored = android::base::SetProperty("host.test.long", longText);

    struct Case {
        const char* name;
        const char* key;
        const char* defaultValue;
        std::string expected;
    };
    const Case cases[] = {
        {"set value wins over default", "host.test.set", "0", "1"},
        {"unset uses default", "host.test.unset", "dflt", "dflt"},
        {"empty uses default", "host.test.empty", "dflt", "dflt"},
        {"unset with null default", "host.test.unset", nullptr, ""},
        {"null key uses default", nullptr, "dflt", "dflt"},
        {"long default truncated", "host.test.unset", longText.c_str(),
         std::string(PROPERTY_VALUE_MAX - 1, 'q')},
        {"long value truncated", longStored ? "host.test.long" : "host.test.unset",
         longText.c_str(), std::string(PROPERTY_VALUE_MAX - 1, 'q')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Buffer buffer;
        const int length = property_get(c.key, buffer.bytes, c.defaultValue);
        EXPECT_EQ(length, static_cast<int>(c.expected.size()));
        EXPECT_EQ(std::string(buffer.bytes, strnlen(buffer.bytes, sizeof(buffer.bytes))),
                  c.expected);
        EXPECT_TRUE(buffer.guardIntact());
    }
}

TEST(PropertyGetTest, NullValueBufferIsRefused) {
    EXPECT_LT(property_get("host.test.set", nullptr, "x"), 0);
}

}  // namespace
