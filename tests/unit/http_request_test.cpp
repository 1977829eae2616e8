// GET requests and form POSTs: the pattern that they share, then what each has of its own.
#include <json/json.h>

#include <new>
#include <stdexcept>

#include "fixture.h"
#include "orbaoauth2client/httpclient.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kUrl = "https://auth.test/x";
const std::string kFrame = "Failed to do HTTP Get request to [https://auth.test/x] due to: ";
const std::string kNotJson = "Failed to parse response, might be format problem.";
const std::string kPerform = "curl_easy_perform(curl1)";
const std::string kStatus = "curl_easy_getinfo(CURLINFO_RESPONSE_CODE)";
const std::string kCleanUp = "curl_easy_cleanup(curl1)";

const Calls kWriter = {"curl_easy_setopt(CURLOPT_WRITEFUNCTION, callback)",
                       "curl_easy_setopt(CURLOPT_WRITEDATA, data)"};
const Calls kFormHeaders = {
    "curl_slist_append(null, Content-Type: application/x-www-form-urlencoded)",
    "syslog(7 set curl custom http header Content-Type: application/x-www-form-urlencoded)",
    "curl_slist_append(list[Content-Type: application/x-www-form-urlencoded], charset: utf-8)",
    "syslog(7 set curl custom http header charset: utf-8)",
    "curl_easy_setopt(CURLOPT_HTTPHEADER, Content-Type: application/x-www-form-urlencoded | "
    "charset: utf-8)"};
const std::string kFreeFormHeaders =
    "curl_slist_free_all(list[Content-Type: application/x-www-form-urlencoded])";

// One of the three requests.
struct Kind {
    std::string name;
    void (*run)(HttpClient::HttpClient& client, Json::Value& out);
    bool readsJson;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

const Kind kGetJson = {
    "GetJson", [](HttpClient::HttpClient& client, Json::Value& out) { client.get(out); }, true};
const Kind kGetOnly = {
    "GetOnly", [](HttpClient::HttpClient& client, Json::Value&) { client.get(false); }, false};
const Kind kPost = {"Post",
                    [](HttpClient::HttpClient& client, Json::Value& out) {
                        client.postURLEncodedString("a=1", out);
                    },
                    true};

class EachRequest : public FakesTest, public ::testing::WithParamInterface<Kind> {
  protected:
    void run() { GetParam().run(client, out); }
    void answer(long status, const std::string& body = "{}",
                const std::optional<std::string>& redirectUrl = {}) {
        world().transfers = {{CURLE_OK, status, body, {}, redirectUrl}};
    }

    HttpClient::HttpClient client{kUrl, "/jar"};
    Json::Value out;
};

INSTANTIATE_TEST_SUITE_P(Requests, EachRequest, ::testing::Values(kGetJson, kGetOnly, kPost),
                         [](const auto& test) { return test.param.name; });

TEST_P(EachRequest, EmptyUrl_IsCode12WithoutAnyHandle) {
    client.setURL("");
    expectThrows<HttpClientException>([&] { run(); }, 12,
                                      "Failed to do HTTP Get request to [] due to: Got empty URL.");
    EXPECT_THAT(fakes::callsOf({"curl"}), IsEmpty());
    EXPECT_EQ("7 orbahttpclient Failed to do HTTP Get request to [] due to: Got empty URL.",
              fakes::logLines().back());
    EXPECT_EQ("%s:%d %s", formats().back());
}

TEST_P(EachRequest, EmptyCookiePath_IsCode12) {
    client.setCookiesFilePath("");
    expectThrows<HttpClientException>([&] { run(); }, 12, kFrame + "Got empty cookie file path.");
}

// The status counts before the body.
TEST_P(EachRequest, InnerFailure_KeepsItsCodeAndIsFramed) {
    answer(404, "<html>");
    const std::string inner =
        "URL [https://auth.test/x] replied http status code  404: curl return: 0";
    expectThrows<HttpClientException>([&] { run(); }, 14, kFrame + inner);
    EXPECT_EQ(404, client.getRespCode());
    const Calls end = fakes::callsOf(
        {"curl_easy_getinfo", "curl_easy_cleanup", "syslog(7 URL", "syslog(7 Failed"});
    EXPECT_THAT(end, ElementsAre(kStatus, "syslog(7 " + inner + ")", kCleanUp,
                                 "syslog(7 " + kFrame + inner + ")"));
}

TEST_P(EachRequest, FailuresOfEveryLayer_KeepTheirCodes) {
    world().transfers = {{CURLE_OPERATION_TIMEDOUT, 0, "", {}, {}}};
    expectThrows<HttpClientException>([&] { run(); }, 32,
                                      kFrame + "[Request timeout.]: curl return: 28");
    answer(503);
    expectThrows<HttpClientException>(
        [&] { run(); }, 17,
        kFrame + "URL [https://auth.test/x] replied http status code 503: curl return: 0");
    world().device.touchResult = -1;
    expectThrows<HttpClientException>([&] { run(); }, 24,
                                      kFrame + "Invalid cookie file path: /jar");
    world().device.userAgentResult = -1;
    expectThrows<HttpClientException>([&] { run(); }, 18,
                                      kFrame + "Failed to get Orbalon usergent");
    world().failAt["curl_easy_init"] = world().counts["curl_easy_init"] + 1;
    expectThrows<HttpClientException>([&] { run(); }, 23, kFrame + "Failed to init curl.");
}

TEST_P(EachRequest, ForeignException_IsCode1AndLoggedBeforeTheRelease) {
    world().onCall = [](const std::string& name) {
        if (name == "curl_easy_perform") {
            throw std::runtime_error("lightning");
        }
    };
    expectThrows<HttpClientException>([&] { run(); }, 1, kFrame + "Exception: lightning");
    EXPECT_THAT(fakes::callsOf({"syslog(7 Exc", "curl_easy_cleanup", "syslog(7 Failed"}),
                ElementsAre("syslog(7 Exception: lightning)", kCleanUp,
                            "syslog(7 " + kFrame + "Exception: lightning)"));
    EXPECT_EQ("%s:%d %s", formats().back());
}

TEST_P(EachRequest, NoStandardException_PassesAndReleasesNothing) {
    client.setHeader("a", "1");
    world().onCall = [](const std::string& name) {
        if (name == "curl_easy_getinfo") {
            throw 42;
        }
    };
    EXPECT_THROW(run(), int);
    EXPECT_THAT(fakes::callsOf({"curl_easy_cleanup", "curl_slist_free_all", "free"}), IsEmpty());
    EXPECT_EQ(2U, fakes::heldNames().size());
    EXPECT_EQ(GetParam().readsJson ? 1U : 0U, world().buffers.size());
    fakes::letGoOfWhatIsHeld();
    world().onCall = nullptr;
    run();  // the object is still good, and releases again
}

TEST_P(EachRequest, ExceptionWithCode0_EndsTheCallNormally) {
    world().onCall = [](const std::string& name) {
        if (name == "curl_easy_perform") {
            throw OAuth2ClientException(0, "nothing happened");
        }
    };
    run();
    EXPECT_THAT(fakes::callsOf({"curl_easy_cleanup"}), ElementsAre(kCleanUp));
    EXPECT_THAT(fakes::callsOf({"syslog(7 nothing", "syslog(7 Failed"}), IsEmpty());
}

TEST_P(EachRequest, RedirectUrl_IsThatOfThisRequestOrNone) {
    answer(302, "{}", "https://auth.test/next");
    run();
    EXPECT_EQ(302, client.getRespCode());
    EXPECT_EQ("https://auth.test/next", client.getRedirectURL());
    answer(200);
    run();
    EXPECT_EQ("", client.getRedirectURL());
    answer(302, "{}", "https://auth.test/next");
    run();
    client.setURL("");
    EXPECT_THROW(run(), HttpClientException);
    EXPECT_EQ("", client.getRedirectURL());
    EXPECT_EQ(302, client.getRespCode());
}

TEST_P(EachRequest, Headers_AreReleasedOnceBehindTheHandle) {
    client.setHeader("Accept", "application/json");
    run();
    EXPECT_THAT(fakes::callsOf({"curl_easy_cleanup", "curl_slist_free_all"}),
                ElementsAre(kCleanUp, "curl_slist_free_all(list[Accept: application/json])"));
    run();
    EXPECT_EQ(2, world().counts["curl_slist_free_all"]);
}

TEST_P(EachRequest, HeadersOfAFailedSetUp_AreReleased) {
    client.setHeader("A", "1");
    world().optionFails[CURLOPT_HTTPHEADER] = CURLE_UNKNOWN_OPTION;
    expectThrows<HttpClientException>(
        [&] { run(); }, 25, kFrame + "Failed to set curl CURLOPT_HTTPHEADER: curl return: 48");
    EXPECT_EQ(1, world().counts["curl_slist_free_all"]);
}

// libcurl leaves the list alone when it cannot append, and the request goes on with what comes
// next.
TEST_P(EachRequest, HeaderThatIsNotAppended_LosesNoList) {
    client.setHeader("A", "1");
    client.setHeader("B", "2");
    client.setHeader("C", "3");
    world().failAt["curl_slist_append"] = 2;
    run();
    EXPECT_THAT(fakes::callsOf({"curl_slist_free_all"}),
                ElementsAre("curl_slist_free_all(list[A: 1])", "curl_slist_free_all(list[C: 3])"));
    EXPECT_EQ("C: 3", world().requests[0].headers[0]);
}

TEST_P(EachRequest, HeaderNeverAppended_RequestGoesOutWithoutIt) {
    client.setHeader("zzz", "1");
    world().failAt["curl_slist_append"] = GetParam().name == "Post" ? 3 : 1;
    run();
    EXPECT_EQ(GetParam().name == "Post" ? 1 : 0, world().counts["curl_slist_free_all"]);
}

// The platform is asked in the middle of the set-up; it may itself use this library.
TEST_P(EachRequest, RequestInsideTheSetUp_LosesNoHeaders) {
    client.setHeader("A", "outer");
    HttpClient::HttpClient inside(kUrl, "/jar");
    inside.setHeader("A", "inner");
    world().onCall = [&](const std::string& name) {
        if (name == "KLIBCFileTouch" && world().counts[name] == 1) {
            inside.get(false);
        }
    };
    run();
    EXPECT_THAT(
        fakes::callsOf({"curl_slist_free_all"}),
        ElementsAre("curl_slist_free_all(list[A: inner])", "curl_slist_free_all(list[A: outer])"));
}

TEST_P(EachRequest, AttemptsThatFail_AreRepeatedOnTheSameHandle) {
    world().transfers = {{CURLE_COULDNT_CONNECT, 0, "", {}, {}}, {}};
    run();
    EXPECT_THAT(fakes::callsOf({"curl_easy_perform", "curl_easy_init"}),
                ElementsAre("curl_easy_init()", kPerform, kPerform));
}

class EachJsonRequest : public EachRequest {};

INSTANTIATE_TEST_SUITE_P(Requests, EachJsonRequest, ::testing::Values(kGetJson, kPost),
                         [](const auto& test) { return test.param.name; });

TEST_P(EachJsonRequest, Reply_IsParsedWithItsComments) {
    answer(200, "// a comment\n{\"k\":\"v\"}");
    run();
    EXPECT_EQ("v", out["k"].asString());
    EXPECT_EQ("// a comment", out.getComment(Json::commentBefore));
}

TEST_P(EachJsonRequest, ReplyThatIsNotJson_IsCode2) {
    answer(200, "<html>");
    expectThrows<HttpClientException>([&] { run(); }, 2, kFrame + kNotJson);
    EXPECT_THAT(
        fakes::callsOf({"syslog(7 Failed", "curl_easy_cleanup"}),
        ElementsAre("syslog(7 " + kNotJson + ")", kCleanUp, "syslog(7 " + kFrame + kNotJson + ")"));
}

TEST_P(EachJsonRequest, NoBody_CountsAsEmptyOne) {
    answer(200, "");
    expectThrows<HttpClientException>([&] { run(); }, 2, kFrame + kNotJson);
    EXPECT_EQ(0, world().counts["realloc"]);
}

TEST_P(EachJsonRequest, BodyWithNul_EndsThere) {
    answer(200, std::string("[1]\0garbage{", 12));
    run();
    EXPECT_EQ(1, out[0].asInt());
    for (const std::string& body : {std::string("[1\0]", 4), std::string("\"a\0b\"", 5)}) {
        answer(200, body);
        expectThrows<HttpClientException>([&] { run(); }, 2, kFrame + kNotJson);
    }
}

TEST_P(EachJsonRequest, RedirectReply_IsParsedToo) {
    answer(302, "[7]", "https://auth.test/next");
    run();
    EXPECT_EQ(7, out[0].asInt());
    EXPECT_EQ("https://auth.test/next", client.getRedirectURL());
}

TEST_P(EachJsonRequest, TooDeepReply_IsCode1) {
    answer(200, std::string(2000, '[') + std::string(2000, ']'));
    expectThrows<HttpClientException>([&] { run(); }, 1,
                                      kFrame + "Exception: Exceeded stackLimit in readValue().");
}

TEST_P(EachJsonRequest, BufferThatCannotGrow_IsAFailedTransfer) {
    world().failAt["realloc"] = 3;
    world().transfers = {{CURLE_COULDNT_CONNECT, 0, "[1", {}, {}},
                         {CURLE_COULDNT_CONNECT, 0, "[1", {}, {}},
                         {CURLE_OK, 200, "[1", {}, {}}};
    expectThrows<HttpClientException>(
        [&] { run(); }, 26, kFrame + "[Failed to send http request with Curl.]: curl return: 23");
}

// Only the write callback writes the buffer; nothing empties it between attempts.
TEST_P(EachJsonRequest, PiecesOfFailedAttempts_StayInTheBuffer) {
    world().transfers = {{CURLE_PARTIAL_FILE, 200, "[1,", {}, {}}, {CURLE_OK, 200, "2]", {}, {}}};
    run();
    EXPECT_EQ(2U, out.size());
    EXPECT_EQ(1, world().counts["free"]);
}

class HttpRequest : public EachRequest {};
INSTANTIATE_TEST_SUITE_P(One, HttpRequest, ::testing::Values(kGetJson),
                         [](const auto&) { return "Request"; });

TEST_P(HttpRequest, GetJson_MakesTheseCallsInThisOrder) {
    client.get(out);
    EXPECT_EQ((setUpCalls(kUrl, "/jar") + kWriter +
               Calls{kPerform, "realloc(3)", kStatus, kCleanUp, "free()"}),
              world().calls);
}

TEST_P(HttpRequest, GetWithoutFollowing_MakesTheseCallsInThisOrder) {
    client.get(false);
    EXPECT_EQ((setUpCalls(kUrl, "/jar") + Calls{"curl_easy_setopt(CURLOPT_WRITEFUNCTION, callback)",
                                                kPerform, kStatus, kCleanUp}),
              world().calls);
}

TEST_P(HttpRequest, GetWithFollowing_MakesTheseCallsInThisOrder) {
    client.get(true);
    EXPECT_EQ((setUpCalls(kUrl, "/jar") + Calls{"curl_easy_setopt(CURLOPT_WRITEFUNCTION, callback)",
                                                "curl_easy_setopt(CURLOPT_FOLLOWLOCATION, 1)",
                                                kPerform, kStatus, kCleanUp}),
              world().calls);
}

TEST_P(HttpRequest, GetOnly_TakesEveryByteAndKeepsNone) {
    for (const std::size_t itemSize : {1U, 4U}) {
        world().transfers = {{CURLE_OK, 200, "", {"1234", std::string(100000, 'x')}, {}, itemSize}};
        client.get(false);
    }
    EXPECT_EQ(2U, world().requests.size());
    EXPECT_EQ(0, world().counts["realloc"]);
}

TEST_P(HttpRequest, Post_MakesTheseCallsInThisOrder) {
    client.postURLEncodedString("grant_type=x&a=%20", out);
    EXPECT_EQ((Calls{"syslog(7 add header Content-Type: application/x-www-form-urlencoded)",
                     "syslog(7 add header charset: utf-8)"} +
               setUpCalls(kUrl, "/jar") + kFormHeaders + kWriter +
               Calls{"curl_easy_setopt(CURLOPT_CUSTOMREQUEST, POST)",
                     "curl_easy_setopt(CURLOPT_POSTFIELDS, grant_type=x&a=%20)", kPerform,
                     "realloc(3)", kStatus, kCleanUp, kFreeFormHeaders, "free()"}),
              world().calls);
}

TEST_P(HttpRequest, PostHeaders_StayWithTheObject) {
    client.setURL("");
    EXPECT_THROW(client.postURLEncodedString("a=1", out), HttpClientException);
    client.setURL(kUrl);
    client.get(false);
    EXPECT_THAT(world().requests[0].headers,
                ElementsAre("Content-Type: application/x-www-form-urlencoded", "charset: utf-8"));
}

struct OwnOption {
    CURLoption option;
    std::string name;
    void (*run)(HttpClient::HttpClient& client, Json::Value& out);
};

void PrintTo(const OwnOption& own, std::ostream* out) { *out << own.name; }

class EachOwnOption : public FakesTest, public ::testing::WithParamInterface<OwnOption> {};

TEST_P(EachOwnOption, Refused_IsCode25) {
    HttpClient::HttpClient client(kUrl, "/jar");
    Json::Value out;
    world().optionFails[GetParam().option] = CURLE_UNKNOWN_OPTION;
    const std::string inner = "Failed to set curl " + GetParam().name + ": curl return: 48";
    expectThrows<HttpClientException>([&] { GetParam().run(client, out); }, 25, kFrame + inner);
    EXPECT_THAT(fakes::callsOf({"syslog(7 Failed"}),
                ElementsAre("syslog(7 " + inner + ")", "syslog(7 " + kFrame + inner + ")"));
    EXPECT_THAT(world().requests, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Options, EachOwnOption,
    ::testing::Values(OwnOption{CURLOPT_CUSTOMREQUEST, "CURLOPT_CUSTOMREQUEST", kPost.run},
                      OwnOption{CURLOPT_POSTFIELDS, "CURLOPT_POSTFIELDS", kPost.run},
                      OwnOption{CURLOPT_WRITEFUNCTION, "CURLOPT_WRITEFUNCTION", kGetOnly.run},
                      OwnOption{CURLOPT_WRITEFUNCTION, "CURLOPT_WRITEFUNCTION", kGetJson.run},
                      OwnOption{CURLOPT_FOLLOWLOCATION, "CURLOPT_FOLLOWLOCATION",
                                [](HttpClient::HttpClient& client, Json::Value& /*out*/) {
                                    client.get(true);
                                }}));

}  // namespace
