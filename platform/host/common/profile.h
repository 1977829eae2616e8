/**
 * @file
 * @brief The device profile that the host edition's libraries read.
 *
 * Linked into each library that needs it; none of it is exported.
 */
#ifndef ORBA_HOST_PROFILE_H
#define ORBA_HOST_PROFILE_H

#include <json/json.h>

#include <cstddef>
#include <optional>
#include <string>

#include "failure.h"

namespace orba_host {

/** @return The document, or nothing when the text is no JSON object in UTF-8. */
std::optional<Json::Value> parseJsonObject(const std::string& text);

/** One reading of the profile. */
class Profile {
  public:
    /**
     * @brief Finds and reads the profile: `ORBA_HOST_PROFILE`, else
     *        `$XDG_CONFIG_HOME/orba-host/device.json`, else `$HOME/.config/orba-host/device.json`.
     * @throws Failure One of the ORBA_HOST_PROFILE_ numbers.
     */
    static Profile read();

    const std::string& path() const { return path_; }
    const Json::Value& document() const { return document_; }

    /**
     * @param name A member's name, or "outer.inner" for a member of a member.
     * @return The member's text, which is not empty and holds no control character.
     * @throws Failure ORBA_HOST_MEMBER_MISSING or ORBA_HOST_MEMBER_TYPE.
     */
    std::string text(const std::string& name) const;

    /** @throws Failure As above, or ORBA_HOST_MEMBER_TOO_LONG when text and NUL exceed `size`. */
    std::string text(const std::string& name, std::size_t size) const;

  private:
    Profile(std::string path, Json::Value document);
    const Json::Value* find(const std::string& name) const;
    Failure failure(OrbaHostError number, const std::string& name, const char* what) const;

    std::string path_;
    Json::Value document_;
};

}  // namespace orba_host

#endif  // ORBA_HOST_PROFILE_H
