#include "faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <iconv.h>
#include <openssl/hmac.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace faults {
namespace {

// Plain data of fixed size: what notes a call must not call anything that is noted itself.
struct State {
    bool active = false;
    int countdown = 0;
    const char* failed = nullptr;
    std::size_t count = 0;
    std::array<const char*, 256> calls{};
};
thread_local State state;

struct AllocationState {
    bool active = false;
    int countdown = 0;
    bool failed = false;
};
thread_local AllocationState allocation;

struct OwnerState {
    bool active = false;
    uid_t user = 0;
    gid_t group = 0;
};
thread_local OwnerState owner;

}  // namespace

Injection::Injection(int failing) {
    state = State();
    state.countdown = failing;
    state.active = true;
}

Injection::~Injection() { state.active = false; }

std::string Injection::failed() { return state.failed == nullptr ? "" : state.failed; }

std::vector<std::string> Injection::calls() {
    return {state.calls.data(), state.calls.data() + state.count};
}

AllocationInjection::AllocationInjection(int failing) { allocation = {true, failing, false}; }

AllocationInjection::~AllocationInjection() { allocation.active = false; }

bool AllocationInjection::hasFailed() { return allocation.failed; }

OtherOwner::OtherOwner() { owner = {true, 0, 0}; }

OtherOwner::~OtherOwner() { owner.active = false; }

uid_t OtherOwner::chownedUser() { return owner.user; }

gid_t OtherOwner::chownedGroup() { return owner.group; }

bool fails(const char* call) {
    if (!state.active) {
        return false;
    }
    state.calls.at(state.count++) = call;
    if (--state.countdown != 0) {
        return false;
    }
    state.failed = call;
    errno = EIO;
    return true;
}

namespace {

bool allocationFails() {
    if (!allocation.active || --allocation.countdown != 0) {
        return false;
    }
    allocation.failed = true;
    return true;
}

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace faults

using faults::fails;
using faults::real;

// ---- memory
// ----------------------------------------------------------------------------------------

void* operator new(std::size_t size) {
    void* memory = faults::allocationFails() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return faults::allocationFails() ? nullptr : std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

// ---- the C library and OpenSSL
// ---------------------------------------------------------------------

extern "C" {

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return fails("open") ? -1 : real<int(const char*, int, ...)>("open")(path, flags, mode);
}

int fstat(int file, struct stat* status) noexcept {
    return fails("fstat") ? -1 : real<int(int, struct stat*)>("fstat")(file, status);
}

int stat(const char* path, struct stat* status) noexcept {
    if (fails("stat")) {
        return -1;
    }
    const int result = real<int(const char*, struct stat*)>("stat")(path, status);
    if (faults::owner.active) {
        ++status->st_uid;
        ++status->st_gid;
    }
    return result;
}

ssize_t read(int file, void* data, size_t size) {
    return fails("read") ? -1 : real<ssize_t(int, void*, size_t)>("read")(file, data, size);
}

ssize_t write(int file, const void* data, size_t size) {
    return fails("write") ? -1 : real<ssize_t(int, const void*, size_t)>("write")(file, data, size);
}

char* realpath(const char* path, char* resolved) noexcept {
    return fails("realpath") ? nullptr
                             : real<char*(const char*, char*)>("realpath")(path, resolved);
}

int mkostemp(char* path, int flags) {
    return fails("mkostemp") ? -1 : real<int(char*, int)>("mkostemp")(path, flags);
}

int fchown(int file, uid_t user, gid_t group) noexcept {
    if (fails("fchown")) {
        return -1;
    }
    if (faults::owner.active) {
        faults::owner = {true, user, group};
        return 0;
    }
    return real<int(int, uid_t, gid_t)>("fchown")(file, user, group);
}

int fchmod(int file, mode_t mode) noexcept {
    return fails("fchmod") ? -1 : real<int(int, mode_t)>("fchmod")(file, mode);
}

int fsync(int file) { return fails("fsync") ? -1 : real<int(int)>("fsync")(file); }

int rename(const char* from, const char* to) noexcept {
    return fails("rename") ? -1 : real<int(const char*, const char*)>("rename")(from, to);
}

iconv_t iconv_open(const char* to, const char* from) {
    return fails("iconv_open") ? iconv_t(-1)
                               : real<iconv_t(const char*, const char*)>("iconv_open")(to, from);
}

unsigned char* HMAC(const EVP_MD* md, const void* key, int keySize, const unsigned char* data,
                    size_t size, unsigned char* digest, unsigned int* digestSize) {
    return fails("HMAC")
               ? nullptr
               : real<decltype(HMAC)>("HMAC")(md, key, keySize, data, size, digest, digestSize);
}

}  // extern "C"
