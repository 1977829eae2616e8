/// @file httpclient.h
/// @brief HTTP requests to one endpoint, on libcurl's easy interface.
#ifndef ORBAOAUTH2CLIENT_HTTPCLIENT_H
#define ORBAOAUTH2CLIENT_HTTPCLIENT_H

#include <json/forwards.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "orbaoauth2client/export.h"

struct curl_slist;

namespace ORBA::OAuth2Client::HttpClient {

/// @brief The bytes of a reply as they come in, always followed by a NUL byte.
///
/// Starts as a null pointer and size 0. libcurl's write callback grows it with realloc(); whoever
/// made the object releases `memory` with free().
struct MemoryStruct {
    char* memory;      ///< The bytes and a NUL; null as long as nothing has come.
    std::size_t size;  ///< The number of bytes, the NUL not counted.
};

/// @brief Builds a query string or form body: "a=1&b=2", in ascending byte order of the names.
///
/// Values are percent-encoded as curl_easy_escape() does it (a blank becomes "%20"). Names are
/// deliberately written as they are: a name that needs encoding must come encoded.
///
/// @param params Names and values; a value is shorter than 2 GiB.
/// @return The query; empty for an empty map.
/// @throws CurlException code 23 when libcurl gives no handle.
/// @throws OAuth2ClientException code 3 (this very class) when a value cannot be encoded or memory
/// runs out.
/// @note Keeps no state; safe from any number of threads at once.
ORBA_OAUTH2CLIENT_API std::string getEncodeQuery(const std::map<std::string, std::string>& params);

/// @brief A client of one endpoint: its URL, its cookie file and its request headers.
///
/// Each request runs on a libcurl handle of its own, which is released, like its header list and
/// its reply buffer, before the request returns or throws. libcurl reads the cookie file before the
/// request and rewrites it afterwards; that is how a session carries from one request to the next.
///
/// Each request has this sequence: redirectURL is emptied; set-up; up to three transfers of at most
/// 30 s each, 0.5 s apart, the third over IPv4 only; the status check; the release. It blocks the
/// calling thread, for about 91 s at worst.
///
/// What a request throws is one HttpClientException with the text "Failed to do HTTP Get request to
/// [URL] due to: REASON" (POST requests say "Get", too) and the code of the reason:
///
/// | Code | Reason |
/// |-----:|--------|
/// |  1 | any std::exception that is not the library's own, for example std::bad_alloc |
/// |  2 | the reply is not JSON |
/// | 12 | the URL or the cookie file path is empty |
/// | 14, 15, 17, 16 | HTTP status 4xx; 5xx; 503; below 200 or above 599 |
/// | 18 | the device's user agent is not to be had |
/// | 23, 25 | libcurl gives no handle; refuses an option |
/// | 24 | the cookie file cannot be created |
/// | 26, 31, 32, 33 | the transfer failed; the host was not resolved; time-out; certificate refused
/// | | 27, 28 | the status is not to be had; a 3xx reply without redirect URL |
///
/// Exceptions that do not derive from std::exception are not caught; then, and only then, the
/// request releases nothing.
///
/// An object serves one thread at a time; different objects are independent of each other, save
/// that those with the same cookie file share its cookies.
class ORBA_OAUTH2CLIENT_API HttpClient {
  public:
    /// @brief A client with the throw-away cookie file "/tmp/dontcarecookies".
    /// @param endpoint The URL; checked when a request is made.
    HttpClient(const std::string& endpoint);

    /// @param endpoint The URL; checked when a request is made.
    /// @param cookies The path of the cookie file (Netscape format); created when it is missing.
    HttpClient(const std::string& endpoint, const std::string& cookies);

    ~HttpClient();

    /// @return The HTTP status of the last response, 0 before the first one. It is set before the
    /// status is judged, so that it can be read after an exception.
    long getRespCode();

    /// @return The absolute redirect URL of the last response; empty when it was no redirect.
    std::string getRedirectURL();

    /// @return The URL of the next request.
    std::string getURL();

    /// @return The path of the cookie file.
    std::string getCookiesFilePath();

    /// @param endpoint The URL of the next request; not checked here.
    void setURL(const std::string& endpoint);

    /// @param cookies The path of the cookie file of the next request; not checked here.
    void setCookiesFilePath(const std::string& cookies);

    /// @brief Sets a header for this and all later requests of this object; there is no way back.
    /// @param name The header's name. Names are told apart byte by byte, letter case included; the
    /// value of a known name is replaced.
    /// @param value The header's value. It stands in the debug log.
    void setHeader(const std::string& name, const std::string& value);

    /// @brief GETs the URL and parses the reply as JSON (comments are kept). Redirects are not
    /// followed: a 3xx reply is parsed like any other.
    /// @param out Receives the reply; on failure it holds whatever was parsed so far.
    /// @throws HttpClientException see the class.
    void get(Json::Value& out);

    /// @brief GETs the URL for its status and redirect URL; the reply is thrown away.
    /// @param followRedirects With true libcurl follows redirects and the last response counts.
    /// With false the first one counts, and a 3xx reply leaves its target for getRedirectURL().
    /// @throws HttpClientException see the class.
    void get(bool followRedirects);

    /// @brief POSTs a form body and parses the reply as JSON (comments are kept).
    ///
    /// Sets the headers "Content-Type: application/x-www-form-urlencoded" and "charset: utf-8"
    /// (deliberately a header of its own); both stay with the object.
    ///
    /// @param body The encoded form; what follows a NUL byte is not sent.
    /// @param out Receives the reply; on failure it holds whatever was parsed so far.
    /// @throws HttpClientException see the class.
    void postURLEncodedString(const std::string& body, Json::Value& out);

    /// @name Steps of a request
    /// The request operations call these in order; a service has no need to. `curl` is a libcurl
    /// easy handle. Each throws as told; a failed step leaves the handle to the caller, who
    /// releases it with curl_easy_cleanup().
    /// @{

    /// @brief Makes a handle and sets what every request has: URL, time-out (30 s), user agent,
    /// TLS, cookies, headers.
    /// @param curl Receives the new handle as soon as it exists.
    /// @param headerList The caller's header list; its value goes to setCurlHeaders(), the variable
    /// keeps it.
    /// @param endpoint The URL.
    /// @param cookies Only checked for emptiness: the cookie file that is used is the object's.
    /// @throws HttpClientException code 12 for an empty `endpoint` or `cookies`; nothing was made.
    /// @throws CurlException code 23 when libcurl gives no handle, code 25 when it refuses an
    /// option, code 24 from setCurlCookies().
    /// @throws TovraException code 18 from setCurlUserAgent().
    void setCurlCommonInit(void** curl, curl_slist** headerList, const std::string& endpoint,
                           const std::string& cookies);

    /// @brief Sets the device's user agent, as the account-service library tells it.
    /// @throws TovraException code 18 when it does not. @throws CurlException code 25.
    void setCurlUserAgent(void* curl);

    /// @brief Has the server's certificate and host name checked and asks for TLS 1.0 or later.
    /// @throws CurlException code 25.
    void setCurlHTTPS(void* curl);

    /// @brief Creates the cookie file when it is missing, and has libcurl read and rewrite it.
    /// @throws CurlException code 24 when it cannot be created, code 25.
    void setCurlCookies(void* curl, const char* path);

    /// @brief Appends a line "name: value" for each header field to `list` and sets it on the
    /// handle. No field, no option.
    ///
    /// The list must live as long as the handle uses it. Within a request, the request releases it.
    /// A caller who calls this alone passes a list of at least one line, to which the lines are
    /// appended in place, and releases that; the lines of a list begun here (`list` null) are not
    /// handed back.
    /// @throws CurlException code 25.
    void setCurlHeaders(void* curl, curl_slist* list,
                        const std::map<std::string, std::string>& fields);

    /// @brief Has the reply collected in `chunk`, which must outlive the transfer.
    /// @throws CurlException code 25.
    void setCurlWriteCallBack(void* curl, MemoryStruct* chunk);

    /// @brief Runs the transfer: up to three attempts 0.5 s apart, the third over IPv4 only. What
    /// an attempt has put into the reply buffer stays there.
    /// @throws CurlException with the result of the last attempt: code 31 (libcurl's results 5 and
    /// 6), 32 (28), 33 (60), 26 (any other).
    void fireRequest(void* curl);

    /// @brief Reads the response's status into the object and judges it.
    /// @param curl The handle of a completed transfer.
    /// @param redirect Receives, for a 3xx response, libcurl's pointer to the redirect URL, which
    /// lives as long as the handle.
    /// @throws CurlException code 27, 28, 14, 15, 17 or 16, see the class.
    void checkHttpResp(void* curl, char** redirect);

    /// @}

  private:
    std::string url;
    std::int64_t respCode;
    std::string redirectURL;
    std::string cookiesFilePath;
    std::map<std::string, std::string> headers;
};

}  // namespace ORBA::OAuth2Client::HttpClient

#endif
