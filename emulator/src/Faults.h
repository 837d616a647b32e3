// Injected faults: failing entry calls, dropped frames and a slow engine.
#pragma once

#include <stdint.h>

#include <string>

#include "capture_emulator/Emulator.h"

namespace capture_emulator {

// The status an armed fault imposes on this call of the entry (consuming one count), or 0.
uint32_t takeInjectedFault(Entry entry);
// N of "drop every Nth frame"; 0 when off.
uint32_t dropEveryNth();
// Milliseconds every streamed frame takes on top of its production; 0 when off.
uint32_t frameDelayMs();
// Whether the picture-quality service plays a process that died.
bool pqDead();
// One line per armed fault, for the state dump.
std::string describeFaults();
// Forgets every fault and reads the environment again at the next look.
void rereadFaultEnvironment();

}  // namespace capture_emulator
