// Host build of the HIDL value types: hidl_string, hidl_vec<T> and hidl_handle.
//
// Their layouts are part of every interface record that embeds them (offsets are fixed by the
// interface packages), so each one is exactly 16 bytes on 32- and 64-bit builds alike: a
// pointer held in an 8-byte word, a 32-bit size where there is one, an ownership flag and
// padding.
#pragma once

#include <cutils/native_handle.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <algorithm>
#include <initializer_list>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace android {
namespace hardware {

namespace details {
// Sizes travel as 32-bit words; a larger request is refused instead of silently wrapping.
constexpr size_t kMaxHidlSize = UINT32_MAX;
void logOversize(const char* type, size_t size);
}  // namespace details

class hidl_string {
public:
    hidl_string();
    hidl_string(const char* s);  // NOLINT(google-explicit-constructor)
    hidl_string(const char* s, size_t length);
    hidl_string(const std::string& s);  // NOLINT(google-explicit-constructor)
    hidl_string(const hidl_string& other);
    hidl_string(hidl_string&& other) noexcept;
    ~hidl_string();

    hidl_string& operator=(const hidl_string& other);
    hidl_string& operator=(hidl_string&& other) noexcept;
    hidl_string& operator=(const char* s);
    hidl_string& operator=(const std::string& s);

    // Never null: an empty string points at a static "".
    const char* c_str() const { return mBuffer; }
    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }

    // Borrows the characters; the caller keeps them alive and NUL-terminated at `size`.
    void setToExternal(const char* data, size_t size);
    void clear();

    operator std::string() const { return std::string(mBuffer, mSize); }  // NOLINT

private:
    void copyFrom(const char* data, size_t size);
    void moveFrom(hidl_string&& other);
    void release();

    // 8 bytes on every ABI, as in the records these are embedded in.
    union {
        const char* mBuffer;
        uint64_t mBufferWord;
    };
    uint32_t mSize;
    bool mOwnsBuffer;
    [[maybe_unused]] uint8_t mPad[3] = {};
};

bool operator==(const hidl_string& a, const hidl_string& b);
bool operator==(const hidl_string& a, const char* b);
bool operator==(const char* a, const hidl_string& b);
bool operator==(const hidl_string& a, const std::string& b);
bool operator==(const std::string& a, const hidl_string& b);
inline bool operator!=(const hidl_string& a, const hidl_string& b) {
    return !(a == b);
}
inline bool operator!=(const hidl_string& a, const char* b) {
    return !(a == b);
}
inline bool operator!=(const char* a, const hidl_string& b) {
    return !(b == a);
}
inline bool operator!=(const hidl_string& a, const std::string& b) {
    return !(a == b);
}
inline bool operator!=(const std::string& a, const hidl_string& b) {
    return !(b == a);
}
bool operator<(const hidl_string& a, const hidl_string& b);
std::ostream& operator<<(std::ostream& os, const hidl_string& s);

template <typename T>
class hidl_vec {
public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    hidl_vec() : mBuffer(nullptr), mSize(0), mOwnsBuffer(true) {}

    explicit hidl_vec(size_t size) : hidl_vec() { resize(size); }

    hidl_vec(std::initializer_list<T> list) : hidl_vec() {
        if (!allocate(list.size())) return;
        std::copy(list.begin(), list.end(), mBuffer);
    }

    hidl_vec(const std::vector<T>& other) : hidl_vec() {  // NOLINT(google-explicit-constructor)
        copyFrom(other.data(), other.size());
    }

    hidl_vec(const hidl_vec& other) : hidl_vec() { copyFrom(other.mBuffer, other.mSize); }

    hidl_vec(hidl_vec&& other) noexcept : hidl_vec() { moveFrom(std::move(other)); }

    ~hidl_vec() { release(); }

    hidl_vec& operator=(const hidl_vec& other) {
        if (this != &other) {
            release();
            copyFrom(other.mBuffer, other.mSize);
        }
        return *this;
    }

    hidl_vec& operator=(hidl_vec&& other) noexcept {
        if (this != &other) {
            release();
            moveFrom(std::move(other));
        }
        return *this;
    }

    hidl_vec& operator=(const std::vector<T>& other) {
        release();
        copyFrom(other.data(), other.size());
        return *this;
    }

    // With shouldOwn the array must come from new T[]; it is freed with delete[].
    void setToExternal(T* data, size_t size, bool shouldOwn = false) {
        if (size > details::kMaxHidlSize || (data == nullptr && size != 0)) {
            details::logOversize("hidl_vec::setToExternal", size);
            return;
        }
        release();
        mBuffer = data;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = shouldOwn;
    }

    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }
    size_t size() const { return mSize; }

    // Unchecked, like std::vector: callers test the index against size().
    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }

    // Keeps the first min(old, new) elements; new elements are value-initialised.
    void resize(size_t size) {
        if (size > details::kMaxHidlSize) {
            details::logOversize("hidl_vec::resize", size);
            return;
        }
        T* newBuffer = size > 0 ? new T[size]() : nullptr;
        const size_t kept = std::min<size_t>(size, mSize);
        for (size_t i = 0; i < kept; ++i) {
            if (mOwnsBuffer) {
                newBuffer[i] = std::move(mBuffer[i]);
            } else {
                newBuffer[i] = mBuffer[i];
            }
        }
        release();
        mBuffer = newBuffer;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = true;
    }

    iterator begin() { return mBuffer; }
    iterator end() { return mBuffer + mSize; }
    const_iterator begin() const { return mBuffer; }
    const_iterator end() const { return mBuffer + mSize; }

    operator std::vector<T>() const {  // NOLINT(google-explicit-constructor)
        return mSize == 0 ? std::vector<T>() : std::vector<T>(mBuffer, mBuffer + mSize);
    }

private:
    bool allocate(size_t size) {
        if (size > details::kMaxHidlSize) {
            details::logOversize("hidl_vec", size);
            return false;
        }
        mBuffer = size > 0 ? new T[size]() : nullptr;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = true;
        return true;
    }

    void copyFrom(const T* data, size_t size) {
        if (!allocate(size)) return;
        std::copy(data, data + size, mBuffer);
    }

    void moveFrom(hidl_vec&& other) {
        mBuffer = other.mBuffer;
        mSize = other.mSize;
        mOwnsBuffer = other.mOwnsBuffer;
        other.mBuffer = nullptr;
        other.mSize = 0;
        other.mOwnsBuffer = true;
    }

    void release() {
        if (mOwnsBuffer) delete[] mBuffer;
        mBuffer = nullptr;
        mSize = 0;
        mOwnsBuffer = true;
    }

    union {
        T* mBuffer;
        uint64_t mBufferWord;
    };
    uint32_t mSize;
    bool mOwnsBuffer;
    [[maybe_unused]] uint8_t mPad[3] = {};
};

template <typename T>
bool operator==(const hidl_vec<T>& a, const hidl_vec<T>& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}
template <typename T>
bool operator!=(const hidl_vec<T>& a, const hidl_vec<T>& b) {
    return !(a == b);
}

// Copies clone the native handle (new descriptors) and own the clone; construction from a bare
// native_handle_t* only borrows it.
class hidl_handle {
public:
    hidl_handle();
    hidl_handle(const native_handle_t* handle);  // NOLINT(google-explicit-constructor)
    hidl_handle(const hidl_handle& other);
    hidl_handle(hidl_handle&& other) noexcept;
    ~hidl_handle();

    hidl_handle& operator=(const hidl_handle& other);
    hidl_handle& operator=(hidl_handle&& other) noexcept;
    hidl_handle& operator=(const native_handle_t* handle);

    // With shouldOwn the handle is closed and deleted when this object lets go of it.
    void setTo(native_handle_t* handle, bool shouldOwn = false);

    const native_handle_t* getNativeHandle() const { return mHandle; }
    const native_handle_t* operator->() const { return mHandle; }
    operator const native_handle_t*() const { return mHandle; }  // NOLINT

private:
    void cloneFrom(const native_handle_t* handle);
    void moveFrom(hidl_handle&& other);
    void freeHandle();

    union {
        const native_handle_t* mHandle;
        uint64_t mHandleWord;
    };
    bool mOwnsHandle;
    [[maybe_unused]] uint8_t mPad[7] = {};
};

static_assert(sizeof(hidl_string) == 16, "hidl_string is a 16-byte wire record");
static_assert(sizeof(hidl_vec<uint8_t>) == 16, "hidl_vec is a 16-byte wire record");
static_assert(sizeof(hidl_vec<uint64_t>) == 16, "hidl_vec is a 16-byte wire record");
static_assert(sizeof(hidl_handle) == 16, "hidl_handle is a 16-byte wire record");
static_assert(alignof(hidl_string) == 8 && alignof(hidl_vec<uint8_t>) == 8 &&
                  alignof(hidl_handle) == 8,
              "embedded HIDL types are 8-byte aligned in records");

}  // namespace hardware
}  // namespace android
