// What a call costs before it does any work: the empty operation, also posted and polled, and operations on 64
// elements, with validation and without.
#include "bench_column.h"

namespace
{

constexpr uint64_t elements = 64;
constexpr width_t bits12 = {KEL_BITS, 12};
constexpr width_t bytes2 = {KEL_BYTES, 2};

using context_t = kel_context_t *library_t::*;

struct validation_t {
    const char *name;
    context_t ctx;
};

constexpr validation_t validations[] = {{"bare", &library_t::bare}, {"validated", &library_t::ctx}};

task_t make_nop(context_t ctx)
{
    return make_task([=](const library_t &library) { return library.kel_nop(library.*ctx, 0); }, destination_bytes(),
                     [] { return outcome_t{}; });
}

task_t make_scan(context_t ctx)
{
    const kel_vec_t src = source_vec(bits12, elements);
    const kel_vec_t dst = destination_vec(to_bits.width, elements);
    const kel_int_t lower = fixed_val(KEL_BITS, 12, 0, 1024);
    const kel_int_t upper = fixed_val(KEL_BITS, 12, 0, 2047);
    return make_task(
        [=](const library_t &library) {
            return library.kel_scan_range(library.*ctx, 0, &src, &dst, KEL_GE_AND_LE, &lower, &upper);
        },
        dst.data,
        [] {
            return expect_matches(to_bits, elements,
                                  [](uint64_t i) { return get_element(source_bytes(), bits12, i) / 1024 == 1; });
        });
}

// Elements whose bit in a mask is 1; without a mask all of them, by an extract.
outcome_t expect_elements(bool (*selects)(uint64_t index), bool counted)
{
    field_list fields;
    uint64_t count = 0;
    for (uint64_t i = 0; i < elements; i++)
        if (selects(i)) {
            fields.put(get_element(source_bytes(), bits12, i), bytes2.bits());
            count += counted;
        }
    return {fields.take(), count};
}

task_t make_select(context_t ctx)
{
    const kel_vec_t src = source_vec(bits12, elements);
    const kel_vec_t dst = destination_vec(bytes2, elements);
    const kel_vec_t mask = source_vec(to_bits.width, elements);
    return make_task(
        [=](const library_t &library) { return library.kel_select(library.*ctx, 0, &src, &dst, &mask); }, dst.data,
        [] { return expect_elements([](uint64_t i) { return get_field(source_bytes(), i, 1) != 0; }, true); });
}

task_t make_extract(context_t ctx)
{
    const kel_vec_t src = source_vec(bits12, elements);
    const kel_vec_t dst = destination_vec(bytes2, elements);
    return make_task([=](const library_t &library) { return library.kel_extract(library.*ctx, 0, &src, &dst); },
                     dst.data, [] { return expect_elements([](uint64_t) { return true; }, false); });
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

constexpr struct {
    const char *name;
    task_t (*make)(context_t ctx);
} calls[] = {{"nop", make_nop},
             {"scan of 64 of 12 bits", make_scan},
             {"select of 64 of 12 bits", make_select},
             {"extract of 64 of 12 bits", make_extract}};

} // namespace

void add_calls()
{
    for (const auto &call : calls)
        for (const validation_t &each : validations)
            add_case(list_t::table, {"call", std::string(call.name) + ", " + each.name, 0, limit_t::none, 0,
                                     [=] { return call.make(each.ctx); }});
    add_benchmark("more/call/nop-posted-and-polled/bare", nop_posted, 0u);
    add_benchmark("more/call/nop-posted-and-polled/validated", nop_posted, KEL_DEBUG_ARG);
}
