// The session over stand-ins: what each call asks for, stores and reports.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "orbaoauth2client/errors.h"
#include "secrets.h"
#include "stand_ins.h"

namespace {

using namespace ORBA::OAuth2Session;
using namespace std::chrono_literals;
using outside::Answer;
using outside::Request;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

outside::Outside& out() { return outside::get(); }

// Answers requests for tokens; the rest is up to the server.
void answerTokens(const Answer& answer) {
    out().intercept = [answer](const Request& request, Answer& given) {
        given = answer;
        return request.url == "https://auth.test/token";
    };
}

TEST_F(SessionTest, WebLogin_StoresTheTokensAndNeedsNoSecondRequest) {
    const AccessToken first = session().accessToken();
    EXPECT_EQ("at-2", first.text);
    EXPECT_EQ("openid fleet.read", first.scope);
    EXPECT_EQ(std::chrono::system_clock::time_point(1'800'003'600s), first.expires);
    EXPECT_EQ("at-2", token());
    restart();
    EXPECT_EQ("at-2", token());
    EXPECT_THAT(urls(), ElementsAre("/auth", "/continue", "/token"));
    EXPECT_EQ("at-2", stored()["access_token"].asString());
    EXPECT_EQ("rt-2", stored()["refresh_token"].asString());
    EXPECT_EQ(1'800'003'600.0, stored()["expires_at"].asDouble());
    struct stat status = {};
    ASSERT_EQ(0, stat(tokenFile().c_str(), &status));
    EXPECT_EQ(0100600U, status.st_mode);
    const auto modeOf = [](const std::string& path) {
        return static_cast<unsigned>(std::filesystem::status(path).permissions());
    };
    EXPECT_EQ(0700U, modeOf(tokenFile() + ".work"));
    EXPECT_EQ(0600U, modeOf(tokenFile() + ".work/lock"));
    EXPECT_EQ(0600U, modeOf(tokenFile() + ".work/gate"));
    EXPECT_FALSE(std::filesystem::exists(tokenFile() + ".work/reserve"));
    EXPECT_THAT(out().log, ElementsAre("6 orbaoauth2session: Signed in at https://auth.test."));
}

TEST_F(SessionTest, Requests_CarryTheParametersAndLimits) {
    token();
    const Request& authorization = out().requests[0];
    EXPECT_EQ(0U, authorization.url.find("https://auth.test/auth?response_type=code&client_id="
                                         "fleet%20lens&redirect_uri=https%3A%2F%2Fapp.test%2Fcb&"
                                         "scope=openid%20fleet.read&state="));
    EXPECT_THAT(authorization.url, HasSubstr("&code_challenge_method=S256&audience=nas"));
    const Request& exchange = out().requests[2];
    EXPECT_EQ(0U, exchange.form.find("grant_type=authorization_code&code=code-1&client_id="
                                     "fleet%20lens&redirect_uri=https%3A%2F%2Fapp.test%2Fcb&"
                                     "code_verifier="));
    EXPECT_EQ(43U, outside::parameterOf(exchange.form, "code_verifier").size());
    EXPECT_EQ(43U, outside::parameterOf(authorization.url, "state").size());
    EXPECT_EQ(challengeOf(outside::parameterOf(exchange.form, "code_verifier")),
              outside::parameterOf(authorization.url, "code_challenge"));
    EXPECT_THAT(exchange.headers, ElementsAre("Accept: application/json"));
    std::map<CURLoption, std::string> expected = {
        {CURLOPT_PROTOCOLS_STR, "https"},
        {CURLOPT_USERAGENT, "nas/1.0"},
        {CURLOPT_SSLVERSION, std::to_string(long{CURL_SSLVERSION_TLSv1_2})},
        {CURLOPT_SSL_VERIFYPEER, "1"},
        {CURLOPT_SSL_VERIFYHOST, "2"},
        {CURLOPT_CAINFO, "/etc/ssl/certs/ca-certificates.crt"},
        {CURLOPT_CAPATH, "null"},
        {CURLOPT_HTTP_VERSION, std::to_string(long{CURL_HTTP_VERSION_1_1})},
        {CURLOPT_FRESH_CONNECT, "1"},
        {CURLOPT_FORBID_REUSE, "1"},
        {CURLOPT_SUPPRESS_CONNECT_HEADERS, "1"},
        {CURLOPT_QUICK_EXIT, "1"},
        {CURLOPT_NOSIGNAL, "1"},
        {CURLOPT_TIMEOUT_MS, "30000"}};
    for (const Request& request : out().requests) {
        auto options = request.options;
        options.erase(CURLOPT_URL);
        options.erase(CURLOPT_POSTFIELDS);
        if (request.form.empty()) {
            EXPECT_EQ("", options.at(CURLOPT_COOKIEFILE));  // in memory
            options.erase(CURLOPT_COOKIEFILE);
        }
        EXPECT_EQ(expected, options) << request.url;
    }
}

TEST_F(SessionTest, Values_ArePercentEncoded) {
    use([](Settings& given) {
        given.clientId = " !\"#$%&'()*+,-./09:;<=>?@AZ[\\]^_`az{|}~\xc3\xa4";
    });
    token();
    EXPECT_THAT(
        out().requests[0].url,
        HasSubstr("&client_id=%20%21%22%23%24%25%26%27%28%29%2A%2B%2C-.%2F09%3A%3B%3C%3D%3E%3F"
                  "%40AZ%5B%5C%5D%5E_%60az%7B%7C%7D~%C3%A4&"));
}

TEST_F(SessionTest, AuthorizationEndpoint_KeepsItsQuery) {
    for (const char* const query : {"", "?", "?a", "?a=b", "?a=b&c"}) {
        use([&](Settings& given) {
            given.authorizationEndpoint = "https://auth.test/auth" + std::string(query);
        });
        token();
        EXPECT_THAT(out().requests[0].url,
                    ::testing::EndsWith("&code_challenge_method=S256" +
                                        std::string(query[0] != 0 && query[1] != 0 ? "&" : "") +
                                        (query[0] == 0 ? "" : query + 1)));
        session().signOut();
        out().requests.clear();
    }
}

TEST_F(SessionTest, Grant_IsExchangedWithoutVerifier) {
    for (const bool isCallback : {false, true}) {
        out().codes = {"granted"};
        out().grant = [isCallback] {
            return isCallback ? "https://app.test/cb?code=granted&state=" + out().state
                              : std::string("granted");
        };
        token();
        EXPECT_THAT(urls(), ElementsAre("/token"));
        EXPECT_THAT(out().requests[0].form, Not(HasSubstr("code_verifier")));
        EXPECT_THAT(fakes::world().calls, Not(::testing::Contains(HasSubstr("code_challenge"))));
        session().signOut();
        out().requests.clear();
    }
}

TEST_F(SessionTest, GrantOfNoUse_LeadsToTheWebLoginInTheSameCall) {
    const std::vector<std::function<std::string()>> grants = {
        [] { return std::string("unknown code"); },
        [] { return std::string(); },
        [] { return std::string("https://app.test/cbx"); },
        [] { return std::string("https://app.test/cb?code=c&state=other"); },
        [] { return "https://app.test/cb?error=access_denied&state=" + out().state; },
        []() -> std::string { throw std::runtime_error("the account service is away"); },
        []() -> std::string { throw ORBA::OAuth2Client::HttpClientException(26, "x"); },
        [] { return "https://app.test/cb?error=a~&state=" + out().state; },
    };
    for (const auto& grant : grants) {
        out().grant = grant;
        EXPECT_NE("", token());
        EXPECT_EQ("/token", urls().back());
        session().signOut();
    }
    const std::string prefix = "4 orbaoauth2session: The account service's grant is of no use. ";
    EXPECT_THAT(out().log, ::testing::Contains(
                               prefix + "The callback of https://auth.test has another state."));
    for (const char* const error : {"invalid_grant", "a~"}) {
        EXPECT_THAT(out().log,
                    ::testing::Contains(prefix + "https://auth.test replied with the error " +
                                        error + "."));
    }
}

TEST_F(SessionTest, ExchangeOfAGrantThatFails_IsFinalIfItPasses) {
    out().grant = [] { return std::string("code"); };
    for (const Answer& answer : {Answer{503}, Answer{0, "", "", {}, CURLE_OPERATION_TIMEDOUT}}) {
        out().advance(2h);
        out().requests.clear();
        answerTokens(answer);
        EXPECT_EQ(Remedy::tryLater, failure().remedy());
        EXPECT_THAT(urls(), ElementsAre("/token"));
    }
    for (const Answer& answer :
         {Answer{404}, Answer{0, "", "", {}, CURLE_PEER_FAILED_VERIFICATION}}) {
        out().advance(2h);
        out().requests.clear();
        answerTokens(answer);
        EXPECT_NE(Remedy::tryLater, failure().remedy());
        EXPECT_THAT(urls(), ElementsAre("/token", "/auth", "/continue", "/token"));
    }
    EXPECT_THAT(out().log, ::testing::Contains(
                               "4 orbaoauth2session: The account service's grant is of no use. "
                               "The request to https://auth.test failed: SSL peer certificate "
                               "or SSH remote key was not OK."));
}

// Whether the account service was asked decides whether the next call must wait.
TEST_F(SessionTest, AskingForAGrant_IsARequest) {
    const std::vector<std::pair<std::function<std::string()>, bool>> grants = {
        {[] { return std::string(); }, true},
        {[]() -> std::string { throw std::runtime_error("away"); }, true},
        {[]() -> std::string { throw ORBA::OAuth2Client::HttpClientException(26, "x"); }, true},
        {[]() -> std::string { throw ORBA::OAuth2Client::HttpClientException(12, "x"); }, false}};
    for (const auto& [grant, asked] : grants) {
        out().advance(2h);
        out().grant = grant;
        fakes::world().failAt["curl_easy_init"] = fakes::world().counts["curl_easy_init"] + 1;
        const auto exception = failure();
        EXPECT_EQ(23, exception.errCode());
        EXPECT_EQ(asked, exception.retryAfter() > 0s);
    }
}

TEST_F(SessionTest, CancelBeforeTheLogin_AsksTheAccountServiceNothing) {
    out().intercept = [this](const Request&, Answer&) {
        session().cancel();
        return false;
    };
    expectFailure(35, Remedy::cancelled);
    EXPECT_EQ(0, fakes::world().counts["loginIDP"]);
}

TEST_F(SessionTest, HeaderWithoutMemory_Passes) {
    fakes::world().failAt["curl_slist_append"] = 1;
    EXPECT_THROW(token(), std::bad_alloc);
}

TEST_F(SessionTest, GrantWithoutMemory_Passes) {
    out().grant = []() -> std::string { throw std::bad_alloc(); };
    EXPECT_THROW(token(), std::bad_alloc);
}

TEST_F(SessionTest, ExpiredToken_IsRefreshed) {
    token();
    out().advance(1h);
    EXPECT_EQ("at-3", token());
    EXPECT_THAT(urls(), ElementsAre("/auth", "/continue", "/token", "/token refresh"));
    EXPECT_EQ("grant_type=refresh_token&refresh_token=rt-2&client_id=fleet%20lens",
              out().requests.back().form);
    EXPECT_EQ("rt-3", stored()["refresh_token"].asString());
    EXPECT_EQ("6 orbaoauth2session: Refreshed at https://auth.test.", out().log.back());
}

TEST_F(SessionTest, Margin_IsAQuarterOfAShortLifetime) {
    out().lifetime = 100;
    token();
    out().advance(74s);
    token();  // early renewal at the latest at 65 s
    out().advance(26s);
    const auto before = out().requests.size();
    EXPECT_EQ("at-3", token());
    EXPECT_EQ(before, out().requests.size());
}

TEST_F(SessionTest, EarlyRenewal_FailsSilentlyAndOnlyOnce) {
    token();
    out().advance(3530s);
    answerTokens({503});
    EXPECT_EQ("at-2", token());
    EXPECT_EQ("at-2", token());
    EXPECT_EQ(4U, out().requests.size());
    EXPECT_THAT(out().log.back(), HasSubstr("503"));
    out().advance(20s);  // margin reached, the gate may still be closed
    out().advance(10min);
    out().intercept = nullptr;
    EXPECT_EQ("at-3", token());
}

TEST_F(SessionTest, EarlyRenewal_RefusedRefreshTokenEndsItForThisToken) {
    token();
    out().refreshTokens.clear();
    out().advance(3530s);
    EXPECT_EQ("at-2", token());
    EXPECT_EQ("at-2", token());
    EXPECT_THAT(urls(), ElementsAre("/auth", "/continue", "/token", "/token refresh"));
    EXPECT_FALSE(stored().isMember("refresh_token"));
    out().advance(70s);
    EXPECT_EQ("at-4", token());  // the gate is open: one sign-in
}

TEST_F(SessionTest, EarlyRenewal_WhileAnotherProcessHoldsTheLock_IsLeftToIt) {
    token();
    out().advance(3530s);
    out().error = EWOULDBLOCK;
    fakes::world().failAt["flock"] = fakes::world().counts["flock"] + 1;
    EXPECT_EQ("at-2", token());
    EXPECT_EQ("at-2", token());
    EXPECT_EQ(3U, out().requests.size());
    out().advance(100ms - 1ns);
    EXPECT_EQ("at-2", token());
    out().advance(1ns);
    EXPECT_EQ("at-3", token());
}

TEST_F(SessionTest, EarlyRenewal_FailedOneIsTriedAgainWhenItMay) {
    token();
    out().advance(3200s);
    const auto tries = [] { return fakes::world().counts["ORBATOVRAUserAgentNameGet"]; };
    fakes::world().failAt["ORBATOVRAUserAgentNameGet"] = tries() + 1;
    EXPECT_EQ("at-2", token());
    EXPECT_EQ("4 orbaoauth2session: The device's user agent is unavailable: error 0.",
              out().log.back());
    EXPECT_EQ(2, tries());
    out().advance(10s - 1ns);
    EXPECT_EQ("at-2", token());
    EXPECT_EQ(2, tries());
    out().advance(1ns);
    answerTokens({503, "", "", {"Retry-After: 7"}});
    EXPECT_EQ("at-2", token());
    EXPECT_EQ(3, tries());
    out().advance(7s - 1ns);
    const auto logged = out().log.size();
    EXPECT_EQ("at-2", token());
    EXPECT_EQ(logged, out().log.size());
    out().advance(1ns);
    out().intercept = nullptr;
    EXPECT_EQ("at-3", token());
}

TEST_F(SessionTest, EarlyRenewal_TakesTenSecondsAtMost) {
    token();
    out().advance(3200s);
    out().intercept = [](const Request&, Answer& answer) { return answer.hangs = true; };
    const auto begin = out().boot;
    EXPECT_EQ("at-2", token());
    EXPECT_EQ(10s, out().boot - begin);
}

TEST_F(SessionTest, EarlyRenewal_FollowsAtOnceWhenTheTokenOfTheFileIsDueForIt) {
    token();
    restart();
    out().advance(3530s);
    EXPECT_EQ("at-3", token());
    Json::Value due = stored();
    out().advance(2h);
    fakes::world().onCall = [&](const std::string& name) {
        if (name == "flock" && due["access_token"] != "other") {
            due["access_token"] = "other";
            due["expires_at"] = static_cast<double>((out().wall + 61s).count() / 1'000'000'000);
            writeFile(tokenFile(), due.toStyledString());
        }
    };
    EXPECT_EQ("at-4", token());  // another process had renewed it, long ago
    EXPECT_EQ("/token refresh", urls().back());
}

// Another process was told that the refresh token is no longer good.
TEST_F(SessionTest, EarlyRenewal_EndsWithTheRefreshToken) {
    token();
    Session other(settings());
    EXPECT_EQ("at-2", other.accessToken().text);
    out().advance(3530s);
    out().refreshTokens.clear();
    EXPECT_EQ("at-2", other.accessToken().text);
    EXPECT_EQ("at-2", token());
    EXPECT_EQ("at-2", token());
    EXPECT_EQ(4U, out().requests.size());
}

TEST_F(SessionTest, RefusedRefreshToken_LeadsToOneSignIn) {
    for (const Answer& answer : {Answer{400, R"({"error":"invalid_grant"})"}, Answer{401, ""},
                                 Answer{403, R"({"error":"invalid_grant"})"},
                                 Answer{400, R"({"error":"invalid_request"})"}}) {
        out().requests.clear();
        token();
        out().advance(2h);
        out().intercept = [answer](const Request& request, Answer& given) {
            given = answer;
            return outside::parameterOf(request.form, "grant_type") == "refresh_token";
        };
        out().requests.clear();
        const std::string signedIn = token();
        EXPECT_EQ(signedIn, stored()["access_token"].asString());
        EXPECT_THAT(urls(), ElementsAre("/token refresh", "/auth", "/continue", "/token"));
        EXPECT_THAT(out().log, ::testing::Contains("4 orbaoauth2session: https://auth.test no "
                                                   "longer accepts the refresh token."));
        out().intercept = nullptr;
    }
}

TEST_F(SessionTest, InvalidClientAtARefresh_IsFixSettings) {
    token();
    out().advance(2h);
    answerTokens({401, R"({"error":"invalid_client"})"});
    expectFailure(37, Remedy::fixSettings);
    EXPECT_EQ("rt-2", stored()["refresh_token"].asString());
    EXPECT_EQ("invalid_client", failure().serverError());
}

// Another process renewed the tokens while we were asking.
TEST_F(SessionTest, RefusedRefreshToken_TokensOfAnotherAreTaken) {
    token();
    const std::string old = readFile(tokenFile());
    for (const bool expired : {false, true}) {
        restart();
        out().advance(2h);
        out().refreshTokens.insert("rt-other");
        Json::Value other = stored();
        other["access_token"] = "at-other";
        other["refresh_token"] = "rt-other";
        other["expires_at"] =
            static_cast<double>(out().wall.count() / 1'000'000'000) + (expired ? -10 : 1000);
        out().intercept = [&](const Request& request, Answer& answer) {
            writeFile(tokenFile(), other.toStyledString());
            answer = {400, R"({"error":"invalid_grant"})"};
            return outside::parameterOf(request.form, "refresh_token") != "rt-other";
        };
        writeFile(tokenFile(), old);
        EXPECT_EQ(expired ? "at-3" : "at-other", token());
    }
}

// What another process left meanwhile: no file, or one whose refresh token is refused, too.
TEST_F(SessionTest, RefusedRefreshToken_FileOfNoUse_LeadsToASignIn) {
    for (const char* const refreshToken : {"", "rt-unknown"}) {
        token();
        out().advance(2h);
        Json::Value other = stored();
        other["refresh_token"] = refreshToken;
        out().intercept = [&](const Request& request, Answer& answer) {
            answer = {400, ""};
            const bool refresh = !outside::parameterOf(request.form, "refresh_token").empty();
            if (refresh) {
                writeFile(tokenFile(), *refreshToken == 0 ? "" : other.toStyledString());
            }
            return refresh;
        };
        token();
        EXPECT_EQ("/token", urls().back());
        out().intercept = nullptr;
    }
}

// Neither their access token, which is the refused one, nor our refresh token is good.
TEST_F(SessionTest, RefusedRefreshToken_RefreshTokenOfAnotherIsUsed) {
    token();
    out().advance(2h);
    out().intercept = [&](const Request& request, Answer& answer) {
        Json::Value other = stored();
        other["access_token"] = "refused";
        other["refresh_token"] = "rt-other";
        other["expires_at"] = 1'800'009'000;
        answer = {400, ""};
        const bool ours = outside::parameterOf(request.form, "refresh_token") == "rt-2";
        if (ours) {
            writeFile(tokenFile(), other.toStyledString());
        }
        return ours;
    };
    out().refreshTokens = {"rt-other"};
    EXPECT_EQ("at-3", renew("refused"));
    out().advance(2h);
    out().refreshTokens = {"rt-other"};
    out().intercept = [&](const Request& request, Answer& answer) {
        Json::Value other = stored();
        other["access_token"] = "refused";
        other["refresh_token"] = "rt-other";
        const bool ours = outside::parameterOf(request.form, "refresh_token") == "rt-3";
        if (ours) {
            writeFile(tokenFile(), other.toStyledString());
        }
        answer =
            ours ? Answer{400, ""} : Answer{200, R"({"access_token":"a","token_type":"Bearer"})"};
        return true;
    };
    EXPECT_EQ("a", token());
    EXPECT_EQ("rt-other", stored()["refresh_token"].asString());
}

TEST_F(SessionTest, ReplyWithoutRefreshTokenOrScope_KeepsTheOldOnes) {
    token();
    out().advance(2h);
    for (const char* const refresh : {"", R"(,"refresh_token":null)", R"(,"refresh_token":"")"}) {
        answerTokens({200, std::string(R"({"access_token":"new","token_type":"bEARER")") + refresh +
                               R"(,"expires_in":"60","id_token":"id"})"});
        EXPECT_EQ("new", token());
        EXPECT_EQ("rt-2", stored()["refresh_token"].asString());
        EXPECT_EQ("id", stored()["id_token"].asString());
        out().advance(2h);
    }
    answerTokens({200, R"({"access_token":"new","token_type":"Bearer","scope":"less"})"});
    EXPECT_EQ("less", session().accessToken().scope);
    answerTokens({200, R"({"access_token":"newer","token_type":"Bearer"})"});
    out().advance(10s);
    EXPECT_EQ("less", session().renew("new").scope);
    EXPECT_EQ("less", stored()["scope"].asString());
}

// The tokens of the sign-in belong to what the refusal left of the file.
TEST_F(SessionTest, RefusedRefreshToken_TokensOfTheSignInThatCannotBeStored_AreKept) {
    token();
    out().advance(2h);
    out().refreshTokens.clear();
    fakes::world().failAt["renameat"] = fakes::world().counts["renameat"] + 2;
    const std::string signedIn = token();
    EXPECT_EQ("at-2", stored()["access_token"].asString());
    out().advance(1s);
    EXPECT_EQ(signedIn, token());
    EXPECT_EQ(signedIn, stored()["access_token"].asString());
}

TEST_F(SessionTest, AccessToken_OfAnyPrintableCharacters) {
    answerTokens({200, R"({"access_token":"!~","token_type":"Bearer"})"});
    EXPECT_EQ("!~", token());
}

struct BadReply {
    Answer answer;
    int code;
    Remedy remedy = Remedy::tryLater;
};

TEST_F(SessionTest, SenselessReplies_CloseTheGateAndKeepTheFile) {
    token();
    const std::string before = readFile(tokenFile());
    const auto body = [](const std::string& text) { return Answer{200, text}; };
    const std::vector<BadReply> replies = {
        {body(""), 2},
        {body("<html>"), 2},
        {body("[]"), 2},
        {body(std::string(3000, '[')), 2},
        {body(R"({"access_token":"a","token_type":"Bearer"} x)"), 2},
        {body("{}"), 36},
        {body(R"({"access_token":"","token_type":"Bearer"})"), 36},
        {body(R"({"access_token":null,"token_type":"Bearer"})"), 36},
        {body(R"({"access_token":7,"token_type":"Bearer"})"), 36},
        {body(R"({"access_token":"a b","token_type":"Bearer"})"), 36},
        {body(R"({"access_token":"a\u007f","token_type":"Bearer"})"), 36},
        {body(R"({"access_token":"a","token_type":"mac"})"), 36},
        {body(R"({"access_token":"a"})"), 36},
        {{200, std::string(65537, ' ')}, 36},
        {{201, "{}"}, 16},
        {{302, "", "https://auth.test/x"}, 16},
        {{408}, 14},
        {{425}, 14},
        {{429}, 14},
        {{404}, 14, Remedy::fixSettings},
        {{499}, 14, Remedy::fixSettings},
        {{499, R"({"error":"x"})"}, 37, Remedy::fixSettings},
        {{399}, 16},
        {{599}, 15},
        {{599, R"({"error":"login_required"})"}, 37, Remedy::linkAccount},
        {{499, R"({"error":"server_error"})"}, 37},
        {{503}, 17},
        {{500}, 15},
        {{600}, 16},
        {{500, R"({"error":"access_denied"})"}, 37, Remedy::linkAccount},
        {{503, R"({"error":"temporarily_unavailable"})"}, 37},
        {{500, R"({"error":"invalid_scope"})"}, 15},
        {{403, R"({"error":"slow_down"})"}, 37},
        {{403, R"({"error":"consent_required"})"}, 37, Remedy::linkAccount},
        {{403, R"({"error":"invalid_scope"})"}, 37, Remedy::fixSettings},
        {{403, R"({"error":"a\"b"})"}, 14, Remedy::fixSettings},
        {{403, R"({"error":"a\\b"})"}, 14, Remedy::fixSettings},
        {{403, R"({"error":"a\u001fb"})"}, 14, Remedy::fixSettings},
        {{403, R"({"error":"a\u007fb"})"}, 14, Remedy::fixSettings},
        {{403, R"({"error":" a~"})"}, 37, Remedy::fixSettings},
        {{403, R"({"error":")" + std::string(100, 'e') + R"("})"}, 37, Remedy::fixSettings},
        {{403, R"({"error":"has rt-2 inside"})"}, 14, Remedy::fixSettings},
        {{403, R"({"error":")" + std::string(101, 'e') + R"("})"}, 14, Remedy::fixSettings},
        {{200, "{", "", {}, CURLE_PARTIAL_FILE}, 26},
        {{200, "{}", "", {}, CURLE_OK, ""}, 26},
        {{200, "{}", "", {}, CURLE_OK, "\n"}, 36},
        {{0, "", "", {}, CURLE_OPERATION_TIMEDOUT}, 32},
        {{0, "", "", {}, CURLE_COULDNT_RESOLVE_HOST}, 31},
        {{0, "", "", {}, CURLE_COULDNT_RESOLVE_PROXY}, 31},
        {{0, "", "", {}, CURLE_PEER_FAILED_VERIFICATION}, 33, Remedy::checkDevice},
        {{0, "", "", {}, CURLE_SSL_CACERT_BADFILE}, 25, Remedy::checkDevice},
    };
    for (const BadReply& reply : replies) {
        SCOPED_TRACE(reply.answer.body.substr(0, 80) + " " + std::to_string(reply.answer.status));
        out().advance(2h);
        restart();
        answerTokens(reply.answer);
        const auto first = failure();
        EXPECT_EQ(reply.code, first.errCode()) << first.what();
        EXPECT_EQ(reply.remedy, first.remedy());
        EXPECT_EQ(before, readFile(tokenFile()));
        const auto requests = out().requests.size();
        const auto second = failure();
        EXPECT_STREQ(first.what(), second.what());
        EXPECT_EQ(first.serverError(), second.serverError());
        EXPECT_EQ(requests, out().requests.size());
        EXPECT_GE(second.retryAfter(), 1s);
        EXPECT_LE(second.retryAfter(), reply.remedy == Remedy::linkAccount ? 60s : 300s);
    }
    out().advance(2h);
    out().intercept = nullptr;
    token();
    EXPECT_EQ("/token refresh", urls().back());
}

TEST_F(SessionTest, ErrorWithAnEncodedSecret_CountsAsNone) {
    writeFile(tokenFile(), R"({"refresh_token":"r/0"})");
    answerTokens({403, R"({"error":"has r%2F0 inside"})"});
    expectFailure(14, Remedy::fixSettings);
}

TEST_F(SessionTest, LargestReply_IsRead) {
    std::string body = R"({"access_token":"big","token_type":"Bearer"})";
    answerTokens({200, body + std::string(65536 - body.size(), ' ')});
    EXPECT_EQ("big", token());
}

TEST_F(SessionTest, MemberNamedTwice_IsTheLast) {
    answerTokens({200, R"({"access_token":"a","access_token":"b","token_type":"Bearer"})"});
    EXPECT_EQ("b", token());
}

// A new refresh token must not be lost, because the old one is spent.
TEST_F(SessionTest, NewRefreshTokenInASenselessReply_IsStored) {
    token();
    out().advance(2h);
    answerTokens({200, R"({"access_token":null,"refresh_token":"rt-new"})"});
    expectFailure(36, Remedy::tryLater);
    EXPECT_EQ("rt-new", stored()["refresh_token"].asString());
    out().advance(10min);
    out().refreshTokens = {"rt-new"};
    out().intercept = nullptr;
    token();
    EXPECT_EQ("/token refresh", urls().back());
}

TEST_F(SessionTest, RefreshTokenInASenselessReplyToACode_IsStored) {
    answerTokens({200, R"({"refresh_token":"rt-new"})"});
    expectFailure(36, Remedy::tryLater);
    EXPECT_EQ("rt-new", stored()["refresh_token"].asString());
}

struct Lifetime {
    std::string json;
    double seconds;  // below 0: none named
};

TEST_F(SessionTest, Lifetimes_AreReadAsNumbersAndTexts) {
    const double tenYears = 3650.0 * 24 * 3600;
    const std::vector<Lifetime> lifetimes = {
        {"60", 60},
        {"60.5", 60.5},
        {"\"60\"", 60},
        {"\"60.25\"", 60.25},
        {"0", 0},
        {"-5", 0},
        {"\"-5\"", 0},
        {"1e30", tenYears},
        {"\"99999999999\"", tenYears},
        {"true", -1},
        {"null", -1},
        {"\"\"", -1},
        {"\"1e3\"", -1},
        {"\" 60\"", -1},
        {"\"+60\"", -1},
        {"\"inf\"", -1},
        {"\"60s\"", -1},
        {"{}", -1},
        {"[]", -1},
        {"\"1" + std::string(400, '0') + "\"", tenYears},
        {"\"-1" + std::string(400, '0') + "\"", 0},
        {"\"0." + std::string(400, '0') + "1\"", 0},
        {"\"-\"", -1},
        {"\"--1\"", -1},
        {"\"-inf\"", -1},
        {"\".5\"", -1},
        {"\"~60\"", -1},
    };
    for (const Lifetime& lifetime : lifetimes) {
        SCOPED_TRACE(lifetime.json);
        session().signOut();
        answerTokens(
            {200, R"({"access_token":"a","token_type":"Bearer","expires_at":1,"expires_in":)" +
                      lifetime.json + "}"});
        const AccessToken given = session().accessToken();
        if (lifetime.seconds < 0) {
            EXPECT_EQ(std::chrono::system_clock::time_point::max(), given.expires);
            EXPECT_FALSE(stored().isMember("expires_at"));
            out().advance(5 * 366 * 24h);
            const auto requests = out().requests.size();
            token();
            EXPECT_EQ(requests, out().requests.size());
        } else {
            const auto left = given.expires.time_since_epoch() - out().wall;
            EXPECT_NEAR(lifetime.seconds, std::chrono::duration<double>(left).count(), 0.001);
        }
        const auto requests = out().requests.size();
        out().intercept = nullptr;
        token();  // one that ended when it came was given once
        EXPECT_EQ(lifetime.seconds == 0 ? requests + 3 : requests, out().requests.size());
    }
}

// ---- The gate
// ------------------------------------------------------------------------------------

TEST_F(SessionTest, RetryAfter_IsKeptToAlsoAfterARestartAndAnotherBoot) {
    answerTokens({503, "", "", {"retry-after:  120 "}});
    EXPECT_EQ(120s, failure().retryAfter());
    out().advance(60s);
    restart();
    EXPECT_EQ(60s, failure().retryAfter());
    out().wall += 10 * 365 * 24h;
    EXPECT_EQ(60s, failure().retryAfter());
    out().wall -= 20 * 365 * 24h;
    out().advance(59s);
    EXPECT_EQ(1s, failure().retryAfter());
    out().intercept = nullptr;
    EXPECT_EQ(3U, out().requests.size());
    out().advance(1s);
    token();
}

TEST_F(SessionTest, RetryAfter_Values) {
    const std::string date = "Date: Sun, 06 Nov 1994 08:49:37 GMT";
    const std::vector<std::pair<std::vector<std::string>, std::pair<int, int>>> values = {
        {{"Retry-After: 5"}, {5, 5}},
        {{"Retry-After: 999999"}, {3600, 3600}},
        {{"Retry-After: 7000"}, {3600, 3600}},
        {{"Retry-After: 99999999999999999999"}, {3600, 3600}},
        {{"Retry-After: 5:"}, {1, 2}},
        {{"Retry-After: Thu, 01 Jan 1970 00:00:30 GMT", "Date: Thu, 01 Jan 1970 00:00:00 GMT"},
         {30, 30}},
        {{"Retry-After: Sun, 06 Nov 1994 08:50:37 GMT", date}, {60, 60}},
        {{date, "Retry-After: Sun, 06 Nov 1994 08:50:07 GMT"}, {30, 30}},
        {{"Retry-After: Sun, 06 Nov 1994 08:50:37 GMT"}, {1, 2}},
        {{"Retry-After: Sun, 06 Nov 1994 08:49:00 GMT", date}, {1, 2}},
        {{"Retry-After: 0"}, {1, 2}},
        {{"Retry-After: -3"}, {1, 2}},
        {{"Retry-After: soon", date}, {1, 2}},
        {{"Retry-After:"}, {1, 2}},
        {{"Retry-After: ~5"}, {1, 2}},
        {{"Retry-After: 5~"}, {1, 2}},
        {{"~", "Retry-After: 60"}, {60, 60}},
        {{"X: y"}, {1, 2}},
        {{"", "Retry-After: 60"}, {1, 2}},                      // a trailer
        {{"", "HTTP/1.1 503 X", "Retry-After: 60"}, {60, 60}},  // after an interim reply
        {{"", "http", "Retry-After: 60"}, {1, 2}},
    };
    for (const auto& [headers, range] : values) {
        SCOPED_TRACE(headers[0]);
        answerTokens({503, "", "", headers});
        const auto wait = failure().retryAfter();
        EXPECT_GE(wait.count(), range.first);
        EXPECT_LE(wait.count(), range.second);
        session().signOut();  // opens the gate
    }
}

TEST_F(SessionTest, BackOff_DoublesItsBoundUpToFiveMinutes) {
    answerTokens({503});
    std::chrono::seconds bound = 2s;
    std::chrono::seconds longest = 0s;
    for (int i = 0; i < 60; ++i) {
        const auto wait = failure().retryAfter();
        EXPECT_GE(wait, 1s);
        EXPECT_LE(wait, bound);
        longest = std::max(longest, wait);
        bound = std::min<std::chrono::seconds>(bound * 2, 5min);
        out().advance(wait);
    }
    EXPECT_GT(longest, 200s);
    out().intercept = nullptr;
    token();
    out().advance(2h);
    answerTokens({503});
    EXPECT_LE(failure().retryAfter(), 2s);
}

// It is written when it changes, as nothing else tells other processes; and only then.
TEST_F(SessionTest, GateFile_IsWrittenWhenItChanges) {
    const auto writes = [] { return fakes::world().counts["fdatasync"]; };
    token();
    EXPECT_EQ(0, writes());
    out().advance(2h);
    answerTokens({503, "", "", {"Retry-After: 100"}});
    const std::string gate = tokenFile() + ".work/gate";
    std::filesystem::permissions(gate, std::filesystem::perms(0644));
    failure();
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(gate).permissions());
    EXPECT_EQ(1, writes());
    failure();
    EXPECT_EQ(1, writes());
    std::string boot = readFile("/proc/sys/kernel/random/boot_id");
    boot.pop_back();
    EXPECT_THAT(readFile(gate), HasSubstr(R"("boot":")" + boot + '"'));
    EXPECT_EQ(4096U, std::filesystem::file_size(gate));
    out().advance(100s);
    out().intercept = nullptr;
    token();
    EXPECT_EQ(2, writes());
    out().advance(2h);
    token();
    EXPECT_EQ(2, writes());
}

// The clock of another boot says nothing about this one's: the wait begins anew, but once.
TEST_F(SessionTest, GateOfAnotherBoot_WaitsItsFullLengthOnce) {
    answerTokens({503, "", "", {"Retry-After: 100"}});
    failure();
    const std::string gate = tokenFile() + ".work/gate";
    std::string record = readFile(gate);
    record = record.substr(record.find(' ') + 1, record.find('\n') - record.find(' ') - 1);
    record.replace(record.find(R"("boot":")") + 8, 4, "xxxx");
    writeFile(gate, digestOf({record}) + " " + record + "\n");
    out().advance(60s);
    EXPECT_EQ(100s, failure().retryAfter());
    out().advance(60s);
    EXPECT_EQ(40s, failure().retryAfter());
    EXPECT_EQ(3U, out().requests.size());
}

TEST_F(SessionTest, GateThatCannotBeWritten_IsWarnedOf) {
    answerTokens({503});
    fakes::world().failAt["pwrite"] = 1;
    failure();
    EXPECT_THAT(out().log,
                ::testing::Contains("4 orbaoauth2session: The gate's file cannot be written."));
}

TEST_F(SessionTest, GateOfAnotherAccountOrDamaged_IsOpen) {
    answerTokens({503, "", "", {"Retry-After: 3600"}});
    failure();
    out().account = "account-2";
    out().intercept = nullptr;
    token();
    answerTokens({503, "", "", {"Retry-After: 3600"}});
    out().advance(2h);
    failure();
    const std::string gate = tokenFile() + ".work/gate";
    std::string content = readFile(gate);
    content[60] ^= 1;
    writeFile(gate, content);
    out().intercept = nullptr;
    token();
}

// ---- Renewing a refused token
// --------------------------------------------------------------------

TEST_F(SessionTest, Renew_WaitsUntilTheTokenIsOldEnough) {
    const std::string first = token();
    EXPECT_EQ(10s, failure([&] { renew(first); }).retryAfter());
    expectFailure(40, Remedy::tryLater, [&] { renew(first); });
    EXPECT_STREQ("The refused token is too new to be renewed.",
                 failure([&] { renew(first); }).what());
    EXPECT_EQ(first, token());
    out().advance(10s);
    const std::string second = session().renew(first).text;
    EXPECT_NE(first, second);
    EXPECT_EQ(second, session().renew(first).text);  // already renewed
    EXPECT_EQ(20s, failure([&] { renew(second); }).retryAfter());
    out().advance(20s);
    const std::string third = session().renew(second).text;
    restart();
    EXPECT_EQ(40s, failure([&] { renew(third); }).retryAfter());
    out().advance(11min);
    const std::string fourth = session().renew(third).text;  // calm again
    out().advance(10s);
    EXPECT_EQ(10s, failure([&] { renew(fourth); }).retryAfter());
}

TEST_F(SessionTest, Renew_OfAnUnknownToken) {
    EXPECT_EQ("at-2", renew("x"));  // none at hand
    EXPECT_EQ("at-2", renew("x"));
    out().advance(1h);
    EXPECT_EQ("at-3", renew("x"));  // one at its end
    out().lifetime = 3;
    out().advance(1h);
    EXPECT_EQ("at-4", renew("x"));
    out().advance(3s);
    EXPECT_EQ("at-5", renew("x"));  // its age does not matter
}

TEST_F(SessionTest, Renew_TokenWithoutLifetime) {
    answerTokens({200, R"({"access_token":"forever","token_type":"Bearer","refresh_token":"r"})"});
    token();
    restart();
    out().advance(1h);
    answerTokens({200, R"({"access_token":"next","token_type":"Bearer"})"});
    EXPECT_EQ("next", session().renew("forever").text);
}

// ---- The token file
// ------------------------------------------------------------------------------

TEST_F(SessionTest, UnusableTokenFiles_LeadToASignIn) {
    token();
    const Json::Value good = stored();
    std::vector<std::string> files = {"", "{", "[]", "null", "\"x\""};
    const auto with = [&](const char* member, const Json::Value& value) {
        Json::Value changed = good;
        changed.removeMember("refresh_token");
        changed[member] = value;
        files.push_back(changed.toStyledString());
    };
    with("session", "other");
    with("access_token", "a b");
    with("access_token", 7);
    with("token_type", "mac");
    with("expires_at", 2e9);
    with("expires_at", "soon");
    with("expires_at", 1e300);
    with("expires_in", Json::nullValue);
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        restart();
        out().requests.clear();
        writeFile(tokenFile(), file);
        token();
        EXPECT_THAT(urls(), ElementsAre("/auth", "/continue", "/token"));
    }
}

TEST_F(SessionTest, FileWithoutDigest_ItsRefreshTokenIsUsed) {
    out().refreshTokens = {"rt-0"};
    writeFile(tokenFile(), R"({"access_token":"x","token_type":"Bearer","refresh_token":"rt-0"})");
    EXPECT_EQ("at-1", token());
    EXPECT_THAT(urls(), ElementsAre("/token refresh"));
}

TEST_F(SessionTest, AnotherAccount_NothingOfTheFileIsSent) {
    token();
    restart();
    out().account = "account-2";
    out().requests.clear();
    token();
    EXPECT_THAT(urls(), ElementsAre("/auth", "/continue", "/token"));
}

TEST_F(SessionTest, NoLinkedAccount_IsCode19WithoutARequest) {
    out().linked = false;
    EXPECT_STREQ("The device is not linked to an account.", failure().what());
    expectFailure(19, Remedy::linkAccount);
    EXPECT_THAT(out().requests, IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(tokenFile() + ".work"));
}

TEST_F(SessionTest, AccountThatChangesDuringTheWaitForTheLock_Counts) {
    use([](Settings& given) { given.revocationEndpoint = "https://auth.test/revoke"; });
    token();
    const auto duringTheWait = [](const std::function<void()>& change) {
        out().advance(2h);
        out().requests.clear();
        whenLocking(change);
    };
    duringTheWait([] { out().account = "account-2"; });
    token();
    EXPECT_THAT(urls(), ElementsAre("/auth", "/continue", "/token"));
    duringTheWait([] { out().account = "account-3"; });
    EXPECT_TRUE(session().signOut());
    EXPECT_THAT(urls(), IsEmpty());
    duringTheWait([] { out().linked = false; });
    expectFailure(19, Remedy::linkAccount);
    EXPECT_THAT(urls(), IsEmpty());
}

// What a killed process left.
TEST_F(SessionTest, Reserve_WholeOneBecomesTheTokenFile_AnotherIsCleared) {
    token();
    const std::string reserve = tokenFile() + ".work/reserve";
    Json::Value newer = stored();
    newer["access_token"] = "newer";
    const std::string whole = newer.toStyledString() + std::string(1000, '\0');
    newer["session"] = "other";
    for (const std::string& content : {whole, whole.substr(0, 50), newer.toStyledString()}) {
        restart();
        writeFile(reserve, content);
        std::filesystem::permissions(reserve, std::filesystem::perms(0644));
        EXPECT_EQ("newer", token());
        EXPECT_FALSE(std::filesystem::exists(reserve));
        EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(tokenFile()).permissions());
        EXPECT_EQ(whole.substr(0, whole.find('\0')), readFile(tokenFile()));
    }
    restart();
    writeFile(reserve, whole);
    out().linked = false;
    failure();
    EXPECT_FALSE(std::filesystem::exists(reserve));
}

TEST_F(SessionTest, ReserveOfAProcessThatIsKilledDuringTheWait_BecomesTheTokenFile) {
    use([](Settings& given) { given.revocationEndpoint = "https://auth.test/revoke"; });
    token();
    Json::Value newer = stored();
    newer["access_token"] = "newer";
    newer["refresh_token"] = "rt-newer";
    newer["expires_at"] = 1'800'010'000;
    out().advance(2h);
    int locks = 0;
    fakes::world().onCall = [&](const std::string& name) {
        if (name == "flock" && ++locks % 2 == 1) {
            writeFile(tokenFile() + ".work/reserve", newer.toStyledString());
        }
    };
    EXPECT_EQ("newer", token());
    EXPECT_EQ(3U, out().requests.size());
    newer["refresh_token"] = "rt-newest";
    EXPECT_TRUE(session().signOut());
    EXPECT_EQ("rt-newest", outside::parameterOf(out().requests.back().form, "token"));
}

// A first call only tries to recover it: what is at hand needs neither lock nor work folder.
TEST_F(SessionTest, ReserveThatCannotBeLookedAfter_CostsNoGoodToken) {
    token();
    restart();
    fakes::world().failAt["flock"] = fakes::world().counts["flock"] + 1;
    EXPECT_EQ("at-2", token());
}

TEST_F(SessionTest, Space_IsReservedBeforeTheRequest) {
    out().intercept = [this](const Request&, Answer&) {
        EXPECT_EQ(131072U, std::filesystem::file_size(tokenFile() + ".work/reserve"));
        EXPECT_EQ(4096U, std::filesystem::file_size(tokenFile() + ".work/gate"));
        return false;
    };
    token();
}

TEST_F(SessionTest, Files_AreClosedWhenAnotherProgramIsExecuted) {
    int files = 0;
    out().intercept = [&](const Request&, Answer&) {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            if (std::filesystem::read_symlink(entry).string().find(folder) == 0) {
                EXPECT_NE(0, fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
                ++files;
            }
        }
        return false;
    };
    token();
    EXPECT_EQ(3 * 4, files);  // folder, work folder, lock and reserve, at three requests
}

// A call may read or write less than it was asked for.
TEST_F(SessionTest, Files_AreReadAndWrittenInPieces) {
    out().piece = 1;
    token();
    restart();
    EXPECT_EQ("at-2", token());
    EXPECT_EQ("rt-2", stored()["refresh_token"].asString());
}

TEST_F(SessionTest, TokenFile_IsALineOfJson) {
    answerTokens(
        {200,
         R"({"access_token":"a","token_type":"Bearer","refresh_token":"r","scope":"l\u00e4s","id_token":"i","expires_in":90.001})"});
    token();
    const std::string session = stored()["session"].asString();
    EXPECT_EQ(43U, session.size());
    EXPECT_EQ(
        R"({"access_token":"a","expires_at":1800000090.001,"expires_in":90.001,"id_token":"i",)"
        "\"refresh_token\":\"r\",\"scope\":\"l\xc3\xa4s\",\"session\":\"" +
            session + R"(","token_type":"Bearer"})" + "\n",
        readFile(tokenFile()));
    out().advance(91s);
    answerTokens({200, R"({"access_token":"b","token_type":"Bearer","expires_in":60})"});
    token();
    EXPECT_THAT(readFile(tokenFile()), HasSubstr(R"("expires_at":1800000151,"expires_in":60,)"));
}

TEST_F(SessionTest, FailureBeforeARequest_ClosesNoGate) {
    fakes::world().failAt["ORBATOVRAUserAgentNameGet"] = 1;
    EXPECT_EQ(0s, failure().retryAfter());
    EXPECT_EQ("at-2", token());
}

TEST_F(SessionTest, TokensThatCannotBeStored_AreGivenAndStoredLater) {
    token();
    const std::string before = readFile(tokenFile());
    out().advance(2h);
    fakes::world().failAt["renameat"] = fakes::world().counts["renameat"] + 1;
    EXPECT_EQ("at-3", token());
    EXPECT_EQ(before, readFile(tokenFile()));
    EXPECT_THAT(out().log, ::testing::Contains(HasSubstr("4 orbaoauth2session: ")));
    EXPECT_EQ("at-3", token());
    EXPECT_EQ(before, readFile(tokenFile()));
    out().advance(1s);
    EXPECT_EQ("at-3", token());
    EXPECT_EQ("rt-3", stored()["refresh_token"].asString());
    EXPECT_EQ(4U, out().requests.size());
    const auto locks = fakes::world().counts["flock"];
    out().advance(2s);
    EXPECT_EQ("at-3", token());
    EXPECT_EQ(locks, fakes::world().counts["flock"]);
}

TEST_F(SessionTest, UnstoredTokens_AreForgottenAtASignOut) {
    fakes::world().failAt["renameat"] = 1;
    EXPECT_EQ("at-2", token());
    EXPECT_TRUE(session().signOut());
    EXPECT_EQ("at-4", token());
}

TEST_F(SessionTest, UnstoredTokens_DoNotReplaceThoseOfAnotherProcess) {
    token();
    out().advance(2h);
    fakes::world().failAt["renameat"] = fakes::world().counts["renameat"] + 1;
    EXPECT_EQ("at-3", token());
    out().advance(2h);
    whenLocking([this] { storeOther("other", 1'800'017'000); });
    EXPECT_EQ("other", token());
    EXPECT_EQ("other", stored()["access_token"].asString());
}

TEST_F(SessionTest, FilesOfOthers_AreCheckDevice) {
    const auto expectUnusable = [&] {
        restart();
        expectFailure(38, Remedy::checkDevice);
        EXPECT_THAT(out().requests, IsEmpty());
    };
    const std::string elsewhere = folder + "/elsewhere";
    std::filesystem::create_directory(elsewhere);
    writeFile(elsewhere + "/file", "");
    std::filesystem::create_symlink(elsewhere + "/file", tokenFile());
    expectUnusable();
    std::filesystem::remove(tokenFile());
    std::filesystem::create_directory(tokenFile());
    expectUnusable();
    std::filesystem::remove(tokenFile());
    const std::string work = tokenFile() + ".work";
    std::filesystem::create_directory_symlink(elsewhere, work);
    expectUnusable();
    std::filesystem::remove(work);
    writeFile(work, "");
    expectUnusable();
    std::filesystem::remove(work);
    std::filesystem::create_directory(work);
    std::filesystem::create_symlink(elsewhere + "/file", work + "/lock");
    expectUnusable();
    std::filesystem::remove(work + "/lock");
    std::filesystem::create_symlink(elsewhere + "/file", work + "/gate");
    expectUnusable();
    std::filesystem::remove(work + "/gate");
    for (const unsigned mode : {0770U, 0707U, 0775U}) {
        std::filesystem::permissions(folder, std::filesystem::perms(mode));
        expectUnusable();
        EXPECT_EQ("The folder " + folder + "/ is writable by other users.", failure().what());
    }
    for (const unsigned mode : {01777U, 0755U}) {
        std::filesystem::permissions(folder, std::filesystem::perms(mode));
        restart();
        token();
    }
}

TEST_F(SessionTest, ForeignOwners_AreCheckDevice) {
    token();
    const auto belongsTo = [](const std::string& path, uid_t user) {
        struct stat status = {};
        ASSERT_EQ(0, stat(path.c_str(), &status));
        out().owners = {{status.st_ino, user}};
    };
    const std::string work = tokenFile() + ".work";
    const std::vector<std::pair<std::string, std::string>> paths = {
        {folder, "The folder " + folder + "/ belongs to another user."},
        {tokenFile(), tokenFile() + " is not this user's own file."},
        {work, "The folder " + work + " belongs to another user."},
        {work + "/lock", "The lock file is not this user's own file."},
        {work + "/gate", work + "/gate is not this user's own file."}};
    for (const auto& [path, text] : paths) {
        restart();
        belongsTo(path, 65534);
        const auto exception = failure([&] {
            token();
            out().advance(2h);  // a good token needs no work folder
            token();
        });
        EXPECT_EQ(38, exception.errCode());
        EXPECT_EQ(Remedy::checkDevice, exception.remedy());
        EXPECT_EQ(text, exception.what());
    }
    belongsTo(folder, 0);
    EXPECT_EQ("at-3", token());
    restart();
    belongsTo(tokenFile(), 0);
    expectFailure(38, Remedy::checkDevice);
}

TEST_F(SessionTest, ModesThatKeepTheOwnerOut_AreRepaired) {
    token();
    for (const char* const name : {"/lock", "/gate"}) {
        std::filesystem::permissions(tokenFile() + ".work" + name, std::filesystem::perms(0));
    }
    outside::get().error = EACCES;
    fakes::world().failAt["openat"] = fakes::world().counts["openat"] + 3;
    out().advance(2h);
    EXPECT_EQ("at-3", token());
}

TEST_F(SessionTest, ModesThatCannotBeRepaired_AreCheckDevice) {
    token();
    out().advance(2h);
    std::filesystem::permissions(tokenFile() + ".work", std::filesystem::perms(0500));
    fakes::world().failAt["fchmod"] = fakes::world().counts["fchmod"] + 1;
    expectFailure(38, Remedy::checkDevice);
    out().error = EACCES;
    fakes::world().failAt = {{"openat", fakes::world().counts["openat"] + 3},
                             {"fchmodat", fakes::world().counts["fchmodat"] + 1}};
    expectFailure(38, Remedy::checkDevice);
    EXPECT_EQ(3U, out().requests.size());
}

TEST_F(SessionTest, InterruptedCalls_AreRepeated) {
    token();
    out().advance(2h);
    outside::get().error = EINTR;
    for (const char* const name : {"openat", "fsync", "pwrite", "flock", "ftruncate", "pread"}) {
        fakes::world().failAt[name] = fakes::world().counts[name] + 1;
    }
    EXPECT_EQ("at-3", token());
    EXPECT_EQ("rt-3", stored()["refresh_token"].asString());
}

TEST_F(SessionTest, FolderThatCannotBeWritten_FailsBeforeTheRefreshTokenIsSpent) {
    token();
    out().advance(2h);
    fakes::world().failAt["faccessat"] = fakes::world().counts["faccessat"] + 1;
    expectFailure(38, Remedy::checkDevice);
    EXPECT_EQ(3U, out().requests.size());
}

TEST_F(SessionTest, FileSystemThatCannotReserve_IsBestEffort) {
    for (const int error : {EOPNOTSUPP, EINVAL, ENOSYS, EINTR}) {
        fakes::world().failAt["posix_fallocate"] = fakes::world().counts["posix_fallocate"] + 1;
        outside::get().error = error;
        EXPECT_NE("", token());
        session().signOut();
    }
}

TEST_F(SessionTest, WorkFolderRemovedDuringAnErrand_IsMadeAgain) {
    token();
    out().advance(2h);
    fakes::world().onCall = [this](const std::string& name) {
        if (name == "faccessat") {
            std::filesystem::remove_all(tokenFile() + ".work");
        }
    };
    EXPECT_EQ("at-3", token());
}

TEST_F(SessionTest, WorkFolderMadeByAnotherMeanwhile_IsUsed) {
    fakes::world().onCall = [this](const std::string& name) {
        if (name == "mkdirat") {
            std::filesystem::create_directory(tokenFile() + ".work");
        }
    };
    EXPECT_EQ("at-2", token());
}

// What is said when a call fails during a refresh, with a star for each such call; a file that
// could not be opened at first is looked at once more.
TEST_F(SessionTest, FailingFileCalls_AreNamed) {
    std::vector<std::string> said;
    for (const char* const call :
         {"open", "fstat", "openat", "mkdirat", "flock", "faccessat", "fchmod", "posix_fallocate",
          "fsync", "pread", "pwrite", "ftruncate", "renameat"}) {
        for (int n = 1;; ++n) {
            fakes::world().failAt.clear();
            std::filesystem::remove_all(tokenFile() + ".work");
            std::filesystem::remove(tokenFile());
            restart();
            token();
            std::filesystem::permissions(tokenFile() + ".work", std::filesystem::perms(0755));
            if (std::string("mkdirat") == call) {
                std::filesystem::remove_all(tokenFile() + ".work");
            }
            out().advance(2h);
            out().log.clear();
            const int failing = fakes::world().counts[call] + n;
            fakes::world().failAt[call] = failing;
            std::string text;
            try {
                token();
                text = out().log.front();
            } catch (const SessionException& exception) {
                text = exception.what();
            }
            if (fakes::world().counts[call] < failing) {
                break;
            }
            for (const auto& [shown, instead] : std::vector<std::pair<std::string, std::string>>{
                     {"4 orbaoauth2session: The new tokens are kept in memory only. ", "kept: "},
                     {"6 orbaoauth2session: Refreshed at https://auth.test.", "refreshed"},
                     {": Input/output error.", ""},
                     {folder, ""}}) {
                const std::size_t at = text.find(shown);
                if (at != std::string::npos) {
                    text.replace(at, shown.size(), instead);
                }
            }
            const std::string line = std::string(call) + ": " + text;
            if (!said.empty() && said.back().substr(0, line.size() + 1) == line + " ") {
                said.back() += "*";
            } else {
                said.push_back(line + " *");
            }
        }
    }
    const std::vector<std::string> expected = {
        "open: Cannot open the folder / *",
        "fstat: Cannot look at / *",
        "fstat: Cannot look at /tokens.json *",
        "fstat: Cannot look at /tokens.json.work **",
        "fstat: Cannot open the lock file *",
        "fstat: Cannot look at /tokens.json.work *",
        "fstat: Cannot look at /tokens.json **",
        "fstat: refreshed *",
        "fstat: Cannot look at /tokens.json.work/reserve *",
        "fstat: Cannot look at /tokens.json.work/gate **",
        "fstat: kept: Cannot look at /tokens.json *",
        "openat: Cannot open /tokens.json *",
        "openat: Cannot open the folder /tokens.json.work *",
        "openat: Cannot open the lock file *",
        "openat: Cannot open /tokens.json.work/reserve *",
        "openat: Cannot open /tokens.json **",
        "openat: refreshed *",
        "openat: Cannot open /tokens.json.work/reserve *",
        "openat: Cannot open /tokens.json.work/gate *",
        "mkdirat: Cannot make the folder /tokens.json.work *",
        "flock: Cannot lock the lock file *",
        "flock: refreshed *",
        "faccessat: Cannot write to the folder of /tokens.json *",
        "fchmod: Cannot set the mode of /tokens.json.work *",
        "posix_fallocate: Cannot reserve space for /tokens.json *",
        "posix_fallocate: Cannot reserve space for /tokens.json.work/gate *",
        "fsync: Cannot sync /tokens.json.work/reserve *",
        "fsync: kept: Cannot sync /tokens.json *",
        "fsync: kept: Cannot sync the folder of /tokens.json *",
        "pread: Cannot read /tokens.json ******",
        "pread: refreshed **",
        "pwrite: kept: Cannot write /tokens.json *",
        "ftruncate: kept: Cannot write /tokens.json *",
        "renameat: kept: Cannot replace /tokens.json *"};
    EXPECT_EQ(expected, said);
}

// Whoever has locked a file that is gone has locked nothing.
TEST_F(SessionTest, LockReplacedMeanwhile_IsTakenAgain) {
    token();
    out().advance(2h);
    const std::string work = tokenFile() + ".work";
    int locks = 0;
    fakes::world().onCall = [&](const std::string& name) {
        if (name != "flock") {
            return;
        }
        if (++locks == 1) {
            std::filesystem::rename(work + "/lock", work + "/former");
        } else if (locks == 3) {  // behind the unlocking
            std::filesystem::rename(work + "/lock", work + "/older");
            writeFile(work + "/lock", "");
        } else if (locks == 5) {
            std::filesystem::rename(work, work + ".former");
        }
    };
    EXPECT_EQ("at-3", token());
    EXPECT_EQ(8, locks);
}

TEST_F(SessionTest, TokenThatCameDuringTheWaitForTheLock_IsTheAnswer) {
    token();
    out().advance(2h);
    whenLocking([this] { storeOther("at-other", 1'800'009'000); });
    EXPECT_EQ("at-other", token());
    EXPECT_EQ(3U, out().requests.size());
    out().advance(2h);
    whenLocking([this] {
        storeOther("at-newer", 1'800'017'000);
        session().cancel();
    });
    expectFailure(35, Remedy::cancelled);
    EXPECT_EQ(3U, out().requests.size());
}

TEST_F(SessionTest, UnstoredTokensOfAFormerAccount_AreDropped) {
    token();
    out().advance(2h);
    fakes::world().failAt["renameat"] = fakes::world().counts["renameat"] + 1;
    EXPECT_EQ("at-3", token());
    out().account = "account-2";
    out().advance(2h);
    EXPECT_EQ("at-5", token());
    EXPECT_EQ("/token", urls().back());
}

TEST_F(SessionTest, UnstoredTokens_StillUnstoredLater) {
    token();
    out().advance(2h);
    fakes::world().failAt["renameat"] = fakes::world().counts["renameat"] + 1;
    token();
    for (int i = 0; i < 2; ++i) {
        out().advance(1s);
        fakes::world().failAt["renameat"] = fakes::world().counts["renameat"] + 1;
        const auto logged = out().log.size();
        EXPECT_EQ("at-3", token());
        EXPECT_EQ("at-2", stored()["access_token"].asString());
        EXPECT_EQ(logged, out().log.size());  // the warning came with the tokens
        const auto tries = fakes::world().counts["renameat"];
        EXPECT_EQ("at-3", token());
        EXPECT_EQ(tries, fakes::world().counts["renameat"]);
    }
    writeFile(tokenFile(), "{}");  // somebody else's, so ours are out of date
    out().advance(2h);
    EXPECT_EQ("at-5", token());
}

TEST_F(SessionTest, EarlyRenewal_WithoutRefreshToken_NeverSignsIn) {
    answerTokens({200, R"({"access_token":"a","token_type":"Bearer","expires_in":3600})"});
    token();
    restart();
    out().advance(3530s);
    EXPECT_EQ("a", token());
    EXPECT_EQ(3U, out().requests.size());
}

// Another process has renewed the token since this one read it.
TEST_F(SessionTest, EarlyRenewal_TakesTheTokenOfAnotherProcess) {
    token();
    Session other(settings());
    EXPECT_EQ("at-2", other.accessToken().text);
    out().advance(3530s);
    const std::string renewed = other.accessToken().text;
    EXPECT_EQ("at-3", renewed);
    EXPECT_EQ(renewed, token());
    EXPECT_EQ(4U, out().requests.size());
}

TEST_F(SessionTest, CancelDuringTheGrant_IsThrown) {
    out().grant = [this] {
        session().cancel();
        return std::string("code");
    };
    expectFailure(35, Remedy::cancelled);
}

TEST_F(SessionTest, CancelDuringTheExchangeOfAGrant_IsThrown) {
    out().grant = [] { return std::string("code"); };
    out().intercept = [this](const Request&, Answer& answer) {
        session().cancel();
        return answer.hangs = true;
    };
    expectFailure(35, Remedy::cancelled);
    EXPECT_THAT(urls(), ElementsAre("/token"));
}

TEST_F(SessionTest, ReplyWithoutMemory_IsAFailedTransfer) {
    // Long enough to be allocated.
    answerTokens({503, "", "", {"Retry-After: Sun, 06 Nov 1994 08:50:37 GMT"}});
    fakes::world().onCall = [](const std::string& name) {
        if (name == "curl_multi_perform" && out().requests.size() == 2) {
            fakes::world().failAt["operator new"] = fakes::world().counts["operator new"] + 1;
        }
    };
    fakes::UnderTest underTest;
    int code = 0;
    try {
        token();
    } catch (const SessionException& exception) {
        code = exception.errCode();
    }
    EXPECT_EQ(26, code);
}

TEST_F(SessionTest, FileThatIsTooLarge_CountsAsNone) {
    writeFile(tokenFile(), std::string(2'000'000, ' '));
    token();
    EXPECT_THAT(urls(), ElementsAre("/auth", "/continue", "/token"));
}

// ---- The web login
// -------------------------------------------------------------------------------

TEST_F(SessionTest, WebLogin_Failures) {
    const auto answerAt = [](const std::string& part, const Answer& answer) {
        out().intercept = [part, answer](const Request& request, Answer& given) {
            given = answer;
            return request.url.find(part) != std::string::npos;
        };
    };
    const auto callback = [](const std::string& query) {
        return Answer{302, "", "https://app.test/cb?" + query};
    };
    struct Case {
        std::string part;
        Answer answer;
        int code;
        Remedy remedy;
    };
    const std::vector<Case> cases = {
        {"/auth?", {200}, 4, Remedy::fixSettings},
        {"/auth?", {302}, 4, Remedy::fixSettings},
        {"/auth?", {302, "", "https://auth.test/login"}, 4, Remedy::fixSettings},
        {"/auth?", {400}, 14, Remedy::fixSettings},
        {"/auth?", {400, R"({"error":"access_denied"})"}, 37, Remedy::linkAccount},
        {"/auth?", {100}, 16, Remedy::tryLater},
        {"/token", {401}, 14, Remedy::fixSettings},
        {"/token", {400, R"({"error":"invalid_client"})"}, 37, Remedy::fixSettings},
        {"/token", {400, R"({"error":"invalid_grant"})"}, 37, Remedy::tryLater},
        {"/auth?", callback("code=c&state=other"), 8, Remedy::tryLater},
        {"/continue", {200}, 5, Remedy::fixSettings},
        {"/continue", {302, "", "http://app.test/other"}, 5, Remedy::fixSettings},
        {"/continue", {302, "", "https://auth.test/continue"}, 5, Remedy::fixSettings},
        {"/continue", callback("code=c&state=other"), 8, Remedy::tryLater},
        {"/continue", callback("code=c&state=" + std::string(43, 'x')), 8, Remedy::tryLater},
        {"/continue", {502}, 15, Remedy::tryLater},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.part + " " + one.answer.redirect);
        out().advance(2h);
        answerAt(one.part, one.answer);
        out().requests.clear();
        expectFailure(one.code, one.remedy);
        EXPECT_LE(out().requests.size(), 11U);
    }
    const std::vector<std::tuple<std::string, int, Remedy>> callbacks = {
        {"error=access_denied", 37, Remedy::linkAccount},
        {"error=temporarily_unavailable&code=c", 37, Remedy::tryLater},
        {"error=invalid+scope", 37, Remedy::fixSettings},
        {"error=%22", 36, Remedy::tryLater},
        {"code=", 36, Remedy::tryLater},
        {"xcode=c", 36, Remedy::tryLater},
        {"code", 36, Remedy::tryLater},
        {"", 36, Remedy::tryLater},
    };
    for (const auto& [query, code, remedy] : callbacks) {
        SCOPED_TRACE(query);
        out().advance(2h);
        out().intercept = [&query = query](const Request& request, Answer& answer) {
            answer = {302, "", "https://app.test/cb?" + query + "&state=" + out().state};
            return request.url == "https://auth.test/continue";
        };
        expectFailure(code, remedy);
    }
}

// Names and values are decoded; what is no escape stays.
TEST_F(SessionTest, Callback_IsDecoded) {
    out().intercept = [](const Request& request, Answer& answer) {
        answer = {302, "",
                  "https://app.test/cb?x&=y&c%6fde=a+%2B%4%4g%g4%&code=b&state=" + out().state +
                      "#code=c"};
        return request.url == "https://auth.test/continue";
    };
    failure();
    EXPECT_THAT(out().requests.back().form, HasSubstr("&code=a%20%2B%254%254g%25g4%25&"));
}

TEST_F(SessionTest, Texts_NameSchemeAndHostOnly) {
    const std::vector<std::pair<std::string, std::string>> hosts = {
        {"https://u:p@h\xc3\xa4\x7f x:8080/p?q#f", "https://h????x"},
        {"https://[::1]:443", "https://[::1]"},
        {"https://h!~x#f", "https://h!~x"},
        {"https://" + std::string(300, 'h') + "?q", "https://" + std::string(255, 'h')},
    };
    for (const auto& [url, host] : hosts) {
        out().intercept = [url = url](const Request& request, Answer& answer) {
            answer =
                request.url == "https://auth.test/continue" ? Answer{302, "", url} : Answer{500};
            return request.url.find("https://auth.test/auth?") != 0;
        };
        EXPECT_EQ(host + " replied with HTTP status 500.", failure().what());
        out().advance(2h);
    }
}

TEST_F(SessionTest, WebLogin_TenRedirectsAreFollowed) {
    int hops = 0;
    int last = 10;
    out().intercept = [&](const Request& request, Answer& answer) {
        if (!request.form.empty() || request.url.find("/auth?") != std::string::npos) {
            return false;
        }
        answer = {302, "", "https://auth.test/hop"};
        if (++hops == last) {
            answer.redirect = "https://app.test/cb?code=c&state=" + out().state;
            out().codes.insert("c");
        }
        return true;
    };
    token();
    session().signOut();
    hops = 0;
    last = 11;
    expectFailure(5, Remedy::fixSettings);
    EXPECT_EQ(10, hops);
}

TEST_F(SessionTest, AccountServiceFailures) {
    const auto fails = [&](const std::function<void(Json::Value&)>& login, int code,
                           Remedy remedy) {
        out().advance(2h);
        out().login = login;
        expectFailure(code, remedy);
    };
    using ORBA::OAuth2Client::OAuth2ClientException;
    fails([](Json::Value& reply) { reply.removeMember("redirect_to"); }, 36, Remedy::tryLater);
    fails([](Json::Value& reply) { reply["redirect_to"] = 7; }, 36, Remedy::tryLater);
    fails([](Json::Value& reply) { reply["redirect_to"] = ""; }, 36, Remedy::tryLater);
    fails([](Json::Value& reply) { reply["redirect_to"] = "file:///x"; }, 5, Remedy::fixSettings);
    const std::vector<std::pair<int, Remedy>> codes = {
        {1, Remedy::tryLater},     {2, Remedy::tryLater},     {10, Remedy::checkDevice},
        {11, Remedy::checkDevice}, {19, Remedy::linkAccount}, {20, Remedy::checkDevice},
        {21, Remedy::tryLater},    {22, Remedy::linkAccount}};
    for (const auto& [code, remedy] : codes) {
        fails([code = code](Json::Value&) { throw OAuth2ClientException(code, "secret"); },
              code == 1 ? 36 : code, remedy);
        EXPECT_THAT(out().log.back(), Not(HasSubstr("secret")));
    }
    fails([](Json::Value&) { throw 42; }, 1, Remedy::checkDevice);
}

// ---- Ending
// --------------------------------------------------------------------------------------

TEST_F(SessionTest, SignOut_RevokesAndRemoves) {
    auto plain = std::make_unique<Session>(settings());
    use([](Settings& given) { given.revocationEndpoint = "https://auth.test/revoke"; });
    EXPECT_TRUE(session().signOut());  // nothing to revoke
    EXPECT_THAT(out().requests, IsEmpty());
    theSession.swap(plain);
    EXPECT_TRUE(session().signOut());  // nowhere to revoke
    theSession.swap(plain);
    token();
    EXPECT_TRUE(session().signOut());
    EXPECT_EQ("token=rt-2&token_type_hint=refresh_token&client_id=fleet%20lens",
              out().requests.back().form);
    EXPECT_FALSE(std::filesystem::exists(tokenFile()));
    EXPECT_EQ("6 orbaoauth2session: Signed out.", out().log.back());
    EXPECT_EQ("at-4", token());
    for (const Answer& answer : {Answer{500}, Answer{302, "", "https://auth.test/x"}}) {
        token();
        out().intercept = [answer](const Request& request, Answer& given) {
            given = answer;
            return request.url == "https://auth.test/revoke";
        };
        EXPECT_FALSE(session().signOut());
        EXPECT_FALSE(std::filesystem::exists(tokenFile()));
        EXPECT_THAT(out().log, ::testing::Contains("4 orbaoauth2session: The tokens are not "
                                                   "revoked. https://auth.test replied with "
                                                   "HTTP status " +
                                                   std::to_string(answer.status) + "."));
    }
    token();
    answerTokens({});
    out().intercept = [](const Request& request, Answer& answer) {
        answer = {400, R"({"error":"unsupported_token_type"})"};
        return request.url == "https://auth.test/revoke";
    };
    EXPECT_FALSE(session().signOut());
    EXPECT_THAT(out().log,
                ::testing::Contains(HasSubstr("replied with the error unsupported_token_type.")));
    out().intercept = [](const Request& request, Answer& answer) {
        answer = {299};
        return request.url == "https://auth.test/revoke";
    };
    token();
    EXPECT_TRUE(session().signOut());
    answerTokens({200, R"({"access_token":"only","token_type":"Bearer"})"});
    token();
    out().intercept = nullptr;
    EXPECT_TRUE(session().signOut());
    EXPECT_THAT(out().requests.back().form, HasSubstr("token=only&token_type_hint=access_token&"));
    token();
    for (const auto& [call, text] : std::vector<std::pair<std::string, std::string>>{
             {"unlinkat", "Cannot remove " + tokenFile() + ": Input/output error."},
             {"fsync", "Cannot sync the folder of " + tokenFile() + ": Input/output error."}}) {
        const int skipped = call == "unlinkat" ? 2 : 1;  // the reserve's
        fakes::world().failAt[call] = fakes::world().counts[call] + skipped;
        EXPECT_EQ(text, failure([this] { session().signOut(); }).what());
    }
    token();
    out().linked = false;
    const auto requests = out().requests.size();
    EXPECT_FALSE(session().signOut());
    EXPECT_EQ(requests, out().requests.size());
}

TEST_F(SessionTest, SignOut_WhileTheGateIsClosed_AsksNothing) {
    use([](Settings& given) { given.revocationEndpoint = "https://auth.test/revoke"; });
    token();
    out().advance(2h);
    answerTokens({503});
    failure();
    const auto requests = out().requests.size();
    EXPECT_FALSE(session().signOut());
    EXPECT_EQ(requests, out().requests.size());
    out().intercept = nullptr;
    token();  // it opened the gate
}

TEST_F(SessionTest, Cancel_IsFinal) {
    token();
    session().cancel();
    expectFailure(35, Remedy::cancelled);
    expectFailure(35, Remedy::cancelled, [&] { renew("x"); });
    expectFailure(35, Remedy::cancelled, [&] { session().signOut(); });
}

TEST_F(SessionTest, Cancel_EndsARequestAndLeavesTheGateOpen) {
    out().intercept = [this](const Request&, Answer& answer) {
        answer.hangs = true;
        session().cancel();
        return true;
    };
    expectFailure(35, Remedy::cancelled);
    restart();
    out().intercept = nullptr;
    token();
}

TEST_F(SessionTest, CancelDuringAReplyThatComes_LosesNoTokens) {
    out().intercept = [this](const Request& request, Answer&) {
        if (request.url == "https://auth.test/token") {
            session().cancel();
        }
        return false;
    };
    EXPECT_EQ("at-2", token());
    EXPECT_EQ("rt-2", stored()["refresh_token"].asString());
}

TEST_F(SessionTest, ServerThatHangs_EndsAt30sOrTheTimeout) {
    out().intercept = [](const Request&, Answer& answer) { return answer.hangs = true; };
    auto begin = out().boot;
    expectFailure(32, Remedy::tryLater);
    EXPECT_THAT(fakes::world().calls, ::testing::Contains("curl_multi_poll(100)"));
    EXPECT_NEAR(30, std::chrono::duration<double>(out().boot - begin).count(), 0.2);
    out().advance(10min);
    use([](Settings& given) { given.timeout = 5s; });
    begin = out().boot;
    failure();
    EXPECT_NEAR(5, std::chrono::duration<double>(out().boot - begin).count(), 0.2);
    out().advance(10min);
    fakes::world().failAt["curl_multi_poll"] = fakes::world().counts["curl_multi_poll"] + 1;
    expectFailure(26, Remedy::tryLater);
}

TEST_F(SessionTest, LockOfAnotherProcess_IsWaitedForUntilTheTimeout) {
    token();
    out().advance(2h);
    const int locked = open((tokenFile() + ".work/lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(0, flock(locked, LOCK_EX));
    const auto begin = out().boot;
    expectFailure(39, Remedy::tryLater);
    EXPECT_EQ(120s, out().boot - begin);
    close(locked);
    token();
}

// ---- Settings
// ------------------------------------------------------------------------------------

TEST_F(SessionTest, RefusedSettings_AreNamed) {
    struct Case {
        std::string member;
        std::string reason;
        std::function<void(Settings&)> change;
    };
    const auto set = [](std::string Settings::*member, const std::string& value) {
        return [member, value](Settings& given) { given.*member = value; };
    };
    std::vector<Case> cases;
    const std::vector<std::pair<std::string, std::string Settings::*>> members = {
        {"authorizationEndpoint", &Settings::authorizationEndpoint},
        {"tokenEndpoint", &Settings::tokenEndpoint},
        {"clientId", &Settings::clientId},
        {"redirectUri", &Settings::redirectUri},
        {"scope", &Settings::scope},
        {"tokenFile", &Settings::tokenFile},
        {"revocationEndpoint", &Settings::revocationEndpoint}};
    for (const auto& [name, member] : members) {
        if (name != "revocationEndpoint") {
            cases.push_back({name, "is missing", set(member, "")});
        }
        for (const char* const control : {"\n", "\x1f", "\x7f"}) {
            cases.push_back(
                {name, "holds a control character",
                 [member = member, control](Settings& given) { given.*member += control; }});
        }
        if (name.find("Endpoint") != std::string::npos) {
            for (const char* const url : {"http://auth.test/", "https:/auth.test/", "auth.test",
                                          "https://", "x", "https://a/#f"}) {
                cases.push_back(
                    {name,
                     std::strchr(url, '#') != nullptr ? "has a fragment" : "is not an https URL",
                     set(member, url)});
            }
        }
    }
    for (const char* const uri :
         {"/cb", "app://cb", "https://x", "HTTPS://X/cb", "https://x/a/../b",
          "https://app.test/cb#f", "https://host?x=1"}) {
        cases.push_back({"redirectUri",
                         std::strchr(uri, '#') != nullptr
                             ? "has a fragment"
                             : "would be rewritten by libcurl, so that its callback is never found",
                         set(&Settings::redirectUri, uri)});
    }
    cases.push_back(
        {"tokenFile", "is not an absolute path", set(&Settings::tokenFile, "tokens.json")});
    cases.push_back({"tokenFile", "names a folder", set(&Settings::tokenFile, "/tmp/")});
    cases.push_back({"margin", "is negative", [](Settings& given) { given.margin = -1s; }});
    cases.push_back({"timeout", "is below 1 s", [](Settings& given) { given.timeout = 999ms; }});
    for (const Case& one : cases) {
        Settings given = settings();
        given.revocationEndpoint = "https://auth.test/revoke";
        one.change(given);
        const auto exception = failure([&] { const Session session(given); });
        EXPECT_EQ(34, exception.errCode());
        EXPECT_EQ(Remedy::fixSettings, exception.remedy());
        EXPECT_EQ("The setting " + one.member + " " + one.reason + ".", exception.what());
        EXPECT_EQ("4 orbaoauth2session: " + std::string(exception.what()), out().log.back());
    }
    use([](Settings& given) {
        given.margin = 0s;
        given.timeout = 1s;
    });
    use([](Settings& given) {
        given.margin = std::chrono::seconds::max();
        given.timeout = std::chrono::milliseconds::max();
    });
    EXPECT_EQ("at-2", token());
    for (const char* const uri : {"https://app.test/cb?x=1", "https://h:443/cb", "app.x://cb/y"}) {
        Settings given = settings();
        given.redirectUri = uri;
        EXPECT_NO_THROW(const Session session(given)) << uri;
    }
}

TEST_F(SessionTest, RefusedSettings_TheFirstIsNamed) {
    const Settings good = settings();
    Settings given;
    given.revocationEndpoint = "x";
    given.margin = -1s;
    for (const auto& [name, member] : std::vector<std::pair<std::string, std::string Settings::*>>{
             {"authorizationEndpoint", &Settings::authorizationEndpoint},
             {"tokenEndpoint", &Settings::tokenEndpoint},
             {"clientId", &Settings::clientId},
             {"redirectUri", &Settings::redirectUri},
             {"scope", &Settings::scope},
             {"tokenFile", &Settings::tokenFile}}) {
        EXPECT_EQ("The setting " + name + " is missing.",
                  std::string(failure([&] { const Session session(given); }).what()));
        given.*member = good.*member;
    }
}

TEST_F(SessionTest, RedirectUriWithAQuery) {
    use([](Settings& given) { given.redirectUri = "https://app.test/cb?state=1"; });
    out().intercept = [](const Request& request, Answer& answer) {
        answer = out().answer(request);
        const std::size_t query = answer.redirect.find("cb?");
        if (query != std::string::npos) {
            answer.redirect.replace(query, 3, "cb?state=1&");
        }
        return true;
    };
    EXPECT_EQ("at-2", token());
}

// libcurl gives a redirect that it cannot parse as it came.
TEST_F(SessionTest, RedirectUriThatIsNoUrl_StaysAsItIs) {
    Settings given = settings();
    given.redirectUri = "https://[::1/cb";
    EXPECT_NO_THROW(const Session session(given));
}

TEST_F(SessionTest, SettingsWithoutMemory_AreNotBlamed) {
    const Settings given = settings();
    { const Session first(given); }  // allocates what stays until the process ends
    fakes::world().counts.clear();
    {
        const fakes::UnderTest underTest;
        const Session session(given);
    }
    for (const auto& [name, count] : std::map(fakes::world().counts)) {
        for (int n = 1; n <= count; ++n) {
            fakes::reset();
            fakes::world().failAt[name] = n;
            const fakes::UnderTest underTest;
            EXPECT_THROW(const Session session(given), std::bad_alloc) << name << " " << n;
        }
    }
}

// Forks are watched from a process's first session on: death tests come first, and run in a child.
using SessionDeathTest = SessionTest;

TEST_F(SessionDeathTest, ForksThatCannotBeWatched) {
    GTEST_FLAG_SET(death_test_style, "fast");  // not every emulator can execute this program
    const auto make = [this] {
        fakes::world().failAt["pthread_atfork"] = 1;
        try {
            session();
        } catch (const std::bad_alloc&) {
            session();
            std::exit(0);
        }
    };
    EXPECT_EXIT(make(), ::testing::ExitedWithCode(0), "");
}

TEST_F(SessionTest, Texts_OfTheWebLogin) {
    const auto callback = [](const std::string& query) {
        return Answer{302, "", "https://app.test/cb?" + query};
    };
    const std::vector<std::tuple<std::string, Answer, std::string>> cases = {
        {"/auth?",
         {200},
         "https://auth.test replied with HTTP status 200 where the login needs a redirect."},
        {"/auth?",
         {299},
         "https://auth.test replied with HTTP status 299 where the login needs a redirect."},
        {"/auth?",
         {399},
         "https://auth.test replied with HTTP status 399 where the login needs a redirect."},
        {"/auth?",
         {200, "", "https://auth.test/login"},
         "https://auth.test replied with HTTP status 200 where the login needs a redirect."},
        {"/auth?",
         {399, "", "https://auth.test/login"},
         "https://auth.test sent no login challenge."},
        {"/auth?",
         {400, R"({"error":"invalid_grant"})"},
         "https://auth.test replied with the error invalid_grant."},
        {"/auth?",
         {302, "", "https://auth.test/login"},
         "https://auth.test sent no login challenge."},
        {"/auth?", callback("code=c"), "The callback of https://auth.test has another state."},
        {"/auth?", callback("state=STATE"),
         "The callback of https://auth.test has neither code nor error."},
        {"/continue",
         {302, "", "http://x.test"},
         "The web login leads to a URL that is not https."},
        {"/continue",
         {302, "", "https://auth.test/continue"},
         "The web login did not reach the callback in 10 redirects."},
        {"/continue", callback("error=invalid_grant&state=STATE"),
         "https://auth.test replied with the error invalid_grant."}};
    for (const auto& [part, answer, text] : cases) {
        out().advance(2h);
        out().intercept = [part = part, answer = answer](const Request& request, Answer& given) {
            given = answer;
            given.headers = {"Retry-After: 777"};
            const std::size_t state = given.redirect.find("STATE");
            if (state != std::string::npos) {
                const std::string sent = outside::parameterOf(request.url, "state");
                given.redirect.replace(state, 5, sent.empty() ? out().state : sent);
            }
            return request.url.find(part) != std::string::npos;
        };
        const auto exception = failure();
        EXPECT_EQ(text, exception.what());
        const bool isOfTheStatus =
            answer.status != 302 && text.find("challenge") == std::string::npos;
        EXPECT_EQ(isOfTheStatus, exception.retryAfter() == 777s);
        if (text.find("invalid_grant") != std::string::npos) {
            EXPECT_EQ(Remedy::fixSettings, exception.remedy());  // it answers no code
        }
    }
    out().intercept = nullptr;
    for (const bool refuses : {true, false}) {
        out().advance(2h);
        out().login = [refuses](Json::Value& reply) {
            reply.clear();
            if (refuses) {
                throw ORBA::OAuth2Client::OAuth2ClientException(22, "secret");
            }
        };
        EXPECT_STREQ(refuses ? "The account service did not log the device in: code 22."
                             : "The account service named no URL to continue the login at.",
                     failure().what());
    }
}

TEST_F(SessionTest, Texts) {
    out().login = [](Json::Value&) { throw 42; };
    EXPECT_STREQ("An unexpected exception was caught.", failure().what());
    EXPECT_EQ("4 orbaoauth2session: An unexpected exception was caught.", out().log.back());
    out().login = nullptr;
    out().advance(2h);
    answerTokens({400, R"({"error":"invalid_scope"})"});
    EXPECT_STREQ("https://auth.test replied with the error invalid_scope.", failure().what());
    const auto logged = out().log.size();
    failure();
    EXPECT_EQ(logged, out().log.size());  // what the gate repeats is logged once
    for (const auto& [body, text] : std::vector<std::pair<std::string, std::string>>{
             {"[]", "https://auth.test sent tokens that are no JSON object."},
             {"{}", "https://auth.test sent no usable access token."},
             {std::string(65537, ' '), "https://auth.test sent a reply of more than 64 KiB."}}) {
        out().advance(2h);
        answerTokens({200, body, "", {"Retry-After: 50"}});
        EXPECT_EQ(text, failure().what());
        EXPECT_EQ(50s, failure().retryAfter());
    }
    for (const auto& [call, text] : std::vector<std::pair<std::string, std::string>>{
             {"curl_multi_init", "libcurl gives no handle."},
             {"curl_easy_init", "libcurl gives no handle."},
             {"curl_multi_add_handle", "libcurl does not take the request."},
             {"curl_multi_perform",
              "The request to https://auth.test failed: Failed initialization."},
             {"curl_multi_info_read",
              "The request to https://auth.test failed: Failed initialization."},
             {"curl_easy_getinfo", "libcurl does not give the reply of https://auth.test."}}) {
        out().advance(2h);
        fakes::world().failAt[call] = fakes::world().counts[call] + 1;
        EXPECT_EQ(text, failure().what());
    }
    out().advance(2h);
    fakes::world().failAt["curl_easy_setopt"] = fakes::world().counts["curl_easy_setopt"] + 2;
    const auto unset = failure();
    EXPECT_THAT(unset.what(), ::testing::StartsWith("Failed to set "));
    EXPECT_THAT(unset.what(), Not(HasSubstr("~")));
    EXPECT_THAT(unset.what(), HasSubstr("CURLOPT_URL"));
    EXPECT_THAT(unset.what(), ::testing::EndsWith(": libcurl's result 27."));
    EXPECT_EQ(25, unset.errCode());
    out().advance(2h);
    answerTokens({200, "{}", "", {}, CURLE_OK, ""});
    EXPECT_STREQ("The request to https://auth.test failed: Transferred a partial file.",
                 failure().what());
    out().advance(2h);
    answerTokens({0, "", "", {}, CURLE_OPERATION_TIMEDOUT});
    EXPECT_STREQ("The request to https://auth.test failed: Timeout was reached.", failure().what());
    out().advance(2h);
    out().intercept = [this](const Request&, Answer& answer) {
        session().cancel();
        return answer.hangs = true;
    };
    for (int i = 0; i < 2; ++i) {
        EXPECT_STREQ("The session is cancelled.", failure().what());
    }
    use([](Settings& given) { given.timeout = 1s; });
    const int locked = open((tokenFile() + ".work/lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(0, flock(locked, LOCK_EX));
    EXPECT_STREQ("The call's timeout is over.", failure().what());
    close(locked);
    std::filesystem::create_directory(tokenFile());
    EXPECT_EQ(tokenFile() + " is not this user's own file.", failure().what());
    std::filesystem::remove(tokenFile());
    std::filesystem::create_symlink("nowhere", tokenFile());
    EXPECT_EQ("Cannot open " + tokenFile() + ": Too many levels of symbolic links.",
              failure().what());
}

TEST(SessionExceptions, CarryWhatTheyAreMadeOf) {
    const SessionException made(37, "text", Remedy::linkAccount, 5s, "access_denied");
    const SessionException copy = made;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(37, copy.errCode());
    EXPECT_STREQ("text", copy.what());
    EXPECT_EQ(Remedy::linkAccount, copy.remedy());
    EXPECT_EQ(5s, copy.retryAfter());
    EXPECT_EQ("access_denied", copy.serverError());
    SessionException assigned(1, "", Remedy::tryLater);
    assigned = made;
    EXPECT_EQ("access_denied", assigned.serverError());
}

}  // namespace
