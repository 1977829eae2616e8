// Requests that never come to a reply: no address, no server, no TLS, no trust. These need no
// environment of their own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "../support/environment.h"
#include "../support/host_profile.h"
#include "client.h"
#include "https_server.h"

namespace {

class RefusedTest : public ::testing::Test {
  protected:
    /** Request and grant fail with the same number, and the grant's text names the server. */
    void expectRefused(const std::string& server, OrbaHostError expected) {
        const Outcome request = sendRequest(server, "path", {{"id", "1"}});
        EXPECT_EQ(request.error, expected);
        EXPECT_FALSE(request.hasBody);
        profile_.writeWith("account_service", server);
        const Outcome grant = requestGrant("state");
        EXPECT_EQ(grant.error, expected);
        EXPECT_THAT(grant.text, ::testing::StartsWith("no grant: https://" + server +
                                                      "/device/api/fleet_lens_grant: "));
    }

    EnvironmentVariable noProxy_{"no_proxy", "*"};
    HostProfile profile_;
};

TEST_F(RefusedTest, CertificateUnknownToTheSystem) {
    const std::string certificate = profile_.folder().file("certificate.pem");
    const std::string key = profile_.folder().file("key.pem");
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 "
        "-subj /CN=localhost -addext subjectAltName=DNS:localhost -out " +
        certificate + " -keyout " + key + " 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
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
    socklen_t size = sizeof(address);
    ASSERT_EQ(::bind(bound, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::getsockname(bound, reinterpret_cast<sockaddr*>(&address), &size), 0);
    expectRefused("127.0.0.1:" + std::to_string(ntohs(address.sin_port)),
                  ORBA_HOST_REQUEST_NOT_CONNECTED);
    ::close(bound);
}

// No name server is asked: a part of a name has 63 characters at most.
TEST_F(RefusedTest, NameThatCannotExist) {
    expectRefused(std::string(64, 'a') + ".invalid", ORBA_HOST_REQUEST_NOT_RESOLVED);
}

}  // namespace
