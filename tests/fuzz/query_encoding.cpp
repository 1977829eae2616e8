// getEncodeQuery() of any map, read back by a decoder. Input: name, "\|", value, "\|", name, ...
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <map>

#include "fakes.h"
#include "fuzz.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/utils.h"

namespace {

using Parameters = std::map<std::string, std::string>;

constexpr char kUnreserved[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
constexpr char kDigits[] = "0123456789ABCDEF";

std::size_t digitOf(char c) {
    const char* const found = c == '\0' ? nullptr : std::strchr(kDigits, c);
    fuzz::require(found != nullptr, "an escape has two upper-case digits");
    return static_cast<std::size_t>(found - kDigits);
}

// Refuses what an encoder need not write: anything but unreserved characters and escapes of others.
std::string strictlyDecoded(const std::string& value) {
    std::string out;
    for (std::size_t i = 0; i < value.size(); ++i) {
        char c = value[i];
        const bool escaped = c == '%';
        if (escaped) {
            fuzz::require(i + 2 < value.size(), "an escape is whole");
            c = static_cast<char>(digitOf(value[i + 1]) * 16 + digitOf(value[i + 2]));
            i += 2;
        }
        const bool unreserved = c != '\0' && std::strchr(kUnreserved, c) != nullptr;
        fuzz::require(unreserved != escaped,
                      "unreserved characters, and only they, are not escaped");
        out += c;
    }
    return out;
}

// Each name is followed in turn by "=" and its value's encoding.
void checkInOrder(const Parameters& parameters, const std::string& query) {
    std::size_t at = 0;
    for (const auto& [name, value] : parameters) {
        const std::string begin = (at == 0 ? "" : "&") + name + "=";
        fuzz::requireEqual(begin, query.substr(at, begin.size()), "a name in its place");
        at += begin.size();
        const std::size_t end = query.find_first_not_of(std::string(kUnreserved) + "%", at);
        const std::string encoded = query.substr(at, end - at);
        fuzz::requireEqual(value, strictlyDecoded(encoded), "a value in its place");
        fuzz::requireEqual(fuzz::upToNul(value), ORBA::OAuth2Client::decodeString(encoded),
                           "a value that the library itself reads back");
        at += encoded.size();
    }
    fuzz::requireEqual(query.size(), at, "the end of the query");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fakes::reset();
    FuzzedDataProvider input(data, size);
    Parameters parameters;
    while (input.remaining_bytes() > 0) {
        const std::string name = input.ConsumeRandomLengthString();
        parameters[name] = input.ConsumeRandomLengthString();
    }
    checkInOrder(parameters, ORBA::OAuth2Client::HttpClient::getEncodeQuery(parameters));
    return 0;
}
