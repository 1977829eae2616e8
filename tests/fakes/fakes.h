// Stand-ins for what the library calls: libcurl, syslog, nanosleep, the allocators and the
// platform. They record every call in order and do what the test says; they decide nothing
// themselves.
#ifndef ORBA_TESTS_FAKES_H
#define ORBA_TESTS_FAKES_H

#include <curl/curl.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fakes {

// One line that went to syslog. `text` is the rendered line without "source:line ".
struct LogLine {
    int priority;
    std::string format;
    std::string source;
    int line;
    std::string text;
};

// What one curl_easy_perform() does: delivers the pieces to the write callback, then returns.
struct Transfer {
    CURLcode result = CURLE_OK;
    long status = 200;
    std::string body = "{}";  // one piece, unless `pieces` are given; empty: no call at all
    std::vector<std::string> pieces = {};
    std::optional<std::string> redirectUrl = {};
    std::size_t itemSize = 1;  // passed to the write callback; pieces are multiples of it
    std::string error = {};    // for CURLOPT_ERRORBUFFER
};

// What the handle held when a transfer was made.
struct Request {
    std::map<CURLoption, std::string> options;
    std::vector<std::string> headers;
};

// The device, as the platform libraries describe it.
struct Device {
    int userAgentResult = 0;
    std::string userAgent = "nas/1.0";
    unsigned int errorNumber = 0;
    int touchResult = 0;
    int serialResult = 0;
    std::string serial = "SERIAL000042";  // as in the buffer, without a NUL
    int accountResult = 0;
    int configResult = 0;
    std::string accountId = "account-1";
    std::string authKey = "key-1";
    std::string server = "account.test";
    bool tableFails = false;
    int sendResult = 0;
    std::optional<std::string> reply = R"({"code":"success","redirect_to":"https://auth.test/go"})";
    int removeResult = 0;
    int pseudonymResult = 0;
    std::optional<std::string> pseudonym = "pseudonym-1";
    std::function<std::string()> accessToken = [] { return std::string("pkce-token"); };
    std::function<std::string()> grant = [] { return std::string("grant-code"); };
};

// While one lives, the code under test is at work: its allocations are counted, and can be made to
// fail.
class UnderTest {
  public:
    explicit UnderTest(bool atWork = true);
    ~UnderTest();
    UnderTest(const UnderTest&) = delete;
    UnderTest& operator=(const UnderTest&) = delete;

    const bool before;  // whether it was at work when this began
};

bool isUnderTest();

// While one lives, it is not. Each stand-in begins with one.
class OwnWork {
  public:
    // Calls back into the code that called the stand-in.
    template <class Call>
    auto callBack(const Call& call) const {
        const UnderTest caller(pause.before);
        return call();
    }

  private:
    const UnderTest pause{false};
};

// Something that the code under test has to give back.
struct Held {
    std::string name;
    std::function<void()> letGo;
};

struct World {
    // --- what happened ---
    std::vector<std::string> calls;  // every call with its arguments, syslog lines included
    std::vector<LogLine> log;
    std::vector<Request> requests;  // one for each transfer
    // The form fields that went to the account service, in order.
    std::vector<std::pair<std::string, std::string>> loginFields;

    // --- what is to happen ---
    std::deque<Transfer> transfers;              // the last one is repeated
    std::map<CURLoption, CURLcode> optionFails;  // curl_easy_setopt() of this option
    CURLcode statusResult = CURLE_OK;            // curl_easy_getinfo(CURLINFO_RESPONSE_CODE)
    CURLcode redirectResult = CURLE_OK;          // curl_easy_getinfo(CURLINFO_REDIRECT_URL)
    bool escapeFails = false;
    bool unescapeFails = false;
    int interruptedPauses = 0;
    std::function<void()> onPause;  // decides nanosleep()'s result through errno, when set
    Device device;
    // Called before every call does its work; may throw, to try the handlers.
    std::function<void(const std::string& name)> onCall;
    // Makes the n-th call of that name fail in its own way: null, non-zero, an exception.
    // Allocations are "operator new", "malloc" and, where the tests are built without sanitizers,
    // "malloc of a library"; they are among the calls only if they fail.
    std::map<std::string, int> failAt;
    std::optional<std::size_t> failedCall;  // the index in `calls` of the one that failed so

    // --- what is held ---
    std::map<const void*, Held> held;  // handles, lists, texts, tables that are not released
    std::set<void*> buffers;           // blocks of realloc() that are not freed

    // What stat() adds to the owner of every file; fchown() then only notes the new owner.
    std::pair<uid_t, gid_t> otherOwner = {};
    std::pair<uid_t, gid_t> chowned = {};
    int interrupted = 0;               // so many calls of read() and write() are, by a signal
    std::size_t mostBytes = SIZE_MAX;  // that one read() or write() takes

    std::map<std::string, int> counts;
    std::set<std::string> fallible;  // the names among them that can be made to fail

    // Notes a call that cannot fail.
    void note(const std::string& name, const std::string& arguments);
    // Notes a call; returns whether the test wants this one to fail.
    bool enter(const std::string& name, const std::string& arguments);
    bool enterAllocation(const std::string& name);
    void hold(const void* what, const std::string& name, const std::function<void()>& letGo);
    void release(const void* what, const std::string& call = "release");

  private:
    std::map<const void*, std::string> released;
    bool isToFail(const std::string& name, int count);
};

// The one world of the running test.
World& world();
void reset();

// The names of what is held.
std::vector<std::string> heldNames();

// Releases what the code under test leaks by its contract.
void letGoOfWhatIsHeld();

// The calls whose names begin with one of the prefixes, in order.
std::vector<std::string> callsOf(const std::vector<std::string>& prefixes);

// The log as "priority source text" lines.
std::vector<std::string> logLines();

}  // namespace fakes

#endif
