// Query encoding.
#include <stdexcept>

#include "fixture.h"
#include "orbaoauth2client/httpclient.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;
using HttpClient::getEncodeQuery;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Query : public FakesTest {};

TEST_F(Query, NamesInByteOrder_ValuesEncoded) {
    EXPECT_EQ("a=x%20y&b=2", getEncodeQuery({{"b", "2"}, {"a", "x y"}}));
    EXPECT_THAT(world().calls, ElementsAre("curl_easy_init()", "curl_easy_escape(curl1, x y)",
                                           "curl_free()", "curl_easy_escape(curl1, 2)",
                                           "curl_free()", "curl_easy_cleanup(curl1)"));
}

TEST_F(Query, ReservedCharactersOfValues_AreEncoded) {
    EXPECT_EQ("k=a%26b%3Dc%2Fd", getEncodeQuery({{"k", "a&b=c/d"}}));
}

TEST_F(Query, Names_AreWrittenAsTheyAre) {
    EXPECT_EQ("a b=1", getEncodeQuery({{"a b", "1"}}));
    EXPECT_EQ("=1&&=2", getEncodeQuery({{"", "1"}, {"&", "2"}}));
}

TEST_F(Query, EmptyValue_KeepsItsName) { EXPECT_EQ("a=", getEncodeQuery({{"a", ""}})); }

TEST_F(Query, EmptyMap_IsAnEmptyQuery) {
    EXPECT_EQ("", getEncodeQuery({}));
    EXPECT_THAT(world().calls, ElementsAre("curl_easy_init()", "curl_easy_cleanup(curl1)"));
}

TEST_F(Query, ValueWithNul_IsHandedOverWhole) {
    getEncodeQuery({{"a", std::string("x\0y", 3)}});
    EXPECT_EQ("curl_easy_escape(curl1, " + std::string("x\0y", 3) + ")", world().calls[1]);
}

TEST_F(Query, NoHandle_IsCode23Unwrapped) {
    for (const std::map<std::string, std::string>& params :
         {std::map<std::string, std::string>(), {{"a", "1"}}}) {
        fakes::reset();
        world().failAt["curl_easy_init"] = 1;
        expectThrows<CurlException>([&] { getEncodeQuery(params); }, 23,
                                    "Error: Failed to init curl.");
        EXPECT_THAT(fakes::logLines(), ElementsAre("7 orbahttpclient Error: Failed to init curl."));
    }
}

TEST_F(Query, ValueThatCannotBeEncoded_IsCode3AndLoggedTwice) {
    world().failAt["curl_easy_escape"] = 2;
    const std::string text = "Failed to do curl_easy_escape for string";
    expectThrows<OAuth2ClientException>([&] { getEncodeQuery({{"a", "1"}, {"b", "2"}}); }, 3, text);
    const std::string logged = "syslog(7 " + text + ")";
    EXPECT_THAT(fakes::callsOf({"curl_easy_cleanup", "syslog"}),
                ElementsAre(logged, "curl_easy_cleanup(curl1)", logged));
    EXPECT_THAT(formats(), ::testing::Each("%s:%d %s"));
}

TEST_F(Query, ForeignException_IsCode3AndLoggedTwice) {
    world().onCall = [](const std::string& name) {
        if (name == "curl_easy_escape") {
            throw std::runtime_error("lightning");
        }
    };
    expectThrows<OAuth2ClientException>(
        [&] {
            getEncodeQuery({{"a", "1"}});
        },
        3, "Exception: lightning");
    const std::string logged = "syslog(7 Exception: lightning)";
    EXPECT_THAT(fakes::callsOf({"curl_easy_cleanup", "syslog"}),
                ElementsAre(logged, "curl_easy_cleanup(curl1)", logged));
}

// Only a CurlException keeps its text, and ends the query normally when its code is 0.
template <class Exception>
class EachOtherException : public Query {};
using OtherExceptions = ::testing::Types<OAuth2ClientException, HttpClientException, JsonException,
                                         TovraException, OAuth2Exception>;
TYPED_TEST_SUITE(EachOtherException, OtherExceptions);

TYPED_TEST(EachOtherException, IsForeignToo) {
    for (const int code : {0, 12}) {
        fakes::reset();
        world().onCall = [code](const std::string& name) {
            if (name == "curl_easy_escape") {
                throw TypeParam(code, "lightning");
            }
        };
        expectThrows<OAuth2ClientException>(
            [] {
                getEncodeQuery({{"a", "1"}});
            },
            3, "Exception: lightning");
        const std::string logged = "7 orbahttpclient Exception: lightning";
        EXPECT_THAT(fakes::logLines(), ElementsAre(logged, logged));
    }
}

struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

TEST_F(Query, ExceptionWithNullText_HasAnEmptyOne) {
    world().onCall = [](const std::string& name) {
        if (name == "curl_easy_escape") {
            throw Silent();
        }
    };
    expectThrows<OAuth2ClientException>([] { getEncodeQuery({{"a", "1"}}); }, 3, "Exception: ");
}

TEST_F(Query, ExceptionWithCode0_EndsTheQueryThere) {
    world().onCall = [](const std::string& name) {
        if (name == "curl_easy_escape" && world().counts[name] == 2) {
            throw CurlException(0, "nothing happened");
        }
    };
    EXPECT_EQ("a=1", getEncodeQuery({{"a", "1"}, {"b", "2"}}));
    EXPECT_THAT(world().log, IsEmpty());
}

}  // namespace
