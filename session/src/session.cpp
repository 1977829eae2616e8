#include "orbaoauth2session/session.h"

#include <openssl/crypto.h>
#include <orbatovra/orbatovra.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "failure.h"
#include "retry_gate.h"
#include "secrets.h"
#include "settings.h"
#include "shelf.h"
#include "sign_in.h"
#include "token_endpoint.h"
#include "token_store.h"
#include "transfer.h"

namespace ORBA::OAuth2Session {
namespace {

constexpr milliseconds kStep{100};
constexpr seconds kEarlyLimit{10};
constexpr seconds kPauseAfterEarlyFailure{10};
constexpr seconds kPauseBetweenStores{1};
constexpr seconds kClockTolerance{60};

// A token and when it is due, on bootTime().
struct Held {
    AccessToken token;
    nanoseconds since{};
    nanoseconds expires = nanoseconds::max();
    nanoseconds due = nanoseconds::max();    // until then it is good for the margin
    nanoseconds early = nanoseconds::max();  // from then on it may be renewed early
};

// New tokens that the token file could not take.
struct Unstored {
    Tokens tokens;
    std::string content;
    std::string digest;
    std::optional<std::string> replaces;  // what the token file held
};

enum class Purpose { renewal, upkeep, signOut };

// One errand that all callers share who come meanwhile.
struct Flight {
    Purpose purpose;
    std::optional<std::string> refused;
    bool landed = false;
    bool asked = false;                // a server
    bool told = false;                 // the server, of a sign-out
    std::optional<AccessToken> token;  // a new one
    std::optional<Failure> failure;
};

milliseconds now() { return std::chrono::duration_cast<milliseconds>(bootTime()); }

std::string bootId() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(file, id);
    return id;
}

// What binds tokens to account and settings; empty without a linked account.
std::string accountDigest(const Settings& settings) {
    TovraAccountRecord account{};
    if (ORBATOVRAAccountGet(&account) < 0) {
        return "";
    }
    const std::string id(account.id, strnlen(account.id, sizeof account.id));
    OPENSSL_cleanse(&account, sizeof account);
    return digestOf({id, settings.authorizationEndpoint, settings.tokenEndpoint, settings.clientId,
                     settings.redirectUri, settings.scope});
}

// The current exception; std::bad_alloc passes.
Failure currentFailure() {
    try {
        throw;
    } catch (const Failure& failure) {
        return failure;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        return makeFailure(kUnexpectedException, "An unexpected exception was caught");
    }
}

template <class Work>
auto throwingSessionExceptions(const Work& work) {
    try {
        return work();
    } catch (...) {
        throw toException(currentFailure());
    }
}

}  // namespace

struct __attribute__((visibility("hidden"))) Session::Impl {
    explicit Impl(const Settings& checked) : settings(checked) {}

    bool isInherited() const { return forks != forkCount(); }
    void check() const;
    AccessToken obtain(const std::string* refused);
    bool signOut();

    const Settings settings;
    const unsigned forks = forkCount();
    std::atomic<bool> cancelled{false};
    Shelf shelf;

  private:
    struct Errand;
    class Landing;

    std::shared_ptr<Flight> takeOff(Purpose purpose, const std::string* refused);
    void wait(std::unique_lock<std::mutex>& lock, const Call& call, const Flight& flight);
    void fly(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Flight>& flight, Call& call);

    void keepUp(Flight& flight, const Call& call);
    std::optional<AccessToken> renew(Flight& flight, Call& call);
    void endSignIn(Flight& flight, Call& call);
    void lookAfterReserve(Errand& errand);
    std::optional<AccessToken> inFile(Errand& errand);
    bool isAnswer(const Errand& errand, const Held& found) const;
    void readTokens(Errand& errand);
    void checkAge(Errand& errand);
    std::optional<AccessToken> throughGate(Errand& errand);
    std::optional<AccessToken> ask(Errand& errand);
    std::optional<AccessToken> afterRefusal(Errand& errand, TokenEndpoint& endpoint);
    AccessToken finish(Errand& errand, TokenReply& reply, bool isRefresh);
    void replaceFile(Errand& errand, const Tokens& tokens);
    void storeUnstored(Errand& errand);
    bool revoke(Errand& errand);

    Held held(const Tokens& tokens, const TokenFile& file) const;
    Held withDueTimes(Held token, std::optional<milliseconds> lifetime, bool refreshable) const;
    void hold(const Held& token);
    void postponeEarly(nanoseconds until);
    void publish();

    std::mutex mutex;
    std::condition_variable landed;
    std::shared_ptr<Flight> current;
    std::optional<Held> atHand;
    nanoseconds look{};  // when a call should do more than take the token at hand

    // The flight's own.
    std::optional<Unstored> unstored;
    nanoseconds lastStore{};
    bool lookedAfterReserve = false;
};

// What one flight works with.
struct Session::Impl::Errand {
    Call& call;
    const std::string digest;
    const std::optional<std::string> refused;
    const bool early;
    TokenStore store;
    TokenFile file{};
    Tokens tokens{};
    RetryGate gate;
    std::string savedGate{};  // what the gate's file says

    Errand(Call& itsCall, const Settings& settings, std::optional<std::string> itsRefused,
           bool isEarly)
        : call(itsCall),
          digest(accountDigest(settings)),
          refused(std::move(itsRefused)),
          early(isEarly),
          store(settings.tokenFile),
          gate(digest, bootId()) {}

    void loadGate() {
        savedGate = gate.text();
        const std::string content = store.readGate();
        gate.load(content, now());
        if (gate.text() != savedGate) {
            savedGate = content.substr(0, content.find('\n') + 1);
        }
    }

    void saveGate() noexcept {
        try {
            if (gate.text() != savedGate) {
                store.writeGate(gate.text());
                savedGate = gate.text();
            }
        } catch (...) {
            logWarning("The gate's file cannot be written.");
        }
    }
};

// ---- Who does it
// ---------------------------------------------------------------------------------

void Session::Impl::check() const {
    if (isInherited()) {
        fail(kSettingsRefused, "The session was made by a parent process: make one in the child");
    }
    if (cancelled.load(std::memory_order_relaxed)) {
        fail(kCancelled, "The session is cancelled");
    }
}

AccessToken Session::Impl::obtain(const std::string* refused) {
    Call call{bootTime() + settings.timeout, cancelled};
    std::unique_lock lock(mutex);
    while (true) {
        call.check();
        const bool good = refused == nullptr && atHand && bootTime() < atHand->due;
        if (good && (current || bootTime() < look)) {
            return atHand->token;
        }
        if (current) {
            const std::shared_ptr<Flight> joined = current;
            wait(lock, call, *joined);
            const bool same = refused != nullptr && joined->refused == *refused;
            if (joined->failure && (joined->failure->code != kTooNewToRenew || same)) {
                throw *joined->failure;
            }
            if (joined->token && (refused == nullptr || same || joined->token->text != *refused)) {
                return *joined->token;
            }
            continue;
        }
        const auto flight = takeOff(good ? Purpose::upkeep : Purpose::renewal, refused);
        fly(lock, flight, call);
        if (good) {
            return flight->token ? *flight->token : atHand->token;
        }
        if (flight->asked || refused != nullptr) {
            return *flight->token;
        }
        // A token of the token file may be due for early renewal.
    }
}

std::shared_ptr<Flight> Session::Impl::takeOff(Purpose purpose, const std::string* refused) {
    auto flight = std::make_shared<Flight>();
    flight->purpose = purpose;
    if (refused != nullptr) {
        flight->refused = *refused;
    }
    current = flight;
    return flight;
}

// cancel() cannot wake it, because it may run in a signal handler.
void Session::Impl::wait(std::unique_lock<std::mutex>& lock, const Call& call,
                         const Flight& flight) {
    while (!flight.landed) {
        call.check();
        landed.wait_for(lock, kStep);
    }
}

// Ends a flight, however it went.
class Session::Impl::Landing {
  public:
    Landing(Impl& itsSession, std::unique_lock<std::mutex>& itsLock)
        : session(itsSession), lock(itsLock) {
        lock.unlock();
    }
    ~Landing() {
        lock.lock();
        session.current->landed = true;
        session.current.reset();
        session.landed.notify_all();
    }
    Landing(const Landing&) = delete;
    Landing& operator=(const Landing&) = delete;

  private:
    Impl& session;
    std::unique_lock<std::mutex>& lock;
};

void Session::Impl::fly(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Flight>& flight,
                        Call& call) {
    const Landing landing(*this, lock);
    try {
        switch (flight->purpose) {
            case Purpose::renewal:
                flight->token = renew(*flight, call);
                break;
            case Purpose::upkeep:
                keepUp(*flight, call);
                break;
            case Purpose::signOut:
                endSignIn(*flight, call);
                break;
        }
    } catch (...) {
        flight->failure = currentFailure();
        if (!flight->failure->repeated) {
            logWarning(flight->failure->text);
        }
        throw *flight->failure;
    }
}

// ---- What is done
// --------------------------------------------------------------------------------

// Early renewal: whatever goes wrong, the token at hand is still good.
void Session::Impl::keepUp(Flight& flight, const Call& call) {
    Call limited{std::min<nanoseconds>(call.deadline, bootTime() + kEarlyLimit), cancelled};
    lastStore = bootTime();
    try {
        flight.token = renew(flight, limited);
    } catch (...) {
        const Failure failure = currentFailure();
        if (failure.code == kCancelled) {
            throw;
        }
        if (!failure.repeated) {
            logWarning(failure.text);
        }
        const nanoseconds pause =
            failure.retryAfter > milliseconds(0) ? failure.retryAfter : kPauseAfterEarlyFailure;
        postponeEarly(bootTime() + pause);
    }
    publish();
}

// Gives a token other than the one at hand; nothing if an early renewal finds none.
std::optional<AccessToken> Session::Impl::renew(Flight& flight, Call& call) {
    Errand errand(call, settings, flight.refused, flight.purpose == Purpose::upkeep);
    lookAfterReserve(errand);
    if (errand.digest.empty()) {
        fail(kAccountFailed, "The device is not linked to an account");
    }
    if (std::optional<AccessToken> token = inFile(errand)) {
        return token;
    }
    if (!errand.early) {
        errand.store.lock(call);
    } else if (!errand.store.tryLock()) {
        postponeEarly(bootTime() + kStep);
        return std::nullopt;
    }
    errand.store.recover(errand.digest);
    storeUnstored(errand);
    if (std::optional<AccessToken> token = inFile(errand)) {
        return token;
    }
    if (errand.early && errand.tokens.refreshToken.empty()) {
        postponeEarly(nanoseconds::max());
    }
    if (errand.early && bootTime() < atHand->early) {
        return std::nullopt;  // at most, unstored tokens had to be stored
    }
    flight.asked = true;
    return throughGate(errand);
}

// Once for each session: a process that was killed may have left new tokens there.
void Session::Impl::lookAfterReserve(Errand& errand) {
    if (std::exchange(lookedAfterReserve, true)) {
        return;
    }
    try {
        TokenStore store(settings.tokenFile);
        if (store.hasWorkFolder() && store.tryLock()) {
            store.recover(errand.digest);
        }
    } catch (const Failure&) {
        return;  // a good token is no worse for it, and a renewal meets it again
    }
}

void Session::Impl::readTokens(Errand& errand) {
    errand.file = errand.store.read();
    if (unstored &&
        (unstored->replaces != errand.file.content || unstored->digest != errand.digest)) {
        unstored.reset();
    }
    errand.tokens = unstored ? unstored->tokens
                             : fromFileContent(errand.file.content.value_or(""), errand.digest);
}

// The token of the token file, if it is the answer.
std::optional<AccessToken> Session::Impl::inFile(Errand& errand) {
    readTokens(errand);
    if (errand.tokens.accessToken.empty()) {
        return std::nullopt;
    }
    const Held found = held(errand.tokens, errand.file);
    if (isAnswer(errand, found)) {
        hold(found);
        return found.token;
    }
    if (errand.refused == found.token.text) {
        hold(found);  // its age counts from now on, if nothing else tells
    }
    return std::nullopt;
}

bool Session::Impl::isAnswer(const Errand& errand, const Held& found) const {
    if (errand.refused) {
        return found.token.text != *errand.refused && bootTime() < found.expires;
    }
    return bootTime() < found.due && !(errand.early && found.token.text == atHand->token.text);
}

// A token that is refused as soon as it comes will not get better by being renewed again and again.
void Session::Impl::checkAge(Errand& errand) {
    if (!errand.refused || !atHand || atHand->token.text != *errand.refused) {
        return;
    }
    const auto age = std::chrono::duration_cast<milliseconds>(bootTime() - atHand->since);
    errand.gate.refusedAtAge(age);
    if (age < errand.gate.requiredAge()) {
        Failure failure = makeFailure(kTooNewToRenew, "The refused token is too new to be renewed");
        failure.retryAfter = errand.gate.requiredAge() - age;
        throw std::move(failure);
    }
}

std::optional<AccessToken> Session::Impl::throughGate(Errand& errand) {
    errand.loadGate();
    checkAge(errand);
    if (const std::optional<Failure> failure = errand.gate.closedBy(now())) {
        errand.saveGate();  // after another boot the wait begins anew only once
        throw *failure;
    }
    errand.store.reserve();
    errand.store.allocateGate();
    try {
        return ask(errand);
    } catch (...) {
        Failure failure = currentFailure();
        if (errand.call.asked && failure.code != kCancelled) {
            errand.gate.close(failure, now(), randomFraction());
            errand.saveGate();
        }
        throw std::move(failure);
    }
}

std::optional<AccessToken> Session::Impl::ask(Errand& errand) {
    Transfer transfer(errand.call);
    TokenEndpoint endpoint(settings, transfer);
    if (!errand.tokens.refreshToken.empty()) {
        TokenReply reply = endpoint.refresh(errand.tokens.refreshToken);
        if (!reply.refused) {
            return finish(errand, reply, true);
        }
        if (std::optional<AccessToken> token = afterRefusal(errand, endpoint)) {
            return token;
        }
        if (errand.early) {
            postponeEarly(nanoseconds::max());
            return std::nullopt;
        }
        errand.store.reserve();
    }
    TokenReply reply = signIn(settings, errand.call, transfer);
    return finish(errand, reply, false);
}

// The refresh token is no longer good: perhaps somebody else has renewed the tokens.
std::optional<AccessToken> Session::Impl::afterRefusal(Errand& errand, TokenEndpoint& endpoint) {
    const Tokens before = errand.tokens;
    readTokens(errand);
    if (!errand.tokens.accessToken.empty() && errand.tokens.accessToken != before.accessToken &&
        errand.tokens.accessToken != errand.refused) {
        const Held found = held(errand.tokens, errand.file);
        if (bootTime() < found.expires) {
            hold(found);
            return found.token;
        }
    }
    if (!errand.tokens.refreshToken.empty() && errand.tokens.refreshToken != before.refreshToken) {
        TokenReply reply = endpoint.refresh(errand.tokens.refreshToken);
        if (!reply.refused) {
            return finish(errand, reply, true);
        }
    }
    logWarning(hostOf(settings.tokenEndpoint) + " no longer accepts the refresh token.");
    if (!errand.tokens.refreshToken.empty()) {
        Tokens rest = errand.tokens;
        rest.refreshToken.clear();
        replaceFile(errand, rest);
    }
    return std::nullopt;
}

AccessToken Session::Impl::finish(Errand& errand, TokenReply& reply, bool isRefresh) {
    Tokens& tokens = reply.tokens;
    const Tokens& old = errand.tokens;
    if (reply.failure) {
        if (!tokens.refreshToken.empty()) {
            Tokens rest = isRefresh ? old : Tokens{};
            rest.refreshToken = tokens.refreshToken;
            replaceFile(errand, rest);
        }
        throw *reply.failure;
    }
    if (isRefresh && tokens.refreshToken.empty()) {
        tokens.refreshToken = old.refreshToken;
    }
    if (isRefresh && tokens.scope.empty()) {
        tokens.scope = old.scope;
    }
    Held fresh;
    fresh.token = {tokens.accessToken, std::chrono::system_clock::time_point::max(),
                   tokens.scope.empty() ? settings.scope : tokens.scope};
    fresh.since = tokens.sent;
    if (tokens.lifetime) {
        fresh.token.expires = std::chrono::system_clock::time_point(*tokens.expiresAt);
        fresh.expires = tokens.sent + *tokens.lifetime;
    }
    fresh = withDueTimes(fresh, tokens.lifetime, !tokens.refreshToken.empty());
    replaceFile(errand, tokens);
    hold(fresh);
    errand.gate.open();
    if (errand.refused) {
        errand.gate.renewedAfterRefusal();
    }
    errand.saveGate();
    logInfo((isRefresh ? "Refreshed at " : "Signed in at ") + hostOf(settings.tokenEndpoint) + ".");
    return fresh.token;
}

// Tokens that the file does not take are kept in memory.
void Session::Impl::replaceFile(Errand& errand, const Tokens& tokens) {
    const std::string content = toFileContent(tokens, errand.digest);
    try {
        errand.store.store(content);
        unstored.reset();
        errand.file.content = content;
    } catch (const Failure& failure) {
        logWarning("The new tokens are kept in memory only. " + failure.text);
        unstored = Unstored{tokens, content, errand.digest, errand.file.content};
        lastStore = bootTime();
    }
    errand.tokens = tokens;
}

void Session::Impl::storeUnstored(Errand& errand) {
    readTokens(errand);
    if (!unstored) {
        return;
    }
    try {
        errand.store.reserve();
        errand.store.store(unstored->content);
        unstored.reset();
    } catch (const Failure&) {
        errand.store.dropReserve();  // it was warned of when the tokens came
    }
}

// ---- The token at hand
// ---------------------------------------------------------------------------

void Session::Impl::hold(const Held& token) {
    {
        const std::lock_guard lock(mutex);
        atHand = token;
    }
    publish();
}

void Session::Impl::postponeEarly(nanoseconds until) {
    {
        const std::lock_guard lock(mutex);
        atHand->early = std::max(atHand->early, until);
    }
    publish();
}

void Session::Impl::publish() {
    const std::lock_guard lock(mutex);
    if (!atHand) {
        shelf.clear();
        return;
    }
    look = std::min(atHand->early, atHand->due);
    if (unstored) {
        look = std::min<nanoseconds>(look, lastStore + kPauseBetweenStores);
    }
    shelf.put(atHand->token, look);
}

Held Session::Impl::withDueTimes(Held token, std::optional<milliseconds> lifetime,
                                 bool refreshable) const {
    if (lifetime) {
        token.due = token.expires - std::min<nanoseconds>(settings.margin, *lifetime / 4);
        if (refreshable) {
            const double share = 0.1 + 0.1 * randomFraction();
            token.early = token.due - std::chrono::duration_cast<nanoseconds>(*lifetime * share);
        }
    }
    return token;
}

// What the file's tokens are worth by this session's clock.
Held Session::Impl::held(const Tokens& tokens, const TokenFile& file) const {
    if (atHand && atHand->token.text == tokens.accessToken) {
        return *atHand;  // nobody can set the clock that it runs on
    }
    const nanoseconds bootNow = bootTime();
    const milliseconds wallNow = wallTime();
    Held found;
    found.token = {tokens.accessToken, std::chrono::system_clock::time_point::max(),
                   tokens.scope.empty() ? settings.scope : tokens.scope};
    found.since = bootNow - std::max(milliseconds(0), wallNow - file.changed);
    if (!tokens.lifetime && !tokens.expiresAt) {
        return found;
    }
    found.expires = bootNow;
    if (tokens.lifetime && tokens.expiresAt &&
        *tokens.expiresAt - wallNow <= *tokens.lifetime + kClockTolerance) {
        found.token.expires = std::chrono::system_clock::time_point(*tokens.expiresAt);
        found.expires = bootNow + (*tokens.expiresAt - wallNow);
        found.since = found.expires - *tokens.lifetime;
    }
    return withDueTimes(found, tokens.lifetime.value_or(milliseconds(0)),
                        !tokens.refreshToken.empty());
}

// ---- Signing out
// ---------------------------------------------------------------------------------

bool Session::Impl::signOut() {
    Call call{bootTime() + settings.timeout, cancelled};
    std::unique_lock lock(mutex);
    while (current) {
        const std::shared_ptr<Flight> other = current;
        wait(lock, call, *other);
    }
    const auto flight = takeOff(Purpose::signOut, nullptr);
    fly(lock, flight, call);
    return flight->told;
}

void Session::Impl::endSignIn(Flight& flight, Call& call) {
    Errand errand(call, settings, std::nullopt, false);
    errand.store.lock(call);
    errand.store.recover(errand.digest);
    readTokens(errand);
    errand.loadGate();
    flight.told = revoke(errand);
    unstored.reset();
    {
        const std::lock_guard guard(mutex);
        atHand.reset();
    }
    publish();
    errand.store.remove();
    errand.gate.open();
    errand.saveGate();
    logInfo("Signed out.");
}

bool Session::Impl::revoke(Errand& errand) {
    const bool hasRefreshToken = !errand.tokens.refreshToken.empty();
    const std::string& token =
        hasRefreshToken ? errand.tokens.refreshToken : errand.tokens.accessToken;
    if (settings.revocationEndpoint.empty()) {
        return true;
    }
    if (errand.digest.empty() || errand.gate.closedBy(now())) {
        return false;
    }
    if (token.empty()) {
        return true;
    }
    try {
        Transfer transfer(errand.call);
        TokenEndpoint(settings, transfer)
            .revoke(token, hasRefreshToken ? "refresh_token" : "access_token");
        return true;
    } catch (...) {
        logWarning("The tokens are not revoked. " + currentFailure().text);
        return false;
    }
}

// ---- The public class
// ----------------------------------------------------------------------------

Session::Session(const Settings& settings, int version)
    : impl(throwingSessionExceptions([&] {
          watchForks();
          try {
              return std::make_unique<Impl>(checkedSettings(settings, version));
          } catch (const Failure& failure) {
              logWarning(failure.text);
              throw;
          }
      })) {}

Session::~Session() {
    if (impl->isInherited()) {
        impl.release();  // its mutexes may be held by threads that the child does not have
    }
}

AccessToken Session::accessToken() {
    return throwingSessionExceptions([&] {
        impl->check();
        AccessToken token;
        if (impl->shelf.take(bootTime(), token)) {
            return token;
        }
        return impl->obtain(nullptr);
    });
}

AccessToken Session::renew(const std::string& refused) {
    return throwingSessionExceptions([&] {
        impl->check();
        return impl->obtain(&refused);
    });
}

bool Session::signOut() {
    return throwingSessionExceptions([&] {
        impl->check();
        return impl->signOut();
    });
}

void Session::cancel() noexcept { impl->cancelled.store(true, std::memory_order_relaxed); }

}  // namespace ORBA::OAuth2Session
