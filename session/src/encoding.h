// Texts in and out: percent-encoding (RFC 3986), the parameters of a query, JSON.
#ifndef ORBA_SESSION_ENCODING_H
#define ORBA_SESSION_ENCODING_H

#include <json/value.h>

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

// Nothing unless the whole text is one JSON object.
std::optional<Json::Value> parseObject(const std::string& text);

// A member's text; empty if it has none.
std::string textMember(const Json::Value& object, const char* name);

// One line without its end.
std::string toLine(const Json::Value& object);

}  // namespace ORBA::OAuth2Session

#endif
