// capturectl conformance: loads a capture sub-HAL library by path and checks, one behaviour at a
// time, what the service relies on from it.
#pragma once

#include "Commands.h"

namespace capturectl {

extern const char kConformanceSummary[];
extern const char kConformanceUsage[];

// Prints "PASS|FAIL|WARN <check>: <detail>" lines under headings and a summary line. Exit
// status 0 when no check failed, 1 when one did, 2 when the library cannot be loaded.
int runConformance(const Options& options);

}  // namespace capturectl
