// The error codes by name. Their messages are in utils.cpp.
#ifndef ORBA_SRC_ERROR_CODE_H
#define ORBA_SRC_ERROR_CODE_H

namespace ORBA::OAuth2Client {

// The numbers are a contract with callers. 6 was never assigned and stays free.
enum ErrorCode : int {
    kNoError = 0,
    kUnexpectedException = 1,
    kParseJsonFailed = 2,
    kEncodeQueryFailed = 3,
    kLoginChallengeFailed = 4,
    kCallbackUrlFailed = 5,
    kEmptyState = 7,
    kOtherState = 8,
    kGenerateStateFailed = 9,
    kSerialNumberFailed = 10,
    kHashTableFailed = 11,
    kInvalidParameter = 12,
    kResponseRedirectFailed = 13,
    kClientErrorStatus = 14,
    kServerErrorStatus = 15,
    kUnexpectedStatus = 16,
    kServiceUnavailable = 17,
    kUserAgentFailed = 18,
    kAccountFailed = 19,
    kServerConfigFailed = 20,
    kSendToAccountFailed = 21,
    kAuthenticationFailed = 22,
    kCurlInitFailed = 23,
    kInvalidCookiePath = 24,
    kCurlOptionFailed = 25,
    kCurlRequestFailed = 26,
    kCurlResponseFailed = 27,
    kCurlRedirectFailed = 28,
    kUrlEncodeFailed = 29,
    kUrlDecodeFailed = 30,
    kResolveHostFailed = 31,
    kRequestTimeout = 32,
    kCertificateRefused = 33,
};

}  // namespace ORBA::OAuth2Client

#endif
