#include "fake_curl.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "faults.h"

// libcurl declares variadic functions behind a parameter that is promoted, so they are defined so.
#pragma GCC diagnostic ignored "-Wvarargs"

#undef curl_easy_setopt
#undef curl_easy_getinfo

using faults::fails;

FakeCurl& FakeCurl::instance() {
    static FakeCurl fake;
    return fake;
}

namespace {

FakeCurl& fake() { return FakeCurl::instance(); }

curl_write_callback writeCallback = nullptr;
void* writeData = nullptr;
const curl_slist* headerList = nullptr;

std::string optionName(CURLoption option) {
    const curl_easyoption* known = curl_easy_option_by_id(option);
    return known == nullptr ? std::to_string(option) : std::string("CURLOPT_") + known->name;
}

std::string takeValue(CURLoption option, va_list arguments) {
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        return std::to_string(va_arg(arguments, long));
    }
    if (option >= CURLOPTTYPE_OFF_T) {
        return std::to_string(va_arg(arguments, curl_off_t));
    }
    if (option == CURLOPT_WRITEFUNCTION) {
        writeCallback = va_arg(arguments, curl_write_callback);
        return writeCallback == nullptr ? "null" : "function";
    }
    void* value = va_arg(arguments, void*);
    if (option == CURLOPT_WRITEDATA) {
        writeData = value;
    }
    if (option == CURLOPT_HTTPHEADER) {
        headerList = static_cast<const curl_slist*>(value);
    }
    const curl_easyoption* known = curl_easy_option_by_id(option);
    const bool isText =
        known != nullptr && (known->type == CURLOT_STRING || option == CURLOPT_POSTFIELDS);
    return value == nullptr ? "null" : isText ? static_cast<const char*>(value) : "pointer";
}

}  // namespace

extern "C" {

CURL* curl_easy_init(void) {
    if (fails("curl_easy_init")) {
        return nullptr;
    }
    writeCallback = nullptr;
    writeData = nullptr;
    headerList = nullptr;
    ++fake().open;
    return &fake();
}

void curl_easy_cleanup(CURL*) { --fake().open; }

CURLcode curl_easy_setopt(CURL*, CURLoption option, ...) {
    va_list arguments;
    va_start(arguments, option);
    fake().options.push_back(optionName(option) + "=" + takeValue(option, arguments));
    va_end(arguments);
    return fails("curl_easy_setopt") ? fake().setoptFailure : CURLE_OK;
}

CURLcode curl_easy_perform(CURL*) {
    if (fails("curl_easy_perform")) {
        return CURLE_GOT_NOTHING;
    }
    for (const curl_slist* entry = headerList; entry != nullptr; entry = entry->next) {
        fake().headers.emplace_back(entry->data);
    }
    for (std::string piece : fake().pieces) {
        if (writeCallback(piece.data(), 1, piece.size(), writeData) != piece.size()) {
            return CURLE_WRITE_ERROR;
        }
    }
    return fake().performResult;
}

CURLcode curl_easy_getinfo(CURL*, CURLINFO info, ...) {
    if (fails("curl_easy_getinfo") || info != CURLINFO_RESPONSE_CODE) {
        return CURLE_UNKNOWN_OPTION;
    }
    va_list arguments;
    va_start(arguments, info);
    *va_arg(arguments, long*) = fake().status;
    va_end(arguments);
    return CURLE_OK;
}

char* curl_easy_escape(CURL*, const char* text, int length) {
    if (fails("curl_easy_escape")) {
        return nullptr;
    }
    const std::string escaped = "<" + std::string(text, static_cast<std::size_t>(length)) + ">";
    ++fake().open;
    return ::strdup(escaped.c_str());
}

void curl_free(void* text) {
    --fake().open;
    std::free(text);
}

curl_slist* curl_slist_append(curl_slist* list, const char* text) {
    if (fails("curl_slist_append")) {
        return nullptr;
    }
    auto* entry = static_cast<curl_slist*>(std::malloc(sizeof(curl_slist)));
    *entry = {::strdup(text), list};
    ++fake().open;
    return entry;
}

void curl_slist_free_all(curl_slist* list) {
    while (list != nullptr) {
        curl_slist* next = list->next;
        std::free(list->data);
        std::free(list);
        --fake().open;
        list = next;
    }
}

const char* curl_easy_strerror(CURLcode) { return "the fake's text"; }

}  // extern "C"
