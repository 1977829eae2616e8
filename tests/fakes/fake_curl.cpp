// libcurl's easy interface, as far as the library uses it. Nothing here reaches the network.
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fakes.h"

// libcurl's variadic functions have an enum in front of the ellipsis.
#pragma GCC diagnostic ignored "-Wvarargs"

// The header's type-checking macros would hide the functions that are defined here.
#undef curl_easy_setopt
#undef curl_easy_getinfo

using fakes::OwnWork;
using fakes::world;

namespace {

struct Handle {
    std::string name;
    fakes::Request request;
    curl_write_callback write = nullptr;
    void* writeData = nullptr;
    char* errorBuffer = nullptr;
    long status = 0;
    std::optional<std::string> redirectUrl;
};

Handle& handleOf(void* curl) { return *static_cast<Handle*>(curl); }

#define ORBA_NAMED(option) \
    { option, #option }
const std::map<CURLoption, std::string> kOptionNames = {
    ORBA_NAMED(CURLOPT_CAPATH),
    ORBA_NAMED(CURLOPT_COOKIEFILE),
    ORBA_NAMED(CURLOPT_COOKIEJAR),
    ORBA_NAMED(CURLOPT_CUSTOMREQUEST),
    ORBA_NAMED(CURLOPT_ERRORBUFFER),
    ORBA_NAMED(CURLOPT_FOLLOWLOCATION),
    ORBA_NAMED(CURLOPT_HTTPHEADER),
    ORBA_NAMED(CURLOPT_IPRESOLVE),
    ORBA_NAMED(CURLOPT_NOSIGNAL),
    ORBA_NAMED(CURLOPT_POSTFIELDS),
    ORBA_NAMED(CURLOPT_PROTOCOLS_STR),
    ORBA_NAMED(CURLOPT_POSTFIELDSIZE_LARGE),
    ORBA_NAMED(CURLOPT_SSLVERSION),
    ORBA_NAMED(CURLOPT_SSL_VERIFYHOST),
    ORBA_NAMED(CURLOPT_SSL_VERIFYPEER),
    ORBA_NAMED(CURLOPT_TIMEOUT),
    ORBA_NAMED(CURLOPT_URL),
    ORBA_NAMED(CURLOPT_USERAGENT),
    ORBA_NAMED(CURLOPT_WRITEDATA),
    ORBA_NAMED(CURLOPT_WRITEFUNCTION),
};
#undef ORBA_NAMED

std::string optionName(CURLoption option) {
    const auto found = kOptionNames.find(option);
    return found == kOptionNames.end() ? "option " + std::to_string(option) : found->second;
}

std::vector<std::string> linesOf(const curl_slist* list) {
    std::vector<std::string> lines;
    for (; list != nullptr; list = list->next) {
        lines.emplace_back(list->data);
    }
    return lines;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += (text.empty() ? "" : " | ") + line;
    }
    return text;
}

// Takes the option's value, in the type that libcurl's manual gives it, as text.
std::string takeValue(Handle& handle, CURLoption option, va_list arguments) {
    switch (option) {
        case CURLOPT_WRITEFUNCTION:
            handle.write = va_arg(arguments, curl_write_callback);
            return "callback";
        case CURLOPT_WRITEDATA:
            handle.writeData = va_arg(arguments, void*);
            return "data";
        case CURLOPT_ERRORBUFFER:
            handle.errorBuffer = va_arg(arguments, char*);
            return "buffer";
        case CURLOPT_HTTPHEADER:
            handle.request.headers = linesOf(va_arg(arguments, curl_slist*));
            return joined(handle.request.headers);
        default:
            break;
    }
    if (option >= CURLOPTTYPE_OFF_T) {
        return std::to_string(va_arg(arguments, curl_off_t));
    }
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        return std::to_string(va_arg(arguments, long));
    }
    const char* const text = va_arg(arguments, const char*);
    return text == nullptr ? "null" : text;
}

std::string nameOfList(const curl_slist* list) {
    return list == nullptr ? "null" : "list[" + std::string(list->data) + "]";
}

void freeList(curl_slist* list) {
    while (list != nullptr) {
        curl_slist* const next = list->next;
        std::free(list->data);
        delete list;
        list = next;
    }
}

// A text that the caller has to give back with curl_free().
char* giveText(const std::string& text) {
    auto* const out = static_cast<char*>(std::malloc(text.size() + 1));
    std::memcpy(out, text.c_str(), text.size() + 1);
    world().hold(out, "text", [out] { std::free(out); });
    return out;
}

}  // namespace

extern "C" {

CURL* curl_easy_init(void) {
    const OwnWork own;
    if (world().enter("curl_easy_init", "")) {
        return nullptr;
    }
    auto* const handle = new Handle();
    handle->name = "curl" + std::to_string(world().counts["curl_easy_init"]);
    world().hold(handle, handle->name, [handle] { delete handle; });
    return handle;
}

CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
    const OwnWork own;
    Handle& handle = handleOf(curl);
    va_list arguments;
    va_start(arguments, option);
    const std::string value = takeValue(handle, option, arguments);
    va_end(arguments);
    const bool fails = world().enter("curl_easy_setopt", optionName(option) + ", " + value);
    const auto failure = world().optionFails.find(option);
    if (fails || failure != world().optionFails.end()) {
        return fails ? CURLE_OUT_OF_MEMORY : failure->second;
    }
    handle.request.options[option] = value;
    return CURLE_OK;
}

CURLcode curl_easy_perform(CURL* curl) {
    const OwnWork own;
    Handle& handle = handleOf(curl);
    const bool fails = world().enter("curl_easy_perform", handle.name);
    world().requests.push_back(handle.request);
    if (fails) {
        return CURLE_COULDNT_CONNECT;
    }
    fakes::Transfer transfer;
    if (!world().transfers.empty()) {
        transfer = world().transfers.front();
        if (world().transfers.size() > 1) {
            world().transfers.pop_front();
        }
    }
    if (transfer.pieces.empty() && !transfer.body.empty()) {
        transfer.pieces.push_back(transfer.body);
    }
    for (std::string& piece : transfer.pieces) {
        const std::size_t taken = own.callBack([&] {
            return handle.write(piece.data(), transfer.itemSize, piece.size() / transfer.itemSize,
                                handle.writeData);
        });
        if (taken != piece.size()) {
            return CURLE_WRITE_ERROR;
        }
    }
    if (!transfer.error.empty()) {
        handle.errorBuffer[transfer.error.copy(handle.errorBuffer, CURL_ERROR_SIZE - 1)] = '\0';
    }
    handle.status = transfer.status;
    handle.redirectUrl = transfer.redirectUrl;
    return transfer.result;
}

CURLcode curl_easy_getinfo(CURL* curl, CURLINFO info, ...) {
    const OwnWork own;
    Handle& handle = handleOf(curl);
    va_list arguments;
    va_start(arguments, info);
    void* const out = va_arg(arguments, void*);
    va_end(arguments);
    if (info == CURLINFO_RESPONSE_CODE) {
        if (world().enter("curl_easy_getinfo", "CURLINFO_RESPONSE_CODE")) {
            return CURLE_OUT_OF_MEMORY;
        }
        if (world().statusResult == CURLE_OK) {
            *static_cast<long*>(out) = handle.status;
        }
        return world().statusResult;
    }
    if (info != CURLINFO_REDIRECT_URL) {
        world().enter("curl_easy_getinfo", "info " + std::to_string(info));
        return CURLE_UNKNOWN_OPTION;
    }
    if (world().enter("curl_easy_getinfo", "CURLINFO_REDIRECT_URL")) {
        return CURLE_OUT_OF_MEMORY;
    }
    *static_cast<char**>(out) = handle.redirectUrl ? handle.redirectUrl->data() : nullptr;
    return world().redirectResult;
}

const char* curl_easy_strerror(CURLcode /*code*/) { return "the stand-in's text"; }

void curl_easy_cleanup(CURL* curl) {
    const OwnWork own;
    world().release(curl, "curl_easy_cleanup");
    const std::unique_ptr<Handle> handle(static_cast<Handle*>(curl));
    world().note("curl_easy_cleanup", handle->name);
}

curl_slist* curl_slist_append(curl_slist* list, const char* line) {
    const OwnWork own;
    if (world().enter("curl_slist_append", nameOfList(list) + ", " + line)) {
        return nullptr;
    }
    auto* const added = new curl_slist{strdup(line), nullptr};
    if (list == nullptr) {
        world().hold(added, nameOfList(added), [added] { freeList(added); });
        return added;
    }
    curl_slist* last = list;
    while (last->next != nullptr) {
        last = last->next;
    }
    last->next = added;
    return list;
}

void curl_slist_free_all(curl_slist* list) {
    const OwnWork own;
    world().release(list, "curl_slist_free_all");
    world().note("curl_slist_free_all", nameOfList(list));
    freeList(list);
}

// Encodes "%", "&", "=", "/" and the blank, enough to see that values and only values pass here.
char* curl_easy_escape(CURL* curl, const char* text, int length) {
    const OwnWork own;
    const std::string value(text, static_cast<std::size_t>(length));
    if (world().enter("curl_easy_escape", handleOf(curl).name + ", " + value) ||
        world().escapeFails) {
        return nullptr;
    }
    std::string escaped;
    for (const char c : value) {
        static const std::map<char, std::string> encoded = {
            {'%', "%25"}, {'&', "%26"}, {'=', "%3D"}, {'/', "%2F"}, {' ', "%20"}};
        const auto found = encoded.find(c);
        escaped += found == encoded.end() ? std::string(1, c) : found->second;
    }
    return giveText(escaped);
}

char* curl_easy_unescape(CURL* curl, const char* text, int length, int* outLength) {
    const OwnWork own;
    const std::string value(text, static_cast<std::size_t>(length));
    if (world().enter("curl_easy_unescape", handleOf(curl).name + ", " + value) ||
        world().unescapeFails) {
        return nullptr;
    }
    std::string decoded;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const std::string digits = value[i] == '%' ? value.substr(i + 1, 2) : "";
        if (digits.size() == 2 && std::isxdigit(static_cast<unsigned char>(digits[0])) != 0 &&
            std::isxdigit(static_cast<unsigned char>(digits[1])) != 0) {
            decoded += static_cast<char>(std::stoi(digits, nullptr, 16));
            i += 2;
        } else {
            decoded += value[i];
        }
    }
    *outLength = static_cast<int>(decoded.size());
    return giveText(decoded);
}

void curl_free(void* text) {
    const OwnWork own;
    world().release(text, "curl_free");
    world().note("curl_free", "");
    std::free(text);
}

}  // extern "C"
