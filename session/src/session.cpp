#include "orbaoauth2session/session.h"

namespace ORBA::OAuth2Session {
namespace {

[[noreturn]] void unfinished() {
    throw SessionException(1, "Sessions are under construction.", Remedy::checkDevice);
}

}  // namespace

struct __attribute__((visibility("hidden"))) Session::Impl {
    Settings settings;
};

Session::Session(const Settings& settings, int /*version*/)
    : impl(std::make_unique<Impl>(Impl{settings})) {}

Session::~Session() = default;

AccessToken Session::accessToken() { unfinished(); }

AccessToken Session::renew(const std::string& /*refused*/) { unfinished(); }

bool Session::signOut() { unfinished(); }

void Session::cancel() noexcept {}

}  // namespace ORBA::OAuth2Session
