// What a program without the library writes on libcurl and jsoncpp to do the same work, with the
// same options, cookie file, platform calls and parsing of the reply.
#ifndef ORBA_BENCH_BARE_H
#define ORBA_BENCH_BARE_H

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

namespace bare {

// The header lines are complete: "name: value".
struct Endpoint {
    std::string url;
    std::string cookies;
    std::vector<std::string> headers;
};

Json::Value getJson(const Endpoint& endpoint);
std::string get(const Endpoint& endpoint, bool followRedirects);  // the redirect URL
Json::Value post(const Endpoint& endpoint, const std::string& form);

void exchange(const Endpoint& endpoint, const std::string& form, const std::string& tokenFile);
void refresh(const Endpoint& endpoint, const std::string& clientId, const std::string& tokenFile);

std::string decode(const std::string& text);
std::string parameter(const std::string& url, const std::string& name);
std::string query(const std::map<std::string, std::string>& parameters);

}  // namespace bare

#endif
