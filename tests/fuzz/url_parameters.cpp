// getParamFromURL() and decodeString() against a model. Input: the key, "\|", the URL.
#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>

#include "fakes.h"
#include "fuzz.h"
#include "orbaoauth2client/utils.h"

namespace {

using namespace ORBA::OAuth2Client;
using fuzz::Outcome;

bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

std::string decoded(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && isHexDigit(text[i + 1]) &&
            isHexDigit(text[i + 2])) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return fuzz::upToNul(out);
}

Outcome expectedOutcome(const std::string& url, const std::string& key, std::string& value) {
    if (url.empty() || key.empty()) {
        return {12, "Failed to get parameter: The url is empty."};
    }
    // Tried at every position, so that nothing rests on the search of the library.
    const std::string name = key + "=";
    for (std::size_t i = 0; i + name.size() <= url.size(); ++i) {
        if (url.compare(i, name.size(), name) != 0) {
            continue;
        }
        std::string raw;
        for (std::size_t j = i + name.size(); j < url.size() && url[j] != '&'; ++j) {
            raw += url[j];
        }
        value = decoded(raw);
        return {};
    }
    return {12, fuzz::upToNul("This url doesn't have query parameters. [" + url + "]")};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fakes::reset();
    FuzzedDataProvider input(data, size);
    const std::string key = input.ConsumeRandomLengthString();
    const std::string url = input.ConsumeRemainingBytesAsString();

    fuzz::requireEqual(decoded(url), decodeString(url), "decodeString");

    std::string expected;
    const Outcome expectedEnd = expectedOutcome(url, key, expected);
    std::string actual;
    const Outcome actualEnd =
        fuzz::outcomeOf<OAuth2Exception>([&] { actual = getParamFromURL(url, key); });
    fuzz::requireEqual(expectedEnd, actualEnd, "getParamFromURL's failure");
    fuzz::requireEqual(expected, actual, "getParamFromURL's value");
    return 0;
}
