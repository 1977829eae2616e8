// operator new and delete, malloc, realloc and free. The linker wraps the last three (--wrap),
// which reaches what is linked here. operator new and malloc itself reach jsoncpp and the C and C++
// libraries, too.
#include <dlfcn.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "fakes.h"

using fakes::world;

namespace {

thread_local bool underTest = false;

}  // namespace

namespace fakes {

UnderTest::UnderTest(bool atWork) : before(underTest) { underTest = atWork; }
UnderTest::~UnderTest() { underTest = before; }
bool isUnderTest() { return underTest; }

}  // namespace fakes

extern "C" {

void* __real_malloc(std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);

#ifdef ORBA_SANITIZED
// The sanitizer's, which has to be the only one.
static void* nextMalloc(std::size_t size) { return __real_malloc(size); }
#else
// The C library's, or that of valgrind in its place.
static void* nextMalloc(std::size_t size) {
    using Malloc = void* (*)(std::size_t);
    static const auto next = reinterpret_cast<Malloc>(dlsym(RTLD_NEXT, "malloc"));
    return next(size);
}

void* malloc(std::size_t size) {
    if (underTest) {
        const fakes::OwnWork own;
        if (world().enterAllocation("malloc of a library")) {
            errno = ENOMEM;
            return nullptr;
        }
    }
    return nextMalloc(size);
}
#endif

void* __wrap_malloc(std::size_t size) {
    if (underTest) {
        const fakes::OwnWork own;
        if (world().enterAllocation("malloc")) {
            return nullptr;
        }
    }
    return nextMalloc(size);
}

void* __wrap_realloc(void* block, std::size_t size) {
    const fakes::OwnWork own;
    if (world().enter("realloc", std::to_string(size))) {
        return nullptr;
    }
    void* const grown = __real_realloc(block, size);
    world().buffers.erase(block);
    world().buffers.insert(grown);
    return grown;
}

void __wrap_free(void* block) {
    const fakes::OwnWork own;
    if (world().buffers.erase(block) != 0) {
        world().note("free", "");
    }
    __real_free(block);
}

}  // extern "C"

namespace {

void* allocate(std::size_t size) {
    if (underTest) {
        const fakes::OwnWork own;
        if (world().enterAllocation("operator new")) {
            return nullptr;
        }
    }
    return nextMalloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(std::size_t size) {
    void* const block = allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

}  // namespace

// All of them: a sanitizer that kept some for itself would see blocks of one freed by the other.
void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* block) noexcept { __real_free(block); }
void operator delete[](void* block) noexcept { __real_free(block); }
void operator delete(void* block, std::size_t) noexcept { __real_free(block); }
void operator delete[](void* block, std::size_t) noexcept { __real_free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { __real_free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { __real_free(block); }
