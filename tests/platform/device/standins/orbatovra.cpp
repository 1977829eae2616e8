#include <orbatovra/orbatovra.h>

unsigned int ORBATOVRAErrGet(void) { return 4711; }
