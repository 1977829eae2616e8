#include "token_store.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <utility>

namespace ORBA::OAuth2Session {

namespace {

constexpr char kLock[] = "lock";
constexpr char kGate[] = "gate";
constexpr char kReserve[] = "reserve";
constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kPermissions = 07777;
constexpr off_t kReserveSize = 131072;
constexpr std::size_t kGateSize = 4096;
constexpr std::size_t kMaxContent = 1048576;
constexpr milliseconds kStep{100};
constexpr int kOpenFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

std::atomic<unsigned> forks{0};

template <class SystemCall>
auto again(const SystemCall& call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

// Nothing but a file of ours is followed or waited for. A mode that keeps its owner out is put
// right.
int openAt(int folder, const char* name, int flags, mode_t mode) {
    const auto tryIt = [&] {
        return again([&] { return openat(folder, name, flags | kOpenFlags, mode); });
    };
    const int file = tryIt();
    return file < 0 && errno == EACCES && fchmodat(folder, name, mode, 0) == 0 ? tryIt() : file;
}

bool isOurs(const struct stat& status, mode_t type) {
    return (status.st_mode & S_IFMT) == type && status.st_uid == geteuid();
}

struct stat statusOf(int file, const std::string& what) {
    struct stat status {};
    if (fstat(file, &status) != 0) {
        failOnFile("Cannot look at " + what, errno);
    }
    return status;
}

void setMode(int file, mode_t mode, const std::string& what) {
    if ((statusOf(file, what).st_mode & kPermissions) != mode && fchmod(file, mode) != 0) {
        failOnFile("Cannot set the mode of " + what, errno);
    }
}

void synchronize(int file, const std::string& what) {
    if (again([&] { return fsync(file); }) != 0) {
        failOnFile("Cannot sync " + what, errno);
    }
}

void writeAt(int file, const std::string& content, const std::string& what) {
    std::size_t written = 0;
    while (written < content.size()) {
        const ssize_t count = again([&] {
            return pwrite(file, content.data() + written, content.size() - written,
                          static_cast<off_t>(written));
        });
        if (count <= 0) {
            failOnFile("Cannot write " + what, errno);
        }
        written += static_cast<std::size_t>(count);
    }
}

// Up to a megabyte: a larger file is none of ours.
std::string readAll(int file, const std::string& what) {
    std::string content;
    std::array<char, 4096> piece{};
    while (content.size() < kMaxContent) {
        const ssize_t count = again([&] {
            return pread(file, piece.data(), piece.size(), static_cast<off_t>(content.size()));
        });
        if (count < 0) {
            failOnFile("Cannot read " + what, errno);
        }
        if (count == 0) {
            break;
        }
        content.append(piece.data(), static_cast<std::size_t>(count));
    }
    return content;
}

// File systems that cannot allocate are best effort.
void allocate(int file, off_t size, const std::string& what) {
    int error = EINTR;
    while (error == EINTR) {
        error = posix_fallocate(file, 0, size);
    }
    if (error != 0 && error != EOPNOTSUPP && error != EINVAL && error != ENOSYS) {
        failOnFile("Cannot reserve space for " + what, error);
    }
}

// Whether the name still leads to the file: somebody may have removed or replaced it.
bool isAt(int folder, const char* name, const struct stat& file) {
    struct stat present {};
    return fstatat(folder, name, &present, AT_SYMLINK_NOFOLLOW) == 0 &&
           std::tie(present.st_dev, present.st_ino) == std::tie(file.st_dev, file.st_ino);
}

std::size_t lengthWithoutNuls(const std::string& content) {
    return content.find_last_not_of('\0') + 1;
}

}  // namespace

// The locks that this process holds, for its children.
struct HeldLocks {
    std::mutex mutex;
    FileLock* first = nullptr;
    bool watchesForks = false;

    void add(FileLock* lock) {
        lock->next = first;
        first = lock;
    }

    void remove(FileLock* lock) {
        FileLock** link = &first;
        while (*link != lock) {
            link = &(*link)->next;
        }
        *link = lock->next;
    }

    void closeAll() {
        for (FileLock* lock = first; lock != nullptr; lock = lock->next) {
            close(lock->fd);
        }
        first = nullptr;
    }
};

namespace {

HeldLocks heldLocks;
static_assert(std::is_trivially_destructible_v<HeldLocks>, "it outlives every thread");

void beforeFork() { heldLocks.mutex.lock(); }

void afterForkInParent() { heldLocks.mutex.unlock(); }

void afterForkInChild() {
    forks.fetch_add(1, std::memory_order_relaxed);
    heldLocks.closeAll();
    heldLocks.mutex.unlock();
}

}  // namespace

unsigned forkCount() noexcept { return forks.load(std::memory_order_relaxed); }

void watchForks() {
    const std::lock_guard guard(heldLocks.mutex);
    if (!heldLocks.watchesForks &&
        pthread_atfork(beforeFork, afterForkInParent, afterForkInChild) != 0) {
        throw std::bad_alloc();
    }
    heldLocks.watchesForks = true;
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
}

int Descriptor::release() {
    const int number = fd;
    fd = -1;
    return number;
}

void Descriptor::reset() {
    if (fd >= 0) {
        close(release());
    }
}

bool FileLock::tryIn(int folder, const char* name) {
    const std::lock_guard guard(heldLocks.mutex);  // no fork between opening and adding
    Descriptor file(openAt(folder, name, O_RDWR | O_CREAT, kFileMode));
    struct stat opened {};
    if (!file.isOpen() || fstat(file.get(), &opened) != 0) {
        failOnFile("Cannot open the lock file", errno);
    }
    if (!isOurs(opened, S_IFREG)) {
        fail(kFilesUnusable, "The lock file is not this user's own file");
    }
    if (again([&] { return flock(file.get(), LOCK_EX | LOCK_NB); }) != 0) {
        if (errno == EWOULDBLOCK) {
            return false;
        }
        failOnFile("Cannot lock the lock file", errno);
    }
    if (!isAt(folder, name, opened)) {
        flock(file.get(), LOCK_UN);
        return false;
    }
    fd = file.release();
    heldLocks.add(this);
    return true;
}

void FileLock::release() {
    if (fd < 0) {
        return;
    }
    const std::lock_guard guard(heldLocks.mutex);
    heldLocks.remove(this);
    flock(fd, LOCK_UN);  // a child may hold the descriptor for a moment longer
    close(fd);
    fd = -1;
}

TokenStore::TokenStore(const std::string& tokenFile) : path(tokenFile) {
    const std::string::size_type slash = path.rfind('/');
    const std::string above = path.substr(0, slash + 1);
    name = path.substr(slash + 1);
    workName = name + ".work";
    folder =
        Descriptor(again([&] { return open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!folder.isOpen()) {
        failOnFile("Cannot open the folder " + above, errno);
    }
    const struct stat status = statusOf(folder.get(), above);
    if (status.st_uid != geteuid() && status.st_uid != 0) {
        fail(kFilesUnusable, "The folder " + above + " belongs to another user");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0) {
        fail(kFilesUnusable, "The folder " + above + " is writable by other users");
    }
}

TokenStore::~TokenStore() {
    if (reserved.isOpen()) {
        dropReserve();
    }
}

TokenFile TokenStore::read() const {
    const Descriptor file(openAt(folder.get(), name.c_str(), O_RDONLY, kFileMode));
    if (!file.isOpen()) {
        if (errno == ENOENT) {
            return {};
        }
        failOnFile("Cannot open " + path, errno);
    }
    const struct stat status = statusOf(file.get(), path);
    if (!isOurs(status, S_IFREG)) {
        fail(kFilesUnusable, path + " is not this user's own file");
    }
    return {readAll(file.get(), path),
            std::chrono::duration_cast<milliseconds>(seconds(status.st_mtim.tv_sec) +
                                                     nanoseconds(status.st_mtim.tv_nsec))};
}

bool TokenStore::openWorkFolder(bool create) {
    const int flags = O_RDONLY | O_DIRECTORY;
    work = Descriptor(openAt(folder.get(), workName.c_str(), flags, kFolderMode));
    if (!work.isOpen() && errno == ENOENT) {
        if (!create) {
            return false;
        }
        if (mkdirat(folder.get(), workName.c_str(), kFolderMode) != 0 && errno != EEXIST) {
            failOnFile("Cannot make the folder " + path + ".work", errno);
        }
        work = Descriptor(openAt(folder.get(), workName.c_str(), flags, kFolderMode));
    }
    if (!work.isOpen()) {
        failOnFile("Cannot open the folder " + path + ".work", errno);
    }
    if (!isOurs(statusOf(work.get(), path + ".work"), S_IFDIR)) {
        fail(kFilesUnusable, "The folder " + path + ".work belongs to another user");
    }
    setMode(work.get(), kFolderMode, path + ".work");
    return true;
}

bool TokenStore::hasWorkFolder() { return openWorkFolder(false); }

bool TokenStore::tryLock() {
    openWorkFolder(true);
    if (!held.tryIn(work.get(), kLock)) {
        return false;
    }
    if (!isAt(folder.get(), workName.c_str(), statusOf(work.get(), path + ".work"))) {
        held.release();
        return false;
    }
    return true;
}

void TokenStore::lock(const Call& call) {
    while (!tryLock()) {
        call.check();
        const timespec step = {0, std::chrono::nanoseconds(kStep).count()};
        nanosleep(&step, nullptr);
    }
    call.check();
}

Descriptor TokenStore::openInWorkFolder(const char* file, int flags) {
    const std::string what = path + ".work/" + file;
    Descriptor opened(openAt(work.get(), file, flags, kFileMode));
    if (!opened.isOpen() && errno == ENOENT) {
        if ((flags & O_CREAT) == 0) {
            return opened;
        }
        openWorkFolder(true);  // somebody has removed it
        opened = Descriptor(openAt(work.get(), file, flags, kFileMode));
    }
    if (!opened.isOpen()) {
        failOnFile("Cannot open " + what, errno);
    }
    if (!isOurs(statusOf(opened.get(), what), S_IFREG)) {
        fail(kFilesUnusable, what + " is not this user's own file");
    }
    return opened;
}

void TokenStore::recover(const std::string& digest) {
    const Descriptor file = openInWorkFolder(kReserve, O_RDWR);
    if (!file.isOpen()) {
        return;
    }
    const std::string content = readAll(file.get(), kReserve);
    const std::size_t length = lengthWithoutNuls(content);
    const std::optional<Json::Value> object = parseObject(content.substr(0, length));
    if (object && !digest.empty() && (*object)["session"] == digest) {
        putInPlace(file.get(), length);
    } else {
        dropReserve();
    }
}

void TokenStore::reserve() {
    if (faccessat(folder.get(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
        failOnFile("Cannot write to the folder of " + path, errno);
    }
    dropReserve();
    reserved = openInWorkFolder(kReserve, O_RDWR | O_CREAT | O_EXCL);
    allocate(reserved.get(), kReserveSize, path);
    synchronize(reserved.get(), path + ".work/" + kReserve);
}

void TokenStore::store(const std::string& content) {
    writeAt(reserved.get(), content, path);
    putInPlace(reserved.get(), content.size());
    reserved.reset();
}

void TokenStore::putInPlace(int file, std::size_t length) {
    if (again([&] { return ftruncate(file, static_cast<off_t>(length)); }) != 0) {
        failOnFile("Cannot write " + path, errno);
    }
    setMode(file, kFileMode, path);
    synchronize(file, path);
    if (renameat(work.get(), kReserve, folder.get(), name.c_str()) != 0) {
        failOnFile("Cannot replace " + path, errno);
    }
    synchronize(folder.get(), "the folder of " + path);
}

void TokenStore::dropReserve() noexcept {
    unlinkat(work.get(), kReserve, 0);
    reserved.reset();
}

std::string TokenStore::readGate() {
    try {
        const Descriptor file = openInWorkFolder(kGate, O_RDONLY);
        if (file.isOpen()) {
            return readAll(file.get(), kGate);
        }
    } catch (const Failure&) {
        return "";  // what cannot be read is open
    }
    return "";
}

void TokenStore::allocateGate() {
    const Descriptor file = openInWorkFolder(kGate, O_RDWR | O_CREAT);
    const std::string what = path + ".work/" + kGate;
    setMode(file.get(), kFileMode, what);
    allocate(file.get(), kGateSize, what);
}

void TokenStore::writeGate(const std::string& text) {
    const Descriptor file = openInWorkFolder(kGate, O_RDWR | O_CREAT);
    const std::string what = path + ".work/" + kGate;
    writeAt(file.get(), text, what);
    again([&] { return fdatasync(file.get()); });
}

void TokenStore::remove() {
    dropReserve();
    if (unlinkat(folder.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
        failOnFile("Cannot remove " + path, errno);
    }
    synchronize(folder.get(), "the folder of " + path);
}

std::string toFileContent(const Tokens& tokens, const std::string& digest) {
    Json::Value object(Json::objectValue);
    const auto set = [&](const char* member, const std::string& text) {
        if (!text.empty()) {
            object[member] = text;
        }
    };
    set("access_token", tokens.accessToken);
    set("token_type", tokens.tokenType);
    set("refresh_token", tokens.refreshToken);
    set("scope", tokens.scope);
    set("id_token", tokens.idToken);
    set("session", digest);
    const auto setSeconds = [&](const char* member, std::optional<milliseconds> time) {
        if (time && *time % 1000 == milliseconds(0)) {
            object[member] = Json::Int64{time->count() / 1000};
        } else if (time) {
            object[member] = static_cast<double>(time->count()) / 1000;
        }
    };
    setSeconds("expires_in", tokens.lifetime);
    setSeconds("expires_at", tokens.expiresAt);
    return toLine(object) + "\n";
}

Tokens fromFileContent(const std::string& content, const std::string& digest) {
    const std::optional<Json::Value> object = parseObject(content);
    if (!object) {
        return {};
    }
    Tokens tokens = readTokens(*object);
    if (!object->isMember("session")) {
        tokens.accessToken.clear();  // nobody knows whose it is
        return tokens;
    }
    return (*object)["session"] == digest ? tokens : Tokens{};
}

}  // namespace ORBA::OAuth2Session
