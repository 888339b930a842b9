// What the tests share: a context whose log is captured, the texts of log lines, counts of the failure hooks, guarded
// buffers, a reader of single bits, random numbers.
#pragma once

#include "kel_queue.h"
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

// The calling thread's calls of the two failure hooks since its last reset_hooks; the test programs put their own in
// the library's place.
inline constinit thread_local unsigned kel_debug_calls = 0, emulate_error_calls = 0;
extern std::atomic<unsigned> kel_debug_calls_of_all; // threads, those that have ended included; never reset
void reset_hooks();

using lines_t = std::vector<std::string>;

// What the library has handed to the system log; a function of the tests stands in its place.
extern lines_t syslog_lines;

// A line of the calling thread as the log's files show it, and a pointer as it stands in lines.
std::string log_text(const std::string &level, const std::string &message);
std::string pointer_text(const void *pointer);

inline void *at(uintptr_t address)
{
    return reinterpret_cast<void *>(address);
}

// A pointer to a context that is no result of a call.
inline kel_context_t *const no_context = static_cast<kel_context_t *>(at(0x40));

// Runs a call that has no context to speak through, and answers its lines, which reach standard error as well.
lines_t lines_without_context(const std::function<void()> &call);

// What is to succeed.
kel_context_t *open_context(uint32_t version, const kel_init_options_t *allocator = nullptr);
kel_queue_t *open_queue(kel_context_t *ctx, int length);

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

    // The messages since the last call, and the same with their prefixes.
    lines_t messages();
    lines_t texts();

    // Gives the context to another thread, until the end. A call is then refused with the line wrong_thread.
    void disown();
    static std::string wrong_thread();

    kel_context_t *ctx;
    std::vector<log_line> lines;
};

// A scan of four bytes: 5 is there twice, 7 once.
struct small_scan {
    alignas(64) uint8_t in[64] = {5, 7, 5, 9};
    alignas(64) uint8_t out[128] = {};
    kel_vec_t src = {KEL_BYTES, 4, in, 1, 0, 0, 0, nullptr, nullptr, 0};
    kel_vec_t dst = {KEL_BITS, 4, out, 1, 0, 0, 0, nullptr, nullptr, 0};
    kel_int_t five = {KEL_BYTES, 1, {0, 0, 5}}, seven = {KEL_BYTES, 1, {0, 0, 7}};
    kel_compare_t value_op = KEL_EQ, range_op = KEL_EQ_OR_EQ;
    uint64_t flags = 0;

    kel_result_t value(kel_context_t *ctx) const
    {
        return kel_scan_value(ctx, flags, &src, &dst, value_op, &five);
    }

    kel_result_t range(kel_context_t *ctx) const
    {
        return kel_scan_range(ctx, flags, &src, &dst, range_op, &five, &seven);
    }

    kel_status_t value_post(kel_queue_t *queue, void *udata = nullptr) const
    {
        return kel_scan_value_post(queue, flags, &src, &dst, value_op, &five, udata);
    }
};

// Memory between two pages that fault. It starts at a multiple of align (a power of two up to a page) and ends as close to
// the page behind it as that allows: with align 1 at its first byte. A size of whole pages starts behind the page in
// front. All bytes start as 0xa5.
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

// An allocator that knows its blocks: each has to come back once, with its size, and ends before a page that faults.
struct block_store {
    size_t misaligned = 0; // blocks are at this address modulo 8
    size_t failing = 0;    // the number of the request that gets null, counted from 1
    std::vector<uint64_t> requests = {};
    std::map<void *, std::pair<uint64_t, std::unique_ptr<guarded_buffer>>> live = {};

    static void *take(uint64_t size, void *store);
    static void give(void *block, uint64_t size, void *store);

    kel_init_options_t options()
    {
        return {take, give, this};
    }
};

// A stream of bits, read one by one.
struct bit_reader {
    const void *data;
    uint64_t position; // of the next bit

    // The next bits, up to 64, as a number.
    uint64_t field(uint64_t bits);

    // The next bits as bytes; if they do not fill the first byte, zeros stand before them.
    std::string bytes(uint64_t bits);
};

// Bytes in hexadecimal.
std::string hex(const void *data, size_t size);

// The random numbers of one test: fixed seeds, so that a failing case can be run again. What is told, if anything, takes
// the decisions as long as it lasts; words are random at all times.
class random_source
{
  public:
    explicit random_source(uint64_t seed, std::span<const uint8_t> decisions = {}) : told(decisions), engine(seed) {}

    uint64_t word()
    {
        return engine();
    }

    // A number from low to high, both included.
    template <class T = uint64_t>
    T between(uint64_t low, uint64_t high)
    {
        return static_cast<T>(low + up_to(high - low));
    }

    bool one_in(uint64_t n)
    {
        return up_to(n - 1) == 0;
    }

    template <class T, size_t n>
    T pick(const T (&choices)[n])
    {
        return choices[up_to(n - 1)];
    }

    void fill(void *data, size_t size);

    std::span<const uint8_t> told;

  private:
    uint64_t up_to(uint64_t most);

    std::mt19937_64 engine;
};
