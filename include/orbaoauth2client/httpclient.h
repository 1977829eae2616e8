/// @file httpclient.h
/// @brief HTTP requests to one endpoint, on libcurl's easy interface.
///
/// A service that signs in needs getEncodeQuery() of this file, and the rest only for requests of
/// its own: OAuth2 (oauth2.h) and PKCE (pkce.h) make theirs themselves.
#ifndef ORBAOAUTH2CLIENT_HTTPCLIENT_H
#define ORBAOAUTH2CLIENT_HTTPCLIENT_H

#include <json/forwards.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "orbaoauth2client/export.h"

struct curl_slist;

/// @brief HTTP requests to one endpoint.
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
/// Values are percent-encoded (RFC 3986, section 2.1) as curl_easy_escape() does it: every byte but
/// letters, digits, "-", ".", "_" and "~"; a blank becomes "%20", never "+". Names are deliberately
/// written as they are: a name that needs encoding must come encoded.
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
/// Each request has this sequence: the redirect URL is emptied; set-up; up to three transfers of at
/// most 30 s each, 0.5 s apart, the third over IPv4 only; the status check; the release. It blocks
/// the calling thread, for about 91 s at worst.
///
/// Servers are checked against the CA bundle "/etc/ssl/certs/ca-certificates.crt" and nothing else,
/// for URLs that begin with "https:". Other schemes, "http:" included, are requested as they are.
///
/// What a request throws is one HttpClientException with the text "Failed to do HTTP Get request to
/// [URL] due to: REASON" (POST requests say "Get", too) and the code of the reason:
///
/// | Code | Reason |
/// |-----:|--------|
/// |  1 | any std::exception that is not the library's own, for example std::bad_alloc |
/// |  2 | the reply is not JSON |
/// | 12 | the URL or the cookie file path is empty |
/// | 14 | HTTP status 400 to 499 |
/// | 15 | HTTP status 500 to 599, but for 503 |
/// | 16 | HTTP status below 200 or above 599 |
/// | 17 | HTTP status 503 |
/// | 18 | the device's user agent is not to be had |
/// | 23 | libcurl gives no handle |
/// | 24 | the cookie file cannot be created |
/// | 25 | libcurl refuses an option |
/// | 26 | the last transfer failed for a reason that has no code of its own |
/// | 27 | the HTTP status is not to be had |
/// | 28 | HTTP status 300 to 399 without a redirect URL |
/// | 31 | the host, or the proxy that the environment names, was not resolved |
/// | 32 | the last transfer took longer than 30 s |
/// | 33 | the server's certificate was refused |
///
/// Codes 26, 31, 32 and 33 speak of the last of three attempts; the text ends in libcurl's own
/// result (man 3 libcurl-errors).
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

    /// @brief A client with a cookie file of its own.
    /// @param endpoint The URL; checked when a request is made.
    /// @param cookies The path of the cookie file (Netscape format); checked and, when it is
    /// missing, created when a request is made.
    HttpClient(const std::string& endpoint, const std::string& cookies);

    ~HttpClient();

    /// @brief Tells the HTTP status of the last response (RFC 9110, section 15).
    /// @return The status; 0 before the first response. It is set before it is judged, so that it
    /// can be read after an exception. A request without a response leaves it as it was.
    long getRespCode();

    /// @brief Tells where the last response redirects to.
    /// @return The absolute URL, as libcurl rebuilds it (CURLINFO_REDIRECT_URL); empty when the
    /// response was no redirect or there was none.
    std::string getRedirectURL();

    /// @brief Tells the URL of the next request.
    /// @return The URL, as it was set.
    std::string getURL();

    /// @brief Tells the cookie file.
    /// @return Its path, as it was set.
    std::string getCookiesFilePath();

    /// @brief Replaces the URL. Status, redirect URL, headers and cookie file stay as they are.
    /// @param endpoint The URL of the next request; not checked here.
    void setURL(const std::string& endpoint);

    /// @brief Replaces the path of the cookie file. The old file stays where it is.
    /// @param cookies The path of the cookie file of the next request; not checked here.
    void setCookiesFilePath(const std::string& cookies);

    /// @brief Sets a header for this and all later requests of this object; there is no way back.
    /// @param name The header's name. Names are told apart byte by byte, letter case included; the
    /// value of a known name is replaced.
    /// @param value The header's value, without CR or LF: nothing is checked. It stands in the
    /// debug log. With an empty one libcurl sends no header, not even its own of that name.
    void setHeader(const std::string& name, const std::string& value);

    /// @brief GETs the URL and parses the reply as JSON (comments are kept).
    ///
    /// Redirects are not followed: a 3xx reply is parsed like any other.
    /// @param out Receives the reply; on failure it holds whatever was parsed so far.
    /// @throws HttpClientException with a code of the table above.
    void get(Json::Value& out);

    /// @brief GETs the URL for its status and redirect URL; the reply is thrown away.
    /// @param followRedirects With true libcurl follows redirects and the last response counts.
    /// With false the first one counts, and a 3xx reply leaves its target for getRedirectURL().
    /// @throws HttpClientException with a code of the table above, but for 2.
    void get(bool followRedirects);

    /// @brief Deleted: a pointer would be taken for the flag of get(bool).
    void get(Json::Value* out) = delete;

    /// @brief POSTs a form body and parses the reply as JSON (comments are kept).
    ///
    /// Sets the headers "Content-Type: application/x-www-form-urlencoded" and "charset: utf-8"
    /// (deliberately a header of its own); both stay with the object.
    ///
    /// @param body The form, encoded by the caller (application/x-www-form-urlencoded, see
    /// getEncodeQuery()); what follows a NUL byte is not sent.
    /// @param out Receives the reply; on failure it holds whatever was parsed so far.
    /// @throws HttpClientException with a code of the table above.
    void postURLEncodedString(const std::string& body, Json::Value& out);

    /// @name Steps of a request
    /// The request operations call these in order; a service has no need to. Each throws as told
    /// and wraps nothing. A failed step leaves the handle to the caller, who releases it with
    /// curl_easy_cleanup(). The names in capitals are libcurl's (man 3 CURLOPT_URL and so on).
    /// @{

    /// @brief Makes a handle and sets what every request has: URL, time-out (30 s), user agent,
    /// TLS, cookies, headers.
    /// @param curl Receives the new handle as soon as it exists.
    /// @param headerList The caller's header list; its value goes to setCurlHeaders(), the variable
    /// keeps it.
    /// @param endpoint The URL of the transfer (CURLOPT_URL).
    /// @param cookies Only checked for emptiness: the cookie file that is used is the object's.
    /// @throws HttpClientException code 12 for an empty `endpoint` or `cookies`; nothing was made.
    /// @throws CurlException code 23 when libcurl gives no handle, code 25 when it refuses an
    /// option, code 24 from setCurlCookies().
    /// @throws TovraException code 18 from setCurlUserAgent().
    void setCurlCommonInit(void** curl, curl_slist** headerList, const std::string& endpoint,
                           const std::string& cookies);

    /// @brief Sets the device's user agent, as the account-service library tells it
    /// (CURLOPT_USERAGENT).
    /// @param curl A libcurl easy handle.
    /// @throws TovraException code 18 when the account-service library does not tell it.
    /// @throws CurlException code 25 when libcurl refuses the option.
    void setCurlUserAgent(void* curl);

    /// @brief Has the server's certificate and host name checked and asks for TLS 1.0 or later
    /// (CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CAPATH, CURLOPT_SSLVERSION).
    /// @param curl A libcurl easy handle.
    /// @throws CurlException code 25 when libcurl refuses an option.
    void setCurlHTTPS(void* curl);

    /// @brief Creates the cookie file when it is missing, and has libcurl read it before the
    /// transfer and rewrite it at the handle's release (CURLOPT_COOKIEFILE, CURLOPT_COOKIEJAR).
    /// @param curl A libcurl easy handle.
    /// @param path The path of the cookie file.
    /// @throws CurlException code 24 when the file cannot be created or opened for writing, code 25
    /// when libcurl refuses an option.
    void setCurlCookies(void* curl, const char* path);

    /// @brief Appends a line "name: value" for each header field to `list` and sets it on the
    /// handle (CURLOPT_HTTPHEADER). No field, no option.
    ///
    /// The list must live as long as the handle uses it. Within a request, the request releases it.
    /// A caller who calls this alone passes a list of at least one line, to which the lines are
    /// appended in place, and releases that; the lines of a list begun here (`list` null) are not
    /// handed back.
    /// @param curl A libcurl easy handle.
    /// @param list The list to append to, or null. The caller's variable keeps its value.
    /// @param fields Names and values, sent in ascending byte order of the names.
    /// @throws CurlException code 25 when libcurl refuses the option.
    void setCurlHeaders(void* curl, curl_slist* list,
                        const std::map<std::string, std::string>& fields);

    /// @brief Has the reply collected (CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA).
    /// @param curl A libcurl easy handle.
    /// @param chunk The buffer; it must outlive the transfer. Its owner releases what it holds.
    /// @throws CurlException code 25 when libcurl refuses an option.
    void setCurlWriteCallBack(void* curl, MemoryStruct* chunk);

    /// @brief Runs the transfer: up to three attempts 0.5 s apart, the third over IPv4 only
    /// (CURLOPT_IPRESOLVE, which stays set).
    ///
    /// What an attempt has put into the reply buffer stays there.
    /// @param curl A libcurl easy handle on which everything is set.
    /// @throws CurlException with the result of the last attempt: code 31 (libcurl's results 5 and
    /// 6), 32 (28), 33 (60), 26 (any other).
    void fireRequest(void* curl);

    /// @brief Reads the response's status and, for a 3xx response, its redirect URL into the
    /// object, and judges the status (CURLINFO_RESPONSE_CODE, CURLINFO_REDIRECT_URL).
    /// @param curl The handle of a completed transfer.
    /// @param redirect Receives, for a 3xx response, libcurl's pointer to the redirect URL, which
    /// lives as long as the handle.
    /// @throws CurlException code 14, 15, 16, 17, 27 or 28, with the meaning of the table above.
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
