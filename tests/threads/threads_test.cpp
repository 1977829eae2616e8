// Many threads at once, an object each. Nothing but the objects' own state may come into play.
#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/utils.h"

namespace {

using namespace ORBA::OAuth2Client;

constexpr std::size_t kThreads = 8;

// Runs `work` in all threads, as nearly at once as can be; each reports what went wrong.
void runInThreads(const std::function<std::string(std::size_t)>& work) {
    std::atomic<std::size_t> waiting{0};
    std::vector<std::string> wrong(kThreads);
    std::vector<std::thread> threads;
    for (std::size_t number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            ++waiting;
            while (waiting < kThreads) {
                std::this_thread::yield();
            }
            try {
                wrong[number] = work(number);
            } catch (const std::exception& exception) {
                wrong[number] = exception.what();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::vector<std::string>(kThreads), wrong);
}

std::string differs(const std::string& wanted, const std::string& got) {
    return wanted == got ? "" : "\"" + got + "\" instead of \"" + wanted + "\"";
}

TEST(Threads, ErrCode2Str_FirstUse_KnownAndUnknownCodes) {
    runInThreads([](std::size_t number) {
        std::string wrong =
            differs("The remote server's SSL certificate was deemed not OK.", errCode2Str(33));
        for (int code = 34; code < 1000 && wrong.empty(); ++code) {
            wrong = differs("", errCode2Str(number % 2 == 0 ? code : -code)) +
                    differs("No Error.", errCode2Str(0)) + differs("", errCode2Str(6));
        }
        return wrong;
    });
}

TEST(Threads, Query_FirstUse) {
    runInThreads([](std::size_t number) {
        std::string wrong;
        for (int round = 0; round < 200 && wrong.empty(); ++round) {
            const std::string value = std::to_string(number) + " " + std::to_string(round);
            wrong = differs("n=" + std::to_string(number) + "%20" + std::to_string(round),
                            HttpClient::getEncodeQuery({{"n", value}}));
        }
        return wrong;
    });
}

TEST(Threads, UrlParameters_FirstUse) {
    runInThreads([](std::size_t number) {
        const std::string own = std::to_string(number);
        std::string wrong;
        for (int round = 0; round < 200 && wrong.empty(); ++round) {
            wrong = differs("a b" + own, decodeString("a%20b" + own)) +
                    differs("v " + own, getParamFromURL("/cb?x=1&v=v%20" + own + "&y=2", "v"));
        }
        return wrong;
    });
}

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? throw std::runtime_error("run this by with_server.mjs") : value;
}

class ThreadsWithServer : public ::testing::Test {
  protected:
    const std::string server = environment("ORBA_TEST_SERVER");
    const std::string folder = environment("ORBA_TEST_FOLDER");
};

// Whether the reply describes this thread's request, with the cookie of its request before.
std::string tellsOf(const Json::Value& reply, const std::string& line, const std::string& cookie,
                    const std::string& body) {
    return differs(line, reply["line"].asString()) + differs(cookie, reply["cookie"].asString()) +
           differs(body, reply["body"].asString());
}

TEST_F(ThreadsWithServer, Requests_WithAnObjectAndACookieFileEach) {
    runInThreads([this](std::size_t number) {
        const std::string path = "/" + std::to_string(number) + "/";
        HttpClient::HttpClient client(server, folder + "/jar" + std::to_string(number));
        std::string wrong;
        for (int round = 0; round < 10 && wrong.empty(); ++round) {
            const std::string get = path + "get/" + std::to_string(round);
            const std::string post = path + "post/" + std::to_string(round);
            Json::Value reply;
            client.setURL(server + path + "only");
            client.get(round % 2 == 0);
            client.setURL(server + get);
            client.get(reply);
            wrong = tellsOf(reply, "GET " + get, "seen=" + path + "only", "");
            client.setURL(server + post);
            client.postURLEncodedString("n=" + path, reply);
            wrong += tellsOf(reply, "POST " + post, "seen=" + get, "n=" + path);
            wrong += client.getRespCode() == 200 ? "" : "not 200";
        }
        return wrong;
    });
}

TEST_F(ThreadsWithServer, FailedRequests_AreEachThreadsOwn) {
    runInThreads([this](std::size_t number) {
        HttpClient::HttpClient client(number % 2 == 0 ? "" : server, folder + "/none/jar");
        try {
            client.get(false);
            return std::string("nothing was thrown");
        } catch (const HttpClientException& exception) {
            return differs(number % 2 == 0 ? "12" : "24", std::to_string(exception.errCode()));
        }
    });
}

TEST_F(ThreadsWithServer, Fingerprint_IsTheSameInAll) {
    const std::string wanted = getDeviceFingerprint();
    runInThreads([&](std::size_t) { return differs(wanted, getDeviceFingerprint()); });
}

}  // namespace
