#include "orbaoauth2session/errors.h"

namespace ORBA::OAuth2Session {

struct SessionException::Details {
    Remedy remedy;
    std::chrono::seconds retryAfter;
    std::string serverError;
};

SessionException::SessionException(int errorCode, const std::string& text, Remedy remedy,
                                   std::chrono::seconds retryAfter, const std::string& serverError)
    : OAuth2ClientException(errorCode, text),
      details(std::make_shared<const Details>(Details{remedy, retryAfter, serverError})) {}

SessionException::~SessionException() = default;
SessionException::SessionException(const SessionException&) = default;
SessionException& SessionException::operator=(const SessionException&) = default;

Remedy SessionException::remedy() const noexcept { return details->remedy; }

std::chrono::seconds SessionException::retryAfter() const noexcept { return details->retryAfter; }

const std::string& SessionException::serverError() const noexcept { return details->serverError; }

}  // namespace ORBA::OAuth2Session
