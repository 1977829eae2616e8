#include "fault_sweep.h"

#include <json/json.h>

#include <algorithm>
#include <map>
#include <typeinfo>

namespace {

using namespace ORBA::OAuth2Client;

const std::vector<std::string> kJsoncppWithoutMemory = {
    "in Json::Value::duplicateStringValue(): Failed to allocate string value buffer",
    "in Json::Value::duplicateAndPrefixStringValue(): Failed to allocate string value buffer"};

bool begins(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

// The text between the parentheses, up to the first ", ".
std::string firstArgument(const std::string& call) {
    const std::size_t begin = call.find('(') + 1;
    return call.substr(begin, std::min(call.find(", ", begin), call.size() - 1) - begin);
}

std::string lastArgument(const std::string& call) {
    const std::size_t begin = call.find(", ") + 2;
    return call.substr(begin, call.size() - 1 - begin);
}

std::size_t find(const Calls& calls, const std::string& prefix, std::size_t from = 0) {
    const auto found = std::find_if(calls.begin() + static_cast<std::ptrdiff_t>(from), calls.end(),
                                    [&](const auto& call) { return begins(call, prefix); });
    return static_cast<std::size_t>(found - calls.begin());
}

const char* nameOf(const OAuth2ClientException& exception) {
    const std::type_info& type = typeid(exception);
    return type == typeid(HttpClientException)     ? "HttpClientException"
           : type == typeid(JsonException)         ? "JsonException"
           : type == typeid(CurlException)         ? "CurlException"
           : type == typeid(TovraException)        ? "TovraException"
           : type == typeid(OAuth2Exception)       ? "OAuth2Exception"
           : type == typeid(OAuth2ClientException) ? "OAuth2ClientException"
                                                   : "another";
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t found = text.find(from);
    return found == std::string::npos ? text : text.replace(found, from.size(), to);
}

// A library without memory reports it in its own way, or does with what it has: jsoncpp throws its
// own exception, and the C++ library throws ours from a reserve.
Outcomes withoutLibraryMemory(const Operation& operation, const Fault& fault) {
    Outcomes possible = operation.withoutLibraryMemory;
    possible.insert(operation.outcome);
    for (const std::string& got :
         operation.outcomes({"operator new()", fault.position, fault.calls})) {
        possible.insert(got);
        for (const std::string& text : kJsoncppWithoutMemory) {
            possible.insert(got == kNoMemory ? "Json::RuntimeError"
                                             : replaced(got, kNoMemory, text));
        }
    }
    return possible;
}

}  // namespace

std::string outcome(const std::string& type, int code, const std::string& text) {
    return type + " " + std::to_string(code) + " " + text;
}

std::string LibrarySweep::thrown() const {
    try {
        throw;
    } catch (const OAuth2ClientException& exception) {
        return outcome(nameOf(exception), exception.errCode(), exception.what());
    } catch (const Json::RuntimeError&) {
        return "Json::RuntimeError";
    } catch (const std::exception& exception) {
        return std::string("foreign: ") + exception.what();
    }
}

// The error table is there; its own sweep is about building it.
void LibrarySweep::prepareWorld() { errCode2Str(0); }

Outcomes LibrarySweep::outcomesOf(const Operation& operation, const Fault& fault) const {
    return fault.isInLibrary() ? withoutLibraryMemory(operation, fault) : operation.outcomes(fault);
}

std::optional<Inner> innerFailure(const Fault& fault) {
    const std::string& call = fault.call;
    if (begins(call, "curl_easy_init")) {
        const bool ofRequest = begins(fault.calls.at(fault.position + 1), "curl_easy_setopt");
        return Inner{"CurlException", 23,
                     ofRequest ? "Failed to init curl." : "Error: Failed to init curl."};
    }
    if (begins(call, "curl_easy_setopt(CURLOPT_SSLVERSION")) {
        return Inner{"CurlException", 25,
                     "Failed to set curl CURL_SSLVERSION_TLSv1: curl return: 27"};
    }
    if (begins(call, "curl_easy_setopt") && !begins(call, "curl_easy_setopt(CURLOPT_IPRESOLVE")) {
        return Inner{"CurlException", 25,
                     "Failed to set curl " + firstArgument(call) + ": curl return: 27"};
    }
    if (begins(call, "KLIBCFileTouch")) {
        return Inner{"CurlException", 24, "Invalid cookie file path: " + firstArgument(call)};
    }
    static const std::map<std::string, Inner> others = {
        {"curl_easy_getinfo(CURLINFO_RESPONSE_CODE)",
         {"CurlException", 27, "Failed to get curl response code: curl return: 27"}},
        {"curl_easy_escape", {"CurlException", 30, "Failed to do curl_easy_escape for string"}},
        {"curl_easy_unescape", {"CurlException", 30, "Failed to do curl_easy_unescape for string"}},
        {"ORBATOVRAUserAgentNameGet", {"TovraException", 18, "Failed to get Orbalon usergent"}},
        {"ORBATOVRAAccountGet", {"TovraException", 19, "Failed to get Tovra account conf."}},
        {"ORBATOVRAServerConfigGet", {"TovraException", 20, "Failed to get Tovra server config."}},
        {"KLIBGetSerialNumber", {"OAuth2ClientException", 10, "Failed to get serial number."}},
        {"KLIBCSzHashAlloc", {"OAuth2ClientException", 11, "Failed to alloc Query hash."}},
        {"ORBATOVRAHttpsRequestSend", {"TovraException", 21, "Failed to send https request."}},
    };
    for (const auto& [prefix, inner] : others) {
        if (begins(call, prefix)) {
            return inner;
        }
    }
    return std::nullopt;
}

Outcomes plainOutcomes(const Fault& fault, const std::string& withoutFault) {
    if (fault.isAllocation()) {
        return {kNoMemory};
    }
    const std::optional<Inner> inner = innerFailure(fault);
    return {inner ? outcome(inner->type, inner->code, inner->text) : withoutFault};
}

Outcomes wrappedAllocation(const Fault& fault, const Wrapping& wrapping, const OwnFailure& own) {
    const auto& [type, frame, begin, cleanUp, foreignCode] = wrapping;
    if (fault.position < begin || fault.position > cleanUp) {
        return {kNoMemory};
    }
    Outcomes possible = {outcome(type, foreignCode, frame + "Exception: std::bad_alloc")};
    if (own.foreign) {
        possible.insert(outcome(type, own.code, frame + "Exception: "));
    } else if (own.code != 0 && fault.position > find(fault.calls, "syslog(7 " + own.text)) {
        possible.insert(outcome(type, own.code, frame));
    }
    return possible;
}

std::optional<RequestSpan> requestAt(const Fault& fault) {
    const Calls& calls = fault.calls;
    const std::string url = "curl_easy_setopt(CURLOPT_URL";
    for (std::size_t at = find(calls, url); at < calls.size(); at = find(calls, url, at + 1)) {
        std::size_t begin = at - 1;
        const bool isPost = begin >= 2 && begins(calls[begin - 1], "syslog(7 add header charset");
        begin -= isPost ? 2 : 0;
        const std::size_t cleanUp = find(calls, "curl_easy_cleanup", at);
        // The steps of a GET do not allocate before their first call.
        const bool before =
            fault.position < begin || (fault.isAllocation() && !isPost && fault.position == begin);
        if (!before && fault.position <= cleanUp) {
            return RequestSpan{begin, cleanUp, lastArgument(calls[at])};
        }
    }
    return std::nullopt;
}

std::string requestFrame(const std::string& url) {
    return "Failed to do HTTP Get request to [" + url + "] due to: ";
}

std::string noTargetText(const std::string& url, long status, int result) {
    const std::string number = std::to_string(result);
    return "Failed to get curl redirection url. URL [" + url +
           "] replied http status code = " + std::to_string(status) + ",curl returned: " + number +
           ": curl return: " + number;
}

Outcomes requestOutcomes(const Fault& fault, const RequestSpan& request,
                         const std::string& withoutFault, const OwnFailure& own,
                         long redirectStatus) {
    const std::string type = "HttpClientException";
    const std::string frame = requestFrame(request.url);
    if (fault.isAllocation()) {
        return wrappedAllocation(fault, {type, frame, request.begin, request.cleanUp}, own);
    }
    if (begins(fault.call, "curl_easy_getinfo(CURLINFO_REDIRECT_URL")) {
        return {outcome(type, 28, frame + noTargetText(request.url, redirectStatus, 27))};
    }
    const std::optional<Inner> inner = innerFailure(fault);
    return {inner ? outcome(type, inner->code, frame + inner->text) : withoutFault};
}
