// Where a log line says that it comes from.
#include <json/json.h>

#include <fstream>
#include <stdexcept>

#include "fixture.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/utils.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;
using ::testing::AnyOf;
using ::testing::HasSubstr;

class LogLines : public FakesTest {
  protected:
    // The statement that a line says it comes from: it may begin up to two lines before.
    static std::string statementOf(const fakes::LogLine& line) {
        const std::string path = ORBA_SOURCE_FOLDER "/" + line.source + ".cpp";
        std::ifstream source(path);
        EXPECT_TRUE(source) << path;
        std::string statement;
        std::string text;
        for (int number = 1; std::getline(source, text) && number <= line.line; ++number) {
            statement += number > line.line - 3 ? text + "\n" : "";
        }
        return statement;
    }
    template <class Operation>
    static void expectFailure(const Operation& operation) {
        EXPECT_THROW(operation(), OAuth2ClientException);
    }
};

TEST_F(LogLines, TellTheLineOfTheirStatement) {
    HttpClient::HttpClient client("https://auth.test/", "/jar");
    OAuth2 oauth2("https://auth.test/", "/jar");
    Json::Value reply;
    reply["redirect_to"] = "https://auth.test/go";
    client.setHeader("A", "1");
    expectFailure([] { getParamFromURL("", "a"); });
    expectFailure([] { getParamFromURL("/cb", "a"); });
    expectFailure([&] { oauth2.getServerLoginChallenge(); });
    expectFailure([&] { OAuth2("?redirect_uri=x", "/jar").followRedirectUntilCallback(reply); });
    world().device.reply = "<html>";
    expectFailure([&] { oauth2.loginIDP(reply, "c"); });
    world().transfers = {{CURLE_OK, 404, "", {}, {}}};
    expectFailure([&] { client.get(false); });
    world().device.touchResult = -1;
    expectFailure([&] { client.get(false); });
    world().device.userAgentResult = -1;
    expectFailure([&] { client.get(false); });
    world().optionFails[CURLOPT_TIMEOUT] = CURLE_UNKNOWN_OPTION;
    expectFailure([&] { client.get(false); });
    world().onCall = [](const std::string& name) {
        if (name == "ORBATOVRAAccountGet" || name == "ORBATOVRAErrSet" ||
            name == "curl_easy_escape") {
            throw std::runtime_error("lightning");
        }
    };
    expectFailure([&] { oauth2.loginIDP(reply, "c"); });
    expectFailure([&] { client.get(false); });
    expectFailure([] { HttpClient::getEncodeQuery({{"a", "1"}}); });
    world().failAt["curl_easy_init"] = world().counts["curl_easy_init"] + 1;
    expectFailure([] { HttpClient::getEncodeQuery({}); });
    world().failAt["curl_easy_init"] = world().counts["curl_easy_init"] + 1;
    expectFailure([] { decodeString("a"); });
    ASSERT_GT(world().log.size(), 23U);
    for (const fakes::LogLine& line : world().log) {
        EXPECT_THAT(statementOf(line),
                    AnyOf(HasSubstr("kLog.fail"), HasSubstr("syslog("), HasSubstr("setOption("),
                          HasSubstr("runGuarded"), HasSubstr("makeEscapeHandle(")))
            << line.source << ":" << line.line << " " << line.text;
    }
}

// Options are set through one function; each logs the line of its own statement.
TEST_F(LogLines, RefusedOptions_TellTheLinesOfTheirOwn) {
    HttpClient::HttpClient client("https://auth.test/", "/jar");
    world().optionFails[CURLOPT_URL] = CURLE_UNKNOWN_OPTION;
    expectFailure([&] { client.get(false); });
    EXPECT_THAT(statementOf(world().log.front()), HasSubstr("\"CURLOPT_URL\""));
    world().log.clear();
    world().optionFails = {{CURLOPT_SSLVERSION, CURLE_UNKNOWN_OPTION}};
    expectFailure([&] { client.get(false); });
    EXPECT_THAT(statementOf(world().log.front()), HasSubstr("\"CURL_SSLVERSION_TLSv1\""));
}

}  // namespace
