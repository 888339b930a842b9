// A fuzz target: the input decides what the makers of requests make, and in which order a queue is used, from inside
// its own log callback as well. Requests leave what the models say. Descriptors of any fields are refused unread.
#include "request_makers.h"

using namespace model;

namespace
{

// Descriptors of any fields, at borders among them. The offset of a destination, which has to be 0, refuses them.
void refuse_wild(test_context &ctx, random_source &random)
{
    static constexpr uint64_t borders[] = {0,         1, INT32_MAX, UINT32_MAX, uint64_t{1} << 32, uint64_t{1} << 61,
                                           UINT64_MAX};
    kel_vec_t vecs[3], *const src = &vecs[0], *const aux = &vecs[1], *const dst = &vecs[2];
    kel_int_t values[2];
    random.fill(vecs, sizeof vecs);
    random.fill(values, sizeof values);
    for (kel_vec_t &vec : vecs) {
        vec.format &= random.one_in(4) ? UINT64_MAX : 31;
        vec.elements = random.one_in(2) ? random.pick(borders) : vec.elements >> random.between(0, 63);
        vec.elem_width >>= random.between(0, 31);
        vec.aux_width = static_cast<uint16_t>(vec.aux_width >> random.between(0, 15));
        vec.data = random.one_in(2) ? nullptr : vec.data;
    }
    dst->offset = random.between<uint8_t>(1, 255);
    const uint64_t flags = random.word() & random.word(), bad_flags = flags | uint64_t{1} << random.between(12, 63);
    const auto op = random.pick(value_operators).op, range_op = random.pick(range_operators).op;
    kel_queue_t *const queue = open_queue(ctx, 1);
    const auto refuses = [&](const auto &call, const auto &post, auto... args) {
        kel_status_t seen[] = {call(ctx, args...).status, post(queue, args..., nullptr)};
        for (const kel_status_t status : seen)
            EXPECT_EQ(status, KEL_EINVAL);
    };
    ctx.lines.clear();
    reset_hooks();
    refuses(kel_scan_value, kel_scan_value_post, flags, src, dst, kel_compare_t(op), &values[0]);
    refuses(kel_scan_range, kel_scan_range_post, flags, src, dst, kel_compare_t(range_op), &values[0], &values[1]);
    refuses(kel_select, kel_select_post, flags, src, dst, aux);
    refuses(kel_extract, kel_extract_post, flags, src, dst);
    refuses(kel_translate, kel_translate_post, flags, src, dst, aux, values[0].elem_width);
    refuses(kel_and, kel_and_post, flags, src, aux, dst);
    refuses(kel_copy, kel_copy_post, bad_flags, src->data, dst->data, src->elements);
    refuses(kel_fill, kel_fill_post, bad_flags, random.word(), dst->data, src->elements, src->elem_width);
    EXPECT_GE(ctx.lines.size(), 16u);
    EXPECT_EQ(ctx.lines.size(), kel_debug_calls);
    EXPECT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
}

// Copies that may feed one another, polled and cancelled in any order, also by the callback that their lines go to.
struct queue_user {
    kel_context_t *ctx;
    random_source &random;
    kel_queue_t *queue = nullptr;
    unsigned depth = 0;
    alignas(64) uint8_t bytes[4][256] = {};

    void post_copy()
    {
        static constexpr uint64_t pipes[] = {0, 0, KEL_PIPE_SRC, KEL_PIPE_AUX, KEL_PIPE_FLAGS};
        const uint64_t from = random.between(0, 3), to = (from + random.between(1, 3)) % 4,
                       size = random.between(0, 256);
        const uint64_t flags = random.between(0, 3) * KEL_SERIAL | random.pick(pipes); // KEL_COND is the next bit
        uint8_t expected[256];
        memcpy(expected, bytes[to], 256);
        const kel_status_t status = kel_copy_post(queue, flags, bytes[from], bytes[to], size, this);
        EXPECT_TRUE(status == KEL_SUCCESS || status == KEL_EINVAL || status == KEL_EQFULL);
        if (status == KEL_SUCCESS)
            memcpy(expected, bytes[from], size);
        EXPECT_TRUE(depth > 0 || memcmp(expected, bytes[to], 256) == 0);
    }

    void call()
    {
        kel_poll_t polled[5];
        switch (random.between(0, 5)) {
        case 0:
            EXPECT_LE(kel_poll(queue, polled, random.between<int>(0, 5) - (random.one_in(4) ? 6 : 0), 0), 4);
            break;
        case 1:
            random.one_in(2) ? kel_cancel(queue, this) : kel_cancel_all(queue);
            break;
        default:
            post_copy();
        }
    }

    static void call_back(kel_context_t *, void *user, uint32_t, const char *, const char *)
    {
        auto &self = *static_cast<queue_user *>(user);
        if (self.queue && self.depth < 2 && self.random.one_in(3)) {
            self.depth++;
            self.call();
            self.depth--;
        }
    }

    void run()
    {
        kel_set_log_callback(ctx, random.one_in(2) ? KEL_LOG_ALL : KEL_LOG_ERROR, call_back, this);
        queue = open_queue(ctx, random.between<int>(1, 4));
        for (int i = 0; i < 12; i++)
            call();
        EXPECT_EQ(kel_queue_destroy(std::exchange(queue, nullptr)), KEL_SUCCESS);
    }
};

} // namespace

// The library keeps the texts of unknown values on purpose. Whether all else goes back is told by the allocator.
extern "C" int __lsan_is_turned_off(void)
{
    return 1;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    GTEST_FLAG_SET(break_on_failure, true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static workplace place;
    uint64_t seed = 0;
    memcpy(&seed, data, std::min(size, sizeof seed));
    random_source &random = place.random = random_source(seed, {data, size});
    const options o = place.draw_options();
    block_store store;
    const kel_init_options_t allocator = store.options();
    {
        test_context ctx(o.version, o.debug, o.log, random.one_in(2) ? nullptr : &allocator);
        for (unsigned n = 0; n == 0 || (n < 30 && !random.told.empty()); n++)
            if (random.one_in(8))
                queue_user{test_context(o.version, o.debug), random}.run();
            else if (test_context validated(o.version, arg | extra); random.one_in(8))
                refuse_wild(validated, random);
            else
                place.check_some(ctx, o, 1);
    }
    EXPECT_TRUE(store.live.empty());
    return 0;
}
