#include "secrets.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "failure.h"

namespace ORBA::OAuth2Session {
namespace {

constexpr std::size_t kBytes = 32;
constexpr std::size_t kCharacters = 43;  // without padding
using Bytes = std::array<unsigned char, kBytes>;

std::string base64url(const Bytes& bytes) {
    std::array<unsigned char, kCharacters + 2> text{};
    EVP_EncodeBlock(text.data(), bytes.data(), static_cast<int>(bytes.size()));
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return {text.begin(), text.begin() + kCharacters};
}

std::string sha256(const std::string& text) {
    Bytes digest{};
    if (EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha256(), nullptr) != 1) {
        fail(kUnexpectedException, "libcrypto cannot compute SHA-256");
    }
    return base64url(digest);
}

}  // namespace

std::string randomText() {
    Bytes bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        fail(kNoRandomNumbers, "libcrypto has no random numbers");
    }
    return base64url(bytes);
}

std::string challengeOf(const std::string& verifier) { return sha256(verifier); }

std::string digestOf(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all.append(std::to_string(text.size())).append(":").append(text);
    }
    return sha256(all);
}

bool equalSecrets(const std::string& one, const std::string& other) {
    return one.size() == other.size() && CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

double randomFraction() noexcept {
    std::uint32_t number = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number) != 1) {
        return 0.5;
    }
    return std::ldexp(number, -32);
}

}  // namespace ORBA::OAuth2Session
