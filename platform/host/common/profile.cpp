#include "profile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "file_descriptor.h"

namespace orba_host {
namespace {

constexpr std::size_t kMaxProfileBytes = 1024UL * 1024;
constexpr int kMaxNesting = 64;

std::string environmentText(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::string profilePath() {
    std::string own = environmentText("ORBA_HOST_PROFILE");
    if (!own.empty()) {
        return own;
    }
    const std::string below = "/orba-host/device.json";
    const std::string config = environmentText("XDG_CONFIG_HOME");
    if (!config.empty() && config.front() == '/') {  // a relative one counts as not set
        return config + below;
    }
    const std::string home = environmentText("HOME");
    if (!home.empty()) {
        return home + "/.config" + below;
    }
    throw Failure(ORBA_HOST_PROFILE_MISSING,
                  "no device profile: ORBA_HOST_PROFILE, XDG_CONFIG_HOME and HOME are not set");
}

Failure profileFailure(OrbaHostError number, const std::string& path, const std::string& what) {
    return {number, "device profile " + path + ": " + what};
}

std::string readAll(const FileDescriptor& file, const std::string& path) {
    std::string text;
    std::array<char, 4096> piece;
    for (;;) {
        const ssize_t count = ::read(file.get(), piece.data(), piece.size());
        if (count == 0) {
            return text;
        }
        if (count > 0) {
            text.append(piece.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            throw profileFailure(ORBA_HOST_PROFILE_UNREADABLE, path, std::strerror(errno));
        }
        if (text.size() > kMaxProfileBytes) {
            throw profileFailure(ORBA_HOST_PROFILE_TOO_LARGE, path, "more than 1 MiB");
        }
    }
}

std::string readProfile(const std::string& path) {
    // Not blocking, because a pipe without a writer would hold the caller for ever.
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.isOpen()) {
        const bool missing = errno == ENOENT || errno == ENOTDIR;
        throw profileFailure(missing ? ORBA_HOST_PROFILE_MISSING : ORBA_HOST_PROFILE_UNREADABLE,
                             path, std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw profileFailure(ORBA_HOST_PROFILE_UNREADABLE, path, "not a regular file");
    }
    return readAll(file, path);
}

// RFC 3629, 4. Not by iconv, which takes a lock that a child forked meanwhile would wait for.
bool isUtf8(const std::string& text) {
    constexpr std::array<char32_t, 4> kLeast = {0, 0x80, 0x800, 0x10000};
    const auto* byte = reinterpret_cast<const unsigned char*>(text.c_str());
    const auto* const end = byte + text.size();
    while (byte != end) {
        const unsigned char first = *byte++;
        if ((first >= 0x80 && first < 0xC0) || first >= 0xF8) {
            return false;
        }
        const unsigned rest = first < 0x80 ? 0 : first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
        char32_t code = rest == 0 ? first : first & (0x3FU >> rest);
        for (unsigned i = 0; i < rest; ++i) {
            if ((*byte & 0xC0U) != 0x80) {  // the NUL at the end, too
                return false;
            }
            code = (code << 6U) | (*byte++ & 0x3FU);
        }
        if (code < kLeast[rest] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
    }
    return true;
}

bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
}

}  // namespace

std::optional<Json::Value> parseJsonObject(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kMaxNesting;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value document;
    try {
        if (!isUtf8(text) || text.find('\0') != std::string::npos ||  // a NUL would end the parsing
            !reader->parse(text.data(), text.data() + text.size(), &document, nullptr) ||
            !document.isObject()) {
            return std::nullopt;
        }
    } catch (const Json::Exception&) {  // nested too deeply
        return std::nullopt;
    }
    return document;
}

Profile::Profile(std::string path, Json::Value document)
    : file(std::move(path)), members(std::move(document)) {}

Profile Profile::read() {
    const std::string path = profilePath();
    const std::optional<Json::Value> document = parseJsonObject(readProfile(path));
    if (!document) {
        throw profileFailure(ORBA_HOST_PROFILE_MALFORMED, path, "not a JSON object in UTF-8");
    }
    return {path, *document};
}

Failure Profile::failure(OrbaHostError number, const std::string& name, const char* what) const {
    return profileFailure(number, file, "the member \"" + name + "\" " + what);
}

const Json::Value* Profile::find(const std::string& name) const {
    const char* end = name.data() + name.size();
    const std::size_t dot = name.find('.');
    if (dot == std::string::npos) {
        return members.find(name.data(), end);
    }
    const char* inner = name.data() + dot;
    const Json::Value* outer = members.find(name.data(), inner);
    if (outer == nullptr || outer->isNull()) {
        return nullptr;
    }
    if (!outer->isObject()) {
        throw failure(ORBA_HOST_MEMBER_TYPE, name.substr(0, dot), "is not an object");
    }
    return outer->find(inner + 1, end);
}

std::string Profile::text(const std::string& name) const {
    const Json::Value* member = find(name);
    if (member == nullptr || member->isNull() || *member == Json::Value("")) {
        throw failure(ORBA_HOST_MEMBER_MISSING, name, "is missing or empty");
    }
    if (!member->isString()) {
        throw failure(ORBA_HOST_MEMBER_TYPE, name, "is not a text");
    }
    std::string value = member->asString();
    if (std::any_of(value.begin(), value.end(), isControl)) {
        throw failure(ORBA_HOST_MEMBER_TYPE, name, "holds a control character");
    }
    return value;
}

std::string Profile::text(const std::string& name, std::size_t size) const {
    std::string value = text(name);
    if (value.size() >= size) {
        throw failure(ORBA_HOST_MEMBER_TOO_LONG, name, "is too long");
    }
    return value;
}

}  // namespace orba_host
