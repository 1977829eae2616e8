// A device profile in a scratch folder, and in ORBA_HOST_PROFILE.
#ifndef ORBA_TESTS_PLATFORM_HOST_PROFILE_H
#define ORBA_TESTS_PLATFORM_HOST_PROFILE_H

#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

// An environment variable for the time of a test; null is not set.
class EnvironmentVariable {
  public:
    EnvironmentVariable(std::string variable, const char* value) : name(std::move(variable)) {
        if (const char* const found = ::getenv(name.c_str()); found != nullptr) {
            before = found;
        }
        set(value);
    }
    ~EnvironmentVariable() { set(before ? before->c_str() : nullptr); }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

    void set(const char* value) const {
        value == nullptr ? ::unsetenv(name.c_str()) : ::setenv(name.c_str(), value, 1);
    }

  private:
    std::string name;
    std::optional<std::string> before;
};

inline std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// A folder of the test's own, removed with all that is in it.
class ScratchFolder {
  public:
    ScratchFolder() : root(::testing::TempDir() + "/orba-platform-XXXXXX") {
        if (::mkdtemp(root.data()) == nullptr) {
            throw std::runtime_error("no scratch folder: " + root);
        }
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::string& path() const { return root; }
    std::string file(const std::string& name) const { return root + "/" + name; }

    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream stream(file(name), std::ios::binary);
        stream << content << std::flush;
        if (!stream) {
            throw std::runtime_error("cannot write " + file(name));
        }
        return file(name);
    }

    std::set<std::string> names() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(root)) {
            names.insert(entry.path().filename());
        }
        return names;
    }

  private:
    std::string root;
};

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
    HostProfile() { write(sampleProfile()); }

    const ScratchFolder& folder() const { return scratch; }
    std::string path() const { return scratch.file("device.json"); }
    std::string content() const { return contentOf(path()); }

    void write(const std::string& content) const { scratch.write("device.json", content); }
    void write(const Json::Value& document) const { write(document.toStyledString()); }

    // Writes the sample with another value in a member, or in "outer.inner".
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
    void use(const std::string& file) const { variable.set(file.c_str()); }

  private:
    ScratchFolder scratch;
    EnvironmentVariable variable{"ORBA_HOST_PROFILE", path().c_str()};
};

#endif
