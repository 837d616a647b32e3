// What a test can count to prove that nothing leaked: open descriptors and live mappings.
#pragma once

#include <dirent.h>
#include <string.h>

#include <fstream>
#include <string>

namespace host_test {

inline int countOpenFds() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count;
}

// Mappings whose /proc/self/maps line mentions `needle` (memfd mappings carry their name).
inline int countMappings(const std::string& needle) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        if (line.find(needle) != std::string::npos) ++count;
    }
    return count;
}

}  // namespace host_test
