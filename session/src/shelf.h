// Where calls find a good token without meeting each other: each thread has a copy of its own, or
// shares it with few others.
#ifndef ORBA_SESSION_SHELF_H
#define ORBA_SESSION_SHELF_H

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>

#include "clock.h"
#include "orbaoauth2session/session.h"

namespace ORBA::OAuth2Session {

class Shelf {
  public:
    // Copies the token if it is good at this time, on bootTime().
    bool take(nanoseconds now, AccessToken& token) {
        Slot& slot = slots[ownSlot()];
        const std::lock_guard lock(slot.mutex);
        if (now >= slot.until) {
            return false;
        }
        token = slot.token;
        return true;
    }

    void put(const AccessToken& token, nanoseconds until) {
        for (Slot& slot : slots) {
            const std::lock_guard lock(slot.mutex);
            slot.until = nanoseconds::min();  // without memory the old token must not stay
            slot.token = token;
            slot.until = until;
        }
    }

    void clear() { put({}, nanoseconds::min()); }

  private:
    static constexpr std::size_t kSlots = 16;
    static constexpr std::size_t kCacheLine = 64;

    struct alignas(kCacheLine) Slot {
        std::mutex mutex;
        nanoseconds until = nanoseconds::min();
        AccessToken token;
    };

    static std::size_t ownSlot() {
        static std::atomic<std::size_t> threads{0};
        thread_local const std::size_t slot = threads++ % kSlots;
        return slot;
    }

    std::array<Slot, kSlots> slots;
};

}  // namespace ORBA::OAuth2Session

#endif
