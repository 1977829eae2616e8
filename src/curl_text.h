// Owners of what libcurl's escaping functions use and return.
#ifndef ORBA_SRC_CURL_TEXT_H
#define ORBA_SRC_CURL_TEXT_H

#include <curl/curl.h>

#include <memory>

#include "error_code.h"
#include "log.h"
#include "orbaoauth2client/errors.h"

namespace ORBA::OAuth2Client {

struct CurlHandleCleanup {
    void operator()(void* curl) const { curl_easy_cleanup(curl); }
};
using EscapeHandle = std::unique_ptr<void, CurlHandleCleanup>;

struct CurlFree {
    void operator()(char* text) const { curl_free(text); }
};
using CurlText = std::unique_ptr<char, CurlFree>;

// A handle for escaping only, never for a transfer.
inline EscapeHandle makeEscapeHandle(const Log& log, int line = __builtin_LINE()) {
    EscapeHandle handle(curl_easy_init());
    if (handle == nullptr) {
        log.fail<CurlException>(kCurlInitFailed, "Error: Failed to init curl.", line);
    }
    return handle;
}

}  // namespace ORBA::OAuth2Client

#endif
