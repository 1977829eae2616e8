// The pattern "steps, handlers, clean-up" of every operation that wraps its failures.
#ifndef ORBA_SRC_GUARDED_H
#define ORBA_SRC_GUARDED_H

#include <exception>
#include <string>

#include "error_code.h"
#include "log.h"
#include "orbaoauth2client/errors.h"

namespace ORBA::OAuth2Client {

// What the steps of an operation ended with; code 0 is success.
struct Failure {
    int code = kNoError;
    std::string text;

    // Never throws, so that the clean-up is always reached: without memory the text stays short,
    // the code is kept.
    void describe(int newCode, const char* prefix, const char* what) noexcept {
        code = newCode;
        try {
            text.append(prefix).append(what);
        } catch (const std::exception&) {
            return;
        }
    }
};

// Runs the steps, then the clean-up, and returns how the steps ended. An exception that is no
// std::exception passes through at once, deliberately without the clean-up.
template <class Steps, class CleanUp>
Failure runGuarded(const Log& log, const Steps& steps, const CleanUp& cleanUp) {
    Failure failure;
    try {
        steps();
    } catch (const OAuth2ClientException& exception) {
        failure.describe(exception.errCode(), "", exception.what());
    } catch (const std::exception& exception) {
        failure.describe(kUnexpectedException, "Exception: ", exception.what());
        log.text(failure.text.c_str());
    }
    cleanUp();
    return failure;
}

}  // namespace ORBA::OAuth2Client

#endif
