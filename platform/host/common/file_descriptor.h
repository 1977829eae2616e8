// Owner of a file descriptor.
#ifndef ORBA_HOST_FILE_DESCRIPTOR_H
#define ORBA_HOST_FILE_DESCRIPTOR_H

#include <unistd.h>

namespace orba_host {

// Closes the descriptor at the end of its life; a negative one means none.
class FileDescriptor {
  public:
    explicit FileDescriptor(int opened) : descriptor(opened) {}
    ~FileDescriptor() {
        if (isOpen()) {
            ::close(descriptor);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    bool isOpen() const { return descriptor >= 0; }
    int get() const { return descriptor; }

  private:
    int descriptor;
};

}  // namespace orba_host

#endif
