// Random texts, PKCE's challenge, digests (libcrypto).
#ifndef ORBA_SESSION_SECRETS_H
#define ORBA_SESSION_SECRETS_H

#include <string>
#include <vector>

namespace ORBA::OAuth2Session {

// 256 random bits in base64url: a state or a code verifier.
std::string randomText();

// The S256 code challenge of RFC 7636.
std::string challengeOf(const std::string& verifier);

// SHA-256 over the texts and their lengths, in base64url.
std::string digestOf(const std::vector<std::string>& texts);

// In constant time for texts of the same length.
bool equalSecrets(const std::string& one, const std::string& other);

// From [0, 1), to spread points in time. Without random numbers 0.5.
double randomFraction() noexcept;

}  // namespace ORBA::OAuth2Session

#endif
