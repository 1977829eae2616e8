// One HTTPS request at a time: handle, options, limits, cancellation.
#ifndef ORBA_SESSION_TRANSFER_H
#define ORBA_SESSION_TRANSFER_H

#include <curl/curl.h>

#include <array>
#include <memory>
#include <string>

#include "failure.h"

namespace ORBA::OAuth2Session {

struct Reply {
    long status = 0;
    std::string body;
    std::string redirect;       // the absolute URL of a 3xx; empty: none
    milliseconds retryAfter{};  // 0: not said

    bool isRedirect() const { return status / 100 == 3 && !redirect.empty(); }
};

// The requests of one renewal. They share the CA bundle; those of the web login share cookies, in
// memory. A request is sent once, and never over a kept connection, because libcurl would send it
// again if that turned out to be dead.
class Transfer {
  public:
    explicit Transfer(Call& limits);

    // One request of the web login. Redirects are not followed.
    Reply get(const std::string& url);

    // A form for the token endpoint; the reply should be JSON.
    Reply post(const std::string& url, const std::string& form);

  private:
    struct MultiCleanup {
        void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
    };
    struct EasyCleanup {
        void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    };
    using Easy = std::unique_ptr<CURL, EasyCleanup>;
    struct Receiver;

    static Easy makeHandle();
    void setCommonOptions(CURL* easy, const std::string& url, Receiver& receiver,
                          nanoseconds limit);
    Reply perform(CURL* easy, const std::string& url, Receiver& receiver, nanoseconds limit);
    CURLcode run(CURL* easy, nanoseconds limit);
    nanoseconds limitOfRequest() const;

    Call& call;
    std::array<char, 256> userAgent{};
    std::unique_ptr<CURLM, MultiCleanup> multi;
    Easy browser;
};

}  // namespace ORBA::OAuth2Session

#endif
