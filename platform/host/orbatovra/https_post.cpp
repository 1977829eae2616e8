#include "https_post.h"

#include <curl/curl.h>

#include <array>
#include <cstddef>
#include <memory>
#include <new>

#include "../common/failure.h"

namespace orba_host {
namespace {

constexpr std::size_t kMaxReplyBytes = 1024UL * 1024;
constexpr long kTimeoutSeconds = 30;

struct CurlCleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    void operator()(char* text) const { curl_free(text); }
};
using CurlHandle = std::unique_ptr<CURL, CurlCleanup>;
using CurlList = std::unique_ptr<curl_slist, CurlCleanup>;
using CurlText = std::unique_ptr<char, CurlCleanup>;

// Collects the reply's body, and remembers why it stopped.
struct Body {
    std::string text;
    OrbaHostError error = ORBA_HOST_OK;
};

std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* user) {
    Body& body = *static_cast<Body*>(user);
    const std::size_t length = size * count;
    if (length > kMaxReplyBytes - body.text.size()) {
        body.error = ORBA_HOST_REPLY_TOO_LARGE;
        return 0;
    }
    body.error = guarded([&] { body.text.append(data, length); });
    return body.error == ORBA_HOST_OK ? length : 0;
}

OrbaHostError errorOf(CURLcode code) {
    switch (code) {
        case CURLE_URL_MALFORMAT:
            return ORBA_HOST_INVALID_ARGUMENT;
        case CURLE_OUT_OF_MEMORY:
            return ORBA_HOST_OUT_OF_MEMORY;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return ORBA_HOST_REQUEST_NOT_RESOLVED;
        case CURLE_COULDNT_CONNECT:
            return ORBA_HOST_REQUEST_NOT_CONNECTED;
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
            return ORBA_HOST_REQUEST_CERTIFICATE;
        case CURLE_OPERATION_TIMEDOUT:
            return ORBA_HOST_REQUEST_TIMEOUT;
        default:
            return ORBA_HOST_REQUEST_TRANSPORT;
    }
}

template <class Owner>
Owner allocated(Owner owner) {
    if (!owner) {
        throw std::bad_alloc();
    }
    return owner;
}

// One transfer: every option is set through here, and every failure of libcurl ends here.
class Transfer {
  public:
    explicit Transfer(const std::string& url)
        : target(url), handle(allocated(CurlHandle(curl_easy_init()))) {
        set(CURLOPT_ERRORBUFFER, reason.data());
        set(CURLOPT_URL, target.c_str());
    }

    template <class Value>
    void set(CURLoption option, Value value) {
        check(curl_easy_setopt(handle.get(), option, value));
    }

    std::string escape(const std::string& text) const {
        const CurlText escaped = allocated(
            CurlText(curl_easy_escape(handle.get(), text.data(), static_cast<int>(text.size()))));
        return escaped.get();
    }

    HttpsReply perform() {
        Body body;
        set(CURLOPT_WRITEFUNCTION, writeBody);
        set(CURLOPT_WRITEDATA, &body);
        const CURLcode code = curl_easy_perform(handle.get());
        if (body.error != ORBA_HOST_OK) {
            throw Failure(body.error,
                          target + ": the reply is larger than 1 MiB, or than the free memory");
        }
        check(code);
        long status = 0;
        check(curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status));
        return {status, body.text};
    }

  private:
    void check(CURLcode code) const {
        if (code != CURLE_OK) {
            const char* detail = reason[0] != '\0' ? reason.data() : curl_easy_strerror(code);
            throw Failure(errorOf(code), target + ": " + detail);
        }
    }

    std::string target;
    std::array<char, CURL_ERROR_SIZE> reason{};
    CurlHandle handle;
};

std::string encodeForm(const Transfer& transfer, const std::map<std::string, std::string>& form) {
    std::string text;
    for (const auto& [name, value] : form) {
        text += text.empty() ? "" : "&";
        text += transfer.escape(name) + "=" + transfer.escape(value);
    }
    return text;
}

CurlList authorization(const std::string& token) {
    if (token.empty()) {
        return nullptr;
    }
    return allocated(
        CurlList(curl_slist_append(nullptr, ("Authorization: Bearer " + token).c_str())));
}

}  // namespace

std::string httpsUrl(const std::string& server, const std::string& path) {
    return "https://" + server + "/" + path;
}

HttpsReply postForm(const std::string& server, const std::string& path,
                    const std::map<std::string, std::string>& form, const std::string& token) {
    requireArgument(!server.empty() && server.find_first_of("/\\?#@") == std::string::npos,
                    "the server must be host[:port]");
    const CurlList headers = authorization(token);
    Transfer transfer(httpsUrl(server, path));
    const std::string fields = encodeForm(transfer, form);
    transfer.set(CURLOPT_PROTOCOLS_STR, "https");
    transfer.set(CURLOPT_FOLLOWLOCATION, 0L);
    transfer.set(CURLOPT_TIMEOUT, kTimeoutSeconds);
    transfer.set(CURLOPT_NOSIGNAL, 1L);
    transfer.set(CURLOPT_HTTPHEADER, headers.get());
    transfer.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(fields.size()));
    transfer.set(CURLOPT_POSTFIELDS, fields.c_str());
    return transfer.perform();
}

}  // namespace orba_host
