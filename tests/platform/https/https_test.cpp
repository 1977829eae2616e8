// Requests to an HTTPS server that the system trusts: what only a real server shows. Runs within
// scripts/sandbox, whose bundle of trusted certificates is its own.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../support/host_profile.h"
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

class HttpsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server = std::make_unique<HttpsServer>(
            std::vector<std::string>{fromSandbox("ORBA_TLS_CERT"), fromSandbox("ORBA_TLS_KEY")});
    }
    static void TearDownTestSuite() { server.reset(); }

    static Json::Value send(const std::map<std::string, std::string>& fields) {
        const Reading reply = sendRequest(server->at("localhost"), "some/path?x", fields);
        EXPECT_EQ(ORBA_HOST_OK, reply.error);
        return parsed(parsed(reply.text)["grant"].asString());
    }

    static std::unique_ptr<HttpsServer> server;
    EnvironmentVariable noProxy{"no_proxy", "*"};
    HostProfile profile;
};

std::unique_ptr<HttpsServer> HttpsTest::server;

TEST_F(HttpsTest, Send_PostsTheFieldsAsAForm) {
    Json::Value request = send({{"id", "a b&c=d+e%/\xC3\xBC"}, {"empty", ""}, {"k&=y", "v"}});
    EXPECT_EQ("POST", request["method"].asString());
    EXPECT_EQ("/some/path?x", request["url"].asString());
    EXPECT_EQ("application/x-www-form-urlencoded", request["headers"]["content-type"].asString());
    EXPECT_EQ("empty=&id=a%20b%26c%3Dd%2Be%25%2F%C3%BC&k%26%3Dy=v", request["body"].asString());
    EXPECT_FALSE(request["headers"].isMember("authorization"));
    request = send({});
    EXPECT_EQ("POST", request["method"].asString());
    EXPECT_EQ("0", request["headers"]["content-length"].asString());
    EXPECT_EQ("", request["body"].asString());
}

TEST_F(HttpsTest, Send_OfALargeForm_Arrives) {
    const std::string value(300000, 'v');
    EXPECT_EQ("large=" + value, send({{"large", value}})["body"].asString());
}

TEST_F(HttpsTest, Send_FromSeveralThreads_GivesEachItsReply) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 5; ++n) {
                const std::string text = std::to_string(100 * i + n);
                EXPECT_EQ("x=" + text, send({{"x", text}})["body"].asString());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(HttpsTest, Grant_AsksTheAccountServiceWithTheToken) {
    profile.writeWith("account_service", server->at("account.localhost"));
    const Reading grant = requestGrant("{ }");
    ASSERT_EQ(ORBA_HOST_OK, grant.error) << grant.text;
    const Json::Value request = parsed(grant.text);
    EXPECT_EQ("POST", request["method"].asString());
    EXPECT_EQ("/device/api/fleet_lens_grant", request["url"].asString());
    EXPECT_EQ(server->at("account.localhost"), request["headers"]["host"].asString());
    EXPECT_EQ("Bearer token-1", request["headers"]["authorization"].asString());
    EXPECT_EQ("application/x-www-form-urlencoded", request["headers"]["content-type"].asString());
    EXPECT_EQ(
        "client_id=a%20client&redirect_uri=https%3A%2F%2Fnas.example%2Fcb%3Fx%3D1&"
        "scope=openid%20fleet&state=%7B%20%7D",
        request["body"].asString());
}

TEST_F(HttpsTest, NameOutsideTheCertificate_IsRefused) {
    profile.writeWith("account_service", server->at("other.localhost"));
    EXPECT_EQ(ORBA_HOST_REQUEST_CERTIFICATE, requestGrant().error);
    EXPECT_EQ(ORBA_HOST_REQUEST_CERTIFICATE, sendRequest(server->at("other.localhost"), "").error);
}

}  // namespace
