// Real libcurl against a server that replies with the fuzzer's bytes, without a network: each
// connection is a socket pair into which its reply has been written before libcurl sends anything.
#ifndef ORBA_TESTS_FUZZ_HTTP_EXCHANGE_H
#define ORBA_TESTS_FUZZ_HTTP_EXCHANGE_H

#include <cstddef>
#include <functional>
#include <string>

#include "fuzz.h"
#include "orbaoauth2client/httpclient.h"

namespace fuzz {

enum class Method { kGet, kGetFollowing, kPost };

constexpr char kUrl[] = "http://device.test/a/b?c=d";
constexpr char kForm[] = "grant_type=refresh_token&refresh_token=r1";

using Client = ORBA::OAuth2Client::HttpClient::HttpClient;
using Request = std::function<void(Client&)>;

// Has the library make a request that is answered with `replies` and requires that it does what
// libcurl, asked directly, says about the same replies; that the same object then gets a proper
// reply; and that nothing is left. `json` is where the request puts the reply, null for none.
//
// The replies are separated by lines "--- next connection ---"; the last one is repeated.
void checkRequest(const std::string& replies, Method method, const Request& request,
                  const Json::Value* json);

// More would not fit into a socket's buffer; longer inputs are to be left out.
constexpr std::size_t kMaxReplies = 64 * 1024;

}  // namespace fuzz

#endif
