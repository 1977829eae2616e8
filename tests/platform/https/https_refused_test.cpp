// Requests that never come to a reply: no address, no server, no TLS, no trust. These need no
// environment of their own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "../support/host_profile.h"
#include "https_server.h"

namespace {

class RefusedTest : public ::testing::Test {
  protected:
    // Request and grant fail with the same number, and the grant's text names the server.
    void expectRefused(const std::string& server, OrbaHostError expected) {
        EXPECT_EQ(expected, sendRequest(server, "path", {{"id", "1"}}).error);
        profile.writeWith("account_service", server);
        const Reading grant = requestGrant();
        EXPECT_EQ(expected, grant.error);
        EXPECT_THAT(grant.text, ::testing::StartsWith("no grant: https://" + server +
                                                      "/device/api/fleet_lens_grant: "));
    }

    EnvironmentVariable noProxy{"no_proxy", "*"};
    HostProfile profile;
};

TEST_F(RefusedTest, CertificateUnknownToTheSystem) {
    const std::string certificate = profile.folder().file("certificate.pem");
    const std::string key = profile.folder().file("key.pem");
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 "
        "-subj /CN=localhost -addext subjectAltName=DNS:localhost -out " +
        certificate + " -keyout " + key + " 2>&1";
    ASSERT_EQ(0, std::system(command.c_str())) << command;
    const HttpsServer server({certificate, key});
    expectRefused(server.at("localhost"), ORBA_HOST_REQUEST_CERTIFICATE);
}

TEST_F(RefusedTest, ServerWithoutTls) {
    const HttpsServer server({});
    expectRefused(server.at("localhost"), ORBA_HOST_REQUEST_TRANSPORT);
}

TEST_F(RefusedTest, PortWhereNobodyListens) {
    const int bound = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(0, ::bind(bound, reinterpret_cast<sockaddr*>(&address), size));
    ASSERT_EQ(0, ::getsockname(bound, reinterpret_cast<sockaddr*>(&address), &size));
    expectRefused("127.0.0.1:" + std::to_string(ntohs(address.sin_port)),
                  ORBA_HOST_REQUEST_NOT_CONNECTED);
    ::close(bound);
}

// No name server is asked: a part of a name has 63 characters at most.
TEST_F(RefusedTest, NameThatCannotExist) {
    expectRefused(std::string(64, 'a') + ".invalid", ORBA_HOST_REQUEST_NOT_RESOLVED);
}

}  // namespace
