// Measures the library beside its counterparts and prints JSON. bench/run.mjs starts it.
//
// usage: orba-bench pairs SECONDS OPERATION...               both sides in turns
//        orba-bench threads SECONDS REPETITIONS OPERATION    1 to 8 threads at once
//        orba-bench once ours|bare OPERATION CALLS           bytes that memory grew by at most
//        orba-bench sign-in TIMES                            at the test cloud
//        orba-bench syslog SOCKET                            receives log lines
//
// Environment:
//   ORBA_BENCH_BASE      the server's address
//   ORBA_BENCH_FOLDER    for cookie and token files
//   ORBA_BENCH_BUNDLE    if set: the CA bundle, in place of the system's
//   ORBA_BENCH_QUIET     if set: debug lines are off
#include <curl/curl.h>
#include <dlfcn.h>
#include <json/json.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "operations.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"

namespace {

namespace orba = ORBA::OAuth2Client;

using Side = std::function<void()> Operation::*;

// Nobody else uses it.
std::string newFolder() {
    std::string folder = environment("ORBA_BENCH_FOLDER") + "/XXXXXX";
    return mkdtemp(folder.data());
}

double now(clockid_t clock = CLOCK_MONOTONIC) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// ---- Both sides in turns -----------------------------------------------------------------------

constexpr double kShortestTurnSeconds = 100e-6;

// Of a call.
struct Seconds {
    double time;
    double processor;  // of this thread: without the server, and nearly undisturbed by other load
};

Seconds turn(const std::function<void()>& side, int calls) {
    const double processor = now(CLOCK_THREAD_CPUTIME_ID);
    const double time = now();
    for (int i = 0; i < calls; ++i) {
        side();
    }
    return {(now() - time) / calls, (now(CLOCK_THREAD_CPUTIME_ID) - processor) / calls};
}

// Who begins alternates, so that disturbances of the machine affect both sides alike.
Json::Value measurePairs(const std::string& name, double seconds) {
    const Operation operation = makeOperation(name, newFolder());
    int calls = 1;
    while (turn(operation.bare, calls).time * calls < kShortestTurnSeconds) {
        calls *= 2;
    }
    Json::Value result;
    result["operation"] = name;
    bool oursFirst = false;
    for (const double end = now() + seconds; now() < end; oursFirst = !oursFirst) {
        const Seconds first = turn(oursFirst ? operation.ours : operation.bare, calls);
        const Seconds second = turn(oursFirst ? operation.bare : operation.ours, calls);
        const Seconds& ours = oursFirst ? first : second;
        const Seconds& bare = oursFirst ? second : first;
        result["ours"].append(ours.time);
        result["bare"].append(bare.time);
        result["ratios"].append(ours.time / bare.time);
        result["processorRatios"].append(ours.processor / bare.processor);
    }
    return result;
}

// ---- Threads -----------------------------------------------------------------------------------

// Calls per second of all threads together, each with an operation of its own.
double throughput(const std::vector<Operation>& operations, Side side, int count, double seconds) {
    std::atomic<int> calls{0};
    const double begin = now();
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        threads.emplace_back([&, i] {
            for (; now() < begin + seconds; ++calls) {
                (operations[i].*side)();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return calls / (now() - begin);
}

Json::Value measureThreads(const std::string& name, double seconds, int repetitions) {
    std::vector<Operation> operations;
    for (int i = 0; i < 8; ++i) {
        operations.push_back(makeOperation(name, newFolder()));
    }
    Json::Value results;
    for (int count = 1; count <= 8; count *= 2) {
        Json::Value& result = results.append({});
        result["threads"] = count;
        for (int i = 0; i < repetitions; ++i) {
            result["ours"].append(throughput(operations, &Operation::ours, count, seconds));
            result["bare"].append(throughput(operations, &Operation::bare, count, seconds));
        }
    }
    return results;
}

// ---- A process of its own ----------------------------------------------------------------------

// A line of /proc/self/status, in bytes.
Json::Int64 memory(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::stol(line.substr(name.size() + 1)) * 1024;
        }
    }
    throw std::runtime_error("no " + name + " in /proc/self/status");
}

// Callgrind counts these calls only, without what only the first call of a process does.
Json::Value measureOnce(const std::string& name, Side side, int calls) {
    const Operation operation = makeOperation(name, newFolder());
    const Operation small = makeOperation("get(Json)", newFolder());
    // Memory is that of the first large reply.
    (calls == 1 ? small.*side : operation.*side)();
    const Json::Int64 before = memory("VmRSS");
    CALLGRIND_START_INSTRUMENTATION;
    for (int i = 0; i < calls; ++i) {
        (operation.*side)();
    }
    CALLGRIND_STOP_INSTRUMENTATION;
    return memory("VmHWM") - before;
}

// ---- Sign-in -----------------------------------------------------------------------------------

// Sums of libcurl's timers over the transfers of a step, in seconds.
Json::Value* timers = nullptr;

void addTimers(CURL* curl) {
    const auto moment = [curl](CURLINFO info) {
        curl_off_t microseconds = 0;
        curl_easy_getinfo(curl, info, &microseconds);
        return 1e-6 * static_cast<double>(microseconds);
    };
    const auto add = [](const char* phase, double seconds) {
        (*timers)[phase] = (*timers)[phase].asDouble() + seconds;
    };
    const double name = moment(CURLINFO_NAMELOOKUP_TIME_T);
    const double connect = moment(CURLINFO_CONNECT_TIME_T);
    const double tls = moment(CURLINFO_APPCONNECT_TIME_T);
    const double reply = moment(CURLINFO_STARTTRANSFER_TIME_T);
    add("connections", 1);
    add("name", name);
    add("connect", connect - name);
    add("tls", tls - connect);
    add("server", reply - moment(CURLINFO_PRETRANSFER_TIME_T));
    add("receive", moment(CURLINFO_TOTAL_TIME_T) - reply);
}

void measureStep(Json::Value& results, const char* step, const std::function<void()>& work) {
    timers = &results.append({});
    const double begin = now();
    work();
    (*timers)["total"] = now() - begin;
    (*timers)["step"] = step;
    timers = nullptr;
}

void signIn(Json::Value& results, const std::string& folder) {
    const std::string url =
        environment("ORBA_AUTHORIZATION_ENDPOINT") +
        "?client_id=fleet-lens&response_type=code&scope=openid%20offline_access%20fleet.read"
        "&redirect_uri=https%3A%2F%2Ffleet-lens.localhost%2Fcallback&state=af0ifjsldkj"
        "&code_challenge=E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM&code_challenge_method=S256";
    const std::string tokenUrl = environment("ORBA_TOKEN_ENDPOINT");
    const std::string tokens = folder + "/tokens";
    std::string code;

    setenv("ORBA_HOST_PROFILE", environment("ORBA_BENCH_WEB_PROFILE").c_str(), 1);
    measureStep(results, "login, web flow", [&] {
        orba::OAuth2 login(url, folder + "/cookies");
        code = orba::getParamFromURL(login.loginServiceByOrbaAccount(), "code");
    });
    measureStep(results, "exchange", [&] {
        orba::PKCE::getAccessToken({tokens, tokenUrl, "fleet-lens", code,
                                    "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk",
                                    "https%3A%2F%2Ffleet-lens.localhost%2Fcallback"});
    });
    measureStep(results, "refresh", [&] {
        orba::PKCE::refreshAccessToken({tokens, tokenUrl, "fleet-lens"});
    });
    setenv("ORBA_HOST_PROFILE", environment("ORBA_BENCH_GRANT_PROFILE").c_str(), 1);
    measureStep(results, "login, grant",
                [&] { orba::OAuth2(url, folder + "/cookies").loginServiceByOrbaAccount(); });
}

// ---- Log lines ---------------------------------------------------------------------------------

// Without a receiver each line would cost a failed connection instead of a delivery.
void receiveLines(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int receiver = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(receiver, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot receive log lines at " + path);
    }
    for (char line[8192]; recv(receiver, line, sizeof line, 0) >= 0;) {
    }
}

Json::Value run(const std::vector<std::string>& arguments) {
    const std::string command = arguments.empty() ? "" : arguments[0];
    Json::Value results;
    if (command == "pairs" && arguments.size() > 2) {
        for (std::size_t i = 2; i < arguments.size(); ++i) {
            results.append(measurePairs(arguments[i], std::stod(arguments[1])));
        }
    } else if (command == "threads" && arguments.size() == 4) {
        results = measureThreads(arguments[3], std::stod(arguments[1]), std::stoi(arguments[2]));
    } else if (command == "once" && arguments.size() == 4) {
        const Side side = arguments[1] == "ours" ? &Operation::ours : &Operation::bare;
        results = measureOnce(arguments[2], side, std::stoi(arguments[3]));
    } else if (command == "sign-in" && arguments.size() == 2) {
        for (int i = 0; i < std::stoi(arguments[1]); ++i) {
            signIn(results, newFolder());
        }
    } else if (command == "syslog" && arguments.size() == 2) {
        receiveLines(arguments[1]);
    } else {
        throw std::runtime_error("wrong arguments: its usage is in bench/bench.cpp");
    }
    return results;
}

}  // namespace

// These two hide libcurl's functions of the same name from this program and its libraries.
CURL* curl_easy_init(void) {
    static const auto original =
        reinterpret_cast<decltype(&curl_easy_init)>(dlsym(RTLD_NEXT, "curl_easy_init"));
    static const char* const bundle = std::getenv("ORBA_BENCH_BUNDLE");
    CURL* const curl = original();
    if (bundle != nullptr && curl_easy_setopt(curl, CURLOPT_CAINFO, bundle) != CURLE_OK) {
        curl_easy_cleanup(curl);
        return nullptr;
    }
    return curl;
}

CURLcode curl_easy_perform(CURL* curl) {
    static const auto original =
        reinterpret_cast<decltype(&curl_easy_perform)>(dlsym(RTLD_NEXT, "curl_easy_perform"));
    const CURLcode result = original(curl);
    if (timers != nullptr) {
        addTimers(curl);
    }
    return result;
}

int main(int argc, char** argv) try {
    std::ostream out(std::cout.rdbuf());
    std::cout.setstate(std::ios::badbit);  // the refresh prints its reply
    curl_global_init(CURL_GLOBAL_DEFAULT);
    if (std::getenv("ORBA_BENCH_QUIET") != nullptr) {
        setlogmask(LOG_UPTO(LOG_INFO));
    }
    out << run({argv + 1, argv + argc}) << std::endl;
    return EXIT_SUCCESS;
} catch (const std::exception& exception) {
    std::cerr << "orba-bench: " << exception.what() << '\n';
    return EXIT_FAILURE;
}
