/// @file orbaudc.h
/// @brief The manufacturer's usage-data library: pseudonyms of devices.
///
/// Usable from C11 and C++. No function throws.
#ifndef ORBAUDC_ORBAUDC_H
#define ORBAUDC_ORBAUDC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/// @brief Makes the pseudonym of a serial number: the same for the same serial number on every
/// call, and not to be traced back to it.
/// @param pseudonym Receives the address of the NUL-terminated pseudonym. The text stays the
/// library's own: the caller never releases it, and copies it before the calling
/// thread's next call, which overwrites it, and before the thread ends.
/// @param serial The serial number; it need not be NUL-terminated.
/// @param length The serial number's length in bytes.
/// @return 0, or non-zero on failure (a null argument or a length of 0, too); `*pseudonym` is then
/// unchanged.
int ORBAUDCPseudonymise(char** pseudonym, const char* serial, size_t length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
