// The walk over an answer's SRV records.
#include "dns_feed.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    feed_answer(QUERY_SRV, data, size);
    return 0;
}
