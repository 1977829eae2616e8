// The server of https_server.mjs as a child process, and requests to it.
#ifndef ORBA_TESTS_PLATFORM_HTTPS_SERVER_H
#define ORBA_TESTS_PLATFORM_HTTPS_SERVER_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "../support/readers.h"

class HttpsServer {
  public:
    // The arguments are certificate and key; none for a server without TLS.
    explicit HttpsServer(const std::vector<std::string>& arguments);
    ~HttpsServer();
    HttpsServer(const HttpsServer&) = delete;
    HttpsServer& operator=(const HttpsServer&) = delete;

    std::string at(const std::string& host) const { return host + ":" + port; }

  private:
    pid_t process = -1;
    int input = -1;
    std::string port;
};

// Returns the error number, and the reply's body.
Reading sendRequest(const std::string& server, const std::string& path,
                    const std::map<std::string, std::string>& fields = {});

#endif
