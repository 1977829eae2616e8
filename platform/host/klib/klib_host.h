// What the host edition's klib offers to the host edition's other libraries.
#ifndef KLIB_KLIB_HOST_H
#define KLIB_KLIB_HOST_H

#include <klib/klib.h>

extern "C" {
#pragma GCC visibility push(default)

// Walks through a table, in ascending byte order of the keys: returns the key after `key` (null to
// begin) and stores its value, or returns null behind the last one. Both stay the table's own.
const char* KLIBHostSzHashNext(const KLIBCSzHash* table, const char* key, const char** value);

#pragma GCC visibility pop
}

#endif
