#define LOG_TAG "HidlSupport"

#include <hidl/HidlSupport.h>
#include <log/log.h>
#include <string.h>

namespace android {
namespace hardware {

namespace details {
void logOversize(const char* type, size_t size) {
    ALOGE("%s: refused size %zu (limit %zu)", type, size, kMaxHidlSize);
}
}  // namespace details

namespace {
const char kEmptyString[] = "";
}  // namespace

hidl_string::hidl_string() : mBuffer(kEmptyString), mSize(0), mOwnsBuffer(false) {}

hidl_string::hidl_string(const char* s) : hidl_string() {
    if (s != nullptr) copyFrom(s, strlen(s));
}

hidl_string::hidl_string(const char* s, size_t length) : hidl_string() {
    if (s != nullptr) copyFrom(s, length);
}

hidl_string::hidl_string(const std::string& s) : hidl_string() {
    copyFrom(s.data(), s.size());
}

hidl_string::hidl_string(const hidl_string& other) : hidl_string() {
    copyFrom(other.mBuffer, other.mSize);
}

hidl_string::hidl_string(hidl_string&& other) noexcept : hidl_string() {
    moveFrom(std::move(other));
}

hidl_string::~hidl_string() {
    release();
}

hidl_string& hidl_string::operator=(const hidl_string& other) {
    if (this != &other) {
        release();
        copyFrom(other.mBuffer, other.mSize);
    }
    return *this;
}

hidl_string& hidl_string::operator=(hidl_string&& other) noexcept {
    if (this != &other) {
        release();
        moveFrom(std::move(other));
    }
    return *this;
}

hidl_string& hidl_string::operator=(const char* s) {
    // s may point into our own buffer; copy before letting go of it.
    hidl_string copy(s);
    return *this = std::move(copy);
}

hidl_string& hidl_string::operator=(const std::string& s) {
    release();
    copyFrom(s.data(), s.size());
    return *this;
}

void hidl_string::setToExternal(const char* data, size_t size) {
    if (size > details::kMaxHidlSize || (data == nullptr && size != 0)) {
        details::logOversize("hidl_string::setToExternal", size);
        return;
    }
    release();
    if (data != nullptr) {
        mBuffer = data;
        mSize = static_cast<uint32_t>(size);
    }
}

void hidl_string::clear() {
    release();
}

void hidl_string::copyFrom(const char* data, size_t size) {
    if (size > details::kMaxHidlSize) {
        details::logOversize("hidl_string", size);
        return;
    }
    char* buffer = new char[size + 1];
    if (size > 0) memcpy(buffer, data, size);
    buffer[size] = '\0';
    mBuffer = buffer;
    mSize = static_cast<uint32_t>(size);
    mOwnsBuffer = true;
}

void hidl_string::moveFrom(hidl_string&& other) {
    mBuffer = other.mBuffer;
    mSize = other.mSize;
    mOwnsBuffer = other.mOwnsBuffer;
    other.mBuffer = kEmptyString;
    other.mSize = 0;
    other.mOwnsBuffer = false;
}

void hidl_string::release() {
    if (mOwnsBuffer) delete[] mBuffer;
    mBuffer = kEmptyString;
    mSize = 0;
    mOwnsBuffer = false;
}

bool operator==(const hidl_string& a, const hidl_string& b) {
    return a.size() == b.size() && memcmp(a.c_str(), b.c_str(), a.size()) == 0;
}

bool operator==(const hidl_string& a, const char* b) {
    if (b == nullptr) return a.empty();
    return strlen(b) == a.size() && memcmp(a.c_str(), b, a.size()) == 0;
}

bool operator==(const char* a, const hidl_string& b) {
    return b == a;
}

bool operator==(const hidl_string& a, const std::string& b) {
    return a.size() == b.size() && memcmp(a.c_str(), b.data(), a.size()) == 0;
}

bool operator==(const std::string& a, const hidl_string& b) {
    return b == a;
}

bool operator<(const hidl_string& a, const hidl_string& b) {
    return std::string(a) < std::string(b);
}

std::ostream& operator<<(std::ostream& os, const hidl_string& s) {
    return os.write(s.c_str(), static_cast<std::streamsize>(s.size()));
}

hidl_handle::hidl_handle() : mHandle(nullptr), mOwnsHandle(false) {}

hidl_handle::hidl_handle(const native_handle_t* handle) : mHandle(handle), mOwnsHandle(false) {}

hidl_handle::hidl_handle(const hidl_handle& other) : hidl_handle() {
    cloneFrom(other.mHandle);
}

hidl_handle::hidl_handle(hidl_handle&& other) noexcept : hidl_handle() {
    moveFrom(std::move(other));
}

hidl_handle::~hidl_handle() {
    freeHandle();
}

hidl_handle& hidl_handle::operator=(const hidl_handle& other) {
    if (this != &other) {
        freeHandle();
        cloneFrom(other.mHandle);
    }
    return *this;
}

hidl_handle& hidl_handle::operator=(hidl_handle&& other) noexcept {
    if (this != &other) {
        freeHandle();
        moveFrom(std::move(other));
    }
    return *this;
}

hidl_handle& hidl_handle::operator=(const native_handle_t* handle) {
    // Re-assigning the handle we already own must not close it under the caller.
    if (handle == mHandle) {
        mOwnsHandle = false;
        return *this;
    }
    freeHandle();
    mHandle = handle;
    return *this;
}

void hidl_handle::setTo(native_handle_t* handle, bool shouldOwn) {
    if (handle != mHandle) freeHandle();
    mHandle = handle;
    mOwnsHandle = shouldOwn && handle != nullptr;
}

void hidl_handle::cloneFrom(const native_handle_t* handle) {
    if (handle == nullptr) return;
    native_handle_t* clone = native_handle_clone(handle);
    if (clone == nullptr) {
        ALOGE("hidl_handle: cannot clone a handle of %d fds and %d ints", handle->numFds,
              handle->numInts);
        return;
    }
    mHandle = clone;
    mOwnsHandle = true;
}

void hidl_handle::moveFrom(hidl_handle&& other) {
    mHandle = other.mHandle;
    mOwnsHandle = other.mOwnsHandle;
    other.mHandle = nullptr;
    other.mOwnsHandle = false;
}

void hidl_handle::freeHandle() {
    if (mOwnsHandle && mHandle != nullptr) {
        native_handle_t* handle = const_cast<native_handle_t*>(mHandle);
        native_handle_close(handle);
        native_handle_delete(handle);
    }
    mHandle = nullptr;
    mOwnsHandle = false;
}

}  // namespace hardware
}  // namespace android
