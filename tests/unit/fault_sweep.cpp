#include "fault_sweep.h"

#include <json/json.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <optional>

namespace {

using namespace ORBA::OAuth2Client;
using fakes::world;
using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::IsSubsetOf;

const std::vector<std::string> kFallible = {"operator new",
                                            "malloc",
                                            "malloc of a library",
                                            "realloc",
                                            "nanosleep",
                                            "curl_easy_init",
                                            "curl_easy_setopt",
                                            "curl_easy_perform",
                                            "curl_easy_getinfo",
                                            "curl_easy_escape",
                                            "curl_easy_unescape",
                                            "curl_slist_append",
                                            "KLIBCFileTouch",
                                            "KLIBGetSerialNumber",
                                            "KLIBCSzHashAlloc",
                                            "KLIBCSzHashSetValue",
                                            "ORBATOVRAUserAgentNameGet",
                                            "ORBATOVRAAccountGet",
                                            "ORBATOVRAServerConfigGet",
                                            "ORBATOVRAHttpsRequestSend",
                                            "ORBATOVRAAccountRemove",
                                            "ORBAUDCPseudonymise",
                                            "AccountPkceService",
                                            "GetAccessToken",
                                            "AccountFleetLensService",
                                            "Grant"};
const std::vector<std::string> kInfallible = {"syslog",
                                              "free",
                                              "curl_easy_cleanup",
                                              "curl_free",
                                              "curl_slist_free_all",
                                              "KLIBCSzHashFree",
                                              "ORBATOVRAErrSet",
                                              "ORBATOVRAErrGet",
                                              "ORBATOVRAHttpsResponseFree",
                                              "~AccountPkceService",
                                              "~AccountFleetLensService"};

const std::vector<std::string> kJsoncppWithoutMemory = {
    "in Json::Value::duplicateStringValue(): Failed to allocate string value buffer",
    "in Json::Value::duplicateAndPrefixStringValue(): Failed to allocate string value buffer"};

bool begins(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

// The text between the parentheses, up to the first ", ".
std::string firstArgument(const std::string& call) {
    const std::size_t begin = call.find('(') + 1;
    return call.substr(begin, std::min(call.find(", ", begin), call.size() - 1) - begin);
}

std::string lastArgument(const std::string& call) {
    const std::size_t begin = call.find(", ") + 2;
    return call.substr(begin, call.size() - 1 - begin);
}

std::size_t find(const Calls& calls, const std::string& prefix, std::size_t from = 0) {
    const auto found = std::find_if(calls.begin() + static_cast<std::ptrdiff_t>(from), calls.end(),
                                    [&](const auto& call) { return begins(call, prefix); });
    return static_cast<std::size_t>(found - calls.begin());
}

const char* nameOf(const OAuth2ClientException& exception) {
    const std::type_info& type = typeid(exception);
    return type == typeid(HttpClientException)     ? "HttpClientException"
           : type == typeid(JsonException)         ? "JsonException"
           : type == typeid(CurlException)         ? "CurlException"
           : type == typeid(TovraException)        ? "TovraException"
           : type == typeid(OAuth2Exception)       ? "OAuth2Exception"
           : type == typeid(OAuth2ClientException) ? "OAuth2ClientException"
                                                   : "another";
}

std::string runOnce(const Operation& operation) {
    try {
        {
            const fakes::UnderTest atWork;
            operation.run();
        }
        return kSuccess + operation.result();
    } catch (const OAuth2ClientException& exception) {
        return outcome(nameOf(exception), exception.errCode(), exception.what());
    } catch (const std::bad_alloc&) {
        return kNoMemory;
    } catch (const Json::RuntimeError&) {
        return "Json::RuntimeError";
    } catch (const std::exception& exception) {
        return std::string("foreign: ") + exception.what();
    }
}

// What the code under test sees begins here: the test's own preparations do not count.
void prepare(const Operation& operation) {
    fakes::reset();
    errCode2Str(0);  // the table is there; its own sweep is about building it
    operation.world();
    world().calls.clear();
    world().log.clear();
    world().counts.clear();
}

void tidyUp(const Operation& operation, bool mayLeave) {
    operation.tidy();
    EXPECT_THAT(fakes::heldNames(),
                IsSubsetOf(mayLeave ? operation.leftBehind : std::set<std::string>()));
    EXPECT_THAT(world().buffers, IsEmpty());
    fakes::letGoOfWhatIsHeld();
}

// A sweep that does not see the allocations would pass without having tried anything.
bool seesAllocations() {
    fakes::reset();
    const int ofNew = world().counts["operator new"];
    const int ofLibraries = world().counts["malloc of a library"];
    {
        const fakes::UnderTest atWork;
        ::operator delete(::operator new(1));
        std::free(strdup(__FILE__));
    }
#ifdef ORBA_SANITIZED
    const int seen = 0;
#else
    const int seen = 1;
#endif
    return world().counts["operator new"] == ofNew + 1 &&
           world().counts["malloc of a library"] == ofLibraries + seen;
}

// Returns the calls.
Calls runWithoutFault(const Operation& operation) {
    prepare(operation);
    EXPECT_EQ(operation.outcome, runOnce(operation));
    const Calls calls = world().calls;
    for (const auto& [name, count] : world().counts) {
        EXPECT_THAT(kFallible + kInfallible, Contains(name));
    }
    tidyUp(operation, false);
    return calls;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t found = text.find(from);
    return found == std::string::npos ? text : text.replace(found, from.size(), to);
}

// A library without memory reports it in its own way, or does with what it has: jsoncpp throws its
// own exception, and the C++ library throws ours from a reserve.
Outcomes withoutLibraryMemory(const Operation& operation, const Fault& fault) {
    Outcomes possible = operation.withoutLibraryMemory;
    possible.insert(operation.outcome);
    for (const std::string& got :
         operation.outcomes({"operator new()", fault.position, fault.calls})) {
        possible.insert(got);
        for (const std::string& text : kJsoncppWithoutMemory) {
            possible.insert(got == kNoMemory ? "Json::RuntimeError"
                                             : replaced(got, kNoMemory, text));
        }
    }
    return possible;
}

Outcomes outcomesOf(const Operation& operation, const Fault& fault) {
    return fault.call == "malloc of a library()" ? withoutLibraryMemory(operation, fault)
                                                 : operation.outcomes(fault);
}

// Returns whether the operation met the fault.
bool runWithFault(const Operation& operation, const Calls& calls, const std::string& kind, int n) {
    prepare(operation);
    world().failAt[kind] = n;
    const std::string got = runOnce(operation);
    const bool met = world().failedCall.has_value();
    if (met) {
        const std::size_t position = *world().failedCall;
        const Fault fault = {world().calls[position], position, calls};
        EXPECT_THAT(outcomesOf(operation, fault), Contains(got)) << "at " << fault.call;
        operation.afterFault(got);
    }
    tidyUp(operation, met);
    return met;
}

}  // namespace

std::string outcome(const std::string& type, int code, const std::string& text) {
    return type + " " + std::to_string(code) + " " + text;
}

bool Fault::isAllocation() const { return call == "operator new()" || call == "malloc()"; }

void FaultSweep::sweep(const Operation& operation) {
    ASSERT_FALSE(HasFailure());
    ASSERT_TRUE(seesAllocations()) << "another allocator is in use; valgrind leaves ours with "
                                      "--soname-synonyms=somalloc=nouserintercepts";
    SCOPED_TRACE(operation.name);
    const Calls calls = runWithoutFault(operation);
    int faults = 0;
    std::string kinds;
    for (const std::string& kind : kFallible) {
        int n = 1;
        for (; runWithFault(operation, calls, kind, n) && !HasFailure(); ++n) {
            SCOPED_TRACE("behind " + kind + " " + std::to_string(n));
            EXPECT_EQ(calls, runWithoutFault(operation));
            ++faults;
        }
        kinds += n == 1 ? "" : ", " + kind + " " + std::to_string(n - 1);
        ASSERT_FALSE(HasFailure()) << "at " << kind << " " << n;
    }
    std::cout << "[  SWEEP   ] " << operation.name << ": " << faults << " faults" << kinds << "\n";
    EXPECT_GT(faults, 0);
    EXPECT_GE(faults, operation.floor);
}

std::optional<Inner> innerFailure(const Fault& fault) {
    const std::string& call = fault.call;
    if (begins(call, "curl_easy_init")) {
        const bool ofRequest = begins(fault.calls.at(fault.position + 1), "curl_easy_setopt");
        return Inner{"CurlException", 23,
                     ofRequest ? "Failed to init curl." : "Error: Failed to init curl."};
    }
    if (begins(call, "curl_easy_setopt(CURLOPT_SSLVERSION")) {
        return Inner{"CurlException", 25,
                     "Failed to set curl CURL_SSLVERSION_TLSv1: curl return: 27"};
    }
    if (begins(call, "curl_easy_setopt") && !begins(call, "curl_easy_setopt(CURLOPT_IPRESOLVE")) {
        return Inner{"CurlException", 25,
                     "Failed to set curl " + firstArgument(call) + ": curl return: 27"};
    }
    if (begins(call, "KLIBCFileTouch")) {
        return Inner{"CurlException", 24, "Invalid cookie file path: " + firstArgument(call)};
    }
    static const std::map<std::string, Inner> others = {
        {"curl_easy_getinfo(CURLINFO_RESPONSE_CODE)",
         {"CurlException", 27, "Failed to get curl response code: curl return: 27"}},
        {"curl_easy_escape", {"CurlException", 30, "Failed to do curl_easy_escape for string"}},
        {"curl_easy_unescape", {"CurlException", 30, "Failed to do curl_easy_unescape for string"}},
        {"ORBATOVRAUserAgentNameGet", {"TovraException", 18, "Failed to get Orbalon usergent"}},
        {"ORBATOVRAAccountGet", {"TovraException", 19, "Failed to get Tovra account conf."}},
        {"ORBATOVRAServerConfigGet", {"TovraException", 20, "Failed to get Tovra server config."}},
        {"KLIBGetSerialNumber", {"OAuth2ClientException", 10, "Failed to get serial number."}},
        {"KLIBCSzHashAlloc", {"OAuth2ClientException", 11, "Failed to alloc Query hash."}},
        {"ORBATOVRAHttpsRequestSend", {"TovraException", 21, "Failed to send https request."}},
    };
    for (const auto& [prefix, inner] : others) {
        if (begins(call, prefix)) {
            return inner;
        }
    }
    return std::nullopt;
}

Outcomes plainOutcomes(const Fault& fault, const std::string& withoutFault) {
    if (fault.isAllocation()) {
        return {kNoMemory};
    }
    const std::optional<Inner> inner = innerFailure(fault);
    return {inner ? outcome(inner->type, inner->code, inner->text) : withoutFault};
}

Outcomes wrappedAllocation(const Fault& fault, const Wrapping& wrapping, const OwnFailure& own) {
    const auto& [type, frame, begin, cleanUp, foreignCode] = wrapping;
    if (fault.position < begin || fault.position > cleanUp) {
        return {kNoMemory};
    }
    Outcomes possible = {outcome(type, foreignCode, frame + "Exception: std::bad_alloc")};
    if (own.foreign) {
        possible.insert(outcome(type, own.code, frame + "Exception: "));
    } else if (own.code != 0 && fault.position > find(fault.calls, "syslog(7 " + own.text)) {
        possible.insert(outcome(type, own.code, frame));
    }
    return possible;
}

std::optional<RequestSpan> requestAt(const Fault& fault) {
    const Calls& calls = fault.calls;
    const std::string url = "curl_easy_setopt(CURLOPT_URL";
    for (std::size_t at = find(calls, url); at < calls.size(); at = find(calls, url, at + 1)) {
        std::size_t begin = at - 1;
        const bool isPost = begin >= 2 && begins(calls[begin - 1], "syslog(7 add header charset");
        begin -= isPost ? 2 : 0;
        const std::size_t cleanUp = find(calls, "curl_easy_cleanup", at);
        // The steps of a GET do not allocate before their first call.
        const bool before =
            fault.position < begin || (fault.isAllocation() && !isPost && fault.position == begin);
        if (!before && fault.position <= cleanUp) {
            return RequestSpan{begin, cleanUp, lastArgument(calls[at])};
        }
    }
    return std::nullopt;
}

std::string requestFrame(const std::string& url) {
    return "Failed to do HTTP Get request to [" + url + "] due to: ";
}

std::string noTargetText(const std::string& url, long status, int result) {
    const std::string number = std::to_string(result);
    return "Failed to get curl redirection url. URL [" + url +
           "] replied http status code = " + std::to_string(status) + ",curl returned: " + number +
           ": curl return: " + number;
}

Outcomes requestOutcomes(const Fault& fault, const RequestSpan& request,
                         const std::string& withoutFault, const OwnFailure& own,
                         long redirectStatus) {
    const std::string type = "HttpClientException";
    const std::string frame = requestFrame(request.url);
    if (fault.isAllocation()) {
        return wrappedAllocation(fault, {type, frame, request.begin, request.cleanUp}, own);
    }
    if (begins(fault.call, "curl_easy_getinfo(CURLINFO_REDIRECT_URL")) {
        return {outcome(type, 28, frame + noTargetText(request.url, redirectStatus, 27))};
    }
    const std::optional<Inner> inner = innerFailure(fault);
    return {inner ? outcome(type, inner->code, frame + inner->text) : withoutFault};
}
