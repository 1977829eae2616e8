// The operations that are measured, each with its counterpart.
#ifndef ORBA_BENCH_OPERATIONS_H
#define ORBA_BENCH_OPERATIONS_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

struct Operation {
    std::string name;
    std::function<void()> ours;
    std::function<void()> bare;
};

// One request each, to the server at `base` ("http://host:port"). Cookie and token files go into
// `folder`, whose files nobody else may use at the same time.
std::vector<Operation> requestOperations(const std::string& base, const std::string& folder);

// GET of a JSON reply of about `bytes` bytes: parsed, and thrown away.
Operation replyOperation(const std::string& base, const std::string& folder, std::size_t bytes);
Operation discardOperation(const std::string& base, const std::string& folder, std::size_t bytes);

// GET of a small JSON reply that comes at once, or after the server has waited.
Operation promptOperation(const std::string& base, const std::string& folder);
Operation waitingOperation(const std::string& base, const std::string& folder);

// One call each, on texts of about `bytes` bytes.
std::vector<Operation> textOperations(std::size_t bytes);
Operation errorTextOperation();

// A folder of this process below /tmp, removed when the process ends.
const std::string& scratchFolder();

// The variable's value. Ends the process with a message when it is not set.
std::string environment(const char* name);

#endif
