// The server of https_server.mjs, as a child process.
#ifndef ORBA_TESTS_PLATFORM_HTTPS_SERVER_H
#define ORBA_TESTS_PLATFORM_HTTPS_SERVER_H

#include <sys/types.h>

#include <string>
#include <vector>

class HttpsServer {
  public:
    /** @param arguments Certificate and key; none for a server without TLS. */
    explicit HttpsServer(const std::vector<std::string>& arguments);
    ~HttpsServer();
    HttpsServer(const HttpsServer&) = delete;
    HttpsServer& operator=(const HttpsServer&) = delete;

    /** @return "host:port". */
    std::string at(const std::string& host) const { return host + ":" + port_; }

  private:
    pid_t process_ = -1;
    int input_ = -1;
    std::string port_;
};

#endif  // ORBA_TESTS_PLATFORM_HTTPS_SERVER_H
