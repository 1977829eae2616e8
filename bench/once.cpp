// One side of one operation in a process of its own: for what is counted in the whole process, peak
// memory, and under valgrind instructions and allocations.
//
// usage: orba-bench-once ours|bare OPERATION|reply|discard CALLS|BYTES
//
// Prints the bytes by which the process's memory grew at its highest.
#include <curl/curl.h>
#include <valgrind/callgrind.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "operations.h"

namespace {

// A line of /proc/self/status, in bytes.
long memory(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::stol(line.substr(name.size() + 1)) * 1024;
        }
    }
    throw std::runtime_error("no " + name + " in /proc/self/status");
}

Operation find(const std::vector<Operation>& operations, const std::string& name) {
    for (const Operation& operation : operations) {
        if (operation.name == name) {
            return operation;
        }
    }
    throw std::runtime_error("there is no operation " + name);
}

// Under callgrind nothing else is counted.
void counted(const std::function<void()>& call, long times) {
    CALLGRIND_START_INSTRUMENTATION;
    for (long i = 0; i < times; ++i) {
        call();
    }
    CALLGRIND_STOP_INSTRUMENTATION;
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 4) {
        std::cerr << "usage: orba-bench-once ours|bare OPERATION|reply|discard CALLS|BYTES\n";
        return 2;
    }
    const auto side = argv[1] == std::string("ours") ? &Operation::ours : &Operation::bare;
    const std::string name = argv[2];
    const long number = std::stol(argv[3]);
    const std::string base = environment("ORBA_BENCH_BASE");
    const std::string& folder = scratchFolder();
    curl_global_init(CURL_GLOBAL_DEFAULT);

    // What only the first call does must not count.
    const Operation small = replyOperation(base, folder, 1024);
    (small.*side)();

    Operation operation;
    long calls = 1;
    if (name == "reply") {
        operation = replyOperation(base, folder, static_cast<std::size_t>(number));
    } else if (name == "discard") {
        operation = discardOperation(base, folder, static_cast<std::size_t>(number));
    } else {
        operation = find(requestOperations(base, folder), name);
        calls = number;
        (operation.*side)();
    }
    const long before = memory("VmRSS");
    counted(operation.*side, calls);
    std::cout << memory("VmHWM") - before << '\n';
    return EXIT_SUCCESS;
} catch (const std::exception& exception) {
    std::cerr << "orba-bench-once: " << exception.what() << '\n';
    return EXIT_FAILURE;
}
