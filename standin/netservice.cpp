// Stands in for libhalden_netservice, the closed proxy service: says that it is there.
#include "nxaLog.h"

extern "C" int nxaProxyServiceInit(void)
{
    __halden_log_print(NXA_LOG_INFO, "netservice", "proxy service of the stand-in: serves nothing");
    return 0;
}
