#include "stand_ins.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <orbatovra/orbatovra.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/oauth2.h"

#pragma GCC diagnostic ignored "-Wvarargs"
#undef curl_easy_setopt
#undef curl_easy_getinfo

using fakes::OwnWork;
using fakes::world;
using outside::Answer;
using outside::Outside;
using outside::Request;

namespace outside {

Outside& get() {
    static Outside& theOutside = *new Outside;  // files are used until the process ends
    return theOutside;
}

std::string parameterOf(const std::string& text, const std::string& name) {
    const std::string search = "&" + text.substr(text.find('?') + 1);
    const std::size_t begin = search.find("&" + name + "=");
    if (begin == std::string::npos) {
        return "";
    }
    const std::size_t value = begin + name.size() + 2;
    return search.substr(value, search.find('&', value) - value);
}

std::string Outside::tokens() {
    const std::string number = std::to_string(++issued);
    refreshTokens.insert("rt-" + number);
    return R"({"access_token":"at-)" + number + R"(","token_type":"Bearer","refresh_token":"rt-)" +
           number + R"(","expires_in":)" + std::to_string(lifetime) + "}";
}

Answer Outside::answer(const Request& request) {
    const std::string& url = request.url;
    if (url.rfind("https://auth.test/auth?", 0) == 0) {
        state = parameterOf(url, "state");
        return {302, "", "https://auth.test/login?login_challenge=c%2B1"};
    }
    if (url == "https://auth.test/continue") {
        const std::string code = "code-" + std::to_string(++issued);
        codes.insert(code);
        return {302, "", "https://app.test/cb?code=" + code + "&state=" + state};
    }
    if (url == "https://auth.test/revoke") {
        return {200, "", ""};
    }
    const bool refresh = parameterOf(request.form, "grant_type") == "refresh_token";
    const bool known = refresh ? refreshTokens.erase(parameterOf(request.form, "refresh_token")) > 0
                               : codes.erase(parameterOf(request.form, "code")) > 0;
    return known ? Answer{200, tokens()} : Answer{400, R"({"error":"invalid_grant"})"};
}

}  // namespace outside

// ---- libcurl
// -------------------------------------------------------------------------------------

namespace {

struct Easy {
    Request request;
    curl_write_callback onBody = nullptr;
    curl_write_callback onHeader = nullptr;
    void* body = nullptr;
    void* header = nullptr;
    Answer answer;
};

struct Multi {
    Easy* easy = nullptr;
    bool hangs = false;
    CURLMsg message = {};
};

Easy& easyOf(void* curl) { return *static_cast<Easy*>(curl); }
Multi& multiOf(void* multi) { return *static_cast<Multi*>(multi); }

CURLcode deliver(Easy& easy, const OwnWork& own) {
    const Answer& answer = easy.answer;
    std::vector<std::string> lines = {"HTTP/1.1 " + std::to_string(answer.status) + " X\r\n"};
    for (const std::string& line : answer.headers) {
        lines.push_back(line + "\r\n");
    }
    if (!answer.headersEnd.empty()) {
        lines.push_back(answer.headersEnd);
    }
    const auto give = [&](curl_write_callback take, std::string& piece, void* data) {
        // libcurl is C: an exception ends the process.
        return own.callBack([&]() noexcept { return take(piece.data(), 1, piece.size(), data); }) ==
               piece.size();
    };
    for (std::string& line : lines) {
        if (!give(easy.onHeader, line, easy.header)) {
            return CURLE_WRITE_ERROR;
        }
    }
    std::string rest = answer.body;
    while (!rest.empty()) {
        std::string piece = rest.substr(0, (answer.body.size() + 1) / 2);
        rest.erase(0, piece.size());
        if (!give(easy.onBody, piece, easy.body)) {
            return CURLE_WRITE_ERROR;
        }
    }
    return answer.result;
}

}  // namespace

extern "C" {

CURL* curl_easy_init(void) {
    const OwnWork own;
    if (world().enter("curl_easy_init", "")) {
        return nullptr;
    }
    auto* const easy = new Easy();
    world().hold(easy, "easy", [easy] { delete easy; });
    return easy;
}

void curl_easy_reset(CURL* curl) {
    const OwnWork own;
    easyOf(curl) = Easy();
}

CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
    const OwnWork own;
    Easy& easy = easyOf(curl);
    if (world().enter("curl_easy_setopt", std::to_string(option))) {
        return CURLE_OUT_OF_MEMORY;
    }
    va_list arguments;
    va_start(arguments, option);
    if (option == CURLOPT_WRITEFUNCTION) {
        easy.onBody = va_arg(arguments, curl_write_callback);
    } else if (option == CURLOPT_HEADERFUNCTION) {
        easy.onHeader = va_arg(arguments, curl_write_callback);
    } else if (option == CURLOPT_WRITEDATA) {
        easy.body = va_arg(arguments, void*);
    } else if (option == CURLOPT_HEADERDATA) {
        easy.header = va_arg(arguments, void*);
    } else if (option == CURLOPT_HTTPHEADER) {
        for (auto* line = va_arg(arguments, curl_slist*); line != nullptr; line = line->next) {
            easy.request.headers.emplace_back(line->data);
        }
    } else if (option < CURLOPTTYPE_OBJECTPOINT) {
        easy.request.options[option] = std::to_string(va_arg(arguments, long));
    } else {
        const char* const text = va_arg(arguments, const char*);
        easy.request.options[option] = text == nullptr ? "null" : text;
    }
    va_end(arguments);
    easy.request.url = easy.request.options[CURLOPT_URL];
    easy.request.form = easy.request.options[CURLOPT_POSTFIELDS];
    return CURLE_OK;
}

CURLcode curl_easy_getinfo(CURL* curl, CURLINFO info, ...) {
    const OwnWork own;
    if (world().enter("curl_easy_getinfo", std::to_string(info))) {
        return CURLE_UNKNOWN_OPTION;
    }
    va_list arguments;
    va_start(arguments, info);
    void* const out = va_arg(arguments, void*);
    va_end(arguments);
    Answer& answer = easyOf(curl).answer;
    if (info == CURLINFO_RESPONSE_CODE) {
        *static_cast<long*>(out) = answer.status;
    } else if (info == CURLINFO_REDIRECT_URL) {
        *static_cast<char**>(out) = answer.redirect.empty() ? nullptr : answer.redirect.data();
    } else {
        ADD_FAILURE() << "no stand-in for info " << info;
    }
    return CURLE_OK;
}

void curl_easy_cleanup(CURL* curl) {
    const OwnWork own;
    world().release(curl);
    delete static_cast<Easy*>(curl);
}

curl_slist* curl_slist_append(curl_slist* list, const char* line) {
    const OwnWork own;
    if (list != nullptr) {
        ADD_FAILURE() << "the stand-in makes lists of one line only";
    }
    if (world().enter("curl_slist_append", line)) {
        return nullptr;
    }
    auto* const added = new curl_slist{strdup(line), nullptr};
    world().hold(added, "list", [] {});
    return added;
}

void curl_slist_free_all(curl_slist* list) {
    const OwnWork own;
    world().release(list);
    std::free(list->data);
    delete list;
}

CURLM* curl_multi_init(void) {
    const OwnWork own;
    if (world().enter("curl_multi_init", "")) {
        return nullptr;
    }
    auto* const multi = new Multi();
    world().hold(multi, "multi", [] {});
    return multi;
}

CURLMcode curl_multi_cleanup(CURLM* multi) {
    const OwnWork own;
    world().release(multi);
    delete static_cast<Multi*>(multi);
    return CURLM_OK;
}

CURLMcode curl_multi_add_handle(CURLM* multi, CURL* curl) {
    const OwnWork own;
    if (world().enter("curl_multi_add_handle", "")) {
        return CURLM_OUT_OF_MEMORY;
    }
    multiOf(multi).easy = &easyOf(curl);
    multiOf(multi).hangs = false;
    world().hold(&multiOf(multi).message, "added handle", [] {});
    return CURLM_OK;
}

CURLMcode curl_multi_remove_handle(CURLM* multi, CURL* /*curl*/) {
    const OwnWork own;
    world().release(&multiOf(multi).message);
    multiOf(multi).easy = nullptr;
    return CURLM_OK;
}

CURLMcode curl_multi_perform(CURLM* handle, int* running) {
    const OwnWork own;
    if (world().enter("curl_multi_perform", "")) {
        return CURLM_OUT_OF_MEMORY;
    }
    Multi& multi = multiOf(handle);
    Easy& easy = *multi.easy;
    *running = 1;
    if (multi.hangs) {
        return CURLM_OK;
    }
    Outside& out = outside::get();
    out.requests.push_back(easy.request);
    if (!out.intercept || !out.intercept(easy.request, easy.answer)) {
        easy.answer = out.answer(easy.request);
    }
    multi.hangs = easy.answer.hangs;
    if (!multi.hangs) {
        *running = 0;
        multi.message.msg = CURLMSG_DONE;
        multi.message.data.result = deliver(easy, own);
    }
    return CURLM_OK;
}

CURLMsg* curl_multi_info_read(CURLM* multi, int* left) {
    const OwnWork own;
    *left = 0;
    return world().enter("curl_multi_info_read", "") ? nullptr : &multiOf(multi).message;
}

CURLMcode curl_multi_poll(CURLM* /*multi*/, curl_waitfd* /*extra*/, unsigned int count,
                          int milliseconds, int* /*events*/) {
    const OwnWork own;
    EXPECT_EQ(0U, count);
    outside::get().advance(std::chrono::milliseconds(milliseconds));
    return world().enter("curl_multi_poll", std::to_string(milliseconds)) ? CURLM_INTERNAL_ERROR
                                                                          : CURLM_OK;
}

// ---- The device
// ----------------------------------------------------------------------------------

void ORBATOVRAErrSet(unsigned int code) { outside::get().deviceError = code; }
unsigned int ORBATOVRAErrGet(void) { return outside::get().deviceError; }

int ORBATOVRAUserAgentNameGet(char* name, std::size_t size) {
    const OwnWork own;
    if (world().enter("ORBATOVRAUserAgentNameGet", "")) {
        return -1;
    }
    EXPECT_EQ(255U, size);
    std::snprintf(name, size, "nas/1.0");
    return 0;
}

int ORBATOVRAAccountGet(TovraAccountRecord* account) {
    const OwnWork own;
    if (world().enter("ORBATOVRAAccountGet", "") || !outside::get().linked) {
        return -1;
    }
    outside::get().account.copy(account->id, sizeof account->id - 1);
    return 0;
}

// ---- The system
// ----------------------------------------------------------------------------------

void vsyslog(int priority, const char* format, va_list arguments) {
    const OwnWork own;
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) >= 0) {
        outside::get().log.push_back(std::to_string(priority) + " " + text);
        std::free(text);
    }
}

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    EXPECT_TRUE(clock == CLOCK_REALTIME || clock == CLOCK_BOOTTIME);
    const auto now = clock == CLOCK_REALTIME ? outside::get().wall : outside::get().boot;
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(now);
    *time = {whole.count(), (now - whole).count()};
    return 0;
}

int __wrap_nanosleep(const timespec* request, timespec* /*remainder*/) {
    const OwnWork own;
    world().enter("nanosleep", "");
    outside::get().advance(std::chrono::seconds(request->tv_sec) +
                           std::chrono::nanoseconds(request->tv_nsec));
    return 0;
}

// Whether the call fails, with the error that the system gives when the disk is broken.
static bool fails(const char* name) {
    const OwnWork own;
    const bool failing = world().enter(name, "");
    if (failing) {
        errno = outside::get().error;
    }
    return failing;
}

#define ORBA_FAULTY(result, name, failure, parameters, arguments) \
    result __real_##name parameters;                              \
    result __wrap_##name parameters { return fails(#name) ? failure : (__real_##name arguments); }

constexpr uid_t kUser = 1000;

uid_t __wrap_geteuid(void) { return kUser; }

int __real_fstat(int file, struct stat* status);
int __wrap_fstat(int file, struct stat* status) {
    const int result = fails("fstat") ? -1 : __real_fstat(file, status);
    const auto& owners = outside::get().owners;
    const auto owner = owners.find(status->st_ino);
    status->st_uid = owner == owners.end() ? kUser : owner->second;
    return result;
}

ORBA_FAULTY(int, fstatat, -1, (int folder, const char* name, struct stat* status, int flags),
            (folder, name, status, flags))
ORBA_FAULTY(int, fchmodat, -1, (int folder, const char* name, mode_t mode, int flags),
            (folder, name, mode, flags))
ORBA_FAULTY(int, pthread_atfork, ENOMEM, (void (*before)(), void (*parent)(), void (*child)()),
            (before, parent, child))
ORBA_FAULTY(CURLU*, curl_url, nullptr, (), ())
ORBA_FAULTY(ssize_t, pread, -1, (int file, void* data, size_t size, off_t at),
            (file, data, std::min(size, outside::get().piece), at))
ORBA_FAULTY(ssize_t, pwrite, -1, (int file, const void* data, size_t size, off_t at),
            (file, data, std::min(size, outside::get().piece), at))
ORBA_FAULTY(int, ftruncate, -1, (int file, off_t size), (file, size))
ORBA_FAULTY(int, fsync, -1, (int file), (file))
ORBA_FAULTY(int, fdatasync, -1, (int file), (file))
ORBA_FAULTY(int, fchmod, -1, (int file, mode_t mode), (file, mode))
ORBA_FAULTY(int, flock, -1, (int file, int operation), (file, operation))
ORBA_FAULTY(int, mkdirat, -1, (int folder, const char* name, mode_t mode), (folder, name, mode))
ORBA_FAULTY(int, unlinkat, -1, (int folder, const char* name, int flags), (folder, name, flags))
ORBA_FAULTY(int, renameat, -1, (int from, const char* old, int to, const char* name),
            (from, old, to, name))
ORBA_FAULTY(int, faccessat, -1, (int folder, const char* name, int mode, int flags),
            (folder, name, mode, flags))
ORBA_FAULTY(int, posix_fallocate, outside::get().error, (int file, off_t begin, off_t size),
            (file, begin, size))
ORBA_FAULTY(int, RAND_bytes, 0, (unsigned char* bytes, int count), (bytes, count))
ORBA_FAULTY(int, EVP_Digest, 0,
            (const void* data, size_t count, unsigned char* digest, unsigned int* size,
             const EVP_MD* type, ENGINE* engine),
            (data, count, digest, size, type, engine))

int __real_openat(int folder, const char* name, int flags, mode_t mode);
int __wrap_openat(int folder, const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) == 0 ? 0 : va_arg(arguments, mode_t);
    va_end(arguments);
    return fails("openat") ? -1 : __real_openat(folder, name, flags, mode);
}

int __real_open(const char* name, int flags, mode_t mode);
int __wrap_open(const char* name, int flags, ...) {
    return fails("open") ? -1 : __real_open(name, flags, 0);
}

}  // extern "C"

// ---- The first library
// ---------------------------------------------------------------------------

namespace ORBA::OAuth2Client {

OAuth2::OAuth2(const std::string& authorizationURL, const std::string& cookies)
    : authURL(authorizationURL), cookiesFilePath(cookies) {}
OAuth2::~OAuth2() = default;

std::string OAuth2::loginServiceByOrbaAccount() {
    const OwnWork own;
    EXPECT_EQ("", cookiesFilePath);
    if (world().enter("loginServiceByOrbaAccount", authURL)) {
        throw std::runtime_error("the account service is away");
    }
    if (outside::get().grant) {
        outside::get().state = outside::parameterOf(authURL, "state");
        return outside::get().grant();
    }
    throw HttpClientException(12, "Got empty cookie file path.");
}

void OAuth2::loginIDP(Json::Value& reply, const std::string& loginChallenge) {
    const OwnWork own;
    EXPECT_EQ("c+1", loginChallenge);
    EXPECT_EQ("", authURL + cookiesFilePath);
    if (world().enter("loginIDP", "")) {
        throw OAuth2ClientException(21, "Failed to Login IDP due to: secret reply");
    }
    reply["redirect_to"] = "https://auth.test/continue";
    if (outside::get().login) {
        outside::get().login(reply);
    }
}

}  // namespace ORBA::OAuth2Client

// ---- The fixture
// ---------------------------------------------------------------------------------

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path) << content;
    std::filesystem::permissions(path, std::filesystem::perms(0600));
}

std::string readFile(const std::string& path) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

void SessionTest::SetUp() {
    fakes::reset();
    outside::get() = {};
    // In memory if possible: thousands of runs sync their files.
    folder =
        std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/orba-session.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder.data()));
}

void SessionTest::TearDown() {
    theSession.reset();
    EXPECT_THAT(fakes::heldNames(), ::testing::IsEmpty());
    std::filesystem::remove_all(folder);
}

ORBA::OAuth2Session::Settings SessionTest::settings() const {
    ORBA::OAuth2Session::Settings given;
    given.authorizationEndpoint = "https://auth.test/auth?audience=nas";
    given.tokenEndpoint = "https://auth.test/token";
    given.clientId = "fleet lens";
    given.redirectUri = "https://app.test/cb";
    given.scope = "openid fleet.read";
    given.tokenFile = tokenFile();
    return given;
}

ORBA::OAuth2Session::Session& SessionTest::session() {
    if (theSession == nullptr) {
        theSession = std::make_unique<ORBA::OAuth2Session::Session>(settings());
    }
    return *theSession;
}

void SessionTest::use(const std::function<void(ORBA::OAuth2Session::Settings&)>& change) {
    ORBA::OAuth2Session::Settings given = settings();
    change(given);
    theSession = std::make_unique<ORBA::OAuth2Session::Session>(given);
}

Json::Value SessionTest::stored() const {
    Json::Value value;
    std::istringstream(readFile(tokenFile())) >> value;
    return value;
}

void SessionTest::storeOther(const std::string& accessToken, int expiresAt) const {
    Json::Value other = stored();
    other["access_token"] = accessToken;
    other["expires_at"] = expiresAt;
    writeFile(tokenFile(), other.toStyledString());
}

void SessionTest::whenLocking(const std::function<void()>& happens) {
    fakes::world().onCall = [happens](const std::string& name) {
        if (name == "flock") {
            happens();
        }
    };
}

std::vector<std::string> SessionTest::urls() const {
    std::vector<std::string> found;
    for (const Request& request : outside::get().requests) {
        const std::string grant = outside::parameterOf(request.form, "grant_type");
        found.push_back(request.url.substr(0, request.url.find('?')).substr(17) +
                        (grant == "refresh_token" ? " refresh" : ""));
    }
    return found;
}

ORBA::OAuth2Session::SessionException SessionTest::failure(const std::function<void()>& call) {
    try {
        call ? call() : static_cast<void>(token());
    } catch (const ORBA::OAuth2Session::SessionException& exception) {
        return exception;
    }
    ADD_FAILURE() << "nothing was thrown";
    return {0, "", ORBA::OAuth2Session::Remedy::tryLater};
}

void SessionTest::expectFailure(int code, ORBA::OAuth2Session::Remedy remedy,
                                const std::function<void()>& call, int line) {
    const auto exception = failure(call);
    EXPECT_EQ(code, exception.errCode()) << "line " << line << ": " << exception.what();
    EXPECT_EQ(remedy, exception.remedy()) << "line " << line << ": " << exception.what();
}
