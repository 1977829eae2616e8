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

struct CurlRelease {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    void operator()(char* text) const { curl_free(text); }
};
using Handle = std::unique_ptr<CURL, CurlRelease>;
using Lines = std::unique_ptr<curl_slist, CurlRelease>;
using Text = std::unique_ptr<char, CurlRelease>;

// The buffer of libcurl's own example getinmemory.c.
struct Buffer {
    char* memory = nullptr;
    std::size_t size = 0;

    Buffer() = default;
    ~Buffer() { std::free(memory); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
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

void check(CURLcode result) {
    if (result != CURLE_OK) {
        throw std::runtime_error(curl_easy_strerror(result));
    }
}

template <class Value>
void set(const Handle& curl, CURLoption option, Value value) {
    check(curl_easy_setopt(curl.get(), option, value));
}

Handle newHandle() {
    Handle curl(curl_easy_init());
    if (curl == nullptr) {
        throw std::runtime_error("no libcurl handle");
    }
    return curl;
}

void setUserAgent(const Handle& curl) {
    char userAgent[256];
    if (ORBATOVRAUserAgentNameGet(userAgent, sizeof userAgent) != 0) {
        throw std::runtime_error("no user agent");
    }
    set(curl, CURLOPT_USERAGENT, static_cast<const char*>(userAgent));
}

void setCookies(const Handle& curl, const std::string& path) {
    if (KLIBCFileTouch(path.c_str()) != 0) {
        throw std::runtime_error("no cookie file");
    }
    set(curl, CURLOPT_COOKIEJAR, path.c_str());
    set(curl, CURLOPT_COOKIEFILE, path.c_str());
}

Lines setHeaders(const Handle& curl, const std::vector<std::string>& headers) {
    Lines lines;
    for (const std::string& header : headers) {
        curl_slist* const longer = curl_slist_append(lines.get(), header.c_str());
        if (longer == nullptr) {
            throw std::bad_alloc();
        }
        static_cast<void>(lines.release());
        lines.reset(longer);
    }
    if (lines != nullptr) {
        set(curl, CURLOPT_HTTPHEADER, lines.get());
    }
    return lines;
}

// A handle with all that every request has, and the header list that must live as long.
struct Request {
    explicit Request(const Endpoint& endpoint) : curl(newHandle()) {
        set(curl, CURLOPT_URL, endpoint.url.c_str());
        set(curl, CURLOPT_TIMEOUT, 30L);
        setUserAgent(curl);
        set(curl, CURLOPT_SSL_VERIFYPEER, 1L);
        set(curl, CURLOPT_SSL_VERIFYHOST, 2L);
        set(curl, CURLOPT_CAPATH, "/etc/ssl/certs/ca-certificates.crt");
        set(curl, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1});
        setCookies(curl, endpoint.cookies);
        headers = setHeaders(curl, endpoint.headers);
    }

    Answer perform() const {
        check(curl_easy_perform(curl.get()));
        Answer answer;
        check(curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status));
        char* redirectUrl = nullptr;
        check(curl_easy_getinfo(curl.get(), CURLINFO_REDIRECT_URL, &redirectUrl));
        if (redirectUrl != nullptr) {
            answer.redirectUrl = redirectUrl;
        }
        if (answer.status / 100 != 2 && answer.status / 100 != 3) {
            throw std::runtime_error("status " + std::to_string(answer.status));
        }
        return answer;
    }

    Lines headers;
    Handle curl;
};

Json::Value parse(const std::string& body) {
    Json::Value value;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
    if (!reader.parse(body.data(), body.data() + body.size(), value, true)) {
        throw std::runtime_error("the reply is not JSON");
    }
#pragma GCC diagnostic pop
    return value;
}

Json::Value performJson(const Request& request) {
    Buffer buffer;
    set(request.curl, CURLOPT_WRITEFUNCTION, &collect);
    set(request.curl, CURLOPT_WRITEDATA, &buffer);
    request.perform();
    const std::string body(buffer.memory == nullptr ? "" : buffer.memory);
    return parse(body);
}

void store(const std::string& file, const Json::Value& reply) {
    std::ofstream out(file, std::ios::out | std::ios::trunc);
    out << reply << std::endl;
}

}  // namespace

Json::Value getJson(const Endpoint& endpoint) { return performJson(Request(endpoint)); }

Answer get(const Endpoint& endpoint, bool followRedirects) {
    const Request request(endpoint);
    set(request.curl, CURLOPT_WRITEFUNCTION, &discard);
    if (followRedirects) {
        set(request.curl, CURLOPT_FOLLOWLOCATION, 1L);
    }
    return request.perform();
}

Json::Value post(const Endpoint& endpoint, const std::string& form) {
    const Request request(endpoint);
    set(request.curl, CURLOPT_CUSTOMREQUEST, "POST");
    set(request.curl, CURLOPT_POSTFIELDS, form.c_str());
    return performJson(request);
}

std::string loginChallenge(const Endpoint& endpoint) {
    return parameter(get(endpoint, false).redirectUrl, "login_challenge");
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
    const Handle curl = newHandle();
    const Text decoded(
        curl_easy_unescape(curl.get(), text.c_str(), static_cast<int>(text.size()), nullptr));
    if (decoded == nullptr) {
        throw std::bad_alloc();
    }
    return decoded.get();
}

std::string parameter(const std::string& url, const std::string& name) {
    const std::string::size_type found = url.find(name + "=");
    if (found == std::string::npos) {
        throw std::runtime_error("no " + name);
    }
    const std::string::size_type begin = found + name.size() + 1;
    return decode(url.substr(begin, url.find('&', begin) - begin));
}

std::string query(const std::map<std::string, std::string>& parameters) {
    const Handle curl = newHandle();
    std::string query;
    for (const auto& [name, value] : parameters) {
        const Text escaped(
            curl_easy_escape(curl.get(), value.c_str(), static_cast<int>(value.size())));
        if (escaped == nullptr) {
            throw std::bad_alloc();
        }
        query += (query.empty() ? "" : "&") + name + "=" + escaped.get();
    }
    return query;
}

std::string errorText(int code) { return curl_easy_strerror(static_cast<CURLcode>(code)); }

}  // namespace bare
