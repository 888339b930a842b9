// What a call costs before it does any work: the empty operation, the same posted and polled, and a scan of
// one block, with validation and without.
#include "bench_support.h"
#include <benchmark/benchmark.h>

namespace
{

void nop(benchmark::State &state, uint32_t debug_options)
{
    const bench_context ctx(debug_options);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(kel_nop(ctx, 0));
}

void nop_posted(benchmark::State &state, uint32_t debug_options)
{
    const bench_context ctx(debug_options);
    kel_queue_t *queue;
    if (kel_queue_create(ctx, 1, &queue) != KEL_SUCCESS)
        return state.SkipWithError("no queue");
    for ([[maybe_unused]] auto _ : state) {
        kel_poll_t polled;
        if (kel_nop_post(queue, 0, nullptr) != KEL_SUCCESS || kel_poll(queue, &polled, 1, 0) != 1)
            state.SkipWithError("the request is lost");
    }
    kel_queue_destroy(queue);
}

void scan_block(benchmark::State &state, uint32_t debug_options)
{
    constexpr unsigned elements = 64;
    constexpr unsigned width = 12;
    const bench_context ctx(debug_options);
    const bench_bytes packed(elements * width / 8);
    const bench_bytes found(elements / 8);
    uint64_t random = 1;
    for (unsigned i = 0; i < elements * width / 8; i++)
        packed.data()[i] = static_cast<uint8_t>(next_random(random));
    const kel_vec_t src = fixed_vec(KEL_BITS, width, elements, packed.data());
    const kel_vec_t dst = fixed_vec(KEL_BITS, 1, elements, found.data());
    const kel_int_t lower = fixed_val(KEL_BITS, width, 0, 1024);
    const kel_int_t upper = fixed_val(KEL_BITS, width, 0, 2047);
    for ([[maybe_unused]] auto _ : state) {
        const kel_result_t result = kel_scan_range(ctx, 0, &src, &dst, KEL_GE_AND_LE, &lower, &upper);
        if (result.status != KEL_SUCCESS)
            state.SkipWithError("the scan fails");
    }
}

BENCHMARK_CAPTURE(nop, bare, 0u)->Name("frame/nop/bare");
BENCHMARK_CAPTURE(nop, validated, KEL_DEBUG_ARG)->Name("frame/nop/validated");
BENCHMARK_CAPTURE(nop_posted, bare, 0u)->Name("frame/nop_post_and_poll/bare");
BENCHMARK_CAPTURE(nop_posted, validated, KEL_DEBUG_ARG)->Name("frame/nop_post_and_poll/validated");
BENCHMARK_CAPTURE(scan_block, bare, 0u)->Name("frame/scan_64_of_12bit/bare");
BENCHMARK_CAPTURE(scan_block, validated, KEL_DEBUG_ARG)->Name("frame/scan_64_of_12bit/validated");

} // namespace
