// A fleet that signs in after a power cut, on a virtual clock, with the gate that the session
// ships.
//
// usage: orba-bench-fleet DEVICES SERVER-RATE REQUESTS-PER-SIGN-IN
//
// DEVICES boot within 20 s and sign in at a server that serves SERVER-RATE requests a second, saves
// up to one second of them, and answers the rest with 503. A refused request ends the sign-in,
// which then begins anew. Prints one line of JSON for each way to retry.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "retry_gate.h"

namespace {

using ORBA::OAuth2Session::Failure;
using ORBA::OAuth2Session::Remedy;
using ORBA::OAuth2Session::RetryGate;
using std::chrono::milliseconds;

enum class Retry { halfSecond, backOff, fixedRetryAfter, spreadRetryAfter };

using Time = std::size_t;  // in ms

constexpr Time kBootTime = 20'000;
constexpr Time kRoundTrip = 50;
constexpr Time kHalfSecond = 500;
constexpr Time kHorizon = 1'800'000;
constexpr std::uint32_t kNone = UINT32_MAX;

struct Device {
    std::uint32_t next = kNone;  // in the list of those that act in the same millisecond
    int step = 0;                // requests of this sign-in that were served
    std::unique_ptr<RetryGate> gate{};
};

class Fleet {
  public:
    Fleet(std::uint32_t size, double serverRate, int requestsPerSignIn, Retry way)
        : devices(size),
          first(kHorizon + 1, kNone),
          rate(serverRate),
          steps(requestsPerSignIn),
          retry(way) {
        for (std::uint32_t id = 0; id < size; ++id) {
            schedule(id, std::uniform_int_distribution<Time>(0, kBootTime)(random));
        }
    }

    // Until 99 % are signed in, for half an hour at most.
    void run() {
        double tokens = 0;
        while (now < kHorizon && signedIn < devices.size() * 99 / 100) {
            tokens = std::min(tokens + rate / 1000, rate);
            std::uint64_t asking = 0;
            for (std::uint32_t id = first[now]; id != kNone; id = devices[id].next) {
                ++asking;
            }
            const double chance = tokens / std::max(1.0, static_cast<double>(asking));
            for (std::uint32_t id = first[now]; id != kNone;) {
                const std::uint32_t next = devices[id].next;
                const bool served = tokens >= 1 && fraction() < chance;
                tokens -= served ? 1 : 0;
                answer(id, served);
                id = next;
            }
            requests += asking;
            if (++now % 1000 == 0) {
                perSecond.push_back(requests - counted);
                signedInBySecond.push_back(signedIn);
                counted = requests;
            }
        }
    }

    void print(const char* name) const {
        std::cout << R"({"way":")" << name << R"(","requestsPerSignIn":)" << steps
                  << R"(,"devices":)" << devices.size() << R"(,"rate":)" << rate << R"(,"seconds":)"
                  << static_cast<double>(now) / 1000 << R"(,"signedIn":)" << signedIn
                  << R"(,"requests":)" << requests;
        printList("requestsBySecond", perSecond);
        printList("signedInBySecond", signedInBySecond);
        std::cout << "}" << std::endl;
    }

  private:
    double fraction() { return std::uniform_real_distribution<double>(0, 1)(random); }

    void schedule(std::uint32_t id, Time time) {
        std::uint32_t& head = first[std::min(time, kHorizon)];
        devices[id].next = head;
        head = id;
    }

    void answer(std::uint32_t id, bool served) {
        Device& device = devices[id];
        if (!served) {
            device.step = 0;
            schedule(id, now + kRoundTrip + wait(device));
        } else if (++device.step < steps) {
            schedule(id, now + kRoundTrip);
        } else {
            ++signedIn;
            device.gate.reset();
        }
    }

    // A service waits for SessionException::retryAfter(), which is in whole seconds.
    Time wait(Device& device) {
        if (retry == Retry::halfSecond) {
            return kHalfSecond;
        }
        if (!device.gate) {
            device.gate = std::make_unique<RetryGate>("", "");
        }
        Failure failure = {17, Remedy::tryLater, ""};
        failure.retryAfter = retryAfter();
        device.gate->close(failure, milliseconds(now), fraction());
        const auto whole = std::chrono::ceil<std::chrono::seconds>(failure.retryAfter);
        return static_cast<Time>(milliseconds(whole).count());
    }

    // What the server asks for: one time for all, or spread over the time that it needs for those
    // left.
    milliseconds retryAfter() {
        const double backlog = static_cast<double>(devices.size() - signedIn) * steps / rate;
        switch (retry) {
            case Retry::fixedRetryAfter:
                return std::chrono::seconds(120);
            case Retry::spreadRetryAfter:
                return std::chrono::seconds(1 + std::lround(backlog * fraction()));
            default:
                return {};
        }
    }

    template <class Number>
    static void printList(const char* name, const std::vector<Number>& list) {
        std::cout << ",\"" << name << "\":[";
        for (std::size_t i = 0; i < list.size(); ++i) {
            std::cout << (i == 0 ? "" : ",") << list[i];
        }
        std::cout << "]";
    }

    std::vector<Device> devices;
    std::vector<std::uint32_t> first;  // by millisecond
    const double rate;
    const int steps;
    const Retry retry;
    std::mt19937_64 random{1};
    Time now = 0;
    std::uint64_t signedIn = 0;
    std::uint64_t requests = 0;
    std::uint64_t counted = 0;
    std::vector<std::uint64_t> perSecond;
    std::vector<std::uint64_t> signedInBySecond;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: orba-bench-fleet DEVICES SERVER-RATE REQUESTS-PER-SIGN-IN\n";
        return 2;
    }
    const auto size = static_cast<std::uint32_t>(std::stoul(argv[1]));
    for (const auto& [way, name] :
         {std::pair(Retry::halfSecond, "every half second"), std::pair(Retry::backOff, "session"),
          std::pair(Retry::fixedRetryAfter, "session, Retry-After: 120"),
          std::pair(Retry::spreadRetryAfter, "session, Retry-After spread")}) {
        Fleet fleet(size, std::stod(argv[2]), std::stoi(argv[3]), way);
        fleet.run();
        fleet.print(name);
    }
}
