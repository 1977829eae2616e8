// The counterparts: what a program without the library writes on libcurl and jsoncpp to do the same
// work. Same options, same cookie file, same questions to the platform, same reading of the reply.
#ifndef ORBA_BENCH_BARE_H
#define ORBA_BENCH_BARE_H

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

namespace bare {

// Where a request goes and with what. The header lines are complete, "name: value".
struct Endpoint {
    std::string url;
    std::string cookies;
    std::vector<std::string> headers;
};

struct Answer {
    long status = 0;
    std::string redirectUrl;
};

Json::Value getJson(const Endpoint& endpoint);
Answer get(const Endpoint& endpoint, bool followRedirects);
Json::Value post(const Endpoint& endpoint, const std::string& form);

std::string loginChallenge(const Endpoint& endpoint);
void exchange(const Endpoint& endpoint, const std::string& form, const std::string& tokenFile);
void refresh(const Endpoint& endpoint, const std::string& clientId, const std::string& tokenFile);

std::string decode(const std::string& text);
std::string parameter(const std::string& url, const std::string& name);
std::string query(const std::map<std::string, std::string>& parameters);
std::string errorText(int code);

}  // namespace bare

#endif
