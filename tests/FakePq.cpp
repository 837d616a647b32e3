#include "FakePq.h"

#include <hidl/ServiceManagement.h>

namespace capture_test {

sp<FakePq> FakePq::install() {
    static const sp<FakePq> instance = new FakePq();
    instance->reset();
    instance->registerAsService("default");
    return instance;
}

void FakePq::uninstall() {
    ::android::hardware::details::unregisterServiceInternal(IPq::descriptor, "default");
}

}  // namespace capture_test
