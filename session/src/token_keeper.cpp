#include "token_keeper.h"

#include <openssl/crypto.h>
#include <orbatovra/orbatovra.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <utility>

#include "retry_gate.h"
#include "secrets.h"
#include "sign_in.h"
#include "token_store.h"
#include "transfer.h"

namespace ORBA::OAuth2Session {
namespace {

constexpr milliseconds kStep{100};
constexpr seconds kEarlyLimit{10};
constexpr seconds kPauseAfterEarlyFailure{10};
constexpr seconds kPauseBetweenStores{1};

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

}  // namespace

// What one errand works with.
struct TokenKeeper::Errand {
    Errand(const Settings& settings, Wish itsWish, Call& itsCall)
        : wish(std::move(itsWish)),
          call(itsCall),
          digest(accountDigest(settings)),
          store(settings.tokenFile) {}

    void requireAccount() const {
        if (digest.empty()) {
            fail(kAccountFailed, "The device is not linked to an account");
        }
    }

    void loadGate() {
        gate = RetryGate(digest, bootId());
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
            }
        } catch (...) {
            logWarning("The gate's file cannot be written.");
        }
    }

    const Wish wish;
    Call& call;
    std::string digest;  // of the account, or empty
    TokenStore store;
    TokenFile file;
    Tokens tokens;
    RetryGate gate{"", ""};
    std::string savedGate;  // what the gate's file says
};

std::optional<TokenKeeper::Good> TokenKeeper::good() const {
    const std::lock_guard lock(mutex);
    const nanoseconds time = bootTime();
    if (!atHand || time >= atHand->due) {
        return std::nullopt;
    }
    return Good{atHand->token, time < look};
}

TokenKeeper::Found TokenKeeper::renew(const std::optional<std::string>& refused, Call& call) {
    return *run({refused}, call);
}

std::optional<AccessToken> TokenKeeper::keepUp(const Call& call) {
    Call limited{std::min<nanoseconds>(call.deadline, bootTime() + kEarlyLimit), call.cancelled};
    lastStore = bootTime();
    std::optional<Found> found;
    try {
        found = run({std::nullopt, true}, limited);
    } catch (...) {
        const Failure failure = currentFailure();
        if (failure.code == kCancelled) {
            throw;
        }
        logFailure(failure);
        const nanoseconds pause =
            failure.retryAfter > milliseconds(0) ? failure.retryAfter : kPauseAfterEarlyFailure;
        postponeEarly(bootTime() + pause);
    }
    publish();
    return found ? std::optional(found->token) : std::nullopt;
}

bool TokenKeeper::signOut(Call& call) {
    Errand errand(settings, {}, call);
    errand.store.lock(call);
    errand.digest = accountDigest(settings);
    errand.store.recover(errand.digest);
    readTokens(errand);
    errand.loadGate();
    const bool told = revoke(errand);
    unstored.reset();
    hold(std::nullopt);
    errand.store.remove();
    errand.gate.open();
    errand.saveGate();
    logInfo("Signed out.");
    return told;
}

// Finds a token; nothing if an early renewal has none to give.
std::optional<TokenKeeper::Found> TokenKeeper::run(const Wish& wish, Call& call) {
    Errand errand(settings, wish, call);
    lookAfterReserve(errand);
    errand.requireAccount();
    if (const std::optional<AccessToken> token = inFile(errand)) {
        return Found{*token, false};
    }
    if (!wish.early) {
        errand.store.lock(call);
    } else if (!errand.store.tryLock()) {
        postponeEarly(bootTime() + kStep);
        return std::nullopt;
    }
    errand.digest = accountDigest(settings);  // it may have taken long
    errand.requireAccount();
    errand.store.recover(errand.digest);
    storeUnstored(errand);
    if (const std::optional<AccessToken> token = inFile(errand)) {
        return Found{*token, false};
    }
    if (wish.early && errand.tokens.refreshToken.empty()) {
        postponeEarly(nanoseconds::max());
    }
    if (wish.early && bootTime() < atHand->early) {
        return std::nullopt;  // at most, unstored tokens had to be stored
    }
    if (const std::optional<AccessToken> token = throughGate(errand)) {
        return Found{*token, true};
    }
    return std::nullopt;
}

// Once for each session: a process that was killed may have left new tokens there.
void TokenKeeper::lookAfterReserve(const Errand& errand) {
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

void TokenKeeper::readTokens(Errand& errand) {
    errand.file = errand.store.read();
    if (unstored &&
        (unstored->replaces != errand.file.content || unstored->digest != errand.digest)) {
        unstored.reset();
    }
    errand.tokens = unstored ? unstored->tokens
                             : fromFileContent(errand.file.content.value_or(""), errand.digest);
}

// By memory where that knows the token, because nobody can set the clock that it runs on.
HeldToken TokenKeeper::judge(const Errand& errand) const {
    if (atHand && atHand->token.text == errand.tokens.accessToken) {
        return *atHand;
    }
    return heldFromFile(errand.tokens, errand.file.changed, settings);
}

// The token of the token file, if it is the answer.
std::optional<AccessToken> TokenKeeper::inFile(Errand& errand) {
    readTokens(errand);
    if (errand.tokens.accessToken.empty()) {
        return std::nullopt;
    }
    const HeldToken found = judge(errand);
    if (isAnswer(errand, found)) {
        hold(found);
        return found.token;
    }
    if (errand.wish.refused == found.token.text) {
        hold(found);  // its age counts from now on, if nothing else tells
    }
    return std::nullopt;
}

bool TokenKeeper::isAnswer(const Errand& errand, const HeldToken& found) const {
    if (errand.wish.refused) {
        return found.token.text != *errand.wish.refused && bootTime() < found.expires;
    }
    return bootTime() < found.due && !(errand.wish.early && found.token.text == atHand->token.text);
}

// A token that is refused as soon as it comes will not get better by being renewed again and again.
void TokenKeeper::checkAge(Errand& errand) {
    if (!errand.wish.refused || !atHand || atHand->token.text != *errand.wish.refused) {
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

std::optional<AccessToken> TokenKeeper::throughGate(Errand& errand) {
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

std::optional<AccessToken> TokenKeeper::ask(Errand& errand) {
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
        if (errand.wish.early) {
            return std::nullopt;
        }
        errand.store.reserve();
    }
    TokenReply reply = signIn(settings, errand.call, transfer);
    return finish(errand, reply, false);
}

// The refresh token is no longer good: perhaps somebody else has renewed the tokens.
std::optional<AccessToken> TokenKeeper::afterRefusal(Errand& errand, TokenEndpoint& endpoint) {
    const Tokens before = errand.tokens;
    readTokens(errand);
    if (!errand.tokens.accessToken.empty() && errand.tokens.accessToken != before.accessToken &&
        errand.tokens.accessToken != errand.wish.refused) {
        const HeldToken found = judge(errand);
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

AccessToken TokenKeeper::finish(Errand& errand, TokenReply& reply, bool isRefresh) {
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
    const HeldToken fresh = heldFromReply(tokens, settings);
    replaceFile(errand, tokens);
    hold(fresh);
    errand.gate.open();
    if (errand.wish.refused) {
        errand.gate.renewedAfterRefusal();
    }
    errand.saveGate();
    logInfo((isRefresh ? "Refreshed at " : "Signed in at ") + hostOf(settings.tokenEndpoint) + ".");
    return fresh.token;
}

// Tokens that the file does not take are kept in memory.
void TokenKeeper::replaceFile(Errand& errand, const Tokens& tokens) {
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
}

void TokenKeeper::storeUnstored(Errand& errand) {
    readTokens(errand);
    if (!unstored) {
        return;
    }
    try {
        errand.store.reserve();
        errand.store.store(unstored->content);
        unstored.reset();
    } catch (const Failure&) {
        return;  // it was warned of when the tokens came
    }
}

void TokenKeeper::hold(const std::optional<HeldToken>& token) {
    {
        const std::lock_guard lock(mutex);
        atHand = token;
    }
    publish();
}

void TokenKeeper::postponeEarly(nanoseconds until) {
    const std::lock_guard lock(mutex);
    atHand->early = std::max(atHand->early, until);
}

void TokenKeeper::publish() {
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

bool TokenKeeper::revoke(Errand& errand) {
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

}  // namespace ORBA::OAuth2Session
