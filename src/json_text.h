// Reading JSON replies.
#ifndef ORBA_SRC_JSON_TEXT_H
#define ORBA_SRC_JSON_TEXT_H

#include <json/json.h>

namespace ORBA::OAuth2Client {

// Json::Reader is deprecated, but its successor refuses replies that have always been accepted,
// such as those with trailing text.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
class JsonReader {
  public:
    // Parses [begin, end) with its comments.
    bool parse(const char* begin, const char* end, Json::Value& out) {
        const bool collectComments = true;
        return reader.parse(begin, end, out, collectComments);
    }

  private:
    Json::Reader reader;
};
#pragma GCC diagnostic pop

}  // namespace ORBA::OAuth2Client

#endif
