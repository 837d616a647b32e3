// Host build of the HIDL value types: hidl_string, hidl_vec<T>, hidl_handle and hidl_array, with
// the toString() family, enum ranges and the death-recipient interface the generated headers use.
//
// The API is libhidl's, no more: code that compiles against this header must compile against the
// platform's (hidl_array has no conversion to a pointer, for one). The layouts are part of every
// interface record that embeds them (offsets are fixed by the interface packages), so
// hidl_string, hidl_vec and hidl_handle are exactly 16 bytes on 32- and 64-bit builds alike: a
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
#include <array>
#include <initializer_list>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace android {
namespace hidl {
namespace base {
namespace V1_0 {
struct IBase;
}  // namespace V1_0
}  // namespace base
}  // namespace hidl

namespace hardware {

// Told when the process behind an interface dies (linkToDeath / unlinkToDeath).
struct hidl_death_recipient : public virtual RefBase {
    virtual void serviceDied(uint64_t cookie,
                             const wp<::android::hidl::base::V1_0::IBase>& who) = 0;
};

namespace details {
// Marks generated interface classes.
struct i_tag {};

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

// ---------------------------------------------------------------------------------------------
// Fixed-size arrays of records: hidl_array<T, N> (and several dimensions, row-major). Elements are
// reached through data() and operator[]; there is deliberately no conversion to T*.

namespace details {

template <size_t SIZE1, size_t... SIZES>
struct product {
    static constexpr size_t value = SIZE1 * product<SIZES...>::value;
};
template <size_t SIZE1>
struct product<SIZE1> {
    static constexpr size_t value = SIZE1;
};

template <typename T, size_t SIZE1, size_t... SIZES>
struct std_array {
    using type = std::array<typename std_array<T, SIZES...>::type, SIZE1>;
};
template <typename T, size_t SIZE1>
struct std_array<T, SIZE1> {
    using type = std::array<T, SIZE1>;
};

// A view of one sub-array of a multi-dimensional hidl_array.
template <typename T, size_t SIZE1, size_t... SIZES>
struct accessor {
    using std_array_type = typename std_array<T, SIZE1, SIZES...>::type;

    explicit accessor(T* base) : mBase(base) {}

    accessor<T, SIZES...> operator[](size_t index) {
        return accessor<T, SIZES...>(mBase + index * product<SIZES...>::value);
    }

    accessor& operator=(const std_array_type& other) {
        for (size_t i = 0; i < SIZE1; ++i) (*this)[i] = other[i];
        return *this;
    }

private:
    T* mBase;
};

template <typename T, size_t SIZE1>
struct accessor<T, SIZE1> {
    using std_array_type = typename std_array<T, SIZE1>::type;

    explicit accessor(T* base) : mBase(base) {}

    T& operator[](size_t index) { return mBase[index]; }

    accessor& operator=(const std_array_type& other) {
        for (size_t i = 0; i < SIZE1; ++i) mBase[i] = other[i];
        return *this;
    }

private:
    T* mBase;
};

template <typename T, size_t SIZE1, size_t... SIZES>
struct const_accessor {
    using std_array_type = typename std_array<T, SIZE1, SIZES...>::type;

    explicit const_accessor(const T* base) : mBase(base) {}

    const_accessor<T, SIZES...> operator[](size_t index) const {
        return const_accessor<T, SIZES...>(mBase + index * product<SIZES...>::value);
    }

    operator std_array_type() {  // NOLINT(google-explicit-constructor)
        std_array_type array;
        for (size_t i = 0; i < SIZE1; ++i) array[i] = (*this)[i];
        return array;
    }

private:
    const T* mBase;
};

template <typename T, size_t SIZE1>
struct const_accessor<T, SIZE1> {
    using std_array_type = typename std_array<T, SIZE1>::type;

    explicit const_accessor(const T* base) : mBase(base) {}

    const T& operator[](size_t index) const { return mBase[index]; }

    operator std_array_type() {  // NOLINT(google-explicit-constructor)
        std_array_type array;
        for (size_t i = 0; i < SIZE1; ++i) array[i] = mBase[i];
        return array;
    }

private:
    const T* mBase;
};

}  // namespace details

template <typename T, size_t SIZE1, size_t... SIZES>
struct hidl_array {
    using std_array_type = typename details::std_array<T, SIZE1, SIZES...>::type;
    using size_tuple_type = std::tuple<decltype(SIZE1), decltype(SIZES)...>;

    hidl_array() = default;
    hidl_array(const hidl_array&) noexcept = default;
    hidl_array(hidl_array&&) noexcept = default;
    hidl_array& operator=(const hidl_array&) noexcept = default;
    hidl_array& operator=(hidl_array&&) noexcept = default;

    // Copies elementCount() elements from source.
    hidl_array(const T* source) {  // NOLINT(google-explicit-constructor)
        std::copy(source, source + elementCount(), mBuffer);
    }
    hidl_array(const std_array_type& array) {  // NOLINT(google-explicit-constructor)
        details::accessor<T, SIZE1, SIZES...> elements(mBuffer);
        elements = array;
    }

    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }

    details::accessor<T, SIZES...> operator[](size_t index) {
        return details::accessor<T, SIZES...>(mBuffer + index * details::product<SIZES...>::value);
    }
    details::const_accessor<T, SIZES...> operator[](size_t index) const {
        return details::const_accessor<T, SIZES...>(mBuffer +
                                                    index * details::product<SIZES...>::value);
    }

    bool operator==(const hidl_array& other) const {
        return std::equal(mBuffer, mBuffer + elementCount(), other.mBuffer);
    }
    bool operator!=(const hidl_array& other) const { return !(*this == other); }

    static constexpr size_tuple_type size() { return std::make_tuple(SIZE1, SIZES...); }
    static constexpr size_t elementCount() { return details::product<SIZE1, SIZES...>::value; }

    operator std_array_type() const {  // NOLINT(google-explicit-constructor)
        return details::const_accessor<T, SIZE1, SIZES...>(mBuffer);
    }

private:
    T mBuffer[details::product<SIZE1, SIZES...>::value];
};

template <typename T, size_t SIZE1>
struct hidl_array<T, SIZE1> {
    using value_type = T;
    using std_array_type = typename details::std_array<T, SIZE1>::type;

    hidl_array() = default;
    hidl_array(const hidl_array&) noexcept = default;
    hidl_array(hidl_array&&) noexcept = default;
    hidl_array& operator=(const hidl_array&) noexcept = default;
    hidl_array& operator=(hidl_array&&) noexcept = default;

    // Copies SIZE1 elements from source.
    hidl_array(const T* source) {  // NOLINT(google-explicit-constructor)
        std::copy(source, source + SIZE1, mBuffer);
    }
    hidl_array(const std_array_type& array)  // NOLINT(google-explicit-constructor)
        : hidl_array(array.data()) {}

    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }

    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }

    bool operator==(const hidl_array& other) const {
        return std::equal(mBuffer, mBuffer + SIZE1, other.mBuffer);
    }
    bool operator!=(const hidl_array& other) const { return !(*this == other); }

    static constexpr size_t size() { return SIZE1; }
    static constexpr size_t elementCount() { return SIZE1; }

    operator std_array_type() const {  // NOLINT(google-explicit-constructor)
        std_array_type array;
        std::copy(mBuffer, mBuffer + SIZE1, array.begin());
        return array;
    }

private:
    T mBuffer[SIZE1];
};

// ---------------------------------------------------------------------------------------------
// toString(): the debug text of every HIDL value, as generated code and lshal print it.

template <typename T, typename = typename std::enable_if<std::is_arithmetic<T>::value, T>::type>
inline std::string toString(T t) {
    return std::to_string(t);
}

namespace details {

template <typename T, typename = typename std::enable_if<std::is_arithmetic<T>::value, T>::type>
inline std::string toHexString(T t, bool prefix = true) {
    std::ostringstream os;
    if (prefix) os << std::showbase;
    // Bytes would print as characters.
    using Printed = typename std::conditional<sizeof(T) == 1, int32_t, T>::type;
    os << std::hex << static_cast<Printed>(t);
    return os.str();
}

template <typename Array>
std::string arrayToString(const Array& a, size_t size) {
    using ::android::hardware::toString;
    std::string os = "{";
    for (size_t i = 0; i < size; ++i) {
        if (i > 0) os += ", ";
        os += toString(a[i]);
    }
    return os + "}";
}

template <size_t SIZE1>
std::string arraySizeToString() {
    return "[" + std::to_string(SIZE1) + "]";
}
template <size_t SIZE1, size_t SIZE2, size_t... SIZES>
std::string arraySizeToString() {
    return "[" + std::to_string(SIZE1) + "]" + arraySizeToString<SIZE2, SIZES...>();
}

template <typename T, size_t SIZE1>
std::string toString(const_accessor<T, SIZE1> a) {
    return arrayToString(a, SIZE1);
}
template <typename T, size_t SIZE1, size_t SIZE2, size_t... SIZES>
std::string toString(const_accessor<T, SIZE1, SIZE2, SIZES...> a) {
    return arrayToString(a, SIZE1);
}

}  // namespace details

inline std::string toString(const void* t) {
    return details::toHexString(reinterpret_cast<uintptr_t>(t));
}

// The text is quoted.
inline std::string toString(const hidl_string& hs) {
    return std::string("\"") + hs.c_str() + "\"";
}

inline std::string toString(const hidl_handle& hs) {
    return toString(static_cast<const void*>(hs.getNativeHandle()));
}

inline std::string toString(const sp<hidl_death_recipient>& dr) {
    return std::string("death_recipient@") + toString(static_cast<const void*>(dr.get()));
}

template <typename T>
std::string toString(const hidl_vec<T>& a) {
    return "[" + std::to_string(a.size()) + "]" + details::arrayToString(a, a.size());
}

template <typename T, size_t SIZE1>
std::string toString(const hidl_array<T, SIZE1>& a) {
    return details::arraySizeToString<SIZE1>() +
           details::toString(details::const_accessor<T, SIZE1>(a.data()));
}
template <typename T, size_t SIZE1, size_t SIZE2, size_t... SIZES>
std::string toString(const hidl_array<T, SIZE1, SIZE2, SIZES...>& a) {
    return details::arraySizeToString<SIZE1, SIZE2, SIZES...>() +
           details::toString(details::const_accessor<T, SIZE1, SIZE2, SIZES...>(a.data()));
}

// ---------------------------------------------------------------------------------------------
// Enumerations: every value in declaration order (the generated headers specialise
// details::hidl_enum_values), and bitfields as the underlying type.

namespace details {
template <typename T>
struct hidl_invalid_type;

template <typename T, typename = std::enable_if_t<std::is_enum<T>::value>>
constexpr hidl_invalid_type<T> hidl_enum_values;
}  // namespace details

// for (const auto value : hidl_enum_range<Enum>()) { ... }
template <typename T, typename = std::enable_if_t<std::is_enum<T>::value>>
struct hidl_enum_range {
    constexpr auto begin() const { return std::begin(details::hidl_enum_values<T>); }
    constexpr auto cbegin() const { return begin(); }
    constexpr auto rbegin() const { return std::rbegin(details::hidl_enum_values<T>); }
    constexpr auto crbegin() const { return rbegin(); }
    constexpr auto end() const { return std::end(details::hidl_enum_values<T>); }
    constexpr auto cend() const { return end(); }
    constexpr auto rend() const { return std::rend(details::hidl_enum_values<T>); }
    constexpr auto crend() const { return rend(); }
};

template <typename Enum>
using hidl_bitfield = typename std::underlying_type<Enum>::type;

static_assert(sizeof(hidl_string) == 16, "hidl_string is a 16-byte wire record");
static_assert(sizeof(hidl_vec<uint8_t>) == 16, "hidl_vec is a 16-byte wire record");
static_assert(sizeof(hidl_vec<uint64_t>) == 16, "hidl_vec is a 16-byte wire record");
static_assert(sizeof(hidl_handle) == 16, "hidl_handle is a 16-byte wire record");
static_assert(alignof(hidl_string) == 8 && alignof(hidl_vec<uint8_t>) == 8 &&
                  alignof(hidl_handle) == 8,
              "embedded HIDL types are 8-byte aligned in records");

}  // namespace hardware
}  // namespace android
