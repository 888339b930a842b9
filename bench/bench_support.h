// What the benchmarks share: a context, aligned memory, packed elements, and the measure of a run.
#pragma once

#include "kel_init.h"
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

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

inline double processor_ns()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

// What one run gets through, by the name of its rate for each nanosecond: bytes for each of them are GB/s.
struct amount_t {
    const char *name;
    uint64_t amount;
};

// Runs the benchmark's loop.
template <class Run>
void measure_run(benchmark::State &state, std::initializer_list<amount_t> amounts, const Run &run)
{
    const double start = processor_ns();
    for ([[maybe_unused]] auto _ : state)
        run();
    const double per_run = (processor_ns() - start) / static_cast<double>(state.iterations());
    for (const amount_t &each : amounts)
        state.counters[each.name] = static_cast<double>(each.amount) / per_run;
}

template <class... Arguments>
void add_benchmark(const std::string &name, void (*function)(benchmark::State &, Arguments...), Arguments... arguments)
{
    constexpr double shortest_run = 0.1; // seconds
    benchmark::RegisterBenchmark(name.c_str(), function, arguments...)->MinTime(shortest_run);
}
