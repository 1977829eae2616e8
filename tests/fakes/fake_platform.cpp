// The device's platform libraries: they tell what world().device says.
#include <klib/klib.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>
#include <orbaudc/orbaudc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fakes.h"

using fakes::world;

struct KLIBCSzHash {
    std::vector<std::pair<std::string, std::string>> fields;
};

namespace {

std::string decimal(std::size_t number) { return std::to_string(number); }

template <std::size_t size>
void write(char (&out)[size], const std::string& text) {
    text.copy(out, size - 1);
}

// Whether the caller has zeroed the record.
bool allZero(const void* record, std::size_t size) {
    const auto* const bytes = static_cast<const unsigned char*>(record);
    return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

std::string zeroed(const void* record, std::size_t size) {
    return allZero(record, size) ? "zeroed" : "not zeroed";
}

}  // namespace

extern "C" {

int KLIBCFileTouch(const char* path) {
    return world().enter("KLIBCFileTouch", path) ? -1 : world().device.touchResult;
}

int KLIBGetSerialNumber(char* serial, std::size_t size) {
    if (world().enter("KLIBGetSerialNumber", zeroed(serial, size) + ", " + decimal(size))) {
        return -1;
    }
    if (world().device.serialResult == 0) {
        world().device.serial.copy(serial, size);
    }
    return world().device.serialResult;
}

KLIBCSzHash* KLIBCSzHashAlloc(int size) {
    if (world().enter("KLIBCSzHashAlloc", std::to_string(size)) || world().device.tableFails) {
        return nullptr;
    }
    world().held.insert("table");
    return new KLIBCSzHash();
}

// Replaces the table each time, as the real one may do.
int KLIBCSzHashSetValue(KLIBCSzHash** table, const char* key, const char* value) {
    if (world().enter("KLIBCSzHashSetValue", std::string(key) + ", " + value)) {
        return -1;
    }
    auto* const grown = new KLIBCSzHash(**table);
    grown->fields.emplace_back(key, value);
    delete *table;
    *table = grown;
    return 0;
}

void KLIBCSzHashFree(KLIBCSzHash* table) {
    world().enter("KLIBCSzHashFree", "");
    world().release("table");
    delete table;
}

void ORBATOVRAErrSet(unsigned int code) {
    world().enter("ORBATOVRAErrSet", std::to_string(code));
    world().device.errorNumber = code;
}

unsigned int ORBATOVRAErrGet(void) {
    world().enter("ORBATOVRAErrGet", "");
    return world().device.errorNumber;
}

int ORBATOVRAUserAgentNameGet(char* name, std::size_t size) {
    const bool fails = world().enter("ORBATOVRAUserAgentNameGet", decimal(size));
    if (fails || world().device.userAgentResult != 0) {
        world().device.errorNumber = 4000000000U;
        return fails ? -1 : world().device.userAgentResult;
    }
    std::snprintf(name, size, "%s", world().device.userAgent.c_str());
    return 0;
}

int ORBATOVRAAccountGet(TovraAccountRecord* account) {
    if (world().enter("ORBATOVRAAccountGet", zeroed(account, sizeof *account))) {
        return -1;
    }
    write(account->id, world().device.accountId);
    write(account->authKey, world().device.authKey);
    return world().device.accountResult;
}

int ORBATOVRAServerConfigGet(TovraServerConfigRecord* config) {
    if (world().enter("ORBATOVRAServerConfigGet", zeroed(config, sizeof *config))) {
        return -1;
    }
    write(config->server, world().device.server);
    return world().device.configResult;
}

int ORBATOVRAHttpsRequestSend(const TovraHttpsRequestRecord* request,
                              TovraHttpsResponseRecord* response) {
    const std::string rest = zeroed(request->reserved, sizeof request->reserved);
    if (world().enter("ORBATOVRAHttpsRequestSend",
                      std::string(request->server) + ", " + request->path + ", " + rest + ", " +
                          std::to_string(request->option0) + ", " +
                          std::to_string(request->option1) + ", response " +
                          zeroed(response, sizeof *response))) {
        return -1;
    }
    world().loginFields = request->parameters->fields;
    if (world().device.reply && world().device.sendResult >= 0) {
        response->body = strdup(world().device.reply->c_str());
        world().held.insert("response");
    }
    return world().device.sendResult;
}

void ORBATOVRAHttpsResponseFree(TovraHttpsResponseRecord* response) {
    world().enter("ORBATOVRAHttpsResponseFree", response->body == nullptr ? "empty" : "body");
    if (response->body != nullptr) {
        world().release("response");
        std::free(response->body);
        response->body = nullptr;
    }
}

int ORBATOVRAAccountRemove(void) {
    world().enter("ORBATOVRAAccountRemove", "");
    return world().device.removeResult;
}

int ORBAUDCPseudonymise(char** pseudonym, const char* serial, std::size_t length) {
    if (world().enter("ORBAUDCPseudonymise",
                      std::string(*pseudonym == nullptr ? "null" : "not null") + ", " +
                          std::string(serial, length) + ", " + decimal(length)) ||
        world().device.pseudonymResult != 0) {
        return world().device.pseudonymResult == 0 ? -1 : world().device.pseudonymResult;
    }
    *pseudonym = world().device.pseudonym ? world().device.pseudonym->data() : nullptr;
    return 0;
}

}  // extern "C"

namespace orbatovra {

TovraException::TovraException(std::string text) : text_(std::move(text)) {}
const char* TovraException::what() const noexcept { return text_.c_str(); }

AccountPkceService::AccountPkceService() {
    world().enter("AccountPkceService", "");
    world().held.insert("pkce service");
}

AccountPkceService::~AccountPkceService() {
    world().enter("~AccountPkceService", "");
    world().release("pkce service");
}

std::string AccountPkceService::GetAccessToken() const {
    world().enter("GetAccessToken", "");
    return world().device.accessToken();
}

AccountFleetLensService::AccountFleetLensService() {
    world().enter("AccountFleetLensService", "");
    world().held.insert("fleet lens service");
}

AccountFleetLensService::~AccountFleetLensService() {
    world().enter("~AccountFleetLensService", "");
    world().release("fleet lens service");
}

std::string AccountFleetLensService::Grant(const std::string& clientId, const std::string& scope,
                                           const std::string& redirectUri,
                                           const std::string& state) const {
    world().enter("Grant", clientId + ", " + scope + ", " + redirectUri + ", " + state);
    return world().device.grant();
}

}  // namespace orbatovra
