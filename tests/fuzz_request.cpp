// A fuzz target: whole requests of every operation, at once and posted, with any descriptors, values and flags, under
// full validation. A request ends in a status that agrees with the log, and in no byte outside its buffers.
#include "fuzz_parts.h"
#include <cstdio>
#include <cstdlib>
#include <deque>

namespace
{

void require(bool condition, int line = __builtin_LINE())
{
    if (!condition) {
        fprintf(stderr, "line %d: a requirement does not hold\n", line);
        abort();
    }
}

// An operator is tested modulo 32. What it has above that goes into the fields over it in the number of a kernel, which
// are the format in 2 bits and twice the type of operands: with an operator of its family 4 up to 8 bytes, 5 above. A
// number that has no kernel, with format 3 or with type 7 or more, ends the program, if nothing else is refused.
bool ends_program(int64_t op, const kel_vec_t &src, uint64_t widest_bits, bool range)
{
    const uint32_t family = range ? 0xaaaf0000 : 0xaf;
    const uint64_t type = src.format & KEL_VAR || widest_bits > 64 ? 5 : 4;
    const uint64_t format = src.format & KEL_RLE ? 1 : src.format & KEL_VAR ? 2 : 0;
    const uint64_t kernel = (2 * type << 2 | format) | static_cast<uint64_t>(range ? op - 16 : op) >> (range ? 4 : 3);
    return family >> (op & 31) & 1 && (kernel % 4 == 3 || kernel >> 3 >= 7);
}

void *take(uint64_t size, void *live)
{
    *static_cast<uint64_t *>(live) += size;
    return malloc(size);
}

void give(void *block, uint64_t size, void *live)
{
    *static_cast<uint64_t *>(live) -= size;
    free(block);
}

class client : request_parts
{
  public:
    client(FuzzedDataProvider &data, uint32_t major) : request_parts(data, major)
    {
        const kel_init_options_t allocator = {take, give, &live_bytes};
        require(kel_thread_init(version, 1, KEL_ALLOC, &allocator, &ctx) == KEL_SUCCESS);
        const auto count = [](kel_context_t *, void *count_of, uint32_t level, const char *, const char *) {
            *static_cast<unsigned *>(count_of) += level == KEL_LOG_ERROR;
        };
        kel_set_log_callback(ctx, one_in(4) ? KEL_LOG_ALL : KEL_LOG_ERROR, count, &errors);
        kel_set_debug(ctx, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA);
        require(kel_queue_create(ctx, range<int>(1, 4), &queue) == KEL_SUCCESS);
        noise_state = input.ConsumeIntegral<uint64_t>();
        if (input.ConsumeBool())
            make_codec();
    }

    ~client()
    {
        if (codec)
            require(kel_zip_free(ctx, codec) == KEL_SUCCESS);
        require(kel_thread_fini(ctx) == KEL_SUCCESS && live_bytes == 0);
    }

    void step()
    {
        constexpr void (client::*plain[])() = {&client::select,  &client::extract,    &client::translate,
                                               &client::logical, &client::copy,       &client::fill,
                                               &client::nop,     &client::int_create, &client::poll};
        form = one_in(4) ? twisted : one_in(8) ? hopeless : lawful;
        posted = one_in(2);
        silent = false;
        told = 0;
        expanded = 0;
        sources.clear();
        target = nullptr;
        const uint64_t operation = range(0, 10);
        if (operation < 2)
            scan(operation == 1);
        else
            (this->*plain[operation - 2])();
        if (waiting.size() > 2 || one_in(4))
            poll();
    }

  private:
    // ---- Requests --------------------------------------------------------------------------------------------------

    // What holds of every request that has been made; its own failures are told when it is polled.
    void judge(kel_status_t status, uint64_t count)
    {
        for (const buffer_ptr &source : sources)
            require(source->is_kept());
        require(form != hopeless || status == KEL_EINVAL || status == KEL_EQFULL);
        require(status == KEL_SUCCESS || errors > 0 || silent);
        if (status == KEL_EINVAL || status == KEL_EQFULL)
            require(count == 0 && (!target || target->unwritten_from(0)));
        else
            require(status == KEL_SUCCESS || status == KEL_EDATAFMT || status == KEL_EOVERFLOW);
    }

    // written_bits: what an element takes in the destination.
    template <class... arguments>
    void run(const auto &call, const auto &post, uint64_t written_bits, uint64_t flags, arguments... args)
    {
        for (const buffer_ptr &source : sources)
            source->keep();
        errors = 0;
        if (!posted) {
            const kel_result_t result = call(ctx, flags, args...);
            judge(result.status, result.count);
            require(result.status != KEL_SUCCESS || errors <= told);
            const bool counted = flags & KEL_ONES_INDEX || expanded == UINT64_MAX;
            const uint64_t bytes = ((counted ? result.count : expanded) * written_bits + 7) / 8;
            if (target && result.status == KEL_SUCCESS)
                require(target->unwritten_from(silent ? bytes : round_up(bytes, 64)));
            return;
        }
        void *udata = at(++posts);
        const kel_status_t status = post(queue, flags, args..., udata);
        judge(status, 0);
        if (status != KEL_SUCCESS)
            return;
        waiting.push_back({udata, errors > told});
        last_flags = flags;
        last_target = target;
    }

    void scan(bool two_values)
    {
        constexpr int names[] = {0, 1, 2, 3, 5, 7}, names2[] = {16, 17, 18, 19, 21, 23, 25, 27, 29, 31};
        const uint64_t flags = draw_flags(KEL_ONES_INDEX | KEL_CACHE | KEL_NOWAIT);
        const kel_vec_t src = draw_source(KEL_VAR | KEL_RLE | KEL_BITS | KEL_ZIP, 128);
        const uint64_t bits = flags & KEL_ONES_INDEX ? 16u << range(0, 1) : 1;
        const kel_vec_t dst = draw_destination(bits, expanded, src.elements);
        const kel_int_t lower = draw_value(src), upper = draw_value(src);
        int op = two_values ? input.PickValueInArray(names2) : input.PickValueInArray(names);
        if (one_in(4))
            op = one_in(2) ? any<int32_t>() : op + 32 * range<int>(0, 4);
        const uint64_t widest = std::max({bits_of(src), bits_of(lower), two_values ? bits_of(upper) : 0});
        if (ends_program(op, src, widest, two_values))
            op = op & 31;
        const auto compare = static_cast<kel_compare_t>(op);
        if (two_values)
            run(kel_scan_range, kel_scan_range_post, bits_of(dst), flags, &src, &dst, compare, &lower, &upper);
        else
            run(kel_scan_value, kel_scan_value_post, bits_of(dst), flags, &src, &dst, compare, &lower);
    }

    void select()
    {
        const uint64_t flags = draw_flags(KEL_PAD | KEL_CACHE | KEL_NOWAIT), bits = 8u << range(0, 4);
        const kel_vec_t src = draw_source(KEL_BITS | KEL_ZIP, 128);
        const kel_vec_t mask = draw_bits(src.elements + (one_in(2) ? range(0, 70) : 0), KEL_PIPE_MASK, 1, 0);
        uint64_t ones = 0;
        for (uint64_t i = 0; form != hopeless && i < std::min(src.elements, mask.elements); i++)
            ones += field(mask.data, mask.offset + i, 1);
        const kel_vec_t dst = draw_destination(bits, ones, 0);
        expanded = UINT64_MAX;
        run(kel_select, kel_select_post, bits_of(dst), flags, &src, &dst, &mask);
    }

    void extract()
    {
        const uint64_t flags = draw_flags(KEL_PAD | KEL_CACHE | KEL_NOWAIT), bits = 8u << range(0, 4);
        const kel_vec_t src = draw_source(KEL_VAR | KEL_RLE | KEL_BITS | KEL_ZIP, 128);
        const kel_vec_t dst = draw_destination(bits, expanded, src.elements);
        run(kel_extract, kel_extract_post, bits_of(dst), flags, &src, &dst);
    }

    void translate()
    {
        const uint64_t flags = draw_flags(KEL_ONES_INDEX | KEL_INVERT | KEL_CACHE | KEL_NOWAIT);
        const kel_vec_t src = draw_source(KEL_RLE | KEL_BITS, one_in(8) ? 24 : 12);
        const uint64_t width = bits_of(src), index_bits = std::min<uint64_t>(width, one_in(16) ? 24 : 12);
        const bool plain = form != hopeless && width <= 24 && !(src.format & (KEL_VAR | KEL_ZIP));
        uint64_t highest = 0; // of the elements
        for (uint64_t i = 0; plain && i < src.elements; i++)
            highest = std::max(highest, field(src.data, src.offset + i * width, static_cast<unsigned>(width)));
        const uint64_t elements = !one_in(4) ? UINT64_C(1) << index_bits : one_in(2) ? range(0, 4096) : highest;
        const kel_vec_t bitmap =
            draw_bits(elements, 0, version == 2 ? 16 : 64, elements == 0); // the first byte is read
        const auto val_width = one_in(4) ? range<uint32_t>(0, 33) : static_cast<uint32_t>(width);
        const uint64_t bits = flags & KEL_ONES_INDEX ? 16u << range(0, 1) : 1;
        const kel_vec_t dst = draw_destination(bits, expanded, src.elements);
        run(kel_translate, kel_translate_post, bits_of(dst), flags, &src, &dst, &bitmap, val_width);
    }

    void logical()
    {
        constexpr decltype(&kel_and) calls[] = {kel_and, kel_or, kel_xor};
        constexpr decltype(&kel_and_post) posts_of[] = {kel_and_post, kel_or_post, kel_xor_post};
        const uint64_t op = range(0, 2), flags = draw_flags(KEL_INVERT | KEL_INVERT_SRC | KEL_CACHE);
        expanded = draw_count();
        const kel_vec_t src1 = draw_bits(expanded, KEL_PIPE_SRC, 1, 2), src2 = draw_bits(expanded, 0, 1, 2);
        const kel_vec_t dst = draw_destination(1, expanded, expanded);
        expanded = src1.elements;
        silent = true; // rules of pipelines
        run(calls[op], posts_of[op], 1, flags, &src1, &src2, &dst);
    }

    void copy()
    {
        const uint64_t flags = draw_flags(KEL_CACHE | KEL_NOWAIT, false);
        const uint64_t count = form == hopeless ? any<uint64_t>() : draw_count();
        if (form == hopeless)
            return run(kel_copy, kel_copy_post, 8, flags, at(any<uintptr_t>()), at(any<uintptr_t>()), count);
        bool fed;
        const buffer_ptr source = add_stream(KEL_PIPE_SRC, 8 * count, range(0, 7), fed);
        expanded = count;
        target = std::make_shared<buffer>(range(0, 63), count);
        const bool overlaps = form == twisted && count > 0 && one_in(4);
        run(kel_copy, kel_copy_post, 8, flags, source->data, overlaps ? source->data : target->data, count);
    }

    void fill()
    {
        const uint64_t flags = draw_flags(KEL_CACHE | KEL_NOWAIT, false), value = any<uint64_t>();
        const uint32_t width = one_in(4) ? any<uint32_t>() >> range(0, 31) : 1u << range(0, 3);
        if (form == hopeless)
            return run(kel_fill, kel_fill_post, 8, flags, value, at(any<uintptr_t>()), any<uint64_t>(), width);
        const uint64_t count =
            width > (1 << 20) ? 0 : std::min<uint64_t>(draw_count(), (1 << 20) / std::max(width, 1u));
        expanded = count * width;
        target = std::make_shared<buffer>(range(0, 63), expanded);
        run(kel_fill, kel_fill_post, 8, flags, value, static_cast<void *>(target->data), count, width);
    }

    void nop()
    {
        run(kel_nop, kel_nop_post, 0, draw_flags(0, false));
    }

    void int_create()
    {
        const size_t len = one_in(4) ? any<size_t>() >> range(0, 63) : range(1, 16);
        const bool valid = len >= 1 && len <= 16;
        const buffer bytes(range(0, 7), valid ? len : 0);
        kel_int_t value = {};
        errors = 0;
        const kel_status_t status = kel_int_create(ctx, valid ? bytes.data : nullptr, len, &value);
        require(status == (valid ? KEL_SUCCESS : KEL_EINVAL) && (errors == 0) == valid);
        require(value.elem_width == (valid ? len : 0));
    }

    void poll()
    {
        if (one_in(4)) {
            void *const udata = at(range(0, posts + 1));
            const auto same = [&](const posted_request &r) { return r.udata == udata; };
            const bool found = std::any_of(waiting.begin(), waiting.end(), same);
            require(kel_cancel(queue, udata) == (found ? KEL_SUCCESS : KEL_ENOMATCH));
            require(kel_cancel_all(queue) == (waiting.empty() ? KEL_EQEMPTY : KEL_SUCCESS));
        }
        const int most = one_in(2) ? range<int>(0, 4) : -1;
        const uint64_t expected = std::min<uint64_t>(waiting.size(), static_cast<uint64_t>(int64_t{most}));
        const auto results = std::make_unique<kel_poll_t[]>(expected);
        const int polled = kel_poll(queue, results.get(), most, any<int64_t>());
        require(polled == (waiting.empty() ? KEL_EQEMPTY : static_cast<int>(expected)));
        for (uint64_t i = 0; i < expected; i++, waiting.pop_front()) {
            const kel_status_t status = results[i].status;
            require(results[i].udata == waiting.front().udata && (status != KEL_SUCCESS || !waiting.front().failed));
            require(status == KEL_SUCCESS || status == KEL_EDATAFMT || status == KEL_EOVERFLOW);
        }
    }

    kel_queue_t *queue = nullptr;
    uint64_t live_bytes = 0;
    unsigned errors = 0; // lines at error level
    bool silent = false; // the request at hand may be refused without words

    struct posted_request {
        void *udata;
        bool failed; // as the log tells
    };
    std::deque<posted_request> waiting;
    uint64_t posts = 0;
};

} // namespace

// The library keeps the texts of unknown values on purpose. Whether all else goes back is told by the allocator.
extern "C" int __lsan_is_turned_off(void)
{
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    client requests(input, input.ConsumeIntegralInRange(1u, 2u));
    for (unsigned n = 0; n == 0 || (n < 30 && input.remaining_bytes() > 0); n++)
        requests.step();
    return 0;
}
