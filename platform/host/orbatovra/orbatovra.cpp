#include <json/json.h>
#include <orbatovra/orbatovra.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>

#include "../common/failure.h"
#include "../common/profile.h"
#include "../klib/klib_host.h"
#include "https_post.h"
#include "replace_file.h"

using orba_host::Failure;
using orba_host::guarded;
using orba_host::HttpsReply;
using orba_host::Profile;
using orba_host::requireArgument;

namespace {

thread_local unsigned int lastError = ORBA_HOST_OK;

template <class Work>
int statusOf(Work&& work) noexcept {
    const OrbaHostError error = guarded(work);
    if (error != ORBA_HOST_OK) {
        ORBATOVRAErrSet(error);
    }
    return -error;
}

void copyText(const std::string& text, char* buffer) {
    std::memcpy(buffer, text.c_str(), text.size() + 1);
}

std::map<std::string, std::string> formOf(const KLIBCSzHash* table) {
    std::map<std::string, std::string> form;
    const char* value = nullptr;
    for (const char* key = KLIBHostSzHashNext(table, nullptr, &value); key != nullptr;
         key = KLIBHostSzHashNext(table, key, &value)) {
        form.emplace(key, value);
    }
    return form;
}

// The caller releases it from C, hence the C allocator.
char* newBody(const std::string& body) {
    if (body.empty()) {
        return nullptr;
    }
    auto* copy = static_cast<char*>(std::malloc(body.size() + 1));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(copy, body.c_str(), body.size() + 1);
    return copy;
}

std::string jsonText(const Json::Value& document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "    ";
    builder["emitUTF8"] = true;
    std::string text = Json::writeString(builder, document) + "\n";
    // jsoncpp reads half a surrogate pair, and writes it as bytes that it would not read again.
    if (!orba_host::parseJsonObject(text)) {
        throw Failure(ORBA_HOST_PROFILE_MALFORMED, "the device profile is not proper Unicode");
    }
    return text;
}

}  // namespace

void ORBATOVRAErrSet(unsigned int code) { lastError = code; }

unsigned int ORBATOVRAErrGet(void) { return lastError; }

int ORBATOVRAUserAgentNameGet(char* name, size_t size) {
    return statusOf([&] {
        requireArgument(name != nullptr && size > 0, "a buffer for the user agent is needed");
        copyText(Profile::read().text("user_agent", size), name);
    });
}

int ORBATOVRAAccountGet(TovraAccountRecord* account) {
    return statusOf([&] {
        requireArgument(account != nullptr, "an account record is needed");
        const Profile profile = Profile::read();
        const std::string id = profile.text("account.id", sizeof(account->id));
        const std::string authKey = profile.text("account.auth_key", sizeof(account->authKey));
        *account = {};
        copyText(id, account->id);
        copyText(authKey, account->authKey);
    });
}

int ORBATOVRAServerConfigGet(TovraServerConfigRecord* config) {
    return statusOf([&] {
        requireArgument(config != nullptr, "a server configuration record is needed");
        const std::string server = Profile::read().text("account_service", sizeof(config->server));
        *config = {};
        copyText(server, config->server);
    });
}

int ORBATOVRAHttpsRequestSend(const TovraHttpsRequestRecord* request,
                              TovraHttpsResponseRecord* response) {
    return statusOf([&] {
        requireArgument(request != nullptr && response != nullptr, "two records are needed");
        requireArgument(request->server != nullptr && request->path != nullptr &&
                            request->parameters != nullptr,
                        "a server, a path and a table are needed");
        const HttpsReply reply =
            orba_host::postForm(request->server, request->path, formOf(request->parameters));
        if (!reply.isSuccess()) {
            throw Failure(ORBA_HOST_REPLY_STATUS, "HTTP status " + std::to_string(reply.status));
        }
        response->body = newBody(reply.body);
    });
}

void ORBATOVRAHttpsResponseFree(TovraHttpsResponseRecord* response) {
    if (response != nullptr) {
        std::free(response->body);
        *response = {};
    }
}

int ORBATOVRAAccountRemove(void) {
    return statusOf([] {
        const Profile profile = Profile::read();
        Json::Value document = profile.document();
        bool linked = document.removeMember("account", nullptr);
        linked = document.removeMember("pkce_access_token", nullptr) || linked;
        if (linked) {
            orba_host::replaceFile(profile.path(), jsonText(document));
        }
    });
}
