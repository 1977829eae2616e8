/// @file services.h
/// @brief The manufacturer's account-service library: the services of the linked account.
#ifndef ORBATOVRA_SERVICES_H
#define ORBATOVRA_SERVICES_H

#include <cstddef>
#include <exception>
#include <string>

// The exception is thrown in one shared library and caught in another: its type information must be
// visible to both, whatever the default visibility of either build is.
#pragma GCC visibility push(default)

namespace orbatovra {

// The caller provides a service object's storage; its members are known to the manufacturer only.
// The objects are not const, because any call may change the members.
inline constexpr std::size_t kServiceSize = 4096;
inline constexpr std::size_t kServiceAlignment = 64;

/// @brief What the services throw.
class TovraException : public std::exception {
  public:
    /// @param text What went wrong, for a log line.
    explicit TovraException(std::string text);

    /// @return The text; it lives as long as the exception.
    const char* what() const noexcept override;

  private:
    std::string message;
};

/// @brief Hands out the PKCE access token of the account that the device is linked to.
class alignas(kServiceAlignment) AccountPkceService {
  public:
    AccountPkceService();
    ~AccountPkceService();

    /// @return The access token.
    /// @throws TovraException There is no token, or it cannot be obtained.
    std::string GetAccessToken() const;

  private:
    [[maybe_unused]] char reserved[kServiceSize];
};

/// @brief Asks the account service for grants of the Fleet Lens service.
class alignas(kServiceAlignment) AccountFleetLensService {
  public:
    AccountFleetLensService();
    ~AccountFleetLensService();

    /// @brief Requests the authorization grant for a client, in the name of the linked account.
    /// @param clientId The client's `client_id`.
    /// @param scope The `scope` that the client asks for.
    /// @param redirectUri The client's `redirect_uri`.
    /// @param state The client's `state`.
    /// @return The grant as the account service delivers it.
    /// @throws TovraException The account service refused, or could not be asked.
    std::string Grant(const std::string& clientId, const std::string& scope,
                      const std::string& redirectUri, const std::string& state) const;

  private:
    [[maybe_unused]] char reserved[kServiceSize];
};

}  // namespace orbatovra

#pragma GCC visibility pop

#endif
