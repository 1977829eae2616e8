// orba-token: prints a good access token, for shell scripts and services that are not C++.
#include <json/json.h>
#include <orbaoauth2session/session.h>
#include <sys/resource.h>
#include <sysexits.h>
#include <syslog.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

namespace {

using ORBA::OAuth2Session::Remedy;
using ORBA::OAuth2Session::Session;
using ORBA::OAuth2Session::SessionException;
using ORBA::OAuth2Session::Settings;

const std::string kUsage = "usage: orba-token [--renew | --sign-out] SETTINGS.json\n";
const std::string kHelp = R"(
Prints a good access token of the device.

  --renew     reads a token that a server refused from standard input and prints another one
  --sign-out  ends the sign-in
  --help      shows this text
  --version   shows the version

orba-token(1) describes the settings and the exit status.
)";

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
    throw SessionException(34, path + ": " + what, Remedy::fixSettings);
}

Settings readSettings(const std::string& path) {
    std::ifstream file(path);
    Json::CharReaderBuilder reader;
    Json::CharReaderBuilder::strictMode(&reader.settings_);
    Json::Value members;
    if (!file || !Json::parseFromStream(reader, file, &members, nullptr) || !members.isObject()) {
        refuse(path, file ? "not a JSON object" : "cannot be read");
    }
    Settings settings;
    const std::map<std::string, std::string*> texts = {
        {"authorizationEndpoint", &settings.authorizationEndpoint},
        {"tokenEndpoint", &settings.tokenEndpoint},
        {"clientId", &settings.clientId},
        {"redirectUri", &settings.redirectUri},
        {"scope", &settings.scope},
        {"tokenFile", &settings.tokenFile},
        {"revocationEndpoint", &settings.revocationEndpoint},
    };
    for (const std::string& name : members.getMemberNames()) {
        const Json::Value& value = members[name];
        const auto text = texts.find(name);
        const bool isTime = name == "margin" || name == "timeout";
        if (text == texts.end() && !isTime) {
            refuse(path, "unknown member " + name);
        }
        if (isTime ? !value.isInt() : !value.isString()) {
            refuse(path, "wrong type of " + name);
        }
        if (name == "margin") {
            settings.margin = std::chrono::seconds(value.asInt());
        } else if (name == "timeout") {
            settings.timeout = std::chrono::milliseconds(value.asInt());
        } else {
            *text->second = value.asString();
        }
    }
    return settings;
}

int exitStatus(Remedy remedy) {
    switch (remedy) {
        case Remedy::linkAccount:
            return EX_UNAVAILABLE;
        case Remedy::fixSettings:
            return EX_CONFIG;
        case Remedy::checkDevice:
            return EX_IOERR;
        default:
            return EX_TEMPFAIL;
    }
}

Session* session = nullptr;
volatile std::sig_atomic_t caught = 0;

extern "C" void cancel(int signal) {
    (void)std::signal(signal, SIG_DFL);  // a second one ends the program at once
    caught = signal;
    session->cancel();
}

void makeSession(const std::string& settingsFile) {
    session = new Session(readSettings(settingsFile));  // never deleted: a signal may come late
    for (const int signal : {SIGINT, SIGTERM}) {
        if (std::signal(signal, &cancel) == SIG_IGN) {
            (void)std::signal(signal, SIG_IGN);  // a background command of a shell
        }
    }
}

void print(const std::string& text) {
    if (caught == 0 && !(std::cout << text << std::endl)) {
        throw SessionException(38, "cannot write to standard output", Remedy::checkDevice);
    }
}

int run(const std::string& option, const std::string& settingsFile) {
    std::string refused;
    if (option == "--renew" && (!std::getline(std::cin, refused) || refused.empty())) {
        std::cerr << "orba-token: no token on standard input\n";
        return EX_USAGE;
    }
    makeSession(settingsFile);
    if (option == "--renew") {
        print(session->renew(refused).text);
    } else if (option.empty()) {
        print(session->accessToken().text);
    } else if (!session->signOut()) {
        std::cerr << "orba-token: signed out here, but the server could not be told\n";
    }
    return EX_OK;
}

int fail(int status, const std::string& text) {
    std::cerr << "orba-token: " << text << '\n';
    return status;
}

int runSafely(const std::string& option, const std::string& settingsFile) {
    try {
        return run(option, settingsFile);
    } catch (const SessionException& e) {
        const auto wait = e.retryAfter().count();
        return fail(exitStatus(e.remedy()),
                    e.what() + (wait > 0 ? "; try again in " + std::to_string(wait) + " s" : ""));
    } catch (const std::exception& e) {
        return fail(EX_IOERR, e.what());
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string last = argc > 1 ? argv[argc - 1] : "-";
    const std::string option = argc == 3 ? argv[1] : "";
    if (argc == 2 && (last == "-h" || last == "--help" || last == "--version")) {
        std::cout << (last == "--version" ? "orba-token " ORBA_VERSION "\n" : kUsage + kHelp);
        return EX_OK;
    }
    if (argc > 3 || last[0] == '-' ||
        (argc == 3 && option != "--renew" && option != "--sign-out")) {
        std::cerr << kUsage;
        return EX_USAGE;
    }
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);   // no core dump shows the tokens
    setlogmask(LOG_UPTO(LOG_INFO));  // no debug line shows other secrets
    const int status = runSafely(option, last);
    if (caught != 0) {
        (void)std::raise(caught);
    }
    return status;
}
