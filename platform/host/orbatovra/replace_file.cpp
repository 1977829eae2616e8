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

/** A new file beside the one that it shall replace; removed unless it came so far. */
class Replacement {
  public:
    Replacement(const std::string& folder, std::string target)
        : target_(std::move(target)),
          path_(folder + ".orba-host-XXXXXX"),
          file_(::mkostemp(path_.data(), O_CLOEXEC)) {
        requireDone(file_.isOpen(), target_);
    }
    ~Replacement() {
        if (!renamed_) {
            ::unlink(path_.c_str());
        }
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    void takeOwnerAndMode() const {
        struct stat old {};
        requireDone(::stat(target_.c_str(), &old) == 0, target_);
        struct stat own {};
        requireDone(::fstat(file_.get(), &own) == 0, target_);
        if (own.st_uid != old.st_uid || own.st_gid != old.st_gid) {
            requireDone(::fchown(file_.get(), old.st_uid, old.st_gid) == 0, target_);
        }
        requireDone(::fchmod(file_.get(), old.st_mode & 07777U) == 0, target_);
    }

    void write(const std::string& content) const {
        std::size_t done = 0;
        while (done < content.size()) {
            const ssize_t count =
                ::write(file_.get(), content.data() + done, content.size() - done);
            requireDone(count >= 0 || errno == EINTR, target_);
            done += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
        requireDone(::fsync(file_.get()) == 0, target_);
    }

    void rename() {
        requireDone(::rename(path_.c_str(), target_.c_str()) == 0, target_);
        renamed_ = true;
    }

  private:
    std::string target_;
    std::string path_;
    FileDescriptor file_;
    bool renamed_ = false;
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
