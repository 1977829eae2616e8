// The account service's reply, as it comes, into OAuth2::loginIDP(). Input: the reply.
#include <algorithm>

#include "fakes.h"
#include "fuzz.h"
#include "orbaoauth2client/oauth2.h"

namespace {

using ORBA::OAuth2Client::OAuth2;
using ORBA::OAuth2Client::OAuth2ClientException;

// What the login is to make of the reply; adds the member "code" that reading it adds.
fuzz::ParsedJson expectedOf(const std::string& reply) {
    fuzz::ParsedJson expected = fuzz::parseJson(reply, {2, "Failed to parse json: " + reply});
    if (expected.outcome.code == 0) {
        try {
            if (expected.value["code"].asString() == "badauth") {
                expected.outcome = {22, "Logged out Tovra due to authentication failure."};
            }
        } catch (const Json::Exception& exception) {
            expected.outcome = {1, std::string("Exception: ") + exception.what()};
        }
    }
    if (expected.outcome.code != 0) {
        expected.outcome.text = "Failed to Login IDP due to: " + expected.outcome.text;
    }
    return expected;
}

int callsOf(const char* name) { return fakes::world().counts[name]; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fakes::reset();
    const std::string reply = fuzz::upToNul(fuzz::textOf(data, size));
    fakes::world().device.reply = reply;
    const fuzz::ParsedJson expected = expectedOf(reply);

    OAuth2 oauth2("https://auth.test/authorize", "/jar");
    Json::Value actual;
    const fuzz::Outcome outcome =
        fuzz::outcomeOf<OAuth2ClientException>([&] { oauth2.loginIDP(actual, "challenge"); });

    fuzz::requireEqual(expected.outcome, outcome, "how the login ends");
    fuzz::requireEqual(outcome.code == 22 ? 1 : 0, callsOf("ORBATOVRAAccountRemove"),
                       "the account is removed on badauth only, once");
    fuzz::requireEqual(1, callsOf("ORBATOVRAHttpsRequestSend"), "requests");
    fuzz::requireEqual(1, callsOf("KLIBCSzHashFree"), "tables released");
    fuzz::requireEqual(1, callsOf("ORBATOVRAHttpsResponseFree"), "responses released");
    fuzz::requireEqualJson(expected.value, actual, "the parsed reply");
    fuzz::requireNothingHeld();
    return 0;
}
