// Host build of the HIDL call status: Status, Return<T>, Return<void> and Void().
//
// In-process calls cannot fail in transport, but an implementation may return a failed Status
// (the test doubles do, to play a peer that died), and a failed Return behaves as on the
// platform.
#pragma once

#include <stdint.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <string>
#include <utility>

namespace android {
namespace hardware {

class Status final {
public:
    enum Exception {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_HAS_REPLY_HEADER = -128,
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok() { return Status(); }
    static Status fromExceptionCode(int32_t exceptionCode, const char* message = nullptr);
    // A transport error: EX_TRANSACTION_FAILED carrying the status_t.
    static Status fromStatusT(status_t status);

    Status() = default;

    int32_t exceptionCode() const { return mException; }
    status_t transactionError() const { return mErrorCode; }
    const std::string& exceptionMessage() const { return mMessage; }
    bool isOk() const { return mException == EX_NONE; }
    std::string description() const;

private:
    int32_t mException = EX_NONE;
    status_t mErrorCode = OK;
    std::string mMessage;
};

namespace details {

// The call status every Return carries. As on the platform, a failed status must be looked at:
// reading the value of a failed call aborts the process, and so does destroying (or overwriting)
// a failed Return whose isOk() nobody asked. Paths that call a peer which may be dead (a client's
// callback, another service) have to check.
class return_status {
public:
    return_status() = default;
    return_status(const Status& s) : mStatus(s) {}  // NOLINT(google-explicit-constructor)
    return_status(const return_status&) = delete;
    return_status& operator=(const return_status&) = delete;
    return_status(return_status&& other) noexcept { *this = std::move(other); }
    return_status& operator=(return_status&& other) noexcept;
    ~return_status();

    // Counts as the check.
    bool isOk() const {
        mCheckedStatus = true;
        return mStatus.isOk();
    }
    // Leaves the check to someone else.
    bool isOkUnchecked() const { return mStatus.isOk(); }
    // A true answer counts as the check; a false one does not, since other failures remain.
    bool isDeadObject() const {
        const bool dead = mStatus.transactionError() == DEAD_OBJECT;
        if (dead) mCheckedStatus = true;
        return dead;
    }
    // Aborts when the call failed.
    void assertOk() const;
    // For logs; not a check.
    std::string description() const { return mStatus.description(); }

protected:
    void onValueRetrieval() const;

private:
    Status mStatus;
    mutable bool mCheckedStatus = false;
};

}  // namespace details

template <typename T>
class Return : public details::return_status {
public:
    Return(T value) : details::return_status(), mVal{value} {}      // NOLINT
    Return(Status s) : details::return_status(s) {}                // NOLINT
    Return(Return&&) noexcept = default;
    Return& operator=(Return&&) noexcept = default;
    ~Return() = default;

    operator T() const {  // NOLINT(google-explicit-constructor)
        onValueRetrieval();
        return mVal;
    }

    T withDefault(T t) { return isOk() ? mVal : t; }

private:
    T mVal{};
};

template <typename T>
class Return<sp<T>> : public details::return_status {
public:
    Return(sp<T> value) : details::return_status(), mVal{value} {}  // NOLINT
    Return(T* value) : details::return_status(), mVal{value} {}     // NOLINT
    template <typename U>
    Return(sp<U> value) : details::return_status(), mVal{value} {}  // NOLINT
    template <typename U>
    Return(U* value) : details::return_status(), mVal{value} {}     // NOLINT
    Return(Status s) : details::return_status(s) {}                // NOLINT
    Return(Return&&) noexcept = default;
    Return& operator=(Return&&) noexcept = default;
    ~Return() = default;

    operator sp<T>() const {  // NOLINT(google-explicit-constructor)
        onValueRetrieval();
        return mVal;
    }

    sp<T> withDefault(sp<T> t) { return isOk() ? mVal : t; }

private:
    sp<T> mVal{};
};

template <>
class Return<void> : public details::return_status {
public:
    Return() : details::return_status() {}
    Return(const Status& s) : details::return_status(s) {}  // NOLINT
    Return(Return&&) = default;
    Return& operator=(Return&&) = default;
    ~Return() = default;
};

inline Return<void> Void() {
    return Return<void>();
}

}  // namespace hardware
}  // namespace android
