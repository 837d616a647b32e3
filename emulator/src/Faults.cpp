#include "Faults.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <mutex>
#include <sstream>

#include "EmuLog.h"

namespace capture_emulator {
namespace {

const char* const kEntryNames[kEntryCount] = {
    "Init",
    "DeInit",
    "Open",
    "Close",
    "SetCaptureInfo",
    "SetCaptureFrameInfo",
    "GetCapabilityInfo",
    "GetDipInfo",
    "CaptureOnce",
    "CaptureStart",
    "CaptureStop",
    "RegisterCallback",
    "UnRegisterCallback",
    "FrameProcessDone",
    "NotifyContinueCapture",
    "DumpInfo",
};

struct Fault {
    uint32_t status = 0;
    uint32_t remaining = 0;  // calls left to fail
    bool always = false;
};

struct ControlFile {
    std::string path;
    bool seen = false;
    bool missingReported = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtime = {};
};

std::mutex gLock;
Fault gFaults[kEntryCount];
uint32_t gDropEvery = 0;
uint32_t gFrameDelayMs = 0;
bool gPqDead = false;
ControlFile gControl;
bool gEnvironmentRead = false;

void clearLocked() {
    for (Fault& fault : gFaults) fault = Fault();
    gDropEvery = 0;
    gFrameDelayMs = 0;
    gPqDead = false;
}

bool parseUint(const std::string& text, uint32_t* value) {
    if (text.empty() || text.size() > 10) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > UINT32_MAX) return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

// "Entry status [count|*]" in either syntax; false for anything malformed.
bool armLocked(const std::string& name, const std::string& statusText,
               const std::string& countText) {
    Entry entry;
    uint32_t status = 0;
    if (!entryFromName(name, &entry) || !parseUint(statusText, &status) || status == 0) {
        return false;
    }
    Fault fault;
    fault.status = status;
    if (countText == "*") {
        fault.always = true;
    } else if (countText.empty()) {
        fault.remaining = 1;
    } else if (!parseUint(countText, &fault.remaining) || fault.remaining == 0) {
        return false;
    }
    gFaults[static_cast<int>(entry)] = fault;
    return true;
}

void parseEnvironmentLocked() {
    if (const char* list = getenv("CAPTURE_EMU_FAIL"); list != nullptr) {
        std::stringstream items(list);
        std::string item;
        while (std::getline(items, item, ',')) {
            std::string parts[3];
            std::stringstream fields(item);
            int n = 0;
            while (n < 3 && std::getline(fields, parts[n], ':')) ++n;
            if (n < 2 || !armLocked(parts[0], parts[1], parts[2])) {
                EMU_LOGE("ignoring CAPTURE_EMU_FAIL item \"%s\" (Entry:status[:count|*])",
                         item.c_str());
            }
        }
    }
    if (const char* drop = getenv("CAPTURE_EMU_DROP_EVERY"); drop != nullptr) {
        if (!parseUint(drop, &gDropEvery)) {
            EMU_LOGE("ignoring CAPTURE_EMU_DROP_EVERY=\"%s\" (a number)", drop);
        }
    }
    if (const char* path = getenv("CAPTURE_EMU_CONTROL"); path != nullptr && path[0] != '\0') {
        gControl.path = path;
    }
}

// The file's content replaces the armed faults whenever the file changes, so that a person can
// steer a running capture by editing it.
void pollControlFileLocked() {
    if (gControl.path.empty()) return;
    struct stat st;
    if (stat(gControl.path.c_str(), &st) != 0) {
        if (!gControl.missingReported) {
            EMU_LOGE("control file %s: %s; watching for it", gControl.path.c_str(), strerror(errno));
            gControl.missingReported = true;
        }
        return;
    }
    gControl.missingReported = false;
    if (gControl.seen && st.st_dev == gControl.dev && st.st_ino == gControl.ino &&
        st.st_size == gControl.size && st.st_mtim.tv_sec == gControl.mtime.tv_sec &&
        st.st_mtim.tv_nsec == gControl.mtime.tv_nsec) {
        return;
    }
    gControl.seen = true;
    gControl.dev = st.st_dev;
    gControl.ino = st.st_ino;
    gControl.size = st.st_size;
    gControl.mtime = st.st_mtim;

    std::ifstream in(gControl.path);
    clearLocked();
    std::string line;
    while (std::getline(in, line)) {
        if (size_t hash = line.find('#'); hash != std::string::npos) line.erase(hash);
        std::stringstream words(line);
        std::string verb, a, b, c;
        words >> verb >> a >> b >> c;
        if (verb.empty()) continue;
        bool ok = false;
        if (verb == "fail") {
            ok = armLocked(a, b, c);
        } else if (verb == "drop-every") {
            ok = b.empty() && parseUint(a, &gDropEvery);
        } else if (verb == "slow-frames") {
            ok = b.empty() && parseUint(a, &gFrameDelayMs);
        } else if (verb == "pq-dead") {
            ok = a.empty();
            gPqDead = ok;
        } else if (verb == "clear") {
            clearLocked();
            ok = true;
        }
        if (!ok) EMU_LOGE("ignoring control line \"%s\"", line.c_str());
    }
}

void readEnvironmentLocked() {
    if (gEnvironmentRead) return;
    gEnvironmentRead = true;
    parseEnvironmentLocked();
}

void prepareLocked() {
    readEnvironmentLocked();
    pollControlFileLocked();
}

}  // namespace

const char* entryName(Entry entry) {
    int i = static_cast<int>(entry);
    return i >= 0 && i < kEntryCount ? kEntryNames[i] : "?";
}

bool entryFromName(const std::string& name, Entry* entry) {
    std::string bare = name.rfind("VX_CAPTURE_", 0) == 0 ? name.substr(11) : name;
    for (int i = 0; i < kEntryCount; ++i) {
        if (bare == kEntryNames[i]) {
            *entry = static_cast<Entry>(i);
            return true;
        }
    }
    return false;
}

void failNextCalls(Entry entry, uint32_t status, uint32_t count) {
    int i = static_cast<int>(entry);
    if (i < 0 || i >= kEntryCount) return;
    std::lock_guard<std::mutex> lock(gLock);
    readEnvironmentLocked();
    Fault fault;
    fault.status = status;
    fault.always = count == 0;
    fault.remaining = count;
    gFaults[i] = status != 0 ? fault : Fault();
}

void setDropEveryNth(uint32_t n) {
    std::lock_guard<std::mutex> lock(gLock);
    readEnvironmentLocked();
    gDropEvery = n;
}

void setFrameDelayMs(uint32_t ms) {
    std::lock_guard<std::mutex> lock(gLock);
    readEnvironmentLocked();
    gFrameDelayMs = ms;
}

void setPqDead(bool dead) {
    std::lock_guard<std::mutex> lock(gLock);
    readEnvironmentLocked();
    gPqDead = dead;
}

bool pqDead() {
    std::lock_guard<std::mutex> lock(gLock);
    prepareLocked();
    return gPqDead;
}

void clearFaults() {
    std::lock_guard<std::mutex> lock(gLock);
    readEnvironmentLocked();
    clearLocked();
}

void rereadFaultEnvironment() {
    std::lock_guard<std::mutex> lock(gLock);
    clearLocked();
    gControl = ControlFile();
    gEnvironmentRead = false;
}

uint32_t takeInjectedFault(Entry entry) {
    int i = static_cast<int>(entry);
    std::lock_guard<std::mutex> lock(gLock);
    prepareLocked();
    Fault& fault = gFaults[i];
    if (fault.status == 0) return 0;
    uint32_t status = fault.status;
    if (!fault.always && --fault.remaining == 0) fault = Fault();
    EMU_LOGI("injected failure of VX_CAPTURE_%s: %u", kEntryNames[i], status);
    return status;
}

uint32_t dropEveryNth() {
    std::lock_guard<std::mutex> lock(gLock);
    prepareLocked();
    return gDropEvery;
}

uint32_t frameDelayMs() {
    std::lock_guard<std::mutex> lock(gLock);
    prepareLocked();
    return gFrameDelayMs;
}

std::string describeFaults() {
    std::lock_guard<std::mutex> lock(gLock);
    prepareLocked();
    std::string text;
    for (int i = 0; i < kEntryCount; ++i) {
        const Fault& fault = gFaults[i];
        if (fault.status == 0) continue;
        text += "  fail VX_CAPTURE_" + std::string(kEntryNames[i]) + " with " +
                std::to_string(fault.status) +
                (fault.always ? " on every call\n"
                              : " on the next " + std::to_string(fault.remaining) + " call(s)\n");
    }
    if (gDropEvery != 0) text += "  drop every " + std::to_string(gDropEvery) + "th frame\n";
    if (gFrameDelayMs != 0) {
        text += "  every frame takes " + std::to_string(gFrameDelayMs) + " ms longer\n";
    }
    if (!gControl.path.empty()) text += "  control file " + gControl.path + "\n";
    return text.empty() ? "  none\n" : text;
}

}  // namespace capture_emulator
