// Fault sweeps: the error table, URL parameters and the device fingerprint.
#include <sys/wait.h>

#include <cstdlib>
#include <iostream>
#include <new>

#include "fault_sweep.h"
#include "orbaoauth2client/utils.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;

const std::string kEncoded = "a%20text%20long%20enough%20to%20be%20allocated";
const std::string kDecoded = "a text long enough to be allocated";
const std::string kUrl = "https://auth.test/cb?name=" + kEncoded + "&other=1";
const std::string kKey = "name";

class ErrorTableFaults : public LibrarySweep {};

TEST_F(ErrorTableFaults, LookUp) {
    std::string text;
    const auto look = [&](int code) { return [&, code] { text = errCode2Str(code); }; };
    const auto result = [&] { return text; };
    sweep({"errCode2Str(33)", 1, [] {}, look(33), [](const Fault& f) { return plainOutcomes(f); },
           kSuccess + "The remote server's SSL certificate was deemed not OK.", result});
}

// Runs in a child of a process that has not built the table yet: death tests come first. An attempt
// that fails is made anew by the next call.
TEST(ErrorTableDeathTest, FirstUse_FailsUntilAllAllocationsSucceed) {
    GTEST_FLAG_SET(death_test_style,
                   "fast");  // a fork: not every emulator can execute this program
    const auto buildWithFaults = [] {
        int faults = 0;
        std::string text;
        for (int n = 1; text.empty(); ++n) {
            fakes::reset();
            world().failAt["operator new"] = n;
            try {
                const fakes::UnderTest atWork;
                text = errCode2Str(1);
            } catch (const std::bad_alloc&) {
                ++faults;
            }
        }
        std::cerr << text;
        std::exit(faults);
    };
    const auto hadFaults = [](int status) {
        const int faults = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
        std::cout << "[  SWEEP   ] errCode2Str, first use: " << faults << " faults\n";
        return faults >= 66;
    };
    EXPECT_EXIT(buildWithFaults(), hadFaults, "Unexpected exception happened.");
}

class UrlFaults : public LibrarySweep {
  protected:
    Operation operation(const std::string& name, int floor, const std::function<void()>& run,
                        const std::string& withoutFault) {
        return {name,
                floor,
                [this] { value.clear(); },
                run,
                [withoutFault](const Fault& fault) { return plainOutcomes(fault, withoutFault); },
                withoutFault,
                [this] { return value; }};
    }
    std::string value;
};

TEST_F(UrlFaults, DecodeString) {
    const auto decode = [this] { value = decodeString(kEncoded); };
    sweep(operation("decodeString", 3, decode, kSuccess + kDecoded));
    Operation failing =
        operation("decodeString, not decoded", 4, decode,
                  outcome("CurlException", 30, "Failed to do curl_easy_unescape for string"));
    failing.world = [] { world().unescapeFails = true; };
    sweep(failing);
}

TEST_F(UrlFaults, GetParamFromURL) {
    const std::string otherKey = "a key that is not there, long enough to be allocated";
    const std::string empty;
    sweep(operation(
        "getParamFromURL", 4, [this] { value = getParamFromURL(kUrl, kKey); },
        kSuccess + kDecoded));
    sweep(operation(
        "getParamFromURL, not there", 4, [&] { value = getParamFromURL(kUrl, otherKey); },
        outcome("OAuth2Exception", 12, "This url doesn't have query parameters. [" + kUrl + "]")));
    sweep(operation(
        "getParamFromURL, empty URL", 2, [&] { value = getParamFromURL(empty, kKey); },
        outcome("OAuth2Exception", 12, "Failed to get parameter: The url is empty.")));
}

class FingerprintFaults : public LibrarySweep {};

TEST_F(FingerprintFaults, GetDeviceFingerprint) {
    std::string value;
    sweep({"getDeviceFingerprint", 3, [] { world().device.pseudonym = kDecoded; },
           [&] { value = getDeviceFingerprint(); },
           [](const Fault& fault) -> Outcomes {
               if (fault.isAllocation()) {
                   return {kNoMemory};
               }
               return {outcome(
                   "OAuth2Exception", 1,
                   fault.position == 0 ? "Failed to get serial" : "Failed to pseudonymise serial")};
           },
           kSuccess + kDecoded, [&] { return value; }});
}

}  // namespace
