// One session in several threads and over forks.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "stand_ins.h"
#include "token_store.h"

// Writes the counts of a coverage build, which _exit() would lose; null in other builds.
extern "C" void __gcov_exit() __attribute__((weak));

namespace {

using namespace ORBA::OAuth2Session;
using namespace std::chrono_literals;
using outside::Answer;
using outside::Request;

outside::Outside& out() { return outside::get(); }

// Holds the first call of a kind up until the other threads have had the time to wait for it.
class SharedSession : public SessionTest {
  protected:
    // Runs `first`; while it is in that call, `others` run in threads of their own. Gives codes, or
    // 0.
    std::vector<int> during(const std::string& call, const std::function<void()>& first,
                            const std::vector<std::function<void()>>& others) {
        session();
        std::vector<int> codes(others.size() + 1, 0);
        std::vector<std::thread> threads;
        fakes::world().onCall = [&](const std::string& name) {
            if (name != call || !threads.empty()) {
                return;
            }
            for (std::size_t i = 0; i < others.size(); ++i) {
                threads.emplace_back([&, i] { codes[i] = codeOf(others[i]); });
            }
            usleep(300'000);  // nanosleep() is a stand-in
        };
        codes.back() = codeOf(first);
        for (std::thread& thread : threads) {
            thread.join();
        }
        fakes::world().onCall = nullptr;
        return codes;
    }

    static int codeOf(const std::function<void()>& call) {
        try {
            call();
            return 0;
        } catch (const SessionException& exception) {
            return exception.errCode();
        }
    }
    std::function<void()> asking(const std::string& expected) {
        return [this, expected] { EXPECT_EQ(expected, token()); };
    }
    std::function<void()> renewing(const std::string& refused, const std::string& expected) {
        return [this, refused, expected] { EXPECT_EQ(expected, renew(refused)); };
    }
};

TEST_F(SharedSession, Callers_GetTheResultOfOneRequest) {
    const auto ask = asking("at-2");
    EXPECT_EQ(std::vector<int>(4, 0), during("loginIDP", ask, {ask, ask, renewing("x", "at-2")}));
    EXPECT_EQ(3U, out().requests.size());
}

TEST_F(SharedSession, Callers_GetTheFailureOfOneRequest) {
    out().intercept = [](const Request&, Answer& answer) {
        answer = {503};
        return true;
    };
    const auto ask = [this] { token(); };
    EXPECT_EQ(std::vector<int>(4, 17),
              during("curl_multi_perform", ask, {ask, ask, [this] { renew("x"); }}));
    EXPECT_EQ(1U, out().requests.size());
}

// Nobody else asks: neither for a token that has ended already, nor after a failure that closes no
// gate.
TEST_F(SharedSession, Callers_GetWhatAnotherCallWouldNotGet) {
    out().lifetime = 0;
    EXPECT_EQ(std::vector<int>(3, 0),
              during("loginIDP", asking("at-2"), {asking("at-2"), renewing("x", "at-2")}));
    EXPECT_EQ(3U, out().requests.size());
    fakes::world().failAt["ORBATOVRAUserAgentNameGet"] =
        fakes::world().counts["ORBATOVRAUserAgentNameGet"] + 1;
    const auto ask = [this] { token(); };
    EXPECT_EQ(std::vector<int>(3, 18),
              during("ORBATOVRAUserAgentNameGet", ask, {ask, [this] { renew("x"); }}));
}

TEST_F(SharedSession, TokenTooNewToRenew_IsTheFailureOfThoseWhoRenewItOnly) {
    token();
    const auto refused = [this] { renew("at-2"); };
    EXPECT_EQ((std::vector<int>{40, 0, 0, 40}),
              during("flock", refused, {refused, asking("at-2"), renewing("x", "at-2")}));
}

TEST_F(SharedSession, RenewedToken_IsTheAnswerForAll) {
    token();
    out().advance(10s);
    const auto renewIt = renewing("at-2", "at-3");
    EXPECT_EQ(std::vector<int>(3, 0), during("curl_multi_perform", renewIt, {renewIt, renewIt}));
    EXPECT_EQ(4U, out().requests.size());
}

TEST_F(SharedSession, RenewedTokenThatSomebodyRefused_IsNoAnswerForThem) {
    token();
    out().advance(10s);
    EXPECT_EQ((std::vector<int>{40, 0}),
              during("curl_multi_perform", renewing("at-2", "at-3"), {[this] { renew("at-3"); }}));
}

TEST_F(SharedSession, EarlyRenewal_OthersGoOnWithTheTokenAtHand) {
    token();
    out().advance(3530s);
    EXPECT_EQ((std::vector<int>{0, 0}),
              during("curl_multi_perform", asking("at-3"), {asking("at-2")}));
}

TEST_F(SharedSession, SignOut_AndCallsAtTheSameTimeTakeTurns) {
    token();
    const auto end = [this] { session().signOut(); };
    EXPECT_EQ((std::vector<int>{0, 0, 0}), during("unlinkat", end, {asking("at-4"), end}));
}

TEST_F(SharedSession, Cancel_EndsThoseWhoWait) {
    EXPECT_EQ((std::vector<int>{35, 35}), during("loginIDP", [this] { token(); }, {[this] {
                                                     session().cancel();
                                                     token();
                                                 }}));
}

// While the one they wait for is in a call that cannot be ended.
TEST_F(SharedSession, Cancel_EndsThoseWhoWaitSoon) {
    session();
    std::thread waiting;
    std::atomic<int> code{0};
    fakes::world().onCall = [&](const std::string& name) {
        if (name != "loginIDP") {
            return;
        }
        waiting = std::thread([&] { code = codeOf([this] { token(); }); });
        usleep(300'000);
        session().cancel();
        for (int i = 0; i < 2000 && code == 0; ++i) {
            usleep(10'000);
        }
        EXPECT_EQ(35, code);
    };
    EXPECT_EQ(35, codeOf([this] { token(); }));
    waiting.join();
}

TEST_F(SharedSession, FailedSignOut_IsTheFailureOfTheOneWhoAsked) {
    token();
    out().advance(2h);
    fakes::world().failAt["unlinkat"] = fakes::world().counts["unlinkat"] + 2;
    EXPECT_EQ((std::vector<int>{0, 38}),
              during("flock", [this] { session().signOut(); }, {asking("at-3")}));
}

TEST_F(SharedSession, CancelDuringAnEarlyRenewal_IsThrown) {
    token();
    out().advance(3530s);
    out().intercept = [this](const Request&, Answer& answer) {
        session().cancel();
        return answer.hangs = true;
    };
    EXPECT_EQ(35, codeOf([this] { token(); }));
}

class ForkedSession : public SharedSession {
  protected:
    static constexpr char kInherited[] =
        "The session was made by a parent process: make one in the child.";

    static void inChild(const std::function<bool()>& work) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            const int status = work() ? 0 : 1;
            if (__gcov_exit != nullptr) {
                __gcov_exit();
            }
            _exit(status);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    }
};

TEST_F(ForkedSession, Child_IsRefusedAndMakesItsOwn) {
    token();
    inChild([this] {
        const bool refused =
            failure().what() == std::string(kInherited) && codeOf([this] { token(); }) == 34 &&
            codeOf([this] { renew("x"); }) == 34 && codeOf([this] { session().signOut(); }) == 34;
        theSession.reset();
        return refused && token() == "at-2";
    });
}

TEST_F(ForkedSession, LocksAreReleasedInAnyOrder) {
    const auto store = [this](const char* name) {
        auto made = std::make_unique<TokenStore>(folder + name);
        EXPECT_TRUE(made->tryLock());
        return made;
    };
    auto first = store("/1");
    auto second = store("/2");
    first.reset();
    first = store("/1");
    inChild([] { return true; });
    EXPECT_FALSE(TokenStore(folder + "/2").tryLock());
    second.reset();
    EXPECT_FALSE(TokenStore(folder + "/1").tryLock());
    EXPECT_TRUE(TokenStore(folder + "/2").tryLock());
}

// A child has the descriptor too, until it runs.
TEST_F(ForkedSession, ReleasedLock_IsFreeWhoeverElseHasItsDescriptor) {
    auto store = std::make_unique<TokenStore>(folder + "/tokens");
    EXPECT_TRUE(store->tryLock());
    std::vector<int> copies;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) == folder + "/tokens.work/lock") {
            copies.push_back(dup(std::stoi(entry.path().filename())));
        }
    }
    EXPECT_EQ(1U, copies.size());
    store.reset();
    EXPECT_TRUE(TokenStore(folder + "/tokens").tryLock());
    for (const int copy : copies) {
        close(copy);
    }
}

// Its number may be another file's by then, which a child of the child keeps.
TEST_F(ForkedSession, Child_ClosesTheLocksOnce) {
    session();  // forks are watched from now on
    TokenStore store(folder + "/tokens");
    EXPECT_TRUE(store.tryLock());
    const auto files = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = files();
    inChild([&] {
        const bool closed = files() == before - 1;
        const int reused = open("/", O_RDONLY | O_CLOEXEC);
        inChild([&] { return files() == before && fcntl(reused, F_GETFD) >= 0; });
        return closed && !HasFailure();
    });
}

// A child that is forked during a request does not keep the lock.
TEST_F(ForkedSession, ChildOfARequest_DoesNotHoldTheLock) {
    Settings other = settings();
    other.tokenFile = folder + "/other.json";
    Session second(other);
    int depth = 0;
    out().intercept = [&](const Request& request, Answer& answer) {
        if (++depth == 1) {  // two sessions hold their locks
            EXPECT_NE("", second.accessToken().text);
            inChild([this] { return codeOf([this] { token(); }) == 34; });
        }
        answer = out().answer(request);
        return true;
    };
    EXPECT_NE("", token());
}

}  // namespace
