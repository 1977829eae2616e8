#include "fuzz.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "fakes.h"

namespace {

__attribute__((section("__libfuzzer_extra_counters"))) unsigned char features[4096];

}  // namespace

namespace fuzz {

void fail() {
    std::cerr.flush();
    std::abort();
}

void noteFeature(const std::string& feature) {
    features[std::hash<std::string>{}(feature) % sizeof features] = 1;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the parser that the library uses
ParsedJson parseJson(const std::string& text, const Outcome& syntaxError) {
    Json::Reader reader;
    ParsedJson parsed;
    try {
        if (!reader.parse(text, parsed.value)) {
            parsed.outcome = syntaxError;
        }
        for (const auto& error : reader.getStructuredErrors()) {
            noteFeature(error.message);
        }
        noteFeature("type " + std::to_string(parsed.value.type()) + ", members " +
                    std::to_string(std::min(parsed.value.size(), 8U)));
    } catch (const Json::Exception& exception) {
        noteFeature(exception.what());
        parsed.outcome = {1, std::string("Exception: ") + exception.what()};
    }
    return parsed;
}
#pragma GCC diagnostic pop

void requireEqualJson(const Json::Value& expected, const Json::Value& actual, const char* what) {
    requireEqual(expected, actual, what);
    requireEqual(expected.toStyledString(), actual.toStyledString(), what);
}

Outcome transferFailure(CURLcode result) {
    int code = 26;
    std::string text = "Failed to send http request with Curl.";
    if (result == CURLE_COULDNT_RESOLVE_PROXY || result == CURLE_COULDNT_RESOLVE_HOST) {
        code = 31;
        text = "Failed to resolve host of url.";
    } else if (result == CURLE_OPERATION_TIMEDOUT) {
        code = 32;
        text = "Request timeout.";
    } else if (result == CURLE_PEER_FAILED_VERIFICATION) {
        code = 33;
        text = "The remote server's SSL certificate was deemed not OK.";
    }
    return {code, "[" + text + "]: curl return: " + std::to_string(result)};
}

Outcome statusFailure(const std::string& url, long status, bool hasRedirectUrl) {
    const std::string number = std::to_string(status);
    const std::string replied = "URL [" + url + "] replied http status code ";
    const std::string end = ": curl return: 0";
    const bool isRedirect = status >= 300 && status <= 399;
    if ((status >= 200 && status <= 299) || (isRedirect && hasRedirectUrl)) {
        return {};
    }
    if (isRedirect) {
        return {28, "Failed to get curl redirection url. " + replied + "= " + number +
                        ",curl returned: 0" + end};
    }
    if (status >= 400 && status <= 499) {
        return {14, replied + " " + number + end};
    }
    if (status >= 500 && status <= 599) {
        return {status == 503 ? 17 : 15, replied + number + end};
    }
    return {16, replied + number + end};
}

void requireNothingHeld() {
    for (const std::string& name : fakes::heldNames()) {
        std::cerr << "still held: " << name << '\n';
    }
    require(fakes::world().held.empty(), "everything is released");
    require(fakes::world().buffers.empty(), "every reply buffer is released");
}

}  // namespace fuzz
