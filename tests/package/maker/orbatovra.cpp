#include <orbatovra/orbatovra.h>

#include <cstdlib>
#include <utility>

#include "services.h"

void ORBATOVRAErrSet(unsigned int) {}
unsigned int ORBATOVRAErrGet(void) { return 0; }
int ORBATOVRAUserAgentNameGet(char*, size_t) { return -1; }
int ORBATOVRAAccountGet(TovraAccountRecord*) { return -1; }
int ORBATOVRAServerConfigGet(TovraServerConfigRecord*) { return -1; }
int ORBATOVRAHttpsRequestSend(const TovraHttpsRequestRecord*, TovraHttpsResponseRecord*) {
    return -1;
}
void ORBATOVRAHttpsResponseFree(TovraHttpsResponseRecord*) {}
int ORBATOVRAAccountRemove(void) { return -1; }

namespace orbatovra {

TovraException::TovraException(std::string what) : text(std::move(what)) {}
const char* TovraException::what() const noexcept { return text.c_str(); }

AccountPkceService::AccountPkceService() { state.fill('s'); }
AccountPkceService::~AccountPkceService() = default;
std::string AccountPkceService::GetAccessToken() const {
    if (std::getenv("MAKER_HAS_NO_TOKEN") != nullptr) {
        throw TovraException("the manufacturer's reason");
    }
    return token.assign(state.begin(), state.end());
}

AccountFleetLensService::AccountFleetLensService() : grant("the manufacturer's grant") {
    buffer.fill('b');
}
AccountFleetLensService::~AccountFleetLensService() = default;
std::string AccountFleetLensService::Grant(const std::string&, const std::string&,
                                           const std::string&, const std::string&) const {
    return grant;
}

}  // namespace orbatovra
