// The device's platform libraries, which return what world().device contains.
#include <klib/klib.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>
#include <orbaudc/orbaudc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fakes.h"

using fakes::OwnWork;
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

void holdTable(KLIBCSzHash* table) {
    world().hold(table, "table", [table] { delete table; });
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
    const OwnWork own;
    return world().enter("KLIBCFileTouch", path) ? -1 : world().device.touchResult;
}

int KLIBGetSerialNumber(char* serial, std::size_t size) {
    const OwnWork own;
    if (world().enter("KLIBGetSerialNumber", zeroed(serial, size) + ", " + decimal(size))) {
        return -1;
    }
    if (world().device.serialResult == 0) {
        world().device.serial.copy(serial, size);
    }
    return world().device.serialResult;
}

KLIBCSzHash* KLIBCSzHashAlloc(int size) {
    const OwnWork own;
    if (world().enter("KLIBCSzHashAlloc", std::to_string(size)) || world().device.tableFails) {
        return nullptr;
    }
    auto* const table = new KLIBCSzHash();
    holdTable(table);
    return table;
}

// Replaces the table each time, as the real one may do.
int KLIBCSzHashSetValue(KLIBCSzHash** table, const char* key, const char* value) {
    const OwnWork own;
    if (world().enter("KLIBCSzHashSetValue", std::string(key) + ", " + value)) {
        return -1;
    }
    auto* const grown = new KLIBCSzHash(**table);
    grown->fields.emplace_back(key, value);
    world().release(*table, "KLIBCSzHashSetValue");
    delete *table;
    *table = grown;
    holdTable(grown);
    return 0;
}

void KLIBCSzHashFree(KLIBCSzHash* table) {
    const OwnWork own;
    world().note("KLIBCSzHashFree", "");
    world().release(table, "KLIBCSzHashFree");
    delete table;
}

void ORBATOVRAErrSet(unsigned int code) {
    const OwnWork own;
    world().note("ORBATOVRAErrSet", std::to_string(code));
    world().device.errorNumber = code;
}

unsigned int ORBATOVRAErrGet(void) {
    const OwnWork own;
    world().note("ORBATOVRAErrGet", "");
    return world().device.errorNumber;
}

int ORBATOVRAUserAgentNameGet(char* name, std::size_t size) {
    const OwnWork own;
    const bool fails = world().enter("ORBATOVRAUserAgentNameGet", decimal(size));
    if (fails || world().device.userAgentResult != 0) {
        world().device.errorNumber = 4000000000U;
        return fails ? -1 : world().device.userAgentResult;
    }
    std::snprintf(name, size, "%s", world().device.userAgent.c_str());
    return 0;
}

int ORBATOVRAAccountGet(TovraAccountRecord* account) {
    const OwnWork own;
    if (world().enter("ORBATOVRAAccountGet", zeroed(account, sizeof *account))) {
        return -1;
    }
    write(account->id, world().device.accountId);
    write(account->authKey, world().device.authKey);
    return world().device.accountResult;
}

int ORBATOVRAServerConfigGet(TovraServerConfigRecord* config) {
    const OwnWork own;
    if (world().enter("ORBATOVRAServerConfigGet", zeroed(config, sizeof *config))) {
        return -1;
    }
    write(config->server, world().device.server);
    return world().device.configResult;
}

int ORBATOVRAHttpsRequestSend(const TovraHttpsRequestRecord* request,
                              TovraHttpsResponseRecord* response) {
    const OwnWork own;
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
        char* const body = strdup(world().device.reply->c_str());
        world().hold(body, "response", [body] { std::free(body); });
        response->body = body;
    }
    return world().device.sendResult;
}

void ORBATOVRAHttpsResponseFree(TovraHttpsResponseRecord* response) {
    const OwnWork own;
    world().note("ORBATOVRAHttpsResponseFree", response->body == nullptr ? "empty" : "body");
    if (response->body != nullptr) {
        world().release(response->body, "ORBATOVRAHttpsResponseFree");
        std::free(response->body);
        response->body = nullptr;
    }
}

int ORBATOVRAAccountRemove(void) {
    const OwnWork own;
    return world().enter("ORBATOVRAAccountRemove", "") ? -1 : world().device.removeResult;
}

int ORBAUDCPseudonymise(char** pseudonym, const char* serial, std::size_t length) {
    const OwnWork own;
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

TovraException::TovraException(std::string text) : message(std::move(text)) {}
const char* TovraException::what() const noexcept { return message.c_str(); }

namespace {

void enterOrThrow(const std::string& name, const std::string& arguments) {
    if (world().enter(name, arguments)) {
        throw TovraException(name + " fails");
    }
}

// The services are objects of the caller's.
void nothingToLetGo() {}

}  // namespace

AccountPkceService::AccountPkceService() {
    const OwnWork own;
    enterOrThrow("AccountPkceService", "");
    world().hold(this, "pkce service", nothingToLetGo);
}

AccountPkceService::~AccountPkceService() {
    const OwnWork own;
    world().note("~AccountPkceService", "");
    world().release(this, "~AccountPkceService");
}

std::string AccountPkceService::GetAccessToken() const {
    const OwnWork own;
    enterOrThrow("GetAccessToken", "");
    return world().device.accessToken();
}

AccountFleetLensService::AccountFleetLensService() {
    const OwnWork own;
    enterOrThrow("AccountFleetLensService", "");
    world().hold(this, "fleet lens service", nothingToLetGo);
}

AccountFleetLensService::~AccountFleetLensService() {
    const OwnWork own;
    world().note("~AccountFleetLensService", "");
    world().release(this, "~AccountFleetLensService");
}

std::string AccountFleetLensService::Grant(const std::string& clientId, const std::string& scope,
                                           const std::string& redirectUri,
                                           const std::string& state) const {
    const OwnWork own;
    enterOrThrow("Grant", clientId + ", " + scope + ", " + redirectUri + ", " + state);
    return world().device.grant();
}

}  // namespace orbatovra
