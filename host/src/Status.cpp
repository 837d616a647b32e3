#define LOG_TAG "HidlStatus"

#include <hidl/Status.h>
#include <log/log.h>

namespace android {
namespace hardware {

namespace {

const char* exceptionName(int32_t code) {
    switch (code) {
        case Status::EX_NONE:
            return "EX_NONE";
        case Status::EX_SECURITY:
            return "EX_SECURITY";
        case Status::EX_BAD_PARCELABLE:
            return "EX_BAD_PARCELABLE";
        case Status::EX_ILLEGAL_ARGUMENT:
            return "EX_ILLEGAL_ARGUMENT";
        case Status::EX_NULL_POINTER:
            return "EX_NULL_POINTER";
        case Status::EX_ILLEGAL_STATE:
            return "EX_ILLEGAL_STATE";
        case Status::EX_NETWORK_MAIN_THREAD:
            return "EX_NETWORK_MAIN_THREAD";
        case Status::EX_UNSUPPORTED_OPERATION:
            return "EX_UNSUPPORTED_OPERATION";
        case Status::EX_HAS_REPLY_HEADER:
            return "EX_HAS_REPLY_HEADER";
        case Status::EX_TRANSACTION_FAILED:
            return "EX_TRANSACTION_FAILED";
        default:
            return "EX_UNKNOWN";
    }
}

}  // namespace

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    Status s;
    s.mException = exceptionCode;
    if (exceptionCode == EX_TRANSACTION_FAILED) s.mErrorCode = UNKNOWN_ERROR;
    if (message != nullptr) s.mMessage = message;
    return s;
}

Status Status::fromStatusT(status_t status) {
    Status s;
    if (status != OK) {
        s.mException = EX_TRANSACTION_FAILED;
        s.mErrorCode = status;
    }
    return s;
}

std::string Status::description() const {
    if (isOk()) return "No error";
    std::string text =
        "Status(" + std::to_string(mException) + ", " + exceptionName(mException) + ")";
    if (mException == EX_TRANSACTION_FAILED) {
        text += ": transaction error " + std::to_string(mErrorCode);
    }
    if (!mMessage.empty()) text += ": '" + mMessage + "'";
    return text;
}

namespace details {

void return_status::reportUseOfFailedValue() const {
    ALOGE("value of a failed call read: %s", mStatus.description().c_str());
}

}  // namespace details

}  // namespace hardware
}  // namespace android
