// What the fuzz targets share: the reader that takes an input apart, and what must hold.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

/** Holds whatever the input is; where it does not, the fuzzer keeps the input. */
static inline void expect(bool holds)
{
    if (!holds) {
        abort();
    }
}

/** An input, read from its front. Behind its end come zeros and empty texts. */
class fuzz_input {
  public:
    fuzz_input(const uint8_t* data, size_t size) : next(data), left(size) {}

    bool at_end() const { return left == 0; }
    uint8_t byte() { return static_cast<uint8_t>(left > 0 ? take(1)[0] : 0); }
    /** A length byte and as many bytes, or those that are left. */
    std::string_view text(size_t longest)
    {
        const size_t length = std::min({size_t{byte()}, longest, left});
        return {take(length), length};
    }

  private:
    const char* take(size_t count)
    {
        const auto* taken = reinterpret_cast<const char*>(next);
        next += count;
        left -= count;
        return taken;
    }
    const uint8_t* next;
    size_t left;
};

/** The input as a text, ended by the first zero in it or by one of its own. */
class fuzz_text {
  public:
    fuzz_text(const uint8_t* data, size_t size)
        : length(size > 0 ? strnlen(reinterpret_cast<const char*>(data), size) : 0),
          bytes(static_cast<char*>(malloc(length + 1))) // of the exact size
    {
        std::copy_n(data, length, bytes);
        bytes[length] = '\0';
    }
    fuzz_text(const fuzz_text&) = delete;
    fuzz_text& operator=(const fuzz_text&) = delete;
    ~fuzz_text() { free(bytes); }

    const size_t length;
    char* const bytes;
};
