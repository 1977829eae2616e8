// The token endpoint. The token files are real ones, in a folder of the test's own.
#include "orbaoauth2client/pkce.h"

#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>

#include "fixture.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kTokenUrl = "https://auth.test/token";
const std::string kStoredReply = "{\n\t\"refresh_token\" : \"r2\"\n}\n";

class Pkce : public FakesTest {
  protected:
    void SetUp() override {
        FakesTest::SetUp();
        folder = ::testing::TempDir() + "orba-pkce-test-" + std::to_string(getpid());
        std::filesystem::create_directory(folder);
        file = folder + "/token";
        answer(200, R"({"refresh_token":"r2"})");
        coutBuffer = std::cout.rdbuf(printed.rdbuf());
    }
    void TearDown() override {
        std::cout.rdbuf(coutBuffer);
        std::filesystem::remove_all(folder);
        FakesTest::TearDown();
    }
    static void answer(long status, const std::string& body) {
        world().transfers = {{CURLE_OK, status, body, {}, {}}};
    }
    void store(const std::string& text) const { std::ofstream(file) << text; }
    std::string stored() const {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }
    static std::string sentBody() { return world().requests.at(0).options.at(CURLOPT_POSTFIELDS); }

    void exchange() { PKCE::getAccessToken({file, kTokenUrl, "cid", "abc", "xyz", "app://cb"}); }
    void refresh() { PKCE::refreshAccessToken({file, kTokenUrl, "cid"}); }

    std::string folder;
    std::string file;
    std::ostringstream printed;
    std::streambuf* coutBuffer = nullptr;
};

// --- the exchange ---

TEST_F(Pkce, Exchange_SendsThisFormAndStoresTheReply) {
    exchange();
    EXPECT_EQ(
        "grant_type=authorization_code&code=abc&client_id=cid&redirect_uri=app://cb&"
        "code_verifier=xyz",
        sentBody());
    EXPECT_EQ(kTokenUrl, world().requests[0].options.at(CURLOPT_URL));
    EXPECT_EQ("/tmp/oa_pkce_cookies.txt", world().requests[0].options.at(CURLOPT_COOKIEJAR));
    EXPECT_EQ(kStoredReply, stored());
    EXPECT_EQ("", printed.str());
}

TEST_F(Pkce, Exchange_EmptyFieldsKeepTheirNames) {
    PKCE::getAccessToken({file, kTokenUrl, "", "", "", ""});
    EXPECT_EQ("grant_type=authorization_code&code=&client_id=&redirect_uri=&code_verifier=",
              sentBody());
}

TEST_F(Pkce, Exchange_SendsValuesAsTheyAre) {
    PKCE::getAccessToken({file, kTokenUrl, "c d", "a&b", "%20+", "x=y"});
    EXPECT_EQ(
        "grant_type=authorization_code&code=a&b&client_id=c d&redirect_uri=x=y&code_verifier=%20+",
        sentBody());
}

TEST_F(Pkce, Exchange_FieldsStandInThisOrder) {
    const PKCE::ParamGetAccessToken param = {"1", "2", "3", "4", "5", "6"};
    EXPECT_EQ("123456", param.tokenFilePath + param.tokenURL + param.clientID + param.code +
                            param.codeVerifier + param.redirectURI);
}

TEST_F(Pkce, Exchange_ReplacesTheWholeFile) {
    store(std::string(10000, 'x'));
    exchange();
    EXPECT_EQ(kStoredReply, stored());
}

TEST_F(Pkce, Exchange_StoresAnErrorObjectOfA2xxReplyToo) {
    answer(200, R"({"error":"slow_down"})");
    exchange();
    EXPECT_EQ("{\n\t\"error\" : \"slow_down\"\n}\n", stored());
}

TEST_F(Pkce, Exchange_EmptyUrl_IsCode12AndTouchesNoFile) {
    expectThrows<HttpClientException>(
        [&] {
            PKCE::getAccessToken({file, "", "", "", "", ""});
        },
        12, "Failed to do HTTP Get request to [] due to: Got empty URL.");
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(Pkce, Exchange_RefusedCode_KeepsTheFile) {
    store("old");
    answer(400, R"({"error":"invalid_grant"})");
    expectThrows<HttpClientException>(
        [&] { exchange(); }, 14,
        "Failed to do HTTP Get request to [https://auth.test/token] due to: URL "
        "[https://auth.test/token] replied http status code  400: curl return: 0");
    EXPECT_EQ("old", stored());
}

TEST_F(Pkce, Exchange_ReplyThatIsNotJson_KeepsTheFile) {
    store("old");
    answer(200, "<html>");
    EXPECT_THROW(exchange(), HttpClientException);
    EXPECT_EQ("old", stored());
}

TEST_F(Pkce, Exchange_FileThatCannotBeWritten_IsNotReported) {
    for (const std::string& path : {folder + "/none/token", folder, std::string()}) {
        fakes::reset();
        PKCE::getAccessToken({path, kTokenUrl, "cid", "abc", "xyz", "app://cb"});
        EXPECT_EQ(1U, world().requests.size());
        EXPECT_THAT(fakes::callsOf({"syslog(7 F", "syslog(7 E", "syslog(4"}), IsEmpty());
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST_F(Pkce, Exchange_DeviceThatIsFull_IsNotReported) {
    ASSERT_TRUE(std::filesystem::is_character_file("/dev/full"));
    PKCE::getAccessToken({"/dev/full", kTokenUrl, "cid", "abc", "xyz", "app://cb"});
    EXPECT_EQ(1U, world().requests.size());
}

// --- the refresh ---

TEST_F(Pkce, Refresh_SendsTheStoredTokenAndReplacesTheFile) {
    store(R"({"access_token":"a1","refresh_token":"r1","expires_in":60})");
    refresh();
    EXPECT_EQ("grant_type=refresh_token&refresh_token=r1&client_id=cid", sentBody());
    EXPECT_EQ(kTokenUrl, world().requests[0].options.at(CURLOPT_URL));
    EXPECT_EQ("/tmp/oa_pkce_cookies.txt", world().requests[0].options.at(CURLOPT_COOKIEJAR));
    EXPECT_EQ(kStoredReply, stored());
    EXPECT_EQ(kStoredReply, printed.str());
}

// Looks at the token file when the printed reply is flushed.
class FileAtFlush : public std::stringbuf {
  public:
    explicit FileAtFlush(std::function<std::string()> content) : content_(std::move(content)) {}
    std::string seen;

  private:
    int sync() override {
        seen += content_() + "|";
        return 0;
    }
    std::function<std::string()> content_;
};

TEST_F(Pkce, Refresh_PrintsBeforeItStores) {
    const std::string old = R"({"refresh_token":"r1"})";
    store(old);
    FileAtFlush flush([this] { return stored(); });
    std::cout.rdbuf(&flush);
    refresh();
    EXPECT_EQ(old + "|", flush.seen);
    EXPECT_EQ(kStoredReply, flush.str());
}

TEST_F(Pkce, Refresh_FieldsStandInThisOrder) {
    const PKCE::ParamRefreshAccessToken param = {"1", "2", "3"};
    EXPECT_EQ("123", param.tokenFilePath + param.tokenURL + param.clientID);
}

TEST_F(Pkce, Refresh_ReadsWhatTheExchangeWrote) {
    exchange();
    world().requests.clear();
    refresh();
    EXPECT_EQ("grant_type=refresh_token&refresh_token=r2&client_id=cid", sentBody());
}

TEST_F(Pkce, Refresh_ReplyWithoutRefreshToken_LosesTheOldOne) {
    store(R"({"refresh_token":"r1"})");
    answer(200, R"({"access_token":"a2"})");
    refresh();
    world().requests.clear();
    refresh();
    EXPECT_EQ("grant_type=refresh_token&refresh_token=&client_id=cid", sentBody());
}

TEST_F(Pkce, Refresh_NoStoredRefreshToken_SendsAnEmptyOne) {
    for (const std::string text : {"{}", "null", R"({"refresh_token":null})"}) {
        world().requests.clear();
        store(text);
        refresh();
        EXPECT_EQ("grant_type=refresh_token&refresh_token=&client_id=cid", sentBody()) << text;
    }
}

TEST_F(Pkce, Refresh_StoredNumber_IsSentAsText) {
    store(R"({"refresh_token":7})");
    refresh();
    EXPECT_EQ("grant_type=refresh_token&refresh_token=7&client_id=cid", sentBody());
}

TEST_F(Pkce, Refresh_FileThatIsMissingOrNotJson_IsJsoncppsException) {
    EXPECT_THROW(refresh(), Json::RuntimeError);
    for (const std::string text : {"", "{", "<html>"}) {
        store(text);
        EXPECT_THROW(refresh(), Json::RuntimeError) << text;
        EXPECT_EQ(text, stored());
    }
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ("", printed.str());
}

TEST_F(Pkce, Refresh_FileOfTheWrongType_IsJsoncppsException) {
    for (const std::string text :
         {"[]", "1", R"({"refresh_token":{}})", R"({"refresh_token":["r1"]})"}) {
        store(text);
        EXPECT_THROW(refresh(), Json::LogicError) << text;
        EXPECT_EQ(text, stored());
    }
    EXPECT_THAT(world().requests, IsEmpty());
}

TEST_F(Pkce, Refresh_RefusedToken_PrintsNothingAndKeepsTheFile) {
    store(R"({"refresh_token":"r1"})");
    answer(400, R"({"error":"invalid_grant"})");
    expectThrows<HttpClientException>(
        [&] { refresh(); }, 14,
        "Failed to do HTTP Get request to [https://auth.test/token] due to: URL "
        "[https://auth.test/token] replied http status code  400: curl return: 0");
    EXPECT_EQ("", printed.str());
    EXPECT_EQ(R"({"refresh_token":"r1"})", stored());
}

// The file vanishes while the request runs, and a folder of its name takes its place.
TEST_F(Pkce, Refresh_FileThatCannotBeRewritten_PrintsOnly) {
    store(R"({"refresh_token":"r1"})");
    world().onCall = [this](const std::string& name) {
        if (name == "curl_easy_perform") {
            std::filesystem::remove(file);
            std::filesystem::create_directory(file);
        }
    };
    refresh();
    EXPECT_EQ(kStoredReply, printed.str());
    EXPECT_TRUE(std::filesystem::is_directory(file));
}

}  // namespace
