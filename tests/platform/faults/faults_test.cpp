// Every call that the host edition makes to the system and to libcurl fails once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <klib/klib.h>
#include <orba_host_errors.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>
#include <orbaudc/orbaudc.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "../support/host_profile.h"
#include "../support/readers.h"
#include "fake_curl.h"
#include "faults.h"

namespace {

using faults::AllocationInjection;
using faults::Injection;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int kMoreThanEnough = 100000;

std::size_t openFiles() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                      std::filesystem::directory_iterator()));
}

const std::map<std::string, OrbaHostError> kNumberOf = {
    {"open", ORBA_HOST_PROFILE_UNREADABLE},
    {"fstat", ORBA_HOST_PROFILE_UNREADABLE},
    {"read", ORBA_HOST_PROFILE_UNREADABLE},
    {"iconv_open", ORBA_HOST_OUT_OF_MEMORY},
    {"curl_easy_init", ORBA_HOST_OUT_OF_MEMORY},
    {"curl_easy_escape", ORBA_HOST_OUT_OF_MEMORY},
    {"curl_slist_append", ORBA_HOST_OUT_OF_MEMORY},
    {"curl_easy_setopt", ORBA_HOST_REQUEST_TRANSPORT},
    {"curl_easy_perform", ORBA_HOST_REQUEST_TRANSPORT},
    {"curl_easy_getinfo", ORBA_HOST_REQUEST_TRANSPORT},
};

class FaultTest : public ::testing::Test {
  protected:
    FaultTest() { FakeCurl::instance() = FakeCurl(); }
    ~FaultTest() override { EXPECT_EQ(FakeCurl::instance().open, 0); }

    HostProfile profile_;
};

/** Fails each call in turn, until `run` needs no more of them; it returns its error number. */
template <typename Run>
void failEachCall(Run run) {
    for (int failing = 1;; ++failing) {
        const std::size_t files = openFiles();
        int number = 0;
        {
            const Injection injection(failing);
            number = run();
        }
        EXPECT_EQ(openFiles(), files);
        EXPECT_EQ(FakeCurl::instance().open, 0);
        if (Injection::failed().empty()) {
            EXPECT_EQ(number, ORBA_HOST_OK);
            return;
        }
        EXPECT_EQ(number, kNumberOf.at(Injection::failed())) << "call " << failing;
    }
}

/** Fails each allocation in turn; `run` returns its error number. */
template <typename Run>
void failEachAllocation(Run run) {
    int failing = 1;
    for (;; ++failing) {
        const std::size_t files = openFiles();
        int number = 0;
        {
            const AllocationInjection injection(failing);
            number = run();
        }
        EXPECT_EQ(openFiles(), files);
        EXPECT_EQ(FakeCurl::instance().open, 0);
        if (!AllocationInjection::hasFailed()) {
            EXPECT_EQ(number, ORBA_HOST_OK);
            break;
        }
        EXPECT_EQ(number, ORBA_HOST_OUT_OF_MEMORY) << "allocation " << failing;
    }
    EXPECT_GT(failing, 1) << "nothing was allocated";
}

// ---- reading the profile
// ---------------------------------------------------------------------------

int getSerial() {
    char serial[36];
    return -KLIBGetSerialNumber(serial, sizeof(serial));
}

int getUserAgent() {
    char name[256];
    return -ORBATOVRAUserAgentNameGet(name, sizeof(name));
}

int getAccount() {
    TovraAccountRecord account;
    return -ORBATOVRAAccountGet(&account);
}

int getServer() {
    TovraServerConfigRecord config;
    return -ORBATOVRAServerConfigGet(&config);
}

int getToken() {
    try {
        orbatovra::AccountPkceService().GetAccessToken();
        return ORBA_HOST_OK;
    } catch (const orbatovra::TovraException&) {
        return static_cast<int>(ORBATOVRAErrGet());
    } catch (const std::bad_alloc&) {
        return ORBA_HOST_OUT_OF_MEMORY;
    }
}

TEST_F(FaultTest, ReadingTheProfile_NeedsTheseCalls) {
    const Injection injection(kMoreThanEnough);
    EXPECT_EQ(getSerial(), 0);
    EXPECT_THAT(Injection::calls(), ElementsAre("open", "fstat", "read", "read", "iconv_open"));
}

TEST_F(FaultTest, EachCallOfAReader_Fails) {
    failEachCall(getSerial);
    failEachCall(getUserAgent);
    failEachCall(getAccount);
    failEachCall(getServer);
    failEachCall(getToken);
}

TEST_F(FaultTest, EachAllocationOfAReader_Fails) {
    failEachAllocation(getSerial);
    failEachAllocation(getUserAgent);
    failEachAllocation(getAccount);
    failEachAllocation(getServer);
    failEachAllocation(getToken);
}

TEST_F(FaultTest, FailedRead_WritesNothing) {
    for (const Reader& reader : kReaders) {
        const Injection injection(3);
        EXPECT_EQ(reader.read().error, ORBA_HOST_PROFILE_UNREADABLE) << reader.name;
        EXPECT_EQ(Injection::failed(), "read");
    }
}

// ---- tables and pseudonyms
// -------------------------------------------------------------------------

TEST(TableFault, EachAllocation_Fails) {
    const std::string longText(100, 'x');  // too long to be held without an allocation
    failEachAllocation([&] {
        KLIBCSzHash* table = KLIBCSzHashAlloc(0);
        if (table == nullptr) {
            return static_cast<int>(ORBA_HOST_OUT_OF_MEMORY);
        }
        const int status = KLIBCSzHashSetValue(&table, longText.c_str(), longText.c_str());
        KLIBCSzHashFree(table);
        return -status;
    });
}

TEST(PseudonymFault, FailedHmac_Fails) {
    const Injection injection(1);
    char* pseudonym = nullptr;
    EXPECT_NE(ORBAUDCPseudonymise(&pseudonym, "1", 1), 0);
    EXPECT_EQ(pseudonym, nullptr);
    EXPECT_THAT(Injection::calls(), ElementsAre("HMAC"));
}

// ---- removing the account
// --------------------------------------------------------------------------

class RemoveFaultTest : public FaultTest {
  protected:
    /** Whatever failed: the old profile with a status, or the new one without. */
    void expectOldOrNew(int number) const {
        EXPECT_THAT(profile_.folder().names(), ElementsAre("device.json"));
        if (number == ORBA_HOST_OK) {
            EXPECT_EQ(readAccountId().error, ORBA_HOST_MEMBER_MISSING);
        } else {
            EXPECT_EQ(profile_.content(), sampleProfile().toStyledString());
        }
        profile_.write(sampleProfile());
    }
};

struct RemoveCall {
    const char* name;
    OrbaHostError whenItFails;
};

constexpr RemoveCall kRemoveCalls[] = {
    {"open", ORBA_HOST_PROFILE_UNREADABLE},  // the profile
    {"fstat", ORBA_HOST_PROFILE_UNREADABLE},
    {"read", ORBA_HOST_PROFILE_UNREADABLE},
    {"read", ORBA_HOST_PROFILE_UNREADABLE},
    {"iconv_open", ORBA_HOST_OUT_OF_MEMORY},
    {"iconv_open", ORBA_HOST_OUT_OF_MEMORY},  // the new text
    {"realpath", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"mkostemp", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"stat", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"fstat", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"fchmod", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"write", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"fsync", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"open", ORBA_HOST_OK},  // the folder, which only makes the rename last
    {"rename", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"fsync", ORBA_HOST_OK},
};

TEST_F(RemoveFaultTest, NeedsTheseCalls) {
    std::vector<std::string> expected;
    for (const RemoveCall& call : kRemoveCalls) {
        expected.emplace_back(call.name);
    }
    const Injection injection(kMoreThanEnough);
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    EXPECT_EQ(Injection::calls(), expected);
}

TEST_F(RemoveFaultTest, EachCall_LeavesTheOldOrTheNewProfile) {
    int failing = 0;
    for (const RemoveCall& call : kRemoveCalls) {
        const std::size_t files = openFiles();
        int number = 0;
        {
            const Injection injection(++failing);
            number = -ORBATOVRAAccountRemove();
        }
        EXPECT_EQ(Injection::failed(), call.name);
        EXPECT_EQ(number, call.whenItFails) << call.name;
        EXPECT_EQ(openFiles(), files);
        expectOldOrNew(number);
    }
}

TEST_F(RemoveFaultTest, EachAllocation_LeavesTheOldOrTheNewProfile) {
    int failing = 1;
    for (bool failed = true; failed; ++failing) {
        int number = 0;
        {
            const AllocationInjection injection(failing);
            number = -ORBATOVRAAccountRemove();
        }
        failed = AllocationInjection::hasFailed();
        expectOldOrNew(number);
    }
    EXPECT_GT(failing, 10);
}

TEST_F(RemoveFaultTest, ProfileOfAnotherUser_StaysTheirs) {
    const faults::OtherOwner other;
    EXPECT_EQ(ORBATOVRAAccountRemove(), 0);
    EXPECT_EQ(faults::OtherOwner::chownedUser(), ::geteuid() + 1);
    EXPECT_EQ(faults::OtherOwner::chownedGroup(), ::getegid() + 1);
    expectOldOrNew(ORBA_HOST_OK);
}

TEST_F(RemoveFaultTest, ProfileThatCannotStayTheirs_StaysAsItIs) {
    const faults::OtherOwner other;
    const Injection injection(11);
    EXPECT_EQ(ORBATOVRAAccountRemove(), -ORBA_HOST_PROFILE_NOT_WRITABLE);
    EXPECT_EQ(Injection::failed(), "fchown");
    expectOldOrNew(ORBA_HOST_PROFILE_NOT_WRITABLE);
}

// ---- requests
// --------------------------------------------------------------------------------------

constexpr char kGranted[] = R"({"code": "success", "grant": "g"})";

class RequestFaultTest : public FaultTest {
  protected:
    RequestFaultTest() {
        KLIBCSzHash* table = table_.get();
        KLIBCSzHashSetValue(&table, "id", "a b");
        KLIBCSzHashSetValue(&table, "empty", "");
        body_.reserve(2 * 1024 * 1024);  // the test itself shall not allocate
        text_.reserve(1024);
    }

    /** @return The error number; `body_` is what the response held. */
    int send() {
        TovraHttpsRequestRecord request{};
        request.server = "host:1";
        request.path = "some/path";
        request.parameters = table_.get();
        TovraHttpsResponseRecord response{};
        const int status = ORBATOVRAHttpsRequestSend(&request, &response);
        hasBody_ = response.body != nullptr;
        body_.assign(hasBody_ ? response.body : "");
        ORBATOVRAHttpsResponseFree(&response);
        return -status;
    }

    /** @return The error number; `text_` is the grant or the exception's text. */
    int grant() {
        try {
            const std::string grant =
                orbatovra::AccountFleetLensService().Grant("c", "s", "r", "t");
            text_.assign(grant);
            return ORBA_HOST_OK;
        } catch (const orbatovra::TovraException& exception) {
            text_.assign(exception.what());
            return static_cast<int>(ORBATOVRAErrGet());
        } catch (const std::bad_alloc&) {
            return ORBA_HOST_OUT_OF_MEMORY;
        }
    }

    struct Free {
        void operator()(KLIBCSzHash* table) const { KLIBCSzHashFree(table); }
    };
    std::unique_ptr<KLIBCSzHash, Free> table_{KLIBCSzHashAlloc(0)};
    bool hasBody_ = false;
    std::string body_;
    std::string text_;
    FakeCurl& curl_ = FakeCurl::instance();
};

TEST_F(RequestFaultTest, Send_SetsTheseOptions) {
    EXPECT_EQ(send(), ORBA_HOST_OK);
    EXPECT_THAT(
        curl_.options,
        ElementsAre("CURLOPT_ERRORBUFFER=pointer", "CURLOPT_URL=https://host:1/some/path",
                    "CURLOPT_PROTOCOLS_STR=https", "CURLOPT_FOLLOWLOCATION=0", "CURLOPT_TIMEOUT=30",
                    "CURLOPT_NOSIGNAL=1", "CURLOPT_HTTPHEADER=null",
                    "CURLOPT_POSTFIELDSIZE_LARGE=21", "CURLOPT_POSTFIELDS=<empty>=<>&<id>=<a b>",
                    "CURLOPT_WRITEFUNCTION=function", "CURLOPT_WRITEDATA=pointer"));
    EXPECT_EQ(body_, "body");
}

TEST_F(RequestFaultTest, Grant_AuthorizesWithTheToken) {
    curl_.pieces = {kGranted};
    EXPECT_EQ(grant(), ORBA_HOST_OK);
    EXPECT_THAT(curl_.headers, ElementsAre("Authorization: Bearer token-1"));
    EXPECT_EQ(curl_.options[1],
              "CURLOPT_URL=https://account.localhost:8443/device/api/fleet_lens_grant");
    EXPECT_EQ(curl_.options[8],
              "CURLOPT_POSTFIELDS=<client_id>=<c>&<redirect_uri>=<r>&<scope>=<s>&<state>=<t>");
}

TEST_F(RequestFaultTest, EachCallOfSend_Fails) {
    failEachCall([this] {
        const int number = send();
        EXPECT_EQ(hasBody_, number == ORBA_HOST_OK);
        return number;
    });
}

TEST_F(RequestFaultTest, EachCallOfGrant_Fails) {
    curl_.pieces = {kGranted};
    failEachCall([this] { return grant(); });
}

TEST_F(RequestFaultTest, EachAllocationOfSend_Fails) {
    curl_.pieces = {std::string(100, 'x')};
    failEachAllocation([this] { return send(); });
}

TEST_F(RequestFaultTest, EachAllocationOfGrant_Fails) {
    curl_.pieces = {kGranted};
    failEachAllocation([this] { return grant(); });
}

TEST_F(RequestFaultTest, SetoptOutOfMemory_IsNamedSo) {
    curl_.setoptFailure = CURLE_OUT_OF_MEMORY;
    const Injection injection(2);
    EXPECT_EQ(send(), ORBA_HOST_OUT_OF_MEMORY);
    EXPECT_EQ(Injection::failed(), "curl_easy_setopt");
}

TEST_F(RequestFaultTest, EachTransferFailure_HasItsNumber) {
    const std::map<CURLcode, OrbaHostError> numbers = {
        {CURLE_URL_MALFORMAT, ORBA_HOST_INVALID_ARGUMENT},
        {CURLE_OUT_OF_MEMORY, ORBA_HOST_OUT_OF_MEMORY},
        {CURLE_COULDNT_RESOLVE_HOST, ORBA_HOST_REQUEST_NOT_RESOLVED},
        {CURLE_COULDNT_RESOLVE_PROXY, ORBA_HOST_REQUEST_NOT_RESOLVED},
        {CURLE_COULDNT_CONNECT, ORBA_HOST_REQUEST_NOT_CONNECTED},
        {CURLE_PEER_FAILED_VERIFICATION, ORBA_HOST_REQUEST_CERTIFICATE},
        {CURLE_SSL_CACERT_BADFILE, ORBA_HOST_REQUEST_CERTIFICATE},
        {CURLE_SSL_ISSUER_ERROR, ORBA_HOST_REQUEST_CERTIFICATE},
        {CURLE_OPERATION_TIMEDOUT, ORBA_HOST_REQUEST_TIMEOUT},
        {CURLE_SSL_CONNECT_ERROR, ORBA_HOST_REQUEST_TRANSPORT},
        {CURLE_GOT_NOTHING, ORBA_HOST_REQUEST_TRANSPORT},
        {CURLE_PARTIAL_FILE, ORBA_HOST_REQUEST_TRANSPORT},
        {CURLE_RECV_ERROR, ORBA_HOST_REQUEST_TRANSPORT},
    };
    for (const auto& [result, number] : numbers) {
        curl_.performResult = result;
        EXPECT_EQ(send(), number) << result;
        EXPECT_FALSE(hasBody_);
        EXPECT_EQ(grant(), number) << result;
        EXPECT_THAT(text_, HasSubstr("fleet_lens_grant: the fake's text"));
    }
}

TEST_F(RequestFaultTest, BodyInPieces_IsJoined) {
    curl_.pieces = {"one ", "", "two"};
    EXPECT_EQ(send(), ORBA_HOST_OK);
    EXPECT_EQ(body_, "one two");
}

TEST_F(RequestFaultTest, EmptyBody_IsNone) {
    curl_.pieces = {};
    EXPECT_EQ(send(), ORBA_HOST_OK);
    EXPECT_FALSE(hasBody_);
}

TEST_F(RequestFaultTest, BodyOfOneMebibyte_IsTaken_OneByteMoreIsNot) {
    curl_.pieces = {std::string(1024 * 1024 - 1, 'x'), "y"};
    EXPECT_EQ(send(), ORBA_HOST_OK);
    EXPECT_EQ(body_.size(), 1024U * 1024U);
    curl_.pieces.emplace_back("z");
    EXPECT_EQ(send(), ORBA_HOST_REPLY_TOO_LARGE);
    EXPECT_FALSE(hasBody_);
}

TEST_F(RequestFaultTest, StatusOutside200To299_Fails) {
    const std::map<long, OrbaHostError> numbers = {
        {0, ORBA_HOST_REPLY_STATUS},   {199, ORBA_HOST_REPLY_STATUS}, {200, ORBA_HOST_OK},
        {299, ORBA_HOST_OK},           {300, ORBA_HOST_REPLY_STATUS}, {302, ORBA_HOST_REPLY_STATUS},
        {404, ORBA_HOST_REPLY_STATUS}, {500, ORBA_HOST_REPLY_STATUS}};
    for (const auto& [status, number] : numbers) {
        curl_.status = status;
        EXPECT_EQ(send(), number) << status;
        EXPECT_EQ(hasBody_, number == ORBA_HOST_OK) << status;
    }
}

}  // namespace
