// usage: sandbox-init bwrap|proot COMMAND [ARG...]
//
// The first process in scripts/sandbox, which compiles it. It starts the command, passes its exit
// status on (128+N after signal N), and before that ends whatever the command has left running.
//
// Under proot it also refuses the system calls that came after proot 5.1: proot does not know them,
// so paths in them would reach the machine's own files. The C library and Node.js fall back to the
// older calls, as on an older kernel.
#include <errno.h>
#include <seccomp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#define FCHMODAT2 452  // not yet named by libseccomp 2.5

static void fail(const char* what) {
    perror(what);
    exit(125);
}

static void refuse_newer_system_calls(void) {
    static const int calls[] = {
        SCMP_SYS(statx),  SCMP_SYS(renameat2), SCMP_SYS(execveat),   SCMP_SYS(io_uring_setup),
        SCMP_SYS(clone3), SCMP_SYS(openat2),   SCMP_SYS(faccessat2), FCHMODAT2,
    };
    const scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    int result = seccomp_attr_set(filter, SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_ALLOW);
    for (size_t i = 0; result == 0 && i < sizeof calls / sizeof *calls; ++i) {
        result = seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), calls[i], 0);
    }
    if (result == 0) {
        result = seccomp_load(filter);
    }
    if (result != 0) {
        errno = -result;
        fail("sandbox-init: seccomp");
    }
}

// scripts/sandbox ignores these signals; the command gets them as usual.
static pid_t start(char** command) {
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    static const int signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
    for (size_t i = 0; i < sizeof signals / sizeof *signals; ++i) {
        signal(signals[i], SIG_DFL);
    }
    execvp(command[0], command);
    fprintf(stderr, "scripts/sandbox: %s: %s\n", command[0], strerror(errno));
    _exit(errno == ENOENT ? 127 : 126);
}

// Whatever loses its parent becomes a child of this process, so nothing can hide from it.
static void end_what_is_left(void) {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/children", (int)getpid());
    for (pid_t ended; (ended = waitpid(-1, NULL, WNOHANG)) >= 0;) {
        if (ended > 0) {
            continue;
        }
        FILE* children = fopen(path, "r");
        if (children == NULL) {
            fail("sandbox-init: children");
        }
        for (int child; fscanf(children, "%d", &child) == 1;) {
            kill(child, SIGKILL);
        }
        fclose(children);
        usleep(2000);
    }
}

int main(int argc, char** argv) {
    if (argc < 3) {
        return 125;
    }
    unsetenv("PROOT_TMP_DIR");
    if (strcmp(argv[1], "proot") == 0) {
        refuse_newer_system_calls();
    }
    if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
        fail("sandbox-init: prctl");
    }
    const pid_t child = start(argv + 2);
    if (child < 0) {
        fail("sandbox-init: fork");
    }
    int status = 0;
    while (waitpid(-1, &status, 0) != child) {
    }
    end_what_is_left();
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
