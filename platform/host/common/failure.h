/**
 * @file
 * @brief How the host edition's libraries report a failure, inside and at their C functions.
 */
#ifndef ORBA_HOST_FAILURE_H
#define ORBA_HOST_FAILURE_H

#include <orba_host_errors.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace orba_host {

/** A failure with its number and a text for a person; it stays within one library. */
class Failure : public std::runtime_error {
  public:
    Failure(OrbaHostError number, const std::string& text)
        : std::runtime_error(text), number_(number) {}
    OrbaHostError number() const { return number_; }

  private:
    OrbaHostError number_;
};

/**
 * @brief Runs the work of one C function, so that no exception leaves it.
 * @return ORBA_HOST_OK, or the number of the Failure. All that the work throws besides comes from
 *         the standard library or jsoncpp and means that memory is exhausted.
 */
template <typename Work>
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

/** @throws Failure (ORBA_HOST_INVALID_ARGUMENT) unless `valid`. */
inline void requireArgument(bool valid, const char* text) {
    if (!valid) {
        throw Failure(ORBA_HOST_INVALID_ARGUMENT, text);
    }
}

}  // namespace orba_host

#endif  // ORBA_HOST_FAILURE_H
