// syslog and nanosleep.
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "fakes.h"

using fakes::world;

extern "C" {

void vsyslog(int priority, const char* format, va_list arguments) {
    const fakes::OwnWork own;
    va_list again;
    va_copy(again, arguments);
    const std::string source = va_arg(again, const char*);
    const int line = va_arg(again, int);
    va_end(again);
    std::string rendered(1 << 16, '\0');
    const int length = vsnprintf(rendered.data(), rendered.size(), format, arguments);
    rendered.resize(std::min(static_cast<std::size_t>(length), rendered.size() - 1));
    const std::string site = source + ":" + std::to_string(line) + " ";
    if (rendered.rfind(site, 0) != 0) {
        throw std::logic_error("a log line without its source and line: " + rendered);
    }
    const std::string text = rendered.substr(site.size());
    world().log.push_back({priority, format, source, line, text});
    world().note("syslog", std::to_string(priority) + " " + text);
}

int nanosleep(const timespec* request, timespec* remainder) {
    const fakes::OwnWork own;
    const bool fails = world().enter("nanosleep", std::to_string(request->tv_sec) + " s " +
                                                      std::to_string(request->tv_nsec) + " ns, " +
                                                      (request == remainder ? "same" : "other"));
    if (fails || world().interruptedPauses > 0) {
        world().interruptedPauses -= fails ? 0 : 1;
        remainder->tv_nsec = request->tv_nsec / 2;
        errno = EINTR;
        return -1;
    }
    if (world().onPause) {
        errno = 0;
        world().onPause();
        return errno == 0 ? 0 : -1;
    }
    return 0;
}

}  // extern "C"
