#include "held_token.h"

#include <algorithm>
#include <optional>

#include "secrets.h"

namespace ORBA::OAuth2Session {
namespace {

constexpr seconds kClockTolerance{60};
constexpr double kEarliestShare = 0.2;
constexpr double kLatestShare = 0.1;

using TimePoint = std::chrono::system_clock::time_point;

HeldToken withoutEnd(const Tokens& tokens, const Settings& settings) {
    HeldToken held;
    held.token = {tokens.accessToken, TimePoint::max(),
                  tokens.scope.empty() ? settings.scope : tokens.scope};
    return held;
}

void setEnd(HeldToken& held, nanoseconds expires, milliseconds lifetime, const Tokens& tokens,
            const Settings& settings) {
    held.expires = expires;
    held.due = expires - std::min<nanoseconds>(settings.margin, lifetime / 4);
    if (!tokens.refreshToken.empty()) {
        // Drawn, so that the devices of a fleet, and sessions of one file, do not come together.
        const double share = kLatestShare + (kEarliestShare - kLatestShare) * randomFraction();
        held.early = held.due - std::chrono::duration_cast<nanoseconds>(lifetime * share);
    }
}

// What is left of the lifetime by the device's clock; nothing when clock and file do not agree.
milliseconds leftOf(const Tokens& tokens, milliseconds wallNow) {
    if (!tokens.lifetime || !tokens.expiresAt ||
        *tokens.expiresAt - wallNow > *tokens.lifetime + kClockTolerance) {
        return milliseconds(0);
    }
    return std::max(milliseconds(0), *tokens.expiresAt - wallNow);
}

}  // namespace

HeldToken heldFromReply(const Tokens& tokens, const Settings& settings) {
    HeldToken held = withoutEnd(tokens, settings);
    held.since = tokens.sent;
    if (tokens.lifetime) {
        held.token.expires = TimePoint(*tokens.expiresAt);
        setEnd(held, tokens.sent + *tokens.lifetime, *tokens.lifetime, tokens, settings);
    }
    return held;
}

HeldToken heldFromFile(const Tokens& tokens, milliseconds changed, const Settings& settings) {
    const nanoseconds bootNow = bootTime();
    const milliseconds wallNow = wallTime();
    HeldToken held = withoutEnd(tokens, settings);
    held.since = bootNow - std::max(milliseconds(0), wallNow - changed);
    if (!tokens.lifetime && !tokens.expiresAt) {
        return held;
    }
    const milliseconds left = leftOf(tokens, wallNow);
    const milliseconds lifetime = tokens.lifetime.value_or(milliseconds(0));
    held.token.expires = TimePoint(wallNow + left);
    if (left > milliseconds(0)) {
        held.since = bootNow + left - lifetime;
    }
    setEnd(held, bootNow + left, lifetime, tokens, settings);
    return held;
}

}  // namespace ORBA::OAuth2Session
