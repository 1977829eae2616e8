// Every call that the session makes fails once, the n-th of each kind for every n.
#include <cstdio>
#include <filesystem>

#include "stand_ins.h"

namespace {

using namespace ORBA::OAuth2Session;
using namespace std::chrono_literals;
using ::testing::AnyOf;

outside::Outside& out() { return outside::get(); }

class SessionFaults : public SessionTest {
  protected:
    // A situation in which a call makes requests; afterwards the same call must succeed.
    void sweep(const std::string& situation, const std::function<void()>& prepare,
               const std::function<void()>& run) {
        const auto begin = [&] {
            restart();
            fakes::reset();
            std::filesystem::remove_all(tokenFile());
            std::filesystem::remove_all(tokenFile() + ".work");
            out() = {};
            prepare();
            fakes::world().counts.clear();
        };
        begin();
        {
            const fakes::UnderTest underTest;
            run();
        }
        auto counts = fakes::world().counts;
        // What a system without memory for its libraries does is theirs.
        counts.erase("malloc of a library");
        int faults = 0;
        for (const auto& [name, count] : counts) {
            for (int n = 1; n <= count; ++n) {
                SCOPED_TRACE(situation + ": " + name + " " + std::to_string(n));
                begin();
                fakes::world().failAt[name] = n;
                const auto descriptors = openDescriptors();
                attempt(run);
                EXPECT_EQ(descriptors, openDescriptors());
                ++faults;
                fakes::world().failAt.clear();
                expectWholeFile();
                out().advance(1h);
                EXPECT_NO_THROW(EXPECT_NE("", token()));
                expectWholeFile();
                if (HasFailure()) {
                    return;
                }
            }
        }
        std::printf("[  SWEEP   ] %s: %d faults\n", situation.c_str(), faults);
        EXPECT_GT(faults, 50);
    }

    static std::ptrdiff_t openDescriptors() {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    }

    void attempt(const std::function<void()>& run) {
        try {
            const fakes::UnderTest underTest;
            run();
        } catch (const SessionException& exception) {
            EXPECT_THAT(exception.errCode(), AnyOf(1, 9, 18, 19, 21, 23, 25, 26, 27, 32, 38, 39));
            EXPECT_NE(Remedy::fixSettings, exception.remedy()) << exception.what();
        } catch (const std::bad_alloc&) {
            SUCCEED();
        }
    }

    void expectWholeFile() const {
        if (std::filesystem::exists(tokenFile())) {
            EXPECT_NO_THROW(EXPECT_TRUE(stored().isMember("session")));
            EXPECT_EQ(std::filesystem::perms(0600),
                      std::filesystem::status(tokenFile()).permissions());
        }
    }
};

TEST_F(SessionFaults, WebLogin) {
    sweep(
        "web login", [] {}, [this] { token(); });
}

TEST_F(SessionFaults, Grant) {
    sweep(
        "grant",
        [] {
            out().grant = [] {
                out().codes = {"granted"};
                return std::string("granted");
            };
        },
        [this] { token(); });
}

TEST_F(SessionFaults, Refresh) {
    sweep(
        "refresh",
        [this] {
            token();
            out().advance(2h);
        },
        [this] { token(); });
}

TEST_F(SessionFaults, EarlyRenewal) {
    sweep(
        "early renewal",
        [this] {
            token();
            out().advance(3530s);
        },
        [this] { EXPECT_NE("", token()); });
}

TEST_F(SessionFaults, RefusedRefreshToken) {
    sweep(
        "refused refresh token",
        [this] {
            token();
            out().refreshTokens.clear();
            out().advance(2h);
        },
        [this] { token(); });
}

TEST_F(SessionFaults, Reserve) {
    sweep(
        "reserve of a killed process",
        [this] {
            token();
            std::filesystem::copy(tokenFile(), tokenFile() + ".work/reserve");
            restart();
        },
        [this] { token(); });
}

TEST_F(SessionFaults, SignOut) {
    sweep(
        "sign-out", [this] { token(); }, [this] { session().signOut(); });
}

}  // namespace
