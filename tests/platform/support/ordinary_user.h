// File modes do not bind root: what they forbid is tried in a child process of an ordinary user.
#ifndef ORBA_TESTS_PLATFORM_ORDINARY_USER_H
#define ORBA_TESTS_PLATFORM_ORDINARY_USER_H

#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

inline constexpr uid_t kOrdinaryUser = 65534;

/**
 * Runs the call in a child process, which is not root.
 * @return What the call returned: 0 to 254.
 */
template <typename Call>
int asOrdinaryUser(Call&& call) {
    constexpr int kStillRoot = 255;
    const pid_t child = ::fork();
    if (child == 0) {
        const bool ordinary =
            ::geteuid() != 0 || (::setresgid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) == 0 &&
                                 ::setresuid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) == 0);
        ::_exit(ordinary ? call() : kStillRoot);
    }
    int status = -1;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) == kStillRoot) {
        throw std::runtime_error("no child process of an ordinary user");
    }
    return WEXITSTATUS(status);
}

#endif  // ORBA_TESTS_PLATFORM_ORDINARY_USER_H
