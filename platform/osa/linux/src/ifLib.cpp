// Network interfaces are the platform's business; the kernel interface still has a call for them.
#include "hostLib.h"

void ifLibInit(void) {}
