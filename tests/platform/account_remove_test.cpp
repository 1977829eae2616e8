// The account leaves the profile, as a whole or not at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <orba_host_errors.h>
#include <orbatovra/orbatovra.h>
#include <sys/stat.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/host_profile.h"
#include "support/readers.h"

namespace {

using ::testing::ElementsAre;

Json::Value documentIn(const std::string& path) {
    std::ifstream stream(path);
    Json::Value document;
    stream >> document;
    return document;
}

class AccountRemoveTest : public ::testing::Test {
  protected:
    void expectRemoved(const Json::Value& document = sampleProfile()) const {
        Json::Value expected = document;
        expected.removeMember("account");
        expected.removeMember("pkce_access_token");
        EXPECT_EQ(0, ORBATOVRAAccountRemove());
        EXPECT_EQ(expected, documentIn(profile.path()));
        EXPECT_THAT(profile.folder().names(), ElementsAre("device.json"));
    }

    HostProfile profile;
};

TEST_F(AccountRemoveTest, TakesAccountAndToken_KeepsTheRest) {
    Json::Value document = sampleProfile();
    document["x-list"][0] = 1;
    document["x-list"][1] = Json::Value::maxUInt64;
    document["x-text"] = "M\xC3\xBCller \xF0\x9F\x98\x80 \"\\\n";
    document["x-object"]["account"] = "kept";
    document["x-null"] = Json::nullValue;
    document["x-number"] = 0.1;
    profile.write(document);
    expectRemoved(document);
    EXPECT_THAT(profile.content(), ::testing::HasSubstr("M\xC3\xBCller"));
}

TEST_F(AccountRemoveTest, NewProfile_IsIndentedText) {
    profile.write(std::string(R"({"account": 1, "a": {"b": "c"}})"));
    EXPECT_EQ(0, ORBATOVRAAccountRemove());
    EXPECT_EQ("{\n    \"a\" : \n    {\n        \"b\" : \"c\"\n    }\n}\n", profile.content());
}

TEST_F(AccountRemoveTest, OnlyOneOfTheTwo_OrAnotherType_IsTaken) {
    for (const char* member : {"account", "pkce_access_token"}) {
        profile.writeWithout(member);
        expectRemoved();
    }
    profile.writeWith("account", 7);
    expectRemoved();
}

TEST_F(AccountRemoveTest, NoAccount_LeavesTheFileAsItIs) {
    const std::string before = "{  \"serial_number\":   \"1\"}";
    profile.write(before);
    EXPECT_EQ(0, ORBATOVRAAccountRemove());
    EXPECT_EQ(before, profile.content());
}

TEST_F(AccountRemoveTest, KeepsTheMode) {
    for (const mode_t mode : {0600U, 0640U, 0677U, 0400U}) {
        profile.write(sampleProfile());
        ASSERT_EQ(0, ::chmod(profile.path().c_str(), mode));
        expectRemoved();
        struct stat status {};
        ASSERT_EQ(0, ::stat(profile.path().c_str(), &status));
        EXPECT_EQ(mode, status.st_mode & 07777U);
        ASSERT_EQ(0, ::chmod(profile.path().c_str(), 0600));
    }
}

TEST_F(AccountRemoveTest, SymbolicLink_ReplacesItsTarget) {
    const ScratchFolder links;
    std::filesystem::create_symlink(profile.path(), links.file("second"));
    std::filesystem::create_symlink("second", links.file("first"));
    profile.use(links.file("first"));
    expectRemoved();
    EXPECT_TRUE(std::filesystem::is_symlink(links.file("first")));
    EXPECT_TRUE(std::filesystem::is_symlink(links.file("second")));
    EXPECT_THAT(links.names(), ElementsAre("first", "second"));
}

TEST_F(AccountRemoveTest, RelativePath_IsFollowed) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(profile.folder().path());
    profile.use("device.json");
    expectRemoved();
    std::filesystem::current_path(before);
}

TEST_F(AccountRemoveTest, LongestFileName_IsReplaced) {
    const std::string name(255, 'p');
    profile.use(profile.folder().write(name, R"({"account": 1, "a": 2})"));
    EXPECT_EQ(0, ORBATOVRAAccountRemove());
    EXPECT_EQ("{\n    \"a\" : 2\n}\n", contentOf(profile.folder().file(name)));
}

TEST_F(AccountRemoveTest, Removing_LeavesNothingAllocated) {
    const std::string linked = R"({"account": 1})";
    const auto remove = [&] {
        profile.write(linked);
        EXPECT_EQ(0, ORBATOVRAAccountRemove());
    };
    remove();
    const auto before = ::mallinfo2().uordblks;
    for (int n = 0; n < 100; ++n) {
        remove();
    }
    EXPECT_GT(before + 3000, ::mallinfo2().uordblks);
}

TEST_F(AccountRemoveTest, ReadersMeanwhile_SeeTheWholeProfile) {
    constexpr int kTries = 2000;
    ASSERT_EQ("account-1", readAccountId().text);
    std::atomic<bool> done{false};
    std::atomic<int> broken{0};
    std::atomic<int> linked{0};
    std::atomic<int> unlinked{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!done) {
                const Reading account = readAccountId();
                const bool isLinked = account.text == "account-1";
                const bool isUnlinked = account.error == ORBA_HOST_MEMBER_MISSING;
                linked += isLinked ? 1 : 0;
                unlinked += isUnlinked ? 1 : 0;
                const bool isWhole = isLinked || isUnlinked;
                broken += isWhole && readSerialNumber().text == "ORBA-0123456789" ? 0 : 1;
            }
        });
    }
    for (int i = 0; i < 100 || (i < kTries && broken == 0 && (linked == 0 || unlinked == 0)); ++i) {
        const std::string fresh =
            profile.folder().write("fresh.json", sampleProfile().toStyledString());
        std::filesystem::rename(fresh, profile.path());
        EXPECT_EQ(0, ORBATOVRAAccountRemove());
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(0, broken);
    EXPECT_LT(0, linked);
    EXPECT_LT(0, unlinked);
}

// jsoncpp reads the lone half of a surrogate pair, and would write it as bytes that are no UTF-8.
TEST_F(AccountRemoveTest, BrokenProfile_StaysAsItIs) {
    for (const std::string content : {"{\"account\": {}", "[]", "{\"account\": \"\xFF\"}",
                                      R"({"account": 1, "x": "\udc00"})"}) {
        profile.write(content);
        EXPECT_EQ(-ORBA_HOST_PROFILE_MALFORMED, ORBATOVRAAccountRemove());
        EXPECT_EQ(content, profile.content());
        EXPECT_THAT(profile.folder().names(), ElementsAre("device.json"));
    }
}

}  // namespace
