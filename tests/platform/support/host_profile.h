// A device profile in a scratch folder, and in ORBA_HOST_PROFILE.
#ifndef ORBA_TESTS_PLATFORM_HOST_PROFILE_H
#define ORBA_TESTS_PLATFORM_HOST_PROFILE_H

#include <json/json.h>

#include <string>

#include "environment.h"
#include "scratch_folder.h"

inline Json::Value sampleProfile() {
    Json::Value profile;
    profile["serial_number"] = "ORBA-0123456789";
    profile["user_agent"] = "OrbaNAS/7.2 (host)";
    profile["account"]["id"] = "account-1";
    profile["account"]["auth_key"] = "key-1";
    profile["account_service"] = "account.localhost:8443";
    profile["pkce_access_token"] = "token-1";
    return profile;
}

class HostProfile {
  public:
    HostProfile() : variable_("ORBA_HOST_PROFILE", path()) { write(sampleProfile()); }

    const ScratchFolder& folder() const { return folder_; }
    std::string path() const { return folder_.file("device.json"); }
    std::string content() const { return contentOf(path()); }

    void write(const std::string& content) const { folder_.write("device.json", content); }
    void write(const Json::Value& document) const { write(document.toStyledString()); }

    /** Writes the sample with another value in a member, or in "outer.inner". */
    void writeWith(const std::string& member, const Json::Value& value) const {
        Json::Value document = sampleProfile();
        Json::Path("." + member).make(document) = value;
        write(document);
    }
    void writeWithout(const std::string& member) const {
        Json::Value document = sampleProfile();
        const std::size_t dot = member.find('.');
        if (dot == std::string::npos) {
            document.removeMember(member);
        } else {
            document[member.substr(0, dot)].removeMember(member.substr(dot + 1));
        }
        write(document);
    }
    void use(const std::string& path) const { variable_.set(path); }

  private:
    ScratchFolder folder_;
    EnvironmentVariable variable_;
};

#endif  // ORBA_TESTS_PLATFORM_HOST_PROFILE_H
