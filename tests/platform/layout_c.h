/* The records as C sees them. */
#ifndef ORBA_TESTS_PLATFORM_LAYOUT_C_H
#define ORBA_TESTS_PLATFORM_LAYOUT_C_H

#include <orbatovra/orbatovra.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Fills every field that the library and its callers use, from C. */
void fillRecords(TovraAccountRecord* account, TovraServerConfigRecord* config,
                 TovraHttpsRequestRecord* request, TovraHttpsResponseRecord* response);

#ifdef __cplusplus
}
#endif

#endif /* ORBA_TESTS_PLATFORM_LAYOUT_C_H */
