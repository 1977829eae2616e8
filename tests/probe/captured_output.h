// Standard output, caught instead of printed.
#ifndef ORBA_TESTS_PROBE_CAPTURED_OUTPUT_H
#define ORBA_TESTS_PROBE_CAPTURED_OUTPUT_H

#include <iostream>
#include <sstream>
#include <string>

class CapturedOutput {
  public:
    CapturedOutput() : before(std::cout.rdbuf(captured.rdbuf())) {}
    ~CapturedOutput() { std::cout.rdbuf(before); }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    std::string text() const { return captured.str(); }

  private:
    std::ostringstream captured;
    std::streambuf* const before;
};

#endif
