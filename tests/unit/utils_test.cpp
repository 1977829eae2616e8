// URL parameters and the device fingerprint.
#include "orbaoauth2client/utils.h"

#include <stdexcept>

#include "fixture.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class UrlParameters : public FakesTest {};

TEST_F(UrlParameters, Decode_TakesTheTextAndReleasesEverything) {
    EXPECT_EQ("x y", decodeString("x%20y"));
    EXPECT_THAT(world().calls, ElementsAre("curl_easy_init()", "curl_easy_unescape(curl1, x%20y)",
                                           "curl_free()", "curl_easy_cleanup(curl1)"));
}

TEST_F(UrlParameters, Decode_EndsAtADecodedNul) {
    EXPECT_EQ("a", decodeString("a%00b"));
    EXPECT_EQ("", decodeString("%00b"));
    EXPECT_EQ("", decodeString(""));
}

TEST_F(UrlParameters, Decode_LeavesPlusAndMalformedEscapes) {
    EXPECT_EQ("a+b", decodeString("a+b"));
    EXPECT_EQ("%G1%", decodeString("%G1%"));
}

TEST_F(UrlParameters, Decode_NoHandle_IsCode23) {
    world().failAt["curl_easy_init"] = 1;
    expectThrows<CurlException>([] { decodeString("a"); }, 23, "Error: Failed to init curl.");
    EXPECT_THAT(fakes::logLines(), ElementsAre("7 utils Error: Failed to init curl."));
    EXPECT_THAT(formats(), ElementsAre("%s:%d %s"));
}

TEST_F(UrlParameters, Decode_Failure_IsCode30AndLoggedBehindTheRelease) {
    world().unescapeFails = true;
    expectThrows<CurlException>([] { decodeString("a"); }, 30,
                                "Failed to do curl_easy_unescape for string");
    EXPECT_THAT(world().calls, ElementsAre("curl_easy_init()", "curl_easy_unescape(curl1, a)",
                                           "curl_easy_cleanup(curl1)",
                                           "syslog(7 Failed to do curl_easy_unescape for string)"));
}

struct Parameter {
    std::string url;
    std::string key;
    std::string value;
};

void PrintTo(const Parameter& parameter, std::ostream* out) {
    *out << parameter.key << " of " << parameter.url;
}

class EachParameter : public FakesTest, public ::testing::WithParamInterface<Parameter> {};

TEST_P(EachParameter, IsTakenFromTheUrl) {
    EXPECT_EQ(GetParam().value, getParamFromURL(GetParam().url, GetParam().key));
    EXPECT_THAT(world().log, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Urls, EachParameter,
    ::testing::Values(Parameter{"/cb?code=abc&state=xyz", "state", "xyz"},
                      Parameter{"/cb?code=abc&state=xyz", "code", "abc"},
                      Parameter{"/cb?redirect_uri=%2Fx%3Fa%3D1", "redirect_uri", "/x?a=1"},
                      Parameter{"/cb?a=1#frag", "a", "1#frag"},
                      Parameter{"/cb?a=1#frag&b=2", "a", "1#frag"},
                      Parameter{"/cb?a=&b=2", "a", ""}, Parameter{"/cb?b=2&a=", "a", ""},
                      Parameter{"/cb?x=a+b%20c", "x", "a+b c"},
                      Parameter{"/cb?barcode=1&code=2", "code", "1"},
                      Parameter{"https://a=b.test/?a=1", "a", "b.test/?a=1"},
                      Parameter{"/cb?a=1&a=2", "a", "1"}, Parameter{"/cb?A=1&a=2", "a", "2"},
                      Parameter{"/cb?a=b=c&d=1", "a", "b=c"}, Parameter{"/cb#a=1", "a", "1"}));

TEST_F(UrlParameters, EmptyUrlOrKey_IsCode12WithOneText) {
    const std::string text = "Failed to get parameter: The url is empty.";
    expectThrows<OAuth2Exception>([] { getParamFromURL("", "a"); }, 12, text);
    expectThrows<OAuth2Exception>([] { getParamFromURL("/?a=1", ""); }, 12, text);
    EXPECT_THAT(fakes::logLines(), ElementsAre("7 utils " + text, "7 utils " + text));
    EXPECT_EQ(0, world().counts["curl_easy_init"]);
}

TEST_F(UrlParameters, ParameterThatIsNotThere_IsCode12WithTheUrl) {
    for (const std::string url : {"/cb?b=2", "/cb", "?flag&x=1", "/cb?A=1"}) {
        const std::string text = "This url doesn't have query parameters. [" + url + "]";
        expectThrows<OAuth2Exception>(
            [&] { getParamFromURL(url, url == "?flag&x=1" ? "flag" : "a"); }, 12, text);
        EXPECT_EQ("7 utils " + text, fakes::logLines().back());
        EXPECT_EQ("%s:%d %s", formats().back());
    }
}

TEST_F(UrlParameters, DecodingFailures_PassUnchanged) {
    world().unescapeFails = true;
    expectThrows<CurlException>([] { getParamFromURL("/?a=1", "a"); }, 30,
                                "Failed to do curl_easy_unescape for string");
    world().failAt["curl_easy_init"] = 2;
    expectThrows<CurlException>([] { getParamFromURL("/?a=1", "a"); }, 23,
                                "Error: Failed to init curl.");
}

class Fingerprint : public FakesTest {};

TEST_F(Fingerprint, IsThePseudonymOfTheSerialNumber) {
    EXPECT_EQ("pseudonym-1", getDeviceFingerprint());
    EXPECT_THAT(world().calls, ElementsAre("KLIBGetSerialNumber(zeroed, 36)",
                                           "ORBAUDCPseudonymise(null, SERIAL000042, 12)"));
}

TEST_F(Fingerprint, SerialNumberThatFillsTheBuffer_CountsWhole) {
    world().device.serial = std::string(36, 'S');
    getDeviceFingerprint();
    EXPECT_EQ("ORBAUDCPseudonymise(null, " + std::string(36, 'S') + ", 36)", world().calls.back());
}

TEST_F(Fingerprint, NothingIsCached) {
    getDeviceFingerprint();
    getDeviceFingerprint();
    EXPECT_EQ(4U, world().calls.size());
}

// Any result but 0 is a failure with code 1; 10 is that of loginIDP only.
TEST_F(Fingerprint, NoSerialNumber_IsCode1) {
    for (const int result : {-1, 1}) {
        world().device.serialResult = result;
        expectThrows<OAuth2Exception>([] { getDeviceFingerprint(); }, 1, "Failed to get serial");
    }
    EXPECT_THAT(fakes::logLines(), ::testing::Each("7 utils Failed to get serial"));
    EXPECT_EQ(0, world().counts["ORBAUDCPseudonymise"]);
}

TEST_F(Fingerprint, NoPseudonym_IsCode1) {
    for (const int result : {-1, 1}) {
        world().device.pseudonymResult = result;
        expectThrows<OAuth2Exception>([] { getDeviceFingerprint(); }, 1,
                                      "Failed to pseudonymise serial");
    }
    EXPECT_THAT(fakes::logLines(), ::testing::Each("7 utils Failed to pseudonymise serial"));
    EXPECT_THAT(formats(), ::testing::Each("%s:%d %s"));
}

TEST_F(Fingerprint, NullPseudonym_IsTheStringClassesLogicError) {
    world().device.pseudonym.reset();
    EXPECT_THROW(getDeviceFingerprint(), std::logic_error);
    EXPECT_THAT(world().log, IsEmpty());
}

}  // namespace
