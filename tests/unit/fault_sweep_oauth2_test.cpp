// Fault sweeps: the login flow and the token endpoint.
#include <json/json.h>
#include <orbatovra/services.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "fault_sweep.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;

const std::string kAuthUrl =
    "https://auth.test/authorize?client_id=a-client-id-to-be-allocated&"
    "scope=a%20scope%20to%20be%20allocated&redirect_uri=app%3A%2F%2Fcallback.long.enough&"
    "state=a-state-to-be-allocated";
const std::string kJar = "/jar/long/enough/to/be/allocated";
const std::string kChallenge = "a-challenge-to-be-allocated";
const std::string kLoginUrl = "https://auth.test/login?login_challenge=" + kChallenge;
const std::string kCallback = "app://callback.long.enough/?code=c1&state=s1";
const std::string kIdpFrame = "Failed to Login IDP due to: ";

fakes::Transfer redirectTo(const std::string& target, long status = 302) {
    return {CURLE_OK, status, "", {}, target};
}

std::size_t indexOf(const Calls& calls, const std::string& prefix) {
    std::size_t at = 0;
    while (at < calls.size() && calls[at].rfind(prefix, 0) != 0) {
        ++at;
    }
    return at;
}

Outcomes idpOutcomes(const Fault& fault, const std::string& withoutFault,
                     const OwnFailure& own = {}) {
    const std::string type = "OAuth2ClientException";
    if (fault.isAllocation()) {
        const std::size_t begin = indexOf(fault.calls, "ORBATOVRAAccountGet") + 1;
        const std::size_t cleanUp = indexOf(fault.calls, "ORBATOVRAHttpsResponseFree");
        return wrappedAllocation(fault, {type, kIdpFrame, begin, cleanUp}, own);
    }
    const std::optional<Inner> inner = innerFailure(fault);
    return {inner ? outcome(type, inner->code, kIdpFrame + inner->text) : withoutFault};
}

// The outcomes of an operation that may make requests and log in at the identity provider.
Outcomes flowOutcomes(const Fault& fault, const std::string& withoutFault,
                      long redirectStatus = 302) {
    if (const auto request = requestAt(fault)) {
        return requestOutcomes(fault, *request, withoutFault, {}, redirectStatus);
    }
    const std::size_t begin = indexOf(fault.calls, "ORBATOVRAAccountGet");
    const std::size_t end = indexOf(fault.calls, "ORBATOVRAHttpsResponseFree");
    return fault.position >= begin && fault.position <= end ? idpOutcomes(fault, withoutFault)
                                                            : plainOutcomes(fault, withoutFault);
}

class FlowFaults : public LibrarySweep {
  protected:
    void sweepFlow(const std::string& name, int floor, const std::deque<fakes::Transfer>& way,
                   const std::function<void()>& run, const std::string& withoutFault) {
        const long status = way.front().status;
        sweep({name, floor,
               [&] {
                   result.clear();
                   world().transfers = way;
               },
               run, [&](const Fault& fault) { return flowOutcomes(fault, withoutFault, status); },
               withoutFault, [this] { return result; }});
    }

    OAuth2 oauth2{kAuthUrl, kJar};
    std::string result;
};

TEST_F(FlowFaults, Constructor) {
    sweep({"OAuth2", 2, [] {}, [] { const OAuth2 object(kAuthUrl, kJar); },
           [](const Fault& fault) { return plainOutcomes(fault); }});
}

TEST_F(FlowFaults, GetServerLoginChallenge) {
    const auto run = [this] { result = oauth2.getServerLoginChallenge(); };
    sweepFlow("getServerLoginChallenge", 25, {redirectTo(kLoginUrl)}, run, kSuccess + kChallenge);
    sweepFlow(
        "getServerLoginChallenge, 303", 25, {redirectTo(kLoginUrl, 303)}, run,
        outcome("OAuth2ClientException", 4,
                "Server's auth endpoint returned [303]. redirect url = [" + kLoginUrl + "]. "));
}

class IdpFaults : public FlowFaults {
  protected:
    void sweepLogin(const std::string& name, int floor, const std::optional<std::string>& reply,
                    const OwnFailure& own = {}) {
        const std::string withoutFault =
            own.code == 0 ? kSuccess + "https://auth.test/go"
                          : outcome("OAuth2ClientException", own.code, kIdpFrame + own.text);
        sweep({name, floor,
               [&] {
                   document = Json::Value(Json::objectValue);
                   world().device.reply = reply;
               },
               [this] { oauth2.loginIDP(document, kChallenge); },
               [&](const Fault& fault) { return idpOutcomes(fault, withoutFault, own); },
               withoutFault, [this] { return document["redirect_to"].asString(); }});
    }
    Json::Value document;
};

TEST_F(IdpFaults, LoginIDP) {
    sweepLogin("loginIDP", 15, R"({"code":"success","redirect_to":"https://auth.test/go"})");
    sweepLogin("loginIDP, badauth", 15, R"({"code":"badauth"})",
               {22, "Logged out Tovra due to authentication failure."});
    sweepLogin("loginIDP, not JSON", 15, "<html>", {2, "Failed to parse json: <html>"});
    sweepLogin("loginIDP, no body", 10, std::nullopt,
               {1, "Exception: basic_string: construction from null is not valid", true});
}

TEST_F(FlowFaults, FollowRedirectUntilCallback) {
    Json::Value reply;
    reply["redirect_to"] = "https://auth.test/go/on/long/enough/to/be/allocated";
    const auto run = [&] { result = oauth2.followRedirectUntilCallback(reply); };
    const fakes::Transfer hop = redirectTo("https://auth.test/hop/long/enough/to/be/allocated");
    sweepFlow("followRedirectUntilCallback", 40, {hop, redirectTo(kCallback)}, run,
              kSuccess + kCallback);
    sweepFlow(
        "followRedirectUntilCallback, no callback", 40, {hop, {}}, run,
        outcome("OAuth2ClientException", 5, "Didn't receive callback url. Last status code = 200"));
}

class LoginFaults : public FlowFaults {
  protected:
    void sweepLogin(const std::string& name, int floor, bool withToken, const std::string& got) {
        const auto login = [this] { result = oauth2.loginServiceByOrbaAccount(); };
        sweep({name, floor,
               [&] {
                   result.clear();
                   world().transfers = {redirectTo(kLoginUrl), redirectTo(kCallback)};
                   if (!withToken) {
                       world().device.accessToken = []() -> std::string {
                           throw orbatovra::TovraException("no token");
                       };
                   }
               },
               login, [&](const Fault& fault) { return loginOutcomes(fault, kSuccess + got); },
               kSuccess + got, [this] { return result; }});
    }
    // A probe that fails leads to the web flow; a service that fails otherwise is the caller's.
    static Outcomes loginOutcomes(const Fault& fault, const std::string& withoutFault) {
        const std::string name = fault.call.substr(0, fault.call.find('('));
        if (name == "GetAccessToken") {
            return {kSuccess + kCallback};
        }
        if (name == "AccountPkceService" || name == "AccountFleetLensService" || name == "Grant") {
            return {"foreign: " + name + " fails"};
        }
        return flowOutcomes(fault, withoutFault);
    }
};

TEST_F(LoginFaults, LoginServiceByOrbaAccount) {
    sweepLogin("loginServiceByOrbaAccount, PKCE flow", 15, true, "grant-code");
    sweepLogin("loginServiceByOrbaAccount, web flow", 70, false, kCallback);
}

// --- the token endpoint ---

// Standard output without allocations of its own.
class PrintedText : public std::streambuf {
  public:
    PrintedText() { clear(); }
    void clear() { setp(text.data(), text.data() + text.size()); }
    std::string str() const { return {pbase(), pptr()}; }

  private:
    std::array<char, 4096> text{};
};

class PkceFaults : public LibrarySweep {
  protected:
    void SetUp() override {
        LibrarySweep::SetUp();
        std::filesystem::create_directory(folder);
        coutBuffer = std::cout.rdbuf();
    }
    void TearDown() override {
        std::filesystem::remove_all(folder);
        LibrarySweep::TearDown();
    }
    std::string stored() const {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }
    // The file keeps its content unless the request has succeeded.
    void expectKept(const std::string& got) const {
        const bool keeps = got.rfind("HttpClientException", 0) == 0 ||
                           fakes::callsOf({"curl_easy_cleanup"}).empty();
        EXPECT_TRUE(!keeps || stored() == kOld) << got << ", then in the file: " << stored();
    }
    void sweepToken(const std::string& name, const std::function<void()>& run,
                    const std::string& printedText, const Outcomes& beforeTheRequest) {
        sweep({name,
               45,
               [&] {
                   std::ofstream(file) << kOld;
                   printed.clear();
                   world().transfers = {{CURLE_OK, 200, kReply, {}, {}}};
               },
               [&] {
                   std::cout.rdbuf(&printed);
                   run();
               },
               [&](const Fault& fault) {
                   const auto request = requestAt(fault);
                   Outcomes possible =
                       request ? requestOutcomes(fault, *request, successResult(printedText))
                               : plainOutcomes(fault);
                   if (fault.isAllocation() && fault.position == 0) {
                       possible.insert(beforeTheRequest.begin(), beforeTheRequest.end());
                   }
                   return possible;
               },
               successResult(printedText),
               [this] { return printed.str() + stored(); },
               [this] { std::cout.rdbuf(coutBuffer); },
               [this](const std::string& got) { expectKept(got); },
               {},
               {kSuccess + printedText + kOld}});  // the token file is not opened
        EXPECT_TRUE(std::cout.good());
    }
    static std::string successResult(const std::string& printedText) {
        return kSuccess + printedText + kNew;
    }

    const std::string kOld = R"({"refresh_token":"the-refresh-token-of-the-last-reply"})";
    const std::string kReply = R"({"refresh_token":"the-refresh-token-of-this-reply"})";
    inline static const std::string kNew =
        "{\n\t\"refresh_token\" : \"the-refresh-token-of-this-reply\"\n}\n";
    const std::string folder =
        ::testing::TempDir() + "orba-pkce-faults-" + std::to_string(getpid());
    const std::string file = folder + "/token";
    const std::string url = "https://auth.test/token/long/enough/to/be/allocated";
    PrintedText printed;
    std::streambuf* coutBuffer = nullptr;
};

TEST_F(PkceFaults, GetAccessToken) {
    const PKCE::ParamGetAccessToken param = {file, url, "cid", "abc", "xyz", "app://cb"};
    sweepToken("PKCE::getAccessToken", [&] { PKCE::getAccessToken(param); }, "", {kNoMemory});
}

// A read that fails for want of memory is, to jsoncpp, a shorter file.
TEST_F(PkceFaults, RefreshAccessToken) {
    const PKCE::ParamRefreshAccessToken param = {file, url, "cid"};
    sweepToken("PKCE::refreshAccessToken", [&] { PKCE::refreshAccessToken(param); }, kNew,
               {kNoMemory, "Json::RuntimeError"});
}

}  // namespace
