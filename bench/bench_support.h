// What the benchmarks share: a context, aligned memory, fields of bits, and the measure of a run.
#pragma once

#include "kel_init.h"
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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

// Collects fields of up to 64 bits as a vector holds them. Bit by bit: unlike the library in all respects.
class field_list
{
  public:
    void put(uint64_t field, uint64_t bits)
    {
        for (; bits > 0; bits--) {
            pending = static_cast<uint8_t>(pending * 2u | (field >> (bits - 1) & 1));
            if (++filled % 8 == 0)
                bytes.push_back(pending);
        }
    }

    // The bytes, the last one padded with zero bits.
    std::vector<uint8_t> take()
    {
        put(0, -filled % 8);
        return std::move(bytes);
    }

  private:
    std::vector<uint8_t> bytes;
    uint8_t pending = 0;
    uint64_t filled = 0;
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

// Runs the benchmark's loop, and shows the bytes that a run gets through for each second.
template <class Run>
void measure_run(benchmark::State &state, uint64_t bytes, const Run &run)
{
    for ([[maybe_unused]] auto _ : state)
        run();
    state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
}

template <class... Arguments>
void add_benchmark(const std::string &name, void (*function)(benchmark::State &, Arguments...), Arguments... arguments)
{
    benchmark::RegisterBenchmark(name.c_str(), function, arguments...)->Repetitions(1);
}
