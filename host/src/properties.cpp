// property_get for hosts, where Debian's libcutils declares it but does not export it.
// android::base keeps host properties in-process, so SetProperty in a test is seen here.

#include <android-base/properties.h>
#include <cutils/properties.h>
#include <string.h>

#include <algorithm>
#include <string>

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (value == nullptr) return -1;
    // The service reads a property on every capability query: keep the key's storage per thread
    // rather than allocating a string for each lookup.
    static thread_local std::string name __attribute__((tls_model("initial-exec")));
    std::string current;
    if (key != nullptr) {
        name.assign(key);
        current = android::base::GetProperty(name, "");
    }
    const char* source = current.c_str();
    size_t length = current.size();
    if (length == 0) {
        source = default_value != nullptr ? default_value : "";
        length = strnlen(source, PROPERTY_VALUE_MAX - 1);
    }
    length = std::min<size_t>(length, PROPERTY_VALUE_MAX - 1);
    memcpy(value, source, length);
    value[length] = '\0';
    return static_cast<int>(length);
}
