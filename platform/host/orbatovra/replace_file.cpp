#include "replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "../common/failure.h"
#include "../common/file_descriptor.h"

namespace orba_host {
namespace {

void requireDone(bool done, const std::string& path) {
    if (!done) {
        throw Failure(ORBA_HOST_PROFILE_NOT_WRITABLE, path + ": " + std::strerror(errno));
    }
}

std::string resolvedPath(const std::string& path) {
    struct Free {
        void operator()(char* text) const { std::free(text); }
    };
    const std::unique_ptr<char, Free> resolved(::realpath(path.c_str(), nullptr));
    requireDone(resolved != nullptr, path);
    return resolved.get();
}

// A new file beside the one that it is to replace; removed unless it has been renamed.
class Replacement {
  public:
    Replacement(const std::string& folder, std::string target)
        : replaced(std::move(target)),
          path(folder + ".orba-host-XXXXXX"),
          file(::mkostemp(path.data(), O_CLOEXEC)) {
        requireDone(file.isOpen(), replaced);
    }
    ~Replacement() {
        if (!renamed) {
            ::unlink(path.c_str());
        }
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    void takeOwnerAndMode() const {
        struct stat old {};
        requireDone(::stat(replaced.c_str(), &old) == 0, replaced);
        struct stat own {};
        requireDone(::fstat(file.get(), &own) == 0, replaced);
        if (own.st_uid != old.st_uid || own.st_gid != old.st_gid) {
            requireDone(::fchown(file.get(), old.st_uid, old.st_gid) == 0, replaced);
        }
        requireDone(::fchmod(file.get(), old.st_mode & 07777U) == 0, replaced);
    }

    void write(const std::string& content) const {
        std::size_t done = 0;
        while (done < content.size()) {
            const ssize_t count = ::write(file.get(), content.data() + done, content.size() - done);
            requireDone(count >= 0 || errno == EINTR, replaced);
            done += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
        requireDone(::fsync(file.get()) == 0, replaced);
    }

    void rename() {
        requireDone(::rename(path.c_str(), replaced.c_str()) == 0, replaced);
        renamed = true;
    }

  private:
    std::string replaced;
    std::string path;
    FileDescriptor file;
    bool renamed = false;
};

}  // namespace

void replaceFile(const std::string& path, const std::string& content) {
    const std::string target = resolvedPath(path);
    const std::string folder = target.substr(0, target.rfind('/') + 1);
    Replacement replacement(folder, target);
    replacement.takeOwnerAndMode();
    replacement.write(content);
    const FileDescriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    replacement.rename();
    ::fsync(opened.get());  // makes the rename last; what fails from here on is no failure any more
}

}  // namespace orba_host
