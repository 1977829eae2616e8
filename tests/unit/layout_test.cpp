// The layouts that callers of the shared library rely on.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <string>

#include "fakes.h"
#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/httpclient.h"
#include "serial_number.h"

namespace {

using namespace ORBA::OAuth2Client;
using Client = HttpClient::HttpClient;

template <class Field>
const Field& at(const void* object, std::size_t offset) {
    return *reinterpret_cast<const Field*>(static_cast<const char*>(object) + offset);
}

TEST(HttpClientLayout, IsThatOfItsFields) {
    fakes::reset();
    fakes::world().transfers = {{CURLE_OK, 302, "", {}, "https://auth.test/next"}};
    Client client("https://auth.test/", "/jar");
    client.setHeader("A", "1");
    client.get(false);
    EXPECT_EQ(152U, sizeof client);
    EXPECT_EQ("https://auth.test/", at<std::string>(&client, 0));
    EXPECT_EQ(302, at<std::int64_t>(&client, 32));
    EXPECT_EQ("https://auth.test/next", at<std::string>(&client, 40));
    EXPECT_EQ("/jar", at<std::string>(&client, 72));
    EXPECT_EQ("1", (at<std::map<std::string, std::string>>(&client, 104).at("A")));
    EXPECT_FALSE(std::is_polymorphic_v<Client>);
}

TEST(MemoryStructLayout, IsThatOfItsFields) {
    EXPECT_EQ(16U, sizeof(HttpClient::MemoryStruct));
    EXPECT_EQ(0U, offsetof(HttpClient::MemoryStruct, memory));
    EXPECT_EQ(8U, offsetof(HttpClient::MemoryStruct, size));
}

// A serial number without a NUL fills what the platform is told.
TEST(SerialNumberLayout, HasOneByteMoreForItsEnd) {
    EXPECT_EQ(kSerialNumberSize + 1, sizeof(SerialNumber::text));
}

// A pointer to a virtual member begins with its offset in the table. The Itanium C++ ABI adds 1 as
// a mark; on ARM, where code may have odd addresses, the mark is in the second word.
template <class Member>
std::size_t slotOf(Member member) {
    std::size_t offset = 0;
    std::memcpy(&offset, &member, sizeof offset);
    return offset / sizeof(void*);
}

TEST(ExceptionTable, VirtualOperationsStandInThisOrder) {
    // Slots 0 and 1 are the destructor: of a complete object, and of one on the heap.
    EXPECT_EQ(2U, slotOf(&OAuth2ClientException::what));
    EXPECT_EQ(3U, slotOf(&OAuth2ClientException::errCode));
}

template <class Exception>
class EachExceptionLayout : public ::testing::Test {};
using AllExceptions = ::testing::Types<OAuth2ClientException, HttpClientException, JsonException,
                                       CurlException, TovraException, OAuth2Exception>;
TYPED_TEST_SUITE(EachExceptionLayout, AllExceptions);

TYPED_TEST(EachExceptionLayout, CodeAndTextStandBehindTheTable) {
    const TypeParam exception(12, "a text");
    EXPECT_EQ(48U, sizeof exception);
    EXPECT_EQ(12, at<int>(&exception, 8));
    EXPECT_EQ("a text", at<std::string>(&exception, 16));
}

// what() and errCode() are the base's own.
TYPED_TEST(EachExceptionLayout, SubclassesOverrideOnlyTheDestructor) {
    const OAuth2ClientException base(1, "base");
    const TypeParam exception(1, "a text");
    using Table = const void* const*;
    EXPECT_EQ(at<Table>(&base, 0)[2], at<Table>(&exception, 0)[2]);
    EXPECT_EQ(at<Table>(&base, 0)[3], at<Table>(&exception, 0)[3]);
}

}  // namespace
