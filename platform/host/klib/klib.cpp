#include <fcntl.h>
#include <klib/klib.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <string_view>

#include "../common/failure.h"
#include "../common/file_descriptor.h"
#include "../common/profile.h"
#include "klib_host.h"

struct KLIBCSzHash {
    std::map<std::string, std::string, std::less<>> entries;
};

using orba_host::FileDescriptor;
using orba_host::guarded;
using orba_host::Profile;
using orba_host::requireArgument;

int KLIBCFileTouch(const char* path) {
    if (path == nullptr) {
        return -EINVAL;
    }
    // A new file is its owner's only: what callers touch before they fill it are cookie files.
    const FileDescriptor file(
        ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600));
    return file.isOpen() ? 0 : -errno;
}

int KLIBGetSerialNumber(char* serial, size_t size) {
    return -guarded([&] {
        requireArgument(serial != nullptr && size > 0, "a buffer for the serial number is needed");
        const std::string text = Profile::read().text("serial_number", size);
        std::memcpy(serial, text.c_str(), text.size() + 1);
    });
}

KLIBCSzHash* KLIBCSzHashAlloc(int /*size*/) { return new (std::nothrow) KLIBCSzHash; }

int KLIBCSzHashSetValue(KLIBCSzHash** table, const char* key, const char* value) {
    return -guarded([&] {
        requireArgument(table != nullptr && *table != nullptr && key != nullptr && value != nullptr,
                        "a table, a key and a value are needed");
        (*table)->entries.insert_or_assign(key, value);
    });
}

void KLIBCSzHashFree(KLIBCSzHash* table) { delete table; }

const char* KLIBHostSzHashNext(const KLIBCSzHash* table, const char* key, const char** value) {
    const auto next =
        key == nullptr ? table->entries.begin() : table->entries.upper_bound(std::string_view(key));
    if (next == table->entries.end()) {
        return nullptr;
    }
    *value = next->second.c_str();
    return next->first.c_str();
}
