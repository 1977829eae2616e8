/// @file utils.h
/// @brief Query parameters of URLs, and the device's fingerprint.
#ifndef ORBAOAUTH2CLIENT_UTILS_H
#define ORBAOAUTH2CLIENT_UTILS_H

#include <string>

#include "orbaoauth2client/export.h"

namespace ORBA::OAuth2Client {

/// @brief Decodes percent-encoded text (RFC 3986, section 2.1), as curl_easy_unescape() does.
///
/// "+" is not decoded. A malformed escape ("%G1", a "%" at the end) is copied unchanged. A decoded
/// NUL byte ("%00") ends the result.
///
/// @param str The text; shorter than 2 GiB.
/// @return The decoded text.
/// @throws CurlException code 23 if libcurl returns no handle, code 30 if it cannot decode.
/// @note Stateless; can be called from any number of threads at once.
ORBA_OAUTH2CLIENT_API std::string decodeString(const std::string& str);

/// @brief Returns the decoded value of one parameter of a URL.
///
/// This is a text search, so that URLs of any form are accepted: the value begins after the first
/// `key` + "=" anywhere in the URL (in the host, the path, the name of another parameter, the
/// fragment) and ends before the next "&" or at the end of the URL (the fragment is part of it).
///
/// @param url The URL.
/// @param key The parameter's name, case-sensitive.
/// @return The value, decoded by decodeString(); may be empty.
/// @throws OAuth2Exception code 12 if `url` or `key` is empty or the parameter is missing.
/// @throws CurlException codes 23 and 30 from decodeString().
/// @note Stateless; can be called from any number of threads at once.
ORBA_OAUTH2CLIENT_API std::string getParamFromURL(const std::string& url, const std::string& key);

/// @brief Returns a stable identifier of this device that does not reveal its serial number.
///
/// Each call gets the serial number from the core platform library and its pseudonym from the
/// usage-data library.
///
/// @return The pseudonym as text.
/// @throws OAuth2Exception code 1 if the serial number ("Failed to get serial") or its pseudonym
/// ("Failed to pseudonymise serial") is unavailable; code 10 is that of OAuth2::loginIDP() only.
/// @throws std::logic_error if the usage-data library reports success without a pseudonym.
/// @note As thread-safe as the two platform functions.
ORBA_OAUTH2CLIENT_API std::string getDeviceFingerprint();

}  // namespace ORBA::OAuth2Client

#endif
