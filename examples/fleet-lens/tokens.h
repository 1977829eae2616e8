// The token file: nobody else reads it, one process at a time renews it, and nothing of it is lost.
#ifndef FLEET_LENS_TOKENS_H
#define FLEET_LENS_TOKENS_H

#include <fcntl.h>
#include <json/json.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/pkce.h"

namespace fleet_lens {

namespace orba = ORBA::OAuth2Client;

// Those who renew the same tokens wait for each other, in all processes.
class Lock {
  public:
    explicit Lock(const std::string& tokenFile)
        : file(open((tokenFile + ".lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                    0600)) {
        if (file < 0 || flock(file, LOCK_EX) != 0) {
            throw std::runtime_error("cannot lock " + tokenFile + ".lock");
        }
    }
    ~Lock() { close(file); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    const int file;
};

// A folder beside the token file for what is not finished. Only we may enter it, and nothing of it
// stays.
class PrivateFolder {
  public:
    explicit PrivateFolder(const std::string& tokenFile) : path(tokenFile + ".XXXXXX") {
        if (mkdtemp(path.data()) == nullptr) {
            throw std::runtime_error("cannot create the folder " + path);
        }
    }
    ~PrivateFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    std::string file(const std::string& name) const { return path + "/" + name; }

  private:
    std::string path;
};

// What the library prints, the reply with its tokens, goes nowhere else: a service's standard
// output often ends in a log. No other thread should print meanwhile.
class CapturedOutput {
  public:
    CapturedOutput() : before(std::cout.rdbuf(captured.rdbuf())) {}
    ~CapturedOutput() { std::cout.rdbuf(before); }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    Json::Value json() const {
        Json::Value value;
        std::istringstream(captured.str()) >> value;
        return value;
    }

  private:
    std::ostringstream captured;
    std::streambuf* const before;
};

inline Json::Value readTokens(const std::string& path) {
    std::ifstream file(path);
    Json::Value tokens;
    file >> tokens;
    return tokens;
}

inline void writeTokens(const std::string& path, const Json::Value& tokens) {
    std::ofstream file(path, std::ios::trunc);
    file << tokens << std::endl;
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

// The library puts values into its forms as they are, so they must come encoded.
inline std::string encoded(const std::string& value) {
    return orba::HttpClient::getEncodeQuery({{"", value}}).substr(1);
}

// Any JSON counts as a good reply for the library, and a file that it could not write as well.
inline void requireAccessToken(const Json::Value& tokens) {
    if (!tokens.isMember("access_token")) {
        throw std::runtime_error("no access token came, or it could not be written");
    }
}

// Refreshes a copy, so that a refresh that fails leaves the tokens as they were.
inline void refresh(const std::string& tokenEndpoint, const std::string& tokenFile,
                    const std::string& clientId) {
    const Lock lock(tokenFile);
    const PrivateFolder folder(tokenFile);
    const std::string newTokens = folder.file("tokens");
    Json::Value tokens = readTokens(tokenFile);
    Json::Value form = tokens;
    form["refresh_token"] = encoded(tokens["refresh_token"].asString());
    writeTokens(newTokens, form);  // fails here, before the refresh token is spent

    const Json::Value reply = [&] {
        const CapturedOutput output;
        orba::PKCE::refreshAccessToken({newTokens, tokenEndpoint, clientId});
        return output.json();
    }();
    requireAccessToken(reply);
    for (const std::string& name : reply.getMemberNames()) {
        tokens[name] = reply[name];  // a refresh token that the reply does not carry stays
    }
    writeTokens(newTokens, tokens);
    std::filesystem::rename(newTokens, tokenFile);
    std::cout << "refreshed the tokens" << std::endl;
}

}  // namespace fleet_lens

#endif
