// The host edition's klib; what its serial number reads is tested with the profile.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <klib/klib.h>
#include <malloc.h>
#include <orba_host_errors.h>
#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <string>

#include "../../platform/host/klib/klib_host.h"
#include "support/host_profile.h"
#include "support/ordinary_user.h"

namespace {

mode_t modeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

// --- KLIBCFileTouch ---

class FileTouch : public ::testing::Test {
  protected:
    int touch(const std::string& name) const { return KLIBCFileTouch(folder.file(name).c_str()); }

    ScratchFolder folder;
};

TEST_F(FileTouch, MissingFile_IsCreatedForItsOwnerOnly) {
    std::filesystem::create_symlink("target", folder.file("link"));
    const mode_t mask = ::umask(0);
    EXPECT_EQ(0, touch("cookies.txt"));
    EXPECT_EQ(0, touch("link"));
    ::umask(mask);
    EXPECT_EQ(0600U, modeOf(folder.file("cookies.txt")));
    EXPECT_EQ(0600U, modeOf(folder.file("target")));
    EXPECT_EQ("", contentOf(folder.file("cookies.txt")));
}

TEST_F(FileTouch, ExistingFile_KeepsContentAndMode) {
    const std::string path = folder.write("cookies.txt", "content");
    ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
    EXPECT_EQ(0, touch("cookies.txt"));
    EXPECT_EQ("content", contentOf(path));
    EXPECT_EQ(0640U, modeOf(path));
}

TEST_F(FileTouch, WhatCannotBeWritten_Fails) {
    folder.write("file", "");
    ASSERT_EQ(0, ::mkfifo(folder.file("fifo").c_str(), 0600));
    EXPECT_EQ(-ENOENT, touch("none/cookies.txt"));
    EXPECT_EQ(-EISDIR, touch(""));
    EXPECT_EQ(-ENOTDIR, touch("file/cookies.txt"));
    EXPECT_EQ(-ENXIO, touch("fifo")) << "nobody reads it";
    EXPECT_EQ(-ETXTBSY, KLIBCFileTouch("/proc/self/exe")) << "it is running";
    EXPECT_EQ(-ENOENT, KLIBCFileTouch(""));
    EXPECT_EQ(-EINVAL, KLIBCFileTouch(nullptr));
    EXPECT_THAT(folder.names(), ::testing::ElementsAre("fifo", "file"));
}

TEST_F(FileTouch, WritingForbidden_Fails) {
    ASSERT_EQ(0, ::chmod(folder.write("cookies.txt", "").c_str(), 0444));
    ASSERT_EQ(0, ::chmod(folder.path().c_str(), 0755));
    EXPECT_EQ(EACCES, asOrdinaryUser([&] { return -touch("cookies.txt"); }));
}

TEST_F(FileTouch, DescriptorZero_IsOneToo) {
    const int input = ::dup(STDIN_FILENO);
    ::close(STDIN_FILENO);
    EXPECT_EQ(0, KLIBCFileTouch("/dev/null"));
    EXPECT_EQ(-1, ::fcntl(STDIN_FILENO, F_GETFD)) << "left open";
    ::dup2(input, STDIN_FILENO);
    ::close(input);
}

// --- KLIBCSzHash ---

using Entries = std::map<std::string, std::string>;

Entries entriesOf(const KLIBCSzHash* table) {
    Entries entries;
    const char* value = nullptr;
    const char* key = KLIBHostSzHashNext(table, nullptr, &value);
    for (; key != nullptr; key = KLIBHostSzHashNext(table, key, &value)) {
        if (!entries.emplace(key, value).second) {
            ADD_FAILURE() << key << " came twice";
            break;
        }
    }
    return entries;
}

class HashTest : public ::testing::Test {
  protected:
    ~HashTest() override { KLIBCSzHashFree(table); }
    int set(const char* key, const char* value) { return KLIBCSzHashSetValue(&table, key, value); }

    KLIBCSzHash* table = KLIBCSzHashAlloc(1024);
};

TEST_F(HashTest, SetValue_StoresCopies) {
    EXPECT_EQ(Entries{}, entriesOf(table));
    char key[] = "key";
    char value[] = "value";
    EXPECT_EQ(0, set(key, value));
    key[0] = value[0] = 'X';
    EXPECT_EQ(0, set("", ""));
    EXPECT_EQ((Entries{{"key", "value"}, {"", ""}}), entriesOf(table));
}

TEST_F(HashTest, SetValue_ReplacesTheValueOfItsKey) {
    EXPECT_EQ(0, set("key", "first"));
    EXPECT_EQ(0, set("Key", "other"));
    EXPECT_EQ(0, set("key", "second"));
    EXPECT_EQ((Entries{{"key", "second"}, {"Key", "other"}}), entriesOf(table));
}

TEST_F(HashTest, NullArguments_FailAndChangeNothing) {
    KLIBCSzHash* none = nullptr;
    EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, KLIBCSzHashSetValue(nullptr, "key", "value"));
    EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, KLIBCSzHashSetValue(&none, "key", "value"));
    EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, set(nullptr, "value"));
    EXPECT_EQ(-ORBA_HOST_INVALID_ARGUMENT, set("key", nullptr));
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(Entries{}, entriesOf(table));
    KLIBCSzHashFree(nullptr);
}

TEST(HashAlloc, SizeIsOnlyAHint) {
    for (const int size : {0, 1, -1, -2147483647 - 1, 2147483647}) {
        KLIBCSzHash* table = KLIBCSzHashAlloc(size);
        ASSERT_NE(nullptr, table) << size;
        Entries expected;
        for (int i = 0; i < 1000; ++i) {
            const std::string text = std::to_string(i);
            EXPECT_EQ(0, KLIBCSzHashSetValue(&table, text.c_str(), text.c_str())) << size;
            expected[text] = text;
        }
        EXPECT_EQ(expected, entriesOf(table)) << size;
        KLIBCSzHashFree(table);
    }
}

TEST(HashFree, LeavesNothingAllocated) {
    const auto before = ::mallinfo2().uordblks;
    for (int n = 0; n < 10000; ++n) {
        KLIBCSzHashFree(KLIBCSzHashAlloc(0));
    }
    EXPECT_GT(before + 100000, ::mallinfo2().uordblks);
}

}  // namespace
