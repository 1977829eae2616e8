#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <orbaudc/orbaudc.h>

#include <array>
#include <string_view>

namespace {

// Fixed, so that a serial number has the same pseudonym on every machine. Whoever knows the key can
// search for the serial number: the host edition's pseudonyms are for trying things out.
constexpr std::string_view kKey = "orba host edition pseudonym key 1";

constexpr std::size_t kDigestBytes = 32;  // SHA-256

}  // namespace

int ORBAUDCPseudonymise(char** pseudonym, const char* serial, size_t length) {
    thread_local std::array<char, 2 * kDigestBytes + 1> text;
    if (pseudonym == nullptr || serial == nullptr || length == 0) {
        return -1;
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned int digestBytes = 0;
    if (HMAC(EVP_sha256(), kKey.data(), static_cast<int>(kKey.size()),
             reinterpret_cast<const unsigned char*>(serial), length, digest.data(),
             &digestBytes) == nullptr ||
        digestBytes != kDigestBytes) {
        return -1;
    }
    constexpr std::string_view kHexDigits = "0123456789abcdef";
    for (std::size_t i = 0; i < kDigestBytes; ++i) {
        text[2 * i] = kHexDigits[digest[i] >> 4U];
        text[2 * i + 1] = kHexDigits[digest[i] & 0x0FU];
    }
    text.back() = '\0';
    *pseudonym = text.data();
    return 0;
}
