// The operations that are measured, each with its counterpart.
#ifndef ORBA_BENCH_OPERATIONS_H
#define ORBA_BENCH_OPERATIONS_H

#include <functional>
#include <string>

// One call of each side.
struct Operation {
    std::function<void()> ours;
    std::function<void()> bare;
};

// `name` may have a size: "reply 1048576". The server is $ORBA_BENCH_BASE; cookie and token files
// go into `folder`, which no other thread may use.
Operation makeOperation(const std::string& name, const std::string& folder);

// The variable's value. Throws when it is not set.
std::string environment(const char* name);

#endif
