/**
 * @file
 * @brief Owner of a file descriptor.
 */
#ifndef ORBA_HOST_FILE_DESCRIPTOR_H
#define ORBA_HOST_FILE_DESCRIPTOR_H

#include <unistd.h>

namespace orba_host {

/** Closes the descriptor at the end of its life; a negative one stands for none. */
class FileDescriptor {
  public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~FileDescriptor() {
        if (isOpen()) {
            ::close(descriptor_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    bool isOpen() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

}  // namespace orba_host

#endif  // ORBA_HOST_FILE_DESCRIPTOR_H
