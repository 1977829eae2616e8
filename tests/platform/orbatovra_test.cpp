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
#include "support/readers.h"

namespace {

bool isZero(const char* begin, const char* end) {
    return std::all_of(begin, end, [](char c) { return c == 0; });
}

// --- the error number ---

TEST(ErrorNumber, IsWhatWasSet) {
    ORBATOVRAErrSet(4000000000U);
    EXPECT_EQ(4000000000U, ORBATOVRAErrGet());
    ORBATOVRAErrSet(0);
    EXPECT_EQ(0U, ORBATOVRAErrGet());
}

TEST(ErrorNumber, SuccessKeepsIt) {
    const HostProfile profile;
    ORBATOVRAErrSet(7);
    char name[256];
    EXPECT_EQ(0, ORBATOVRAUserAgentNameGet(name, sizeof name));
    EXPECT_EQ(7U, ORBATOVRAErrGet());
}

TEST(ErrorNumber, BelongsToItsThread) {
    ORBATOVRAErrSet(7);
    std::thread([] {
        EXPECT_EQ(0U, ORBATOVRAErrGet());
        ORBATOVRAErrSet(8);
    }).join();
    EXPECT_EQ(7U, ORBATOVRAErrGet());
}

// --- buffers and records ---

TEST(TextBuffer, IsFilledExactly_OrNotAtAll) {
    const HostProfile profile;
    const std::pair<const char*, int (*)(char*, size_t)> getters[] = {
        {"user_agent", ORBATOVRAUserAgentNameGet}, {"serial_number", KLIBGetSerialNumber}};
    for (const auto& [member, get] : getters) {
        profile.writeWith(member, "12345");
        char text[] = "-------";
        EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, get(nullptr, 6)) << member;
        EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, get(text, 0)) << member;
        EXPECT_EQ(-ORBA_HOST_MEMBER_TOO_LONG, get(text, 1)) << member;
        EXPECT_EQ(-ORBA_HOST_MEMBER_TOO_LONG, get(text, 5)) << member;
        EXPECT_STREQ("-------", text) << member;
        EXPECT_EQ(0, get(text, 6)) << member;
        EXPECT_STREQ("12345", text) << member;
        EXPECT_EQ('-', text[6]) << member;
    }
}

TEST(Account, FillsTheWholeRecord) {
    const HostProfile profile;
    const auto account = std::make_unique<TovraAccountRecord>();
    std::memset(account.get(), 0x5A, sizeof *account);
    ASSERT_EQ(0, ORBATOVRAAccountGet(account.get()));
    EXPECT_STREQ("account-1", account->id);
    EXPECT_STREQ("key-1", account->authKey);
    EXPECT_TRUE(isZero(account->reserved0, account->id));
    EXPECT_TRUE(isZero(account->id + 9, account->authKey));
    EXPECT_TRUE(isZero(account->authKey + 5, account->reserved1 + sizeof account->reserved1));
}

TEST(ServerConfig, FillsTheWholeRecord) {
    const HostProfile profile;
    TovraServerConfigRecord config;
    std::memset(&config, 0x5A, sizeof config);
    ASSERT_EQ(0, ORBATOVRAServerConfigGet(&config));
    EXPECT_STREQ("account.localhost:8443", config.server);
    EXPECT_TRUE(isZero(config.reserved, config.server));
    EXPECT_TRUE(isZero(config.server + 22, config.server + sizeof config.server));
}

TEST(Records, None_Fails) {
    const HostProfile profile;
    EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, ORBATOVRAAccountGet(nullptr));
    EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, ORBATOVRAServerConfigGet(nullptr));
}

// --- wrong requests ---

class WrongRequestTest : public ::testing::Test {
  protected:
    WrongRequestTest() {
        request.server = "localhost:1";
        request.path = "path";
        request.parameters = table.get();
    }
    // Fails with the field changed to this value.
    template <class Field>
    void expectRefused(Field TovraHttpsRequestRecord::*field, const char* value) {
        TovraHttpsRequestRecord wrong = request;
        if constexpr (std::is_same_v<Field, const char*>) {
            wrong.*field = value;
        } else {
            wrong.*field = nullptr;
        }
        EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, ORBATOVRAHttpsRequestSend(&wrong, &response))
            << (value == nullptr ? "null" : value);
    }

    std::unique_ptr<KLIBCSzHash, decltype(&KLIBCSzHashFree)> table{KLIBCSzHashAlloc(0),
                                                                   KLIBCSzHashFree};
    TovraHttpsRequestRecord request{};
    TovraHttpsResponseRecord response{};
};

TEST_F(WrongRequestTest, IsRefused) {
    EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, ORBATOVRAHttpsRequestSend(nullptr, &response));
    EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, ORBATOVRAHttpsRequestSend(&request, nullptr));
    expectRefused(&TovraHttpsRequestRecord::parameters, nullptr);
    for (const char* server :
         {static_cast<const char*>(nullptr), "", "https://localhost", "localhost/path",
          "localhost?x", "localhost#x", "user@localhost", "localhost\\x", "localhost:99999",
          "local host", "localhost\r\nHost: x"}) {
        expectRefused(&TovraHttpsRequestRecord::server, server);
    }
    for (const char* path : {static_cast<const char*>(nullptr), "a b", "a\r\nX: y"}) {
        expectRefused(&TovraHttpsRequestRecord::path, path);
    }
}

TEST(HttpsResponseFree, ZeroNullAndTwice_AreAllowed) {
    TovraHttpsResponseRecord response{};
    ORBATOVRAHttpsResponseFree(nullptr);
    ORBATOVRAHttpsResponseFree(&response);
    response.body = ::strdup("body");
    ORBATOVRAHttpsResponseFree(&response);
    EXPECT_EQ(nullptr, response.body);
    ORBATOVRAHttpsResponseFree(&response);
}

TEST(HttpsResponseFree, LeavesNothingAllocated) {
    const auto before = ::mallinfo2().uordblks;
    for (int n = 0; n < 1000; ++n) {
        TovraHttpsResponseRecord response{};
        response.body = static_cast<char*>(std::malloc(1000));
        ORBATOVRAHttpsResponseFree(&response);
    }
    EXPECT_GT(before + 100000, ::mallinfo2().uordblks);
}

// --- the services without a server ---

class ServicesTest : public ::testing::Test {
  protected:
    void expectNoToken(const std::string& cause) const {
        EXPECT_EQ("no PKCE access token: " + cause, readAccessToken().text);
    }
    static void expectNoGrant(const std::string& cause) {
        EXPECT_EQ("no grant: " + cause, requestGrant().text);
    }
    std::string inProfile(const std::string& cause) const {
        return "device profile " + profile.path() + ": " + cause;
    }

    HostProfile profile;
};

TEST_F(ServicesTest, NoTokenOrServer_SaysWhichMember) {
    profile.writeWithout("pkce_access_token");
    expectNoToken(inProfile("the member \"pkce_access_token\" is missing or empty"));
    expectNoGrant(inProfile("the member \"pkce_access_token\" is missing or empty"));
    profile.writeWithout("account_service");
    expectNoGrant(inProfile("the member \"account_service\" is missing or empty"));
    profile.writeWith("account_service", "https://account.localhost");
    expectNoGrant("the server must be host[:port]");
}

TEST_F(ServicesTest, ProfileThatCannotBeUsed_SaysWhy) {
    profile.writeWith("pkce_access_token", 1);
    expectNoToken(inProfile("the member \"pkce_access_token\" is not a text"));
    profile.writeWith("pkce_access_token", "\n");
    expectNoToken(inProfile("the member \"pkce_access_token\" holds a control character"));
    profile.write(std::string("[]"));
    expectNoToken(inProfile("not a JSON object in UTF-8"));
    profile.write(std::string(1024 * 1024 + 1, ' '));
    expectNoToken(inProfile("more than 1 MiB"));
    profile.use("/");
    expectNoToken("device profile /: not a regular file");
    profile.use("/none/device.json");
    expectNoToken("device profile /none/device.json: No such file or directory");
    expectNoGrant("device profile /none/device.json: No such file or directory");
}

TEST(TovraException, KeepsItsText) {
    EXPECT_STREQ("text", orbatovra::TovraException("text").what());
    const orbatovra::TovraException copy = orbatovra::TovraException(std::string(1000, 'x'));
    EXPECT_EQ(std::string(1000, 'x'), copy.what());
}

}  // namespace
