// Stand-ins for what the session calls: libcurl's transfers, the first library's OAuth2, the
// device, libcrypto, files, clocks and syslog. All calls can be made to fail through
// fakes::world().
#ifndef ORBA_TESTS_SESSION_STAND_INS_H
#define ORBA_TESTS_SESSION_STAND_INS_H

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fakes.h"
#include "orbaoauth2session/session.h"

namespace outside {

struct Request {
    std::string url;
    std::string form;  // of a POST
    std::vector<std::string> headers;
    std::map<CURLoption, std::string> options;
};

struct Answer {
    long status = 200;
    std::string body = {};
    std::string redirect = {};
    std::vector<std::string> headers = {};
    CURLcode result = CURLE_OK;
    std::string headersEnd = "\r\n";
    bool hangs = false;
};

// An OAuth2 server with rotating refresh tokens, and the device that talks to it.
struct Outside {
    std::chrono::nanoseconds boot = std::chrono::hours(10);
    std::chrono::nanoseconds wall = std::chrono::seconds(1'800'000'000);
    bool linked = true;
    unsigned deviceError = 10;      // of an earlier call
    int error = 5;                  // EIO: the errno of a failing system call
    std::size_t piece = 1 << 20;    // what one call reads or writes at most
    std::map<ino_t, uid_t> owners;  // of files that are not the user's own
    std::string account = "account-1";
    // The account service's grant; by default the device has no PKCE access token.
    std::function<std::string()> grant;
    std::function<void(Json::Value&)> login;
    // Answers in place of the server when it returns true.
    std::function<bool(const Request&, Answer&)> intercept;
    std::vector<Request> requests;
    std::vector<std::string> log;  // "priority text"

    int issued = 0;
    int lifetime = 3600;
    std::string state;
    std::set<std::string> codes;
    std::set<std::string> refreshTokens;

    void advance(std::chrono::nanoseconds time) {
        boot += time;
        wall += time;
    }
    Answer answer(const Request& request);
    std::string tokens();
};

Outside& get();
std::string parameterOf(const std::string& text, const std::string& name);

}  // namespace outside

// A session with a token file in a folder of its own.
class SessionTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    ORBA::OAuth2Session::Settings settings() const;
    ORBA::OAuth2Session::Session& session();
    // A session with other settings.
    void use(const std::function<void(ORBA::OAuth2Session::Settings&)>& change);
    void restart() { theSession.reset(); }
    std::string token() { return session().accessToken().text; }
    std::string renew(const std::string& refused) { return session().renew(refused).text; }
    std::string tokenFile() const { return folder + "/tokens.json"; }
    Json::Value stored() const;
    // What another process stores.
    void storeOther(const std::string& accessToken, int expiresAt) const;
    // Something happens just before a lock is asked for.
    static void whenLocking(const std::function<void()>& happens);
    std::vector<std::string> urls() const;
    // The exception of a failing call.
    ORBA::OAuth2Session::SessionException failure(const std::function<void()>& call = {});
    void expectFailure(int code, ORBA::OAuth2Session::Remedy remedy,
                       const std::function<void()>& call = {}, int line = __builtin_LINE());

    std::string folder;
    std::unique_ptr<ORBA::OAuth2Session::Session> theSession;
};

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);

#endif
