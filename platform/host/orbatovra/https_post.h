/**
 * @file
 * @brief The one way in which the host edition talks to the account service.
 */
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

/** @return "https://" + server + "/" + path. */
std::string httpsUrl(const std::string& server, const std::string& path);

/**
 * @brief Posts a form over HTTPS; redirects are not followed.
 * @param server Host name or address, with ":port" where it is not 443.
 * @param path   The URL's path, without a leading slash.
 * @param form   The form's fields, not yet encoded.
 * @param token  The bearer token to authorize with; empty for none.
 * @return The reply, whatever its status is.
 * @throws Failure ORBA_HOST_INVALID_ARGUMENT, one of the ORBA_HOST_REQUEST_ numbers, or
 *         ORBA_HOST_REPLY_TOO_LARGE.
 */
HttpsReply postForm(const std::string& server, const std::string& path,
                    const std::map<std::string, std::string>& form, const std::string& token = "");

}  // namespace orba_host

#endif  // ORBA_HOST_HTTPS_POST_H
