// When a token ends and when the next request may be made: what only depends on what is passed in.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <thread>

#include "held_token.h"
#include "retry_gate.h"
#include "secrets.h"
#include "shelf.h"
#include "stand_ins.h"
#include "token_keeper.h"
#include "token_store.h"

namespace {

using namespace ORBA::OAuth2Session;
using namespace std::chrono_literals;

// ---- The gate
// ------------------------------------------------------------------------------------

std::string record(const std::string& line) { return digestOf({line}) + " " + line + "\n"; }

// What no session may have written, behind the right digest.
RetryGate load(const std::string& members, const char* boot = "boot") {
    RetryGate gate("digest", boot);
    gate.load(record(R"({"session":"digest",)" + members + "}"), 1h);
    return gate;
}

TEST(Gate, SenselessRecord_IsOpenOrShort) {
    for (const char* const open :
         {R"("failures":3)", R"("length":5000,"boot":"former")",
          R"("code":17,"length":"x","deadline":1e300)", R"("code":17,"length":"x","boot":"former")",
          R"("code":17,"length":-5,"boot":"former")"}) {
        EXPECT_FALSE(load(open).closedBy(1h)) << open;
    }
    const std::string waits = R"("code":17,"length":10000,"deadline":3605000)";
    EXPECT_EQ(5s, load(waits + R"(,"boot":"boot")").closedBy(1h)->retryAfter);
    EXPECT_EQ(5s, load(waits).closedBy(1h)->retryAfter);
    EXPECT_EQ(5s, load(waits + R"(,"boot":"former")", "").closedBy(1h)->retryAfter);
    EXPECT_EQ(10s, load(waits + R"(,"boot":"former")").closedBy(1h)->retryAfter);
    EXPECT_EQ(1h,
              load(R"("code":17,"length":3600001,"deadline":9999999)").closedBy(1h)->retryAfter);
    EXPECT_EQ(0, load(R"("code":"x","length":10000,"boot":"former")").closedBy(1h)->code);
    for (const auto& [number, remedy] :
         std::vector<std::pair<const char*, Remedy>>{{"-1", Remedy::tryLater},
                                                     {"0", Remedy::tryLater},
                                                     {"1", Remedy::linkAccount},
                                                     {"4", Remedy::cancelled},
                                                     {"5", Remedy::cancelled}}) {
        const std::string members =
            std::string(R"("code":17,"length":9,"boot":"x","remedy":)") + number;
        EXPECT_EQ(remedy, load(members).closedBy(1h)->remedy) << number;
    }
    EXPECT_THAT(load(R"("failures":1001,"renewals":-1)").text(),
                ::testing::HasSubstr(R"("failures":1000,"length":0,"renewals":0)"));
}

TEST(Gate, Record_HoldsAllThatAnotherProcessNeeds) {
    Failure cause{37, Remedy::linkAccount, std::string(501, 't'), "access_denied"};
    RetryGate gate("digest", "boot");
    gate.close(cause, 1h, 0.5006);
    EXPECT_EQ(1501ms, cause.retryAfter);
    gate.renewedAfterRefusal();
    EXPECT_EQ(
        record(R"({"boot":"boot","code":37,"deadline":3601501,"error":"access_denied",)"
               R"("failures":1,"length":1501,"remedy":1,"renewals":1,"session":"digest","text":")" +
               std::string(500, 't') + "\"}"),
        gate.text());
    RetryGate other("digest", "boot");
    other.load(gate.text(), 1h);
    EXPECT_EQ(gate.text(), other.text());
    const std::optional<Failure> failure = other.closedBy(1h + 1500ms);
    ASSERT_TRUE(failure);
    EXPECT_EQ(1ms, failure->retryAfter);
    EXPECT_TRUE(failure->repeated);
    EXPECT_EQ(37, failure->code);
    EXPECT_EQ("access_denied", failure->serverError);
    EXPECT_EQ(std::string(500, 't'), failure->text);
    EXPECT_FALSE(other.closedBy(1h + 1501ms));
    cause.retryAfter = 1s;
    gate.close(cause, 1h, 1);
    EXPECT_EQ(1s, cause.retryAfter);
}

TEST(Gate, OpenedOne_IsAsNew) {
    RetryGate gate("digest", "boot");
    const std::string text = gate.text();
    EXPECT_EQ(
        record(
            R"({"boot":"boot","deadline":0,"failures":0,"length":0,"renewals":0,"session":"digest"})"),
        text);
    Failure cause{17, Remedy::tryLater, "text"};
    gate.close(cause, 1h, 0);
    gate.open();
    EXPECT_EQ(text, gate.text());
}

TEST(Gate, RequiredAge_DoublesUntilATokenWasGoodForTenMinutes) {
    RetryGate gate("digest", "boot");
    for (const auto age : {10s, 20s, 40s, 80s, 160s, 300s, 300s}) {
        EXPECT_EQ(age, gate.requiredAge());
        gate.renewedAfterRefusal();
    }
    gate.refusedAtAge(10min);
    EXPECT_EQ(300s, gate.requiredAge());
    gate.refusedAtAge(10min + 1ms);
    EXPECT_EQ(10s, gate.requiredAge());
}

// ---- The shelf
// ------------------------------------------------------------------------------------------

TEST(Shelves, GiveATokenUntilItsTime) {
    fakes::reset();
    Shelf shelf;
    AccessToken token;
    EXPECT_FALSE(shelf.take(0s, token));
    shelf.put({"text", {}, "scope"}, 5s);
    EXPECT_TRUE(shelf.take(5s - 1ns, token));
    EXPECT_EQ("text", token.text);
    EXPECT_EQ("scope", token.scope);
    EXPECT_FALSE(shelf.take(5s, token));
    const AccessToken longer = {std::string(100, 'x'), {}, ""};
    fakes::world().failAt["operator new"] = 1;
    {
        const fakes::UnderTest underTest;
        EXPECT_THROW(shelf.put(longer, 9s), std::bad_alloc);
    }
    std::size_t good = 0;
    for (int i = 0; i < 16; ++i) {  // each thread has its place
        std::thread([&] { good += shelf.take(1s, token) ? 1U : 0U; }).join();
    }
    EXPECT_EQ(15U, good);
    shelf.clear();
    EXPECT_FALSE(shelf.take(0s, token));
}

TEST_F(SessionTest, GoodToken_IsOnTheShelf) {
    const std::atomic<bool> cancelled{false};
    Call call{std::chrono::nanoseconds::max(), cancelled};
    const Settings given = settings();
    TokenKeeper keeper(given);
    AccessToken token;
    EXPECT_FALSE(keeper.take(token));
    keeper.renew(std::nullopt, call);
    EXPECT_TRUE(keeper.take(token));
    EXPECT_EQ("at-2", token.text);
}

TEST_F(SessionTest, TokenFile_TellsWhenItWasWritten) {
    writeFile(tokenFile(), "");
    const timespec time[] = {{9, 0}, {5, 250'000'000}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, tokenFile().c_str(), time, 0));
    EXPECT_EQ(5250ms, TokenStore(tokenFile()).read().changed);
}

// ---- Secrets
// -------------------------------------------------------------------------------------

TEST(Secrets, AreBase64url) {
    fakes::reset();
    EXPECT_EQ("E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM",  // RFC 7636, appendix B
              challengeOf("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"));
    EXPECT_EQ(challengeOf("2:ab0:1:c"), digestOf({"ab", "", "c"}));
    std::string all;
    for (int i = 0; i < 100; ++i) {
        all += randomText();
    }
    EXPECT_EQ(
        std::string::npos,
        all.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"));
    EXPECT_NE(std::string::npos, all.find('-'));
    EXPECT_NE(std::string::npos, all.find('_'));
}

TEST(Secrets, WithoutLibcrypto) {
    const auto textOf = [](const std::function<void()>& call, const char* failing) {
        fakes::reset();
        fakes::world().failAt[failing] = 1;
        try {
            call();
        } catch (const Failure& failure) {
            return std::to_string(failure.code) + " " + failure.text;
        }
        return std::string();
    };
    EXPECT_EQ("1 libcrypto cannot compute SHA-256.",
              textOf([] { challengeOf("x"); }, "EVP_Digest"));
    EXPECT_EQ("9 libcrypto has no random numbers.", textOf([] { randomText(); }, "RAND_bytes"));
    EXPECT_EQ("", textOf([] { EXPECT_EQ(0.5, randomFraction()); }, "RAND_bytes"));
}

// ---- Tokens
// --------------------------------------------------------------------------------------

class HeldTokens : public SessionTest {
  protected:
    nanoseconds boot{};
    milliseconds wall{};

    void SetUp() override {
        SessionTest::SetUp();
        boot = outside::get().boot;
        wall = std::chrono::duration_cast<milliseconds>(outside::get().wall);
    }

    HeldToken fromFile(std::optional<milliseconds> lifetime, std::optional<milliseconds> left,
                       milliseconds age = 7s) {
        Tokens tokens;
        tokens.lifetime = lifetime;
        if (left) {
            tokens.expiresAt = wall + *left;
        }
        return heldFromFile(tokens, wall - age, settings());
    }
    milliseconds shown(const HeldToken& held) {
        return std::chrono::duration_cast<milliseconds>(held.token.expires.time_since_epoch()) -
               wall;
    }
};

TEST_F(HeldTokens, FromFile) {
    struct Case {
        std::optional<milliseconds> lifetime;
        std::optional<milliseconds> expiresIn;
        milliseconds left;
        milliseconds age;
    };
    for (const Case& one : std::vector<Case>{{1h, 1000s, 1000s, 2600s},
                                             {1h, 1ms, 1ms, 1h - 1ms},
                                             {1h, 0ms, 0ms, 7s},
                                             {1h, -5s, 0ms, 7s},
                                             {1h, 1h + 60s, 1h + 60s, -60s},
                                             {1h, 1h + 60s + 1ms, 0ms, 7s},
                                             {1h, {}, 0ms, 7s},
                                             {{}, 1000s, 0ms, 7s}}) {
        const HeldToken held = fromFile(one.lifetime, one.expiresIn);
        EXPECT_EQ(boot + one.left, held.expires);
        EXPECT_EQ(one.left, shown(held));
        EXPECT_EQ(boot - one.age, held.since);
    }
    EXPECT_EQ(nanoseconds::max(), fromFile({}, {}).expires);
    EXPECT_EQ(boot - 7s, fromFile({}, {}).since);
    EXPECT_EQ(boot, fromFile({}, {}, -7s).since);  // changed in the future
    EXPECT_EQ(fromFile({}, 1000s).expires, fromFile({}, 1000s).due);
}

TEST_F(HeldTokens, AreDueAtTheMargin_AndEarlyInTheLastTenToTwentyPercentBefore) {
    Tokens tokens;
    tokens.refreshToken = "r";
    tokens.sent = boot;
    Settings given = settings();
    for (const auto& [lifetime, margin, due] :
         std::vector<std::tuple<milliseconds, std::chrono::seconds, milliseconds>>{
             {1h, 60s, 3540s}, {100s, 60s, 75s}, {240s, 60s, 180s}, {1h, 0s, 1h}}) {
        given.margin = margin;
        tokens.lifetime = lifetime;
        tokens.expiresAt = wall + lifetime;
        double least = 1;
        double most = 0;
        for (int i = 0; i < 200; ++i) {
            const HeldToken held = heldFromReply(tokens, given);
            EXPECT_EQ(boot + lifetime, held.expires);
            EXPECT_EQ(boot + due, held.due);
            const double share = std::chrono::duration<double>(held.due - held.early) / lifetime;
            least = std::min(least, share);
            most = std::max(most, share);
        }
        EXPECT_GE(least, 0.0999999);
        EXPECT_LT(least, 0.11);
        EXPECT_GT(most, 0.19);
        EXPECT_LE(most, 0.2000001);
    }
}

}  // namespace
