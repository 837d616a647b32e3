// Host build of the HIDL call status: Status, Return<T>, Return<void> and Void().
//
// In-process calls cannot fail in transport, so a Return normally carries its value; a Status
// is still representable so that callers' error paths compile and can be exercised.
#pragma once

#include <stdint.h>
#include <utils/Errors.h>

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

class return_status {
public:
    return_status() = default;
    explicit return_status(Status s) : mStatus(std::move(s)) {}
    return_status(const return_status&) = delete;
    return_status& operator=(const return_status&) = delete;
    return_status(return_status&&) = default;
    return_status& operator=(return_status&&) = default;
    ~return_status() = default;

    bool isOk() const { return mStatus.isOk(); }
    bool isDeadObject() const {
        return mStatus.exceptionCode() == Status::EX_TRANSACTION_FAILED &&
               mStatus.transactionError() == DEAD_OBJECT;
    }
    std::string description() const { return mStatus.description(); }
    const Status& getStatus() const { return mStatus; }

protected:
    // Reading the value of a failed call is a caller bug; the device aborts, the host logs.
    void reportUseOfFailedValue() const;

private:
    Status mStatus;
};

}  // namespace details

template <typename T>
class Return : public details::return_status {
public:
    Return(T value) : details::return_status(), mVal(std::move(value)) {}  // NOLINT
    Return(Status s) : details::return_status(std::move(s)), mVal() {}     // NOLINT
    Return(Return&&) = default;
    Return& operator=(Return&&) = default;

    T withDefault(T t) const { return isOk() ? mVal : t; }

    operator T() const {  // NOLINT(google-explicit-constructor)
        if (!isOk()) reportUseOfFailedValue();
        return mVal;
    }

private:
    T mVal;
};

template <>
class Return<void> : public details::return_status {
public:
    Return() : details::return_status() {}
    Return(Status s) : details::return_status(std::move(s)) {}  // NOLINT
    Return(Return&&) = default;
    Return& operator=(Return&&) = default;
};

inline Return<void> Void() {
    return Return<void>();
}

}  // namespace hardware
}  // namespace android
