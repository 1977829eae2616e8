// The one way in which the host edition talks to the account service.
#ifndef ORBA_HOST_HTTPS_POST_H
#define ORBA_HOST_HTTPS_POST_H

#include <map>
#include <string>

namespace orba_host {

struct HttpsReply {
    long status;
    std::string body;

    bool isSuccess() const { return status >= 200 && status < 300; }
};

std::string httpsUrl(const std::string& server, const std::string& path);

// Posts a form, whose fields are not yet encoded, to "https://SERVER/PATH", with a bearer token
// unless that is empty. Redirects are not followed. Returns the reply, whatever its status is.
// Throws a Failure with ORBA_HOST_INVALID_ARGUMENT (the server must be "host" or "host:port"), an
// ORBA_HOST_REQUEST_ number or ORBA_HOST_REPLY_TOO_LARGE.
HttpsReply postForm(const std::string& server, const std::string& path,
                    const std::map<std::string, std::string>& form, const std::string& token = "");

}  // namespace orba_host

#endif
