// The header of a DNS message under its traditional name (RFC 1035 section 4.1.1).
#pragma once

#include <stdint.h>

/** All fields in network byte order. */
typedef struct {
    uint16_t id;
    uint16_t flags;   // QR, opcode, AA, TC, RD, RA, Z, RCODE
    uint16_t qdcount; // questions
    uint16_t ancount; // records in the answer section
    uint16_t nscount; // records in the authority section
    uint16_t arcount; // records in the additional section
} HEADER;

static_assert(sizeof(HEADER) == 12);
