// How the host edition's libraries report a failure, inside and at their C functions.
#ifndef ORBA_HOST_FAILURE_H
#define ORBA_HOST_FAILURE_H

#include <orba_host_errors.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace orba_host {

// A failure with its number and a text for a person; it stays within one library.
class Failure : public std::runtime_error {
  public:
    Failure(OrbaHostError number, const std::string& text)
        : std::runtime_error(text), error(number) {}
    OrbaHostError number() const { return error; }

  private:
    OrbaHostError error;
};

// Runs the work of one C function, so that no exception leaves it, and returns its error number.
// What the work throws besides a Failure comes from the standard library or jsoncpp and means that
// memory is exhausted.
template <class Work>
OrbaHostError guarded(Work&& work) noexcept {
    try {
        work();
        return ORBA_HOST_OK;
    } catch (const Failure& failure) {
        return failure.number();
    } catch (const std::exception&) {
        return ORBA_HOST_OUT_OF_MEMORY;
    }
}

inline void requireArgument(bool valid, const char* text) {
    if (!valid) {
        throw Failure(ORBA_HOST_INVALID_ARGUMENT, text);
    }
}

}  // namespace orba_host

#endif
