/// @file utils.h
/// @brief Query parameters of URLs, and the device's fingerprint.
#ifndef ORBAOAUTH2CLIENT_UTILS_H
#define ORBAOAUTH2CLIENT_UTILS_H

#include <string>

#include "orbaoauth2client/export.h"

namespace ORBA::OAuth2Client {

/// @brief Undoes the percent-encoding of a text (RFC 3986, section 2.1), as curl_easy_unescape()
/// does.
///
/// "+" stays "+". A malformed escape ("%G1", a "%" at the end) is copied as it is. A decoded NUL
/// byte ("%00") ends the result.
///
/// @param str The text; shorter than 2 GiB.
/// @return The decoded text.
/// @throws CurlException code 23 when libcurl gives no handle, code 30 when it cannot decode.
/// @note Keeps no state; safe from any number of threads at once.
ORBA_OAUTH2CLIENT_API std::string decodeString(const std::string& str);

/// @brief Takes the decoded value of one parameter out of a URL.
///
/// A plain text search, deliberately not a URL parser: the value begins behind the first
/// `key` + "=" anywhere in the URL (host, path, another parameter's name and the fragment included)
/// and ends before the next "&" or at the end of the URL (so a fragment stays in the value).
///
/// @param url The URL.
/// @param key The parameter's name, compared byte by byte.
/// @return The value, decoded by decodeString(); empty when the parameter is there with no value.
/// @throws OAuth2Exception code 12 when `url` or `key` is empty or the parameter is not there.
/// @throws CurlException codes 23 and 30 from decodeString().
/// @note Keeps no state; safe from any number of threads at once.
ORBA_OAUTH2CLIENT_API std::string getParamFromURL(const std::string& url, const std::string& key);

/// @brief Gives a stable identifier of this device that does not reveal its serial number.
///
/// The serial number comes from the core platform library, the pseudonym from the usage-data
/// library; both are asked at every call, nothing is cached or retried.
///
/// @return The pseudonym as text.
/// @throws OAuth2Exception code 1 when the serial number ("Failed to get serial") or its pseudonym
/// ("Failed to pseudonymise serial") is not to be had. Deliberately not code 10.
/// @throws std::logic_error when the usage-data library reports success without a pseudonym.
/// @note As safe from several threads as the two platform functions are.
ORBA_OAUTH2CLIENT_API std::string getDeviceFingerprint();

}  // namespace ORBA::OAuth2Client

#endif
