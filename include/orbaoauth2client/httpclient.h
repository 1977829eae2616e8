/// @file httpclient.h
/// @brief HTTP requests to one endpoint, on libcurl's easy interface.
///
/// To sign in, a service needs only getEncodeQuery() of this file: OAuth2 (oauth2.h) and PKCE
/// (pkce.h) make their own requests.
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

/// @brief The bytes of a reply received so far, followed by a NUL byte.
///
/// Initially a null pointer and size 0. libcurl's write callback grows it with realloc(); the owner
/// of the object releases `memory` with free().
struct MemoryStruct {
    char* memory;      ///< The bytes and a NUL; null until something is received.
    std::size_t size;  ///< The number of bytes without the NUL.
};

/// @brief Builds a query string or form body: "a=1&b=2", in ascending byte order of the names.
///
/// Values are percent-encoded (RFC 3986, section 2.1) as curl_easy_escape() does it: every byte but
/// letters, digits, "-", ".", "_" and "~"; a space becomes "%20", never "+". Names are copied
/// unchanged, because those of OAuth2 need no encoding; encode any other name first.
///
/// @param params Names and values. With libcurl 7.88 a value can have 23,999,999 bytes, or
/// 7,999,999 if all of them need encoding.
/// @return The query; empty for an empty map.
/// @throws CurlException code 23 if libcurl returns no handle.
/// @throws OAuth2ClientException code 3 (exactly this class) if a value cannot be encoded or memory
/// runs out.
/// @note Stateless; can be called from any number of threads at once.
ORBA_OAUTH2CLIENT_API std::string getEncodeQuery(const std::map<std::string, std::string>& params);

/// @brief A client of one endpoint: its URL, its cookie file and its request headers.
///
/// Each request has its own libcurl handle, which is released with its header list and reply buffer
/// before the request returns or throws. libcurl reads the cookie file before the request and
/// rewrites it afterwards, so a session continues from one request to the next.
///
/// A request clears the redirect URL, sets up a handle, makes up to three transfers of at most 30 s
/// each, 0.5 s apart (the third over IPv4 only), checks the status, and releases everything. It
/// blocks the calling thread: transfers for up to 91 s, and beyond that while a name is resolved
/// (121 s were measured with an unreachable name server), a reply is parsed (640 KB of JSON
/// comments take 33 s), or a log line is delivered. Nothing cancels it.
///
/// libcurl may ignore SIGPIPE during a transfer and restore it afterwards, for the whole process:
/// with overlapping requests the last one to end decides, and children that are started meanwhile
/// inherit it. Set SIGPIPE to SIG_IGN at the start of the process. Threads that make requests need
/// a stack of 512 KiB or more: 1 to 2 kB of nested JSON in a reply use it.
///
/// URLs that begin with "https:" are verified against the CA bundle
/// "/etc/ssl/certs/ca-certificates.crt" only. Other schemes, including "http:", are requested as
/// they are.
///
/// A failed request throws an HttpClientException with the text "Failed to do HTTP Get request to
/// [URL] due to: REASON" ("Get" for POST requests, too) and the code of the reason, or, if memory
/// runs out while that text is built, std::bad_alloc:
///
/// | Code | Reason |
/// |-----:|--------|
/// |  1 | a std::exception of another class, for example std::bad_alloc |
/// |  2 | the reply is not JSON |
/// | 12 | the URL or the cookie file path is empty |
/// | 14 | HTTP status 400 to 499 |
/// | 15 | HTTP status 500 to 599, but for 503 |
/// | 16 | HTTP status below 200 or above 599 |
/// | 17 | HTTP status 503 |
/// | 18 | the device's user agent is unavailable |
/// | 23 | libcurl returns no handle |
/// | 24 | the cookie file cannot be created |
/// | 25 | libcurl refuses an option |
/// | 26 | the last transfer failed for another reason |
/// | 27 | no HTTP status is available |
/// | 28 | HTTP status 300 to 399 without a redirect URL |
/// | 31 | the host, or the proxy that the environment names, was not resolved |
/// | 32 | the last transfer took longer than 30 s |
/// | 33 | the server's certificate was refused |
///
/// Codes 26, 31, 32 and 33 are those of the last of three attempts; the text ends in libcurl's
/// result (man 3 libcurl-errors).
///
/// An exception that is no std::exception (a thread that is cancelled) passes through and leaks the
/// handle, the header list and the buffer.
///
/// An object serves one thread at a time. Objects are independent of each other unless they share a
/// cookie file.
class ORBA_OAUTH2CLIENT_API HttpClient {
  public:
    /// @brief A client with the cookie file "/tmp/dontcarecookies", which all such clients share.
    /// @param endpoint The URL; checked when a request is made.
    HttpClient(const std::string& endpoint);

    /// @brief A client with its own cookie file.
    /// @param endpoint The URL; checked when a request is made.
    /// @param cookies The path of the cookie file (Netscape format); checked, and created if it is
    /// missing, when a request is made.
    HttpClient(const std::string& endpoint, const std::string& cookies);

    ~HttpClient();

    /// @brief Returns the HTTP status of the last response (RFC 9110, section 15).
    /// @return The status; 0 before the first response. It can be read after an exception for that
    /// status. A request without a response does not change it.
    long getRespCode();

    /// @brief Returns the URL that the last response redirects to.
    /// @return The absolute URL, as libcurl rebuilds it (CURLINFO_REDIRECT_URL); empty when the
    /// response was no redirect or there was none.
    std::string getRedirectURL();

    /// @brief Returns the URL of the next request.
    /// @return The URL, as it was set.
    std::string getURL();

    /// @brief Returns the path of the cookie file.
    /// @return Its path, as it was set.
    std::string getCookiesFilePath();

    /// @brief Replaces the URL. Status, redirect URL, headers and cookie file stay as they are.
    /// @param endpoint The URL of the next request; not checked here.
    void setURL(const std::string& endpoint);

    /// @brief Replaces the path of the cookie file. The old file stays where it is.
    /// @param cookies The path of the cookie file of the next request; not checked here.
    void setCookiesFilePath(const std::string& cookies);

    /// @brief Sets a header for all later requests of this object; it cannot be removed.
    /// @param name The header's name, case-sensitive; the value of an existing name is replaced.
    /// @param value The header's value. It is not checked (it must not contain CR or LF) and is
    /// written to the debug log. With an empty value libcurl sends no header of that name, not even
    /// its own.
    void setHeader(const std::string& name, const std::string& value);

    /// @brief GETs the URL and parses the reply as JSON (comments are kept).
    ///
    /// Redirects are not followed: a 3xx reply is parsed like any other.
    /// @param out Receives the reply; after a failure it holds what was parsed so far.
    /// @throws HttpClientException with a code of the table above.
    /// @note An attempt that breaks off leaves its bytes in the buffer. If they are a complete JSON
    /// value, that value is the result, not the reply of the attempt that succeeded; else the reply
    /// is usually no JSON (code 2).
    void get(Json::Value& out);

    /// @brief GETs the URL for its status and redirect URL; the reply is discarded.
    /// @param followRedirects If true, libcurl follows redirects (whatever their scheme) and the
    /// last response counts. If false, the first response counts; getRedirectURL() returns its
    /// target.
    /// @throws HttpClientException with a code of the table above except 2.
    void get(bool followRedirects);

    /// @brief Deleted: a pointer would be converted to the flag of get(bool).
    void get(Json::Value* out) = delete;

    /// @brief POSTs a form body and parses the reply as JSON (comments are kept).
    ///
    /// Sets the headers "Content-Type: application/x-www-form-urlencoded" and "charset: utf-8" (a
    /// separate header: this media type has no parameters); both remain set.
    ///
    /// @param body The form, encoded by the caller (see getEncodeQuery()), up to its first NUL
    /// byte.
    /// @param out Receives the reply; after a failure it holds what was parsed so far.
    /// @throws HttpClientException with a code of the table above.
    /// @note Each attempt sends the body again; see also the note at get().
    void postURLEncodedString(const std::string& body, Json::Value& out);

    /// @name Steps of a request
    /// The request operations call these in order; a service need not. Each throws what is listed,
    /// unwrapped. After a failed step the caller releases the handle with curl_easy_cleanup().
    /// Names in capitals are libcurl's (man 3 CURLOPT_URL and so on).
    /// @{

    /// @brief Creates a handle and sets what every request has: URL, timeout (30 s), user agent,
    /// TLS, cookies, headers.
    /// @param curl Receives the new handle as soon as it exists.
    /// @param headerList The caller's header list; passed by value to setCurlHeaders().
    /// @param endpoint The URL of the transfer (CURLOPT_URL).
    /// @param cookies Must not be empty, but is not used: the cookie file is that of the object.
    /// @throws HttpClientException code 12 for an empty `endpoint` or `cookies`; no handle is
    /// created.
    /// @throws CurlException code 23 if libcurl returns no handle, code 25 if it refuses an option,
    /// code 24 from setCurlCookies().
    /// @throws TovraException code 18 from setCurlUserAgent().
    void setCurlCommonInit(void** curl, curl_slist** headerList, const std::string& endpoint,
                           const std::string& cookies);

    /// @brief Sets the device's user agent, obtained from the account-service library
    /// (CURLOPT_USERAGENT).
    /// @param curl A libcurl easy handle.
    /// @throws TovraException code 18 if it is unavailable.
    /// @throws CurlException code 25 if libcurl refuses the option.
    void setCurlUserAgent(void* curl);

    /// @brief Enables verification of the server's certificate and host name, and TLS 1.0 or later
    /// (CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CAPATH, CURLOPT_SSLVERSION).
    /// @param curl A libcurl easy handle.
    /// @throws CurlException code 25 if libcurl refuses an option.
    void setCurlHTTPS(void* curl);

    /// @brief Creates the cookie file if it is missing, and makes libcurl read it before the
    /// transfer and rewrite it when the handle is released (CURLOPT_COOKIEFILE, CURLOPT_COOKIEJAR).
    /// @param curl A libcurl easy handle.
    /// @param path The path of the cookie file.
    /// @throws CurlException code 24 if the file cannot be created or opened for writing, code 25
    /// if libcurl refuses an option.
    void setCurlCookies(void* curl, const char* path);

    /// @brief Appends a line "name: value" for each header field to `list` and sets it on the
    /// handle (CURLOPT_HTTPHEADER). Without fields the option is not set.
    ///
    /// The list must live as long as the handle uses it. A caller passes a list of at least one
    /// line, to which the lines are appended in place, and releases it; a list that is begun here
    /// (`list` null) is not returned and leaks.
    /// @param curl A libcurl easy handle.
    /// @param list The list to append to, or null. The caller's variable is not changed.
    /// @param fields Names and values, sent in ascending byte order of the names.
    /// @throws CurlException code 25 if libcurl refuses the option.
    void setCurlHeaders(void* curl, curl_slist* list,
                        const std::map<std::string, std::string>& fields);

    /// @brief Collects the reply in a buffer (CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA).
    /// @param curl A libcurl easy handle.
    /// @param chunk The buffer; it must outlive the transfer. Its owner releases its memory.
    /// @throws CurlException code 25 if libcurl refuses an option.
    void setCurlWriteCallBack(void* curl, MemoryStruct* chunk);

    /// @brief Runs the transfer: up to three attempts 0.5 s apart, the third over IPv4 only
    /// (CURLOPT_IPRESOLVE, which stays set).
    ///
    /// The bytes that a failed attempt received stay in the buffer.
    /// @param curl A libcurl easy handle with all options set.
    /// @throws CurlException with the result of the last attempt: code 31 (libcurl's results 5 and
    /// 6), 32 (28), 33 (60), 26 (any other).
    void fireRequest(void* curl);

    /// @brief Stores the response's status and, for a 3xx response, its redirect URL in the object,
    /// and checks the status (CURLINFO_RESPONSE_CODE, CURLINFO_REDIRECT_URL).
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
