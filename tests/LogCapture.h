// Captures the process's Android log lines so that tests can assert on them.
#pragma once

#include <android/log.h>

#include <mutex>
#include <sstream>
#include <string>
#include <vector>

struct LogLine {
    int priority;
    std::string tag;
    std::string message;
};

// The message without its leading "[function][line] ".
inline std::string stripLogPrefix(const std::string& message) {
    const size_t first = message.rfind('[', 0) == 0 ? message.find("][") : std::string::npos;
    const size_t end = first == std::string::npos ? first : message.find("] ", first + 2);
    return end == std::string::npos ? message : message.substr(end + 2);
}

// Installs a logger for the lifetime of the object (one at a time) and lets every priority
// through. Thread-safe.
class LogCapture {
public:
    LogCapture() {
        {
            std::lock_guard<std::mutex> lock(sMutex);
            sLines.clear();
            sActive = true;
        }
        // Not under sMutex: liblog calls the logger under its own lock, which takes sMutex.
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger(&LogCapture::logger);
    }
    ~LogCapture() {
        __android_log_set_logger(__android_log_stderr_logger);
        std::lock_guard<std::mutex> lock(sMutex);
        sActive = false;
        sLines.clear();
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> lock(sMutex);
        return sLines;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(sMutex);
        sLines.clear();
    }
    // Lines whose message contains the text.
    size_t count(const std::string& text) const {
        size_t n = 0;
        for (const auto& line : lines()) n += line.message.find(text) != std::string::npos;
        return n;
    }
    bool contains(const std::string& text) const { return count(text) > 0; }
    // Lines whose message, with the "[function][line] " prefix removed, equals the text.
    size_t countExact(const std::string& text) const {
        size_t n = 0;
        for (const auto& line : lines()) n += stripLogPrefix(line.message) == text;
        return n;
    }
    // The first line whose message contains the text; priority -1 when none.
    LogLine find(const std::string& text) const {
        for (const auto& line : lines()) {
            if (line.message.find(text) != std::string::npos) return line;
        }
        return {-1, "", ""};
    }
    // Everything captured, one line each, for failure messages.
    std::string dump() const {
        std::ostringstream out;
        for (const auto& line : lines())
            out << line.priority << " " << line.tag << ": " << line.message << "\n";
        return out.str();
    }

private:
    static void logger(const struct __android_logger_data* data, const char* message) {
        std::lock_guard<std::mutex> lock(sMutex);
        if (sActive)
            sLines.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
    }
    static inline std::mutex sMutex;
    static inline std::vector<LogLine> sLines;
    static inline bool sActive = false;
};
