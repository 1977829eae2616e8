// The host edition's klib; what its serial number reads is tested with the profile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <klib/klib.h>
#include <malloc.h>
#include <orba_host_errors.h>
#include <sys/stat.h>
#include <sys/un.h>

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

// ---- KLIBCFileTouch
// --------------------------------------------------------------------------------

TEST(FileTouch, MissingFile_IsCreatedForItsOwnerOnly) {
    const ScratchFolder folder;
    const std::string path = folder.file("cookies.txt");
    const mode_t mask = ::umask(0);
    EXPECT_EQ(KLIBCFileTouch(path.c_str()), 0);
    ::umask(mask);
    EXPECT_EQ(modeOf(path), 0600U);
    EXPECT_EQ(contentOf(path), "");
}

TEST(FileTouch, ExistingFile_KeepsContentAndMode) {
    const ScratchFolder folder;
    const std::string path = folder.write("cookies.txt", "content");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(KLIBCFileTouch(path.c_str()), 0);
    EXPECT_EQ(contentOf(path), "content");
    EXPECT_EQ(modeOf(path), 0640U);
}

TEST(FileTouch, NullDevice_Succeeds) { EXPECT_EQ(KLIBCFileTouch("/dev/null"), 0); }

TEST(FileTouch, SymbolicLink_CreatesItsTarget) {
    const ScratchFolder folder;
    std::filesystem::create_symlink("target", folder.file("link"));
    EXPECT_EQ(KLIBCFileTouch(folder.file("link").c_str()), 0);
    EXPECT_TRUE(std::filesystem::is_regular_file(folder.file("target")));
}

TEST(FileTouch, MissingFolder_Fails) {
    const ScratchFolder folder;
    EXPECT_EQ(KLIBCFileTouch(folder.file("none/cookies.txt").c_str()), -ENOENT);
    EXPECT_TRUE(folder.names().empty());
}

TEST(FileTouch, Folder_Fails) {
    const ScratchFolder folder;
    EXPECT_EQ(KLIBCFileTouch(folder.path().c_str()), -EISDIR);
}

TEST(FileTouch, BelowAFile_Fails) {
    const ScratchFolder folder;
    EXPECT_EQ(KLIBCFileTouch((folder.write("file", "") + "/cookies.txt").c_str()), -ENOTDIR);
}

TEST(FileTouch, FifoWithoutReader_FailsAtOnce) {
    const ScratchFolder folder;
    ASSERT_EQ(::mkfifo(folder.file("fifo").c_str(), 0600), 0);
    EXPECT_EQ(KLIBCFileTouch(folder.file("fifo").c_str()), -ENXIO);
}

// Holds for root, too: nobody may write to the program that is running.
TEST(FileTouch, FileThatNobodyMayWrite_Fails) {
    EXPECT_EQ(KLIBCFileTouch("/proc/self/exe"), -ETXTBSY);
}

TEST(FileTouch, WritingForbidden_Fails) {
    const ScratchFolder folder;
    const std::string path = folder.write("cookies.txt", "");
    ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
    ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
    EXPECT_EQ(asOrdinaryUser([&] { return -KLIBCFileTouch(path.c_str()); }), EACCES);
}

TEST(FileTouch, DescriptorZero_IsOneToo) {
    const int input = ::dup(STDIN_FILENO);
    ::close(STDIN_FILENO);
    EXPECT_EQ(KLIBCFileTouch("/dev/null"), 0);
    EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1) << "left open";
    ::dup2(input, STDIN_FILENO);
    ::close(input);
}

TEST(FileTouch, NoPath_Fails) {
    EXPECT_EQ(KLIBCFileTouch(nullptr), -EINVAL);
    EXPECT_EQ(KLIBCFileTouch(""), -ENOENT);
}

// ---- KLIBGetSerialNumber
// ---------------------------------------------------------------------------

TEST(SerialNumber, FitsItsBufferExactly) {
    const HostProfile profile;
    profile.writeWith("serial_number", "12345");
    char serial[] = "-------";
    EXPECT_EQ(KLIBGetSerialNumber(serial, 6), 0);
    EXPECT_STREQ(serial, "12345");
    EXPECT_EQ(serial[6], '-');
}

TEST(SerialNumber, NoRoomForTheNul_Fails) {
    const HostProfile profile;
    profile.writeWith("serial_number", std::string(36, '1'));
    char serial[36] = "-";
    EXPECT_EQ(KLIBGetSerialNumber(serial, sizeof(serial)), -ORBA_HOST_MEMBER_TOO_LONG);
    EXPECT_STREQ(serial, "-");
}

TEST(SerialNumber, NoBufferOrOneForNothing_Fails) {
    const HostProfile profile;
    char serial[36] = "-";
    EXPECT_EQ(KLIBGetSerialNumber(nullptr, 36), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(KLIBGetSerialNumber(serial, 0), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(KLIBGetSerialNumber(serial, 1), -ORBA_HOST_MEMBER_TOO_LONG);
    EXPECT_STREQ(serial, "-");
}

// ---- KLIBCSzHash
// -----------------------------------------------------------------------------------

using Entries = std::map<std::string, std::string>;

Entries entriesOf(const KLIBCSzHash* table) {
    Entries entries;
    const char* value = nullptr;
    const char* key = KLIBHostSzHashNext(table, nullptr, &value);
    for (; key != nullptr; key = KLIBHostSzHashNext(table, key, &value)) {
        EXPECT_TRUE(entries.emplace(key, value).second) << key << " came twice";
    }
    return entries;
}

class HashTest : public ::testing::Test {
  protected:
    ~HashTest() override { KLIBCSzHashFree(table_); }

    KLIBCSzHash* table_ = KLIBCSzHashAlloc(1024);
};

TEST_F(HashTest, NewTable_IsEmpty) { EXPECT_EQ(entriesOf(table_), Entries{}); }

TEST_F(HashTest, SetValue_StoresCopies) {
    char key[] = "key";
    char value[] = "value";
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, key, value), 0);
    key[0] = value[0] = 'X';
    EXPECT_EQ(entriesOf(table_), (Entries{{"key", "value"}}));
}

TEST_F(HashTest, SetValue_ReplacesTheValueOfItsKey) {
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, "key", "first"), 0);
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, "Key", "other"), 0);
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, "key", "second"), 0);
    EXPECT_EQ(entriesOf(table_), (Entries{{"key", "second"}, {"Key", "other"}}));
}

TEST_F(HashTest, EmptyTexts_AreStored) {
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, "", ""), 0);
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, "key", ""), 0);
    EXPECT_EQ(entriesOf(table_), (Entries{{"", ""}, {"key", ""}}));
}

TEST_F(HashTest, MoreEntriesThanExpected_AreStored) {
    KLIBCSzHash* small = KLIBCSzHashAlloc(1);
    Entries expected;
    for (int i = 0; i < 5000; ++i) {
        const std::string text = std::to_string(i);
        EXPECT_EQ(KLIBCSzHashSetValue(&small, text.c_str(), text.c_str()), 0);
        expected[text] = text;
    }
    EXPECT_EQ(entriesOf(small), expected);
    KLIBCSzHashFree(small);
}

TEST_F(HashTest, NullArguments_FailAndChangeNothing) {
    KLIBCSzHash* none = nullptr;
    EXPECT_EQ(KLIBCSzHashSetValue(nullptr, "key", "value"), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(KLIBCSzHashSetValue(&none, "key", "value"), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, nullptr, "value"), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, "key", nullptr), -ORBA_HOST_INVALID_ARGUMENT);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(entriesOf(table_), Entries{});
}

TEST(HashAlloc, SizeIsOnlyAHint) {
    for (const int size : {0, -1, -2147483647 - 1, 2147483647}) {
        KLIBCSzHash* table = KLIBCSzHashAlloc(size);
        ASSERT_NE(table, nullptr) << size;
        EXPECT_EQ(KLIBCSzHashSetValue(&table, "key", "value"), 0) << size;
        KLIBCSzHashFree(table);
    }
}

TEST(HashFree, LeavesNothingAllocated) {
    const auto before = ::mallinfo2().uordblks;
    for (int n = 0; n < 10000; ++n) {
        KLIBCSzHashFree(KLIBCSzHashAlloc(0));
    }
    EXPECT_LT(::mallinfo2().uordblks, before + 100000);
}

TEST(HashFree, Null_IsAllowed) { KLIBCSzHashFree(nullptr); }

}  // namespace
