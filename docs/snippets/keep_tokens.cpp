// Refreshes the tokens of a token file and loses none: not when the reply carries no refresh token,
// not when the file cannot be written, not when another process refreshes at the same time.

#include <fcntl.h>
#include <json/json.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/pkce.h"

namespace {

namespace orba = ORBA::OAuth2Client;

// Those who refresh the same tokens wait for each other, in all processes.
class Lock {
  public:
    explicit Lock(const std::string& path)
        : file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)) {
        if (file < 0 || flock(file, LOCK_EX) != 0) {
            throw std::runtime_error("cannot lock " + path);
        }
    }
    ~Lock() { close(file); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    const int file;
};

// What the library prints, the reply with its tokens, goes nowhere else.
class CapturedOutput {
  public:
    CapturedOutput() : before(std::cout.rdbuf(captured.rdbuf())) {}
    ~CapturedOutput() { std::cout.rdbuf(before); }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    std::istringstream text() const { return std::istringstream(captured.str()); }

  private:
    std::ostringstream captured;
    std::streambuf* const before;
};

Json::Value readTokens(const std::string& path) {
    std::ifstream file(path);
    Json::Value tokens;
    file >> tokens;
    return tokens;
}

void writeTokens(const std::string& path, const Json::Value& tokens) {
    std::ofstream file(path, std::ios::trunc);
    file << tokens << std::endl;
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

Json::Value requestTokens(const std::string& tokenFile, const std::string& tokenEndpoint,
                          const std::string& clientId) {
    const CapturedOutput output;
    orba::PKCE::refreshAccessToken({tokenFile, tokenEndpoint, clientId});
    Json::Value reply;
    output.text() >> reply;
    return reply;
}

void refresh(const std::string& tokenFile, const std::string& tokenEndpoint,
             const std::string& clientId) {
    const Lock lock(tokenFile + ".lock");
    const std::string newFile = tokenFile + ".new";
    Json::Value tokens = readTokens(tokenFile);
    writeTokens(newFile, tokens);  // fails here, before the refresh token is spent

    const Json::Value reply = requestTokens(newFile, tokenEndpoint, clientId);
    if (!reply.isMember("access_token")) {
        throw std::runtime_error("the reply holds no access token");
    }
    for (const std::string& name : reply.getMemberNames()) {
        tokens[name] = reply[name];  // a refresh token that the reply does not carry stays
    }
    writeTokens(newFile, tokens);
    std::filesystem::rename(newFile, tokenFile);
}

const char* whatNext(int code) {
    switch (code) {
        case 14:  // the server refuses the code or the refresh token
            return "sign in again";
        case 15:  // the server or the network may recover
        case 17:
        case 26:
        case 27:
        case 31:
        case 32:
            return "try again later";
        case 19:  // no account, or an account that is no longer accepted
        case 22:
            return "ask the owner to link the account";
        default:
            return "report it";
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: keep_tokens TOKEN-FILE TOKEN-ENDPOINT CLIENT-ID\n";
        return 2;
    }
    umask(077);                         // files that the library makes are ours alone
    setlogmask(LOG_UPTO(LOG_WARNING));  // its debug lines, with their URLs, stay in the process
    try {
        refresh(argv[1], argv[2], argv[3]);
        return EXIT_SUCCESS;
    } catch (const orba::OAuth2ClientException& exception) {
        std::cerr << exception.errCode() << ": " << exception.what() << '\n'
                  << whatNext(exception.errCode()) << '\n';
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << '\n';
    }
    return EXIT_FAILURE;
}
