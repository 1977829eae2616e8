// Calls of the C library and of OpenSSL: while the code under test is at work they are counted and
// can be made to fail, otherwise they do what they always do.
#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "fakes.h"

using fakes::world;

namespace {

bool fails(const char* name, const char* argument = "") {
    if (!fakes::isUnderTest()) {
        return false;
    }
    const fakes::OwnWork own;
    if (!world().enter(name, argument)) {
        return false;
    }
    errno = EIO;
    return true;
}

template <class Result, class... Arguments>
Result real(const char* name, Arguments... arguments) {
    void* found = nullptr;
    {
        const fakes::OwnWork own;
        found = dlsym(RTLD_NEXT, name);
    }
    return reinterpret_cast<Result (*)(Arguments...)>(found)(arguments...);
}

// The result, unless the test wants this call to fail.
template <class Result, class... Arguments>
Result unlessItFails(Result failure, const char* name, Arguments... arguments) {
    return fails(name) ? failure : real<Result>(name, arguments...);
}

bool isInterrupted() {
    if (!fakes::isUnderTest() || world().interrupted == 0) {
        return false;
    }
    --world().interrupted;
    errno = EINTR;
    return true;
}

std::size_t most(std::size_t size) {
    return fakes::isUnderTest() ? std::min(size, world().mostBytes) : size;
}

const char* cloexecIn(int flags) { return (flags & O_CLOEXEC) == 0 ? "" : "cloexec"; }

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) == 0 ? 0 : va_arg(arguments, mode_t);
    va_end(arguments);
    return fails("open", cloexecIn(flags)) ? -1 : real<int>("open", path, flags, mode);
}

int stat(const char* path, struct stat* status) noexcept {
    const int result = unlessItFails(-1, "stat", path, status);
    if (result == 0 && fakes::isUnderTest()) {
        status->st_uid += world().otherOwner.first;
        status->st_gid += world().otherOwner.second;
    }
    return result;
}

int fchown(int file, uid_t user, gid_t group) noexcept {
    if (!fakes::isUnderTest() || world().otherOwner == std::make_pair(0U, 0U)) {
        return unlessItFails(-1, "fchown", file, user, group);
    }
    world().chowned = {user, group};
    return fails("fchown") ? -1 : 0;
}

int fstat(int file, struct stat* status) noexcept {
    return unlessItFails(-1, "fstat", file, status);
}
ssize_t read(int file, void* data, size_t size) {
    return isInterrupted() ? -1 : unlessItFails<ssize_t>(-1, "read", file, data, most(size));
}
ssize_t write(int file, const void* data, size_t size) {
    return isInterrupted() ? -1 : unlessItFails<ssize_t>(-1, "write", file, data, most(size));
}
char* realpath(const char* path, char* resolved) noexcept {
    return unlessItFails<char*>(nullptr, "realpath", path, resolved);
}
int mkostemp(char* path, int flags) {
    return fails("mkostemp", cloexecIn(flags)) ? -1 : real<int>("mkostemp", path, flags);
}
int fchmod(int file, mode_t mode) noexcept { return unlessItFails(-1, "fchmod", file, mode); }
int fsync(int file) { return unlessItFails(-1, "fsync", file); }
int rename(const char* from, const char* to) noexcept {
    return unlessItFails(-1, "rename", from, to);
}
unsigned char* HMAC(const EVP_MD* md, const void* key, int keySize, const unsigned char* data,
                    size_t size, unsigned char* digest, unsigned int* digestSize) {
    return unlessItFails<unsigned char*>(nullptr, "HMAC", md, key, keySize, data, size, digest,
                                         digestSize);
}

}  // extern "C"
