// Hash functions of names. All arithmetic wraps.
//
// Both hashes of a name are sums: each byte times a weight. A weight is the product of the factors
// of all bytes behind it, and thus known only when the end of the name is. But all factors are odd,
// and odd numbers can be divided by, modulo a power of two. So the weights of keys_of are counted
// from the front, each divided by the factors up to its place, and what is common to all of them is
// multiplied in at the end. The two sums then run side by side in one word, and no step waits for
// the one before, where the textbook form waits for two multiplications on each byte.
#include "hashMethod.h"
#include "uEvent.h"

#include <string.h>

static constexpr uint32_t RS_FIRST_FACTOR = 63689;
static constexpr uint32_t RS_FACTOR_STEP = 378551;
static constexpr uint32_t BKDR_FACTOR = 131;
static constexpr uint32_t LOW_31_BITS = 0x7fffffff;

// ---- Both hashes at once ----

static constexpr size_t WEIGHED = 64; // longer names go the textbook's way

/** 1 / odd modulo 2^32, by Newton's iteration: each step doubles the bits that are right. */
static consteval uint32_t inverse(uint32_t odd)
{
    uint32_t guess = odd;
    for (int bits = 3; bits < 32; bits *= 2) {
        guess *= 2 - odd * guess;
    }
    return guess;
}

/** Weights by place, and what a sum of so many bytes is to be multiplied with. */
struct weights_t {
    uint64_t byte[WEIGHED]; // bkdrHash's in the upper half; rsHash's, 8 bits of it, in the lower
    uint32_t bkdr[WEIGHED + 1];
    uint32_t rs[WEIGHED + 1];
};

static consteval weights_t make_weights()
{
    weights_t made = {};
    uint32_t factor = RS_FIRST_FACTOR;

    made.bkdr[0] = 1;
    made.rs[0] = 1;
    for (size_t i = 0; i < WEIGHED; i++) {
        made.bkdr[i + 1] = made.bkdr[i] * BKDR_FACTOR;
        made.rs[i + 1] = made.rs[i] * factor;
        made.byte[i] = uint64_t{inverse(made.bkdr[i + 1])} << 32 | inverse(made.rs[i + 1]) % 256;
        factor *= RS_FACTOR_STEP;
    }
    return made;
}

static constexpr weights_t weights = make_weights();

name_keys_t keys_of(char* name)
{
    const char* const text = name != nullptr ? name : "";
    const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(text);
    const uint64_t* const weight = weights.byte;
    const size_t length = strlen(text);
    uint64_t sum = 0; // its lower half stays below 2^22
    size_t i = 0;

    if (length > WEIGHED) {
        return {.a = bkdrHash(name), .b = rsHash(name, 256)};
    }
    for (; i + 4 <= length; i += 4) {
        sum += bytes[i] * weight[i] + bytes[i + 1] * weight[i + 1] + bytes[i + 2] * weight[i + 2] +
               bytes[i + 3] * weight[i + 3];
    }
    for (; i < length; i++) {
        sum += bytes[i] * weight[i];
    }
    const uint32_t bkdr = static_cast<uint32_t>(sum >> 32) * weights.bkdr[length];
    const uint32_t rs = static_cast<uint32_t>(sum) * weights.rs[length];
    return {.a = bkdr & LOW_31_BITS, .b = rs % 256};
}

// ---- One by one ----

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
    uint32_t hash = 0; // 32 bits will do, for 31 of them count

    for (const unsigned char* byte = bytes_of(str); *byte != 0; byte++) {
        hash = hash * BKDR_FACTOR + *byte;
    }
    return hash & LOW_31_BITS;
}

int64_t remainderHash(char* str)
{
    uint64_t sum = 0;

    for (const unsigned char* byte = bytes_of(str); *byte != 0; byte++) {
        sum += *byte;
    }
    return static_cast<int64_t>(sum & LOW_31_BITS);
}
