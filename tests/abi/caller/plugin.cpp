// A plugin of a service, loaded at run time with its symbols kept to itself: throws whichever
// exception it is asked for.

#include <cstring>
#include <string>

#include "orbaoauth2client/errors.h"

using namespace ORBA::OAuth2Client;  // NOLINT(google-build-using-namespace): one short file

namespace {

template <class Exception>
void throwIf(const char* wanted, const char* name) {
    if (std::strcmp(wanted, name) == 0) {
        throw Exception(7, name);
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void pluginThrow(const char* wanted) {
    throwIf<OAuth2ClientException>(wanted, "OAuth2ClientException");
    throwIf<HttpClientException>(wanted, "HttpClientException");
    throwIf<JsonException>(wanted, "JsonException");
    throwIf<CurlException>(wanted, "CurlException");
    throwIf<TovraException>(wanted, "TovraException");
    throwIf<OAuth2Exception>(wanted, "OAuth2Exception");
}
