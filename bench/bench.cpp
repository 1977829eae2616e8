// Times the library against its counterparts. Started by scripts/bench, which brings the servers.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <json/version.h>
#include <syslog.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ca_bundle.h"
#include "operations.h"
#include "pairs.h"

namespace {

constexpr int kAllLines = LOG_UPTO(LOG_DEBUG);
constexpr int kNoDebugLines = LOG_UPTO(LOG_INFO);

struct Transport {
    std::string name;
    std::string base;
    std::string bundle;
    int logMask = kAllLines;
};

const Transport kPlain;

std::vector<Transport> transports() {
    const std::string plain = environment("ORBA_BENCH_HTTP");
    const std::string tls = environment("ORBA_BENCH_HTTPS");
    return {{"HTTP", plain, ""},
            {"HTTP, debug lines off", plain, "", kNoDebugLines},
            {"HTTPS, 1 CA", tls, ""},
            {"HTTPS, all CAs", tls, environment("ORBA_BENCH_BUNDLE")}};
}

std::string newFolder() {
    static int count = 0;
    const std::string folder = scratchFolder() + "/" + std::to_string(++count);
    std::filesystem::create_directory(folder);
    return folder;
}

// Google Benchmark keeps a copy of what it is given; an operation must stay one object.
void add(const std::string& group, const std::string& detail, const Operation& operation,
         const Transport& transport) {
    const auto kept = std::make_shared<const Operation>(operation);
    benchmark::RegisterBenchmark((group + "/" + kept->name + "/" + detail).c_str(),
                                 [kept, transport](benchmark::State& state) {
                                     useCaBundle(transport.bundle);
                                     setlogmask(transport.logMask);
                                     measure(state, *kept);
                                 })
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}

void addRequests() {
    for (const Transport& transport : transports()) {
        const std::vector<Operation> operations = requestOperations(transport.base, newFolder());
        for (const Operation& operation : operations) {
            add("request", transport.name, operation, transport);
        }
        // What the machine makes of two things that are the same.
        const Operation& first = operations.front();
        add("control", transport.name, {"bare twice", first.bare, first.bare}, transport);
    }
}

void addReplies() {
    const std::string base = environment("ORBA_BENCH_HTTP");
    for (std::size_t bytes = 1 << 10; bytes <= std::size_t{64} << 20; bytes *= 4) {
        add("reply", std::to_string(bytes), replyOperation(base, newFolder(), bytes), kPlain);
    }
}

void addTexts() {
    for (const std::size_t bytes : {10U, 100U, 1U << 10, 1U << 14, 1U << 17, 1U << 20}) {
        for (const Operation& operation : textOperations(bytes)) {
            add("text", std::to_string(bytes), operation, kPlain);
        }
    }
    add("text", "0", errorTextOperation(), kPlain);
}

// Each thread makes requests with an object and a cookie file of its own. The sides are separate
// benchmarks here, so they alternate by Google Benchmark's random interleaving of repetitions.
void addThreads(const std::string& side, std::function<void()> Operation::*member) {
    struct Variant {
        Operation (*make)(const std::string& base, const std::string& folder);
        std::string detail;
        int logMask;
    };
    const std::string base = environment("ORBA_BENCH_HTTP");
    for (const auto& [make, detail, logMask] :
         {Variant{&waitingOperation, "", kAllLines}, Variant{&promptOperation, "", kAllLines},
          Variant{&promptOperation, ", debug lines off", kNoDebugLines}}) {
        auto operations = std::make_shared<std::vector<Operation>>();
        for (int i = 0; i < 8; ++i) {
            operations->push_back(make(base, newFolder()));
        }
        const std::string name = "threads/" + operations->front().name + detail + "/" + side;
        benchmark::RegisterBenchmark(
            name.c_str(),
            [operations, member, mask = logMask](benchmark::State& state) {
                setlogmask(mask);
                const auto index = static_cast<std::size_t>(state.thread_index());
                const std::function<void()>& request = (*operations)[index].*member;
                while (state.KeepRunning()) {
                    request();
                }
                state.SetItemsProcessed(state.iterations());
            })
            ->ThreadRange(1, 8)
            ->UseRealTime();
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    benchmark::AddCustomContext("libcurl", curl_version());
    benchmark::AddCustomContext("jsoncpp", JSONCPP_VERSION_STRING);
    benchmark::AddCustomContext("compiler", __VERSION__);
    addRequests();
    addReplies();
    addTexts();
    addThreads("ours", &Operation::ours);
    addThreads("bare", &Operation::bare);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
