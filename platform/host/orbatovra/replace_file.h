// Replaces a file's content as a whole.
#ifndef ORBA_HOST_REPLACE_FILE_H
#define ORBA_HOST_REPLACE_FILE_H

#include <string>

namespace orba_host {

// Other processes see the old or the new content, never a part. Owner and mode stay as they are,
// and of a symbolic link the target is replaced. Throws a Failure with
// ORBA_HOST_PROFILE_NOT_WRITABLE; the file is then unchanged.
void replaceFile(const std::string& path, const std::string& content);

}  // namespace orba_host

#endif
