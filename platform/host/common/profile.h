// The device profile that the host edition's libraries read. Linked into each library that needs
// it; none of it is exported.
#ifndef ORBA_HOST_PROFILE_H
#define ORBA_HOST_PROFILE_H

#include <json/json.h>

#include <cstddef>
#include <optional>
#include <string>

#include "failure.h"

namespace orba_host {

// Returns nothing when the text is no JSON object in UTF-8.
std::optional<Json::Value> parseJsonObject(const std::string& text);

// One reading of the profile.
class Profile {
  public:
    // Reads `ORBA_HOST_PROFILE`, else `$XDG_CONFIG_HOME/orba-host/device.json`, else
    // `$HOME/.config/orba-host/device.json`. Throws a Failure with an ORBA_HOST_PROFILE_ number.
    static Profile read();

    const std::string& path() const { return file; }
    const Json::Value& document() const { return members; }

    // Returns the text of a member, or of a member's member ("outer.inner"), which is not empty and
    // holds no control character. Throws a Failure with an ORBA_HOST_MEMBER_ number.
    std::string text(const std::string& name) const;

    // The same for a text that must fit, with its NUL, into `size` bytes.
    std::string text(const std::string& name, std::size_t size) const;

  private:
    Profile(std::string path, Json::Value document);
    const Json::Value* find(const std::string& name) const;
    Failure failure(OrbaHostError number, const std::string& name, const char* what) const;

    std::string file;
    Json::Value members;
};

}  // namespace orba_host

#endif
