// Running a transfer and judging its response.
#include "fixture.h"
#include "orbaoauth2client/httpclient.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::Transfer;
using fakes::world;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HttpExecution : public FakesTest {
  protected:
    void SetUp() override {
        FakesTest::SetUp();
        curl = curl_easy_init();
        client.setCurlWriteCallBack(curl, &chunk);
        world().calls.clear();
    }
    void TearDown() override {
        std::free(chunk.memory);
        curl_easy_cleanup(curl);
        FakesTest::TearDown();
    }
    void answer(long status, const std::optional<std::string>& redirectUrl = {}) {
        world().transfers = {{CURLE_OK, status, "", {}, redirectUrl}};
        client.fireRequest(curl);
        world().calls.clear();
    }
    void failWith(const std::vector<CURLcode>& results) {
        for (const CURLcode result : results) {
            world().transfers.push_back({result, 0, "", {}, {}});
        }
    }

    HttpClient::HttpClient client{"https://auth.test/x", "/jar"};
    HttpClient::MemoryStruct chunk = {nullptr, 0};
    void* curl = nullptr;
    char* redirect = nullptr;
};

const std::string kPerform = "curl_easy_perform(curl1)";
const std::string kPause = "nanosleep(0 s 500000000 ns, same)";
const std::string kIPv4 = "curl_easy_setopt(CURLOPT_IPRESOLVE, 1)";

TEST_F(HttpExecution, FirstAttemptSucceeds_NothingElse) {
    client.fireRequest(curl);
    EXPECT_THAT(world().calls, ElementsAre(kPerform, "realloc(3)"));
}

TEST_F(HttpExecution, SecondAttemptSucceeds_OnePauseAndNoRestriction) {
    failWith({CURLE_COULDNT_CONNECT, CURLE_OK});
    client.fireRequest(curl);
    EXPECT_THAT(world().calls, ElementsAre(kPerform, kPause, kPerform));
}

TEST_F(HttpExecution, ThirdAttempt_IsOverIPv4Only) {
    failWith({CURLE_COULDNT_CONNECT, CURLE_COULDNT_CONNECT, CURLE_OK});
    client.fireRequest(curl);
    EXPECT_THAT(world().calls, ElementsAre(kPerform, kPause, kPerform, kIPv4, kPause, kPerform));
    EXPECT_EQ(0U, world().requests[1].options.count(CURLOPT_IPRESOLVE));
    EXPECT_EQ("1", world().requests[2].options.at(CURLOPT_IPRESOLVE));
}

TEST_F(HttpExecution, RestrictionRefused_IsLoggedAndTheThirdAttemptMade) {
    world().optionFails[CURLOPT_IPRESOLVE] = CURLE_UNKNOWN_OPTION;
    failWith({CURLE_COULDNT_CONNECT, CURLE_COULDNT_CONNECT, CURLE_OK});
    client.fireRequest(curl);
    EXPECT_EQ(3U, world().requests.size());
    EXPECT_THAT(fakes::logLines(),
                ElementsAre("7 orbahttpclient Failed to set CURLOPT_IPRESOLVE: 48,will keep "
                            "perform curl."));
    EXPECT_THAT(formats(),
                ElementsAre("%s:%d Failed to set CURLOPT_IPRESOLVE: %d,will keep perform curl."));
}

TEST_F(HttpExecution, InterruptedPause_IsContinuedWithTheRemainder) {
    world().interruptedPauses = 2;
    failWith({CURLE_COULDNT_CONNECT, CURLE_OK});
    client.fireRequest(curl);
    EXPECT_THAT(world().calls, ElementsAre(kPerform, kPause, "nanosleep(0 s 250000000 ns, same)",
                                           "nanosleep(0 s 125000000 ns, same)", kPerform));
}

TEST_F(HttpExecution, PauseThatFailsOtherwise_EndsThere) {
    world().onPause = [] { errno = EINVAL; };
    failWith({CURLE_COULDNT_CONNECT, CURLE_OK});
    client.fireRequest(curl);
    EXPECT_THAT(world().calls, ElementsAre(kPerform, kPause, kPerform));
}

TEST_F(HttpExecution, OnlyTheLastResultCounts) {
    failWith({CURLE_OPERATION_TIMEDOUT, CURLE_OPERATION_TIMEDOUT, CURLE_COULDNT_CONNECT});
    expectThrows<CurlException>([&] { client.fireRequest(curl); }, 26,
                                "[Failed to send http request with Curl.]: curl return: 7");
    EXPECT_THAT(fakes::callsOf({"curl_easy_perform"}), ElementsAre(kPerform, kPerform, kPerform));
    EXPECT_THAT(fakes::callsOf({"curl_easy_setopt"}), ElementsAre(kIPv4));
}

TEST_F(HttpExecution, UnresolvedHost_IsCode31AfterOneRestriction) {
    failWith({CURLE_COULDNT_RESOLVE_HOST});
    expectThrows<CurlException>([&] { client.fireRequest(curl); }, 31,
                                "[Failed to resolve host of url.]: curl return: 6");
    EXPECT_THAT(fakes::callsOf({"curl", "nano"}),
                ElementsAre(kPerform, kPause, kPerform, kIPv4, kPause, kPerform));
}

struct TransportFailure {
    int result;
    int code;
    std::string message;
};

void PrintTo(const TransportFailure& failure, std::ostream* out) { *out << failure.result; }

class EachTransportFailure : public HttpExecution,
                             public ::testing::WithParamInterface<TransportFailure> {};

TEST_P(EachTransportFailure, HasItsCodeAndText) {
    failWith({static_cast<CURLcode>(GetParam().result)});
    const std::string text =
        "[" + GetParam().message + "]: curl return: " + std::to_string(GetParam().result);
    expectThrows<CurlException>([&] { client.fireRequest(curl); }, GetParam().code, text);
    EXPECT_THAT(fakes::logLines(), ElementsAre("7 orbahttpclient " + text));
    EXPECT_THAT(formats(), ElementsAre("%s:%d %s"));
}

INSTANTIATE_TEST_SUITE_P(
    Results, EachTransportFailure,
    ::testing::Values(TransportFailure{1, 26, "Failed to send http request with Curl."},
                      TransportFailure{4, 26, "Failed to send http request with Curl."},
                      TransportFailure{5, 31, "Failed to resolve host of url."},
                      TransportFailure{6, 31, "Failed to resolve host of url."},
                      TransportFailure{7, 26, "Failed to send http request with Curl."},
                      TransportFailure{27, 26, "Failed to send http request with Curl."},
                      TransportFailure{28, 32, "Request timeout."},
                      TransportFailure{29, 26, "Failed to send http request with Curl."},
                      TransportFailure{35, 26, "Failed to send http request with Curl."},
                      TransportFailure{59, 26, "Failed to send http request with Curl."},
                      TransportFailure{60, 33,
                                       "The remote server's SSL certificate was deemed not OK."},
                      TransportFailure{61, 26, "Failed to send http request with Curl."},
                      TransportFailure{77, 26, "Failed to send http request with Curl."}),
    [](const auto& test) { return "Result" + std::to_string(test.param.result); });

TEST_F(HttpExecution, StatusNotToBeHad_IsCode27AndKeepsTheFormerOne) {
    answer(200);
    client.checkHttpResp(curl, &redirect);
    world().statusResult = CURLE_UNKNOWN_OPTION;
    expectThrows<CurlException>([&] { client.checkHttpResp(curl, &redirect); }, 27,
                                "Failed to get curl response code: curl return: 48");
    EXPECT_EQ(200, client.getRespCode());
    EXPECT_THAT(fakes::logLines(),
                ElementsAre("7 orbahttpclient Failed to get curl response code: curl return: 48"));
}

TEST_F(HttpExecution, Success_LeavesTheRedirectUrl) {
    answer(302, "https://auth.test/next");
    client.checkHttpResp(curl, &redirect);
    for (const long status : {200L, 204L, 299L}) {
        answer(status, "https://auth.test/ignored");
        client.checkHttpResp(curl, &redirect);
        EXPECT_EQ(status, client.getRespCode());
        EXPECT_EQ("https://auth.test/next", client.getRedirectURL());
        EXPECT_THAT(world().calls, ElementsAre("curl_easy_getinfo(CURLINFO_RESPONSE_CODE)"));
    }
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(HttpExecution, AcceptedStatus_AllocatesNothing) {
    for (const long status : {200L, 302L}) {
        answer(status, "https://auth.test/short");
        client.checkHttpResp(curl, &redirect);  // makes room for the redirect URL
        world().counts.clear();
        {
            const fakes::UnderTest underTest;
            client.checkHttpResp(curl, &redirect);
        }
        EXPECT_EQ(0, world().counts["operator new"]);
    }
}

TEST_F(HttpExecution, Redirect_StoresTheTargetAndHandsOutLibcurlsPointer) {
    for (const long status : {300L, 302L, 304L, 399L}) {
        const std::string target = "https://auth.test/" + std::to_string(status);
        answer(status, target);
        client.checkHttpResp(curl, &redirect);
        EXPECT_EQ(status, client.getRespCode());
        EXPECT_EQ(target, client.getRedirectURL());
        EXPECT_STREQ(target.c_str(), redirect);
    }
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(HttpExecution, RedirectWithoutTarget_IsCode28) {
    answer(304);
    const std::string text =
        "Failed to get curl redirection url. URL [https://auth.test/x] replied http status code = "
        "304,curl returned: 0: curl return: 0";
    expectThrows<CurlException>([&] { client.checkHttpResp(curl, &redirect); }, 28, text);
    EXPECT_EQ(304, client.getRespCode());
    EXPECT_EQ("", client.getRedirectURL());
    EXPECT_EQ(nullptr, redirect);
    EXPECT_THAT(world().calls,
                ElementsAre("curl_easy_getinfo(CURLINFO_RESPONSE_CODE)",
                            "curl_easy_getinfo(CURLINFO_REDIRECT_URL)", "syslog(7 " + text + ")"));
}

TEST_F(HttpExecution, RedirectTargetNotToBeHad_IsCode28WithTheResultTwice) {
    answer(302, "https://auth.test/next");
    world().redirectResult = CURLE_BAD_FUNCTION_ARGUMENT;
    expectThrows<CurlException>(
        [&] { client.checkHttpResp(curl, &redirect); }, 28,
        "Failed to get curl redirection url. URL [https://auth.test/x] replied http status code = "
        "302,curl returned: 43: curl return: 43");
    EXPECT_EQ("", client.getRedirectURL());
}

struct StatusFailure {
    long status;
    int code;
    std::string text;
};

void PrintTo(const StatusFailure& failure, std::ostream* out) { *out << failure.status; }

class EachStatus : public HttpExecution, public ::testing::WithParamInterface<StatusFailure> {};

TEST_P(EachStatus, OutsideOf2xxAnd3xx_HasItsCodeAndText) {
    answer(GetParam().status, "https://auth.test/ignored");
    const std::string text = "URL [https://auth.test/x] replied http status code " +
                             GetParam().text + ": curl return: 0";
    expectThrows<CurlException>([&] { client.checkHttpResp(curl, &redirect); }, GetParam().code,
                                text);
    EXPECT_EQ(GetParam().status, client.getRespCode());
    EXPECT_EQ("", client.getRedirectURL());
    EXPECT_THAT(world().calls,
                ElementsAre("curl_easy_getinfo(CURLINFO_RESPONSE_CODE)", "syslog(7 " + text + ")"));
    EXPECT_THAT(formats(), ElementsAre("%s:%d %s"));
}

// The second blank before a 4xx status belongs to the text.
INSTANTIATE_TEST_SUITE_P(
    Statuses, EachStatus,
    ::testing::Values(StatusFailure{400, 14, " 400"}, StatusFailure{404, 14, " 404"},
                      StatusFailure{499, 14, " 499"}, StatusFailure{500, 15, "500"},
                      StatusFailure{502, 15, "502"}, StatusFailure{503, 17, "503"},
                      StatusFailure{504, 15, "504"}, StatusFailure{599, 15, "599"},
                      StatusFailure{600, 16, "600"}, StatusFailure{999, 16, "999"},
                      StatusFailure{199, 16, "199"}, StatusFailure{101, 16, "101"},
                      StatusFailure{0, 16, "0"}, StatusFailure{-1, 16, "-1"},
                      StatusFailure{-250, 16, "-250"}, StatusFailure{-503, 16, "-503"}),
    [](const auto& test) {
        const long status = test.param.status;
        return (status < 0 ? "Minus" : "") + std::to_string(status < 0 ? -status : status);
    });

}  // namespace
