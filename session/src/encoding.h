// Percent-encoding (RFC 3986) and the parameters of a query.
#ifndef ORBA_SESSION_ENCODING_H
#define ORBA_SESSION_ENCODING_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ORBA::OAuth2Session {

std::string percentEncode(const std::string& text);

using Parameters = std::vector<std::pair<const char*, std::string>>;

// "name=value&..." in the given order, values encoded.
std::string formEncode(const Parameters& parameters);

// The decoded value of the first parameter of that name in the URL's query; "+" is a blank.
std::optional<std::string> queryParameter(const std::string& url, const std::string& name);

}  // namespace ORBA::OAuth2Session

#endif
