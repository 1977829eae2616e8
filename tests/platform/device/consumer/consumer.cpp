// Says which libraries it runs with.
#include <klib/klib.h>
#include <orbatovra/orbatovra.h>
#include <orbaudc/orbaudc.h>

#include <iostream>

int main() {
    char serial[36] = "";
    const int status = KLIBGetSerialNumber(serial, sizeof(serial));
    char* pseudonym = nullptr;
    std::cout << status << " " << serial << " " << ORBATOVRAErrGet() << " "
              << ORBAUDCPseudonymise(&pseudonym, "1", 1) << "\n";
    return 0;
}
