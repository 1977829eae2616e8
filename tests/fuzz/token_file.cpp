// Any token file into PKCE::refreshAccessToken(). Input: the file.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "../probe/captured_output.h"
#include "fakes.h"
#include "fuzz.h"
#include "orbaoauth2client/pkce.h"

namespace {

namespace PKCE = ORBA::OAuth2Client::PKCE;

constexpr char kReply[] = R"({"access_token":"a2","expires_in":3600,"refresh_token":"r2"})";
constexpr char kStoredReply[] =
    "{\n\t\"access_token\" : \"a2\",\n\t\"expires_in\" : 3600,\n\t\"refresh_token\" : \"r2\"\n}\n";

// In memory, so that an input costs no disk access and leaves nothing behind.
class TokenFile {
  public:
    explicit TokenFile(const std::string& content) {
        fuzz::require(descriptor >= 0, "the token file can be made (memfd_create)");
        std::ofstream(path(), std::ios::trunc) << content;
        fuzz::requireEqual(content, read(), "the token file as it was written");
    }
    ~TokenFile() { close(descriptor); }
    TokenFile(const TokenFile&) = delete;
    TokenFile& operator=(const TokenFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor); }

    std::string read() const {
        std::ifstream file(path());
        return {std::istreambuf_iterator<char>(file), {}};
    }

  private:
    int descriptor = memfd_create("token", MFD_CLOEXEC);
};

// The refresh token in the file; jsoncpp's exception when there is none to be read.
std::string refreshTokenIn(const std::string& content) {
    std::istringstream file(content);
    Json::Value stored;
    file >> stored;
    return stored["refresh_token"].asString();
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

template <class Operation>
std::string jsonFailureOf(const Operation& operation) {
    try {
        operation();
    } catch (const Json::Exception& exception) {
        std::string kind = exception.what();
        kind.erase(std::remove_if(kind.begin(), kind.end(), isDigit), kind.end());
        fuzz::noteFeature(kind);  // what, but not where
        return std::string("jsoncpp: ") + exception.what();
    }
    return "";
}

void requireOneRequest(const std::string& refreshToken) {
    fuzz::requireEqual<std::size_t>(1, fakes::world().requests.size(), "requests");
    const auto& options = fakes::world().requests[0].options;
    fuzz::requireEqual(
        fuzz::upToNul("grant_type=refresh_token&refresh_token=" + refreshToken + "&client_id=cid"),
        options.at(CURLOPT_POSTFIELDS), "the form body");
    fuzz::requireEqual<std::string>("https://auth.test/token", options.at(CURLOPT_URL), "the URL");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fakes::reset();
    const std::string content = fuzz::textOf(data, size);
    std::string refreshToken;
    const std::string expectedFailure =
        jsonFailureOf([&] { refreshToken = refreshTokenIn(content); });

    const TokenFile file(content);
    fakes::world().transfers = {{CURLE_OK, 200, kReply, {}, {}}};
    const CapturedOutput output;
    const std::string failure = jsonFailureOf([&] {
        PKCE::refreshAccessToken({file.path(), "https://auth.test/token", "cid"});
    });

    fuzz::requireEqual(expectedFailure, failure, "jsoncpp's exception");
    if (failure.empty()) {
        requireOneRequest(refreshToken);
        fuzz::requireEqual<std::string>(kStoredReply, file.read(), "the new token file");
        fuzz::requireEqual<std::string>(kStoredReply, output.text(), "what is printed");
    } else {
        fuzz::require(fakes::world().calls.empty(), "nothing is done about a bad token file");
        fuzz::requireEqual(content, file.read(), "the bad token file");
        fuzz::require(output.text().empty(), "nothing is printed about a bad token file");
    }
    fuzz::requireNothingHeld();
    return 0;
}
