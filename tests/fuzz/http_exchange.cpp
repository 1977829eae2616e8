// A server's bytes into one of HttpClient's operations (ORBA_FUZZED), with the real libcurl and no
// network: each connection is a socket pair into which its reply has been written before libcurl
// sends anything. Input: the replies, separated by lines "--- next connection ---"; the last one is
// repeated.
#include <curl/curl.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "fakes.h"
#include "fuzz.h"
#include "orbaoauth2client/httpclient.h"

namespace {

using Client = ORBA::OAuth2Client::HttpClient::HttpClient;
using Request = std::function<void(Client&)>;
using fuzz::Outcome;
using fuzz::require;
using fuzz::requireEqual;

enum class Fuzzed { HTTP_GET, HTTP_GET_JSON, HTTP_POST };
enum class Method { kGet, kGetFollowing, kPost };

constexpr char kUrl[] = "http://device.test/a/b?c=d";
constexpr char kForm[] = "grant_type=refresh_token&refresh_token=r1";
constexpr std::size_t kMaxReplies = 64 * 1024;  // more would not fit into a socket's buffer
constexpr int kAttempts = 3;
constexpr char kNextConnection[] = "--- next connection ---\n";
constexpr char kProperReply[] = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{\"k\": 15}";

// --- the server ---

// libcurl 7.88 joins a folded line to a header field that it has freed when that line is the first
// one of a later transfer of its handle. No program can keep a server from that, so ours does not
// do it.
std::string withoutFoldAtTheBegin(std::string reply) {
    for (std::size_t line = 0; line < reply.size(); line = reply.find('\n', line) + 1) {
        if (reply[line] == ' ' || reply[line] == '\t') {
            reply[line] = '-';
        }
        const bool isBeforeFields = strncasecmp(reply.c_str() + line, "HTTP/", 5) == 0 ||
                                    reply[line] == '\r' || reply[line] == '\n';
        if (!isBeforeFields || reply.find('\n', line) == std::string::npos) {
            break;
        }
    }
    return reply;
}

class Server {
  public:
    void serve(const std::string& text) {
        replies.clear();
        std::size_t begin = 0;
        for (std::size_t end = 0; end != std::string::npos;
             begin = end + sizeof kNextConnection - 1) {
            end = text.find(kNextConnection, begin);
            const std::string reply = text.substr(begin, end - begin);
            replies.push_back(replies.empty() ? reply : withoutFoldAtTheBegin(reply));
        }
        startAgain();
    }

    void startAgain() {
        connections = 0;
        for (const int end : openEnds) {
            close(end);
        }
        openEnds.clear();
    }

    // The client's end of a new connection.
    int connect() {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0,
                "a socket pair can be made");
        const std::string& reply = nextReply();
        const ssize_t sent = send(ends[1], reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        require(sent == static_cast<ssize_t>(reply.size()), "the reply fits into the socket");
        shutdown(ends[1], SHUT_WR);
        openEnds.push_back(ends[1]);  // libcurl's sending must not fail
        return ends[0];
    }

  private:
    // An endless chain of redirects ends here; the library and libcurl would go on for 30 s.
    static constexpr std::size_t kMaxConnections = 16;

    const std::string& nextReply() {
        static const std::string nothing;
        const std::size_t index = connections++;
        if (index >= kMaxConnections) {
            return nothing;
        }
        return replies[std::min(index, replies.size() - 1)];
    }

    std::vector<std::string> replies;
    std::vector<int> openEnds;
    std::size_t connections = 0;
};

Server server;

curl_socket_t openSocket(void* /*data*/, curlsocktype /*purpose*/, curl_sockaddr* /*address*/) {
    return server.connect();
}

// --- libcurl, asked directly ---

struct Cleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};

std::size_t collect(char* piece, std::size_t size, std::size_t count, void* body) {
    static_cast<std::string*>(body)->append(piece, size * count);
    return size * count;
}

// What libcurl reports about up to three attempts.
struct Answer {
    CURLcode result = CURLE_OK;
    long status = 0;
    const char* redirect = nullptr;
    std::string body;
    std::unique_ptr<CURL, Cleanup> curl{curl_easy_init()};

    explicit Answer(Method method) {
        curl_easy_setopt(curl.get(), CURLOPT_URL, kUrl);
        curl_easy_setopt(curl.get(), CURLOPT_COOKIEFILE, "");
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
        if (method == Method::kGetFollowing) {
            curl_easy_setopt(curl.get(), CURLOPT_FOLLOWLOCATION, 1L);
        }
        if (method == Method::kPost) {
            curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, "POST");
            curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, kForm);
        }
        perform();
    }

    void perform() {
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
            result = curl_easy_perform(curl.get());
            fuzz::noteFeature("attempt " + std::to_string(attempt) + ", result " +
                              std::to_string(result));
            if (result == CURLE_OK) {
                curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
                curl_easy_getinfo(curl.get(), CURLINFO_REDIRECT_URL, &redirect);
                fuzz::noteFeature("status " + std::to_string(status));
                return;
            }
        }
    }
};

// --- what the library is to make of it ---

struct Expected {
    Outcome outcome;
    long status = 0;
    std::string redirectUrl;
    Json::Value json;
};

Expected expectedOf(const Answer& answer, bool parsed) {
    Expected expected;
    if (answer.result != CURLE_OK) {
        expected.outcome = fuzz::transferFailure(answer.result);
    } else {
        expected.status = answer.status;
        expected.outcome = fuzz::statusFailure(kUrl, answer.status, answer.redirect != nullptr);
        if (expected.outcome.code == 0 && answer.status >= 300) {
            expected.redirectUrl = answer.redirect;
        }
        if (expected.outcome.code == 0 && parsed) {
            const Outcome notJson = {2, "Failed to parse response, might be format problem."};
            const fuzz::ParsedJson reply = fuzz::parseJson(fuzz::upToNul(answer.body), notJson);
            expected.outcome = reply.outcome;
            expected.json = reply.value;
        }
    }
    if (expected.outcome.code != 0) {
        expected.outcome.text = std::string("Failed to do HTTP Get request to [") + kUrl +
                                "] due to: " + expected.outcome.text;
    }
    return expected;
}

Outcome requestOutcome(const Request& request, Client& client) {
    const Outcome outcome =
        fuzz::outcomeOf<ORBA::OAuth2Client::HttpClientException>([&] { request(client); });
    fuzz::requireNothingHeld();
    return outcome;
}

// Has the library make a request that is answered with the replies and requires that it does what
// libcurl, asked directly, says about the same replies; that the same object then gets a proper
// reply; and that nothing is left. `json` is where the request puts the reply, null for none.
void checkRequest(const std::string& replies, Method method, const Request& request,
                  const Json::Value* json) {
    fakes::reset();
    server.serve(replies);
    const Expected expected = expectedOf(Answer(method), json != nullptr);

    server.startAgain();
    Client client(kUrl, "/dev/null");  // no cookie is kept from one input to the next
    requireEqual(expected.outcome, requestOutcome(request, client), "how the request ends");
    requireEqual(expected.status, client.getRespCode(), "the status");
    requireEqual(expected.redirectUrl, client.getRedirectURL(), "the redirect URL");
    if (json != nullptr && expected.outcome.code == 0) {
        fuzz::requireEqualJson(expected.json, *json, "the parsed reply");
    }

    server.serve(kProperReply);
    requireEqual(Outcome{}, requestOutcome(request, client), "the object's next request");
    requireEqual(200L, client.getRespCode(), "the next status");
    requireEqual(std::string(), client.getRedirectURL(), "the next redirect URL");
    if (json != nullptr) {
        requireEqual(Json::Value(15), (*json)["k"], "the next reply");
    }
    server.startAgain();
}

}  // namespace

// Takes the place of the C library's for libcurl, too: the sockets above are connected already, and
// no other is ever to be. libcurl 7.88 does not honour CURL_SOCKOPT_ALREADY_CONNECTED.
extern "C" __attribute__((visibility("default"))) int connect(int, const sockaddr*, socklen_t) {
    return 0;
}

// Every handle, the library's and our own, talks to the server above.
extern "C" CURL* __real_curl_easy_init(void);
extern "C" CURL* __wrap_curl_easy_init(void) {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    require(initialised == CURLE_OK, "libcurl can be initialised");
    // Neither a name nor a proxy is ever looked up, and no other protocol is followed to.
    static curl_slist* const serverAddress = curl_slist_append(nullptr, "::127.0.0.1:80");
    CURL* const curl = __real_curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_CONNECT_TO, serverAddress);
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http");
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, openSocket);
    return curl;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxReplies) {
        return 0;
    }
    const std::string replies = fuzz::textOf(data, size);
    Json::Value reply;
    switch (Fuzzed::ORBA_FUZZED) {
        case Fuzzed::HTTP_GET:
            checkRequest(
                replies, Method::kGet, [](Client& client) { client.get(false); }, nullptr);
            checkRequest(
                replies, Method::kGetFollowing, [](Client& client) { client.get(true); }, nullptr);
            break;
        case Fuzzed::HTTP_GET_JSON:
            checkRequest(
                replies, Method::kGet, [&](Client& client) { client.get(reply); }, &reply);
            break;
        case Fuzzed::HTTP_POST:
            checkRequest(
                replies, Method::kPost,
                [&](Client& client) { client.postURLEncodedString(kForm, reply); }, &reply);
            break;
    }
    return 0;
}
