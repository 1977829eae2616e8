/// @file pkce.h
/// @brief The token endpoint: exchange of an authorization code and refresh (RFC 6749, RFC 7636).
///
/// Both operations POST a form to the token endpoint and keep its whole JSON reply in a file that
/// the caller names. They are stateless; between calls only the token file and the cookie file
/// "/tmp/oa_pkce_cookies.txt", which all processes of the device share, remain.
#ifndef ORBAOAUTH2CLIENT_PKCE_H
#define ORBAOAUTH2CLIENT_PKCE_H

#include <string>

#include "orbaoauth2client/export.h"

/// @brief The token endpoint: exchange of an authorization code and refresh.
namespace ORBA::OAuth2Client::PKCE {

/// @brief What getAccessToken() needs to know. All values are used as they are: nothing is trimmed,
/// checked or percent-encoded, so a value that holds "&", "=", "+" or "%" must come encoded.
struct ParamGetAccessToken {
    std::string tokenFilePath;  ///< The file that receives the reply; created or emptied.
    std::string tokenURL;       ///< The token endpoint's URL.
    std::string clientID;       ///< Sent as "client_id".
    std::string code;           ///< The authorization code, sent as "code".
    std::string codeVerifier;   ///< The PKCE code verifier, sent as "code_verifier".
    std::string redirectURI;    ///< That of the authorization request, sent as "redirect_uri".
};

/// @brief What refreshAccessToken() needs to know. Values are used as they are, as in
/// ParamGetAccessToken.
struct ParamRefreshAccessToken {
    std::string tokenFilePath;  ///< The file that holds the last reply and receives the new one.
    std::string tokenURL;       ///< The token endpoint's URL.
    std::string clientID;       ///< Sent as "client_id".
};

/// @brief Exchanges an authorization code for tokens (RFC 6749, section 4.1.3; RFC 7636, 4.5).
///
/// The reply is stored as it came; whether it holds an access token is not looked at. The token
/// file is opened after the reply has come, so a failed exchange leaves it as it was. It gets the
/// mode of the process's umask when it is new: create it with mode 0600 beforehand.
///
/// A code that the account service granted is bound to no code challenge: it goes with an empty
/// `codeVerifier`, because a strict server refuses it with any other (RFC 9700, section 2.1.1).
///
/// @param param The code, its verifier and the client's data.
/// @throws HttpClientException as HttpClient::HttpClient::postURLEncodedString() does, for example
/// code 14 for a refused code (HTTP status 400), 32 for a time-out, 2 for a reply that is not JSON,
/// 12 for an empty URL; the token file stays as it was.
/// @throws std::bad_alloc, Json::Exception (jsoncpp's own) when memory runs out while the reply is
/// stored; the token file may then be empty or cut short.
/// @warning A token file that cannot be opened or written is not reported: the reply is lost and
/// the call returns normally. A caller who must know looks at the file afterwards.
/// @note Blocks for up to about 91 s. Two calls at once with one token file race for it.
ORBA_OAUTH2CLIENT_API void getAccessToken(const ParamGetAccessToken& param);

/// @brief Gets new tokens for the refresh token in the token file (RFC 6749, section 6).
///
/// Reads "refresh_token" from the file, sends it, prints the whole reply on standard output (tokens
/// included; deliberate), and replaces the file's content by the reply. Nothing of the old content
/// is kept: when the reply carries no refresh token, the next refresh sends an empty one.
///
/// @param param The token file, the endpoint and the client.
/// @throws Json::Exception (jsoncpp's own, a std::exception) before any request when the file is
/// missing, unreadable or not JSON, or when its top level or "refresh_token" is of the wrong type.
/// A missing or null "refresh_token" counts as an empty one and is sent.
/// @throws HttpClientException as HttpClient::HttpClient::postURLEncodedString() does, for example
/// code 14 for a refused refresh token; the file stays as it was and nothing is printed.
/// @throws std::bad_alloc, Json::Exception when memory runs out while the reply is printed and
/// stored; the token file may then be empty or cut short.
/// @warning A token file that cannot be rewritten is not reported: the reply is printed only.
/// @note Blocks for up to about 91 s. Two refreshes at once of one token file race: both send the
/// same refresh token, and a server that rotates them may revoke the grant.
ORBA_OAUTH2CLIENT_API void refreshAccessToken(const ParamRefreshAccessToken& param);

}  // namespace ORBA::OAuth2Client::PKCE

#endif
