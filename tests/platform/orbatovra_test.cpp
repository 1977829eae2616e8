// The host edition's account-service library: error number, buffers, records, wrong arguments. What
// its calls read is tested with the profile, and its requests with a server.
#include <gtest/gtest.h>
#include <klib/klib.h>
#include <malloc.h>
#include <orba_host_errors.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "support/host_profile.h"

namespace {

bool isZero(const char* begin, const char* end) {
    return std::all_of(begin, end, [](char c) { return c == 0; });
}

// ---- the error number
// ------------------------------------------------------------------------------

TEST(ErrorNumber, IsWhatWasSet) {
    ORBATOVRAErrSet(4000000000U);
    EXPECT_EQ(ORBATOVRAErrGet(), 4000000000U);
    ORBATOVRAErrSet(0);
    EXPECT_EQ(ORBATOVRAErrGet(), 0U);
}

TEST(ErrorNumber, FailureSetsIt_SuccessKeepsIt) {
    const HostProfile profile;
    ORBATOVRAErrSet(0);
    EXPECT_NE(ORBATOVRAAccountGet(nullptr), 0);
    EXPECT_EQ(ORBATOVRAErrGet(), static_cast<unsigned int>(ORBA_HOST_INVALID_ARGUMENT));
    char name[256];
    EXPECT_EQ(ORBATOVRAUserAgentNameGet(name, sizeof(name)), 0);
    EXPECT_EQ(ORBATOVRAErrGet(), static_cast<unsigned int>(ORBA_HOST_INVALID_ARGUMENT));
}

TEST(ErrorNumber, BelongsToItsThread) {
    ORBATOVRAErrSet(7);
    std::thread([] {
        EXPECT_EQ(ORBATOVRAErrGet(), 0U);
        ORBATOVRAErrSet(8);
    }).join();
    EXPECT_EQ(ORBATOVRAErrGet(), 7U);
}

// ---- buffers and records
// ---------------------------------------------------------------------------

TEST(UserAgent, FitsItsBufferExactly) {
    const HostProfile profile;
    profile.writeWith("user_agent", "12345");
    char name[] = "-------";
    EXPECT_EQ(ORBATOVRAUserAgentNameGet(name, 6), 0);
    EXPECT_STREQ(name, "12345");
    EXPECT_EQ(name[6], '-');
}

TEST(UserAgent, NoBufferOrOneForNothing_Fails) {
    const HostProfile profile;
    char name[2] = "-";
    EXPECT_EQ(ORBATOVRAUserAgentNameGet(nullptr, 256), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(ORBATOVRAUserAgentNameGet(name, 0), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(ORBATOVRAUserAgentNameGet(name, 1), -ORBA_HOST_MEMBER_TOO_LONG);
    EXPECT_STREQ(name, "-");
}

TEST(Account, FillsTheWholeRecord) {
    const HostProfile profile;
    const auto account = std::make_unique<TovraAccountRecord>();
    std::memset(account.get(), 0x5A, sizeof(*account));
    ASSERT_EQ(ORBATOVRAAccountGet(account.get()), 0);
    EXPECT_STREQ(account->id, "account-1");
    EXPECT_STREQ(account->authKey, "key-1");
    EXPECT_TRUE(isZero(account->reserved0, account->id));
    EXPECT_TRUE(isZero(account->id + 9, account->authKey));
    EXPECT_TRUE(isZero(account->authKey + 5, account->reserved1 + sizeof(account->reserved1)));
}

TEST(Account, NoRecord_Fails) {
    const HostProfile profile;
    EXPECT_EQ(ORBATOVRAAccountGet(nullptr), -ORBA_HOST_INVALID_ARGUMENT);
}

TEST(ServerConfig, FillsTheWholeRecord) {
    const HostProfile profile;
    TovraServerConfigRecord config;
    std::memset(&config, 0x5A, sizeof(config));
    ASSERT_EQ(ORBATOVRAServerConfigGet(&config), 0);
    EXPECT_STREQ(config.server, "account.localhost:8443");
    EXPECT_TRUE(isZero(config.reserved, config.server));
    EXPECT_TRUE(isZero(config.server + 22, config.server + sizeof(config.server)));
}

TEST(ServerConfig, NoRecord_Fails) {
    const HostProfile profile;
    EXPECT_EQ(ORBATOVRAServerConfigGet(nullptr), -ORBA_HOST_INVALID_ARGUMENT);
}

// ---- wrong requests
// --------------------------------------------------------------------------------

class WrongRequestTest : public ::testing::Test {
  protected:
    WrongRequestTest() {
        request_.server = "localhost:1";
        request_.path = "path";
        request_.parameters = table_.get();
    }
    int send() { return ORBATOVRAHttpsRequestSend(&request_, &response_); }

    struct Free {
        void operator()(KLIBCSzHash* table) const { KLIBCSzHashFree(table); }
    };
    std::unique_ptr<KLIBCSzHash, Free> table_{KLIBCSzHashAlloc(0)};
    TovraHttpsRequestRecord request_{};
    TovraHttpsResponseRecord response_{};
};

TEST_F(WrongRequestTest, NoRecords_Fails) {
    EXPECT_EQ(ORBATOVRAHttpsRequestSend(nullptr, &response_), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(ORBATOVRAHttpsRequestSend(&request_, nullptr), -ORBA_HOST_INVALID_ARGUMENT);
}

TEST_F(WrongRequestTest, NoServer_Fails) {
    request_.server = nullptr;
    EXPECT_EQ(send(), -ORBA_HOST_INVALID_ARGUMENT);
}

TEST_F(WrongRequestTest, NoPath_Fails) {
    request_.path = nullptr;
    EXPECT_EQ(send(), -ORBA_HOST_INVALID_ARGUMENT);
}

TEST_F(WrongRequestTest, NoTable_Fails) {
    request_.parameters = nullptr;
    EXPECT_EQ(send(), -ORBA_HOST_INVALID_ARGUMENT);
}

TEST_F(WrongRequestTest, ServerThatIsNoHostAndPort_Fails) {
    for (const char* server :
         {"", "https://localhost", "localhost/path", "localhost?x", "localhost#x", "user@localhost",
          "localhost\\x", "localhost:99999", "local host", "localhost\r\nHost: x"}) {
        request_.server = server;
        EXPECT_EQ(send(), -ORBA_HOST_INVALID_ARGUMENT) << server;
    }
}

TEST_F(WrongRequestTest, PathThatIsNoPath_Fails) {
    for (const char* path : {"a b", "a\r\nX: y"}) {
        request_.path = path;
        EXPECT_EQ(send(), -ORBA_HOST_INVALID_ARGUMENT) << path;
    }
}

TEST(HttpsResponseFree, ZeroNullAndTwice_AreAllowed) {
    TovraHttpsResponseRecord response{};
    ORBATOVRAHttpsResponseFree(nullptr);
    ORBATOVRAHttpsResponseFree(&response);
    response.body = ::strdup("body");
    ORBATOVRAHttpsResponseFree(&response);
    EXPECT_EQ(response.body, nullptr);
    ORBATOVRAHttpsResponseFree(&response);
}

TEST(HttpsResponseFree, LeavesNothingAllocated) {
    const auto before = ::mallinfo2().uordblks;
    for (int n = 0; n < 1000; ++n) {
        TovraHttpsResponseRecord response{};
        response.body = static_cast<char*>(std::malloc(1000));
        ORBATOVRAHttpsResponseFree(&response);
    }
    EXPECT_LT(::mallinfo2().uordblks, before + 100000);
}

// ---- the services without a server
// -----------------------------------------------------------------

template <typename Call>
std::string refusal(Call call) {
    try {
        return "returned " + call();
    } catch (const std::exception& exception) {
        EXPECT_NE(dynamic_cast<const orbatovra::TovraException*>(&exception), nullptr);
        return exception.what();
    }
}

std::string token() { return orbatovra::AccountPkceService().GetAccessToken(); }

std::string grant() {
    return orbatovra::AccountFleetLensService().Grant("client", "scope", "https://nas/cb", "state");
}

TEST(Services, NoToken_SaysWhichMemberOfWhichProfile) {
    const HostProfile profile;
    profile.writeWithout("pkce_access_token");
    const std::string cause = ": device profile " + profile.path() +
                              ": the member \"pkce_access_token\" is missing or empty";
    EXPECT_EQ(refusal(token), "no PKCE access token" + cause);
    EXPECT_EQ(refusal(grant), "no grant" + cause);
    EXPECT_EQ(ORBATOVRAErrGet(), static_cast<unsigned int>(ORBA_HOST_MEMBER_MISSING));
}

TEST(Services, ProfileThatCannotBeUsed_SaysWhy) {
    const HostProfile profile;
    const auto expectCause = [&](const std::string& cause) {
        EXPECT_EQ(refusal(token),
                  "no PKCE access token: device profile " + profile.path() + ": " + cause);
    };
    profile.writeWith("pkce_access_token", 1);
    expectCause("the member \"pkce_access_token\" is not a text");
    profile.writeWith("pkce_access_token", "\n");
    expectCause("the member \"pkce_access_token\" holds a control character");
    profile.write(std::string("[]"));
    expectCause("not a JSON object in UTF-8");
    profile.write(std::string(1024 * 1024 + 1, ' '));
    expectCause("more than 1 MiB");
    profile.use(profile.folder().path());
    EXPECT_EQ(refusal(token), "no PKCE access token: device profile " + profile.folder().path() +
                                  ": not a regular file");
}

TEST(Services, NoProfile_SaysWhichPath) {
    const HostProfile profile;
    profile.use("/none/device.json");
    const std::string cause = ": device profile /none/device.json: No such file or directory";
    EXPECT_EQ(refusal(token), "no PKCE access token" + cause);
    EXPECT_EQ(refusal(grant), "no grant" + cause);
}

TEST(Services, NoServer_SaysWhichMember) {
    const HostProfile profile;
    profile.writeWithout("account_service");
    EXPECT_EQ(refusal(grant), "no grant: device profile " + profile.path() +
                                  ": the member \"account_service\" is missing or empty");
}

TEST(Services, ServerThatIsNoHostAndPort_SaysSo) {
    const HostProfile profile;
    profile.writeWith("account_service", "https://account.localhost");
    EXPECT_EQ(refusal(grant), "no grant: the server must be host[:port]");
}

TEST(TovraException, KeepsItsText) {
    EXPECT_STREQ(orbatovra::TovraException("text").what(), "text");
    const orbatovra::TovraException copy = orbatovra::TovraException(std::string(1000, 'x'));
    EXPECT_EQ(copy.what(), std::string(1000, 'x'));
}

}  // namespace
