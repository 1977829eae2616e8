// Logging a text, and logging a failure before throwing it. Lines with a format of their own call
// syslog() where they are logged, so that the compiler checks their arguments.
#ifndef ORBA_SRC_LOG_H
#define ORBA_SRC_LOG_H

#include <syslog.h>

#include <string>

namespace ORBA::OAuth2Client {

// The log of one source file. Failures are logged at debug priority, too: only the caller knows
// whether an exception matters.
struct Log {
    const char* source;

    void text(const char* text, int line = __builtin_LINE()) const {
        syslog(LOG_DEBUG, "%s:%d %s", source, line, text);
    }

    template <class Exception>
    [[noreturn]] void fail(int code, const char* text, int line = __builtin_LINE()) const {
        this->text(text, line);
        throw Exception(code, text);
    }

    template <class Exception>
    [[noreturn]] void fail(int code, const std::string& text, int line = __builtin_LINE()) const {
        fail<Exception>(code, text.c_str(), line);
    }
};

}  // namespace ORBA::OAuth2Client

#endif
