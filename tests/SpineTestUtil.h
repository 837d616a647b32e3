// Helpers for the tests of the service spine: log level, log lines, formatted texts.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "CaptureLog.h"
#include "TestUtil.h"

namespace capture_test {

using Strings = std::vector<std::string>;

inline void setLogLevel(uint32_t level) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, level, __ATOMIC_RELAXED);
}

// printf-style text with one 32-bit value, as the service's own lines are built.
inline std::string formatted(const char* format, uint32_t value) {
    char text[128];
    snprintf(text, sizeof(text), format, value);
    return text;
}

// The first `limit` captured messages without their "[function][line] " prefix, in order.
inline Strings strippedMessages(const LogCapture& log, size_t limit = SIZE_MAX) {
    Strings messages;
    for (const auto& line : log.lines()) messages.push_back(stripLogPrefix(line.message));
    messages.resize(std::min(limit, messages.size()));
    return messages;
}

// The function named by the prefix of each captured line that contains the text.
inline Strings functionsLogging(const LogCapture& log, const std::string& text) {
    Strings out;
    for (const auto& line : log.lines()) {
        if (line.message.find(text) == std::string::npos) continue;
        out.push_back(line.message.substr(1, line.message.find(']') - 1));
    }
    return out;
}

// Every captured line as "tag/priority message", the prefix's line number dropped.
inline Strings rendered(const LogCapture& log) {
    static const std::regex lineNumber("^(\\[[^\\]]+\\])\\[[0-9]+\\]");
    Strings out;
    for (const auto& line : log.lines()) {
        out.push_back(line.tag + "/" + std::to_string(line.priority) + " " +
                      std::regex_replace(line.message, lineNumber, "$1"));
    }
    return out;
}

}  // namespace capture_test
