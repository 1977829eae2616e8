// One request or grant, and all that came of it.
#ifndef ORBA_TESTS_PLATFORM_CLIENT_H
#define ORBA_TESTS_PLATFORM_CLIENT_H

#include <klib/klib.h>
#include <orba_host_errors.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>

#include <map>
#include <string>

struct Outcome {
    int error = ORBA_HOST_OK;
    bool hasBody = false;
    std::string text;  // the body, the grant, or the exception's text
};

inline Outcome sendRequest(const std::string& server, const std::string& path,
                           const std::map<std::string, std::string>& fields = {}) {
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
    const Outcome outcome = {-status, response.body != nullptr,
                             response.body == nullptr ? "" : response.body};
    ORBATOVRAHttpsResponseFree(&response);
    KLIBCSzHashFree(table);
    return outcome;
}

inline Outcome requestGrant(const std::string& state) {
    ORBATOVRAErrSet(0);
    try {
        return {ORBA_HOST_OK, true,
                orbatovra::AccountFleetLensService().Grant("a client", "openid fleet",
                                                           "https://nas.example/cb?x=1", state)};
    } catch (const orbatovra::TovraException& exception) {
        return {static_cast<int>(ORBATOVRAErrGet()), false, exception.what()};
    }
}

#endif  // ORBA_TESTS_PLATFORM_CLIENT_H
