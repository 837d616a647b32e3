// Tables that several threads touch without a lock (by design: the GPU flags, the PQ binding, the
// bandwidth cells, the capability record) keep their plain layout but are read and written with
// relaxed atomics, so that they are free of data races without becoming synchronisation points.
#pragma once

#include <atomic>
#include <type_traits>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

template <typename T>
class Relaxed {
    static_assert(std::is_trivially_copyable<T>::value, "plain data only");

public:
    constexpr Relaxed() noexcept : mValue(T()) {}
    constexpr Relaxed(T value) noexcept : mValue(value) {}  // NOLINT: implicit by design
    Relaxed(const Relaxed& other) noexcept : mValue(other.load()) {}
    Relaxed& operator=(const Relaxed& other) noexcept {
        store(other.load());
        return *this;
    }
    Relaxed& operator=(T value) noexcept {
        store(value);
        return *this;
    }
    operator T() const noexcept { return load(); }  // NOLINT: implicit by design

    T load() const noexcept { return mValue.load(std::memory_order_relaxed); }
    void store(T value) noexcept { mValue.store(value, std::memory_order_relaxed); }

private:
    std::atomic<T> mValue;
};

static_assert(sizeof(Relaxed<unsigned char>) == 1, "layout must not change");
static_assert(sizeof(Relaxed<unsigned int>) == 4, "layout must not change");
static_assert(sizeof(Relaxed<void*>) == sizeof(void*), "layout must not change");

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
