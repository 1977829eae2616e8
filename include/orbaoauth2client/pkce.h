/// @file pkce.h
/// @brief The token endpoint: exchange of an authorization code and refresh (RFC 6749, RFC 7636).
///
/// Both operations POST a form to the token endpoint and store its whole JSON reply in the token
/// file. They are stateless: only the token file and the cookie file "/tmp/oa_pkce_cookies.txt",
/// which all processes of the device share, remain between calls.
#ifndef ORBAOAUTH2CLIENT_PKCE_H
#define ORBAOAUTH2CLIENT_PKCE_H

#include <string>

#include "orbaoauth2client/export.h"

/// @brief The token endpoint: exchange of an authorization code and refresh.
namespace ORBA::OAuth2Client::PKCE {

/// @brief The parameters of getAccessToken(). Values are used unchanged: nothing is trimmed,
/// checked or percent-encoded, so the caller encodes a value that contains "&", "=", "+" or "%".
struct ParamGetAccessToken {
    std::string tokenFilePath;  ///< The token file; created or overwritten.
    std::string tokenURL;       ///< The token endpoint's URL.
    std::string clientID;       ///< Sent as "client_id".
    std::string code;           ///< The authorization code, sent as "code".
    std::string codeVerifier;   ///< The PKCE code verifier, sent as "code_verifier".
    std::string redirectURI;    ///< The authorization request's "redirect_uri".
};

/// @brief The parameters of refreshAccessToken(), used unchanged as in ParamGetAccessToken.
struct ParamRefreshAccessToken {
    std::string tokenFilePath;  ///< The token file: the last reply, replaced by the new one.
    std::string tokenURL;       ///< The token endpoint's URL.
    std::string clientID;       ///< Sent as "client_id".
};

/// @brief Exchanges an authorization code for tokens (RFC 6749, section 4.1.3; RFC 7636, 4.5).
///
/// The reply is stored unchanged; whether it has an access token is not checked. The token file is
/// opened after the reply was received, so a failed exchange leaves it unchanged. A new one gets
/// the mode that the umask leaves: create it with mode 0600 beforehand.
///
/// A code that the account service granted is bound to no code challenge. Leave `codeVerifier`
/// empty for it: a strict server refuses any other (RFC 9700, section 2.1.1). A server that demands
/// a code challenge for every code refuses a granted code in any case (HTTP status 400).
///
/// @param param The code, its verifier and the client's data.
/// @throws HttpClientException as HttpClient::HttpClient::postURLEncodedString() does, for example
/// code 14 for a refused code (HTTP status 400), 32 for a timeout, 2 for a reply that is not JSON,
/// 12 for an empty URL; the token file is unchanged.
/// @throws std::bad_alloc, Json::Exception (of jsoncpp) if memory runs out while the reply is
/// stored; the token file may then be empty or truncated.
/// @warning If the token file cannot be opened or written, the reply is lost and the call returns
/// normally. Check the file afterwards.
/// @warning A connection that breaks during the reply makes the library send the code again. See
/// HttpClient::HttpClient::get(Json::Value&) for what may be stored then.
/// @note Blocks for one request; see HttpClient::HttpClient. Concurrent calls must not share a
/// token file.
ORBA_OAUTH2CLIENT_API void getAccessToken(const ParamGetAccessToken& param);

/// @brief Gets new tokens for the refresh token in the token file (RFC 6749, section 6).
///
/// Reads "refresh_token" from the file, sends it, prints the whole reply, tokens included, on
/// standard output, where callers read it, and replaces the file's content by the reply. Nothing of
/// the old content is kept: if the reply has no refresh token, the next refresh sends an empty one.
///
/// @param param The token file, the endpoint and the client.
/// @throws Json::Exception (of jsoncpp, a std::exception) before any request if the file is
/// missing, unreadable, not JSON or no object, or if "refresh_token" is an array or object. Numbers
/// and booleans are sent as text, a missing or null "refresh_token" as an empty one.
/// @throws HttpClientException as HttpClient::HttpClient::postURLEncodedString() does, for example
/// code 14 for a refused refresh token; the file is unchanged and nothing is printed.
/// @throws std::bad_alloc, Json::Exception if memory runs out while the reply is printed and
/// stored; the token file may then be empty or truncated.
/// @warning If the token file cannot be rewritten, the reply is only printed.
/// @warning A connection that breaks during the reply makes the library send the refresh token
/// again; a server that rotates refresh tokens may then revoke the sign-in.
/// @note Blocks for one request; see HttpClient::HttpClient. Concurrent refreshes of one token file
/// send the same refresh token, with the same effect.
ORBA_OAUTH2CLIENT_API void refreshAccessToken(const ParamRefreshAccessToken& param);

}  // namespace ORBA::OAuth2Client::PKCE

#endif
