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
    int toServer[2];
    int fromServer[2];
    if (::pipe2(toServer, O_CLOEXEC) != 0 || ::pipe2(fromServer, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipes for the HTTPS server");
    }
    process = ::fork();
    if (process == 0) {
        runServer(toServer, fromServer, arguments);
    }
    ::close(toServer[kReadEnd]);
    ::close(fromServer[kWriteEnd]);
    input = toServer[kWriteEnd];
    port = readLine(fromServer[kReadEnd]);
    ::close(fromServer[kReadEnd]);
    if (port.empty()) {
        ::close(input);
        ::waitpid(process, nullptr, 0);
        throw std::runtime_error("the HTTPS server did not start");
    }
}

HttpsServer::~HttpsServer() {
    ::close(input);  // the server ends with its input
    ::waitpid(process, nullptr, 0);
}

Reading sendRequest(const std::string& server, const std::string& path,
                    const std::map<std::string, std::string>& fields) {
    KLIBCSzHash* table = KLIBCSzHashAlloc(1024);
    for (const auto& [key, value] : fields) {
        KLIBCSzHashSetValue(&table, key.c_str(), value.c_str());
    }
    TovraHttpsRequestRecord request{};
    request.server = server.c_str();
    request.path = path.c_str();
    request.parameters = table;
    request.option1 = 1;
    TovraHttpsResponseRecord response{};
    const int status = ORBATOVRAHttpsRequestSend(&request, &response);
    Reading reading = {-status, response.body == nullptr ? "" : response.body};
    ORBATOVRAHttpsResponseFree(&response);
    KLIBCSzHashFree(table);
    return reading;
}
