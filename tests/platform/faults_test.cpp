// Every call that the host edition makes to the system and to libcurl fails once, and so does every
// allocation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <klib/klib.h>
#include <malloc.h>
#include <orba_host_errors.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>
#include <orbaudc/orbaudc.h>

#include <iterator>
#include <map>
#include <memory>
#include <string>

#include "support/host_profile.h"
#include "support/readers.h"
#include "sweep.h"

namespace {

using fakes::world;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

std::ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

using Numbers = std::set<int>;

// Without memory jsoncpp throws what it throws for a malformed text, too; the C library sets errno.
const Numbers kWithoutLibraryMemory = {ORBA_HOST_OK, ORBA_HOST_OUT_OF_MEMORY,
                                       ORBA_HOST_PROFILE_MALFORMED, ORBA_HOST_PROFILE_NOT_WRITABLE,
                                       ORBA_HOST_REPLY_REFUSED};

const std::map<std::string, OrbaHostError> kNumberOf = {
    {"open", ORBA_HOST_PROFILE_UNREADABLE},
    {"fstat", ORBA_HOST_PROFILE_UNREADABLE},
    {"read", ORBA_HOST_PROFILE_UNREADABLE},
    {"curl_easy_init", ORBA_HOST_OUT_OF_MEMORY},
    {"curl_easy_escape", ORBA_HOST_OUT_OF_MEMORY},
    {"curl_slist_append", ORBA_HOST_OUT_OF_MEMORY},
    {"curl_easy_setopt", ORBA_HOST_OUT_OF_MEMORY},
    {"curl_easy_perform", ORBA_HOST_REQUEST_NOT_CONNECTED},
    {"curl_easy_getinfo", ORBA_HOST_OUT_OF_MEMORY},
    {"operator new", ORBA_HOST_OUT_OF_MEMORY},
};

std::string nameOf(const std::string& call) { return call.substr(0, call.find('(')); }

class HostFaults : public FaultSweep {
  protected:
    // Sweeps an operation that returns its error number.
    void sweepNumber(
        const std::string& name, const std::function<int()>& run,
        const std::function<Numbers(const Fault&)>& numbersOf =
            [](const Fault& fault) { return Numbers{kNumberOf.at(nameOf(fault.call))}; },
        const std::function<void()>& situation = [] {}) {
        int number = 0;
        std::ptrdiff_t files = 0;
        sweep({name, 1,
               [&] {
                   world().transfers = {{CURLE_OK, 200, reply, {}, {}}};
                   situation();
                   files = openFiles();
               },
               [&] { number = run(); },
               [&](const Fault& fault) {
                   Outcomes possible;
                   for (const int one :
                        fault.isInLibrary() ? kWithoutLibraryMemory : numbersOf(fault)) {
                       possible.insert(kSuccess + std::to_string(one));
                   }
                   return possible;
               },
               kSuccess + "0",
               [&] {
                   EXPECT_EQ(files, openFiles());
                   return std::to_string(number);
               },
               [] {}, [this, &number](const std::string&) { afterFault(number); }});
    }
    virtual void afterFault(int /*number*/) {}

    HostProfile profile;
    std::string reply = "body";

  private:
    std::string thrown() const override { return "an exception leaves"; }
};

// --- reading the profile ---

int serial() {
    char text[36];
    return -KLIBGetSerialNumber(text, sizeof(text));
}

int userAgent() {
    char name[256];
    return -ORBATOVRAUserAgentNameGet(name, sizeof(name));
}

int account() {
    TovraAccountRecord record;
    return -ORBATOVRAAccountGet(&record);
}

int server() {
    TovraServerConfigRecord record;
    return -ORBATOVRAServerConfigGet(&record);
}

// The number of what leaves a service.
int numberOfService(const std::function<void()>& use) {
    try {
        use();
        return ORBA_HOST_OK;
    } catch (const orbatovra::TovraException&) {
        return static_cast<int>(ORBATOVRAErrGet());
    } catch (const std::exception&) {  // std::bad_alloc, or jsoncpp's for the same
        return ORBA_HOST_OUT_OF_MEMORY;
    }
}

int token() {
    return numberOfService([] { orbatovra::AccountPkceService().GetAccessToken(); });
}

TEST_F(HostFaults, Readers) {
    sweepNumber("KLIBGetSerialNumber", serial);
    sweepNumber("ORBATOVRAUserAgentNameGet", userAgent);
    sweepNumber("ORBATOVRAAccountGet", account);
    sweepNumber("ORBATOVRAServerConfigGet", server);
    sweepNumber("GetAccessToken", token);
}

TEST_F(HostFaults, ReadingTheProfile_NeedsTheseCalls) {
    const fakes::UnderTest atWork;
    EXPECT_EQ(0, serial());
    EXPECT_THAT(world().calls, ElementsAre("open(cloexec)", "fstat()", "read()", "read()"));
}

TEST_F(HostFaults, TouchingAFile_LeavesNothingToChildren) {
    const fakes::UnderTest atWork;
    EXPECT_EQ(0, KLIBCFileTouch("/dev/null"));
    EXPECT_THAT(world().calls, ElementsAre("open(cloexec)"));
}

TEST_F(HostFaults, FailedRead_WritesNothing) {
    for (const Reader& reader : kReaders) {
        fakes::reset();
        world().failAt["read"] = 1;
        const fakes::UnderTest atWork;
        EXPECT_EQ(ORBA_HOST_PROFILE_UNREADABLE, reader.read().error) << reader.name;
    }
}

TEST_F(HostFaults, FailedRead_SaysWhy) {
    world().failAt["read"] = 1;
    const fakes::UnderTest atWork;
    EXPECT_EQ("no PKCE access token: device profile " + profile.path() + ": Input/output error",
              readAccessToken().text);
}

// --- tables and pseudonyms ---

TEST_F(HostFaults, Table) {
    const std::string longText(100, 'x');  // too long to be held without an allocation
    sweepNumber("a table", [&] {
        KLIBCSzHash* table = KLIBCSzHashAlloc(0);
        if (table == nullptr) {
            return int{ORBA_HOST_OUT_OF_MEMORY};
        }
        const int status = KLIBCSzHashSetValue(&table, longText.c_str(), longText.c_str());
        KLIBCSzHashFree(table);
        return -status;
    });
}

TEST_F(HostFaults, FailedHmac_GivesNoPseudonym) {
    world().failAt["HMAC"] = 1;
    const fakes::UnderTest atWork;
    char* pseudonym = nullptr;
    EXPECT_NE(0, ORBAUDCPseudonymise(&pseudonym, "1", 1));
    EXPECT_EQ(nullptr, pseudonym);
    EXPECT_THAT(world().calls, ElementsAre("HMAC()"));
}

// --- removing the account ---

struct RemoveCall {
    const char* call;
    OrbaHostError whenItFails;
};

constexpr RemoveCall kRemoveCalls[] = {
    {"open(cloexec)", ORBA_HOST_PROFILE_UNREADABLE},  // the profile
    {"fstat()", ORBA_HOST_PROFILE_UNREADABLE},
    {"read()", ORBA_HOST_PROFILE_UNREADABLE},
    {"read()", ORBA_HOST_PROFILE_UNREADABLE},
    {"realpath()", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"mkostemp(cloexec)", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"stat()", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"fstat()", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"fchmod()", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"write()", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"fsync()", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"open(cloexec)", ORBA_HOST_OK},  // the folder, which only makes the rename last
    {"rename()", ORBA_HOST_PROFILE_NOT_WRITABLE},
    {"fsync()", ORBA_HOST_OK},
};

class RemoveFaults : public HostFaults {
  protected:
    // Whatever failed: the old profile with a status, or the new one without.
    void afterFault(int number) override {
        EXPECT_THAT(profile.folder().names(), ElementsAre("device.json"));
        if (number == ORBA_HOST_OK) {
            EXPECT_EQ(ORBA_HOST_MEMBER_MISSING, readAccountId().error);
        } else {
            EXPECT_EQ(sampleProfile().toStyledString(), profile.content());
        }
    }
    static int remove() { return -ORBATOVRAAccountRemove(); }
};

TEST_F(RemoveFaults, EachCall_LeavesTheOldOrTheNewProfile) {
    // A stream that lacks memory cuts the new text, which is read before it is written.
    const auto numbersOf = [](const Fault& fault) {
        return fault.isAllocation() ? Numbers{ORBA_HOST_OUT_OF_MEMORY, ORBA_HOST_PROFILE_MALFORMED}
                                    : Numbers{kRemoveCalls[fault.position].whenItFails};
    };
    sweepNumber("ORBATOVRAAccountRemove", remove, numbersOf,
                [this] { profile.write(sampleProfile()); });
}

TEST_F(RemoveFaults, NeedsTheseCalls) {
    Calls expected;
    for (const RemoveCall& call : kRemoveCalls) {
        expected.emplace_back(call.call);
    }
    const fakes::UnderTest atWork;
    EXPECT_EQ(0, remove());
    EXPECT_THAT(world().calls, ElementsAreArray(expected));
}

TEST_F(RemoveFaults, NewProfile_IsMadeInTheFolderOfTheOldOne) {
    std::set<std::string> names;
    std::ptrdiff_t opened = -openFiles();
    world().onCall = [&](const std::string& name) {
        if (name == "rename") {
            const fakes::OwnWork own;
            names = profile.folder().names();
            opened += openFiles();
        }
    };
    {
        const fakes::UnderTest atWork;
        EXPECT_EQ(0, remove());
    }
    EXPECT_THAT(names, ElementsAre(::testing::StartsWith(".orba-host-"), "device.json"));
    EXPECT_EQ(2, opened) << "the new file and its folder";
}

TEST_F(RemoveFaults, ProfileOfAnotherUser_StaysTheirs) {
    for (const auto& [user, group] : {std::pair(1U, 1U), std::pair(1U, 0U), std::pair(0U, 1U)}) {
        profile.write(sampleProfile());
        world().otherOwner = {user, group};
        {
            const fakes::UnderTest atWork;
            EXPECT_EQ(0, remove());
        }
        EXPECT_EQ(std::make_pair(::geteuid() + user, ::getegid() + group), world().chowned);
        afterFault(ORBA_HOST_OK);
    }
}

TEST_F(RemoveFaults, InterruptedAndShortReadsAndWrites_AreContinued) {
    for (const std::size_t mostBytes : {1U, 100U}) {
        profile.write(sampleProfile());
        world().interrupted = 2;
        world().mostBytes = mostBytes;
        world().onCall = [](const std::string& name) {
            world().interrupted = name == "fchmod" ? 1 : world().interrupted;  // the first write()
        };
        {
            const fakes::UnderTest atWork;
            EXPECT_EQ(0, remove());
            world().interrupted = 1;
            EXPECT_EQ(0, serial());
        }
        afterFault(ORBA_HOST_OK);
    }
}

TEST_F(RemoveFaults, ProfileThatCannotStayTheirs_StaysAsItIs) {
    world().otherOwner = {1, 1};
    world().failAt["fchown"] = 1;
    {
        const fakes::UnderTest atWork;
        EXPECT_EQ(ORBA_HOST_PROFILE_NOT_WRITABLE, remove());
    }
    afterFault(ORBA_HOST_PROFILE_NOT_WRITABLE);
}

// --- requests ---

const std::string kNoGrant =
    "no grant: https://account.localhost:8443/device/api/fleet_lens_grant: ";
constexpr char kGranted[] = R"({"code": "success", "grant": "g"})";

class RequestFaults : public HostFaults {
  protected:
    void SetUp() override {
        HostFaults::SetUp();
        table.reset(KLIBCSzHashAlloc(0));
        KLIBCSzHash* filled = table.get();
        KLIBCSzHashSetValue(&filled, "id", "a b");
        KLIBCSzHashSetValue(&filled, "empty", "");
    }

    // Returns the error number; `body` is what the response held, null for none.
    int send() {
        TovraHttpsRequestRecord request{};
        request.server = "my~host:1";
        request.path = "some/path";
        request.parameters = table.get();
        TovraHttpsResponseRecord response{};
        const int status = ORBATOVRAHttpsRequestSend(&request, &response);
        {
            const fakes::OwnWork own;
            body.reset();
            if (response.body != nullptr) {
                room = ::malloc_usable_size(response.body);
                body = response.body;
            }
        }
        ORBATOVRAHttpsResponseFree(&response);
        EXPECT_EQ(nullptr, response.body);
        return -status;
    }

    // Returns the error number; `text` is the grant or the exception's text.
    int grant() {
        return numberOfService([this] {
            try {
                text = orbatovra::AccountFleetLensService().Grant("c", "s", "r", "t");
            } catch (const orbatovra::TovraException& exception) {
                const fakes::OwnWork own;
                text = exception.what();
                throw;
            }
        });
    }
    void answer(const fakes::Transfer& transfer) { world().transfers = {transfer}; }

    struct Free {
        void operator()(KLIBCSzHash* filled) const { KLIBCSzHashFree(filled); }
    };
    std::unique_ptr<KLIBCSzHash, Free> table;
    std::optional<std::string> body;
    std::size_t room = 0;  // of the allocated body
    std::string text;
};

TEST_F(RequestFaults, Send_SetsTheseOptions) {
    answer({CURLE_OK, 200, "body", {}, {}});
    EXPECT_EQ(ORBA_HOST_OK, send());
    EXPECT_THAT(fakes::callsOf({"curl_easy_setopt"}),
                ElementsAre("curl_easy_setopt(CURLOPT_ERRORBUFFER, buffer)",
                            "curl_easy_setopt(CURLOPT_URL, https://my~host:1/some/path)",
                            "curl_easy_setopt(CURLOPT_PROTOCOLS_STR, https)",
                            "curl_easy_setopt(CURLOPT_FOLLOWLOCATION, 0)",
                            "curl_easy_setopt(CURLOPT_TIMEOUT, 30)",
                            "curl_easy_setopt(CURLOPT_NOSIGNAL, 1)",
                            "curl_easy_setopt(CURLOPT_HTTPHEADER, )",
                            "curl_easy_setopt(CURLOPT_POSTFIELDSIZE_LARGE, 15)",
                            "curl_easy_setopt(CURLOPT_POSTFIELDS, empty=&id=a%20b)",
                            "curl_easy_setopt(CURLOPT_WRITEFUNCTION, callback)",
                            "curl_easy_setopt(CURLOPT_WRITEDATA, data)"));
    EXPECT_EQ("body", body);
}

TEST_F(RequestFaults, Grant_AuthorizesWithTheToken) {
    answer({CURLE_OK, 200, kGranted, {}, {}});
    EXPECT_EQ(ORBA_HOST_OK, grant());
    EXPECT_EQ("g", text);
    const fakes::Request& request = world().requests.at(0);
    EXPECT_THAT(request.headers, ElementsAre("Authorization: Bearer token-1"));
    EXPECT_EQ("https://account.localhost:8443/device/api/fleet_lens_grant",
              request.options.at(CURLOPT_URL));
    EXPECT_EQ("client_id=c&redirect_uri=r&scope=s&state=t", request.options.at(CURLOPT_POSTFIELDS));
}

TEST_F(RequestFaults, ReplyWithoutGrant_IsRefusedWithItsCode) {
    const auto expectRefusal = [this](OrbaHostError number, long status, const std::string& sent,
                                      const std::string& cause) {
        answer({CURLE_OK, status, sent, {}, {}});
        EXPECT_EQ(number, grant()) << sent;
        EXPECT_EQ(kNoGrant + "HTTP status " + std::to_string(status) + ", " + cause, text);
    };
    const std::string granted = "\"code\" is \"success\"";
    const std::string longest(100, 'x');
    expectRefusal(ORBA_HOST_REPLY_STATUS, 404, "<html>", "the reply is no JSON object");
    expectRefusal(ORBA_HOST_REPLY_STATUS, 500, kGranted, granted);
    expectRefusal(ORBA_HOST_REPLY_REFUSED, 200, "[]", "the reply is no JSON object");
    for (const std::string none : {"{}", R"({"code": 7})", R"({"code": null})"}) {
        expectRefusal(ORBA_HOST_REPLY_REFUSED, 200, none, "the reply has no \"code\"");
    }
    expectRefusal(ORBA_HOST_REPLY_REFUSED, 200, R"({"code": "ab\"c", "grant": "g"})",
                  R"("code" is "ab\"c")");
    expectRefusal(ORBA_HOST_REPLY_REFUSED, 200, "{\"code\": \"" + longest + "y\"}",
                  "\"code\" is \"" + longest + "\"");
    for (const std::string grants :
         {"", R"(, "grant": "")", R"(, "grant": 7)", R"(, "grant": null)"}) {
        expectRefusal(ORBA_HOST_REPLY_REFUSED, 200, "{\"code\": \"success\"" + grants + "}",
                      granted + ", but there is no \"grant\"");
    }
}

TEST_F(RequestFaults, EachCall_Fails) {
    reply = std::string(100, 'x');
    sweepNumber("ORBATOVRAHttpsRequestSend", [this] {
        const int number = send();
        EXPECT_EQ(number == ORBA_HOST_OK, body.has_value());
        return number;
    });
    reply = kGranted;
    sweepNumber("Grant", [this] { return grant(); });
}

TEST_F(RequestFaults, RefusedOption_HasItsNumber) {
    world().optionFails[CURLOPT_URL] = CURLE_BAD_FUNCTION_ARGUMENT;
    EXPECT_EQ(ORBA_HOST_REQUEST_TRANSPORT, send());
}

TEST_F(RequestFaults, EachTransferFailure_HasItsNumber) {
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
        answer({result, 0, "body", {}, {}});
        EXPECT_EQ(number, send()) << result;
        EXPECT_EQ(std::nullopt, body);
        EXPECT_EQ(number, grant()) << result;
        EXPECT_EQ(kNoGrant + "the stand-in's text", text);
    }
    answer({CURLE_GOT_NOTHING, 0, "", {}, {}, 1, "x"});
    grant();
    EXPECT_EQ(kNoGrant + "x", text);
}

TEST_F(RequestFaults, BodyInPieces_IsJoined) {
    answer({CURLE_OK, 200, "", {"one ", "", "two"}, {}});
    EXPECT_EQ(ORBA_HOST_OK, send());
    EXPECT_EQ("one two", body);
}

// 24 bytes fill a block of the C library's.
TEST_F(RequestFaults, Body_HasRoomForItsEnd) {
    answer({CURLE_OK, 200, std::string(24, 'x'), {}, {}});
    EXPECT_EQ(ORBA_HOST_OK, send());
    EXPECT_GT(room, 24U);
}

TEST_F(RequestFaults, Body_EndsAtANul) {
    answer({CURLE_OK, 200, std::string("a\0b", 3), {}, {}});
    EXPECT_EQ(ORBA_HOST_OK, send());
    EXPECT_EQ("a", body);
}

TEST_F(RequestFaults, EmptyBody_IsNone) {
    answer({CURLE_OK, 200, "", {}, {}});
    EXPECT_EQ(ORBA_HOST_OK, send());
    EXPECT_EQ(std::nullopt, body);
}

TEST_F(RequestFaults, BodyOfOneMebibyte_IsTaken_OneByteMoreIsNot) {
    const std::string almost(1024 * 1024 - 1, 'x');
    answer({CURLE_OK, 200, "", {almost, "y"}, {}});
    EXPECT_EQ(ORBA_HOST_OK, send());
    EXPECT_EQ(almost + "y", body);
    for (const std::string last : {"z", "zz"}) {  // a part of which is not taken either
        answer({CURLE_OK, 200, "", {almost, "y", last}, {}});
        EXPECT_EQ(ORBA_HOST_REPLY_TOO_LARGE, send());
        EXPECT_EQ(std::nullopt, body);
    }
    EXPECT_EQ(ORBA_HOST_REPLY_TOO_LARGE, grant());
    EXPECT_EQ(kNoGrant + "the reply is larger than 1 MiB, or than the free memory", text);
}

TEST_F(RequestFaults, StatusOutside200To299_Fails) {
    const std::map<long, OrbaHostError> numbers = {
        {0, ORBA_HOST_REPLY_STATUS},   {199, ORBA_HOST_REPLY_STATUS}, {200, ORBA_HOST_OK},
        {299, ORBA_HOST_OK},           {300, ORBA_HOST_REPLY_STATUS}, {302, ORBA_HOST_REPLY_STATUS},
        {404, ORBA_HOST_REPLY_STATUS}, {500, ORBA_HOST_REPLY_STATUS}};
    for (const auto& [status, number] : numbers) {
        answer({CURLE_OK, status, "body", {}, {}});
        EXPECT_EQ(number, send()) << status;
        EXPECT_EQ(number == ORBA_HOST_OK, body.has_value()) << status;
    }
}

}  // namespace
