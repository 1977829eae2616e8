// A session over the stand-ins of its unit tests. Whatever a server sends or a file holds, a call
// ends with a token or a SessionException, and two hours later the next call gets a token.
// ORBA_FUZZED: REPLY: the token endpoint's; the first byte chooses the status. CALLBACK: where the
// web login's redirects lead. FILES: the first byte chooses token file, reserve or gate; "DIGEST"
// becomes the right digest.
#include <unistd.h>

#include <filesystem>

#include "fuzz.h"
#include "stand_ins.h"

namespace {

using namespace ORBA::OAuth2Session;
using outside::Answer;
using outside::Request;

enum Fuzzed { REPLY, CALLBACK, FILES };

const std::string& folder() {
    static const std::string path = [] {
        std::string made = "/dev/shm/orba-fuzz.XXXXXX";
        fuzz::require(mkdtemp(made.data()) != nullptr, "a folder can be made");
        return made;
    }();
    return path;
}

Settings settings() {
    Settings given;
    given.authorizationEndpoint = "https://auth.test/auth";
    given.tokenEndpoint = "https://auth.test/token";
    given.clientId = "client";
    given.redirectUri = "https://app.test/cb";
    given.scope = "scope";
    given.tokenFile = folder() + "/tokens.json";
    return given;
}

void start() {
    fakes::reset();
    outside::get() = {};
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
        std::filesystem::remove_all(entry);
    }
}

const std::string& digest() {
    static const std::string text = [] {
        start();
        static_cast<void>(Session(settings()).accessToken());
        const std::string file = readFile(settings().tokenFile);
        const std::size_t begin = file.find("\"session\":\"") + 11;
        return file.substr(begin, file.find('"', begin) - begin);
    }();
    return text;
}

void prepare(char first, std::string rest) {
    const std::string tokenFile = settings().tokenFile;
    switch (ORBA_FUZZED) {
        case REPLY:
            outside::get().intercept = [first, rest](const Request& request, Answer& answer) {
                static const std::vector<long> statuses = {200, 200, 200, 201, 302,
                                                           400, 401, 403, 503};
                const auto index = static_cast<unsigned char>(first) % statuses.size();
                answer = {statuses[index], rest, "", {"Retry-After: " + rest.substr(0, 40)}};
                return request.url == "https://auth.test/token";
            };
            break;
        case CALLBACK:
            outside::get().intercept = [first, rest](const Request& request, Answer& answer) {
                std::string url = rest;
                const std::size_t state = url.find("STATE");
                if (state != std::string::npos) {
                    url.replace(state, 5, outside::get().state);
                }
                answer = {302, "", url.c_str()};
                return request.form.empty() &&
                       request.url.find(first == 'a' ? "/auth?" : "/") != std::string::npos;
            };
            break;
        default:
            const std::string key = "DIGEST";
            const std::size_t place = rest.find(key);
            if (place != std::string::npos) {
                rest.replace(place, key.size(), digest());
            }
            start();
            std::filesystem::create_directory(tokenFile + ".work");
            writeFile(first == 'g'   ? tokenFile + ".work/gate"
                      : first == 'r' ? tokenFile + ".work/reserve"
                                     : tokenFile,
                      rest);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    start();
    prepare(static_cast<char>(data[0]), fuzz::textOf(data + 1, size - 1));
    {
        Session session(settings());
        try {
            fuzz::noteFeature(
                "lifetime " +
                std::to_string(session.accessToken().expires.time_since_epoch().count() % 7));
        } catch (const SessionException& exception) {
            fuzz::require(exception.errCode() != 0, "an exception has a code");
            fuzz::require(exception.remedy() != Remedy::cancelled, "nobody cancelled it");
            fuzz::noteFeature(std::to_string(exception.errCode()) + exception.serverError());
        }
        outside::get().intercept = nullptr;
        outside::get().advance(std::chrono::hours(2));
        fuzz::require(!session.accessToken().text.empty(), "the session heals itself");
    }
    fuzz::requireNothingHeld();
    return 0;
}
