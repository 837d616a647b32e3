#include "LogCapture.h"

#include <android/log.h>

#include <mutex>
#include <sstream>

namespace {

std::mutex gLogMutex;
std::vector<LogLine>* gLines = nullptr;

void captureLogger(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gLines == nullptr) return;
    gLines->push_back({data->priority, data->tag != nullptr ? data->tag : "",
                       message != nullptr ? message : ""});
}

}  // namespace

LogCapture::LogCapture() {
    {
        std::lock_guard<std::mutex> lock(gLogMutex);
        delete gLines;
        gLines = new std::vector<LogLine>();
    }
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(captureLogger);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    std::lock_guard<std::mutex> lock(gLogMutex);
    delete gLines;
    gLines = nullptr;
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(gLogMutex);
    return gLines != nullptr ? *gLines : std::vector<LogLine>();
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gLines != nullptr) gLines->clear();
}

size_t LogCapture::count(const std::string& text) const {
    size_t n = 0;
    for (const auto& line : lines()) {
        if (line.message.find(text) != std::string::npos) ++n;
    }
    return n;
}

LogLine LogCapture::find(const std::string& text) const {
    for (const auto& line : lines()) {
        if (line.message.find(text) != std::string::npos) return line;
    }
    return {-1, "", ""};
}

size_t LogCapture::countExact(const std::string& text) const {
    size_t n = 0;
    for (const auto& line : lines()) {
        if (stripLogPrefix(line.message) == text) ++n;
    }
    return n;
}

std::string LogCapture::dump() const {
    std::ostringstream out;
    for (const auto& line : lines()) {
        out << line.priority << " " << line.tag << ": " << line.message << "\n";
    }
    return out.str();
}

std::string stripLogPrefix(const std::string& message) {
    // "[name][123] text" -> "text"
    if (message.empty() || message[0] != '[') return message;
    size_t first = message.find("][");
    if (first == std::string::npos) return message;
    size_t second = message.find("] ", first + 2);
    if (second == std::string::npos) return message;
    return message.substr(second + 2);
}
