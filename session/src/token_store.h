// The token file and its work folder: lock, read, reserve, replace. Failures are 38.
#ifndef ORBA_SESSION_TOKEN_STORE_H
#define ORBA_SESSION_TOKEN_STORE_H

#include <sys/stat.h>

#include <optional>
#include <string>

#include "failure.h"
#include "token_endpoint.h"

namespace ORBA::OAuth2Session {

// Counts the forks that led to this process, and lets go of inherited locks; starts to on its first
// call.
unsigned forkCount() noexcept;
void watchForks();

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int number) : fd(number) {}
    Descriptor(Descriptor&& other) noexcept : fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor() { reset(); }

    int get() const { return fd; }
    bool isOpen() const { return fd >= 0; }
    int release();
    void reset();

  private:
    int fd = -1;
};

// The lock file, held. A child that is forked meanwhile closes it at once.
class FileLock {
  public:
    FileLock() = default;
    ~FileLock() { release(); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Opens the lock file and tries to get the lock.
    bool tryIn(int folder, const char* name);
    void release();

  private:
    friend struct HeldLocks;
    int fd = -1;
    FileLock* next = nullptr;
};

// What the token file holds.
struct TokenFile {
    std::optional<std::string> content;
    milliseconds changed{};  // since 1970
};

// Looks at the folder anew; lives as long as one errand. Everything but read() needs the lock.
class TokenStore {
  public:
    explicit TokenStore(const std::string& tokenFile);
    ~TokenStore();
    TokenStore(const TokenStore&) = delete;
    TokenStore& operator=(const TokenStore&) = delete;

    TokenFile read() const;

    bool hasWorkFolder();
    bool tryLock();
    void lock(const Call& call);

    // After a process was killed: its reserve becomes the token file if it holds newer tokens with
    // this digest; else it is removed.
    void recover(const std::string& digest);

    // Takes the space for new tokens.
    void reserve();
    // Replaces the token file by the reserve with this content.
    void store(const std::string& content);
    void dropReserve() noexcept;

    std::string readGate();
    void allocateGate();
    void writeGate(const std::string& text);

    // Removes token file and reserve.
    void remove();

  private:
    bool openWorkFolder(bool create);
    // Not open: there is none, and O_CREAT is not among the flags.
    Descriptor openInWorkFolder(const char* name, int flags);
    void putInPlace(int file, std::size_t length);

    std::string path;
    std::string name;
    std::string workName;
    Descriptor folder;
    Descriptor work;
    Descriptor reserved;
    FileLock held;
};

// The token file's content. `digest` empty: not ours to sign.
std::string toFileContent(const Tokens& tokens, const std::string& digest);

// What of the content may be used; nothing of another account's or other settings'.
Tokens fromFileContent(const std::string& content, const std::string& digest);

}  // namespace ORBA::OAuth2Session

#endif
