// Where the time of a call goes. The clock runs for one phase at a time; a span stops the phase
// around it, so every moment counts once.
#ifndef ORBA_BENCH_PHASES_H
#define ORBA_BENCH_PHASES_H

#include <array>
#include <chrono>
#include <cstddef>

enum Phase : std::size_t {
    kOurs,      // the library, and what is not told apart below
    kName,      // name resolution
    kConnect,   // TCP
    kBundle,    // loading the CA bundle
    kTls,       // the rest of the TLS handshake, the server's part included
    kServer,    // from the request to the first byte of the reply
    kCookies,   // the cookie file: made, read, written
    kLibcurl,   // the rest of libcurl
    kJson,      // jsoncpp: replies parsed, token files read and written
    kSyslog,    // delivering log lines
    kPlatform,  // the device's libraries, without the requests that they make
    kNothing,   // what measuring itself costs
    kPhases
};

constexpr std::array<const char*, kPhases> kPhaseNames = {
    "library", "name",    "connect", "CA bundle", "TLS",      "server",
    "cookies", "libcurl", "jsoncpp", "syslog",    "platform", "measuring"};

using Seconds = std::chrono::duration<double>;

// What has been counted since reset().
struct Tally {
    std::array<Seconds, kPhases> phases{};
    int requests = 0;
};

void reset();
Tally tally();

class Span {
  public:
    explicit Span(Phase phase);
    ~Span();
    Span(const Span&) = delete;
    Span& operator=(const Span&) = delete;

  private:
    Phase before;
};

#endif
