// Where the fields of the records are, byte by byte: C fills them, this reads them at their
// offsets.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "layout_c.h"

namespace {

template <typename Value, typename Record>
Value at(const Record& record, std::size_t offset) {
    Value value;
    std::memcpy(&value, reinterpret_cast<const char*>(&record) + offset, sizeof(value));
    return value;
}

template <typename Record>
const char* textAt(const Record& record, std::size_t offset) {
    return reinterpret_cast<const char*>(&record) + offset;
}

class LayoutTest : public ::testing::Test {
  protected:
    LayoutTest() { fillRecords(&account_, &config_, &request_, &response_); }

    TovraAccountRecord account_;
    TovraServerConfigRecord config_;
    TovraHttpsRequestRecord request_;
    TovraHttpsResponseRecord response_;
};

TEST_F(LayoutTest, Sizes) {
    EXPECT_EQ(sizeof(account_), 20256U);
    EXPECT_EQ(sizeof(config_), 4096U);
    EXPECT_EQ(sizeof(request_), 20288U);
    EXPECT_EQ(sizeof(response_), 24U);
}

TEST_F(LayoutTest, Texts) {
    EXPECT_STREQ(textAt(account_, 8192), "id");
    EXPECT_STREQ(textAt(account_, 12288), "key");
    EXPECT_STREQ(textAt(config_, 2048), "server");
    EXPECT_EQ(sizeof(account_.id), 4096U);
    EXPECT_EQ(sizeof(account_.authKey), 4096U);
    EXPECT_EQ(sizeof(config_.server), 2048U);
}

TEST_F(LayoutTest, RequestAndResponse) {
    EXPECT_EQ(at<const char*>(request_, 0), textAt(config_, 2048));
    EXPECT_EQ(at<const char*>(request_, 8), textAt(account_, 8192));
    EXPECT_EQ(at<void*>(request_, 16), static_cast<void*>(&request_));
    EXPECT_EQ(at<std::int32_t>(request_, 20280), 10);
    EXPECT_EQ(at<std::int32_t>(request_, 20284), 11);
    EXPECT_EQ(at<char*>(response_, 16), textAt(account_, 12288));
}

}  // namespace
