// Logs in over the manufacturer's libraries, and shows the result and what is logged as a warning.
#include <syslog.h>

#include <cstdarg>
#include <cstdio>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/oauth2.h"

namespace {

void show(int priority, const char* format, va_list arguments) {
    if (priority == LOG_WARNING) {
        std::vprintf(format, arguments);
        std::puts("");
    }
}

}  // namespace

// The library's calls come here, with FORTIFY's name for it or without.
extern "C" void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    show(priority, format, arguments);
    va_end(arguments);
}
extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    show(priority, format, arguments);
    va_end(arguments);
}

int main() {
    try {
        ORBA::OAuth2Client::OAuth2 login(
            "https://a.test/?client_id=c&scope=s&redirect_uri=r&state=t", "");
        std::puts(login.loginServiceByOrbaAccount().c_str());
    } catch (const ORBA::OAuth2Client::OAuth2ClientException& exception) {
        std::printf("%d\n", exception.errCode());
    }
}
