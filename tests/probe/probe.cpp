// The library's operations for tests that are not written in C++: reads one JSON request a line
// from standard input, carries it out and writes one JSON answer a line. See probe.mjs for the
// other end.
//
// A request names its operation in "op" and, where it needs one, its HttpClient in "client": that
// object is made at its first use from "url" and "cookies" and kept, so that one request can show
// what another one has left behind.

#include <cxxabi.h>
#include <json/json.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "captured_output.h"
#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"

namespace {

using namespace ORBA::OAuth2Client;
using Client = HttpClient::HttpClient;

std::string text(const Json::Value& request, const char* member) {
    if (!request[member].isString()) {
        throw std::invalid_argument(std::string("the request has no text \"") + member + "\"");
    }
    return request[member].asString();
}

std::map<std::string, std::string> texts(const Json::Value& object) {
    std::map<std::string, std::string> map;
    for (const std::string& name : object.getMemberNames()) {
        map[name] = object[name].asString();
    }
    return map;
}

std::map<std::string, std::unique_ptr<Client>> clients;

Client& clientOf(const Json::Value& request) {
    std::unique_ptr<Client>& client = clients[request["client"].asString()];
    if (client == nullptr) {
        client = request.isMember("cookies")
                     ? std::make_unique<Client>(text(request, "url"), text(request, "cookies"))
                     : std::make_unique<Client>(text(request, "url"));
    }
    if (request.isMember("url")) {
        client->setURL(text(request, "url"));
    }
    for (const auto& [name, value] : texts(request["headers"])) {
        client->setHeader(name, value);
    }
    return *client;
}

using Operation = std::function<Json::Value(const Json::Value&)>;

Json::Value getJson(const Json::Value& request) {
    Json::Value out;
    clientOf(request).get(out);
    return out;
}

Json::Value getOnly(const Json::Value& request) {
    clientOf(request).get(request["follow"].asBool());
    return Json::Value();
}

Json::Value post(const Json::Value& request) {
    Json::Value out;
    clientOf(request).postURLEncodedString(text(request, "body"), out);
    return out;
}

OAuth2 oauth2Of(const Json::Value& request) {
    return OAuth2(text(request, "url"), text(request, "cookies"));
}

Json::Value loginIdp(const Json::Value& request) {
    Json::Value reply(Json::objectValue);
    oauth2Of(request).loginIDP(reply, text(request, "challenge"));
    return reply;
}

Json::Value exchange(const Json::Value& request) {
    PKCE::getAccessToken({text(request, "tokenFile"), text(request, "url"),
                          text(request, "clientId"), text(request, "code"),
                          text(request, "verifier"), text(request, "redirectUri")});
    return Json::Value();
}

Json::Value refresh(const Json::Value& request) {
    PKCE::refreshAccessToken(
        {text(request, "tokenFile"), text(request, "url"), text(request, "clientId")});
    return Json::Value();
}

const std::map<std::string, Operation> kOperations = {
    {"getJson", getJson},
    {"get", getOnly},
    {"post", post},
    {"challenge", [](const Json::Value& r) { return oauth2Of(r).getServerLoginChallenge(); }},
    {"loginIdp", loginIdp},
    {"redirects",
     [](const Json::Value& r) { return oauth2Of(r).followRedirectUntilCallback(r["reply"]); }},
    {"login", [](const Json::Value& r) { return oauth2Of(r).loginServiceByOrbaAccount(); }},
    {"exchange", exchange},
    {"refresh", refresh},
    {"fingerprint", [](const Json::Value&) { return getDeviceFingerprint(); }},
};

std::string className(const std::exception& exception) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(typeid(exception).name(), nullptr, nullptr, &status), &std::free);
    return name ? name.get() : typeid(exception).name();
}

void run(const Json::Value& request, Json::Value& answer) {
    // Standard output belongs to the answers; what the library prints there becomes part of one.
    const CapturedOutput output;
    const auto begin = std::chrono::steady_clock::now();
    try {
        answer["result"] = kOperations.at(text(request, "op"))(request);
    } catch (const OAuth2ClientException& exception) {
        answer["class"] = className(exception);
        answer["code"] = exception.errCode();
        answer["text"] = exception.what();
    } catch (const std::exception& exception) {
        answer["class"] = className(exception);
        answer["text"] = exception.what();
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    answer["seconds"] = taken.count();
    answer["printed"] = output.text();
    if (request.isMember("client")) {
        Client& client = *clients.at(request["client"].asString());
        answer["status"] = Json::Int64{client.getRespCode()};
        answer["redirectUrl"] = client.getRedirectURL();
    }
}

}  // namespace

int main() {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["commentStyle"] = "None";
    writer["emitUTF8"] = true;
    std::string line;
    while (std::getline(std::cin, line)) {
        Json::Value request;
        std::istringstream(line) >> request;
        Json::Value answer;
        run(request, answer);
        std::cout << Json::writeString(writer, answer) << std::endl;
    }
}
