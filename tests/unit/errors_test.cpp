#include "orbaoauth2client/errors.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using namespace ORBA::OAuth2Client;

const std::map<int, std::string> kMessages = {
    {0, "No Error."},
    {1, "Unexpected exception happened."},
    {2, "Failed to parse json."},
    {3, "Failed to encode query string."},
    {4, "Failed to get login_challenge from OAuth2 Server."},
    {5, "Failed to get callback URL."},
    {7, "State string cannot be empty in AuthURL."},
    {8, "State string in callback url is not the same as we generated."},
    {9, "Failed to generate random state string."},
    {10, "Failed to get this NAS's serial number."},
    {11, "Failed to allocate hash table."},
    {12, "Invalid parameters."},
    {13, "Failed to get redirection URL from response."},
    {14, "Got response with client error status code."},
    {15, "Got response with server error status code."},
    {16, "Got response with unexpected status code."},
    {17, "Service unavailable."},
    {18, "Failed to get this NAS's useragent string with Tovra."},
    {19, "Failed to get account information with Tovra."},
    {20, "Failed to get Orbalon Account's server config with Tovra."},
    {21, "Failed to send request to Orbalon Account with Tovra."},
    {22, "Authentication failed in Orbalon Account with Tovra."},
    {23, "Failed to init Curl."},
    {24, "Invalid cookie path."},
    {25, "Failed to config Curl."},
    {26, "Failed to send http request with Curl."},
    {27, "Failed to get http response from Curl."},
    {28, "Failed to get redirection URL from Curl."},
    {29, "Failed to URLencode string with Curl."},
    {30, "Failed to URLdecode string with Curl."},
    {31, "Failed to resolve host of url."},
    {32, "Request timeout."},
    {33, "The remote server's SSL certificate was deemed not OK."},
};

TEST(ErrCode2Str, GivesTheMessageOfEachCode) {
    ASSERT_EQ(33U, kMessages.size());
    for (const auto& [code, message] : kMessages) {
        EXPECT_EQ(message, errCode2Str(code)) << code;
    }
}

TEST(ErrCode2Str, UnknownCodes_GiveAnEmptyTextEachTime) {
    for (const int code : {6, 34, -1, 1000000, -2147483647 - 1, 2147483647}) {
        EXPECT_EQ("", errCode2Str(code)) << code;
        EXPECT_EQ("", errCode2Str(code)) << code;
    }
}

template <class Exception>
class EachException : public ::testing::Test {};
using AllExceptions = ::testing::Types<OAuth2ClientException, HttpClientException, JsonException,
                                       CurlException, TovraException, OAuth2Exception>;
TYPED_TEST_SUITE(EachException, AllExceptions);

TYPED_TEST(EachException, CarriesCodeAndTextAndIsCopied) {
    const TypeParam original(-7, "a text of more than fifteen bytes");
    const auto copy = std::make_unique<TypeParam>(original);
    EXPECT_EQ(-7, copy->errCode());
    EXPECT_STREQ("a text of more than fifteen bytes", copy->what());
    EXPECT_NE(static_cast<const void*>(original.what()), copy->what());
}

TYPED_TEST(EachException, NullText_IsTheStringClassesLogicError) {
    const char* const null = nullptr;
    EXPECT_THROW(TypeParam(1, null), std::logic_error);
}

template <class Exception>
class EachStringException : public ::testing::Test {};
using StringExceptions = ::testing::Types<HttpClientException, CurlException, OAuth2Exception>;
TYPED_TEST_SUITE(EachStringException, StringExceptions);

const std::string kTextWithNul("ab\0cd", 5);

// The text in the object: after the table of virtual functions and the code.
const std::string& storedText(const OAuth2ClientException& exception) {
    return *reinterpret_cast<const std::string*>(reinterpret_cast<const char*>(&exception) + 16);
}

TYPED_TEST(EachStringException, CutsATextAtItsFirstNul) {
    const TypeParam exception(12, kTextWithNul);
    EXPECT_STREQ("ab", exception.what());
    EXPECT_EQ(2U, storedText(exception).size());
}

TEST(Exceptions, Base_KeepsATextWithNulWhole) {
    const OAuth2ClientException exception(12, kTextWithNul);
    EXPECT_EQ(kTextWithNul, storedText(exception));
}

TEST(Exceptions, OnlyTheBaseAndThree_TakeAString) {
    EXPECT_TRUE((std::is_constructible_v<HttpClientException, int, std::string>));
    EXPECT_TRUE((std::is_constructible_v<CurlException, int, std::string>));
    EXPECT_TRUE((std::is_constructible_v<OAuth2Exception, int, std::string>));
    EXPECT_FALSE((std::is_constructible_v<JsonException, int, std::string>));
    EXPECT_FALSE((std::is_constructible_v<TovraException, int, std::string>));
}

}  // namespace
