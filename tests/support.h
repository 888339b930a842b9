// What the tests share: a context whose log is captured, counts of the failure hooks, guarded buffers, random numbers.
#pragma once

#include "kel_init.h"
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

// Calls of the two failure hooks since the last reset_hooks; the test programs put their own in the library's place.
extern unsigned kel_debug_calls;
extern unsigned emulate_error_calls;
void reset_hooks();

// One line as the log callback saw it.
struct log_line {
    uint32_t level;
    std::string prefix;
    std::string message;
};

// An open context that captures its lines of the given levels; closed at the end.
class test_context
{
  public:
    explicit test_context(uint32_t version = 2, uint32_t debug_options = KEL_DEBUG_ARG,
                          uint32_t log_options = KEL_LOG_ERROR, const kel_init_options_t *allocator = nullptr);
    ~test_context();
    test_context(const test_context &) = delete;

    operator kel_context_t *() const
    {
        return ctx;
    }

    kel_context_t *operator->() const
    {
        return ctx;
    }

    // The messages since the last call.
    std::vector<std::string> messages();

    kel_context_t *ctx = nullptr;
    std::vector<log_line> lines;
};

// Memory between two pages that fault. It starts at a multiple of align (a power of two up to 64) and ends as close to the
// page behind it as that allows: with align 1 at its first byte. All bytes start as 0xa5.
class guarded_buffer
{
  public:
    explicit guarded_buffer(size_t size, size_t align = 8);
    ~guarded_buffer();
    guarded_buffer(const guarded_buffer &) = delete;

    uint8_t *data = nullptr;
    size_t size;

  private:
    uint8_t *mapping;
    size_t mapped;
};

// The random numbers of one test: fixed seeds, so that a failing case can be run again.
class random_source
{
  public:
    explicit random_source(uint64_t seed) : engine(seed) {}

    uint64_t word()
    {
        return engine();
    }

    // A number from low to high, both included.
    uint64_t between(uint64_t low, uint64_t high)
    {
        return low + (high - low == UINT64_MAX ? word() : word() % (high - low + 1));
    }

    bool one_in(uint64_t n)
    {
        return word() % n == 0;
    }

    template <class T, size_t n>
    T pick(const T (&choices)[n])
    {
        return choices[word() % n];
    }

    void fill(void *data, size_t size);

  private:
    std::mt19937_64 engine;
};
