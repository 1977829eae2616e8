// Every operation that reads the device profile, called in one way.
#ifndef ORBA_TESTS_PLATFORM_READERS_H
#define ORBA_TESTS_PLATFORM_READERS_H

#include <gtest/gtest.h>
#include <klib/klib.h>
#include <orba_host_errors.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>

#include <cstring>
#include <ostream>
#include <string>

// What an operation gave: its text, or its error number with untouched output.
struct Reading {
    int error = ORBA_HOST_OK;
    std::string text;
};

// Calls `get` for the output: on failure the output must be as it was. `text` is a part of it.
template <class Output, class Get, class Text>
Reading readInto(const Get& get, const Text& text) {
    Output output;
    std::memset(&output, 0x5A, sizeof output);
    const Output before = output;
    ORBATOVRAErrSet(0);
    const int status = get(output);
    if (status == 0) {
        EXPECT_EQ(0U, ORBATOVRAErrGet());
        return {ORBA_HOST_OK, text(output)};
    }
    EXPECT_GT(0, status);
    EXPECT_EQ(0, std::memcmp(&output, &before, sizeof output)) << "written on failure";
    return {-status, ""};
}

template <std::size_t size>
struct Buffer {
    char text[size];
};

inline Reading readSerialNumber() {
    return readInto<Buffer<36>>(
        [](auto& buffer) { return KLIBGetSerialNumber(buffer.text, sizeof buffer); },
        [](const auto& buffer) { return buffer.text; });
}

// The account-service library's own error number must be the status.
inline Reading sameNumber(const Reading& reading) {
    EXPECT_EQ(reading.error, static_cast<int>(ORBATOVRAErrGet()));
    return reading;
}

inline Reading readUserAgent() {
    return sameNumber(readInto<Buffer<256>>(
        [](auto& buffer) { return ORBATOVRAUserAgentNameGet(buffer.text, sizeof buffer); },
        [](const auto& buffer) { return buffer.text; }));
}

inline int getAccount(TovraAccountRecord& account) { return ORBATOVRAAccountGet(&account); }

inline Reading readAccountId() {
    return sameNumber(readInto<TovraAccountRecord>(
        getAccount, [](const TovraAccountRecord& account) { return account.id; }));
}

inline Reading readAuthKey() {
    return sameNumber(readInto<TovraAccountRecord>(
        getAccount, [](const TovraAccountRecord& account) { return account.authKey; }));
}

inline Reading readAccountService() {
    return sameNumber(readInto<TovraServerConfigRecord>(
        [](TovraServerConfigRecord& config) { return ORBATOVRAServerConfigGet(&config); },
        [](const TovraServerConfigRecord& config) { return config.server; }));
}

// Calls a service; the text of a failure is its exception's.
template <class Use>
Reading readService(const Use& use) {
    ORBATOVRAErrSet(0);
    try {
        return {ORBA_HOST_OK, use()};
    } catch (const orbatovra::TovraException& exception) {
        return {static_cast<int>(ORBATOVRAErrGet()), exception.what()};
    }
}

inline Reading readAccessToken() {
    return readService([] { return orbatovra::AccountPkceService().GetAccessToken(); });
}

inline Reading requestGrant(const std::string& state = "state") {
    return readService([&] {
        return orbatovra::AccountFleetLensService().Grant("a client", "openid fleet",
                                                          "https://nas.example/cb?x=1", state);
    });
}

// `room` is the size of the longest text that the operation can give; 0 for no limit.
struct Reader {
    const char* name;
    const char* member;
    std::size_t room;
    Reading (*read)();
};

inline std::ostream& operator<<(std::ostream& stream, const Reader& reader) {
    return stream << reader.name;
}

inline const Reader kReaders[] = {
    {"SerialNumber", "serial_number", 35, readSerialNumber},
    {"UserAgent", "user_agent", 255, readUserAgent},
    {"AccountId", "account.id", 4095, readAccountId},
    {"AuthKey", "account.auth_key", 4095, readAuthKey},
    {"AccountService", "account_service", 2047, readAccountService},
    {"AccessToken", "pkce_access_token", 0, readAccessToken},
};

#endif
