// What the unit tests share.
#ifndef ORBA_TESTS_UNIT_FIXTURE_H
#define ORBA_TESTS_UNIT_FIXTURE_H

#include <string>
#include <typeinfo>
#include <vector>

#include "orbaoauth2client/errors.h"
#include "sweep.h"

// The operation must throw this very class, with this code and this text. Failures name the caller.
template <class Exception, class Operation>
void expectThrows(const Operation& operation, int code, const std::string& text,
                  const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    const ::testing::ScopedTrace caller(file, line, "expectThrows");
    try {
        operation();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const ORBA::OAuth2Client::OAuth2ClientException& exception) {
        EXPECT_EQ(std::string(typeid(Exception).name()), typeid(exception).name());
        EXPECT_EQ(code, exception.errCode());
        EXPECT_EQ(text, exception.what());
    }
}

// Every log line must be in the form of the library: debug priority and "%s:%d %s", here or with
// one of its few other formats.
inline std::vector<std::string> formats() {
    std::vector<std::string> found;
    for (const fakes::LogLine& line : fakes::world().log) {
        found.push_back(line.format);
    }
    return found;
}

inline Calls operator+(Calls left, const Calls& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// What every request does first, up to its last option but the headers.
inline Calls setUpCalls(const std::string& url, const std::string& cookies) {
    return {
        "curl_easy_init()",
        "curl_easy_setopt(CURLOPT_URL, " + url + ")",
        "curl_easy_setopt(CURLOPT_TIMEOUT, 30)",
        "ORBATOVRAErrSet(0)",
        "ORBATOVRAUserAgentNameGet(256)",
        "curl_easy_setopt(CURLOPT_USERAGENT, nas/1.0)",
        "curl_easy_setopt(CURLOPT_SSL_VERIFYPEER, 1)",
        "curl_easy_setopt(CURLOPT_SSL_VERIFYHOST, 2)",
        "curl_easy_setopt(CURLOPT_CAPATH, /etc/ssl/certs/ca-certificates.crt)",
        "curl_easy_setopt(CURLOPT_SSLVERSION, 1)",
        "KLIBCFileTouch(" + cookies + ")",
        "curl_easy_setopt(CURLOPT_COOKIEJAR, " + cookies + ")",
        "curl_easy_setopt(CURLOPT_COOKIEFILE, " + cookies + ")",
    };
}

#endif
