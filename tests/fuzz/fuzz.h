// What the fuzz targets share. A property that does not hold ends the process with a message, and
// libFuzzer keeps the input; so does an exception that a target does not expect.
#ifndef ORBA_TESTS_FUZZ_FUZZ_H
#define ORBA_TESTS_FUZZ_FUZZ_H

#include <curl/curl.h>
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <typeinfo>

#include "orbaoauth2client/errors.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

[[noreturn]] void fail();

inline void require(bool holds, const char* property) {
    if (!holds) {
        std::cerr << "violated: " << property << '\n';
        fail();
    }
}

template <class Value>
void requireEqual(const Value& expected, const Value& actual, const char* what) {
    if (!(expected == actual)) {
        std::cerr << "violated: " << what << "\nexpected: " << expected << "\nactual:   " << actual
                  << '\n';
        fail();
    }
}

inline std::string textOf(const std::uint8_t* data, std::size_t size) {
    return std::string(data, data + size);
}

inline std::string upToNul(const std::string& text) { return text.c_str(); }

// How an operation ended; code 0 is success.
struct Outcome {
    int code = 0;
    std::string text;
};

inline bool operator==(const Outcome& left, const Outcome& right) {
    return left.code == right.code && left.text == right.text;
}

inline std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << outcome.code << " \"" << outcome.text << '"';
}

// The operation may throw this very class; any other exception passes through and is a finding.
template <class Exception, class Operation>
Outcome outcomeOf(const Operation& operation) {
    try {
        operation();
    } catch (const ORBA::OAuth2Client::OAuth2ClientException& exception) {
        require(typeid(exception) == typeid(Exception), "the exception is of the documented class");
        require(exception.errCode() != 0, "an exception has a code");
        return {exception.errCode(), exception.what()};
    }
    return {};
}

// Makes libFuzzer keep an input that shows something new. libcurl and jsoncpp are not built with
// coverage; what they say takes its place.
void noteFeature(const std::string& feature);

// A reply as jsoncpp reads it. `outcome` is what an operation that wraps its failures makes of it:
// `syntaxError` for a text that is not JSON, code 1 for an exception.
struct ParsedJson {
    Outcome outcome;
    Json::Value value;
};
ParsedJson parseJson(const std::string& text, const Outcome& syntaxError);

// As values, and with their comments.
void requireEqualJson(const Json::Value& expected, const Json::Value& actual, const char* what);

// What a request makes of libcurl's result (not CURLE_OK), and of a response's status.
Outcome transferFailure(CURLcode result);
Outcome statusFailure(const std::string& url, long status, bool hasRedirectUrl);

// To be called at the end of each input: nothing of what the stand-ins gave out is still held.
void requireNothingHeld();

}  // namespace fuzz

#endif
