// Runs, checks and times the steps of a query.
#include "steps.h"
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>

constexpr int timed_runs = 25; // the best one counts

void check_result(const std::string &name, const result_t &result, uint64_t count, const found_t &found)
{
    const bool is_list = kel_element_bits(&result.vec) > 1;
    const size_t entries = is_list ? std::min(count, found.count) : found.mask.size();
    size_t same = 0;
    while (same < entries && result.value(same) == (is_list ? found.list[same] : found.mask[same]))
        same++;
    if (same < entries || count != found.count)
        throw std::runtime_error("*** WRONG ANSWER *** " + name + ": the library counts " + std::to_string(count) +
                                 ", the plain loop " + std::to_string(found.count) + "; they agree before " +
                                 (is_list ? "element " : "bit ") + std::to_string(same));
}

// Millions of rows in a second, of the shortest of several runs.
static double best_rate(size_t rows, const std::function<void()> &run)
{
    using clock = std::chrono::steady_clock;
    auto best = clock::duration::max();
    for (int i = 0; i < timed_runs; i++) {
        const auto start = clock::now();
        run();
        best = std::min(best, clock::now() - start);
    }
    const double microseconds = std::chrono::duration<double, std::micro>(best).count();
    return static_cast<double>(rows) / std::max(microseconds, 0.001); // a clock may stand still during a short run
}

void print_head(bool timed)
{
    printf("%-14s  %-26s  %-11s  %4s  %8s  %8s  %6s%s\n", "step", "what", "column", "bits", "packed B", "plain B",
           "count", timed ? "  Mrow/s  plain loop's" : "");
}

void run_step(const step_t &step, found_t &found, const std::function<kel_result_t()> &call,
              const std::function<void(found_t &)> &loop, bool timed)
{
    const kel_result_t outcome = call();
    check(outcome.status, step.call);
    loop(found);
    check_result(std::string(step.call) + ", " + step.what, found, outcome.count, found);
    const size_t rows = found.vec.elements;
    size_t packed = 0;
    for (const source_t &source : step.sources)
        packed += source.bytes;
    printf("%-14s  %-26s  %-11s  %4" PRIu64 "  %8zu  %8zu  %6" PRIu64, step.call, step.what.c_str(), step.column,
           step.sources[0].width, packed, step.plain_bytes * rows, outcome.count);
    if (timed)
        printf("  %6.0f  %12.0f", best_rate(rows, call), best_rate(rows, [&] { loop(found); }));
    puts("");
}
