#include "orbaoauth2client/httpclient.h"

#include <curl/curl.h>
#include <json/json.h>
#include <klib/klib.h>
#include <orbatovra/orbatovra.h>
#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "curl_text.h"
#include "error_code.h"
#include "guarded.h"
#include "json_text.h"
#include "log.h"
#include "orbaoauth2client/errors.h"

namespace ORBA::OAuth2Client::HttpClient {
namespace {

constexpr Log kLog{"orbahttpclient"};

constexpr char kThrowAwayCookies[] = "/tmp/dontcarecookies";
constexpr char kCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr long kTransferTimeoutSeconds = 30;
constexpr int kAttempts = 3;
constexpr long kPauseNanoseconds = 500'000'000;

std::string withResult(const std::string& text, CURLcode result) {
    return text + ": curl return: " + std::to_string(result);
}

// Sets one option. `name` is what a failure names.
template <class Value>
void setOption(void* curl, CURLoption option, const char* name, Value value,
               int line = __builtin_LINE()) {
    const CURLcode result = curl_easy_setopt(curl, option, value);
    if (result != CURLE_OK) {
        kLog.fail<CurlException>(
            kCurlOptionFailed, withResult(std::string("Failed to set curl ") + name, result), line);
    }
}

// Adds a line for each field to the list, which then holds what its owner has to release, and sets
// it on the handle. A failing curl_slist_append() loses the lines before it.
void setHeaderLines(void* curl, curl_slist*& list,
                    const std::map<std::string, std::string>& fields) {
    if (fields.empty()) {
        return;
    }
    curl_slist* const given = list;
    std::string line;
    for (const auto& [name, value] : fields) {
        line.assign(name).append(": ").append(value);
        curl_slist* const longer = curl_slist_append(list, line.c_str());
        if (longer == nullptr && list != given) {
            curl_slist_free_all(list);
        }
        list = longer;
        syslog(LOG_DEBUG, "%s:%d set curl custom http header %s", kLog.source, __LINE__,
               line.c_str());
    }
    setOption(curl, CURLOPT_HTTPHEADER, "CURLOPT_HTTPHEADER", list);
}

// Creates the handle and sets what all requests share. The list is used as above.
void setUpTransfer(HttpClient& client, void** curl, curl_slist*& list, const std::string& endpoint,
                   const std::string& cookies, const std::string& cookieFile,
                   const std::map<std::string, std::string>& fields) {
    if (endpoint.empty()) {
        kLog.fail<HttpClientException>(kInvalidParameter, "Got empty URL.");
    }
    if (cookies.empty()) {
        kLog.fail<HttpClientException>(kInvalidParameter, "Got empty cookie file path.");
    }
    *curl = curl_easy_init();
    if (*curl == nullptr) {
        kLog.fail<CurlException>(kCurlInitFailed, "Failed to init curl.");
    }
    setOption(*curl, CURLOPT_URL, "CURLOPT_URL", endpoint.c_str());
    setOption(*curl, CURLOPT_TIMEOUT, "CURLOPT_TIMEOUT", kTransferTimeoutSeconds);
    client.setCurlUserAgent(*curl);
    client.setCurlHTTPS(*curl);
    client.setCurlCookies(*curl, cookieFile.c_str());
    setHeaderLines(*curl, list, fields);
}

// What one request holds. No destructor releases it: an exception that is not a std::exception
// leaves the request at once.
struct Transfer {
    void* curl = nullptr;
    curl_slist* headerList = nullptr;
    char* redirect = nullptr;
    MemoryStruct reply = {nullptr, 0};

    void release() {
        if (curl != nullptr) {
            curl_easy_cleanup(curl);
        }
        if (headerList != nullptr) {
            curl_slist_free_all(headerList);
        }
        std::free(reply.memory);
    }
};

// The pattern of every request: its steps, the handlers, the clean-up, the wrapped failure.
template <class Steps>
void runRequest(const std::string& url, const Steps& steps) {
    Transfer transfer;
    const Failure failure = runGuarded(
        kLog, [&] { steps(transfer); }, [&] { transfer.release(); });
    if (failure.code != kNoError) {
        // The text of POST requests says "Get", too: log readers search for it.
        kLog.fail<HttpClientException>(
            failure.code, "Failed to do HTTP Get request to [" + url + "] due to: " + failure.text);
    }
}

// The body ends at its first NUL byte; no body at all is an empty one.
void parseReply(const MemoryStruct& reply, Json::Value& out) {
    const char* body = reply.memory == nullptr ? "" : reply.memory;
    JsonReader reader;
    if (!reader.parse(body, body + std::strlen(body), out)) {
        kLog.fail<JsonException>(kParseJsonFailed,
                                 "Failed to parse response, might be format problem.");
    }
}

int codeOfTransferFailure(CURLcode result) {
    switch (result) {
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
            return kResolveHostFailed;
        case CURLE_OPERATION_TIMEDOUT:
            return kRequestTimeout;
        case CURLE_PEER_FAILED_VERIFICATION:
            return kCertificateRefused;
        default:
            return kCurlRequestFailed;
    }
}

int codeOfStatus(long status) {
    switch (status / 100) {
        case 3:
            return kCurlRedirectFailed;
        case 4:
            return kClientErrorStatus;
        case 5:
            return status == 503 ? kServiceUnavailable : kServerErrorStatus;
        default:
            return kUnexpectedStatus;
    }
}

// The result is that of the last curl_easy_getinfo().
std::string textOfStatus(const std::string& url, long status, CURLcode result) {
    const std::string text = "URL [" + url + "] replied http status code ";
    const std::string number = std::to_string(status);
    switch (status / 100) {
        case 3:
            return "Failed to get curl redirection url. " + text + "= " + number +
                   ",curl returned: " + std::to_string(result);
        case 4:
            return text + " " + number;  // two blanks, by which log readers know this class
        default:
            return text + number;
    }
}

void restrictToIPv4(void* curl) {
    const CURLcode result = curl_easy_setopt(curl, CURLOPT_IPRESOLVE, long{CURL_IPRESOLVE_V4});
    if (result != CURLE_OK) {
        syslog(LOG_DEBUG, "%s:%d Failed to set CURLOPT_IPRESOLVE: %d,will keep perform curl.",
               kLog.source, __LINE__, static_cast<int>(result));
    }
}

// A signal does not shorten the pause.
void pauseBeforeNextAttempt() {
    timespec pause = {0, kPauseNanoseconds};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

// C code calls the callbacks: no exception may leave them, and their type must be exactly
// libcurl's, so the options below take them as curl_write_callback.
std::size_t writeMemoryCallBack(char* piece, std::size_t size, std::size_t count, void* data) {
    MemoryStruct& chunk = *static_cast<MemoryStruct*>(data);
    const std::size_t length = size * count;
    void* const grown = std::realloc(chunk.memory, chunk.size + length + 1);
    if (grown == nullptr) {
        syslog(LOG_DEBUG, "%s:%d Error: not enough memory (realloc returned NULL)", kLog.source,
               __LINE__);
        return 0;
    }
    chunk.memory = static_cast<char*>(grown);
    std::memcpy(chunk.memory + chunk.size, piece, length);
    chunk.size += length;
    chunk.memory[chunk.size] = '\0';
    return length;
}

std::size_t discardCallBack(char* /*piece*/, std::size_t size, std::size_t count, void* /*data*/) {
    return size * count;
}

}  // namespace

std::string getEncodeQuery(const std::map<std::string, std::string>& params) {
    EscapeHandle curl = makeEscapeHandle(kLog);
    std::string query;
    const auto encode = [&] {
        for (const auto& [name, value] : params) {
            const CurlText escaped(
                curl_easy_escape(curl.get(), value.c_str(), static_cast<int>(value.size())));
            if (escaped == nullptr) {
                // Callers never see this code: below, kEncodeQueryFailed replaces it.
                kLog.fail<CurlException>(kUrlDecodeFailed,
                                         "Failed to do curl_easy_escape for string");
            }
            query.append(query.empty() ? "" : "&").append(name);
            query.append("=").append(escaped.get());
        }
    };
    const Failure failure = runGuarded<CurlException>(kLog, encode, [&] { curl.reset(); });
    if (failure.code != kNoError) {
        kLog.fail<OAuth2ClientException>(kEncodeQueryFailed, failure.text);
    }
    return query;
}

HttpClient::HttpClient(const std::string& endpoint) : HttpClient(endpoint, kThrowAwayCookies) {}

HttpClient::HttpClient(const std::string& endpoint, const std::string& cookies)
    : url(endpoint), respCode(0), cookiesFilePath(cookies) {}

HttpClient::~HttpClient() = default;

long HttpClient::getRespCode() { return respCode; }

std::string HttpClient::getRedirectURL() { return redirectURL; }

std::string HttpClient::getURL() { return url; }

std::string HttpClient::getCookiesFilePath() { return cookiesFilePath; }

void HttpClient::setURL(const std::string& endpoint) { url = endpoint; }

void HttpClient::setCookiesFilePath(const std::string& cookies) { cookiesFilePath = cookies; }

void HttpClient::setHeader(const std::string& name, const std::string& value) {
    syslog(LOG_DEBUG, "%s:%d add header %s: %s", kLog.source, __LINE__, name.c_str(),
           value.c_str());
    headers[name] = value;
}

void HttpClient::get(Json::Value& out) {
    redirectURL.clear();
    runRequest(url, [&](Transfer& transfer) {
        setUpTransfer(*this, &transfer.curl, transfer.headerList, url, cookiesFilePath,
                      cookiesFilePath, headers);
        setCurlWriteCallBack(transfer.curl, &transfer.reply);
        fireRequest(transfer.curl);
        checkHttpResp(transfer.curl, &transfer.redirect);
        parseReply(transfer.reply, out);
    });
}

void HttpClient::get(bool followRedirects) {
    redirectURL.clear();
    runRequest(url, [&](Transfer& transfer) {
        setUpTransfer(*this, &transfer.curl, transfer.headerList, url, cookiesFilePath,
                      cookiesFilePath, headers);
        setOption(transfer.curl, CURLOPT_WRITEFUNCTION, "CURLOPT_WRITEFUNCTION",
                  curl_write_callback{&discardCallBack});
        if (followRedirects) {
            setOption(transfer.curl, CURLOPT_FOLLOWLOCATION, "CURLOPT_FOLLOWLOCATION", 1L);
        }
        fireRequest(transfer.curl);
        checkHttpResp(transfer.curl, &transfer.redirect);
    });
}

void HttpClient::postURLEncodedString(const std::string& body, Json::Value& out) {
    redirectURL.clear();
    runRequest(url, [&](Transfer& transfer) {
        setHeader("Content-Type", "application/x-www-form-urlencoded");
        setHeader("charset", "utf-8");
        setUpTransfer(*this, &transfer.curl, transfer.headerList, url, cookiesFilePath,
                      cookiesFilePath, headers);
        setCurlWriteCallBack(transfer.curl, &transfer.reply);
        setOption(transfer.curl, CURLOPT_CUSTOMREQUEST, "CURLOPT_CUSTOMREQUEST", "POST");
        setOption(transfer.curl, CURLOPT_POSTFIELDS, "CURLOPT_POSTFIELDS", body.c_str());
        fireRequest(transfer.curl);
        checkHttpResp(transfer.curl, &transfer.redirect);
        parseReply(transfer.reply, out);
    });
}

void HttpClient::setCurlCommonInit(void** curl, curl_slist** headerList,
                                   const std::string& endpoint, const std::string& cookies) {
    curl_slist* list = *headerList;  // grows here only: the caller's variable stays as it is
    setUpTransfer(*this, curl, list, endpoint, cookies, cookiesFilePath, headers);
}

void HttpClient::setCurlUserAgent(void* curl) {
    char userAgent[256];
    ORBATOVRAErrSet(0);
    if (ORBATOVRAUserAgentNameGet(userAgent, sizeof userAgent) != 0) {
        syslog(LOG_DEBUG, "%s:%d Failed to get Orbalon usergent: code=%u", kLog.source, __LINE__,
               ORBATOVRAErrGet());
        kLog.fail<TovraException>(kUserAgentFailed, "Failed to get Orbalon usergent");
    }
    setOption(curl, CURLOPT_USERAGENT, "CURLOPT_USERAGENT", static_cast<const char*>(userAgent));
}

void HttpClient::setCurlHTTPS(void* curl) {
    setOption(curl, CURLOPT_SSL_VERIFYPEER, "CURLOPT_SSL_VERIFYPEER", 1L);
    setOption(curl, CURLOPT_SSL_VERIFYHOST, "CURLOPT_SSL_VERIFYHOST", 2L);
    // The bundle, a file, as the folder of certificates: this keeps the hashed folder out, so that
    // only the bundle, which libcurl loads by default, is trusted.
    setOption(curl, CURLOPT_CAPATH, "CURLOPT_CAPATH", kCaBundle);
    // The failure names the value, not the option: log readers search for it.
    setOption(curl, CURLOPT_SSLVERSION, "CURL_SSLVERSION_TLSv1", long{CURL_SSLVERSION_TLSv1});
}

void HttpClient::setCurlCookies(void* curl, const char* path) {
    if (KLIBCFileTouch(path) != 0) {
        kLog.fail<CurlException>(kInvalidCookiePath,
                                 std::string("Invalid cookie file path: ") + path);
    }
    setOption(curl, CURLOPT_COOKIEJAR, "CURLOPT_COOKIEJAR", path);
    setOption(curl, CURLOPT_COOKIEFILE, "CURLOPT_COOKIEFILE", path);
}

void HttpClient::setCurlHeaders(void* curl, curl_slist* list,
                                const std::map<std::string, std::string>& fields) {
    setHeaderLines(curl, list, fields);
}

void HttpClient::setCurlWriteCallBack(void* curl, MemoryStruct* chunk) {
    setOption(curl, CURLOPT_WRITEFUNCTION, "CURLOPT_WRITEFUNCTION",
              curl_write_callback{&writeMemoryCallBack});
    setOption(curl, CURLOPT_WRITEDATA, "CURLOPT_WRITEDATA", chunk);
}

void HttpClient::fireRequest(void* curl) {
    CURLcode result = curl_easy_perform(curl);
    for (int attempt = 2; result != CURLE_OK && attempt <= kAttempts; ++attempt) {
        if (attempt == kAttempts) {
            restrictToIPv4(curl);
        }
        pauseBeforeNextAttempt();
        result = curl_easy_perform(curl);
    }
    if (result != CURLE_OK) {
        const int code = codeOfTransferFailure(result);
        kLog.fail<CurlException>(code, withResult("[" + errCode2Str(code) + "]", result));
    }
}

void HttpClient::checkHttpResp(void* curl, char** redirect) {
    long status = 0;
    CURLcode result = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (result != CURLE_OK) {
        kLog.fail<CurlException>(kCurlResponseFailed,
                                 withResult("Failed to get curl response code", result));
    }
    respCode = status;

    const long statusClass = status / 100;
    if (statusClass == 2) {
        return;
    }
    if (statusClass == 3) {
        result = curl_easy_getinfo(curl, CURLINFO_REDIRECT_URL, redirect);
        if (result == CURLE_OK && *redirect != nullptr) {
            redirectURL = *redirect;
            return;
        }
    }
    kLog.fail<CurlException>(codeOfStatus(status),
                             withResult(textOfStatus(url, status, result), result));
}

}  // namespace ORBA::OAuth2Client::HttpClient
