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

/** What an operation gave: its text, or its error number with untouched output. */
struct Reading {
    int error = ORBA_HOST_OK;
    std::string text;
};

/** Calls `get(&output)`; on failure the output must be as it was, and the numbers must agree. */
template <typename Output, typename Get, typename TextOf>
Reading readInto(Get get, TextOf textOf) {
    Output output;
    std::memset(&output, 0x5A, sizeof(output));
    const Output before = output;
    ORBATOVRAErrSet(0);
    const int status = get(output);
    if (status == 0) {
        EXPECT_EQ(ORBATOVRAErrGet(), 0U);
        return {ORBA_HOST_OK, textOf(output)};
    }
    EXPECT_LT(status, 0);
    EXPECT_EQ(std::memcmp(&output, &before, sizeof(output)), 0) << "written on failure";
    return {-status, ""};
}

inline Reading readSerialNumber() {
    struct Buffer {
        char text[36];
    };
    return readInto<Buffer>([](Buffer& b) { return KLIBGetSerialNumber(b.text, sizeof(b.text)); },
                            [](const Buffer& b) { return std::string(b.text); });
}

/** What the account-service library's own error number adds: it must be the status. */
inline Reading sameNumber(const Reading& reading) {
    EXPECT_EQ(static_cast<int>(ORBATOVRAErrGet()), reading.error);
    return reading;
}

inline Reading readUserAgent() {
    struct Buffer {
        char text[256];
    };
    return sameNumber(readInto<Buffer>(
        [](Buffer& b) { return ORBATOVRAUserAgentNameGet(b.text, sizeof(b.text)); },
        [](const Buffer& b) { return std::string(b.text); }));
}

inline Reading readAccountId() {
    return sameNumber(readInto<TovraAccountRecord>(
        [](TovraAccountRecord& account) { return ORBATOVRAAccountGet(&account); },
        [](const TovraAccountRecord& account) { return std::string(account.id); }));
}

inline Reading readAuthKey() {
    return sameNumber(readInto<TovraAccountRecord>(
        [](TovraAccountRecord& account) { return ORBATOVRAAccountGet(&account); },
        [](const TovraAccountRecord& account) { return std::string(account.authKey); }));
}

inline Reading readAccountService() {
    return sameNumber(readInto<TovraServerConfigRecord>(
        [](TovraServerConfigRecord& config) { return ORBATOVRAServerConfigGet(&config); },
        [](const TovraServerConfigRecord& config) { return std::string(config.server); }));
}

inline Reading readAccessToken() {
    ORBATOVRAErrSet(0);
    try {
        return {ORBA_HOST_OK, orbatovra::AccountPkceService().GetAccessToken()};
    } catch (const orbatovra::TovraException& exception) {
        EXPECT_EQ(std::string(exception.what()).rfind("no PKCE access token: ", 0), 0U)
            << exception.what();
        return {static_cast<int>(ORBATOVRAErrGet()), ""};
    }
}

/** `room` is the size of the longest text that the operation can give; 0 for no limit. */
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

#endif  // ORBA_TESTS_PLATFORM_READERS_H
