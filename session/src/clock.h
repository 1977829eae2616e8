// The clocks: lifetimes and deadlines run on the one that no one can set and that counts suspends;
// what a file keeps for later boots, and what a person sees, is in wall time.
#ifndef ORBA_SESSION_CLOCK_H
#define ORBA_SESSION_CLOCK_H

#include <chrono>
#include <ctime>

namespace ORBA::OAuth2Session {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

inline nanoseconds readClock(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

// Since the device was started.
inline nanoseconds bootTime() { return readClock(CLOCK_BOOTTIME); }

// Since 1970.
inline milliseconds wallTime() {
    return std::chrono::duration_cast<milliseconds>(readClock(CLOCK_REALTIME));
}

}  // namespace ORBA::OAuth2Session

#endif
