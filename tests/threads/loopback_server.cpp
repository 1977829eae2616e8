#include "loopback_server.h"

#include <arpa/inet.h>
#include <json/json.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

void require(bool success, const char* what) {
    if (!success) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

sockaddr* asSocketAddress(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

std::string headerValue(const std::string& head, const std::string& name) {
    const std::size_t found = head.find("\r\n" + name + ": ");
    if (found == std::string::npos) {
        return "";
    }
    const std::size_t begin = found + name.size() + 4;
    return head.substr(begin, head.find("\r\n", begin) - begin);
}

// Reads until `text` is as long as `size` says; false when the client ends before.
template <class Size>
bool readUntil(int connection, std::string& text, const Size& size) {
    char piece[4096];
    while (text.size() < size()) {
        const ssize_t length = read(connection, piece, sizeof piece);
        if (length <= 0) {
            return false;
        }
        text.append(piece, static_cast<std::size_t>(length));
    }
    return true;
}

std::string answerTo(const std::string& head, const std::string& body) {
    const std::string line = head.substr(0, head.find("\r\n"));
    const std::size_t path = line.find(' ') + 1;
    Json::Value reply;
    reply["line"] = line;
    reply["cookie"] = headerValue(head, "Cookie");
    reply["body"] = body;
    const std::string text = reply.toStyledString();
    return "HTTP/1.1 200 OK\r\nConnection: close\r\nSet-Cookie: seen=" +
           line.substr(path, line.find(' ', path) - path) +
           "; Path=/\r\nContent-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text;
}

void answer(int connection) {
    std::string request;
    const auto endOfHead = [&] {
        const std::size_t end = request.find("\r\n\r\n");
        return end == std::string::npos ? request.size() + 1 : end + 4;
    };
    if (!readUntil(connection, request, endOfHead)) {
        return;
    }
    const std::string head = request.substr(0, endOfHead());
    std::string body = request.substr(head.size());
    const std::string length = headerValue(head, "Content-Length");
    const std::size_t bodySize = length.empty() ? 0 : std::stoul(length);
    if (readUntil(connection, body, [&] { return bodySize; })) {
        const std::string text = answerTo(head, body);
        send(connection, text.data(), text.size(), MSG_NOSIGNAL);
    }
}

}  // namespace

LoopbackServer::LoopbackServer() : listener(socket(AF_INET, SOCK_STREAM, 0)) {
    require(listener >= 0, "socket");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(bind(listener, asSocketAddress(address), sizeof address) == 0, "bind");
    require(listen(listener, SOMAXCONN) == 0, "listen");
    thread = std::thread([this] { serve(); });
}

LoopbackServer::~LoopbackServer() {
    shutdown(listener, SHUT_RDWR);  // ends the accept()
    thread.join();
    close(listener);
}

std::string LoopbackServer::url() const {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    require(getsockname(listener, asSocketAddress(address), &size) == 0, "getsockname");
    return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

void LoopbackServer::serve() const {
    for (int connection = accept(listener, nullptr, nullptr); connection >= 0;
         connection = accept(listener, nullptr, nullptr)) {
        answer(connection);
        close(connection);
    }
}
