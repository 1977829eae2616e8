// A plain HTTP server on loopback, in a thread of this process, one connection at a time.
#ifndef ORBA_TESTS_THREADS_LOOPBACK_SERVER_H
#define ORBA_TESTS_THREADS_LOOPBACK_SERVER_H

#include <string>
#include <thread>

// Answers each request with a JSON object that describes it: "line" (the request line), "cookie"
// and "body". Sets the cookie "seen" to the request's path.
class LoopbackServer {
  public:
    LoopbackServer();  // throws std::system_error
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    // "http://127.0.0.1:PORT"
    std::string url() const;

  private:
    void serve() const;

    int listener;
    std::thread thread;
};

#endif
