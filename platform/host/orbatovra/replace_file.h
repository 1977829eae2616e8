/**
 * @file
 * @brief Replaces a file's content as a whole.
 */
#ifndef ORBA_HOST_REPLACE_FILE_H
#define ORBA_HOST_REPLACE_FILE_H

#include <string>

namespace orba_host {

/**
 * @brief Gives the file new content; other processes see the old or the new one, never a part.
 *
 * Owner and mode stay as they are, and of a symbolic link the target is replaced.
 *
 * @throws Failure ORBA_HOST_PROFILE_NOT_WRITABLE; the file is then unchanged.
 */
void replaceFile(const std::string& path, const std::string& content);

}  // namespace orba_host

#endif  // ORBA_HOST_REPLACE_FILE_H
