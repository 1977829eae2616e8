#include "orbaoauth2session/session.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "failure.h"
#include "settings.h"
#include "token_keeper.h"
#include "token_store.h"

namespace ORBA::OAuth2Session {
namespace {

constexpr milliseconds kStep{100};

enum class Purpose { renewal, upkeep, signOut };

// One errand, whose end all callers wait for who come meanwhile and need it.
struct Flight {
    Purpose purpose;
    std::optional<std::string> refused;
    bool landed = false;
    std::optional<AccessToken> token;  // a new one
    std::optional<Failure> failure;
    bool asked = false;  // the server
    bool told = false;   // the server, of a sign-out
};

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
    AccessToken obtain(const std::optional<std::string>& refused);
    bool signOut();

    const Settings settings;
    const unsigned forks = forkCount();
    std::atomic<bool> cancelled{false};
    TokenKeeper keeper{settings};

  private:
    class Landing;

    std::shared_ptr<Flight> takeOff(Purpose purpose, const std::optional<std::string>& refused);
    void fly(std::unique_lock<std::mutex>& lock, Flight& flight, Call& call);
    void wait(std::unique_lock<std::mutex>& lock, const Flight& flight, const Call& call);

    std::mutex mutex;
    std::condition_variable landed;
    std::shared_ptr<Flight> current;
};

void Session::Impl::check() const {
    if (isInherited()) {
        fail(kSettingsRefused, "The session was made by a parent process: make one in the child");
    }
    if (cancelled.load(std::memory_order_relaxed)) {
        failCancelled();
    }
}

AccessToken Session::Impl::obtain(const std::optional<std::string>& refused) {
    Call call{bootTime() + settings.timeout, cancelled};
    std::unique_lock lock(mutex);
    while (true) {
        const std::optional<TokenKeeper::Good> good = refused ? std::nullopt : keeper.good();
        if (good && (current || good->resting)) {
            return good->token;
        }
        if (current) {
            const std::shared_ptr<Flight> joined = current;
            wait(lock, *joined, call);
            const bool same = joined->refused == refused;
            if (joined->purpose == Purpose::signOut) {
                continue;
            }
            if (joined->failure && (same || joined->failure->code != kTooNewToRenew)) {
                throw *joined->failure;
            }
            if (joined->token && (same || joined->token->text != refused)) {
                return *joined->token;
            }
            continue;
        }
        const auto flight = takeOff(good ? Purpose::upkeep : Purpose::renewal, refused);
        fly(lock, *flight, call);
        if (good) {
            return flight->token.value_or(good->token);
        }
        if (flight->asked || refused) {
            return *flight->token;
        }
        // The token file had it, and it may be due for early renewal.
    }
}

bool Session::Impl::signOut() {
    Call call{bootTime() + settings.timeout, cancelled};
    std::unique_lock lock(mutex);
    while (current) {
        const std::shared_ptr<Flight> other = current;
        wait(lock, *other, call);
    }
    const auto flight = takeOff(Purpose::signOut, std::nullopt);
    fly(lock, *flight, call);
    return flight->told;
}

std::shared_ptr<Flight> Session::Impl::takeOff(Purpose purpose,
                                               const std::optional<std::string>& refused) {
    auto flight = std::make_shared<Flight>();
    flight->purpose = purpose;
    flight->refused = refused;
    current = flight;
    return flight;
}

// cancel() cannot wake it, because it may run in a signal handler.
void Session::Impl::wait(std::unique_lock<std::mutex>& lock, const Flight& flight,
                         const Call& call) {
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

void Session::Impl::fly(std::unique_lock<std::mutex>& lock, Flight& flight, Call& call) {
    const Landing landing(*this, lock);
    try {
        if (flight.purpose == Purpose::renewal) {
            const TokenKeeper::Found found = keeper.renew(flight.refused, call);
            flight.token = found.token;
            flight.asked = found.asked;
        } else if (flight.purpose == Purpose::upkeep) {
            flight.token = keeper.keepUp(call);
        } else {
            flight.told = keeper.signOut(call);
        }
    } catch (...) {
        flight.failure = currentFailure();
        logFailure(*flight.failure);
        throw *flight.failure;
    }
}

Session::Session(const Settings& settings, int version)
    : impl(throwingSessionExceptions([&] {
          watchForks();
          try {
              return std::make_unique<Impl>(checkedSettings(settings, version));
          } catch (const Failure& failure) {
              logFailure(failure);
              throw;
          }
      })) {}

Session::~Session() {
    if (impl->isInherited()) {
        static_cast<void>(
            impl.release());  // its mutexes may be held by threads that the child does not have
    }
}

AccessToken Session::accessToken() {
    return throwingSessionExceptions([&] {
        impl->check();
        AccessToken token;
        if (impl->keeper.take(token)) {
            return token;
        }
        return impl->obtain(std::nullopt);
    });
}

AccessToken Session::renew(const std::string& refused) {
    return throwingSessionExceptions([&] {
        impl->check();
        return impl->obtain(refused);
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
