// What the benchmarks share: a context, aligned memory, and packed elements with their plain form beside them.
#pragma once

#include "kel_init.h"
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

class bench_context
{
  public:
    explicit bench_context(uint32_t debug_options = KEL_DEBUG_ARG)
    {
        if (kel_thread_init(2, 1, 0, nullptr, &ctx) != KEL_SUCCESS)
            abort();
        ctx->debug_options = debug_options;
    }

    ~bench_context()
    {
        kel_thread_fini(ctx);
    }

    bench_context(const bench_context &) = delete;
    bench_context &operator=(const bench_context &) = delete;

    operator kel_context_t *() const
    {
        return ctx;
    }

  private:
    kel_context_t *ctx;
};

// Memory at a multiple of 64 bytes, with room behind its end for a destination; touched, so that no page is new.
class bench_bytes
{
  public:
    explicit bench_bytes(size_t size)
        : bytes(static_cast<uint8_t *>(aligned_alloc(64, (size + 63) / 64 * 64 + 64)), free)
    {
        if (!bytes)
            abort();
        memset(bytes.get(), 0, (size + 63) / 64 * 64 + 64);
    }

    uint8_t *data() const
    {
        return bytes.get();
    }

  private:
    std::unique_ptr<uint8_t, void (*)(void *)> bytes;
};

// Appends fields of up to 64 bits to a stream. What is left of a byte at the end is not stored.
class bit_writer
{
  public:
    explicit bit_writer(uint8_t *start) : at(start) {}

    void put(uint64_t field, uint64_t width)
    {
        if (width > 32) {
            put(field >> 32, width - 32);
            field &= UINT32_MAX;
            width = 32;
        }
        pending = pending << width | field;
        for (bits += width; bits >= 8; bits -= 8)
            *at++ = static_cast<uint8_t>(pending >> (bits - 8));
    }

  private:
    uint8_t *at;
    uint64_t pending = 0;
    uint64_t bits = 0; // of the next byte
};

// Small and fast, and good enough for the order of matches.
inline uint64_t next_random(uint64_t &state)
{
    uint64_t z = state += 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return z ^ z >> 31;
}

inline kel_vec_t fixed_vec(uint64_t format, uint32_t width, uint64_t elements, void *data)
{
    kel_vec_t vec = {};
    vec.format = format;
    vec.elem_width = width;
    vec.elements = elements;
    vec.data = data;
    return vec;
}

inline kel_int_t fixed_val(uint64_t format, uint32_t width, uint64_t high, uint64_t low)
{
    return {static_cast<uint32_t>(format), width, {0, high, low}};
}
