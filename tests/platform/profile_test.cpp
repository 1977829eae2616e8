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

std::string memberOf(const Json::Value& document, const std::string& name) {
    return Json::Path("." + name).resolve(document).asString();
}

// ---- one reader after the other
// ------------------------------------------------------------------

class ReaderTest : public ::testing::TestWithParam<Reader> {
  protected:
    Reading read() const { return GetParam().read(); }
    std::string member() const { return GetParam().member; }

    HostProfile profile_;
};

TEST_P(ReaderTest, SampleProfile_GivesTheMember) {
    const Reading reading = read();
    EXPECT_EQ(reading.error, ORBA_HOST_OK);
    EXPECT_EQ(reading.text, memberOf(sampleProfile(), member()));
}

TEST_P(ReaderTest, ChangedProfile_IsReadAfresh) {
    read();
    profile_.writeWith(member(), "other");
    EXPECT_EQ(read().text, "other");
}

TEST_P(ReaderTest, TextBeyondAscii_IsKept) {
    profile_.writeWith(member(), "M\xC3\xBCller \xF0\x9F\x98\x80");
    EXPECT_EQ(read().text, "M\xC3\xBCller \xF0\x9F\x98\x80");
}

TEST_P(ReaderTest, OtherMembersAbsent_DoesNotMatter) {
    Json::Value document;
    document["account"]["id"] = "only";
    document["account"]["auth_key"] = "only";
    Json::Path("." + member()).make(document) = "only";
    profile_.write(document);
    EXPECT_EQ(read().text, "only");
}

TEST_P(ReaderTest, MemberMissing_Fails) {
    profile_.writeWithout(member());
    EXPECT_EQ(read().error, ORBA_HOST_MEMBER_MISSING);
}

TEST_P(ReaderTest, MemberNullOrEmpty_CountsAsMissing) {
    for (const Json::Value& value : {Json::Value(Json::nullValue), Json::Value("")}) {
        profile_.writeWith(member(), value);
        EXPECT_EQ(read().error, ORBA_HOST_MEMBER_MISSING) << value;
    }
}

TEST_P(ReaderTest, MemberOfAnotherType_Fails) {
    for (const Json::Value& value :
         {Json::Value(1), Json::Value(0.5), Json::Value(true), Json::Value(Json::arrayValue),
          Json::Value(Json::objectValue)}) {
        profile_.writeWith(member(), value);
        EXPECT_EQ(read().error, ORBA_HOST_MEMBER_TYPE) << value;
    }
}

TEST_P(ReaderTest, MemberWithControlCharacter_Fails) {
    for (const std::string& value : {std::string("a\r\nb"), std::string("a\0b", 3),
                                     std::string("\t"), std::string("\x1F"), std::string("\x7F")}) {
        profile_.writeWith(member(), value);
        EXPECT_EQ(read().error, ORBA_HOST_MEMBER_TYPE) << ::testing::PrintToString(value);
    }
}

TEST_P(ReaderTest, MemberThatFillsItsRoom_IsGivenWhole) {
    const std::string text(GetParam().room == 0 ? 100000 : GetParam().room, 'x');
    profile_.writeWith(member(), text);
    EXPECT_EQ(read().text, text);
}

TEST_P(ReaderTest, MemberOneByteTooLong_Fails) {
    if (GetParam().room != 0) {
        profile_.writeWith(member(), std::string(GetParam().room + 1, 'x'));
        EXPECT_EQ(read().error, ORBA_HOST_MEMBER_TOO_LONG);
    }
}

std::string readerName(const ::testing::TestParamInfo<Reader>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Profile, ReaderTest, ::testing::ValuesIn(kReaders), readerName);

TEST(AccountMember, OfAnotherTypeThanObject_Fails) {
    const HostProfile profile;
    for (const Json::Value& value : {Json::Value(1), Json::Value("account-1"), Json::Value(true),
                                     Json::Value(Json::arrayValue)}) {
        profile.writeWith("account", value);
        EXPECT_EQ(readAccountId().error, ORBA_HOST_MEMBER_TYPE) << value;
    }
}

TEST(AccountMember, MissingOrNull_CountsAsMissing) {
    const HostProfile profile;
    profile.writeWithout("account");
    EXPECT_EQ(readAccountId().error, ORBA_HOST_MEMBER_MISSING);
    profile.writeWith("account", Json::nullValue);
    EXPECT_EQ(readAccountId().error, ORBA_HOST_MEMBER_MISSING);
}

// ---- every broken profile with every reader
// -------------------------------------------------------

struct BrokenProfile {
    const char* name;
    OrbaHostError expected;
    std::function<void(const HostProfile&)> make;
};

std::ostream& operator<<(std::ostream& stream, const BrokenProfile& broken) {
    return stream << broken.name;
}

std::function<void(const HostProfile&)> content(const std::string& text) {
    return [text](const HostProfile& profile) { profile.write(text); };
}

std::string nested(std::size_t levels) {
    return "{\"x\":" + std::string(levels, '[') + std::string(levels, ']') + "}";
}

void useFolder(const HostProfile& profile) { profile.use(profile.folder().path()); }

void useFifo(const HostProfile& profile) {
    profile.use(profile.folder().file("fifo"));
    ASSERT_EQ(::mkfifo(profile.folder().file("fifo").c_str(), 0600), 0);
}

const BrokenProfile kBrokenProfiles[] = {
    {"NoFile", ORBA_HOST_PROFILE_MISSING,
     [](const HostProfile& profile) { profile.use(profile.folder().file("none.json")); }},
    {"NoFolder", ORBA_HOST_PROFILE_MISSING,
     [](const HostProfile& profile) { profile.use(profile.folder().file("none/device.json")); }},
    {"BelowAFile", ORBA_HOST_PROFILE_MISSING,
     [](const HostProfile& profile) { profile.use(profile.path() + "/device.json"); }},
    {"Folder", ORBA_HOST_PROFILE_UNREADABLE, useFolder},
    {"Fifo", ORBA_HOST_PROFILE_UNREADABLE, useFifo},
    {"Device", ORBA_HOST_PROFILE_UNREADABLE,
     [](const HostProfile& profile) { profile.use("/dev/zero"); }},
    {"OneByteTooLarge", ORBA_HOST_PROFILE_TOO_LARGE,
     content("{}" + std::string(kMaxProfileBytes - 1, ' '))},
    {"Huge", ORBA_HOST_PROFILE_TOO_LARGE, content(std::string(8 * kMaxProfileBytes, '['))},
    {"Empty", ORBA_HOST_PROFILE_MALFORMED, content("")},
    {"NotJson", ORBA_HOST_PROFILE_MALFORMED, content("serial_number=1")},
    {"CutOff", ORBA_HOST_PROFILE_MALFORMED, content("{\"serial_number\": \"1\"")},
    {"TrailingText", ORBA_HOST_PROFILE_MALFORMED, content("{} {}")},
    {"Comment", ORBA_HOST_PROFILE_MALFORMED, content("{} // none")},
    {"MemberTwice", ORBA_HOST_PROFILE_MALFORMED, content("{\"a\": 1, \"a\": 2}")},
    {"Array", ORBA_HOST_PROFILE_MALFORMED, content("[]")},
    {"Text", ORBA_HOST_PROFILE_MALFORMED, content("\"device\"")},
    {"Null", ORBA_HOST_PROFILE_MALFORMED, content("null")},
    {"NulByte", ORBA_HOST_PROFILE_MALFORMED, content(std::string("{}\0", 3))},
    {"NulByteInText", ORBA_HOST_PROFILE_MALFORMED, content(std::string("{\"x\": \"\0\"}", 10))},
    {"NestedTooDeeply", ORBA_HOST_PROFILE_MALFORMED, content(nested(64))},
    {"NestedVeryDeeply", ORBA_HOST_PROFILE_MALFORMED, content(nested(400000))},
    {"Utf8Continuation", ORBA_HOST_PROFILE_MALFORMED, content("{\"x\": \"\x80\"}")},
    {"Utf8LoneByte", ORBA_HOST_PROFILE_MALFORMED, content("{\"x\": \"\xFF\"}")},
    {"Utf8CutOff", ORBA_HOST_PROFILE_MALFORMED, content("{\"x\": \"\xC3\"}")},
    {"Utf8Overlong", ORBA_HOST_PROFILE_MALFORMED, content("{\"x\": \"\xC0\xAF\"}")},
    {"Utf8Surrogate", ORBA_HOST_PROFILE_MALFORMED, content("{\"x\": \"\xED\xA0\x80\"}")},
    {"Utf8BeyondUnicode", ORBA_HOST_PROFILE_MALFORMED, content("{\"x\": \"\xF4\x90\x80\x80\"}")},
};

class BrokenProfileTest : public ::testing::TestWithParam<std::tuple<BrokenProfile, Reader>> {};

TEST_P(BrokenProfileTest, Fails) {
    const HostProfile profile;
    const auto& [broken, reader] = GetParam();
    broken.make(profile);
    EXPECT_EQ(reader.read().error, broken.expected);
}

std::string brokenName(const ::testing::TestParamInfo<BrokenProfileTest::ParamType>& info) {
    return std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param).name;
}

// Every first byte with the ends of each range: the well-formed sequences of Unicode's table 3-7.
TEST(Profile, TextIsUtf8_OnlyAsUnicodeHasIt) {
    const HostProfile profile;
    const auto inRange = [](unsigned value, unsigned least, unsigned most) {
        return value >= least && value <= most;
    };
    for (unsigned first = 0x80; first <= 0xFF; ++first) {
        for (const unsigned second : {0x7FU, 0x80U, 0x8FU, 0x90U, 0x9FU, 0xA0U, 0xBFU, 0xC0U}) {
            const std::size_t size = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
            const unsigned least = first == 0xE0 ? 0xA0U : first == 0xF0 ? 0x90U : 0x80U;
            const unsigned most = first == 0xED ? 0x9FU : first == 0xF4 ? 0x8FU : 0xBFU;
            std::string character = {static_cast<char>(first), static_cast<char>(second)};
            character.resize(size, '\x80');
            const OrbaHostError expected =
                inRange(first, 0xC2, 0xF4) && inRange(second, least, most)
                    ? ORBA_HOST_OK
                    : ORBA_HOST_PROFILE_MALFORMED;
            profile.write("{\"serial_number\": \"" + character + "\"}");
            EXPECT_EQ(expected, readSerialNumber().error) << first << " " << second;
            profile.write("{\"serial_number\": \"" + character.substr(0, size - 1) + "\"}");
            EXPECT_EQ(ORBA_HOST_PROFILE_MALFORMED, readSerialNumber().error) << first;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Profile, BrokenProfileTest,
                         ::testing::Combine(::testing::ValuesIn(kBrokenProfiles),
                                            ::testing::ValuesIn(kReaders)),
                         brokenName);

TEST(Profile, ReadingForbidden_IsUnreadable) {
    const HostProfile profile;
    ASSERT_EQ(::chmod(profile.folder().path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(profile.path().c_str(), 0), 0);
    EXPECT_EQ(asOrdinaryUser([] { return readUserAgent().error; }), ORBA_HOST_PROFILE_UNREADABLE);
}

TEST(Profile, LargestSize_IsRead) {
    const HostProfile profile;
    const std::string text = sampleProfile().toStyledString();
    profile.write(text + std::string(kMaxProfileBytes - text.size(), ' '));
    EXPECT_EQ(readUserAgent().error, ORBA_HOST_OK);
}

TEST(Profile, ByteOrderMark_IsPassedOver) {
    const HostProfile profile;
    profile.write("\xEF\xBB\xBF" + sampleProfile().toStyledString());
    EXPECT_EQ(readUserAgent().error, ORBA_HOST_OK);
}

TEST(Profile, FirstAndLastCharacterOfEachLength_AreRead) {
    const HostProfile profile;
    for (const std::string text :
         {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF",
          "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        profile.write("{\"user_agent\": \"" + text + "\"}");
        EXPECT_EQ(readUserAgent().text, text);
    }
}

TEST(Profile, WhatIsNoUtf8_IsMalformed) {
    const HostProfile profile;
    for (const std::string text :
         {"\x80", "\xBF", "\xC1\xBF", "\xC2", "\xC2x", "\xC2\xC0", "\xE0\x9F\xBF", "\xE1\x80x",
          "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF0\x90\x80x", "\xF4\x90\x80\x80",
          "\xF7\xBF\xBF\xBF", "\xF8\x88\x80\x80\x80", "\xFF"}) {
        profile.write("{\"user_agent\": \"" + text + "\"}");
        EXPECT_EQ(readUserAgent().error, ORBA_HOST_PROFILE_MALFORMED)
            << ::testing::PrintToString(text);
        profile.write(text);
        EXPECT_EQ(readUserAgent().error, ORBA_HOST_PROFILE_MALFORMED);
    }
}

TEST(Profile, Reading_LeavesNothingAllocated) {
    const HostProfile profile;
    readUserAgent();
    const auto before = ::mallinfo2().uordblks;
    for (int n = 0; n < 1000; ++n) {
        readUserAgent();
    }
    EXPECT_LT(::mallinfo2().uordblks, before + 50000);
}

TEST(Profile, DeepestNesting_IsRead) {
    const HostProfile profile;
    profile.write(nested(63));
    EXPECT_EQ(readUserAgent().error, ORBA_HOST_MEMBER_MISSING);
}

// ---- where the profile is
// --------------------------------------------------------------------------

class ProfilePathTest : public ::testing::Test {
  protected:
    void SetUp() override {
        own_.unset();
        config_.unset();
        home_.unset();
    }

    std::string place(const std::string& folder, const std::string& userAgent) const {
        std::filesystem::create_directories(scratch_.file(folder) + "/orba-host");
        Json::Value document;
        document["user_agent"] = userAgent;
        return scratch_.write(folder + "/orba-host/device.json", document.toStyledString());
    }

    ScratchFolder scratch_;
    EnvironmentVariable own_{"ORBA_HOST_PROFILE"};
    EnvironmentVariable config_{"XDG_CONFIG_HOME"};
    EnvironmentVariable home_{"HOME"};
};

TEST_F(ProfilePathTest, OwnVariable_ComesFirst) {
    own_.set(place("own", "own"));
    place("config", "config");
    config_.set(scratch_.file("config"));
    EXPECT_EQ(readUserAgent().text, "own");
}

TEST_F(ProfilePathTest, ConfigHome_ComesSecond) {
    place("config", "config");
    place("home/.config", "home");
    own_.set("");
    config_.set(scratch_.file("config"));
    home_.set(scratch_.file("home"));
    EXPECT_EQ(readUserAgent().text, "config");
}

TEST_F(ProfilePathTest, Home_ComesThird) {
    place("home/.config", "home");
    home_.set(scratch_.file("home"));
    EXPECT_EQ(readUserAgent().text, "home");
    config_.set("");
    EXPECT_EQ(readUserAgent().text, "home");
}

TEST_F(ProfilePathTest, RelativeConfigHome_CountsAsNotSet) {
    place("home/.config", "home");
    home_.set(scratch_.file("home"));
    config_.set("config");
    EXPECT_EQ(readUserAgent().text, "home");
}

TEST_F(ProfilePathTest, ProfileNamedButMissing_IsNotSoughtElsewhere) {
    place("home/.config", "home");
    home_.set(scratch_.file("home"));
    own_.set(scratch_.file("none.json"));
    EXPECT_EQ(readUserAgent().error, ORBA_HOST_PROFILE_MISSING);
}

TEST_F(ProfilePathTest, NothingSet_IsMissing) {
    EXPECT_EQ(readUserAgent().error, ORBA_HOST_PROFILE_MISSING);
    EXPECT_EQ(readSerialNumber().error, ORBA_HOST_PROFILE_MISSING);
    try {
        orbatovra::AccountPkceService().GetAccessToken();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const orbatovra::TovraException& exception) {
        EXPECT_STREQ(
            "no PKCE access token: no device profile: ORBA_HOST_PROFILE, XDG_CONFIG_HOME and HOME "
            "are not set",
            exception.what());
    }
}

}  // namespace
