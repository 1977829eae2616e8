// The account leaves the profile, as a whole or not at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orba_host_errors.h>
#include <orbatovra/orbatovra.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "support/host_profile.h"
#include "support/ordinary_user.h"
#include "support/readers.h"

namespace {

using ::testing::ElementsAre;

Json::Value documentIn(const std::string& path) {
    std::ifstream stream(path);
    Json::Value document;
    stream >> document;
    return document;
}

Json::Value sampleWithoutAccount() {
    Json::Value document = sampleProfile();
    document.removeMember("account");
    document.removeMember("pkce_access_token");
    return document;
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

class AccountRemoveTest : public ::testing::Test {
  protected:
    /** The removal fails with this number, and nothing in the folder has changed. */
    void expectUntouched(int status, OrbaHostError expected, const std::string& before) const {
        EXPECT_EQ(status, -expected);
        EXPECT_EQ(profile_.content(), before);
        EXPECT_THAT(profile_.folder().names(), ElementsAre("device.json"));
    }

    HostProfile profile_;
};

// ---- success
// ---------------------------------------------------------------------------------------

TEST_F(AccountRemoveTest, TakesAccountAndToken_KeepsTheRest) {
    Json::Value document = sampleProfile();
    document["x-list"][0] = 1;
    document["x-list"][1] = Json::Value::maxUInt64;
    document["x-text"] = "M\xC3\xBCller \xF0\x9F\x98\x80 \"\\\n";
    document["x-object"]["account"] = "kept";
    document["x-null"] = Json::nullValue;
    document["x-number"] = 0.1;
    profile_.write(document);
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    document.removeMember("account");
    document.removeMember("pkce_access_token");
    EXPECT_EQ(documentIn(profile_.path()), document);
    EXPECT_THAT(profile_.content(), ::testing::HasSubstr("M\xC3\xBCller"));
    EXPECT_THAT(profile_.folder().names(), ElementsAre("device.json"));
}

TEST_F(AccountRemoveTest, NewProfile_IsIndentedText) {
    profile_.write(std::string(R"({"account": 1, "a": {"b": "c"}})"));
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    EXPECT_EQ(profile_.content(), "{\n    \"a\" : \n    {\n        \"b\" : \"c\"\n    }\n}\n");
}

TEST_F(AccountRemoveTest, AccountAndTokenAreGoneForReaders) {
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    EXPECT_EQ(readAccountId().error, ORBA_HOST_MEMBER_MISSING);
    EXPECT_EQ(readAccessToken().error, ORBA_HOST_MEMBER_MISSING);
    EXPECT_EQ(readSerialNumber().text, "ORBA-0123456789");
}

TEST_F(AccountRemoveTest, OnlyOneOfTheTwo_IsTaken) {
    for (const char* member : {"account", "pkce_access_token"}) {
        profile_.writeWithout(member);
        EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
        EXPECT_EQ(documentIn(profile_.path()), sampleWithoutAccount());
    }
}

TEST_F(AccountRemoveTest, NoAccount_LeavesTheFileAsItIs) {
    const std::string before = "{  \"serial_number\":   \"1\"}";
    profile_.write(before);
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    EXPECT_EQ(profile_.content(), before);
}

TEST_F(AccountRemoveTest, AccountOfAnyType_IsTaken) {
    profile_.writeWith("account", 7);
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    EXPECT_EQ(documentIn(profile_.path()), sampleWithoutAccount());
}

TEST_F(AccountRemoveTest, KeepsTheMode) {
    for (const mode_t mode : {0600U, 0640U, 0666U, 0400U}) {
        profile_.write(sampleProfile());
        ASSERT_EQ(::chmod(profile_.path().c_str(), mode), 0);
        EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
        EXPECT_EQ(modeOf(profile_.path()), mode);
        ASSERT_EQ(::chmod(profile_.path().c_str(), 0600), 0);
    }
}

TEST_F(AccountRemoveTest, SymbolicLink_ReplacesItsTarget) {
    const ScratchFolder links;
    std::filesystem::create_symlink(profile_.path(), links.file("second"));
    std::filesystem::create_symlink("second", links.file("first"));
    profile_.use(links.file("first"));
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(links.file("first")));
    EXPECT_TRUE(std::filesystem::is_symlink(links.file("second")));
    EXPECT_EQ(documentIn(profile_.path()), sampleWithoutAccount());
    EXPECT_THAT(links.names(), ElementsAre("first", "second"));
}

TEST_F(AccountRemoveTest, RelativePath_IsFollowed) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(profile_.folder().path());
    profile_.use("device.json");
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    std::filesystem::current_path(before);
    EXPECT_EQ(documentIn(profile_.path()), sampleWithoutAccount());
}

TEST_F(AccountRemoveTest, LongestFileName_IsReplaced) {
    const std::string name(255, 'p');
    profile_.use(profile_.folder().write(name, sampleProfile().toStyledString()));
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    EXPECT_EQ(documentIn(profile_.folder().file(name)), sampleWithoutAccount());
}

TEST_F(AccountRemoveTest, ReadersMeanwhile_SeeTheWholeProfile) {
    std::atomic<bool> done{false};
    std::atomic<int> broken{0};
    std::atomic<int> linked{0};
    std::atomic<int> unlinked{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!done) {
                const Reading account = readAccountId();
                linked += account.text == "account-1" ? 1 : 0;
                unlinked += account.error == ORBA_HOST_MEMBER_MISSING ? 1 : 0;
                const bool whole =
                    account.text == "account-1" || account.error == ORBA_HOST_MEMBER_MISSING;
                broken += whole && readSerialNumber().text == "ORBA-0123456789" ? 0 : 1;
            }
        });
    }
    for (int i = 0; i < 200 || linked == 0 || unlinked == 0; ++i) {
        const std::string fresh =
            profile_.folder().write("fresh.json", sampleProfile().toStyledString());
        std::filesystem::rename(fresh, profile_.path());
        EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(broken, 0);
}

// ---- failure
// ---------------------------------------------------------------------------------------

TEST_F(AccountRemoveTest, BrokenProfile_StaysAsItIs) {
    for (const std::string& content : {std::string("{\"account\": {}"), std::string("[]"),
                                       std::string("{\"account\": \"\xFF\"}")}) {
        profile_.write(content);
        expectUntouched(ORBATOVRAAccountRemove(), ORBA_HOST_PROFILE_MALFORMED, content);
    }
}

TEST_F(AccountRemoveTest, NoProfile_Fails) {
    profile_.use(profile_.folder().file("none.json"));
    EXPECT_EQ(ORBATOVRAAccountRemove(), -ORBA_HOST_PROFILE_MISSING);
    profile_.use(profile_.folder().path());
    EXPECT_EQ(ORBATOVRAAccountRemove(), -ORBA_HOST_PROFILE_UNREADABLE);
    EXPECT_THAT(profile_.folder().names(), ElementsAre("device.json"));
}

// jsoncpp reads the lone half of a surrogate pair, and would write it as bytes that are no UTF-8.
TEST_F(AccountRemoveTest, TextThatCannotBeWritten_LeavesTheProfileAsItIs) {
    const std::string content = R"({"account": {"id": "1"}, "x": "\udc00"})";
    profile_.write(content);
    expectUntouched(ORBATOVRAAccountRemove(), ORBA_HOST_PROFILE_MALFORMED, content);
}

// Holds for root, too: a file that has no name in any folder cannot be replaced.
TEST_F(AccountRemoveTest, ProfileWithoutAFolder_Fails) {
    const int file = ::memfd_create("device.json", 0);
    ASSERT_GE(file, 0);
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    std::ofstream(path) << profile_.content();
    const std::string before = contentOf(path);
    profile_.use(path);
    EXPECT_EQ(readAccountId().text, "account-1");
    EXPECT_EQ(ORBATOVRAAccountRemove(), -ORBA_HOST_PROFILE_NOT_WRITABLE);
    EXPECT_EQ(contentOf(path), before);
    ::close(file);
}

// Holds for root, too: no file may grow.
TEST_F(AccountRemoveTest, NoRoomForTheNewProfile_LeavesTheOldOne) {
    const std::string before = profile_.content();
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit none{10, limit.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
    const int status = ORBATOVRAAccountRemove();
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    std::signal(SIGXFSZ, handler);
    expectUntouched(status, ORBA_HOST_PROFILE_NOT_WRITABLE, before);
}

TEST_F(AccountRemoveTest, FolderThatMayNotBeWritten_LeavesTheProfileAsItIs) {
    const std::string before = profile_.content();
    ASSERT_EQ(::chmod(profile_.path().c_str(), 0666), 0);
    ASSERT_EQ(::chmod(profile_.folder().path().c_str(), 0555), 0);
    const int number = asOrdinaryUser([] { return -ORBATOVRAAccountRemove(); });
    ASSERT_EQ(::chmod(profile_.folder().path().c_str(), 0755), 0);
    expectUntouched(-number, ORBA_HOST_PROFILE_NOT_WRITABLE, before);
}

}  // namespace
