#include "encoding.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <memory>
#include <sstream>

namespace ORBA::OAuth2Session {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

bool isEscape(const std::string& text, std::size_t at) {
    return text[at] == '%' && std::isxdigit(static_cast<unsigned char>(text[at + 1])) != 0 &&
           std::isxdigit(static_cast<unsigned char>(text[at + 2])) != 0;
}

// A malformed escape stays as it is.
std::string decode(const std::string& text) {
    std::string decoded;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (isEscape(text, at)) {
            decoded += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
            at += 2;
        } else {
            decoded += text[at] == '+' ? ' ' : text[at];
        }
    }
    return decoded;
}

}  // namespace

std::string percentEncode(const std::string& text) {
    std::string encoded;
    for (const char c : text) {
        if (isUnreserved(c)) {
            encoded += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            encoded += {'%', kHexDigits[byte >> 4U], kHexDigits[byte & 15U]};
        }
    }
    return encoded;
}

std::string formEncode(const Parameters& parameters) {
    std::string form;
    for (const auto& [name, value] : parameters) {
        form.append(form.empty() ? "" : "&").append(name).append("=").append(percentEncode(value));
    }
    return form;
}

std::optional<std::string> queryParameter(const std::string& url, const std::string& name) {
    const std::string part = url.substr(0, url.find('#'));
    std::size_t begin = part.find('?');
    while (begin != std::string::npos) {
        ++begin;
        const std::size_t end = part.find('&', begin);
        const std::string pair = part.substr(begin, end - begin);
        const std::size_t equals = std::min(pair.find('='), pair.size());
        if (decode(pair.substr(0, equals)) == name) {
            return decode(pair.substr(std::min(equals + 1, pair.size())));
        }
        begin = end;
    }
    return std::nullopt;
}

std::optional<Json::Value> parseObject(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["rejectDupKeys"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr) &&
            value.isObject()) {
            return value;
        }
    } catch (const Json::Exception&) {  // nested too deeply
        return std::nullopt;
    }
    return std::nullopt;
}

std::string textMember(const Json::Value& object, const char* name) {
    const Json::Value& value = object[name];
    if (value.isString()) {
        return value.asString();
    }
    return "";
}

std::string toLine(const Json::Value& object) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    builder["precision"] = 3;
    builder["precisionType"] = "decimal";
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    std::ostringstream line;
    line.exceptions(std::ios::badbit | std::ios::failbit);  // a stream hides std::bad_alloc
    writer->write(object, &line);
    return line.str();
}

}  // namespace ORBA::OAuth2Session
