// The device profile, through every operation that reads it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <orba_host_errors.h>
#include <sys/stat.h>

#include <functional>
#include <ostream>
#include <string>
#include <tuple>

#include "support/host_profile.h"
#include "support/ordinary_user.h"
#include "support/readers.h"

namespace {

constexpr std::size_t kMaxProfileBytes = 1024 * 1024;

// --- one reader after the other ---

class ReaderTest : public ::testing::TestWithParam<Reader> {
  protected:
    static Reading read() { return GetParam().read(); }
    Reading readFrom(const Json::Value& value) const {
        profile.writeWith(GetParam().member, value);
        return read();
    }
    void expectFailure(OrbaHostError expected, const std::vector<Json::Value>& values) const {
        for (const Json::Value& value : values) {
            EXPECT_EQ(expected, readFrom(value).error) << value;
        }
    }

    HostProfile profile;
};

TEST_P(ReaderTest, GivesTheMember_ReadAfresh) {
    const std::string member = std::string(".") + GetParam().member;
    EXPECT_EQ(Json::Path(member).resolve(sampleProfile()).asString(), read().text);
    EXPECT_EQ("M\xC3\xBCller \xF0\x9F\x98\x80", readFrom("M\xC3\xBCller \xF0\x9F\x98\x80").text);
    Json::Value others;  // what another member lacks does not matter
    others["account"]["id"] = others["account"]["auth_key"] = "only";
    Json::Path(member).make(others) = "only";
    profile.write(others);
    EXPECT_EQ("only", read().text);
}

TEST_P(ReaderTest, MissingNullOrEmpty_IsMissing) {
    profile.writeWithout(GetParam().member);
    EXPECT_EQ(ORBA_HOST_MEMBER_MISSING, read().error);
    expectFailure(ORBA_HOST_MEMBER_MISSING, {Json::nullValue, ""});
}

TEST_P(ReaderTest, AnotherTypeOrControlCharacters_HaveTheWrongType) {
    expectFailure(ORBA_HOST_MEMBER_TYPE, {1, 0.5, true, Json::arrayValue, Json::objectValue});
    expectFailure(ORBA_HOST_MEMBER_TYPE, {"a\r\nb", std::string("a\0b", 3), "\t", "\x1F", "\x7F"});
}

TEST_P(ReaderTest, MemberThatFillsItsRoom_IsGivenWhole_OneByteMoreIsNot) {
    const std::string text(GetParam().room == 0 ? 100000 : GetParam().room, 'x');
    EXPECT_EQ(text, readFrom(text).text);
    EXPECT_EQ(GetParam().room == 0 ? ORBA_HOST_OK : ORBA_HOST_MEMBER_TOO_LONG,
              readFrom(text + "x").error);
}

std::string readerName(const ::testing::TestParamInfo<Reader>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Profile, ReaderTest, ::testing::ValuesIn(kReaders), readerName);

TEST(AccountMember, NoObject_Fails) {
    const HostProfile profile;
    profile.writeWithout("account");
    EXPECT_EQ(ORBA_HOST_MEMBER_MISSING, readAccountId().error);
    profile.writeWith("account", Json::nullValue);
    EXPECT_EQ(ORBA_HOST_MEMBER_MISSING, readAccountId().error);
    for (const Json::Value& value :
         std::vector<Json::Value>{1, "account-1", true, Json::arrayValue}) {
        profile.writeWith("account", value);
        EXPECT_EQ(ORBA_HOST_MEMBER_TYPE, readAccountId().error) << value;
    }
}

// --- every broken profile with every reader ---

struct BrokenProfile {
    const char* name;
    OrbaHostError expected;
    std::function<void(const HostProfile&)> make;
};

std::ostream& operator<<(std::ostream& stream, const BrokenProfile& broken) {
    return stream << broken.name;
}

BrokenProfile malformed(const char* name, const std::string& text) {
    return {name, ORBA_HOST_PROFILE_MALFORMED,
            [text](const HostProfile& profile) { profile.write(text); }};
}

BrokenProfile tooLarge(const char* name, const std::string& text) {
    BrokenProfile broken = malformed(name, text);
    broken.expected = ORBA_HOST_PROFILE_TOO_LARGE;
    return broken;
}

std::string nested(std::size_t levels) {
    return "{\"x\":" + std::string(levels, '[') + std::string(levels, ']') + "}";
}

void useFifo(const HostProfile& profile) {
    profile.use(profile.folder().file("fifo"));
    ASSERT_EQ(0, ::mkfifo(profile.folder().file("fifo").c_str(), 0600));
}

const BrokenProfile kBrokenProfiles[] = {
    {"NoFile", ORBA_HOST_PROFILE_MISSING,
     [](const HostProfile& profile) { profile.use(profile.folder().file("none.json")); }},
    {"NoFolder", ORBA_HOST_PROFILE_MISSING,
     [](const HostProfile& profile) { profile.use(profile.folder().file("none/device.json")); }},
    {"BelowAFile", ORBA_HOST_PROFILE_MISSING,
     [](const HostProfile& profile) { profile.use(profile.path() + "/device.json"); }},
    {"Folder", ORBA_HOST_PROFILE_UNREADABLE,
     [](const HostProfile& profile) { profile.use(profile.folder().path()); }},
    {"Fifo", ORBA_HOST_PROFILE_UNREADABLE, useFifo},
    {"Device", ORBA_HOST_PROFILE_UNREADABLE,
     [](const HostProfile& profile) { profile.use("/dev/zero"); }},
    tooLarge("OneByteTooLarge", "{}" + std::string(kMaxProfileBytes - 1, ' ')),
    tooLarge("Huge", std::string(2 * kMaxProfileBytes, '[')),
    malformed("Empty", ""),
    malformed("NotJson", "serial_number=1"),
    malformed("CutOff", "{\"serial_number\": \"1\""),
    malformed("TrailingText", "{} {}"),
    malformed("Comment", "{} // none"),
    malformed("MemberTwice", "{\"a\": 1, \"a\": 2}"),
    malformed("Array", "[]"),
    malformed("Text", "\"device\""),
    malformed("Null", "null"),
    malformed("NulByte", std::string("{}\0", 3)),
    malformed("NulByteInText", std::string("{\"x\": \"\0\"}", 10)),
    malformed("NestedTooDeeply", nested(64)),
    malformed("NestedVeryDeeply", nested(100000)),
    malformed("LoneByte", "{\"x\": \"\xFF\"}"),
};

class BrokenProfileTest : public ::testing::TestWithParam<std::tuple<BrokenProfile, Reader>> {};

TEST_P(BrokenProfileTest, Fails) {
    const HostProfile profile;
    const auto& [broken, reader] = GetParam();
    broken.make(profile);
    EXPECT_EQ(broken.expected, reader.read().error);
}

std::string brokenName(const ::testing::TestParamInfo<BrokenProfileTest::ParamType>& info) {
    return std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param).name;
}

INSTANTIATE_TEST_SUITE_P(Profile, BrokenProfileTest,
                         ::testing::Combine(::testing::ValuesIn(kBrokenProfiles),
                                            ::testing::ValuesIn(kReaders)),
                         brokenName);

// The ends of each range of each byte: the well-formed sequences of Unicode's table 3-7.
TEST(Profile, TextIsUtf8_OnlyAsUnicodeHasIt) {
    const HostProfile profile;
    const auto inRange = [](unsigned value, unsigned least, unsigned most) {
        return value >= least && value <= most;
    };
    const auto errorFor = [&](const std::string& character) {
        profile.write("{\"serial_number\": \"" + character + "\"}");
        return readSerialNumber().error;
    };
    for (const unsigned first :
         {0x80U, 0xBFU, 0xC0U, 0xC1U, 0xC2U, 0xDFU, 0xE0U, 0xE1U, 0xECU, 0xEDU,
          0xEEU, 0xEFU, 0xF0U, 0xF1U, 0xF3U, 0xF4U, 0xF5U, 0xF7U, 0xF8U, 0xFFU}) {
        for (const unsigned second : {0x7FU, 0x80U, 0x8FU, 0x90U, 0x9FU, 0xA0U, 0xBFU, 0xC0U}) {
            for (const char last : {'\x80', '\xBF'}) {
                const std::size_t size = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
                const unsigned least = first == 0xE0 ? 0xA0U : first == 0xF0 ? 0x90U : 0x80U;
                const unsigned most = first == 0xED ? 0x9FU : first == 0xF4 ? 0x8FU : 0xBFU;
                std::string character = {static_cast<char>(first), static_cast<char>(second)};
                character.resize(size, last);
                const OrbaHostError expected =
                    inRange(first, 0xC2, 0xF4) && inRange(second, least, most)
                        ? ORBA_HOST_OK
                        : ORBA_HOST_PROFILE_MALFORMED;
                EXPECT_EQ(expected, errorFor(character)) << first << " " << second;
                character.pop_back();
                EXPECT_EQ(ORBA_HOST_PROFILE_MALFORMED, errorFor(character)) << first;
            }
        }
    }
}

TEST(Profile, ReadingForbidden_IsUnreadable) {
    const HostProfile profile;
    ASSERT_EQ(0, ::chmod(profile.folder().path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(profile.path().c_str(), 0));
    EXPECT_EQ(ORBA_HOST_PROFILE_UNREADABLE, asOrdinaryUser([] { return readUserAgent().error; }));
}

TEST(Profile, LargestDeepestAndByteOrderMark_AreRead) {
    const HostProfile profile;
    const std::string text = sampleProfile().toStyledString();
    profile.write(text + std::string(kMaxProfileBytes - text.size(), ' '));
    EXPECT_EQ(ORBA_HOST_OK, readUserAgent().error);
    profile.write("\xEF\xBB\xBF" + text);
    EXPECT_EQ(ORBA_HOST_OK, readUserAgent().error);
    profile.write(nested(63));
    EXPECT_EQ(ORBA_HOST_MEMBER_MISSING, readUserAgent().error);
}

TEST(Profile, Reading_LeavesNothingAllocated) {
    const HostProfile profile;
    readUserAgent();
    const auto before = ::mallinfo2().uordblks;
    for (int n = 0; n < 1000; ++n) {
        readUserAgent();
    }
    EXPECT_GT(before + 50000, ::mallinfo2().uordblks);
}

// --- where the profile is ---

class ProfilePathTest : public ::testing::Test {
  protected:
    ProfilePathTest() {
        place("own", "own");
        place("config", "config");
        place("home/.config", "home");
    }
    std::string place(const std::string& folder, const std::string& userAgent) const {
        std::filesystem::create_directories(scratch.file(folder) + "/orba-host");
        return scratch.write(folder + "/orba-host/device.json",
                             R"({"user_agent": ")" + userAgent + "\"}");
    }
    Reading readWith(const char* ownValue, const char* configValue, const char* homeValue) const {
        own.set(ownValue);
        config.set(configValue);
        home.set(homeValue);
        return readUserAgent();
    }

    ScratchFolder scratch;
    EnvironmentVariable own{"ORBA_HOST_PROFILE", nullptr};
    EnvironmentVariable config{"XDG_CONFIG_HOME", nullptr};
    EnvironmentVariable home{"HOME", nullptr};
};

TEST_F(ProfilePathTest, OwnVariable_ThenConfigHome_ThenHome) {
    const std::string ownFile = scratch.file("own/orba-host/device.json");
    const std::string configFolder = scratch.file("config");
    const std::string homeFolder = scratch.file("home");
    const char* const atConfig = configFolder.c_str();
    const char* const atHome = homeFolder.c_str();
    EXPECT_EQ("own", readWith(ownFile.c_str(), atConfig, atHome).text);
    EXPECT_EQ("config", readWith(nullptr, atConfig, atHome).text);
    EXPECT_EQ("config", readWith("", atConfig, atHome).text);
    EXPECT_EQ("home", readWith(nullptr, nullptr, atHome).text);
    EXPECT_EQ("home", readWith(nullptr, "", atHome).text);
    EXPECT_EQ("home", readWith(nullptr, "config", atHome).text) << "relative";
    EXPECT_EQ(ORBA_HOST_PROFILE_MISSING, readWith("/none.json", atConfig, atHome).error);
}

TEST_F(ProfilePathTest, NothingSet_IsMissing) {
    EXPECT_EQ(ORBA_HOST_PROFILE_MISSING, readUserAgent().error);
    EXPECT_EQ(
        "no PKCE access token: no device profile: ORBA_HOST_PROFILE, XDG_CONFIG_HOME and HOME are "
        "not set",
        readAccessToken().text);
}

}  // namespace
