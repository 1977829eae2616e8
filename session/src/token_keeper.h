// The tokens of one session: the one at hand, and how new ones are got from the token file or the
// server.
#ifndef ORBA_SESSION_TOKEN_KEEPER_H
#define ORBA_SESSION_TOKEN_KEEPER_H

#include <mutex>
#include <optional>
#include <string>

#include "failure.h"
#include "held_token.h"
#include "orbaoauth2session/session.h"
#include "shelf.h"
#include "token_endpoint.h"

namespace ORBA::OAuth2Session {

// A request for a new token.
struct Wish {
    std::optional<std::string> refused;  // by a resource server
    bool early = false;                  // the one at hand is still good: no sign-in, no waiting
};

class TokenKeeper {
  public:
    explicit TokenKeeper(const Settings& theSettings) : settings(theSettings) {}

    // ---- By any thread

    // Copies the token at hand if nothing is to be done about it.
    bool take(AccessToken& token) { return shelf.take(bootTime(), token); }

    struct Good {
        AccessToken token;
        bool resting;  // nothing is to be done about it yet
    };
    // The token at hand while it is good for the margin.
    std::optional<Good> good() const;

    // ---- By one thread at a time

    struct Found {
        AccessToken token;
        bool asked;  // the server; else the token file had it
    };
    Found renew(const std::optional<std::string>& refused, Call& call);

    // Renews early and stores what could not be stored; whatever goes wrong, the token at hand is
    // still good.
    std::optional<AccessToken> keepUp(const Call& call);

    // Whether the server was told.
    bool signOut(Call& call);

  private:
    struct Errand;

    // New tokens that the token file could not take.
    struct Unstored {
        Tokens tokens;
        std::string content;
        std::string digest;
        std::optional<std::string> replaces;  // what the token file held
    };

    std::optional<Found> run(const Wish& wish, Call& call);
    void lookAfterReserve(const Errand& errand);
    std::optional<AccessToken> inFile(Errand& errand);
    bool isAnswer(const Errand& errand, const HeldToken& found) const;
    void readTokens(Errand& errand);
    HeldToken judge(const Errand& errand) const;
    void checkAge(Errand& errand);
    std::optional<AccessToken> throughGate(Errand& errand);
    std::optional<AccessToken> ask(Errand& errand);
    std::optional<AccessToken> afterRefusal(Errand& errand, TokenEndpoint& endpoint);
    AccessToken finish(Errand& errand, TokenReply& reply, bool isRefresh);
    void replaceFile(Errand& errand, const Tokens& tokens);
    void storeUnstored(Errand& errand);
    bool revoke(Errand& errand);

    void hold(const std::optional<HeldToken>& token);
    void postponeEarly(nanoseconds until);
    void publish();

    Shelf shelf;
    const Settings& settings;

    mutable std::mutex mutex;  // of these two, which one thread writes and all read
    std::optional<HeldToken> atHand;
    nanoseconds look{};  // when something is to be done about it

    // The one thread's own.
    std::optional<Unstored> unstored;
    nanoseconds lastStore{};
    bool lookedAfterReserve = false;
};

}  // namespace ORBA::OAuth2Session

#endif
