#include "bare.h"

#include <curl/curl.h>
#include <klib/klib.h>
#include <orbatovra/orbatovra.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>

namespace bare {
namespace {

struct Release {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    void operator()(char* text) const { curl_free(text); }
};
template <class Type>
using Owner = std::unique_ptr<Type, Release>;

void require(bool good, const char* failure) {
    if (!good) {
        throw std::runtime_error(failure);
    }
}

void check(CURLcode result) { require(result == CURLE_OK, curl_easy_strerror(result)); }

Owner<CURL> newHandle() {
    Owner<CURL> curl(curl_easy_init());
    require(curl != nullptr, "no libcurl handle");
    return curl;
}

// As in libcurl's example getinmemory.c.
struct Buffer {
    char* memory = nullptr;
    std::size_t size = 0;
};

std::size_t collect(void* piece, std::size_t size, std::size_t count, void* data) {
    Buffer& buffer = *static_cast<Buffer*>(data);
    const std::size_t length = size * count;
    void* const grown = std::realloc(buffer.memory, buffer.size + length + 1);
    if (grown == nullptr) {
        return 0;
    }
    buffer.memory = static_cast<char*>(grown);
    std::memcpy(buffer.memory + buffer.size, piece, length);
    buffer.size += length;
    buffer.memory[buffer.size] = '\0';
    return length;
}

std::size_t discard(void* /*piece*/, std::size_t size, std::size_t count, void* /*data*/) {
    return size * count;
}

class Request {
  public:
    explicit Request(const Endpoint& endpoint) {
        set(CURLOPT_URL, endpoint.url.c_str());
        set(CURLOPT_TIMEOUT, 30L);
        char userAgent[256];
        require(ORBATOVRAUserAgentNameGet(userAgent, sizeof userAgent) == 0, "no user agent");
        set(CURLOPT_USERAGENT, static_cast<const char*>(userAgent));
        set(CURLOPT_SSL_VERIFYPEER, 1L);
        set(CURLOPT_SSL_VERIFYHOST, 2L);
        set(CURLOPT_CAPATH, "/etc/ssl/certs/ca-certificates.crt");
        set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1});
        require(KLIBCFileTouch(endpoint.cookies.c_str()) == 0, "no cookie file");
        set(CURLOPT_COOKIEJAR, endpoint.cookies.c_str());
        set(CURLOPT_COOKIEFILE, endpoint.cookies.c_str());
        for (const std::string& header : endpoint.headers) {
            curl_slist* const longer = curl_slist_append(headers.get(), header.c_str());
            require(longer != nullptr, "out of memory");
            static_cast<void>(headers.release());
            headers.reset(longer);
        }
        if (headers != nullptr) {
            set(CURLOPT_HTTPHEADER, headers.get());
        }
    }

    template <class Value>
    void set(CURLoption option, Value value) const {
        check(curl_easy_setopt(curl.get(), option, value));
    }

    // Returns the redirect URL, or "".
    std::string perform() const {
        check(curl_easy_perform(curl.get()));
        long status = 0;
        check(curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status));
        char* redirectUrl = nullptr;
        check(curl_easy_getinfo(curl.get(), CURLINFO_REDIRECT_URL, &redirectUrl));
        require(status / 100 == 2 || status / 100 == 3, "not a good status");
        return redirectUrl == nullptr ? "" : redirectUrl;
    }

    Json::Value performJson() const {
        Buffer buffer;
        set(CURLOPT_WRITEFUNCTION, &collect);
        set(CURLOPT_WRITEDATA, &buffer);
        perform();
        const std::string body(buffer.memory == nullptr ? "" : buffer.memory);
        Json::Value value;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        Json::Reader reader;
        const bool parsed = reader.parse(body.data(), body.data() + body.size(), value, true);
#pragma GCC diagnostic pop
        std::free(buffer.memory);
        require(parsed, "the reply is not JSON");
        return value;
    }

  private:
    Owner<curl_slist> headers;
    Owner<CURL> curl = newHandle();
};

void store(const std::string& file, const Json::Value& reply) {
    std::ofstream out(file, std::ios::out | std::ios::trunc);
    out << reply << std::endl;
}

}  // namespace

Json::Value getJson(const Endpoint& endpoint) { return Request(endpoint).performJson(); }

std::string get(const Endpoint& endpoint, bool followRedirects) {
    const Request request(endpoint);
    request.set(CURLOPT_WRITEFUNCTION, &discard);
    if (followRedirects) {
        request.set(CURLOPT_FOLLOWLOCATION, 1L);
    }
    return request.perform();
}

Json::Value post(const Endpoint& endpoint, const std::string& form) {
    const Request request(endpoint);
    request.set(CURLOPT_CUSTOMREQUEST, "POST");
    request.set(CURLOPT_POSTFIELDS, form.c_str());
    return request.performJson();
}

void exchange(const Endpoint& endpoint, const std::string& form, const std::string& tokenFile) {
    store(tokenFile, post(endpoint, form));
}

void refresh(const Endpoint& endpoint, const std::string& clientId, const std::string& tokenFile) {
    std::ifstream file(tokenFile);
    Json::Value stored;
    file >> stored;
    const Json::Value reply = post(
        endpoint, "grant_type=refresh_token&refresh_token=" + stored["refresh_token"].asString() +
                      "&client_id=" + clientId);
    std::cout << reply << std::endl;
    store(tokenFile, reply);
}

std::string decode(const std::string& text) {
    const Owner<CURL> curl = newHandle();
    const Owner<char> decoded(
        curl_easy_unescape(curl.get(), text.c_str(), static_cast<int>(text.size()), nullptr));
    require(decoded != nullptr, "cannot decode");
    return decoded.get();
}

std::string parameter(const std::string& url, const std::string& name) {
    const std::string::size_type found = url.find(name + "=");
    require(found != std::string::npos, "no such parameter");
    const std::string::size_type begin = found + name.size() + 1;
    return decode(url.substr(begin, url.find('&', begin) - begin));
}

std::string query(const std::map<std::string, std::string>& parameters) {
    const Owner<CURL> curl = newHandle();
    std::string query;
    for (const auto& [name, value] : parameters) {
        const Owner<char> escaped(
            curl_easy_escape(curl.get(), value.c_str(), static_cast<int>(value.size())));
        require(escaped != nullptr, "cannot encode");
        query += (query.empty() ? "" : "&") + name + "=" + escaped.get();
    }
    return query;
}

}  // namespace bare
