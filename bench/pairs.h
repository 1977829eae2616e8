// Ours and bare in turns, and what the pairs tell.
#ifndef ORBA_BENCH_PAIRS_H
#define ORBA_BENCH_PAIRS_H

#include <benchmark/benchmark.h>

#include <vector>

#include "operations.h"

// Runs the two sides of an operation one after the other, the other one first each time, so that
// what the machine does besides hits both alike. A turn is one call, or as many as it takes for the
// clock to be exact.
class Pairs {
  public:
    explicit Pairs(const Operation& measured);

    // Runs a turn of each side and returns the seconds that ours took.
    double run();

    // The medians of both sides, and of the pairs' ratios with quartiles and 95 % interval. Beside
    // the time also for the processor time of this thread: it leaves out the server, but is hardly
    // disturbed by what else the machine does.
    void report(benchmark::UserCounters& counters) const;

  private:
    struct Seconds {
        double time;
        double processorTime;
    };
    using Figure = double Seconds::*;

    Seconds turn(const std::function<void()>& side) const;
    std::vector<double> sortedRatios(Figure figure) const;

    const Operation& operation;
    int callsPerTurn = 1;
    // Of a call, by turns.
    std::vector<Seconds> oursSeconds;
    std::vector<Seconds> bareSeconds;
};

// The body of a benchmark with manual time.
void measure(benchmark::State& state, const Operation& operation);

#endif
