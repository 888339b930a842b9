// Cases: a row of the table each. The same work is measured with each library, as a plain loop where there is one, and
// beside the limit that memory sets. Before a result is timed, it is compared with what a plain reader of fields finds.
#pragma once

#include "bench_library.h"
#include "bench_support.h"
#include <functional>
#include <string>
#include <vector>

// Who runs a case, in the order of the runs.
enum runner_t { runner_limit, runner_library, runner_portable, runner_walk, runner_plain, runners };

// What a correct run leaves in the destination and returns.
struct outcome_t {
    std::vector<uint8_t> bytes;
    uint64_t count;
};

struct task_t {
    std::function<kel_result_t(const library_t &)> once;
    std::function<void(benchmark::State &, const library_t &)> loop; // the same, as often as the benchmark says
    std::function<outcome_t()> expect;
    void *destination = nullptr;
    std::function<void()> plain; // a plain loop over plain arrays, if there is one; to the same destination
    unsigned plain_unit = 0;     // bytes of an element of its output in the processor's order; 0: bits
};

template <class Call>
task_t make_task(const Call &call, void *destination, std::function<outcome_t()> expect)
{
    task_t task;
    task.once = call;
    task.loop = [call](benchmark::State &state, const library_t &library) {
        for ([[maybe_unused]] auto _ : state)
            benchmark::DoNotOptimize(call(library));
    };
    task.destination = destination;
    task.expect = std::move(expect);
    return task;
}

enum class limit_t { none, read, copy, set }; // plain_read, memcpy, memset; none: a case of fixed costs

struct case_t {
    const char *operation;
    std::string shape;
    uint64_t elements;
    limit_t limit;
    uint64_t bytes; // that the limit reads or writes
    std::function<task_t()> make;
    bool plain = false; // has a plain loop
    bool walk = false;  // has element-by-element kernels
    bool once = false;  // calls no library that is loaded, so that there is no second build of it
};

// The table is what runs without a filter; the long list runs under one.
enum class list_t { table, more };
void add_case(list_t list, case_t added);

// The cases and benchmarks of each unit, in the order of the table.
void add_scans();
void add_moves();
void add_packing();
void add_decoders();
void add_calls();
void add_trainers();

// Which case and runner a benchmark is, by its name; a null case: none.
struct role_t {
    const case_t *of;
    runner_t runner;
};
role_t find_role(const std::string &benchmark);

std::string size_text(uint64_t size); // 16 K, 20 M

// ---- Memory of the process's life -----------------------------------------------------------------------------------

inline constexpr uint64_t in_cache = 16'384;         // elements
inline constexpr uint64_t out_of_cache = 20'000'000; // elements
inline constexpr uint64_t sizes[] = {in_cache, out_of_cache};

uint8_t *source_bytes();      // random ones, for out_of_cache elements of 8 bytes
uint8_t *destination_bytes(); // for as many
inline constexpr uint64_t most_bytes = 8 * out_of_cache;
