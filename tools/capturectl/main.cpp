// capturectl: runs the capture service in this process and drives it from the command line.
#include <stdio.h>
#include <string.h>

#include <string>

#include "Commands.h"
#include "Session.h"

using namespace capturectl;

namespace {

void printUsage(FILE* out) {
    fprintf(out,
            "usage: capturectl [-v] COMMAND [OPTIONS]\n"
            "\n"
            "Brings the capture service up in this process, on the emulated capture hardware\n"
            "unless CAPTURE_SUBHAL_PATH / CAPTURE_DEVICE_TREE_ROOT point elsewhere, and drives\n"
            "it through ICapture.\n"
            "\n"
            "commands:\n");
    for (const Command& c : commands()) fprintf(out, "  %-11s %s\n", c.name, c.summary);
    fprintf(out,
            "\n"
            "  -v, --verbose   echo the service's and the hardware's log to stderr\n"
            "\n"
            "'capturectl COMMAND --help' describes a command. Exit status: 0 done, 1 a request\n"
            "was refused (the message names the CaptureReturn code), 2 bad command line,\n"
            "3 the service could not be brought up.\n");
}

void printCommandHelp(const Command& c) {
    printf("usage: capturectl %s [OPTIONS]\n\n%s\n\n%s", c.name, c.summary, c.usage.c_str());
}

// Fills `options`; false (with a message) for anything the command does not take.
bool parseOptions(const Command& c, int argc, char** argv, int first, Options* options) {
    auto known = [](const std::vector<std::string>& list, const std::string& name) {
        for (const std::string& n : list) {
            if (n == name) return true;
        }
        return false;
    };
    for (int i = first; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-v" || arg == "--verbose") {
            options->verbose = true;
            continue;
        }
        if (arg.rfind("--", 0) != 0) {
            fprintf(stderr, "capturectl %s: unexpected argument '%s'\n", c.name, arg.c_str());
            return false;
        }
        std::string name = arg.substr(2), value;
        size_t eq = name.find('=');
        bool inlineValue = eq != std::string::npos;
        if (inlineValue) {
            value = name.substr(eq + 1);
            name.erase(eq);
        }
        if (known(c.flagOptions, name) && !inlineValue) {
            options->values[name] = "1";
        } else if (known(c.valueOptions, name)) {
            if (!inlineValue) {
                if (i + 1 >= argc) {
                    fprintf(stderr, "capturectl %s: --%s needs a value\n", c.name, name.c_str());
                    return false;
                }
                value = argv[++i];
            }
            options->values[name] = value;
        } else {
            fprintf(stderr, "capturectl %s: unknown option --%s (see --help)\n", c.name,
                    name.c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int first = 1;
    bool verbose = false;
    while (first < argc &&
           (strcmp(argv[first], "-v") == 0 || strcmp(argv[first], "--verbose") == 0)) {
        verbose = true;
        ++first;
    }
    if (first >= argc) {
        printUsage(stderr);
        return kExitUsage;
    }
    std::string name = argv[first];
    if (name == "--help" || name == "-h" || name == "help") {
        printUsage(stdout);
        return kExitOk;
    }
    for (const Command& c : commands()) {
        if (name != c.name) continue;
        for (int i = first + 1; i < argc; ++i) {
            if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
                printCommandHelp(c);
                return kExitOk;
            }
        }
        Options options;
        options.verbose = verbose;
        if (!parseOptions(c, argc, argv, first + 1, &options)) return kExitUsage;
        return c.run(options);
    }
    fprintf(stderr, "capturectl: unknown command '%s'\n\n", name.c_str());
    printUsage(stderr);
    return kExitUsage;
}
