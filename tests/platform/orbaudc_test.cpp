// The host edition's pseudonyms.
#include <gtest/gtest.h>
#include <orbaudc/orbaudc.h>

#include <cstring>
#include <string>
#include <thread>

namespace {

std::string pseudonymOf(const std::string& serial) {
    char* pseudonym = nullptr;
    EXPECT_EQ(ORBAUDCPseudonymise(&pseudonym, serial.data(), serial.size()), 0);
    return pseudonym == nullptr ? "" : pseudonym;
}

// Made with: printf %s SERIAL | openssl dgst -sha256 -hmac "orba host edition pseudonym key 1"
TEST(Pseudonymise, IsAKeyedSha256InLowerCaseHex) {
    EXPECT_EQ(pseudonymOf("ORBA-0123456789"),
              "9767ca0719ad6cb1a2b642355f80f0ff8dc5b79c24f95a77d2a380cdf2c4a9e9");
    EXPECT_EQ(pseudonymOf(std::string(36, '7')),
              "85a8392279712afa85a53ec60b65bfcbf3530c099cbad3e913d2c09b8cc7a7eb");
}

TEST(Pseudonymise, ReadsNothingBehindTheLength) {
    char* pseudonym = nullptr;
    ASSERT_EQ(ORBAUDCPseudonymise(&pseudonym, "ORBA-0123456789-more", 15), 0);
    EXPECT_EQ(pseudonym, pseudonymOf("ORBA-0123456789"));
}

TEST(Pseudonymise, CountsNulBytes) {
    EXPECT_NE(pseudonymOf(std::string("1\0", 2)), pseudonymOf("1"));
}

TEST(Pseudonymise, NullOrEmptyArguments_FailAndChangeNothing) {
    char text[] = "before";
    char* pseudonym = text;
    EXPECT_NE(ORBAUDCPseudonymise(nullptr, "1", 1), 0);
    EXPECT_NE(ORBAUDCPseudonymise(&pseudonym, nullptr, 1), 0);
    EXPECT_NE(ORBAUDCPseudonymise(&pseudonym, "1", 0), 0);
    EXPECT_EQ(pseudonym, text);
    EXPECT_STREQ(text, "before");
}

TEST(Pseudonymise, TextOfOneThread_OutlivesCallsOfAnother) {
    char* pseudonym = nullptr;
    ASSERT_EQ(ORBAUDCPseudonymise(&pseudonym, "1", 1), 0);
    const std::string before = pseudonym;
    std::thread([] { EXPECT_NE(pseudonymOf("2"), pseudonymOf("1")); }).join();
    EXPECT_EQ(pseudonym, before);
}

}  // namespace
