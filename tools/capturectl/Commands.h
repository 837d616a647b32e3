// The commands of capturectl.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace capturectl {

// Parsed "--name value" / "--name=value" options and bare flags; positional words are refused.
struct Options {
    std::map<std::string, std::string> values;
    bool verbose = false;

    bool has(const std::string& name) const { return values.count(name) != 0; }
    std::string get(const std::string& name, const std::string& fallback) const {
        auto it = values.find(name);
        return it != values.end() ? it->second : fallback;
    }
};

struct Command {
    const char* name;
    const char* summary;
    std::string usage;  // the option lines of --help
    std::vector<std::string> valueOptions;
    std::vector<std::string> flagOptions;
    int (*run)(const Options& options);
};

const std::vector<Command>& commands();

}  // namespace capturectl
