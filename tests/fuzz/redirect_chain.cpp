// A chain of answers into OAuth2::followRedirectUntilCallback(), against a model that walks it.
// Input: the authorization URL, redirect_to, then the answers, one a line:
//     STATUS[ REDIRECT-URL]    a response, as libcurl reports it; the last one is repeated
//     !RESULT                  a transfer that fails with this libcurl result
#include <cstdlib>
#include <sstream>
#include <vector>

#include "fakes.h"
#include "fuzz.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/utils.h"

namespace {

using namespace ORBA::OAuth2Client;
using fuzz::Outcome;

constexpr int kMaxGets = 5;
constexpr int kAttempts = 3;

struct Input {
    std::string authUrl;
    std::string redirectTo;
    std::deque<fakes::Transfer> answers;
};

fakes::Transfer answerOf(const std::string& line) {
    fakes::Transfer answer;
    answer.body.clear();
    if (!line.empty() && line[0] == '!') {
        const unsigned long result = std::strtoul(line.c_str() + 1, nullptr, 10) % CURL_LAST;
        answer.result = static_cast<CURLcode>(result);
        return answer;
    }
    char* end = nullptr;
    answer.status = std::strtol(line.c_str(), &end, 10) % 10000;
    if (*end == ' ') {
        answer.redirectUrl = end + 1;  // as libcurl gives it: up to a NUL
    }
    return answer;
}

Input inputOf(const std::string& text) {
    std::istringstream lines(text);
    Input input;
    std::getline(lines, input.authUrl);
    std::getline(lines, input.redirectTo);
    for (std::string line; std::getline(lines, line);) {
        input.answers.push_back(answerOf(line));
    }
    return input;
}

// What the walk is to do.
struct Walk {
    std::vector<std::string> urls;  // of each transfer
    std::string callback;
    Outcome outcome;
    bool endedByGet = false;
};

class Model {
  public:
    explicit Model(const Input& input) : answers(input.answers), url(input.redirectTo) {
        if (answers.empty()) {
            answers.emplace_back();
        }
    }

    Walk walk(const std::string& marker) {
        long status = 0;
        for (int gets = 0; gets < kMaxGets; ++gets) {
            if (!get()) {
                result.outcome.text = fuzz::upToNul("Failed to do HTTP Get request to [" + url +
                                                    "] due to: " + result.outcome.text);
                result.endedByGet = true;
                return result;
            }
            status = answer.status;
            if (status < 300) {
                break;
            }
            if (answer.redirectUrl->find(marker) != std::string::npos) {
                result.callback = *answer.redirectUrl;
                return result;
            }
            url = *answer.redirectUrl;
        }
        result.outcome = {
            5, "Didn't receive callback url. Last status code = " + std::to_string(status)};
        return result;
    }

  private:
    bool get() {
        if (url.empty()) {
            result.outcome = {12, "Got empty URL."};
            return false;
        }
        int attempts = 0;
        do {
            ++attempts;
            result.urls.push_back(fuzz::upToNul(url));
            answer = answers.front();
            if (answers.size() > 1) {
                answers.pop_front();
            }
        } while (answer.result != CURLE_OK && attempts < kAttempts);
        result.outcome =
            answer.result != CURLE_OK
                ? fuzz::transferFailure(answer.result)
                : fuzz::statusFailure(url, answer.status, answer.redirectUrl.has_value());
        result.outcome.text = fuzz::upToNul(result.outcome.text);
        return result.outcome.code == 0;
    }

    std::deque<fakes::Transfer> answers;
    std::string url;
    fakes::Transfer answer;
    Walk result;
};

std::vector<std::string> requestedUrls() {
    std::vector<std::string> urls;
    for (const fakes::Request& request : fakes::world().requests) {
        fuzz::require(request.options.count(CURLOPT_FOLLOWLOCATION) == 0,
                      "libcurl does not follow redirects");
        fuzz::requireEqual<std::string>("/jar", request.options.at(CURLOPT_COOKIEJAR), "cookies");
        urls.push_back(request.options.at(CURLOPT_URL));
    }
    return urls;
}

int countGets() {
    int gets = 0;
    for (const fakes::LogLine& line : fakes::world().log) {
        gets += line.format == "%s:%d GET url: %s" ? 1 : 0;
    }
    return gets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fakes::reset();
    const Input input = inputOf(fuzz::textOf(data, size));
    Json::Value idpReply(Json::objectValue);
    idpReply["redirect_to"] = input.redirectTo;
    OAuth2 oauth2(input.authUrl, "/jar");

    std::string marker;
    const Outcome noMarker = fuzz::outcomeOf<OAuth2Exception>(
        [&] { marker = getParamFromURL(input.authUrl, "redirect_uri"); });
    fakes::reset();
    fakes::world().transfers = input.answers;
    std::string callback;
    const auto follow = [&] { callback = oauth2.followRedirectUntilCallback(idpReply); };
    if (noMarker.code != 0) {
        fuzz::requireEqual(noMarker, fuzz::outcomeOf<OAuth2Exception>(follow), "no redirect_uri");
        fuzz::require(fakes::world().requests.empty(), "no request without redirect_uri");
        fuzz::requireNothingHeld();
        return 0;
    }

    const Walk expected = Model(input).walk(marker);
    const Outcome outcome = expected.endedByGet ? fuzz::outcomeOf<HttpClientException>(follow)
                                                : fuzz::outcomeOf<OAuth2ClientException>(follow);
    fuzz::requireEqual(expected.outcome, outcome, "how the walk ends");
    fuzz::requireEqual(expected.callback, callback, "the callback");
    fuzz::require(callback.find(marker) != std::string::npos || outcome.code != 0,
                  "the callback holds the redirect_uri");
    fuzz::require(expected.urls == requestedUrls(), "the requested URLs, in order");
    fuzz::require(countGets() <= kMaxGets, "at most 5 GETs");
    fuzz::requireNothingHeld();
    return 0;
}
