/**
 * @file
 * @brief What the host edition's klib offers to the host edition's other libraries.
 */
#ifndef KLIB_KLIB_HOST_H
#define KLIB_KLIB_HOST_H

#include <klib/klib.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * @brief Walks through a table, in ascending byte order of the keys.
 * @param table The table, not null.
 * @param key   The key that the last call returned; null to begin.
 * @param value Receives the value of the returned key.
 * @return The next key, or null behind the last one. Key and value stay the table's own.
 */
const char* KLIBHostSzHashNext(const KLIBCSzHash* table, const char* key, const char** value);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* KLIB_KLIB_HOST_H */
