// A manufacturer's service classes with members, and an exception of another layout than ours.
#include <array>
#include <exception>
#include <string>

#include "fault.h"

#pragma GCC visibility push(default)
namespace orbatovra {

#ifdef ORBA_TEST_OUR_EXCEPTION
class TovraException : public std::exception {
#else
class TovraException : public Fault, public std::exception {
#endif
  public:
    explicit TovraException(std::string text);
    const char* what() const noexcept override;

  private:
    std::string text;
};

class AccountPkceService {
  public:
    AccountPkceService();
    ~AccountPkceService();
    std::string GetAccessToken() const;

  private:
    std::array<char, 256> state;
    mutable std::string token;
};

class AccountFleetLensService {
  public:
    AccountFleetLensService();
    ~AccountFleetLensService();
    std::string Grant(const std::string& clientId, const std::string& scope,
                      const std::string& redirectUri, const std::string& state) const;

  private:
    std::array<char, 256> buffer;
    std::string grant;
};

}  // namespace orbatovra
#pragma GCC visibility pop
