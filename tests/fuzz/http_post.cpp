// A server's bytes into HttpClient::postURLEncodedString(). Input: see checkRequest().
#include "http_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size <= fuzz::kMaxReplies) {
        Json::Value reply;
        fuzz::checkRequest(
            fuzz::textOf(data, size), fuzz::Method::kPost,
            [&](fuzz::Client& client) { client.postURLEncodedString(fuzz::kForm, reply); }, &reply);
    }
    return 0;
}
