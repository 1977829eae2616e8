#include "orbaoauth2client/utils.h"

#include <klib/klib.h>
#include <orbaudc/orbaudc.h>

#include <cstring>
#include <map>
#include <string>

#include "curl_text.h"
#include "error_code.h"
#include "log.h"
#include "orbaoauth2client/errors.h"
#include "serial_number.h"

namespace ORBA::OAuth2Client {
namespace {

constexpr Log kLog{"utils"};

}  // namespace

std::string errCode2Str(int code) {
    // Never destroyed: threads and static destructors may ask while the process exits.
    static const auto& messages = *new std::map<int, std::string>{
        {kNoError, "No Error."},
        {kUnexpectedException, "Unexpected exception happened."},
        {kParseJsonFailed, "Failed to parse json."},
        {kEncodeQueryFailed, "Failed to encode query string."},
        {kLoginChallengeFailed, "Failed to get login_challenge from OAuth2 Server."},
        {kCallbackUrlFailed, "Failed to get callback URL."},
        {kEmptyState, "State string cannot be empty in AuthURL."},
        {kOtherState, "State string in callback url is not the same as we generated."},
        {kGenerateStateFailed, "Failed to generate random state string."},
        {kSerialNumberFailed, "Failed to get this NAS's serial number."},
        {kHashTableFailed, "Failed to allocate hash table."},
        {kInvalidParameter, "Invalid parameters."},
        {kResponseRedirectFailed, "Failed to get redirection URL from response."},
        {kClientErrorStatus, "Got response with client error status code."},
        {kServerErrorStatus, "Got response with server error status code."},
        {kUnexpectedStatus, "Got response with unexpected status code."},
        {kServiceUnavailable, "Service unavailable."},
        {kUserAgentFailed, "Failed to get this NAS's useragent string with Tovra."},
        {kAccountFailed, "Failed to get account information with Tovra."},
        {kServerConfigFailed, "Failed to get Orbalon Account's server config with Tovra."},
        {kSendToAccountFailed, "Failed to send request to Orbalon Account with Tovra."},
        {kAuthenticationFailed, "Authentication failed in Orbalon Account with Tovra."},
        {kCurlInitFailed, "Failed to init Curl."},
        {kInvalidCookiePath, "Invalid cookie path."},
        {kCurlOptionFailed, "Failed to config Curl."},
        {kCurlRequestFailed, "Failed to send http request with Curl."},
        {kCurlResponseFailed, "Failed to get http response from Curl."},
        {kCurlRedirectFailed, "Failed to get redirection URL from Curl."},
        {kUrlEncodeFailed, "Failed to URLencode string with Curl."},
        {kUrlDecodeFailed, "Failed to URLdecode string with Curl."},
        {kResolveHostFailed, "Failed to resolve host of url."},
        {kRequestTimeout, "Request timeout."},
        {kCertificateRefused, "The remote server's SSL certificate was deemed not OK."},
    };
    // Looked up without inserting, so that threads may ask for unknown codes, too.
    const auto found = messages.find(code);
    return found == messages.end() ? std::string() : found->second;
}

std::string decodeString(const std::string& str) {
    EscapeHandle curl = makeEscapeHandle(kLog);
    int length = 0;
    const CurlText decoded(
        curl_easy_unescape(curl.get(), str.c_str(), static_cast<int>(str.size()), &length));
    if (decoded == nullptr) {
        curl.reset();
        kLog.fail<CurlException>(kUrlDecodeFailed, "Failed to do curl_easy_unescape for string");
    }
    // Up to the first NUL: a parameter that holds an encoded one ("%00") ends there.
    return std::string(decoded.get());
}

std::string getParamFromURL(const std::string& url, const std::string& key) {
    if (url.empty() || key.empty()) {
        kLog.fail<OAuth2Exception>(kInvalidParameter, "Failed to get parameter: The url is empty.");
    }
    const std::string name = key + "=";
    const std::string::size_type found = url.find(name);
    if (found == std::string::npos) {
        kLog.fail<OAuth2Exception>(kInvalidParameter,
                                   "This url doesn't have query parameters. [" + url + "]");
    }
    const std::string::size_type begin = found + name.size();
    return decodeString(url.substr(begin, url.find('&', begin) - begin));
}

std::string getDeviceFingerprint() {
    SerialNumber serial;
    // Both failures have code 1, although 10 names the serial number: callers know them by it.
    if (KLIBGetSerialNumber(serial.text, kSerialNumberSize) != 0) {
        kLog.fail<OAuth2Exception>(kUnexpectedException, "Failed to get serial");
    }
    char* pseudonym = nullptr;
    if (ORBAUDCPseudonymise(&pseudonym, serial.text, std::strlen(serial.text)) != 0) {
        kLog.fail<OAuth2Exception>(kUnexpectedException, "Failed to pseudonymise serial");
    }
    return std::string(pseudonym);
}

}  // namespace ORBA::OAuth2Client
