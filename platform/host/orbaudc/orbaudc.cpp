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
    thread_local std::array<char, 2 * kDigestBytes + 1> text;  // its last byte stays the NUL
    if (pseudonym == nullptr || serial == nullptr || length == 0) {
        return -1;
    }
    std::array<unsigned char, kDigestBytes> digest;
    if (HMAC(EVP_sha256(), kKey.data(), static_cast<int>(kKey.size()),
             reinterpret_cast<const unsigned char*>(serial), length, digest.data(),
             nullptr) == nullptr) {
        return -1;
    }
    constexpr std::string_view kHexDigits = "0123456789abcdef";
    char* next = text.data();
    for (const unsigned char byte : digest) {
        *next++ = kHexDigits[byte >> 4U];
        *next++ = kHexDigits[byte & 0x0FU];
    }
    *pseudonym = text.data();
    return 0;
}
