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
#include <vector>

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

// The header lists of the request that runs on this thread. setCurlHeaders() must not change its
// caller's variable, so the request finds here what it has to release. A list is noted when it
// begins, because a curl_slist_append() that fails loses it.
class HeaderLists {
  public:
    HeaderLists() : outer(current) { current = this; }
    ~HeaderLists() { current = outer; }
    HeaderLists(const HeaderLists&) = delete;
    HeaderLists& operator=(const HeaderLists&) = delete;

    static curl_slist* append(curl_slist* list, const char* line) {
        if (list != nullptr || current == nullptr) {
            return curl_slist_append(list, line);
        }
        std::vector<curl_slist*>& lists = current->lists;
        lists.push_back(nullptr);
        lists.back() = curl_slist_append(nullptr, line);
        return lists.back();
    }

    void release() {
        for (curl_slist* list : lists) {
            if (list != nullptr) {
                curl_slist_free_all(list);
            }
        }
        lists.clear();
    }

  private:
    static thread_local HeaderLists* current;
    HeaderLists* outer;
    std::vector<curl_slist*> lists;
};

thread_local HeaderLists* HeaderLists::current = nullptr;

// What one request holds. Deliberately without a destructor that releases: an exception that
// nothing catches releases nothing.
struct Transfer {
    void* curl = nullptr;
    curl_slist* headerList = nullptr;
    char* redirect = nullptr;
    MemoryStruct reply = {nullptr, 0};
    HeaderLists headerLists;

    void release() {
        if (curl != nullptr) {
            curl_easy_cleanup(curl);
        }
        headerLists.release();
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
        // POST requests say "Get", too: deliberate.
        kLog.fail<HttpClientException>(
            failure.code, "Failed to do HTTP Get request to [" + url + "] due to: " + failure.text);
    }
}

// The body ends at its first NUL byte; no body at all is an empty one.
void parseReply(const MemoryStruct& reply, Json::Value& out) {
    const char* body = reply.memory == nullptr ? "" : reply.memory;
    if (!parseJson(body, body + std::strlen(body), out)) {
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

// The callbacks are called by C code: no exception may leave them, and their type must be libcurl's
// to the letter, so the options below take them as curl_write_callback.
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
                // The code is never seen: it is replaced below, like that of any failure here.
                kLog.fail<CurlException>(kUrlDecodeFailed,
                                         "Failed to do curl_easy_escape for string");
            }
            query.append(query.empty() ? "" : "&").append(name);
            query.append("=").append(escaped.get());
        }
    };
    const Failure failure = runGuarded(kLog, encode, [&] { curl.reset(); });
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
        setCurlCommonInit(&transfer.curl, &transfer.headerList, url, cookiesFilePath);
        setCurlWriteCallBack(transfer.curl, &transfer.reply);
        fireRequest(transfer.curl);
        checkHttpResp(transfer.curl, &transfer.redirect);
        parseReply(transfer.reply, out);
    });
}

void HttpClient::get(bool followRedirects) {
    redirectURL.clear();
    runRequest(url, [&](Transfer& transfer) {
        setCurlCommonInit(&transfer.curl, &transfer.headerList, url, cookiesFilePath);
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
        setCurlCommonInit(&transfer.curl, &transfer.headerList, url, cookiesFilePath);
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
    setCurlUserAgent(*curl);
    setCurlHTTPS(*curl);
    setCurlCookies(*curl, cookiesFilePath.c_str());
    setCurlHeaders(*curl, *headerList, headers);
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
    // A file given as the folder of certificates: deliberate. It keeps the hashed folder out, so
    // that only the bundle, which libcurl loads by default, is trusted.
    setOption(curl, CURLOPT_CAPATH, "CURLOPT_CAPATH", kCaBundle);
    // The failure names the value, not the option: deliberate.
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
    if (fields.empty()) {
        return;
    }
    std::string line;
    for (const auto& [name, value] : fields) {
        line.assign(name).append(": ").append(value);
        list = HeaderLists::append(list, line.c_str());
        syslog(LOG_DEBUG, "%s:%d set curl custom http header %s", kLog.source, __LINE__,
               line.c_str());
    }
    setOption(curl, CURLOPT_HTTPHEADER, "CURLOPT_HTTPHEADER", list);
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

    int code = kUnexpectedStatus;
    std::string text = "URL [" + url + "] replied http status code ";
    switch (status / 100) {
        case 2:
            return;
        case 3:
            result = curl_easy_getinfo(curl, CURLINFO_REDIRECT_URL, redirect);
            if (result == CURLE_OK && *redirect != nullptr) {
                redirectURL = *redirect;
                return;
            }
            code = kCurlRedirectFailed;
            text.insert(0, "Failed to get curl redirection url. ");
            text += "= " + std::to_string(status) + ",curl returned: " + std::to_string(result);
            break;
        case 4:
            // Two blanks before the status: deliberate.
            code = kClientErrorStatus;
            text += " " + std::to_string(status);
            break;
        case 5:
            code = status == 503 ? kServiceUnavailable : kServerErrorStatus;
            text += std::to_string(status);
            break;
        default:
            text += std::to_string(status);
            break;
    }
    kLog.fail<CurlException>(code, withResult(text, result));
}

}  // namespace ORBA::OAuth2Client::HttpClient
