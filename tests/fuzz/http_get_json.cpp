// A server's bytes into HttpClient::get(Json::Value&). Input: see checkRequest().
#include "http_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size <= fuzz::kMaxReplies) {
        Json::Value reply;
        fuzz::checkRequest(
            fuzz::textOf(data, size), fuzz::Method::kGet,
            [&](fuzz::Client& client) { client.get(reply); }, &reply);
    }
    return 0;
}
