// Fleet Lens: a small device service that signs the device in with its linked account.
//
// It does what the library leaves to its caller: it makes verifier, challenge and state, builds the
// authorization URL, compares the state of the answer, keeps tokens and cookies to itself.

#include <cxxabi.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"

namespace {

namespace orba = ORBA::OAuth2Client;
using Bytes = std::vector<unsigned char>;

const std::string kClientId = "fleet-lens";
const std::string kRedirectUri = "https://fleet-lens.localhost/callback";
const std::string kScope = "openid offline_access fleet.read";

// What proves that the answer belongs to our request: `state` (RFC 6749, section 10.12), and the
// code verifier (RFC 7636).
struct Secrets {
    std::string state;
    std::string verifier;
    std::string challenge;
};

// base64url without padding (RFC 7636, appendix A).
std::string base64url(const Bytes& bytes) {
    Bytes base64(4 * (bytes.size() / 3 + 1) + 1);
    EVP_EncodeBlock(base64.data(), bytes.data(), static_cast<int>(bytes.size()));
    std::string text;
    for (const unsigned char c : base64) {
        if (c == '=' || c == '\0') {
            break;
        }
        text += c == '+' ? '-' : c == '/' ? '_' : static_cast<char>(c);
    }
    return text;
}

std::string randomText() {
    Bytes bytes(32);
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("no secure random numbers");
    }
    return base64url(bytes);
}

std::string sha256(const std::string& text) {
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    return base64url(digest);
}

Secrets makeSecrets() {
    const std::string verifier = randomText();
    return {randomText(), verifier, sha256(verifier)};
}

// The library puts values into its forms as they are, so they must come encoded.
std::string encoded(const std::string& value) {
    return orba::HttpClient::getEncodeQuery({{"", value}}).substr(1);
}

std::string authorizationUrl(const std::string& endpoint, const Secrets& secrets) {
    return endpoint + "?" +
           orba::HttpClient::getEncodeQuery({{"client_id", kClientId},
                                             {"code_challenge", secrets.challenge},
                                             {"code_challenge_method", "S256"},
                                             {"redirect_uri", kRedirectUri},
                                             {"response_type", "code"},
                                             {"scope", kScope},
                                             {"state", secrets.state}});
}

// An empty file that nobody else can read, before the first secret stands in it.
void createPrivateFile(const std::string& path) {
    const int file =
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    const bool created = file >= 0 && fchmod(file, 0600) == 0;
    if (file >= 0) {
        close(file);
    }
    if (!created) {
        throw std::runtime_error("cannot create the file " + path);
    }
}

// The refresh prints the whole reply, tokens included; a service's standard output often ends in
// a log.
struct SilentStandardOutput {
    std::streambuf* const before = std::cout.rdbuf(nullptr);
    SilentStandardOutput() = default;
    ~SilentStandardOutput() { std::cout.rdbuf(before); }
    SilentStandardOutput(const SilentStandardOutput&) = delete;
    SilentStandardOutput& operator=(const SilentStandardOutput&) = delete;
};

// The login gives the callback URL, or the bare code when the account service granted it. A grant
// does not carry our challenge, so its code is not bound to it and goes without a verifier.
void takeCode(const std::string& result, const Secrets& secrets,
              orba::PKCE::ParamGetAccessToken& exchange) {
    if (result.rfind(kRedirectUri, 0) != 0) {
        std::cout << "the account service granted a code" << std::endl;
        exchange.code = encoded(result);
        return;
    }
    if (orba::getParamFromURL(result, "state") != secrets.state) {
        throw std::runtime_error("the callback carries another state than our request");
    }
    std::cout << "the web login led to the callback, with our state" << std::endl;
    exchange.code = encoded(orba::getParamFromURL(result, "code"));
    exchange.codeVerifier = secrets.verifier;
}

void signIn(const std::string& authorizationEndpoint, const std::string& tokenEndpoint,
            const std::string& tokenFile) {
    const std::string cookies = tokenFile + ".cookies";
    const std::string newTokens = tokenFile + ".new";
    createPrivateFile(cookies);
    createPrivateFile(newTokens);

    const Secrets secrets = makeSecrets();
    orba::OAuth2 login(authorizationUrl(authorizationEndpoint, secrets), cookies);
    orba::PKCE::ParamGetAccessToken exchange = {newTokens, tokenEndpoint,        kClientId, "",
                                                "",        encoded(kRedirectUri)};
    takeCode(login.loginServiceByOrbaAccount(), secrets, exchange);

    orba::PKCE::getAccessToken(exchange);
    // The library does not report a token file that it cannot write.
    if (std::filesystem::file_size(newTokens) == 0) {
        throw std::runtime_error("the tokens were not stored in " + newTokens);
    }
    std::filesystem::rename(newTokens, tokenFile);
    std::filesystem::remove(cookies);
    std::cout << "exchanged the code for tokens, stored in " << tokenFile << std::endl;

    {
        const SilentStandardOutput silent;
        orba::PKCE::refreshAccessToken({tokenFile, tokenEndpoint, kClientId});
    }
    std::cout << "refreshed the tokens" << std::endl;
    std::cout << "device fingerprint " << orba::getDeviceFingerprint() << std::endl;
}

// One line, whatever the text holds: it may quote a server's reply.
int fail(const std::string& code, const std::exception& exception) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(typeid(exception).name(), nullptr, nullptr, &status), &std::free);
    std::string text = exception.what();
    for (char& c : text) {
        c = static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
    std::cerr << "fleet-lens: " << code << (name ? name.get() : "exception") << ": " << text
              << '\n';
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: fleet-lens AUTHORIZATION-ENDPOINT TOKEN-ENDPOINT TOKEN-FILE\n";
        return 2;
    }
    try {
        signIn(argv[1], argv[2], argv[3]);
        return EXIT_SUCCESS;
    } catch (const orba::OAuth2ClientException& exception) {
        return fail("code " + std::to_string(exception.errCode()) + ", ", exception);
    } catch (const std::exception& exception) {
        return fail("", exception);
    }
}
