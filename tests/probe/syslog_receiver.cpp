// Takes what programs send to syslog at a datagram socket.
//
// usage: syslog_receiver SOCKET
//
// Prints "ready" when the socket is there; then, for each byte of its input, the messages that have
// come since, one a line in hexadecimal digits, and ".". Ends with its input. Messages are taken at
// once, since few fit into the socket's queue and a program that finds it full has to wait.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int openSocket(const char* path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const int log = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    if (log < 0 || ::bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::perror(path);
        std::exit(EXIT_FAILURE);
    }
    return log;
}

void takeMessages(int log, std::string& messages) {
    static std::array<unsigned char, 1 << 20> message;
    ssize_t size = 0;
    while ((size = ::recv(log, message.data(), message.size(), MSG_DONTWAIT)) >= 0) {
        for (ssize_t i = 0; i < size; ++i) {
            constexpr const char* kDigits = "0123456789abcdef";
            const unsigned char byte = message[static_cast<std::size_t>(i)];
            messages += kDigits[byte >> 4U];
            messages += kDigits[byte & 15U];
        }
        messages += '\n';
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: syslog_receiver SOCKET\n", stderr);
        return EXIT_FAILURE;
    }
    const int log = openSocket(argv[1]);
    std::puts("ready");
    std::fflush(stdout);
    std::string messages;
    std::array<pollfd, 2> inputs = {{{log, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    while (::poll(inputs.data(), inputs.size(), -1) > 0) {
        takeMessages(log, messages);
        if (inputs[1].revents == 0) {
            continue;
        }
        char asked = 0;
        if (::read(STDIN_FILENO, &asked, 1) != 1) {
            break;
        }
        std::printf("%s.\n", messages.c_str());
        std::fflush(stdout);
        messages.clear();
    }
    ::unlink(argv[1]);
}
