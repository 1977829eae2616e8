// The login flow.
#include "orbaoauth2client/oauth2.h"

#include <json/json.h>

#include <orbatovra/services.h>
#include <memory>
#include <stdexcept>

#include "fixture.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

const std::string kAuthUrl =
    "https://auth.test/authorize?client_id=cid&scope=a%20b&redirect_uri=app%3A%2F%2Fcb&state=s1";
const std::string kWrapped = "Failed to do HTTP Get request to [" + kAuthUrl + "] due to: ";

fakes::Transfer redirectTo(const std::string& target, long status = 302) {
    return {CURLE_OK, status, "", {}, target};
}

class OAuth2Flow : public FakesTest {
  protected:
    OAuth2 oauth2{kAuthUrl, "/jar"};
};

// --- the object ---

TEST_F(OAuth2Flow, EmptyTexts_FailOnlyWhenUsed) {
    OAuth2 empty("", "");
    EXPECT_THAT(world().calls, IsEmpty());
    expectThrows<HttpClientException>([&] { empty.getServerLoginChallenge(); }, 12,
                                      "Failed to do HTTP Get request to [] due to: Got empty URL.");
}

TEST(OAuth2Layout, IsThatOfItsMembers) {
    EXPECT_EQ(5 * sizeof(std::string) + sizeof(std::list<std::string>), sizeof(OAuth2));
    EXPECT_FALSE(std::is_polymorphic_v<OAuth2>);
}

// Callers construct the object in their own storage, by its declared layout.
TEST(OAuth2Layout, TheTwoTextsStandBehindTheReservedMembers) {
    alignas(OAuth2) unsigned char storage[sizeof(OAuth2)];
    const auto* const object =
        new (storage) OAuth2("the authorization url", "the cookie file path");
    const auto textAt = [&](std::size_t offset) {
        return *reinterpret_cast<const std::string*>(storage + offset);
    };
    EXPECT_EQ("", textAt(0));
    EXPECT_EQ("", textAt(32));
    EXPECT_EQ("the authorization url", textAt(88));
    EXPECT_EQ("the cookie file path", textAt(120));
    EXPECT_EQ("", textAt(152));
    object->~OAuth2();
}

// --- the login challenge ---

TEST_F(OAuth2Flow, Challenge_ComesDecodedFromTheRedirect) {
    world().transfers = {redirectTo("https://auth.test/login?login_challenge=c%201&x=2")};
    EXPECT_EQ("c 1", oauth2.getServerLoginChallenge());
    ASSERT_EQ(1U, world().requests.size());
    EXPECT_EQ(kAuthUrl, world().requests[0].options.at(CURLOPT_URL));
    EXPECT_EQ("/jar", world().requests[0].options.at(CURLOPT_COOKIEJAR));
    EXPECT_EQ(0U, world().requests[0].options.count(CURLOPT_FOLLOWLOCATION));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(OAuth2Flow, ChallengeOfAnotherKind_IsNotTaken) {
    world().transfers = {redirectTo("https://a.test/?consent_challenge=no&login_challenge=c1")};
    EXPECT_EQ("c1", oauth2.getServerLoginChallenge());
}

TEST_F(OAuth2Flow, OtherRedirect_IsCode4WithStatusAndTarget) {
    for (const long status : {300L, 301L, 303L, 307L, 308L}) {
        world().transfers = {redirectTo("https://a.test/?login_challenge=c", status)};
        const std::string text = "Server's auth endpoint returned [" + std::to_string(status) +
                                 "]. redirect url = [https://a.test/?login_challenge=c]. ";
        expectThrows<OAuth2ClientException>([&] { oauth2.getServerLoginChallenge(); }, 4, text);
        EXPECT_EQ("7 orbaoauth2 " + text, fakes::logLines().back());
        EXPECT_EQ("%s:%d %s", formats().back());
    }
}

TEST_F(OAuth2Flow, NoRedirect_IsCode4WithoutTarget) {
    expectThrows<OAuth2ClientException>([&] { oauth2.getServerLoginChallenge(); }, 4,
                                        "Server's auth endpoint returned [200]. ");
}

TEST_F(OAuth2Flow, RedirectWithoutChallenge_IsCode12) {
    world().transfers = {redirectTo("https://a.test/cb?error=invalid_scope")};
    expectThrows<OAuth2Exception>(
        [&] { oauth2.getServerLoginChallenge(); }, 12,
        "This url doesn't have query parameters. [https://a.test/cb?error=invalid_scope]");
}

TEST_F(OAuth2Flow, ChallengeRequestThatFails_PassesUnchanged) {
    world().transfers = {{CURLE_OK, 500, "", {}, {}}};
    expectThrows<HttpClientException>(
        [&] { oauth2.getServerLoginChallenge(); }, 15,
        kWrapped + "URL [" + kAuthUrl + "] replied http status code 500: curl return: 0");
}

// --- the login at the identity provider ---

class IdpLogin : public OAuth2Flow {
  protected:
    void login() { oauth2.loginIDP(reply, "challenge-1"); }
    void expectFailure(int code, const std::string& text) {
        const std::string wrapped = "Failed to Login IDP due to: " + text;
        expectThrows<OAuth2ClientException>([&] { login(); }, code, wrapped);
        EXPECT_THAT(fakes::logLines(),
                    ElementsAre("7 orbaoauth2 " + text, "7 orbaoauth2 " + wrapped));
        EXPECT_THAT(formats(), ::testing::Each("%s:%d %s"));
        EXPECT_EQ(1, world().counts["ORBATOVRAHttpsResponseFree"]);
        EXPECT_EQ("syslog(7 " + wrapped + ")", world().calls.back());
    }

    Json::Value reply{Json::objectValue};
};

TEST_F(IdpLogin, MakesTheseCallsInThisOrder) {
    login();
    EXPECT_THAT(
        world().calls,
        ElementsAre("ORBATOVRAAccountGet(zeroed)", "ORBATOVRAServerConfigGet(zeroed)",
                    "KLIBGetSerialNumber(zeroed, 36)", "KLIBCSzHashAlloc(1024)",
                    "KLIBCSzHashSetValue(id, account-1)", "KLIBCSzHashSetValue(auth_key, key-1)",
                    "KLIBCSzHashSetValue(serial_no, SERIAL000042)",
                    "KLIBCSzHashSetValue(challenge, challenge-1)",
                    "ORBATOVRAHttpsRequestSend(account.test, device/api/fleet_lens_login, zeroed, "
                    "0, 1, response zeroed)",
                    "KLIBCSzHashFree()", "ORBATOVRAHttpsResponseFree(body)"));
    EXPECT_THAT(world().loginFields,
                ElementsAre(Pair("id", "account-1"), Pair("auth_key", "key-1"),
                            Pair("serial_no", "SERIAL000042"), Pair("challenge", "challenge-1")));
    EXPECT_EQ("https://auth.test/go", reply["redirect_to"].asString());
}

TEST_F(IdpLogin, SerialNumberThatFillsTheBuffer_IsSentWhole) {
    world().device.serial = std::string(36, 'S');
    login();
    EXPECT_EQ(std::string(36, 'S'), world().loginFields[2].second);
}

// Unlike elsewhere only a negative result is a failure.
TEST_F(IdpLogin, PositiveResults_AreSuccess) {
    world().device.accountResult = 1;
    world().device.configResult = 1;
    world().device.sendResult = 1;
    login();
}

TEST_F(IdpLogin, PlatformThatFails_EndsTheLogin) {
    struct {
        int fakes::Device::*result;
        int code;
        const char* text;
        const char* next;
        int tables;
    } const failures[] = {
        {&fakes::Device::accountResult, 19, "Failed to get Tovra account conf.",
         "ORBATOVRAServerConfigGet", 0},
        {&fakes::Device::configResult, 20, "Failed to get Tovra server config.",
         "KLIBGetSerialNumber", 0},
        {&fakes::Device::serialResult, 10, "Failed to get serial number.", "KLIBCSzHashAlloc", 0},
        {&fakes::Device::sendResult, 21, "Failed to send https request.", "ORBATOVRAAccountRemove",
         1},
    };
    for (const auto& failure : failures) {
        fakes::reset();
        world().device.*failure.result = -1;
        expectFailure(failure.code, failure.text);
        EXPECT_EQ(0, world().counts[failure.next]);
        EXPECT_EQ(failure.tables, world().counts["KLIBCSzHashFree"]);
    }
}

TEST_F(IdpLogin, PositiveSerialResult_IsSuccess) {
    world().onCall = [](const std::string& name) {
        world().device.serialResult = name == "KLIBGetSerialNumber" ? 1 : 0;
    };
    login();
}

TEST_F(IdpLogin, NoTable_IsCode11AndFreesNone) {
    world().device.tableFails = true;
    expectFailure(11, "Failed to alloc Query hash.");
    EXPECT_EQ(0, world().counts["KLIBCSzHashFree"]);
    EXPECT_EQ("ORBATOVRAHttpsResponseFree(empty)",
              fakes::callsOf({"ORBATOVRAHttpsResponseFree"}).front());
}

TEST_F(IdpLogin, FieldThatIsNotStored_IsIgnored) {
    world().failAt["KLIBCSzHashSetValue"] = 2;
    login();
    EXPECT_EQ(3U, world().loginFields.size());
}

TEST_F(IdpLogin, NoReplyBody_IsCode1) {
    world().device.reply.reset();
    expectFailure(1, "Exception: basic_string: construction from null is not valid");
}

TEST_F(IdpLogin, ReplyThatIsNotJson_IsCode2WithTheBody) {
    world().device.reply = "<html>busy</html>";
    expectFailure(2, "Failed to parse json: <html>busy</html>");
    fakes::reset();
    world().device.reply = "";
    expectFailure(2, "Failed to parse json: ");
}

TEST_F(IdpLogin, BadAuth_RemovesTheAccountAndIsCode22) {
    world().device.reply = R"({"code":"badauth","message":"no"})";
    expectFailure(22, "Logged out Tovra due to authentication failure.");
    EXPECT_EQ("no", reply["message"].asString());
    EXPECT_THAT(fakes::callsOf({"ORBATOVRAAccountRemove", "KLIBCSzHashFree",
                                "ORBATOVRAHttpsResponse", "syslog(7 Logged"}),
                ElementsAre("ORBATOVRAAccountRemove()",
                            "syslog(7 Logged out Tovra due to authentication failure.)",
                            "KLIBCSzHashFree()", "ORBATOVRAHttpsResponseFree(body)"));
}

TEST_F(IdpLogin, BadAuth_RemovalThatFails_IsIgnored) {
    world().device.reply = R"({"code":"badauth"})";
    world().device.removeResult = -1;
    expectFailure(22, "Logged out Tovra due to authentication failure.");
}

TEST_F(IdpLogin, AnyOtherCode_IsSuccessAndRemovesNothing) {
    for (const std::string code :
         {"badauth2", "bada", "BADAUTH", "badauth\\u0000", "", "success"}) {
        world().device.reply = R"({"code":")" + code + "\"}";
        login();
    }
    for (const std::string body : {R"({"code":1})", R"({"code":null})", R"({"code":true})"}) {
        world().device.reply = body;
        login();
    }
    EXPECT_EQ(0, world().counts["ORBATOVRAAccountRemove"]);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(IdpLogin, ReplyWithoutCode_GainsANullCode) {
    world().device.reply = "{}";
    login();
    EXPECT_TRUE(reply.isMember("code"));
    EXPECT_TRUE(reply["code"].isNull());
    world().device.reply = "null";
    login();
    EXPECT_TRUE(reply.isMember("code"));
}

TEST_F(IdpLogin, CodeThatIsNoText_IsCode1) {
    world().device.reply = R"({"code":{}})";
    expectFailure(1, "Exception: Type is not convertible to string");
}

TEST_F(IdpLogin, ReplyThatIsNoObject_IsCode1) {
    for (const std::string body : {"[]", "1", "\"text\""}) {
        fakes::reset();
        world().device.reply = body;
        expectFailure(
            1, "Exception: in Json::Value::resolveReference(key, end): requires objectValue");
    }
}

TEST_F(IdpLogin, Reply_IsParsedWithItsComments) {
    world().device.reply = "// hello\n{}";
    login();
    EXPECT_EQ("// hello", reply.getComment(Json::commentBefore));
}

TEST_F(IdpLogin, ExceptionWithCode0_EndsTheCallNormally) {
    world().onCall = [](const std::string& name) {
        if (name == "ORBATOVRAHttpsRequestSend") {
            throw OAuth2ClientException(0, "nothing happened");
        }
    };
    login();
    EXPECT_EQ(1, world().counts["KLIBCSzHashFree"]);
}

TEST_F(IdpLogin, NoStandardException_PassesAndReleasesNothing) {
    world().onCall = [](const std::string& name) {
        if (name == "ORBATOVRAHttpsRequestSend") {
            throw 42;
        }
    };
    EXPECT_THROW(login(), int);
    EXPECT_THAT(fakes::callsOf({"KLIBCSzHashFree", "ORBATOVRAHttpsResponseFree"}), IsEmpty());
    EXPECT_THAT(fakes::heldNames(), ElementsAre("table"));
    fakes::letGoOfWhatIsHeld();
}

// --- following the redirects ---

class Redirects : public OAuth2Flow {
  protected:
    std::string follow(OAuth2& object) {
        Json::Value reply;
        reply["redirect_to"] = "https://auth.test/0";
        return object.followRedirectUntilCallback(reply);
    }
    // `count` redirects on the way, then what is given.
    void wayOf(int count, const fakes::Transfer& last) {
        world().transfers.clear();
        for (int i = 1; i <= count; ++i) {
            world().transfers.push_back(redirectTo("https://auth.test/" + std::to_string(i)));
        }
        world().transfers.push_back(last);
    }
};

TEST_F(Redirects, CallbackAtOnce_IsReturnedWholeAndNotRequested) {
    wayOf(0, redirectTo("app://cb/?code=c%201&state=s1"));
    EXPECT_EQ("app://cb/?code=c%201&state=s1", follow(oauth2));
    ASSERT_EQ(1U, world().requests.size());
    EXPECT_EQ("https://auth.test/0", world().requests[0].options.at(CURLOPT_URL));
    EXPECT_EQ("/jar", world().requests[0].options.at(CURLOPT_COOKIEFILE));
    EXPECT_EQ(0U, world().requests[0].options.count(CURLOPT_FOLLOWLOCATION));
    EXPECT_THAT(fakes::logLines(), ElementsAre("7 orbaoauth2 GET url: https://auth.test/0"));
    EXPECT_THAT(formats(), ElementsAre("%s:%d GET url: %s"));
}

TEST_F(Redirects, FourOnTheWayAndTheCallback_Succeed) {
    wayOf(4, redirectTo("app://cb?code=1"));
    EXPECT_EQ("app://cb?code=1", follow(oauth2));
    EXPECT_EQ(5U, world().requests.size());
    EXPECT_THAT(fakes::logLines(), ElementsAre("7 orbaoauth2 GET url: https://auth.test/0",
                                               "7 orbaoauth2 GET url: https://auth.test/1",
                                               "7 orbaoauth2 GET url: https://auth.test/2",
                                               "7 orbaoauth2 GET url: https://auth.test/3",
                                               "7 orbaoauth2 GET url: https://auth.test/4"));
}

TEST_F(Redirects, FiveOnTheWay_AreTooMany) {
    wayOf(5, redirectTo("app://cb?code=1"));
    world().transfers[4].status = 307;
    const std::string text = "Didn't receive callback url. Last status code = 307";
    expectThrows<OAuth2ClientException>([&] { follow(oauth2); }, 5, text);
    EXPECT_EQ(5U, world().requests.size());
    EXPECT_EQ("7 orbaoauth2 " + text, fakes::logLines().back());
    EXPECT_EQ("%s:%d %s", formats().back());
}

TEST_F(Redirects, AnswerThatIsNoRedirect_IsCode5) {
    for (const long status : {200L, 299L}) {
        world().requests.clear();
        wayOf(1, {CURLE_OK, status, "", {}, "app://cb?code=1"});
        expectThrows<OAuth2ClientException>(
            [&] { follow(oauth2); }, 5,
            "Didn't receive callback url. Last status code = " + std::to_string(status));
        EXPECT_EQ(2U, world().requests.size());
    }
}

// A status that a request lets through although it is none of 2xx and 3xx: only an exception
// without a code brings that about.
TEST_F(Redirects, AnswerAboveTheRedirects_IsCode5) {
    wayOf(0, {CURLE_OK, 404, "", {}, "https://auth.test/next"});
    world().onCall = [](const std::string& name) {
        if (name == "syslog" && world().log.back().text.rfind("URL", 0) == 0) {
            throw OAuth2ClientException(0, "nothing happened");
        }
    };
    expectThrows<OAuth2ClientException>([&] { follow(oauth2); }, 5,
                                        "Didn't receive callback url. Last status code = 404");
    EXPECT_EQ(1U, world().requests.size());
}

TEST_F(Redirects, EveryRedirectStatus_LeadsOn) {
    for (const long status : {300L, 301L, 303L, 399L}) {
        wayOf(0, redirectTo("app://cb?code=1", status));
        EXPECT_EQ("app://cb?code=1", follow(oauth2));
    }
}

TEST_F(Redirects, CallbackInsideAnotherUrl_CountsToo) {
    wayOf(0, redirectTo("https://auth.test/login?next=app://cb"));
    EXPECT_EQ("https://auth.test/login?next=app://cb", follow(oauth2));
}

TEST_F(Redirects, EmptyRedirectUri_MatchesTheFirstRedirect) {
    OAuth2 object("https://auth.test/?redirect_uri=&state=1", "/jar");
    wayOf(0, redirectTo("https://auth.test/anywhere"));
    EXPECT_EQ("https://auth.test/anywhere", follow(object));
}

TEST_F(Redirects, NoRedirectUri_IsCode12BeforeAnyRequest) {
    OAuth2 object("https://auth.test/?state=1", "/jar");
    expectThrows<OAuth2Exception>(
        [&] { follow(object); }, 12,
        "This url doesn't have query parameters. [https://auth.test/?state=1]");
    OAuth2 empty("", "/jar");
    expectThrows<OAuth2Exception>([&] { follow(empty); }, 12,
                                  "Failed to get parameter: The url is empty.");
    EXPECT_THAT(world().requests, IsEmpty());
}

TEST_F(Redirects, NoRedirectTo_IsAnEmptyUrl) {
    Json::Value empty;
    empty["redirect_to"] = "";
    for (const Json::Value& reply : {Json::Value(), Json::Value(Json::objectValue), empty}) {
        expectThrows<HttpClientException>(
            [&] { oauth2.followRedirectUntilCallback(reply); }, 12,
            "Failed to do HTTP Get request to [] due to: Got empty URL.");
    }
}

TEST_F(Redirects, ReplyOfTheWrongType_IsJsoncppsException) {
    EXPECT_THROW(oauth2.followRedirectUntilCallback(Json::Value(Json::arrayValue)),
                 Json::LogicError);
    Json::Value reply;
    reply["redirect_to"] = Json::Value(Json::objectValue);
    EXPECT_THROW(oauth2.followRedirectUntilCallback(reply), Json::LogicError);
}

TEST_F(Redirects, RequestThatFails_PassesUnchanged) {
    wayOf(1, {CURLE_OK, 403, "", {}, {}});
    expectThrows<HttpClientException>(
        [&] { follow(oauth2); }, 14,
        "Failed to do HTTP Get request to [https://auth.test/1] due to: URL [https://auth.test/1] "
        "replied http status code  403: curl return: 0");
}

// --- the whole login ---

class Login : public OAuth2Flow {
  protected:
    void SetUp() override {
        OAuth2Flow::SetUp();
        world().transfers = {redirectTo("https://auth.test/login?login_challenge=c1"),
                             redirectTo("app://cb?code=1&state=s1")};
    }
    Calls steps() {
        return fakes::callsOf({"AccountPkce", "~AccountPkce", "GetAccessToken", "AccountFleet",
                               "~AccountFleet", "Grant", "curl_easy_perform",
                               "ORBATOVRAHttpsRequestSend", "syslog(4"});
    }
};

TEST_F(Login, WithAccessToken_AsksForTheGrant) {
    EXPECT_EQ("grant-code", oauth2.loginServiceByOrbaAccount());
    EXPECT_THAT(steps(),
                ElementsAre("AccountPkceService()", "GetAccessToken()", "~AccountPkceService()",
                            "AccountFleetLensService()", "Grant(cid, a b, app://cb, s1)",
                            "~AccountFleetLensService()"));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(Login, EmptyAccessToken_IsOneToo) {
    world().device.accessToken = [] { return std::string(); };
    EXPECT_EQ("grant-code", oauth2.loginServiceByOrbaAccount());
    EXPECT_THAT(world().requests, IsEmpty());
}

TEST_F(Login, WithoutAccessToken_WarnsAndTakesTheWebFlow) {
    world().device.accessToken = []() -> std::string { throw orbatovra::TovraException("none"); };
    EXPECT_EQ("app://cb?code=1&state=s1", oauth2.loginServiceByOrbaAccount());
    const std::string warning =
        "Failed to get Tovra access token. please re-login Orbalon Account to generate pkce access "
        "token, otherwise Fleet Lens will use non-pkce flow to get grant code, reason: ";
    EXPECT_THAT(steps(), ElementsAre("AccountPkceService()", "GetAccessToken()",
                                     "syslog(4 " + warning + "none)", "~AccountPkceService()",
                                     "curl_easy_perform(curl1)", ::testing::_,
                                     // the third handle: the second decoded the challenge
                                     ::testing::StartsWith("curl_easy_perform(curl")));
    EXPECT_EQ("%s:%d " + warning + "%s", formats().front());
    EXPECT_EQ("orbaoauth2", world().log.front().source);
    EXPECT_EQ("c1", world().loginFields[3].second);
    EXPECT_EQ("https://auth.test/go", world().requests[1].options.at(CURLOPT_URL));
}

TEST_F(Login, ProbeThatThrowsAnythingElse_WarnsInShort) {
    const std::vector<std::function<std::string()>> throwers = {
        []() -> std::string { throw std::runtime_error("other"); },
        []() -> std::string { throw TovraException(19, "of the library itself"); },
        []() -> std::string { throw 42; },
    };
    for (const auto& thrower : throwers) {
        SetUp();
        world().device.accessToken = thrower;
        EXPECT_EQ("app://cb?code=1&state=s1", oauth2.loginServiceByOrbaAccount());
        EXPECT_EQ("4 orbaoauth2 Failed to get Tovra access token.", fakes::logLines().front());
        EXPECT_EQ("%s:%d Failed to get Tovra access token.", formats().front());
    }
}

TEST_F(Login, ServiceThatCannotBeConstructed_IsNoAnswer) {
    for (const std::string service : {"AccountPkceService", "AccountFleetLensService"}) {
        SetUp();
        world().onCall = [&](const std::string& name) {
            if (name == service) {
                throw orbatovra::TovraException("broken");
            }
        };
        EXPECT_THROW(oauth2.loginServiceByOrbaAccount(), orbatovra::TovraException);
        EXPECT_THAT(world().requests, IsEmpty());
        EXPECT_THAT(world().log, IsEmpty());
    }
}

TEST_F(Login, GrantThatFails_DoesNotFallBack) {
    world().device.grant = []() -> std::string { throw orbatovra::TovraException("refused"); };
    EXPECT_THROW(oauth2.loginServiceByOrbaAccount(), orbatovra::TovraException);
    EXPECT_THAT(world().requests, IsEmpty());
    EXPECT_EQ(1, world().counts["~AccountFleetLensService"]);
}

TEST_F(Login, EachMissingParameter_IsCode12BeforeTheGrant) {
    for (const std::string missing : {"client_id=", "scope=", "redirect_uri=", "state="}) {
        SetUp();
        std::string url = kAuthUrl;
        url.replace(url.find(missing), missing.size(), "x=");
        OAuth2 object(url, "/jar");
        expectThrows<OAuth2Exception>([&] { object.loginServiceByOrbaAccount(); }, 12,
                                      "This url doesn't have query parameters. [" + url + "]");
        EXPECT_EQ(0, world().counts["AccountFleetLensService"]);
        EXPECT_THAT(world().requests, IsEmpty());
    }
}

TEST_F(Login, Parameters_AreTakenInThisOrder) {
    oauth2.loginServiceByOrbaAccount();
    EXPECT_THAT(
        fakes::callsOf({"curl_easy_unescape"}),
        ElementsAre("curl_easy_unescape(curl1, cid)", "curl_easy_unescape(curl2, a%20b)",
                    "curl_easy_unescape(curl3, app%3A%2F%2Fcb)", "curl_easy_unescape(curl4, s1)"));
}

class WebFlowFailures : public Login {
  protected:
    void SetUp() override {
        Login::SetUp();
        world().device.accessToken = []() -> std::string { throw 42; };
    }
};

TEST_F(WebFlowFailures, NoChallenge_EndsTheLogin) {
    world().transfers = {{}};
    expectThrows<OAuth2ClientException>([&] { oauth2.loginServiceByOrbaAccount(); }, 4,
                                        "Server's auth endpoint returned [200]. ");
    EXPECT_EQ(0, world().counts["ORBATOVRAAccountGet"]);
}

TEST_F(WebFlowFailures, BadAuth_ReachesTheCaller) {
    world().device.reply = R"({"code":"badauth"})";
    expectThrows<OAuth2ClientException>(
        [&] { oauth2.loginServiceByOrbaAccount(); }, 22,
        "Failed to Login IDP due to: Logged out Tovra due to authentication failure.");
    EXPECT_EQ(1U, world().requests.size());
}

}  // namespace
