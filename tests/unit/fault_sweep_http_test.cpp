// Fault sweeps: the HTTP client and the query encoding.
#include <json/json.h>

#include <stdexcept>

#include "fault_sweep.h"
#include "orbaoauth2client/httpclient.h"

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;
using Client = HttpClient::HttpClient;

const std::string kUrl = "https://auth.test/long/enough/to/be/allocated";
const std::string kJar = "/jar/long/enough/to/be/allocated";
const std::string kName = "A-Header-Name-Long-Enough-To-Be-Allocated";
const std::string kValue = "a header value long enough to be allocated";
const std::string kOtherValue = "another header value long enough to be allocated";
const std::string kBody = "grant_type=refresh_token&refresh_token=r1";
const std::string kReply = R"({"name":"a text long enough to be allocated","list":[1,{"k":true}]})";

Outcomes noMemory(const Fault& fault) { return plainOutcomes(fault); }

// --- the object ---

class ObjectFaults : public LibrarySweep {};

TEST_F(ObjectFaults, Constructors) {
    sweep({"HttpClient(url)", 2, [] {}, [] { Client client(kUrl); }, noMemory});
    sweep({"HttpClient(url, cookies)", 2, [] {}, [] { Client client(kUrl, kJar); }, noMemory});
}

TEST_F(ObjectFaults, SetHeader) {
    std::optional<Client> client;
    sweep({"setHeader, new name", 3, [&] { client.emplace(kUrl, kJar); },
           [&] { client->setHeader(kName, kValue); }, noMemory});
    sweep({"setHeader, known name", 1,
           [&] {
               client.emplace(kUrl, kJar);
               client->setHeader(kName, "short");
           },
           [&] { client->setHeader(kName, kValue); }, noMemory});
}

TEST_F(ObjectFaults, SettersAndGetters_KeepTheOldValue) {
    std::optional<Client> client;
    std::string got;
    const std::string longer = kUrl + kUrl;
    const auto fresh = [&] {
        got.clear();
        client.emplace(kUrl, kJar);
    };
    const auto fields = [&] { return got + client->getURL() + client->getCookiesFilePath(); };
    const auto isAsBefore = [&](const std::string&) { EXPECT_EQ(kUrl + kJar, fields()); };
    const auto sweepOne = [&](const std::string& name, const std::function<void()>& run,
                              const std::string& result) {
        sweep({name, 1, fresh, run, noMemory, kSuccess + result, fields, [] {}, isAsBefore});
    };
    sweepOne(
        "setURL", [&] { client->setURL(longer); }, longer + kJar);
    sweepOne(
        "setCookiesFilePath", [&] { client->setCookiesFilePath(longer); }, kUrl + longer);
    sweepOne(
        "getURL", [&] { got = client->getURL(); }, kUrl + kUrl + kJar);
    sweepOne(
        "getCookiesFilePath", [&] { got = client->getCookiesFilePath(); }, kJar + kUrl + kJar);
}

// --- the requests ---

class RequestFaults : public LibrarySweep {
  protected:
    // Sweeps one request in one situation.
    void sweepRequest(
        const std::string& name, int floor, const fakes::Transfer& transfer,
        const std::function<void()>& run, const OwnFailure& own = {},
        const std::function<void()>& situation = [] {}) {
        const std::string result =
            own.code == 0 ? kSuccess + resultOf(transfer)
                          : outcome("HttpClientException", own.code, requestFrame(kUrl) + own.text);
        client.setHeader("Accept", "application/json, long enough to be allocated");
        client.setHeader("X", "1");
        sweep({name, floor,
               [&] {
                   out = Json::Value();
                   world().transfers = {transfer};
                   situation();
               },
               run,
               [&](const Fault& fault) -> Outcomes {
                   const auto request = requestAt(fault);
                   return request ? requestOutcomes(fault, *request, result, own)
                                  : plainOutcomes(fault);
               },
               result,
               [this] { return " " + std::to_string(client.getRespCode()) + resultText(); }});
    }
    std::string resultOf(const fakes::Transfer& transfer) const {
        return " " + std::to_string(transfer.status) + " " + transfer.redirectUrl.value_or("") +
               (readsJson ? " " + kReply : "");
    }
    std::string resultText() {
        Json::StreamWriterBuilder compact;
        compact["indentation"] = "";
        Json::Value wanted;
        std::istringstream(kReply) >> wanted;
        return " " + client.getRedirectURL() + (out == wanted ? " " + kReply : "");
    }
    void sweepSituations(const std::string& name, int floor, const std::function<void()>& run) {
        const std::string replied = "URL [" + kUrl + "] replied http status code ";
        const auto refuse = [](CURLoption option) {
            return [option] { world().optionFails[option] = CURLE_UNKNOWN_OPTION; };
        };
        sweepRequest(name + ", 200", floor, {CURLE_OK, 200, kReply, {}, {}}, run);
        sweepRequest(name + ", 302", floor, {CURLE_OK, 302, kReply, {}, "https://auth.test/next"},
                     run);
        sweepRequest(name + ", 404", floor, {CURLE_OK, 404, kReply, {}, {}}, run,
                     {14, replied + " 404: curl return: 0"});
        sweepRequest(name + ", 302 without target", floor, {CURLE_OK, 302, kReply, {}, {}}, run,
                     {28, noTargetText(kUrl, 302, 0)});
        sweepRequest(name + ", no connection", floor, {CURLE_COULDNT_CONNECT, 0, "", {}, {}}, run,
                     {26, "[Failed to send http request with Curl.]: curl return: 7"});
        sweepRequest(name + ", no user agent", 8, {}, run, {18, "Failed to get Orbalon usergent"},
                     [] { world().device.userAgentResult = 1; });
        sweepRequest(name + ", no cookie file", 15, {}, run,
                     {24, "Invalid cookie file path: " + kJar},
                     [] { world().device.touchResult = 1; });
        sweepRequest(name + ", headers refused", 20, {}, run,
                     {25, "Failed to set curl CURLOPT_HTTPHEADER: curl return: 48"},
                     refuse(CURLOPT_HTTPHEADER));
        sweepRequest(name + ", foreign exception", 20, {}, run,
                     {1, "Exception: lightning strikes", true}, [] {
                         world().onCall = [](const std::string& call) {
                             if (call == "curl_easy_perform") {
                                 throw std::runtime_error("lightning strikes");
                             }
                         };
                     });
    }

    Client client{kUrl, kJar};
    Json::Value out;
    bool readsJson = false;
};

TEST_F(RequestFaults, GetJson) {
    readsJson = true;
    const auto run = [this] { client.get(out); };
    sweepSituations("get(Json)", 30, run);
    sweepRequest("get(Json), not JSON", 30, {CURLE_OK, 200, "<html>", {}, {}}, run,
                 {2, "Failed to parse response, might be format problem."});
}

TEST_F(RequestFaults, GetWithoutFollowing) {
    sweepSituations("get(false)", 19, [this] { client.get(false); });
}

TEST_F(RequestFaults, GetWithFollowing) {
    sweepSituations("get(true)", 20, [this] { client.get(true); });
}

TEST_F(RequestFaults, Post) {
    readsJson = true;
    const auto run = [this] { client.postURLEncodedString(kBody, out); };
    sweepSituations("postURLEncodedString", 35, run);
    sweepRequest("postURLEncodedString, not JSON", 35, {CURLE_OK, 200, "<html>", {}, {}}, run,
                 {2, "Failed to parse response, might be format problem."});
}

// Nothing is made and no call separates the steps from the wrapping, so each of its ends may come.
TEST_F(RequestFaults, EmptyUrl) {
    client.setURL("");
    const std::string frame = requestFrame("");
    sweep({"get(false), empty URL", 3, [] {}, [this] { client.get(false); },
           [&](const Fault&) {
               return Outcomes{
                   outcome("HttpClientException", 1, frame + "Exception: std::bad_alloc"),
                   outcome("HttpClientException", 12, frame), kNoMemory};
           },
           outcome("HttpClientException", 12, frame + "Got empty URL.")});
}

// --- the steps of a request ---

class StepFaults : public LibrarySweep {
  protected:
    void sweepStep(
        const std::string& name, int floor, const std::function<void()>& run,
        const std::string& withoutFault = kSuccess,
        const std::function<void()>& situation = [] {}) {
        sweep({name,
               floor,
               [&] {
                   curl = curl_easy_init();
                   own = curl_slist_append(nullptr, "own: 0");
                   chunk = {nullptr, 0};
                   redirect = nullptr;
                   client.setCurlWriteCallBack(curl, &chunk);
                   situation();
               },
               run,
               [&](const Fault& fault) -> Outcomes {
                   return fault.call == "curl_easy_getinfo(CURLINFO_REDIRECT_URL)"
                              ? Outcomes{outcome("CurlException", 28, noTargetText(kUrl, 302, 27))}
                              : plainOutcomes(fault, withoutFault);
               },
               withoutFault,
               [] { return std::string(); },
               [this] { tidy(); },
               [](const std::string&) {},
               {"list[X: 1]"}});
    }
    void tidy() {
        if (curl != nullptr) {
            curl_easy_cleanup(curl);
        }
        curl_slist_free_all(own);
        std::free(chunk.memory);
    }
    std::function<void()> answered(long status, const std::optional<std::string>& target = {}) {
        return [this, status, target] {
            world().transfers = {{CURLE_OK, status, "", {}, target}};
            curl_easy_perform(curl);
        };
    }

    Client client{kUrl, kJar};
    void* curl = nullptr;
    curl_slist* own = nullptr;
    char* redirect = nullptr;
    HttpClient::MemoryStruct chunk = {nullptr, 0};
    const std::map<std::string, std::string> fields = {{kName, kValue}, {"X", "1"}};
};

TEST_F(StepFaults, CommonInit) {
    client.setHeader(kName, kValue);
    client.setHeader("X", "1");
    const auto run = [this] { client.setCurlCommonInit(&curl, &own, kUrl, kJar); };
    const auto noHandle = [this] {
        curl_easy_cleanup(curl);
        curl = nullptr;
    };
    sweepStep("setCurlCommonInit", 15, run, kSuccess, noHandle);
    sweepStep(
        "setCurlCommonInit, empty cookie path", 2,
        [this] { client.setCurlCommonInit(&curl, &own, kUrl, ""); },
        outcome("HttpClientException", 12, "Got empty cookie file path."), noHandle);
    sweepStep("setCurlCommonInit, no user agent", 3, run,
              outcome("TovraException", 18, "Failed to get Orbalon usergent"), [&] {
                  noHandle();
                  world().device.userAgentResult = 1;
              });
}

TEST_F(StepFaults, UserAgent) {
    sweepStep("setCurlUserAgent", 2, [this] { client.setCurlUserAgent(curl); });
}

TEST_F(StepFaults, Https) {
    sweepStep("setCurlHTTPS", 4, [this] { client.setCurlHTTPS(curl); });
}

TEST_F(StepFaults, Cookies) {
    const auto run = [this] { client.setCurlCookies(curl, kJar.c_str()); };
    sweepStep("setCurlCookies", 3, run);
    sweepStep("setCurlCookies, no file", 2, run,
              outcome("CurlException", 24, "Invalid cookie file path: " + kJar),
              [] { world().device.touchResult = 1; });
}

TEST_F(StepFaults, Headers) {
    const auto run = [this] { client.setCurlHeaders(curl, own, fields); };
    sweepStep("setCurlHeaders", 4, run);
    sweepStep(
        "setCurlHeaders, refused", 5, run,
        outcome("CurlException", 25, "Failed to set curl CURLOPT_HTTPHEADER: curl return: 48"),
        [] { world().optionFails[CURLOPT_HTTPHEADER] = CURLE_UNKNOWN_OPTION; });
}

TEST_F(StepFaults, WriteCallBack) {
    sweepStep("setCurlWriteCallBack", 2, [this] { client.setCurlWriteCallBack(curl, &chunk); });
}

TEST_F(StepFaults, Fire) {
    const auto run = [this] { client.fireRequest(curl); };
    sweepStep("fireRequest", 2, run);
    sweepStep(
        "fireRequest, no connection", 7, run,
        outcome("CurlException", 26, "[Failed to send http request with Curl.]: curl return: 7"),
        [] {
            world().transfers = {{CURLE_COULDNT_CONNECT, 0, "", {}, {}}};
        });
}

TEST_F(StepFaults, Check) {
    const auto run = [this] { client.checkHttpResp(curl, &redirect); };
    const std::string replied = "URL [" + kUrl + "] replied http status code ";
    sweepStep("checkHttpResp, 200", 1, run, kSuccess, answered(200));
    sweepStep("checkHttpResp, 404", 3, run,
              outcome("CurlException", 14, replied + " 404: curl return: 0"), answered(404));
    sweepStep("checkHttpResp, 302", 2, run, kSuccess, answered(302, kUrl));
    sweepStep("checkHttpResp, 302 without target", 3, run,
              outcome("CurlException", 28, noTargetText(kUrl, 302, 0)), answered(302));
}

// --- the query ---

class QueryFaults : public LibrarySweep {
  protected:
    void sweepQuery(const std::string& name, int floor,
                    const std::map<std::string, std::string>& params,
                    const std::string& withoutFault, const OwnFailure& own = {}) {
        sweep({name, floor,
               [&] {
                   query.clear();
                   world().escapeFails = own.code != 0;
               },
               [&] { query = HttpClient::getEncodeQuery(params); },
               [&](const Fault& fault) -> Outcomes {
                   if (fault.call == "curl_easy_init()") {
                       return plainOutcomes(fault);
                   }
                   if (fault.isAllocation()) {
                       const auto end = std::find(fault.calls.begin(), fault.calls.end(),
                                                  "curl_easy_cleanup(curl1)");
                       const auto cleanUp = static_cast<std::size_t>(end - fault.calls.begin());
                       return wrappedAllocation(fault, {"OAuth2ClientException", "", 1, cleanUp, 3},
                                                own);
                   }
                   return {outcome("OAuth2ClientException", 3, innerFailure(fault)->text)};
               },
               withoutFault, [&] { return query; }});
    }
    std::string query;
};

// Whatever fails while the values are encoded is code 3.
TEST_F(QueryFaults, GetEncodeQuery) {
    const std::map<std::string, std::string> params = {{"a", kValue}, {"b", kOtherValue}};
    sweepQuery("getEncodeQuery", 5, params,
               kSuccess +
                   "a=a%20header%20value%20long%20enough%20to%20be%20allocated&"
                   "b=another%20header%20value%20long%20enough%20to%20be%20allocated");
    sweepQuery("getEncodeQuery, empty map", 1, {}, kSuccess);
    sweepQuery("getEncodeQuery, not encoded", 4, params,
               outcome("OAuth2ClientException", 3, "Failed to do curl_easy_escape for string"),
               {3, "Failed to do curl_easy_escape for string"});
}

}  // namespace
