// The host edition's pseudonyms.
#include <gtest/gtest.h>
#include <orbaudc/orbaudc.h>

#include <string>
#include <thread>

namespace {

std::string pseudonymOf(const std::string& serial) {
    char* pseudonym = nullptr;
    EXPECT_EQ(0, ORBAUDCPseudonymise(&pseudonym, serial.data(), serial.size()));
    return pseudonym == nullptr ? "" : pseudonym;
}

// Made with: printf %s SERIAL | openssl dgst -sha256 -hmac "orba host edition pseudonym key 1"
TEST(Pseudonymise, IsAKeyedSha256InLowerCaseHex) {
    EXPECT_EQ("9767ca0719ad6cb1a2b642355f80f0ff8dc5b79c24f95a77d2a380cdf2c4a9e9",
              pseudonymOf("ORBA-0123456789"));
    EXPECT_EQ("85a8392279712afa85a53ec60b65bfcbf3530c099cbad3e913d2c09b8cc7a7eb",
              pseudonymOf(std::string(36, '7')));
}

TEST(Pseudonymise, ReadsTheLengthAndNoMore) {
    char* pseudonym = nullptr;
    ASSERT_EQ(0, ORBAUDCPseudonymise(&pseudonym, "ORBA-0123456789-more", 15));
    EXPECT_EQ(pseudonymOf("ORBA-0123456789"), pseudonym);
    EXPECT_NE(pseudonymOf("1"), pseudonymOf(std::string("1\0", 2)));
}

TEST(Pseudonymise, NullOrEmptyArguments_FailAndChangeNothing) {
    char text[] = "before";
    char* pseudonym = text;
    EXPECT_NE(0, ORBAUDCPseudonymise(nullptr, "1", 1));
    EXPECT_NE(0, ORBAUDCPseudonymise(&pseudonym, nullptr, 1));
    EXPECT_NE(0, ORBAUDCPseudonymise(&pseudonym, "1", 0));
    EXPECT_EQ(text, pseudonym);
    EXPECT_STREQ("before", text);
}

TEST(Pseudonymise, TextOfOneThread_OutlivesCallsOfAnother) {
    char* pseudonym = nullptr;
    ASSERT_EQ(0, ORBAUDCPseudonymise(&pseudonym, "1", 1));
    const std::string before = pseudonym;
    std::thread([] { EXPECT_NE(pseudonymOf("2"), pseudonymOf("1")); }).join();
    EXPECT_EQ(before, pseudonym);
}

}  // namespace
