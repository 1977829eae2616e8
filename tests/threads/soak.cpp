// Makes many requests in one process and requires that it does not grow: file descriptors, memory.
//
// usage: node with_server.mjs soak REQUESTS
#include <json/json.h>
#include <malloc.h>
#include <syslog.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "orbaoauth2client/httpclient.h"

namespace {

using Client = ORBA::OAuth2Client::HttpClient::HttpClient;

// Long enough for everything that is made once or is a cache to be there.
constexpr int kWarmUp = 1000;
// What there may be more than after the warm-up. The heap in use is measured to be the same to the
// byte; the bound leaves room for a buffer of some standard library, not for a leak.
constexpr long kHeapBound = 1024;
constexpr long kResidentBound = 1024 * 1024;

void require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

// --- the requests ---

struct Server {
    std::string url;
    std::string cookies;
};

void requireReceived(const Json::Value& reply, const std::string& line, int headers,
                     const std::string& body) {
    require(reply["line"] == line && reply["headers"] == headers && reply["body"] == body,
            "the server received something else: " + reply.toStyledString());
}

void getJson(const Server& server) {
    Client client(server.url, server.cookies);
    Json::Value reply;
    client.get(reply);
    requireReceived(reply, "GET /", 0, "");
}

void getJsonWithHeaders(const Server& server) {
    Client client(server.url, server.cookies);
    client.setHeader("Accept", "application/json");
    client.setHeader("X-Soak-1", "one");
    client.setHeader("X-Soak-2", "two");
    client.setHeader("X-Soak-3", "three");
    Json::Value reply;
    client.get(reply);
    requireReceived(reply, "GET /", 3, "");
}

void postForm(const Server& server) {
    const std::map<std::string, std::string> form = {{"grant_type", "refresh_token"},
                                                     {"refresh_token", "r/1"}};
    const std::string body = ORBA::OAuth2Client::HttpClient::getEncodeQuery(form);
    Client client(server.url, server.cookies);
    Json::Value reply;
    client.postURLEncodedString(body, reply);
    requireReceived(reply, "POST /", 0, "grant_type=refresh_token&refresh_token=r%2F1");
}

void getRedirect(const Server& server) {
    Client client(server.url + "/redirect", server.cookies);
    client.get(false);
    require(client.getRespCode() == 302 && client.getRedirectURL() == "app://callback/?code=1",
            "the redirect is another: " + client.getRedirectURL());
}

using Request = std::function<void(const Server&)>;

void makeRequests(const Server& server, int count) {
    static const std::vector<Request> kinds = {getJson, getJsonWithHeaders, postForm, getRedirect};
    for (int i = 0; i < count; ++i) {
        kinds[static_cast<std::size_t>(i) % kinds.size()](server);
    }
}

// --- the figures ---

struct Figures {
    long descriptors;
    long heap;      // bytes in use
    long resident;  // bytes
};

long residentBytes() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            long kibibytes = 0;
            status >> kibibytes;
            return kibibytes * 1024;
        }
    }
    throw std::runtime_error("no VmRSS in /proc/self/status");
}

Figures figures() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return {std::distance(begin(descriptors), end(descriptors)),
            static_cast<long>(mallinfo2().uordblks), residentBytes()};
}

void print(const char* when, const Figures& figures) {
    std::cout << std::left << std::setw(14) << when << std::right << std::setw(4)
              << figures.descriptors << std::setw(12) << figures.heap << std::setw(12)
              << figures.resident << std::endl;
}

bool hasGrown(const char* what, long before, long after, long bound) {
    const bool grown = after - before > bound;
    if (grown) {
        std::cout << what << ": grown by " << after - before << ", more than " << bound << '\n';
    }
    return grown;
}

int soak(const Server& server, int requests) {
    std::cout << "               fds   heap used    resident\n";
    const Figures atStart = figures();
    print("at the start", atStart);
    makeRequests(server, kWarmUp);
    const Figures warm = figures();
    print("warmed up", warm);

    const auto begin = std::chrono::steady_clock::now();
    makeRequests(server, requests);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    const Figures atEnd = figures();
    print("at the end", atEnd);
    std::cout << requests << " requests in " << std::fixed << std::setprecision(1)
              << seconds.count() << " s, " << requests / seconds.count()
              << " requests per second\n";

    bool grown = hasGrown("descriptors, warm-up", atStart.descriptors, warm.descriptors, 0);
    grown |= hasGrown("descriptors", warm.descriptors, atEnd.descriptors, 0);
    grown |= hasGrown("heap used (bytes)", warm.heap, atEnd.heap, kHeapBound);
    grown |= hasGrown("resident (bytes)", warm.resident, atEnd.resident, kResidentBound);
    return grown ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    const char* const url = std::getenv("ORBA_TEST_SERVER");
    const char* const folder = std::getenv("ORBA_TEST_FOLDER");
    if (argc != 2 || url == nullptr || folder == nullptr) {
        std::cerr << "usage: node with_server.mjs soak REQUESTS\n";
        return EXIT_FAILURE;
    }
    // The library logs some lines at debug priority for each request.
    setlogmask(LOG_UPTO(LOG_INFO));
    try {
        return soak({url, std::string(folder) + "/cookies"}, std::stoi(argv[1]));
    } catch (const std::exception& exception) {
        std::cerr << "soak: " << exception.what() << '\n';
        return EXIT_FAILURE;
    }
}
