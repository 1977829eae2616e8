#include "https_server.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr int kReadEnd = 0;
constexpr int kWriteEnd = 1;

[[noreturn]] void runServer(const int (&input)[2], const int (&output)[2],
                            const std::vector<std::string>& arguments) {
    ::dup2(input[kReadEnd], STDIN_FILENO);
    ::dup2(output[kWriteEnd], STDOUT_FILENO);
    std::vector<const char*> command = {ORBA_NODE, ORBA_HTTPS_SERVER};
    for (const std::string& argument : arguments) {
        command.push_back(argument.c_str());
    }
    command.push_back(nullptr);
    ::execv(ORBA_NODE, const_cast<char* const*>(command.data()));
    ::_exit(127);
}

std::string readLine(int file) {
    std::string line;
    char c = 0;
    while (::read(file, &c, 1) == 1 && c != '\n') {
        line += c;
    }
    return line;
}

}  // namespace

HttpsServer::HttpsServer(const std::vector<std::string>& arguments) {
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipes for the HTTPS server");
    }
    process_ = ::fork();
    if (process_ == 0) {
        runServer(input, output, arguments);
    }
    ::close(input[kReadEnd]);
    ::close(output[kWriteEnd]);
    input_ = input[kWriteEnd];
    port_ = readLine(output[kReadEnd]);
    ::close(output[kReadEnd]);
    if (port_.empty()) {
        ::close(input_);
        ::waitpid(process_, nullptr, 0);
        throw std::runtime_error("the HTTPS server did not start");
    }
}

HttpsServer::~HttpsServer() {
    ::close(input_);  // the server ends with its input
    ::waitpid(process_, nullptr, 0);
}
