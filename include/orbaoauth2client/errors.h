/// @file errors.h
/// @brief The error codes, their messages, and the exceptions that carry them.
///
/// Every failure that the library reports is an exception of one of the classes below with a code
/// of this table; errCode2Str() returns its message. Codes never change their meaning; 6 is unused.
///
/// | Code | Message |
/// |-----:|---------|
/// |  0 | No Error. |
/// |  1 | Unexpected exception happened. |
/// |  2 | Failed to parse json. |
/// |  3 | Failed to encode query string. |
/// |  4 | Failed to get login_challenge from OAuth2 Server. |
/// |  5 | Failed to get callback URL. |
/// |  7 | State string cannot be empty in AuthURL. |
/// |  8 | State string in callback url is not the same as we generated. |
/// |  9 | Failed to generate random state string. |
/// | 10 | Failed to get this NAS's serial number. |
/// | 11 | Failed to allocate hash table. |
/// | 12 | Invalid parameters. |
/// | 13 | Failed to get redirection URL from response. |
/// | 14 | Got response with client error status code. |
/// | 15 | Got response with server error status code. |
/// | 16 | Got response with unexpected status code. |
/// | 17 | Service unavailable. |
/// | 18 | Failed to get this NAS's useragent string with Tovra. |
/// | 19 | Failed to get account information with Tovra. |
/// | 20 | Failed to get Orbalon Account's server config with Tovra. |
/// | 21 | Failed to send request to Orbalon Account with Tovra. |
/// | 22 | Authentication failed in Orbalon Account with Tovra. |
/// | 23 | Failed to init Curl. |
/// | 24 | Invalid cookie path. |
/// | 25 | Failed to config Curl. |
/// | 26 | Failed to send http request with Curl. |
/// | 27 | Failed to get http response from Curl. |
/// | 28 | Failed to get redirection URL from Curl. |
/// | 29 | Failed to URLencode string with Curl. |
/// | 30 | Failed to URLdecode string with Curl. |
/// | 31 | Failed to resolve host of url. |
/// | 32 | Request timeout. |
/// | 33 | The remote server's SSL certificate was deemed not OK. |
///
/// The text of an exception says more than its code's message: what failed, where, and with which
/// number. No operation raises 7, 8, 9, 13 or 29: generating and comparing `state` is left to the
/// caller, and a failed encoding has code 3.
#ifndef ORBAOAUTH2CLIENT_ERRORS_H
#define ORBAOAUTH2CLIENT_ERRORS_H

#include <exception>
#include <string>

#include "orbaoauth2client/export.h"

/// @brief The library: sign-in (OAuth2), tokens (PKCE), requests (HttpClient), errors, URLs.
namespace ORBA::OAuth2Client {

/// @brief Returns the message of an error code.
/// @param code An error code; any number is accepted.
/// @return The message in the table of errors.h; an empty string for any other number.
/// @throws std::bad_alloc if memory runs out.
/// @note Can be called from any number of threads at once.
ORBA_OAUTH2CLIENT_API std::string errCode2Str(int code);

/// @brief The base of all exceptions of the library: a code and a text.
///
/// Catching it catches every failure that the library itself reports; the subclasses say which
/// layer failed. The operations of OAuth2 (see oauth2.h) and HttpClient::getEncodeQuery() throw
/// exactly this class.
///
/// Some failures have no code: std::bad_alloc, exceptions of jsoncpp that refreshAccessToken()
/// passes on, and a grant that the account-service library refuses. Catch std::exception as well.
class ORBA_OAUTH2CLIENT_API OAuth2ClientException : public std::exception {
  public:
    /// @brief Stores a code and a text.
    /// @param errorCode An error code; it is not checked.
    /// @param text The text for what(), stored whole, including NUL bytes.
    OAuth2ClientException(int errorCode, const std::string& text)
        : code(errorCode), message(text) {}

    ~OAuth2ClientException() override = default;
    OAuth2ClientException(const OAuth2ClientException&) = default;
    OAuth2ClientException& operator=(const OAuth2ClientException&) = default;

    /// @brief Says what failed, where, and with which number.
    /// @return The text; it lives as long as this object. It may quote URLs and replies that
    /// contain secrets: show it only to readers of the debug log.
    const char* what() const noexcept override { return message.c_str(); }

    /// @brief Returns the error code.
    /// @return The code that the constructor was given.
    virtual int errCode() const { return code; }

  private:
    int code;
    std::string message;
};

/// @brief A failed request: thrown by the request operations of HttpClient::HttpClient with the
/// code of the cause, and by its set-up for an empty URL or cookie path.
class ORBA_OAUTH2CLIENT_API HttpClientException : public OAuth2ClientException {
  public:
    /// @brief Stores a code and a text.
    /// @param errorCode An error code.
    /// @param text NUL-terminated text; a null pointer gives std::logic_error.
    HttpClientException(int errorCode, const char* text) : OAuth2ClientException(errorCode, text) {}

    /// @brief Stores a code and a text.
    /// @param errorCode An error code.
    /// @param text The text, up to its first NUL byte, as for the constructor above.
    HttpClientException(int errorCode, const std::string& text)
        : OAuth2ClientException(errorCode, text.c_str()) {}

    ~HttpClientException() override = default;
    HttpClientException(const HttpClientException&) = default;
    HttpClientException& operator=(const HttpClientException&) = default;
};

/// @brief A reply that is not JSON. The request operations wrap it in an HttpClientException.
class ORBA_OAUTH2CLIENT_API JsonException : public OAuth2ClientException {
  public:
    /// @brief Stores a code and a text.
    /// @param errorCode An error code.
    /// @param text NUL-terminated text; a null pointer gives std::logic_error.
    JsonException(int errorCode, const char* text) : OAuth2ClientException(errorCode, text) {}

    ~JsonException() override = default;
    JsonException(const JsonException&) = default;
    JsonException& operator=(const JsonException&) = default;
};

/// @brief A failure of libcurl: a handle, an option, a transfer, a status, an escape.
class ORBA_OAUTH2CLIENT_API CurlException : public OAuth2ClientException {
  public:
    /// @brief Stores a code and a text.
    /// @param errorCode An error code.
    /// @param text NUL-terminated text; a null pointer gives std::logic_error.
    CurlException(int errorCode, const char* text) : OAuth2ClientException(errorCode, text) {}

    /// @brief Stores a code and a text.
    /// @param errorCode An error code.
    /// @param text The text, up to its first NUL byte, as for the constructor above.
    CurlException(int errorCode, const std::string& text)
        : OAuth2ClientException(errorCode, text.c_str()) {}

    ~CurlException() override = default;
    CurlException(const CurlException&) = default;
    CurlException& operator=(const CurlException&) = default;
};

/// @brief A failure of the device's account-service library.
class ORBA_OAUTH2CLIENT_API TovraException : public OAuth2ClientException {
  public:
    /// @brief Stores a code and a text.
    /// @param errorCode An error code.
    /// @param text NUL-terminated text; a null pointer gives std::logic_error.
    TovraException(int errorCode, const char* text) : OAuth2ClientException(errorCode, text) {}

    ~TovraException() override = default;
    TovraException(const TovraException&) = default;
    TovraException& operator=(const TovraException&) = default;
};

/// @brief A URL without the wanted parameter, or a device without a fingerprint (see utils.h).
class ORBA_OAUTH2CLIENT_API OAuth2Exception : public OAuth2ClientException {
  public:
    /// @brief Stores a code and a text.
    /// @param errorCode An error code.
    /// @param text NUL-terminated text; a null pointer gives std::logic_error.
    OAuth2Exception(int errorCode, const char* text) : OAuth2ClientException(errorCode, text) {}

    /// @brief Stores a code and a text.
    /// @param errorCode An error code.
    /// @param text The text, up to its first NUL byte, as for the constructor above.
    OAuth2Exception(int errorCode, const std::string& text)
        : OAuth2ClientException(errorCode, text.c_str()) {}

    ~OAuth2Exception() override = default;
    OAuth2Exception(const OAuth2Exception&) = default;
    OAuth2Exception& operator=(const OAuth2Exception&) = default;
};

}  // namespace ORBA::OAuth2Client

#endif
