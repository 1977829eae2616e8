// The buffer for the device's serial number.
#ifndef ORBA_SRC_SERIAL_NUMBER_H
#define ORBA_SRC_SERIAL_NUMBER_H

#include <cstddef>

namespace ORBA::OAuth2Client {

constexpr std::size_t kSerialNumberSize = 36;

// One byte longer than the size given to the platform, so that a serial number of 36 characters
// without a NUL is terminated, too.
struct SerialNumber {
    char text[kSerialNumberSize + 1] = {};
};

}  // namespace ORBA::OAuth2Client

#endif
