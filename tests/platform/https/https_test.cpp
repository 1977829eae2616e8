// Requests to an HTTPS server that the system trusts. Runs within scripts/sandbox, whose bundle of
// trusted certificates is its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../support/environment.h"
#include "../support/host_profile.h"
#include "client.h"
#include "https_server.h"

namespace {

std::string fromSandbox(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) {
        throw std::runtime_error(std::string(name) + " is not set: run this in scripts/sandbox");
    }
    return value;
}

Json::Value parsed(const std::string& text) {
    std::istringstream stream(text);
    Json::Value document;
    stream >> document;
    return document;
}

std::string scripted(const Json::Value& script) {
    return Json::writeString(Json::StreamWriterBuilder(), script);
}

/** What the server shall answer, for the field "reply" or "state". */
std::string reply(int status, const std::string& body) {
    Json::Value script;
    script["status"] = status;
    script["body"] = body;
    return scripted(script);
}

class HttpsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server_ = std::make_unique<HttpsServer>(
            std::vector<std::string>{fromSandbox("ORBA_TLS_CERT"), fromSandbox("ORBA_TLS_KEY")});
    }
    static void TearDownTestSuite() { server_.reset(); }

    HttpsTest() { profile_.writeWith("account_service", server_->at("account.localhost")); }

    static Outcome send(const std::map<std::string, std::string>& fields = {}) {
        return sendRequest(server_->at("localhost"), "device/api/fleet_lens_login", fields);
    }
    static Outcome sendFor(int status, const std::string& body) {
        return send({{"reply", reply(status, body)}});
    }

    static std::unique_ptr<HttpsServer> server_;
    EnvironmentVariable noProxy_{"no_proxy", "*"};
    HostProfile profile_;
};

std::unique_ptr<HttpsServer> HttpsTest::server_;

// ---- ORBATOVRAHttpsRequestSend
// ---------------------------------------------------------------------

TEST_F(HttpsTest, Send_PostsTheFieldsAsAForm) {
    const Outcome outcome = send({{"id", "a b&c=d+e%/\xC3\xBC"}, {"empty", ""}, {"k&=y", "v"}});
    ASSERT_EQ(outcome.error, ORBA_HOST_OK);
    const Json::Value request = parsed(outcome.text);
    EXPECT_EQ(request["method"], "POST");
    EXPECT_EQ(request["url"], "/device/api/fleet_lens_login");
    EXPECT_EQ(request["headers"]["content-type"], "application/x-www-form-urlencoded");
    EXPECT_EQ(request["body"], "empty=&id=a%20b%26c%3Dd%2Be%25%2F%C3%BC&k%26%3Dy=v");
    EXPECT_FALSE(request["headers"].isMember("authorization"));
}

TEST_F(HttpsTest, Send_WithoutFields_PostsAnEmptyForm) {
    const Json::Value request = parsed(send().text);
    EXPECT_EQ(request["method"], "POST");
    EXPECT_EQ(request["headers"]["content-length"], "0");
    EXPECT_EQ(request["body"], "");
}

TEST_F(HttpsTest, Send_ReachesEveryNameOfTheCertificate) {
    for (const char* host : {"localhost", "auth.localhost", "account.localhost", "127.0.0.1"}) {
        EXPECT_EQ(sendRequest(server_->at(host), "").error, ORBA_HOST_OK) << host;
    }
}

TEST_F(HttpsTest, Send_ToANameOutsideTheCertificate_IsRefused) {
    EXPECT_EQ(sendRequest(server_->at("other.localhost"), "").error, ORBA_HOST_REQUEST_CERTIFICATE);
}

TEST_F(HttpsTest, Send_GivesTheBodyAsItIs) {
    EXPECT_EQ(sendFor(200, "not \xC3\xBC JSON\n").text, "not \xC3\xBC JSON\n");
    EXPECT_EQ(sendFor(201, "created").text, "created");
}

TEST_F(HttpsTest, Send_WithNulInTheReply_EndsTheTextThere) {
    EXPECT_EQ(sendFor(200, std::string("a\0b", 3)).text, "a");
}

TEST_F(HttpsTest, Send_WithEmptyReply_GivesNoBody) {
    for (const int status : {200, 204}) {
        const Outcome outcome = sendFor(status, "");
        EXPECT_EQ(outcome.error, ORBA_HOST_OK);
        EXPECT_FALSE(outcome.hasBody);
    }
}

TEST_F(HttpsTest, Send_WithOtherStatusThan2xx_FailsWithoutBody) {
    for (const int status : {304, 400, 401, 404, 500, 503}) {
        const Outcome outcome = sendFor(status, "body");
        EXPECT_EQ(outcome.error, ORBA_HOST_REPLY_STATUS) << status;
        EXPECT_FALSE(outcome.hasBody) << status;
    }
}

TEST_F(HttpsTest, Send_DoesNotFollowRedirects) {
    Json::Value script;
    script["status"] = 302;
    script["headers"]["Location"] = "/elsewhere";
    EXPECT_EQ(send({{"reply", scripted(script)}}).error, ORBA_HOST_REPLY_STATUS);
}

TEST_F(HttpsTest, Send_WithLargeReply_TakesOneMebibyteAndNoMore) {
    Json::Value script;
    script["body"] = "0123456789abcdef";
    script["times"] = 65536;
    const Outcome whole = send({{"reply", scripted(script)}});
    EXPECT_EQ(whole.error, ORBA_HOST_OK);
    EXPECT_EQ(whole.text.size(), 1024U * 1024U);
    script["times"] = 65537;
    const Outcome more = send({{"reply", scripted(script)}});
    EXPECT_EQ(more.error, ORBA_HOST_REPLY_TOO_LARGE);
    EXPECT_FALSE(more.hasBody);
}

TEST_F(HttpsTest, Send_WithReplyCutOff_FailsWithoutBody) {
    Json::Value script;
    script["body"] = "half";
    script["headers"]["Content-Length"] = "8";
    script["cut"] = true;
    const Outcome outcome = send({{"reply", scripted(script)}});
    EXPECT_EQ(outcome.error, ORBA_HOST_REQUEST_TRANSPORT);
    EXPECT_FALSE(outcome.hasBody);
}

TEST_F(HttpsTest, Send_OfALargeForm_Arrives) {
    const std::string value(3 * 1024 * 1024, 'v');
    const Outcome outcome = send({{"large", value}, {"reply", reply(200, "done")}});
    EXPECT_EQ(outcome.text, "done");
}

TEST_F(HttpsTest, Send_FromSeveralThreads_GivesEachItsReply) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 5; ++n) {
                const std::string text = std::to_string(100 * i + n);
                EXPECT_EQ(sendFor(200, text).text, text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// ---- AccountFleetLensService
// -----------------------------------------------------------------------

TEST_F(HttpsTest, Grant_AsksTheAccountServiceWithTheToken) {
    const Outcome outcome = requestGrant(R"({"grant": true})");
    ASSERT_EQ(outcome.error, ORBA_HOST_OK) << outcome.text;
    const Json::Value request = parsed(outcome.text);
    EXPECT_EQ(request["method"], "POST");
    EXPECT_EQ(request["url"], "/device/api/fleet_lens_grant");
    EXPECT_EQ(request["headers"]["host"], server_->at("account.localhost"));
    EXPECT_EQ(request["headers"]["authorization"], "Bearer token-1");
    EXPECT_EQ(request["headers"]["content-type"], "application/x-www-form-urlencoded");
    EXPECT_EQ(request["body"],
              "client_id=a%20client&redirect_uri=https%3A%2F%2Fnas.example%2Fcb%3Fx%3D1&"
              "scope=openid%20fleet&state=%7B%22grant%22%3A%20true%7D");
}

struct Refusal {
    int status;
    const char* body;
    OrbaHostError error;
    const char* cause;
};

const Refusal kRefusals[] = {
    {401, R"({"code": "badtoken"})", ORBA_HOST_REPLY_STATUS, R"(401, "code" is "badtoken")"},
    {500, "<html>", ORBA_HOST_REPLY_STATUS, "500, the reply is no JSON object"},
    {403, R"({"code": "success", "grant": "g"})", ORBA_HOST_REPLY_STATUS,
     R"(403, "code" is "success")"},
    {200, R"({"code": "badauth"})", ORBA_HOST_REPLY_REFUSED, R"(200, "code" is "badauth")"},
    {200, R"({"code": "Success", "grant": "g"})", ORBA_HOST_REPLY_REFUSED,
     R"(200, "code" is "Success")"},
    {200, R"({"code": "a\nb"})", ORBA_HOST_REPLY_REFUSED, R"(200, "code" is "a\nb")"},
    {200, R"({"grant": "g"})", ORBA_HOST_REPLY_REFUSED, R"(200, the reply has no "code")"},
    {200, R"({"code": 1, "grant": "g"})", ORBA_HOST_REPLY_REFUSED,
     R"(200, the reply has no "code")"},
    {200, R"({"code": "success"})", ORBA_HOST_REPLY_REFUSED,
     R"(200, "code" is "success", but there is no "grant")"},
    {200, R"({"code": "success", "grant": ""})", ORBA_HOST_REPLY_REFUSED,
     R"(200, "code" is "success", but there is no "grant")"},
    {200, R"({"code": "success", "grant": 1})", ORBA_HOST_REPLY_REFUSED,
     R"(200, "code" is "success", but there is no "grant")"},
    {200, "[]", ORBA_HOST_REPLY_REFUSED, "200, the reply is no JSON object"},
    {200, "", ORBA_HOST_REPLY_REFUSED, "200, the reply is no JSON object"},
    {200, R"({"code": "success", "grant": "g"} more)", ORBA_HOST_REPLY_REFUSED,
     "200, the reply is no JSON object"},
};

TEST_F(HttpsTest, Grant_WithOtherReply_ThrowsItsStatusAndCode) {
    const std::string url =
        "https://" + server_->at("account.localhost") + "/device/api/fleet_lens_grant";
    for (const Refusal& refusal : kRefusals) {
        const Outcome outcome = requestGrant(reply(refusal.status, refusal.body));
        EXPECT_EQ(outcome.error, refusal.error) << refusal.cause;
        EXPECT_EQ(outcome.text, "no grant: " + url + ": HTTP status " + refusal.cause);
    }
}

TEST_F(HttpsTest, Grant_WithEndlessCode_ShowsItsBeginning) {
    const Outcome outcome =
        requestGrant(reply(200, "{\"code\":\"" + std::string(5000, 'x') + "\"}"));
    EXPECT_THAT(outcome.text, ::testing::EndsWith("\"" + std::string(100, 'x') + "\""));
}

TEST_F(HttpsTest, Grant_WithRefusedCertificate_Throws) {
    profile_.writeWith("account_service", server_->at("other.localhost"));
    const Outcome outcome = requestGrant("state");
    EXPECT_EQ(outcome.error, ORBA_HOST_REQUEST_CERTIFICATE);
    EXPECT_THAT(outcome.text, ::testing::HasSubstr("other.localhost"));
}

}  // namespace
