// Scans against the reference model, and the small cases whose bytes are known.

#include "kel.hpp"
#include "request_makers.h"

using namespace model;

// Where it can be had, the system's allocator is counted.
static unsigned system_allocations;

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define COUNTED(name, parameters, ...)                                                                                 \
    extern "C" void *__libc_##name parameters;                                                                         \
    extern "C" void *name parameters noexcept                                                                          \
    {                                                                                                                  \
        system_allocations++;                                                                                          \
        return __libc_##name(__VA_ARGS__);                                                                             \
    }
COUNTED(malloc, (size_t size), size)
COUNTED(calloc, (size_t count, size_t size), count, size)
COUNTED(memalign, (size_t align, size_t size), align, size)
#endif

// ---- Random scans ---------------------------------------------------------------------------------------------------

TEST_P(random_requests, agree_with_the_model)
{
    check_random<scan_maker>(GetParam(), 7500);
}

INSTANTIATE_TEST_SUITE_P(scans, random_requests, contexts(0u, arg, arg | extra, extra));

// ---- Known cases ----------------------------------------------------------------------------------------------------

static kel_int_t bytes(uint32_t size, uint64_t low, uint64_t high = 0)
{
    return {KEL_BYTES, size, {0, high, low}};
}

// The destination of a scan, whose data is placed by the check: with entries of 0 bytes a bit vector.
static kel_vec_t destination(uint64_t elements, uint32_t entry)
{
    return plain_vector(entry ? KEL_BYTES : KEL_BITS, elements, entry ? entry : 1);
}

static kel_vec_t byte_source(const guarded_buffer &data, uint64_t elements)
{
    return plain_vector(KEL_BYTES, elements, 1, data.data);
}

static const known_vector nibbles = {KEL_BITS, 4, 4, "1234"}, bits_12 = {KEL_BITS, 2, 12, "a00bff"},
                          pairs = {KEL_BYTES, 3, 2, "010201030201"}, no_pairs = {KEL_BYTES, 0, 2, ""},
                          texts = {KEL_VAR, 3, 0, "4141424341430000000000000000000000000000", "010310"},
                          zero_width = {KEL_VAR, 3, 0, "0506", "010100"};

static known_vector runs(const char *aux, uint64_t format = KEL_RLE)
{
    return {format, 3, 1, "050605", aux};
}

static const kel_int_t three = {KEL_BITS, 4, {0, 0, 3}}, zero = bytes(1, 0), five = bytes(1, 5), six = bytes(1, 6),
                       ten = bytes(1, 10), ab = bytes(2, 0x4142), ac = bytes(16, 0, uint64_t{0x4143} << 48),
                       longer = bytes(3, 0x010200), none = {};

// Small scans with the text of their outcome: status, matches of elements processed, size, bytes, messages.
static const struct known_case {
    known_vector src;
    uint64_t elements; // of the destination
    uint32_t entry;    // bytes of a list entry, 0 for a bit vector
    int op;
    kel_int_t lower, upper;
    const char *expected;
} known_cases[] = {
    {nibbles, 4, 0, KEL_EQ, three, none, "status 0, 1 of 4, 64 bytes 20"},
    {nibbles, 4, 2, KEL_EQ, three, none, "status 0, 1 of 4, 64 bytes 0002"},
    {no_pairs, 0, 0, KEL_NE, zero, none, "status 0, 0 of 0, 0 bytes "},
    {nibbles, 4, 0, KEL_EQ, five, none, "status 0, 0 of 4, 64 bytes "},
    {nibbles, 4, 2, KEL_EQ, five, none, "status 0, 0 of 4, 0 bytes "},
    {runs("010302"), 6, 0, KEL_EQ, six, none, "status 0, 3 of 6, 64 bytes 70"},
    {runs("010302"), 6, 2, KEL_EQ, six, none, "status 0, 3 of 6, 64 bytes 000100020003"},
    {runs("010302"), 6, 2, KEL_EQ, five, none, "status 0, 3 of 6, 64 bytes 000000040005"},
    {runs("000201", KEL_RLE | KEL_ADD_ONE), 6, 0, KEL_EQ, six, none, "status 0, 3 of 6, 64 bytes 70"},
    {runs("000302"), 6, 0, KEL_EQ, six, none, "status -4, 0 of 0, 0 bytes ; EDATAFMT at element index 1"},
    {runs("100002"), 32, 0, KEL_EQ, five, none, "status -4, 16 of 16, 64 bytes ffff; EDATAFMT at element index 2"},
    {zero_width, 3, 0, KEL_EQ, six, none, "status -4, 1 of 2, 64 bytes 40; EDATAFMT at element index 3"},
    {pairs, 3, 0, KEL_EQ, longer, none, "status 0, 0 of 3, 64 bytes "},
    {pairs, 3, 0, KEL_LE, longer, none, "status 0, 1 of 3, 64 bytes 80"},
    {pairs, 3, 0, KEL_GT, bytes(1, 1), none, "status 0, 3 of 3, 64 bytes e0"},
    {bits_12, 2, 0, KEL_GT, ten, none, "status 0, 2 of 2, 64 bytes c0"},
    {texts, 3, 0, KEL_LT, ab, none, "status 0, 1 of 3, 64 bytes 80"},
    {texts, 3, 4, KEL_GT_AND_LE, ab, ac, "status 0, 2 of 3, 64 bytes 0000000100000002"},
    {pairs, 3, 0, 4, zero, none, "status -3, 7 of 7, 7 bytes "},
    {pairs, 3, 0, 30, zero, zero, "status -3, 7 of 7, 7 bytes "},
};

TEST(scan, known_cases)
{
    for (const auto &[from, elements, entry, op, lower, upper, expected] : known_cases)
        check_known(scan{entry ? KEL_ONES_INDEX : 0, from, destination(elements, entry), op, lower, upper}, expected);
}

// Positions beyond 65535 in 2-byte entries: what does not fit reaches into the entry before it in the same word.
TEST(scan, positions_beyond_65535)
{
    test_context ctx(2, 0);
    destination_area dst;
    constexpr uint64_t elements = 65536 + 40;
    const guarded_buffer data(elements);
    memset(data.data, 0, elements);
    for (const int match : {0xfffd, 0xfffe, 0x10000, 0x10002, 0x10004, 0x10022})
        data.data[match] = 9;
    scan s = {KEL_ONES_INDEX, byte_source(data, elements), destination(elements, 2), KEL_EQ, bytes(1, 9), none};
    check_roads(ctx, plain, s, dst);
    EXPECT_EQ(hex(dst.start, 14), "fffdffff00010002000500220000");
    for (const unsigned distance : {1u, 3u, 4u, 5u}) {
        for (uint64_t i = 0; i < elements; i += distance)
            data.data[i] = static_cast<uint8_t>(10 + distance);
        s.lower = bytes(1, 10 + distance);
        check_roads(ctx, plain, s, dst);
    }
}

// Lists of all sizes that are too small, with the entries at all places in a word and a block where they run full.
TEST(scan, list_overflows_at_any_entry)
{
    test_context ctx(2, 0);
    destination_area dst;
    random_source random(9);
    const guarded_buffer data(264);
    for (uint64_t n = 0; n < 48 * 70; n++) {
        const uint32_t entry = n / 70 < 16 ? 2 : 4;
        const uint64_t first = n % 70, lines = entry == 2 ? n / 70 : n / 70 - 16;
        for (uint64_t i = 0; i < data.size; i++)
            data.data[i] = i < first || random.one_in(100);
        const kel_vec_t list = destination(lines * 64 / entry, entry);
        scan s = {KEL_ONES_INDEX, byte_source(data, 256), list, KEL_EQ, zero, none};
        ASSERT_TRUE(check_roads(ctx, plain, s, dst));
    }
}

// Elements whose length in bits passes 64 bits: both roads stop at the destination's end, which wraps to its start.
TEST(scan, more_elements_than_a_length_can_tell)
{
    test_context ctx;
    destination_area dst;
    const guarded_buffer data(8);
    scan s = {KEL_ONES_INDEX, byte_source(data, 8), destination(0, 2), KEL_EQ, zero, none};
    dst.place(s, {});
    s.src.elements = s.dst.elements = uint64_t{1} << 61;
    EXPECT_EQ(kel_scan_value(ctx, KEL_ONES_INDEX, &s.src, &s.dst, KEL_EQ, &zero).status, KEL_EOVERFLOW);
    EXPECT_EQ(ctx.messages(), lines_t{"EOVERFLOW at element index 1"});
}

// Beside a value of more than 32 bytes elements are compared by bytes: by the 8 that hold them, with the first of the
// value, and a tie goes to the widths.
TEST(scan, value_beyond_32_bytes)
{
    test_context ctx(2, 0);
    const known_vector wide(0, 3, 8, "010101010101010102020202020202020202020202020203"),
        narrow(0, 12, 2, "010101010101010102020202020202020202020202020203");
    const kel_int_t twos = {KEL_BYTES, 40, {0x0202020202020202, 0, 0}}, one = {KEL_BYTES, 40, {1, 0, 0}};
    const auto matches = [&](const kel_vec_t &src, kel_compare_t op, const kel_int_t &value) {
        const kel::column dst = kel::column::bits(12, 1);
        EXPECT_EQ(kel_scan_value(ctx, 0, &src, dst, op, &value).status, KEL_SUCCESS);
        return *static_cast<uint8_t *>(dst.vec.data);
    };
    EXPECT_EQ(matches(wide, KEL_LT, twos), 0xc0);
    EXPECT_EQ(matches(wide, KEL_EQ, twos), 0);
    EXPECT_EQ(matches(wide, KEL_GT, twos), 0x20);
    EXPECT_EQ(matches(narrow, KEL_LE, one), 0xff);
    EXPECT_EQ(matches(narrow, KEL_GE, one), 0);
    const kel_int_t pair = bytes(2, 0x0101); // a short value beside the long one
    const kel::column dst = kel::column::bits(12, 1);
    EXPECT_EQ(kel_scan_range(ctx, 0, &narrow, dst, KEL_LT_OR_GT, &pair, &one).count, 12u);
}

// Elements without a byte have no data to be read: the length is looked at first.
TEST(scan, length_of_nothing)
{
    test_context ctx;
    uint8_t lengths[8] = {};
    const kel_vec_t src = {KEL_VAR, 1, nullptr, 0, 0, 0, 8, lengths, nullptr, 0};
    const kel::column dst = kel::column::bytes(1, 4);
    EXPECT_EQ(kel_scan_value(ctx, KEL_ONES_INDEX, &src, dst, KEL_EQ, &five).status, KEL_EDATAFMT);
    EXPECT_EQ(kel_extract(ctx, 0, &src, dst).status, KEL_EDATAFMT);
}

// An operator above its family names the kernel of another format, which is not to look for lengths where there are
// none. Beyond all kernels it ends the program.
TEST(scan_death, operators_above_their_families)
{
    const options o = {2, arg | extra, errors};
    test_context ctx(o.version, o.debug, o.log), unvalidated(2, 0);
    destination_area dst;
    const guarded_buffer data(32);
    const kel_vec_t src = plain_vector(KEL_BYTES, 2, 16, data.data);
    scan s = {0, src, destination(2, 0), KEL_EQ_OR_EQ, bytes(16, 1), bytes(16, 2)};
    const outcome expected = call(s, o, emulation(s, o), true);
    s.op += 32;
    EXPECT_TRUE(check(ctx, o, calls, s, expected, dst));

    const guarded_buffer wide(100 * 16);
    kel_vec_t without_lengths = plain_vector(KEL_BYTES, 100, 16, wide.data);
    without_lengths.aux_width = 8;
    const kel_int_t filling = {KEL_BYTES, 16, {0, 0xa5a5a5a5a5a5a5a5, 0xa5a5a5a5a5a5a5a5}};
    const kel::column found = kel::column::bits(100, 1);
    EXPECT_EQ(kel_scan_value(unvalidated, 0, &without_lengths, found, KEL_EQ_OR_EQ, &filling).count, 100u);

    const auto op = static_cast<kel_compare_t>(1000);
    EXPECT_DEATH(kel_scan_value(unvalidated, 0, &s.src, &s.dst, op, &zero), "kel_scan_value_emulate.*0");
    EXPECT_DEATH(kel_scan_range(unvalidated, 0, &s.src, &s.dst, op, &zero, &zero), "kel_scan_range_emulate.*0");
}

// Scans of uncompressed sources take no memory, whether they succeed or fail.
TEST(scan, allocates_nothing)
{
    block_store store;
    const kel_init_options_t allocator = store.options();
    for (const uint32_t debug : {0u, arg, arg | extra}) {
        test_context ctx(2, debug, 0, &allocator);
        random_source random(77 + debug);
        scan_maker maker(random);
        destination_area dst;
        unsigned failures = 0;
        store.requests.clear();
        for (unsigned n = 0; n < 500; n++) {
            scan s = maker.make(true);
            dst.place(s, emulation(s, plain));
            system_allocations = 0;
            const outcome seen = run(ctx, calls, s);
            ASSERT_EQ(system_allocations, 0u) << s;
            ASSERT_TRUE(store.requests.empty()) << s;
            failures += seen.status != KEL_SUCCESS;
        }
        EXPECT_TRUE(failures > 0 && failures < 250) << failures;
    }
}
