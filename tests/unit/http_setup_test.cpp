// The client object and the set-up of a transfer.
#include <json/json.h>

#include <cstring>
#include <memory>
#include <utility>

#include "fixture.h"
#include "orbaoauth2client/httpclient.h"

namespace {

using namespace ORBA::OAuth2Client;
using Client = HttpClient::HttpClient;
using fakes::world;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HttpSetUp : public FakesTest {
  protected:
    Client client{"https://auth.test/", "/jar"};
    void* curl = nullptr;
    curl_slist* list = nullptr;

    void setUp() { client.setCurlCommonInit(&curl, &list, "https://auth.test/", "/jar"); }

    void TearDown() override {
        if (curl != nullptr) {
            curl_easy_cleanup(curl);
        }
        FakesTest::TearDown();
    }
};

TEST_F(HttpSetUp, NewObject_OverUsedMemory_HasNoResponse) {
    alignas(Client) unsigned char memory[sizeof(Client)];
    std::memset(memory, 0xFF, sizeof memory);
    const std::unique_ptr<Client, void (*)(Client*)> object(
        new (memory) Client("https://auth.test/", "/jar"), std::destroy_at<Client>);
    EXPECT_EQ("https://auth.test/", object->getURL());
    EXPECT_EQ("/jar", object->getCookiesFilePath());
    EXPECT_EQ(0, object->getRespCode());
    EXPECT_EQ("", object->getRedirectURL());
}

TEST_F(HttpSetUp, UrlOnly_UsesTheThrowAwayCookieFile) {
    Client plain("https://auth.test/");
    EXPECT_EQ("/tmp/dontcarecookies", plain.getCookiesFilePath());
    EXPECT_EQ("https://auth.test/", plain.getURL());
}

TEST_F(HttpSetUp, Setters_ReplaceWithoutAnyCheck) {
    client.setURL("");
    client.setCookiesFilePath("");
    EXPECT_EQ("", client.getURL());
    EXPECT_EQ("", client.getCookiesFilePath());
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(HttpSetUp, SetHeader_LogsNameAndValue) {
    client.setHeader("Accept", "text/html");
    EXPECT_THAT(fakes::logLines(), ElementsAre("7 orbahttpclient add header Accept: text/html"));
    EXPECT_THAT(formats(), ElementsAre("%s:%d add header %s: %s"));
    EXPECT_GT(world().log.front().line, 0);
}

TEST_F(HttpSetUp, CommonInit_TakesTheUrlFromTheArgumentAndTheCookiesFromTheObject) {
    client.setCurlCommonInit(&curl, &list, "https://other.test/", "/other");
    EXPECT_EQ(setUpCalls("https://other.test/", "/jar"), world().calls);
}

TEST_F(HttpSetUp, EmptyUrl_FailsBeforeAnyHandle) {
    expectThrows<HttpClientException>([&] { client.setCurlCommonInit(&curl, &list, "", ""); }, 12,
                                      "Got empty URL.");
    EXPECT_EQ(nullptr, curl);
    EXPECT_THAT(world().calls, ElementsAre("syslog(7 Got empty URL.)"));
    EXPECT_THAT(formats(), ElementsAre("%s:%d %s"));
}

TEST_F(HttpSetUp, EmptyCookiePath_FailsBeforeAnyHandle) {
    expectThrows<HttpClientException>(
        [&] { client.setCurlCommonInit(&curl, &list, "https://auth.test/", ""); }, 12,
        "Got empty cookie file path.");
    EXPECT_EQ(nullptr, curl);
    EXPECT_THAT(world().calls, ElementsAre("syslog(7 Got empty cookie file path.)"));
}

TEST_F(HttpSetUp, NoHandle_IsCode23) {
    world().failAt["curl_easy_init"] = 1;
    expectThrows<CurlException>([&] { setUp(); }, 23, "Failed to init curl.");
    EXPECT_THAT(world().calls, ElementsAre("curl_easy_init()", "syslog(7 Failed to init curl.)"));
}

TEST_F(HttpSetUp, Failure_LeavesTheHandleToTheCaller) {
    world().optionFails[CURLOPT_URL] = CURLE_OUT_OF_MEMORY;
    expectThrows<CurlException>([&] { setUp(); }, 25,
                                "Failed to set curl CURLOPT_URL: curl return: 27");
    ASSERT_NE(nullptr, curl);
    EXPECT_THAT(fakes::heldNames(), ElementsAre("curl1"));
}

struct OptionFailure {
    CURLoption option;
    std::string name;
};

void PrintTo(const OptionFailure& failure, std::ostream* out) { *out << failure.name; }

class EachOption : public HttpSetUp, public ::testing::WithParamInterface<OptionFailure> {};

TEST_P(EachOption, Refused_IsCode25WithItsNameAndTheResult) {
    client.setHeader("a", "1");
    world().calls.clear();
    world().log.clear();
    world().optionFails[GetParam().option] = CURLE_BAD_FUNCTION_ARGUMENT;
    HttpClient::MemoryStruct chunk = {nullptr, 0};
    const std::string text = "Failed to set curl " + GetParam().name + ": curl return: 43";
    curl_slist* own = curl_slist_append(nullptr, "own: 1");
    expectThrows<CurlException>(
        [&] {
            client.setCurlCommonInit(&curl, &own, "https://auth.test/", "/jar");
            client.setCurlWriteCallBack(curl, &chunk);
        },
        25, text);
    EXPECT_EQ("7 orbahttpclient " + text, fakes::logLines().back());
    EXPECT_EQ("%s:%d %s", formats().back());
    EXPECT_EQ("syslog(7 " + text + ")", world().calls.back());
    curl_slist_free_all(own);
}

INSTANTIATE_TEST_SUITE_P(
    Options, EachOption,
    ::testing::Values(OptionFailure{CURLOPT_URL, "CURLOPT_URL"},
                      OptionFailure{CURLOPT_TIMEOUT, "CURLOPT_TIMEOUT"},
                      OptionFailure{CURLOPT_USERAGENT, "CURLOPT_USERAGENT"},
                      OptionFailure{CURLOPT_SSL_VERIFYPEER, "CURLOPT_SSL_VERIFYPEER"},
                      OptionFailure{CURLOPT_SSL_VERIFYHOST, "CURLOPT_SSL_VERIFYHOST"},
                      OptionFailure{CURLOPT_CAPATH, "CURLOPT_CAPATH"},
                      OptionFailure{CURLOPT_SSLVERSION, "CURL_SSLVERSION_TLSv1"},
                      OptionFailure{CURLOPT_COOKIEJAR, "CURLOPT_COOKIEJAR"},
                      OptionFailure{CURLOPT_COOKIEFILE, "CURLOPT_COOKIEFILE"},
                      OptionFailure{CURLOPT_HTTPHEADER, "CURLOPT_HTTPHEADER"},
                      OptionFailure{CURLOPT_WRITEFUNCTION, "CURLOPT_WRITEFUNCTION"},
                      OptionFailure{CURLOPT_WRITEDATA, "CURLOPT_WRITEDATA"}),
    [](const auto& test) { return test.param.name; });

TEST_F(HttpSetUp, NoUserAgent_IsCode18AndLogsTheLibrarysErrorNumber) {
    world().device.userAgentResult = 1;
    expectThrows<TovraException>([&] { setUp(); }, 18, "Failed to get Orbalon usergent");
    EXPECT_THAT(fakes::logLines(),
                ElementsAre("7 orbahttpclient Failed to get Orbalon usergent: code=4000000000",
                            "7 orbahttpclient Failed to get Orbalon usergent"));
    EXPECT_THAT(formats(),
                ElementsAre("%s:%d Failed to get Orbalon usergent: code=%u", "%s:%d %s"));
    EXPECT_THAT(
        fakes::callsOf({"ORBATOVRA"}),
        ElementsAre("ORBATOVRAErrSet(0)", "ORBATOVRAUserAgentNameGet(256)", "ORBATOVRAErrGet()"));
}

TEST_F(HttpSetUp, UserAgent_FillsItsBuffer) {
    world().device.userAgent = std::string(300, 'u');
    setUp();
    EXPECT_THAT(fakes::callsOf({"curl_easy_setopt(CURLOPT_USERAGENT"}),
                ElementsAre("curl_easy_setopt(CURLOPT_USERAGENT, " + std::string(255, 'u') + ")"));
}

TEST_F(HttpSetUp, CookieFileThatCannotBeMade_IsCode24WithItsPath) {
    for (const int result : {-1, 1}) {
        world().device.touchResult = result;
        expectThrows<CurlException>([&] { client.setCurlCookies(nullptr, "/no/such/jar"); }, 24,
                                    "Invalid cookie file path: /no/such/jar");
    }
    EXPECT_THAT(fakes::logLines(),
                ::testing::Each("7 orbahttpclient Invalid cookie file path: /no/such/jar"));
    EXPECT_THAT(fakes::callsOf({"curl_easy_setopt"}), IsEmpty());
}

TEST_F(HttpSetUp, Headers_GoOutInByteOrderOfTheirNames) {
    client.setHeader("b", "1");
    client.setHeader("a", "2");
    client.setHeader("C", "3");
    curl_slist* const own = curl_slist_append(nullptr, "own: 0");
    list = own;
    setUp();
    EXPECT_EQ(own, list);  // the caller's variable keeps its value
    EXPECT_THAT(
        fakes::callsOf({"curl_slist_append", "curl_easy_setopt(CURLOPT_HTTPHEADER"}),
        ElementsAre("curl_slist_append(null, own: 0)", "curl_slist_append(list[own: 0], C: 3)",
                    "curl_slist_append(list[own: 0], a: 2)",
                    "curl_slist_append(list[own: 0], b: 1)",
                    "curl_easy_setopt(CURLOPT_HTTPHEADER, own: 0 | C: 3 | a: 2 | b: 1)"));
    curl_slist_free_all(own);
}

TEST_F(HttpSetUp, Headers_AreLoggedOneByOne) {
    curl_slist* const own = curl_slist_append(nullptr, "own: 0");
    client.setCurlHeaders(curl = curl_easy_init(), own, {{"a", "2"}, {"b", "1"}});
    EXPECT_THAT(fakes::logLines(),
                ElementsAre("7 orbahttpclient set curl custom http header a: 2",
                            "7 orbahttpclient set curl custom http header b: 1"));
    EXPECT_THAT(formats(), ::testing::Each("%s:%d set curl custom http header %s"));
    curl_slist_free_all(own);
}

TEST_F(HttpSetUp, HeadersOutsideOfARequest_BeginAListThatStaysWithTheHandle) {
    client.setHeader("a", "1");
    setUp();
    EXPECT_EQ(nullptr, list);
    EXPECT_THAT(fakes::heldNames(), ::testing::UnorderedElementsAre("curl1", "list[a: 1]"));
    curl_easy_cleanup(std::exchange(curl, nullptr));
    fakes::letGoOfWhatIsHeld();
}

TEST_F(HttpSetUp, SameName_KeepsTheLastValue_LetterCaseTellsNamesApart) {
    client.setHeader("Accept", "a");
    client.setHeader("Accept", "b");
    client.setHeader("accept", "c");
    list = curl_slist_append(nullptr, "own: 0");
    setUp();
    EXPECT_THAT(
        fakes::callsOf({"curl_easy_setopt(CURLOPT_HTTPHEADER"}),
        ElementsAre("curl_easy_setopt(CURLOPT_HTTPHEADER, own: 0 | Accept: b | accept: c)"));
    curl_slist_free_all(list);
}

TEST_F(HttpSetUp, NoHeaders_NoOption) {
    setUp();
    client.setCurlHeaders(curl, list, {});
    EXPECT_THAT(fakes::callsOf({"curl_slist", "curl_easy_setopt(CURLOPT_HTTPHEADER"}), IsEmpty());
}

TEST_F(HttpSetUp, WriteCallBack_CollectsThePiecesInOrder) {
    HttpClient::MemoryStruct chunk = {nullptr, 0};
    setUp();
    world().calls.clear();
    client.setCurlWriteCallBack(curl, &chunk);
    EXPECT_THAT(world().calls, ElementsAre("curl_easy_setopt(CURLOPT_WRITEFUNCTION, callback)",
                                           "curl_easy_setopt(CURLOPT_WRITEDATA, data)"));
    world().transfers = {{CURLE_OK, 200, "", {"12345", "ab\0d", "1234567"}, {}}};
    world().transfers[0].pieces[1] = std::string("ab\0d", 4);
    ASSERT_EQ(CURLE_OK, curl_easy_perform(curl));
    EXPECT_EQ(16U, chunk.size);
    EXPECT_EQ(std::string("12345ab\0d1234567", 17), std::string(chunk.memory, 17));
    EXPECT_THAT(fakes::callsOf({"realloc"}),
                ElementsAre("realloc(6)", "realloc(10)", "realloc(17)"));
    std::free(chunk.memory);
}

TEST_F(HttpSetUp, WriteCallBack_OutOfMemory_TakesNothingAndKeepsWhatItHas) {
    HttpClient::MemoryStruct chunk = {nullptr, 0};
    setUp();
    client.setCurlWriteCallBack(curl, &chunk);
    world().transfers = {{CURLE_OK, 200, "", {"12345", "6"}, {}}};
    world().failAt["realloc"] = 2;
    EXPECT_EQ(CURLE_WRITE_ERROR, curl_easy_perform(curl));
    EXPECT_EQ(5U, chunk.size);
    EXPECT_STREQ("12345", chunk.memory);
    EXPECT_EQ("7 orbahttpclient Error: not enough memory (realloc returned NULL)",
              fakes::logLines().back());
    EXPECT_EQ("%s:%d Error: not enough memory (realloc returned NULL)", formats().back());
    std::free(chunk.memory);
}

TEST_F(HttpSetUp, WriteCallBack_TakesItemsOfAnySize) {
    HttpClient::MemoryStruct chunk = {nullptr, 0};
    setUp();
    client.setCurlWriteCallBack(curl, &chunk);
    world().transfers = {{CURLE_OK, 200, "", {"123456", "789abc"}, {}, 3}};
    ASSERT_EQ(CURLE_OK, curl_easy_perform(curl));
    EXPECT_EQ(12U, chunk.size);
    EXPECT_STREQ("123456789abc", chunk.memory);
    std::free(chunk.memory);
}

}  // namespace
