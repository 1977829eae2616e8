// A server's bytes into HttpClient::get(bool), with and without following. Input: see
// checkRequest().
#include "http_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size <= fuzz::kMaxReplies) {
        const std::string replies = fuzz::textOf(data, size);
        fuzz::checkRequest(
            replies, fuzz::Method::kGet, [](fuzz::Client& client) { client.get(false); }, nullptr);
        fuzz::checkRequest(
            replies, fuzz::Method::kGetFollowing, [](fuzz::Client& client) { client.get(true); },
            nullptr);
    }
    return 0;
}
