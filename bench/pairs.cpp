#include "pairs.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <exception>
#include <map>
#include <string>

namespace {

constexpr double kShortestTurnSeconds = 100e-6;

// The value below which `share` of the sorted values lie.
double quantile(const std::vector<double>& sorted, double share) {
    const double rank = std::clamp(share, 0.0, 1.0) * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<std::size_t>(rank);
    const std::size_t above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (rank - std::floor(rank)) * (sorted[above] - sorted[below]);
}

double now(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

}  // namespace

Pairs::Pairs(const Operation& measured) : operation(measured) {
    while (turn(operation.bare).time * callsPerTurn < kShortestTurnSeconds) {
        callsPerTurn *= 2;
    }
}

Pairs::Seconds Pairs::turn(const std::function<void()>& side) const {
    const double processorTime = now(CLOCK_THREAD_CPUTIME_ID);
    const double time = now(CLOCK_MONOTONIC);
    for (int i = 0; i < callsPerTurn; ++i) {
        side();
    }
    return {(now(CLOCK_MONOTONIC) - time) / callsPerTurn,
            (now(CLOCK_THREAD_CPUTIME_ID) - processorTime) / callsPerTurn};
}

double Pairs::run() {
    const bool oursFirst = oursSeconds.size() % 2 == 0;
    if (oursFirst) {
        oursSeconds.push_back(turn(operation.ours));
    }
    bareSeconds.push_back(turn(operation.bare));
    if (!oursFirst) {
        oursSeconds.push_back(turn(operation.ours));
    }
    return oursSeconds.back().time * callsPerTurn;
}

std::vector<double> Pairs::sortedRatios(Figure figure) const {
    std::vector<double> ratios(oursSeconds.size());
    std::transform(
        oursSeconds.begin(), oursSeconds.end(), bareSeconds.begin(), ratios.begin(),
        [figure](const Seconds& ours, const Seconds& bare) { return ours.*figure / bare.*figure; });
    std::sort(ratios.begin(), ratios.end());
    return ratios;
}

void Pairs::report(benchmark::UserCounters& counters) const {
    const auto medianTime = [](const std::vector<Seconds>& seconds) {
        std::vector<double> times(seconds.size());
        std::transform(seconds.begin(), seconds.end(), times.begin(),
                       [](const Seconds& turn) { return turn.time; });
        std::sort(times.begin(), times.end());
        return quantile(times, 0.5);
    };
    counters["ours"] = medianTime(oursSeconds);
    counters["bare"] = medianTime(bareSeconds);
    counters["pairs"] = static_cast<double>(oursSeconds.size());
    // The ranks between which the median of the population lies in 95 of 100 cases.
    const double half = 0.98 / std::sqrt(static_cast<double>(oursSeconds.size()));
    const std::map<std::string, Figure> figures = {{"time", &Seconds::time},
                                                   {"processor", &Seconds::processorTime}};
    for (const auto& [name, figure] : figures) {
        const std::vector<double> ratios = sortedRatios(figure);
        counters[name + "_median"] = quantile(ratios, 0.5);
        counters[name + "_q1"] = quantile(ratios, 0.25);
        counters[name + "_q3"] = quantile(ratios, 0.75);
        counters[name + "_low"] = quantile(ratios, 0.5 - half);
        counters[name + "_high"] = quantile(ratios, 0.5 + half);
    }
}

void measure(benchmark::State& state, const Operation& operation) {
    try {
        Pairs pairs(operation);
        while (state.KeepRunning()) {
            state.SetIterationTime(pairs.run());
        }
        pairs.report(state.counters);
    } catch (const std::exception& exception) {
        state.SkipWithError(exception.what());
    }
}
