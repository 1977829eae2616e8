// File modes do not bind root: what they forbid is tried in a child process of an ordinary user.
#ifndef ORBA_TESTS_PLATFORM_ORDINARY_USER_H
#define ORBA_TESTS_PLATFORM_ORDINARY_USER_H

#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

// Returns what the call returned, 0 to 254, in a child process that is not root.
template <class Call>
int asOrdinaryUser(const Call& call) {
    constexpr uid_t kUser = 65534;
    constexpr int kStillRoot = 255;
    const pid_t child = ::fork();
    if (child == 0) {
        const bool ordinary = ::geteuid() != 0 || (::setresgid(kUser, kUser, kUser) == 0 &&
                                                   ::setresuid(kUser, kUser, kUser) == 0);
        ::_exit(ordinary ? call() : kStillRoot);
    }
    int status = -1;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) == kStillRoot) {
        throw std::runtime_error("no child process of an ordinary user");
    }
    return WEXITSTATUS(status);
}

#endif
