// A small layer over the C library: what not every one has, and an assertion that holds in every build.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Copies text into a buffer of size bytes, cut to fit and closed with a zero byte; answers the text's full length.
inline size_t kel_strlcpy(char *to, const char *from, size_t size)
{
    const size_t length = strlen(from);
    if (size > 0) {
        const size_t kept = length < size ? length : size - 1;
        memcpy(to, from, kept);
        to[kept] = '\0';
    }
    return length;
}

// An assertion that is never compiled out: reports condition, source and line as assert() does, and aborts.
[[noreturn]] void kel_assert_fail(const char *condition, const char *source, unsigned line, const char *function);
