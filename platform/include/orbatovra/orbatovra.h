/// @file orbatovra.h
/// @brief The manufacturer's account-service library: the device's account and its HTTPS requests.
///
/// Usable from C11 and C++. No function throws. A function that fails leaves its cause in the
/// library's error number, see ORBATOVRAErrGet().
#ifndef ORBATOVRA_ORBATOVRA_H
#define ORBATOVRA_ORBATOVRA_H

#include <assert.h>
#include <klib/klib.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/// @brief The account that the device is linked to; the texts are NUL-terminated.
typedef struct TovraAccountRecord {
    char reserved0[8192];
    char id[4096];       ///< the account's identifier
    char authKey[4096];  ///< the key that authenticates the device for this account
    char reserved1[3872];
} TovraAccountRecord;

/// @brief Where the account service is; the text is NUL-terminated.
typedef struct TovraServerConfigRecord {
    char reserved[2048];
    char server[2048];  ///< host name or address, with ":port" where it is not the default
} TovraServerConfigRecord;

/// @brief One request to the account service. Everything that it points to stays the caller's.
typedef struct TovraHttpsRequestRecord {
    const char* server;             ///< as in TovraServerConfigRecord
    const char* path;               ///< the URL's path, without a leading slash
    KLIBCSzHash* parameters;        ///< the form's fields
    unsigned char reserved[20256];  ///< zero
    int32_t option0;                ///< 0
    int32_t option1;                ///< 1
} TovraHttpsRequestRecord;

/// @brief The reply; all zero before its first use, released with ORBATOVRAHttpsResponseFree().
typedef struct TovraHttpsResponseRecord {
    unsigned char reserved[16];
    char* body;  ///< the reply's body, NUL-terminated; null when there is none
} TovraHttpsResponseRecord;

/* The library that fills these records is built apart from its callers, so the layout is fixed. */
static_assert(sizeof(TovraAccountRecord) == 20256, "account record: size");
static_assert(offsetof(TovraAccountRecord, id) == 8192, "account record: id");
static_assert(offsetof(TovraAccountRecord, authKey) == 12288, "account record: authKey");
static_assert(sizeof(TovraServerConfigRecord) == 4096, "server configuration record: size");
static_assert(offsetof(TovraServerConfigRecord, server) == 2048,
              "server configuration record: server");
static_assert(sizeof(TovraHttpsRequestRecord) == 20288, "request record: size");
static_assert(offsetof(TovraHttpsRequestRecord, server) == 0, "request record: server");
static_assert(offsetof(TovraHttpsRequestRecord, path) == 8, "request record: path");
static_assert(offsetof(TovraHttpsRequestRecord, parameters) == 16, "request record: parameters");
static_assert(offsetof(TovraHttpsRequestRecord, option0) == 20280, "request record: option0");
static_assert(offsetof(TovraHttpsRequestRecord, option1) == 20284, "request record: option1");
static_assert(sizeof(TovraHttpsResponseRecord) == 24, "response record: size");
static_assert(offsetof(TovraHttpsResponseRecord, body) == 16, "response record: body");

/// @brief Sets the library's last error number.
/// @param code The number; 0 clears it.
void ORBATOVRAErrSet(unsigned int code);

/// @brief Tells why the last failing call failed.
/// @return The library's error number, 0 when none is set. A call that succeeds does not clear it.
unsigned int ORBATOVRAErrGet(void);

/// @brief Writes the device's user-agent string as NUL-terminated text.
/// @param name The caller's buffer.
/// @param size The buffer's size in bytes.
/// @return 0, or non-zero on failure; the buffer is then unchanged.
int ORBATOVRAUserAgentNameGet(char* name, size_t size);

/// @brief Fills the record with the account that the device is linked to.
/// @param account The caller's record.
/// @return 0, or a negative status (no account, or it cannot be read); the record is then
/// unchanged.
int ORBATOVRAAccountGet(TovraAccountRecord* account);

/// @brief Fills the record with the account service's address.
/// @param config The caller's record.
/// @return 0, or a negative status; the record is then unchanged.
int ORBATOVRAServerConfigGet(TovraServerConfigRecord* config);

/// @brief Sends the request as an HTTPS form POST and stores the reply's body.
///
/// Blocks until the reply is there or the request has failed.
///
/// @param request The request; unchanged.
/// @param response The caller's record, all zero; to be released with ORBATOVRAHttpsResponseFree()
/// whatever the result is.
/// @return 0, or a negative status; the response then holds nothing.
int ORBATOVRAHttpsRequestSend(const TovraHttpsRequestRecord* request,
                              TovraHttpsResponseRecord* response);

/// @brief Releases what a send stored in the record, and clears it.
/// @param response The record; it may be all zero or released before, and null is allowed.
void ORBATOVRAHttpsResponseFree(TovraHttpsResponseRecord* response);

/// @brief Removes the device's link to its account.
/// @return 0, or a negative status; the link then stands as it was.
int ORBATOVRAAccountRemove(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
