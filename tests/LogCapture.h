// Captures Android log lines of the process so tests can assert on them.
#pragma once

#include <string>
#include <vector>

struct LogLine {
    int priority;
    std::string tag;
    std::string message;
};

// Installs a logger for the lifetime of the object (one at a time) and lowers liblog's
// minimum priority so that debug lines reach it. Thread-safe.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    void clear();
    // Lines whose message contains the text.
    size_t count(const std::string& text) const;
    bool contains(const std::string& text) const { return count(text) > 0; }
    // The first line whose message contains the text; empty priority -1 when none.
    LogLine find(const std::string& text) const;
    // Lines whose message, with the "[function][line] " prefix removed, equals the text.
    size_t countExact(const std::string& text) const;
    // Everything captured, one line each, for failure messages.
    std::string dump() const;
};

// The message without its leading "[function][line] ".
std::string stripLogPrefix(const std::string& message);
