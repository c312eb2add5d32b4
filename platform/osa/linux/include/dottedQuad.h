// The text of an IPv4 address, "192.168.0.1".
#pragma once

#include <string.h>

static inline char* put_octet(char* to, unsigned int octet)
{
    if (octet >= 100) {
        *to++ = static_cast<char>('0' + octet / 100);
    }
    if (octet >= 10) {
        *to++ = static_cast<char>('0' + octet / 10 % 10);
    }
    *to++ = static_cast<char>('0' + octet % 10);
    return to;
}

/**
 * Writes an address without a terminator.
 *
 * @param to     room for INET_ADDRSTRLEN bytes
 * @param bytes  the four octets, first one first
 * @return the end of the text
 */
static inline char* put_quad(char* to, const void* bytes)
{
    unsigned char octets[4];

    memcpy(octets, bytes, sizeof octets);
    for (const unsigned char octet : octets) {
        to = put_octet(to, octet);
        *to++ = '.';
    }
    return to - 1; // without the last dot
}
