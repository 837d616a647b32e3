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

void return_status::onValueRetrieval() const {
    if (!isOk()) {
        LOG_ALWAYS_FATAL("Attempted to retrieve value from failed HIDL call: %s",
                         description().c_str());
    }
}

void return_status::assertOk() const {
    if (!isOk()) {
        LOG_ALWAYS_FATAL("Failed HIDL return status not checked: %s", description().c_str());
    }
}

return_status::~return_status() {
    if (!mCheckedStatus) assertOk();
}

return_status& return_status::operator=(return_status&& other) noexcept {
    // The status being overwritten is dropped unseen, as in the destructor.
    if (!mCheckedStatus) assertOk();
    std::swap(mStatus, other.mStatus);
    std::swap(mCheckedStatus, other.mCheckedStatus);
    return *this;
}

}  // namespace details

}  // namespace hardware
}  // namespace android
