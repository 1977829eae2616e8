// An environment variable for the time of a test.
#ifndef ORBA_TESTS_PLATFORM_ENVIRONMENT_H
#define ORBA_TESTS_PLATFORM_ENVIRONMENT_H

#include <stdlib.h>

#include <optional>
#include <string>
#include <utility>

class EnvironmentVariable {
  public:
    explicit EnvironmentVariable(std::string name) : name_(std::move(name)) {
        if (const char* value = ::getenv(name_.c_str()); value != nullptr) {
            before_ = value;
        }
    }
    EnvironmentVariable(std::string name, const std::string& value)
        : EnvironmentVariable(std::move(name)) {
        set(value);
    }
    ~EnvironmentVariable() {
        if (before_) {
            set(*before_);
        } else {
            unset();
        }
    }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

    void set(const std::string& value) const { ::setenv(name_.c_str(), value.c_str(), 1); }
    void unset() const { ::unsetenv(name_.c_str()); }

  private:
    std::string name_;
    std::optional<std::string> before_;
};

#endif  // ORBA_TESTS_PLATFORM_ENVIRONMENT_H
