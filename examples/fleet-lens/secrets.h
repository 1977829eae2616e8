// What proves that the answer to a sign-in belongs to this request and reached nobody else.
#ifndef FLEET_LENS_SECRETS_H
#define FLEET_LENS_SECRETS_H

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace fleet_lens {

using Bytes = std::vector<unsigned char>;

// `state` is that of RFC 6749, section 10.12; verifier and challenge are those of RFC 7636.
struct Secrets {
    std::string state;
    std::string verifier;
    std::string challenge;
};

// base64url without padding (RFC 7636, appendix A).
inline std::string base64url(const Bytes& bytes) {
    Bytes base64(4 * (bytes.size() / 3 + 1) + 1);
    const int length = EVP_EncodeBlock(base64.data(), bytes.data(), static_cast<int>(bytes.size()));
    std::string text(base64.begin(), base64.begin() + length);
    text.erase(text.find_last_not_of('=') + 1);
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}

inline std::string randomText() {
    Bytes bytes(32);
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("no secure random numbers");
    }
    return base64url(bytes);
}

inline std::string sha256(const std::string& text) {
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    return base64url(digest);
}

inline Secrets makeSecrets() {
    const std::string verifier = randomText();
    return {randomText(), verifier, sha256(verifier)};
}

}  // namespace fleet_lens

#endif
