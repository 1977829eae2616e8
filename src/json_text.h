// Reading JSON replies.
#ifndef ORBA_SRC_JSON_TEXT_H
#define ORBA_SRC_JSON_TEXT_H

#include <json/json.h>

namespace ORBA::OAuth2Client {

// Parses [begin, end) with its comments. Json::Reader is deprecated, but its successor refuses
// texts that servers' replies have always been allowed to be, such as one with something behind the
// value.
inline bool parseJson(const char* begin, const char* end, Json::Value& out) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
    const bool collectComments = true;
    return reader.parse(begin, end, out, collectComments);
#pragma GCC diagnostic pop
}

}  // namespace ORBA::OAuth2Client

#endif
