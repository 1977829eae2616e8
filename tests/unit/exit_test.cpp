// The error table can still be read when static objects are destroyed.
#include <cstdlib>
#include <string>

#include "orbaoauth2client/errors.h"

namespace {

const std::string& expected() {
    static const auto& text =
        *new std::string("The remote server's SSL certificate was deemed not OK.");
    return text;
}

// Constructed before the table, so destroyed after everything that the table may have registered.
struct AskedLast {
    ~AskedLast() {
        if (ORBA::OAuth2Client::errCode2Str(33) != expected()) {
            std::abort();
        }
    }
} const askedLast;

}  // namespace

int main() { return ORBA::OAuth2Client::errCode2Str(33) == expected() ? 0 : 1; }
