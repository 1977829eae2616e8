#include <klib/klib.h>

#include <cstdio>

int KLIBCFileTouch(const char*) { return 0; }
int KLIBGetSerialNumber(char* serial, size_t size) {
    return std::snprintf(serial, size, "maker-1") < 0 ? -1 : 0;
}
KLIBCSzHash* KLIBCSzHashAlloc(int) { return nullptr; }
int KLIBCSzHashSetValue(KLIBCSzHash**, const char*, const char*) { return -1; }
void KLIBCSzHashFree(KLIBCSzHash*) {}
