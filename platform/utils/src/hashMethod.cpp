// Hash functions of names. All arithmetic wraps.
#include "uEvent.h"

static constexpr uint32_t RS_FIRST_FACTOR = 63689;
static constexpr uint32_t RS_FACTOR_STEP = 378551;
static constexpr uint64_t BKDR_FACTOR = 131;
static constexpr uint64_t LOW_31_BITS = 0x7fffffff;

static const unsigned char* bytes_of(const char* str)
{
    return reinterpret_cast<const unsigned char*>(str != nullptr ? str : "");
}

uint32_t rsHash(char* str, int32_t valueMax)
{
    const uint32_t modulus = static_cast<uint32_t>(valueMax);
    uint32_t hash = 0;
    uint32_t factor = RS_FIRST_FACTOR;

    for (const unsigned char* byte = bytes_of(str); *byte != 0; byte++) {
        hash = hash * factor + *byte;
        factor *= RS_FACTOR_STEP;
    }
    return modulus != 0 ? hash % modulus : hash;
}

int64_t bkdrHash(char* str)
{
    uint64_t hash = 0;

    for (const unsigned char* byte = bytes_of(str); *byte != 0; byte++) {
        hash = hash * BKDR_FACTOR + *byte;
    }
    return static_cast<int64_t>(hash & LOW_31_BITS);
}

int64_t remainderHash(char* str)
{
    uint64_t sum = 0;

    for (const unsigned char* byte = bytes_of(str); *byte != 0; byte++) {
        sum += *byte;
    }
    return static_cast<int64_t>(sum & LOW_31_BITS);
}
