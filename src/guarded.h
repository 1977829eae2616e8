// The pattern "steps, handlers, clean-up" of every operation that wraps its failures.
#ifndef ORBA_SRC_GUARDED_H
#define ORBA_SRC_GUARDED_H

#include <exception>
#include <string>

#include "error_code.h"
#include "log.h"
#include "orbaoauth2client/errors.h"

namespace ORBA::OAuth2Client {

// An exception may return null from what(): that is an empty text.
inline const char* textOf(const std::exception& exception) noexcept {
    const char* const text = exception.what();
    return text == nullptr ? "" : text;
}

// How the steps of an operation ended; code 0 is success.
struct Failure {
    int code = kNoError;
    std::string text;

    // Never throws, so that the clean-up is always reached: without memory the text stays short,
    // the code is kept.
    void describe(int newCode, const char* prefix, const std::exception& exception) noexcept {
        code = newCode;
        try {
            text.append(prefix).append(textOf(exception));
        } catch (const std::exception&) {
            return;
        }
    }
};

// Runs the steps, then the clean-up, and returns how the steps ended. Exceptions of class Known
// keep their code and text. An exception that is not a std::exception passes through at once,
// without the clean-up: it may be a thread's cancellation.
template <class Known = OAuth2ClientException, class Steps, class CleanUp>
Failure runGuarded(const Log& log, const Steps& steps, const CleanUp& cleanUp,
                   int line = __builtin_LINE()) {
    Failure failure;
    try {
        steps();
    } catch (const Known& exception) {
        failure.describe(exception.errCode(), "", exception);
    } catch (const std::exception& exception) {
        failure.describe(kUnexpectedException, "Exception: ", exception);
        log.text(failure.text.c_str(), line);
    }
    cleanUp();
    return failure;
}

}  // namespace ORBA::OAuth2Client

#endif
