// Switches the mutants; included first in every source that holds some. ORBA_MUTANT is the number
// of the one that is on; ORBA_MUTANT_TRACE names a file with a byte for each that was reached.
#ifndef ORBA_TESTS_MUTATION_MUTANT_H
#define ORBA_TESTS_MUTATION_MUTANT_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

namespace mutation {

constexpr std::size_t kMaxMutants = 1 << 16;

inline const int active = [] {
    const char* const number = std::getenv("ORBA_MUTANT");
    return number == nullptr ? 0 : std::atoi(number);
}();

// Opened by system call, because some test programs have an open() of their own.
inline char* const reached = []() -> char* {
    const char* const path = std::getenv("ORBA_MUTANT_TRACE");
    const long file = path == nullptr ? -1 : syscall(SYS_openat, AT_FDCWD, path, O_RDWR);
    void* const bytes =
        mmap(nullptr, kMaxMutants, PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(file), 0);
    return bytes == MAP_FAILED ? nullptr : static_cast<char*>(bytes);
}();

inline bool on(int number) {
    if (reached != nullptr) {
        reached[number] = 1;
    }
    return number == active;
}

}  // namespace mutation

#endif
