#include "transfer.h"

#include <orbatovra/orbatovra.h>
#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <new>
#include <string_view>

namespace ORBA::OAuth2Session {
namespace {

constexpr char kCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr std::size_t kMaxReply = 65536;
constexpr seconds kRequestLimit{30};
constexpr milliseconds kStep{100};
constexpr unsigned long kMaxRetryAfter = 3600;

struct ListCleanup {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, ListCleanup>;

template <class Value>
void setOption(CURL* easy, CURLoption option, const char* name, Value value) {
    const CURLcode result = curl_easy_setopt(easy, option, value);
    if (result != CURLE_OK) {
        fail(kCurlOptionFailed,
             std::string("Failed to set ") + name + ": libcurl's result " + std::to_string(result));
    }
}
#define SET_OPTION(easy, option, value) setOption(easy, option, #option, value)

int codeOfResult(CURLcode result) {
    switch (result) {
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
            return kResolveHostFailed;
        case CURLE_OPERATION_TIMEDOUT:
            return kRequestTimeout;
        case CURLE_PEER_FAILED_VERIFICATION:
            return kCertificateRefused;
        case CURLE_SSL_CACERT_BADFILE:
            return kCurlOptionFailed;
        default:
            return kCurlRequestFailed;
    }
}

bool isNumber(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// RFC 9110, 10.2.3. A date is measured by the server's clock, as the device's may be wrong.
milliseconds parseRetryAfter(const std::string& text, const std::string& date) {
    seconds wait{};
    if (isNumber(text)) {
        wait = seconds(std::min(std::strtoul(text.c_str(), nullptr, 10), kMaxRetryAfter));
    } else {
        const std::time_t until = curl_getdate(text.c_str(), nullptr);
        const std::time_t now = curl_getdate(date.c_str(), nullptr);
        if (until >= 0 && now >= 0) {
            wait = seconds(until - now);
        }
    }
    return std::clamp(wait, seconds(0), seconds(kMaxRetryAfter));
}

}  // namespace

// Takes a reply from libcurl. No exception may leave its callbacks, which C code calls.
struct Transfer::Receiver {
    Reply reply;
    std::string retryAfter;
    std::string date;
    bool headersEnded = false;  // libcurl takes a reply that ends within its headers for complete
    bool tooLarge = false;

    void header(std::string_view line) {
        if (line.substr(0, 5) == "HTTP/") {  // an interim reply may have come before
            headersEnded = false;
        } else if (line.find_first_not_of("\r\n") == std::string_view::npos) {
            headersEnded = true;
        } else if (!headersEnded) {  // no trailers
            take(line, "Retry-After:", retryAfter);
            take(line, "Date:", date);
        }
    }

    static void take(std::string_view line, std::string_view name, std::string& value) {
        if (line.size() > name.size() && strncasecmp(line.data(), name.data(), name.size()) == 0) {
            line.remove_prefix(name.size());
            const std::size_t begin = std::min(line.find_first_not_of(" \t\r\n"), line.size());
            const std::size_t end = line.find_last_not_of(" \t\r\n") + 1;
            value.assign(line.substr(begin, std::max(begin, end) - begin));
        }
    }

    static std::size_t onHeader(char* piece, std::size_t size, std::size_t count, void* receiver) {
        try {
            static_cast<Receiver*>(receiver)->header({piece, size * count});
            return size * count;
        } catch (const std::bad_alloc&) {
            return 0;
        }
    }

    static std::size_t onBody(char* piece, std::size_t size, std::size_t count, void* receiver) {
        auto& self = *static_cast<Receiver*>(receiver);
        self.tooLarge = size * count > kMaxReply - self.reply.body.size();
        try {
            if (!self.tooLarge) {
                self.reply.body.append(piece, size * count);
                return size * count;
            }
        } catch (const std::bad_alloc&) {
            return 0;
        }
        return 0;
    }
};

Transfer::Transfer(Call& limits) : call(limits) {
    ORBATOVRAErrSet(0);
    if (ORBATOVRAUserAgentNameGet(userAgent.data(), userAgent.size() - 1) != 0) {
        fail(kUserAgentFailed,
             "The device's user agent is unavailable: error " + std::to_string(ORBATOVRAErrGet()));
    }
    multi.reset(curl_multi_init());
    if (multi == nullptr) {
        fail(kCurlInitFailed, "libcurl gives no handle");
    }
}

Transfer::Easy Transfer::makeHandle() {
    Easy easy(curl_easy_init());
    if (easy == nullptr) {
        fail(kCurlInitFailed, "libcurl gives no handle");
    }
    return easy;
}

nanoseconds Transfer::limitOfRequest() const {
    return std::min<nanoseconds>(call.deadline, bootTime() + kRequestLimit);
}

void Transfer::setCommonOptions(CURL* easy, const std::string& url, Receiver& receiver,
                                nanoseconds limit) {
    const auto left = std::chrono::ceil<milliseconds>(limit - bootTime()).count();
    SET_OPTION(easy, CURLOPT_URL, url.c_str());
    SET_OPTION(easy, CURLOPT_PROTOCOLS_STR, "https");
    SET_OPTION(easy, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    SET_OPTION(easy, CURLOPT_USERAGENT, static_cast<const char*>(userAgent.data()));
    SET_OPTION(easy, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    SET_OPTION(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    SET_OPTION(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    SET_OPTION(easy, CURLOPT_CAINFO, kCaBundle);
    // Without a folder, libcurl reads the bundle once for all requests of the multi handle.
    SET_OPTION(easy, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    SET_OPTION(easy, CURLOPT_FRESH_CONNECT, 1L);
    SET_OPTION(easy, CURLOPT_FORBID_REUSE, 1L);
    SET_OPTION(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    SET_OPTION(easy, CURLOPT_NOSIGNAL, 1L);
    SET_OPTION(easy, CURLOPT_QUICK_EXIT, 1L);  // does not wait for a resolver that hangs
    SET_OPTION(easy, CURLOPT_TIMEOUT_MS, std::max(1L, static_cast<long>(left)));
    SET_OPTION(easy, CURLOPT_HEADERFUNCTION, curl_write_callback{&Receiver::onHeader});
    SET_OPTION(easy, CURLOPT_HEADERDATA, &receiver);
    SET_OPTION(easy, CURLOPT_WRITEFUNCTION, curl_write_callback{&Receiver::onBody});
    SET_OPTION(easy, CURLOPT_WRITEDATA, &receiver);
}

Reply Transfer::get(const std::string& url) {
    if (browser == nullptr) {
        browser = makeHandle();
        SET_OPTION(browser.get(), CURLOPT_COOKIEFILE, "");  // in memory
    }
    const nanoseconds limit = limitOfRequest();
    Receiver receiver;
    setCommonOptions(browser.get(), url, receiver, limit);
    return perform(browser.get(), url, receiver, limit);
}

Reply Transfer::post(const std::string& url, const std::string& form) {
    const Easy easy = makeHandle();
    const HeaderList headers(curl_slist_append(nullptr, "Accept: application/json"));
    if (headers == nullptr) {
        throw std::bad_alloc();
    }
    const nanoseconds limit = limitOfRequest();
    Receiver receiver;
    setCommonOptions(easy.get(), url, receiver, limit);
    SET_OPTION(easy.get(), CURLOPT_HTTPHEADER, headers.get());
    SET_OPTION(easy.get(), CURLOPT_POSTFIELDS, form.c_str());
    return perform(easy.get(), url, receiver, limit);
}

Reply Transfer::perform(CURL* easy, const std::string& url, Receiver& receiver, nanoseconds limit) {
    call.check();
    CURLcode result = run(easy, limit);
    if (result == CURLE_OK && !receiver.headersEnded) {
        result = CURLE_PARTIAL_FILE;
    }
    Reply& reply = receiver.reply;
    reply.retryAfter = parseRetryAfter(receiver.retryAfter, receiver.date);
    if (result != CURLE_OK) {
        Failure failure =
            receiver.tooLarge
                ? makeFailure(kSenselessReply, hostOf(url) + " sent a reply of more than 64 KiB")
                : makeFailure(codeOfResult(result), "The request to " + hostOf(url) +
                                                        " failed: " + curl_easy_strerror(result));
        failure.retryAfter = reply.retryAfter;
        throw std::move(failure);
    }
    const char* redirect = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &reply.status) != CURLE_OK ||
        curl_easy_getinfo(easy, CURLINFO_REDIRECT_URL, &redirect) != CURLE_OK) {
        fail(kCurlResponseFailed, "libcurl does not give the reply of " + hostOf(url));
    }
    reply.redirect = redirect == nullptr ? "" : redirect;
    return reply;
}

// In steps, so that cancelling takes effect soon.
CURLcode Transfer::run(CURL* easy, nanoseconds limit) {
    if (curl_multi_add_handle(multi.get(), easy) != CURLM_OK) {
        fail(kCurlInitFailed, "libcurl does not take the request");
    }
    call.asked = true;
    CURLcode result = CURLE_FAILED_INIT;
    int running = 1;
    while (curl_multi_perform(multi.get(), &running) == CURLM_OK) {
        if (running == 0) {
            int left = 0;
            const CURLMsg* message = curl_multi_info_read(multi.get(), &left);
            result = message == nullptr ? CURLE_FAILED_INIT : message->data.result;
            break;
        }
        if (call.cancelled.load(std::memory_order_relaxed) || bootTime() >= limit) {
            result = CURLE_OPERATION_TIMEDOUT;
            break;
        }
        if (curl_multi_poll(multi.get(), nullptr, 0, static_cast<int>(kStep.count()), nullptr) !=
            CURLM_OK) {
            break;
        }
    }
    curl_multi_remove_handle(multi.get(), easy);
    if (result != CURLE_OK && call.cancelled.load(std::memory_order_relaxed)) {
        failCancelled();
    }
    return result;
}

}  // namespace ORBA::OAuth2Session
