#include <klib/klib.h>

#include <cstring>

int KLIBGetSerialNumber(char* serial, size_t size) {
    constexpr char kSerial[] = "stand-in";
    if (size < sizeof(kSerial)) {
        return -1;
    }
    std::memcpy(serial, kSerial, sizeof(kSerial));
    return 0;
}
