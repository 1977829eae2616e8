// Sessions for tests that are not written in C++: reads one JSON request a line from standard input
// and writes one JSON answer a line. Each request runs in a thread of its own, or in the main
// thread with "inline", so answers come in any order and carry the request's "id". See
// session_lab.mjs.
//
// It also stands between the library and the C library: clocks can be set, and a file can seem to
// be somebody else's.

#include <cxxabi.h>
#include <dlfcn.h>
#include <json/json.h>
#include <linux/capability.h>
#include <orbaoauth2session/session.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

using ORBA::OAuth2Session::AccessToken;
using ORBA::OAuth2Session::Remedy;
using ORBA::OAuth2Session::Session;
using ORBA::OAuth2Session::SessionException;
using ORBA::OAuth2Session::Settings;

// ---- Between the library and the C library
// -------------------------------------------------------

namespace {

std::atomic<time_t> realtimeShift{0};
std::atomic<time_t> boottimeShift{0};
std::atomic<ino_t> foreignInode{0};

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int disguised(int result, struct stat* status) {
    if (result == 0 && foreignInode != 0 && status->st_ino == foreignInode) {
        status->st_uid = 4242;
    }
    return result;
}

}  // namespace

extern "C" {
// time() is left alone: by it, OpenSSL looks at certificates.
__attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                         struct timespec* now) noexcept {
    static auto* const real = next<int(clockid_t, struct timespec*)>("clock_gettime");
    const int result = real(clock, now);
    if (clock == CLOCK_REALTIME) {
        now->tv_sec += realtimeShift;
    } else if (clock == CLOCK_BOOTTIME) {
        now->tv_sec += boottimeShift;
    }
    return result;
}
__attribute__((visibility("default"))) int fstat(int file, struct stat* status) noexcept {
    static auto* const real = next<int(int, struct stat*)>("fstat");
    return disguised(real(file, status), status);
}
__attribute__((visibility("default"))) int stat(const char* path, struct stat* status) noexcept {
    static auto* const real = next<int(const char*, struct stat*)>("stat");
    return disguised(real(path, status), status);
}
__attribute__((visibility("default"))) int lstat(const char* path, struct stat* status) noexcept {
    static auto* const real = next<int(const char*, struct stat*)>("lstat");
    return disguised(real(path, status), status);
}
__attribute__((visibility("default"))) int fstatat(int folder, const char* path,
                                                   struct stat* status, int flags) noexcept {
    static auto* const real = next<int(int, const char*, struct stat*, int)>("fstatat");
    return disguised(real(folder, path, status, flags), status);
}
}

namespace {

// ---- Requests
// ------------------------------------------------------------------------------------

std::mutex sessionsMutex;
std::map<std::string, std::unique_ptr<Session>> sessions;
std::atomic<Session*> cancelledBySignal{nullptr};

Settings settingsOf(const Json::Value& object) {
    Settings settings;
    const auto take = [&object](const char* name, std::string& text) {
        text = object.get(name, "").asString();
    };
    take("authorizationEndpoint", settings.authorizationEndpoint);
    take("tokenEndpoint", settings.tokenEndpoint);
    take("clientId", settings.clientId);
    take("redirectUri", settings.redirectUri);
    take("scope", settings.scope);
    take("tokenFile", settings.tokenFile);
    take("revocationEndpoint", settings.revocationEndpoint);
    settings.margin = std::chrono::seconds(object.get("margin", 60).asInt64());
    settings.timeout = std::chrono::milliseconds(object.get("timeout", 120'000).asInt64());
    return settings;
}

Session& sessionOf(const Json::Value& request) {
    const std::lock_guard<std::mutex> lock(sessionsMutex);
    return *sessions.at(request["session"].asString());
}

Json::Value jsonOf(const AccessToken& token) {
    using std::chrono::duration;
    Json::Value object;
    object["text"] = token.text;
    object["scope"] = token.scope;
    if (token.expires != std::chrono::system_clock::time_point::max()) {
        object["expires"] = duration<double>(token.expires.time_since_epoch()).count();
    }
    return object;
}

Json::Value failureOf(const std::exception& exception) {
    Json::Value object;
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(typeid(exception).name(), nullptr, nullptr, &status), &std::free);
    object["class"] = name ? name.get() : typeid(exception).name();
    object["what"] = exception.what();
    if (const auto* failure = dynamic_cast<const SessionException*>(&exception)) {
        static const std::map<Remedy, const char*> kRemedies = {
            {Remedy::tryLater, "tryLater"},       {Remedy::linkAccount, "linkAccount"},
            {Remedy::fixSettings, "fixSettings"}, {Remedy::checkDevice, "checkDevice"},
            {Remedy::cancelled, "cancelled"},
        };
        object["code"] = failure->errCode();
        object["remedy"] = kRemedies.at(failure->remedy());
        object["retryAfter"] = Json::Int64{failure->retryAfter().count()};
        object["serverError"] = failure->serverError();
    }
    return object;
}

// The result, or what was thrown, and how long it took.
Json::Value outcomeOf(const std::function<Json::Value()>& operation) {
    Json::Value outcome;
    const auto begin = std::chrono::steady_clock::now();
    try {
        outcome = operation();
    } catch (const std::exception& exception) {
        outcome = failureOf(exception);
    }
    outcome["seconds"] =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return outcome;
}

std::string lineOf(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

Json::Value open(const Json::Value& request) {
    auto session = std::make_unique<Session>(settingsOf(request["settings"]));
    const std::lock_guard<std::mutex> lock(sessionsMutex);
    sessions[request["session"].asString()] = std::move(session);
    return Json::Value(Json::objectValue);
}

Json::Value close(const Json::Value& request) {
    const std::lock_guard<std::mutex> lock(sessionsMutex);
    sessions.erase(request["session"].asString());
    return Json::Value(Json::objectValue);
}

Json::Value cancel(const Json::Value& request) {
    if (request["bySignal"].asBool()) {
        cancelledBySignal = &sessionOf(request);
        static_cast<void>(std::raise(SIGUSR2));
    } else {
        sessionOf(request).cancel();
    }
    return Json::Value(Json::objectValue);
}

Json::Value signOut(const Json::Value& request) {
    Json::Value result;
    result["told"] = sessionOf(request).signOut();
    return result;
}

Json::Value environment(const Json::Value&) {
    Json::Value result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        result["text"] = result["text"].asString() + *entry + "\n";
    }
    return result;
}

Json::Value setClock(const Json::Value& request) {
    realtimeShift = request["realtime"].asInt64();
    boottimeShift = request["boottime"].asInt64();
    return Json::Value(Json::objectValue);
}

Json::Value disguise(const Json::Value& request) {
    struct stat status {};
    foreignInode = 0;
    const std::string path = request["path"].asString();
    foreignInode = lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    return Json::Value(Json::objectValue);
}

// What becomes of the call on an inherited session and on a child's own one; with "hold", the child
// stays until it is killed, and its process id is the result.
Json::Value forkChild(const Json::Value& request) {
    int pipes[2];
    if (pipe(pipes) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        if (request["hold"].asBool()) {
            for (;;) {
                pause();
            }
        }
        Json::Value outcome;
        outcome["inherited"] = outcomeOf([&] { return jsonOf(sessionOf(request).accessToken()); });
        outcome["own"] = outcomeOf([&] {
            Session own(settingsOf(request["settings"]));
            return jsonOf(own.accessToken());
        });
        const std::string text = lineOf(outcome);
        _exit(::write(pipes[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0
                                                                                               : 1);
    }
    ::close(pipes[1]);
    Json::Value outcome;
    if (request["hold"].asBool()) {
        outcome["pid"] = child;
    } else {
        std::string text;
        char buffer[4096];
        for (ssize_t count = 0; (count = ::read(pipes[0], buffer, sizeof buffer)) > 0;) {
            text.append(buffer, static_cast<std::size_t>(count));
        }
        std::istringstream(text) >> outcome;
        int status = 0;
        waitpid(child, &status, 0);
        outcome["status"] = status;
    }
    ::close(pipes[0]);
    return outcome;
}

const std::map<std::string, std::function<Json::Value(const Json::Value&)>> kOperations = {
    {"open", open},
    {"close", close},
    {"token", [](const Json::Value& r) { return jsonOf(sessionOf(r).accessToken()); }},
    {"renew",
     [](const Json::Value& r) { return jsonOf(sessionOf(r).renew(r["refused"].asString())); }},
    {"signOut", signOut},
    {"cancel", cancel},
    {"environment", environment},
    {"clock", setClock},
    {"foreign", disguise},
    {"fork", forkChild},
};

// SIGKILL from the kernel's own timer, after so many microseconds.
void killLater(long microseconds) {
    struct sigevent event {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGKILL;
    timer_t timer{};
    struct itimerspec when {};
    when.it_value.tv_sec = microseconds / 1'000'000;
    when.it_value.tv_nsec = microseconds % 1'000'000 * 1000 + 1;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
        timer_settime(timer, 0, &when, nullptr) != 0) {
        std::abort();
    }
}

// "threads": so many at once. "mark": a system call before and after that shows in traces.
Json::Value answerTo(const Json::Value& request) {
    const auto& operation = kOperations.at(request["op"].asString());
    const auto run = [&] { return outcomeOf([&] { return operation(request); }); };
    if (request.isMember("killAfter")) {
        killLater(static_cast<long>(request["killAfter"].asInt64()));
    }
    if (request["mark"].asBool()) {
        static_cast<void>(::access("/mark/begin", F_OK));
    }
    Json::Value answer;
    if (request.isMember("threads")) {
        std::vector<Json::Value> outcomes(request["threads"].asUInt());
        std::vector<std::thread> threads;
        threads.reserve(outcomes.size());
        for (Json::Value& outcome : outcomes) {
            threads.emplace_back([&] { outcome = run(); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        for (const Json::Value& outcome : outcomes) {
            answer["all"].append(outcome);
        }
    } else {
        answer = run();
    }
    if (request["mark"].asBool()) {
        static_cast<void>(::access("/mark/end", F_OK));
    }
    answer["id"] = request["id"];
    return answer;
}

void print(const Json::Value& answer) {
    static std::mutex mutex;
    const std::string line = lineOf(answer);
    const std::lock_guard<std::mutex> lock(mutex);
    std::cout << line << std::endl;
}

// So that root meets the same permissions as everybody.
void dropCapabilities() {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct none[2] = {};
    if (syscall(SYS_capset, &header, none) != 0) {
        std::abort();
    }
}

}  // namespace

int main() {
    dropCapabilities();
    struct sigaction action = {};
    action.sa_handler = [](int) {
        if (Session* session = cancelledBySignal) {
            session->cancel();
        }
    };
    sigaction(SIGUSR2, &action, nullptr);
    std::vector<std::thread> threads;
    for (std::string line; std::getline(std::cin, line);) {
        Json::Value request;
        std::istringstream(line) >> request;
        if (request["inline"].asBool()) {
            print(answerTo(request));
        } else {
            threads.emplace_back([request] { print(answerTo(request)); });
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    sessions.clear();
}
