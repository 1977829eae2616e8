// When the next request may be made, and when a refused token may be renewed. It reads no clock and
// no file: the caller passes in the time since boot, a random fraction, and what the file holds.
#ifndef ORBA_SESSION_RETRY_GATE_H
#define ORBA_SESSION_RETRY_GATE_H

#include <optional>
#include <string>

#include "failure.h"

namespace ORBA::OAuth2Session {

class RetryGate {
  public:
    // For one account and settings (`digest`), on this boot of the device.
    RetryGate(const std::string& itsDigest, const std::string& itsBootId)
        : digest(itsDigest), bootId(itsBootId) {}

    // Takes over what text() gave; of anything else, nothing. After another boot the wait begins
    // anew, because nobody knows how long the device was off.
    void load(const std::string& text, milliseconds now);
    std::string text() const;

    // The failure that closed the gate, with the time left; nothing while it is open.
    std::optional<Failure> closedBy(milliseconds now) const;

    // After a failure: for as long as the server asks, else for a random time whose bound doubles.
    void close(Failure& cause, milliseconds now, double fraction);
    void open();

    // How old a refused token must be for its renewal.
    milliseconds requiredAge() const;
    void refusedAtAge(milliseconds age);
    void renewedAfterRefusal() { ++renewals; }

  private:
    std::string digest;
    std::string bootId;
    milliseconds deadline{};  // since boot
    milliseconds length{};
    int failures = 0;  // in a row
    int renewals = 0;  // after refusals, in a row
    std::optional<Failure> failure;
};

}  // namespace ORBA::OAuth2Session

#endif
