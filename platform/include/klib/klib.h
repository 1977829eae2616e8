/// @file klib.h
/// @brief The device's core library: files, serial number, string tables.
///
/// Usable from C11 and C++. No function throws; all of them may be called from several threads,
/// a table by one thread at a time.
#ifndef KLIB_KLIB_H
#define KLIB_KLIB_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/// @brief A table from text to text. Opaque; made by KLIBCSzHashAlloc().
typedef struct KLIBCSzHash KLIBCSzHash;

/// @brief Creates the file when it is missing; the content of an existing file stays as it is.
/// @param path The file's path, NUL-terminated.
/// @return 0, or non-zero when the file cannot be created or opened for writing.
int KLIBCFileTouch(const char* path);

/// @brief Writes the device's serial number as NUL-terminated text.
/// @param serial The caller's buffer.
/// @param size The buffer's size in bytes.
/// @return 0, or a negative status; the buffer is then unchanged.
int KLIBGetSerialNumber(char* serial, size_t size);

/// @brief Makes an empty table.
/// @param size How many entries to expect: a hint, no limit.
/// @return The table, owned by the caller and released with KLIBCSzHashFree(); null when memory is
/// exhausted.
KLIBCSzHash* KLIBCSzHashAlloc(int size);

/// @brief Stores a copy of the pair; an existing value of the key is replaced.
/// @param table The address of the caller's handle, which may be updated to a larger table.
/// @param key NUL-terminated text.
/// @param value NUL-terminated text.
/// @return 0, or a negative status; the table is then unchanged.
int KLIBCSzHashSetValue(KLIBCSzHash** table, const char* key, const char* value);

/// @brief Releases the table with all its copies.
/// @param table The handle; null is allowed.
void KLIBCSzHashFree(KLIBCSzHash* table);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
