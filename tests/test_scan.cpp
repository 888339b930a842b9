// Scans against the reference model, and the small cases whose bytes are known.

#include "kel_scan.h"
#include "scan_model.h"
#include <bitset>
#include <cstring>
#include <gtest/gtest.h>
#include <numeric>
#include <sstream>

using namespace scan_model;

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

// ---- One scan against the model -------------------------------------------------------------------------------------

// The destinations of all cases: each ends in front of a page that faults.
class destination_area
{
  public:
    // Room for a scan with this outcome: 64 bytes behind the nominal end, or as much as its last run needs.
    void place(scan &s, const outcome &expected)
    {
        room = std::max(nominal_bytes(s.dst) + 64, round_up(expected.bytes.size(), 64));
        start = buffer.data + buffer.size - room;
        s.dst.data = start;
        memset(start - margin, 0xa5, room + margin);
    }

    bool holds(const outcome &expected) const
    {
        const auto unwritten = [](uint8_t byte) { return byte == 0xa5; };
        return std::equal(expected.bytes.begin(), expected.bytes.end(), start) &&
               std::all_of(start + expected.bytes.size(), start + room, unwritten) &&
               std::all_of(start - margin, start, unwritten);
    }

    uint8_t *start = nullptr;
    uint64_t room = 0;

  private:
    static constexpr uint64_t margin = 64;
    guarded_buffer buffer{size_t{2} << 20, 64};
};

// The public call, the emulation behind it, and the general kernels alone.
enum road { calls, emulations, general_kernels };

static constexpr cca_t cca_before = {0x5a5a5a5a, 0x5a5a5a5a, 0x5a5a5a5a5a5a5a5a};

static outcome run(test_context &ctx, road way, const scan &s)
{
    const auto op = static_cast<kel_compare_t>(s.op);
    outcome seen;
    if (way == calls) {
        const kel_result_t result = s.range() ? kel_scan_range(ctx, s.flags, &s.src, &s.dst, op, &s.lower, &s.upper)
                                              : kel_scan_value(ctx, s.flags, &s.src, &s.dst, op, &s.lower);
        seen.status = result.status;
        seen.cca = {0, result.reserved, result.count};
        return seen;
    }
    const auto value = way == emulations ? kel_scan_value_emulate : kel_scan_value_general;
    const auto range = way == emulations ? kel_scan_range_emulate : kel_scan_range_general;
    seen.cca = cca_before;
    seen.status = s.range() ? range(ctx, s.flags, &s.src, &s.dst, op, &s.lower, &s.upper, &seen.cca)
                            : value(ctx, s.flags, &s.src, &s.dst, op, &s.lower, &seen.cca);
    return seen;
}

// All but the bytes. The reports of a refused call are any, but there are as many lines as calls of the hook.
static bool agree(const outcome &seen, const outcome &expected, uint32_t log_options)
{
    const bool same_reports =
        expected.refused
            ? seen.debug_calls > 0 && seen.lines.size() == (log_options & KEL_LOG_ERROR ? seen.debug_calls : 0)
            : seen.debug_calls == expected.debug_calls && seen.lines == expected.lines;
    return same_reports && seen.status == expected.status && seen.error_calls == expected.error_calls &&
           memcmp(&seen.cca, &expected.cca, sizeof seen.cca) == 0;
}

// Runs a scan; whether it leaves behind what the model says. If not, all about it goes into the test's failure.
static bool check(test_context &ctx, const options &o, road way, scan &s, destination_area &dst)
{
    const outcome expected = way == calls ? call(s, o) : emulation(s, o.log, cca_before);
    dst.place(s, expected);
    reset_hooks();
    ctx.lines.clear();
    outcome seen = run(ctx, way, s);
    for (const log_line &line : ctx.lines)
        seen.lines.emplace_back(line.level, line.message);
    seen.debug_calls = kel_debug_calls;
    seen.error_calls = emulate_error_calls;
    if (agree(seen, expected, o.log) && dst.holds(expected)) [[likely]]
        return true;
    seen.bytes.assign(dst.start, dst.start + dst.room);
    ADD_FAILURE() << "road " << way << ", version " << o.version << ", debug " << o.debug << ", log " << o.log << ": "
                  << s << "\n  expected " << expected << "; hooks " << expected.debug_calls << ' '
                  << expected.error_calls << "\n  seen " << seen << "; hooks " << seen.debug_calls << ' '
                  << seen.error_calls;
    return false;
}

static bool check_roads(test_context &ctx, const options &o, scan &s, destination_area &dst)
{
    return check(ctx, o, calls, s, dst) && check(ctx, o, emulations, s, dst) && check(ctx, o, general_kernels, s, dst);
}

// ---- Random scans ---------------------------------------------------------------------------------------------------

// Makes scans. Their streams end with the aligned word in front of a page that faults; the destination is placed later.
class scan_maker
{
  public:
    explicit scan_maker(uint64_t seed) : random(seed) {}

    // lawful: within the widths and formats that validation accepts (of one version at least), though not always.
    scan make(bool make_lawful)
    {
        static constexpr int missing_value[] = {4, 6}, missing_range[] = {20, 22, 24, 26, 28, 30};
        lawful = make_lawful;
        no_width = !lawful && random.one_in(40);
        wide_elements = !lawful && !no_width && random.one_in(10);
        scan s = {};
        s.flags = random.one_in(2) ? KEL_ONES_INDEX : 0;
        if (random.one_in(8))
            s.flags |= random.one_in(2) ? KEL_CACHE : KEL_NOWAIT;
        if (!lawful && random.one_in(40))
            s.op = random.one_in(2) ? random.pick(missing_range) : random.pick(missing_value);
        else
            s.op = random.one_in(2) ? random.pick(range_operators).op : random.pick(value_operators).op;
        draw_format(s.src);
        draw_lengths(s.src);
        draw_elements(s.src);
        s.lower = draw_value(s.src, wide_elements);
        s.upper = draw_value(s.src, false);
        draw_destination(s);
        return s;
    }

    random_source random;

  private:
    static constexpr size_t area = size_t{1} << 20;
    using bit_string = std::vector<bool>;

    // A width of up to 24 bytes; lawful ones have up to 16 bytes or up to 24 bits.
    uint32_t draw_width(bool in_bits)
    {
        const uint64_t widest = lawful ? 16 : 24;
        if (!in_bits)
            return random.between<uint32_t>(1, random.one_in(4) ? 4 : widest);
        if (random.one_in(6))
            return 8 * random.between<uint32_t>(1, widest);
        return random.between<uint32_t>(1, lawful ? 24 : random.one_in(6) ? 192 : 64);
    }

    void draw_format(kel_vec_t &src)
    {
        static constexpr uint64_t counts[] = {0, 1, 63, 64, 65, 127, 128, 129};
        static constexpr uint64_t aux_formats[] = {0, 0, KEL_RLE, KEL_VAR};
        src.elements = random.one_in(2) ? random.pick(counts) : random.between(0, random.one_in(50) ? 5000 : 300);
        src.format = no_width ? random.one_in(2) * KEL_RLE : random.pick(aux_formats);
        if (has_aux(src) && random.one_in(2))
            src.format |= KEL_ADD_ONE;
        if (!lawful && !no_width && random.one_in(16))
            src.format |= random.one_in(2) ? KEL_ADD_ONE : KEL_VAR;
        const bool variable = src.format & KEL_VAR;
        if (variable ? !lawful && random.one_in(8) : random.one_in(2))
            src.format |= KEL_BITS;
        if (variable)
            src.elem_width = random.between<uint32_t>(variable_width(src) ? 0 : 1, 16);
        else
            src.elem_width = no_width ? 0 : draw_width(src.format & KEL_BITS);
        src.offset = random.between<uint8_t>(0, no_width || (lawful && bits_of(src) > 64) ? 0 : 7);
    }

    static void append(bit_string &stream, uint64_t field, unsigned bits)
    {
        while (bits-- > 0)
            stream.push_back(field >> bits & 1);
    }

    // Puts a stream at any address such that it ends with the word in front of the page; random bits all around.
    uint8_t *place(const guarded_buffer &buffer, const bit_string &stream)
    {
        const uint64_t phase = random.one_in(3) ? 0 : random.between(1, 7);
        const uint64_t words = round_up(phase + std::max<uint64_t>((stream.size() + 7) / 8, 1), 8);
        uint8_t *start = buffer.data + buffer.size - words;
        random.fill(start, words);
        for (uint64_t i = 0; i < stream.size(); i++) {
            uint8_t &byte = start[phase + i / 8];
            byte = static_cast<uint8_t>((byte & ~(0x80 >> i % 8)) | stream[i] << (7 - i % 8));
        }
        return start + phase;
    }

    // Aux elements are runs or widths, mostly without zeros.
    void draw_lengths(kel_vec_t &src)
    {
        static constexpr uint16_t widths[] = {1, 2, 4, 8}, unlawful_widths[] = {8, 16, 32};
        src.aux_width = !lawful && random.one_in(8) ? random.pick(unlawful_widths) : random.pick(widths);
        src.aux_offset = random.between<uint8_t>(0, 7);
        bit_string stream;
        append(stream, random.word(), src.aux_offset);
        const uint64_t longest_run = src.elements > 300 || !random.one_in(4) ? 3 : 255;
        const uint64_t widest = (wide_elements ? 32 : random.one_in(2) ? 16 : 6) - add_one(src);
        const uint64_t most =
            std::min<uint64_t>(src.format & KEL_RLE ? longest_run : widest, (uint64_t{1} << src.aux_width) - 1);
        const bool zeros = random.one_in(4);
        lengths.clear();
        for (uint64_t i = 0; i < src.elements; i++) {
            uint64_t stored = random.between(1 - add_one(src), most);
            if (zeros && random.one_in(80))
                stored = 0;
            lengths.push_back(stored + add_one(src));
            append(stream, stored, src.aux_width);
        }
        src.aux_data = place(aux, stream);
    }

    // Elements are random, or the heads of a few texts that differ in one place, so that many are equal.
    void draw_elements(kel_vec_t &src)
    {
        using text = std::bitset<256>;
        const auto draw_text = [&] {
            text drawn;
            for (unsigned i = 0; i < 4; i++)
                drawn = drawn << 64 | text(random.word());
            return drawn;
        };
        const uint64_t typical = variable_width(src) ? random.between(1, 40) : std::max<uint64_t>(bits_of(src), 1);
        text texts[3] = {draw_text()};
        texts[1] = texts[0] ^ text(1) << (typical - 1);
        texts[2] = texts[0] ^ text(random.between(0, 255)) << typical / 2;
        const bool few = !random.one_in(3);

        bit_string stream;
        append(stream, random.word(), src.offset);
        places.clear();
        for (const uint64_t length : lengths) {
            const uint64_t bits = no_width ? 8 : variable_width(src) ? 8 * length : bits_of(src);
            const text drawn = few ? random.pick(texts) : draw_text();
            places.emplace_back(stream.size(), bits);
            for (uint64_t i = 0; i < bits; i++)
                stream.push_back(drawn[i]);
        }
        src.data = place(elements, stream);
    }

    // A value next to an element of the data, often in its width.
    kel_int_t draw_value(const kel_vec_t &src, bool wide)
    {
        const auto [position, bits] =
            places.empty() ? std::pair<uint64_t, uint64_t>() : places[random.between(0, places.size() - 1)];
        kel_int_t value = {};
        value.format = bits % 8 || random.one_in(2) ? KEL_BITS : KEL_BYTES;
        if (wide)
            value = {KEL_BYTES, random.between<uint32_t>(17, 24), {}};
        else if (bits && bits <= (lawful ? 128 : 192) && !no_width && !random.one_in(3))
            value.elem_width = static_cast<uint32_t>(value.format & KEL_BITS ? bits : bits / 8);
        else if (!no_width)
            value.elem_width = draw_width(value.format & KEL_BITS);

        const uint64_t width = no_width ? 8 : bits_of(value), size = round_up(width, 8) / 8;
        std::string text = bit_reader{src.data, position}.bytes(bits);
        const bool longer = size > text.size();
        text.resize(size);
        for (uint64_t i = 0; i < size; i++)
            value.dword[2 - i / 8] |= uint64_t{static_cast<uint8_t>(text[size - 1 - i])} << i % 8 * 8;
        if (longer && random.one_in(2))
            value.dword[2] |= random.between(0, 255);
        if (random.one_in(3))
            value.dword[2] += random.one_in(2) ? 1 : UINT64_MAX;
        if (random.one_in(20))
            random.fill(value.dword, sizeof value.dword);

        const bool garbage = random.one_in(8); // above the bytes of the value
        for (uint64_t bit = random.one_in(2) ? width : 8 * size; bit < 192; bit++) {
            uint64_t &word = value.dword[2 - bit / 64];
            word &= ~(uint64_t{1} << bit % 64);
            word |= uint64_t{garbage && bit >= 8 * size && random.one_in(2)} << bit % 64;
        }
        return value;
    }

    // A destination of any size around the one that holds the outcome of all elements.
    void draw_destination(scan &s)
    {
        static constexpr uint32_t list_bits[] = {16, 32}, entry_bits[] = {8, 12, 16, 20, 24, 32, 40, 48, 56, 64};
        kel_vec_t &dst = s.dst;
        dst.elem_width = s.flags & KEL_ONES_INDEX ? random.pick(list_bits) : 1;
        if (!lawful && random.one_in(4))
            dst.elem_width = random.pick(entry_bits);
        dst.format = KEL_BITS;
        if (dst.elem_width % 8 == 0 && random.one_in(2)) {
            dst.format = KEL_BYTES;
            dst.elem_width /= 8;
        }
        if (!lawful && random.one_in(10))
            dst.offset = random.between<uint8_t>(1, 7);
        const uint64_t least = lawful ? s.src.elements : 0;
        const uint64_t all =
            s.src.format & KEL_RLE ? std::accumulate(lengths.begin(), lengths.end(), uint64_t{0}) : s.src.elements;
        const uint64_t ample = std::max(least, all);
        dst.elements = random.one_in(2) ? ample : random.between(least, ample + 70);
        if (random.one_in(8))
            dst.elements = s.src.elements;
    }

    bool lawful = false;
    bool no_width = false;         // neither the elements nor the values have a width
    bool wide_elements = false;    // elements of variable width up to 32 bytes, with a value above 16 bytes
    std::vector<uint64_t> lengths; // the runs or widths
    std::vector<std::pair<uint64_t, uint64_t>> places; // position and bits of each element
    guarded_buffer elements{area, 1}, aux{area, 1};
};

class random_scans : public testing::TestWithParam<options>
{
};

static constexpr uint32_t arg = KEL_DEBUG_ARG, extra = KEL_DEBUG_EXTRA, errors = KEL_LOG_ERROR;

INSTANTIATE_TEST_SUITE_P(contexts, random_scans,
                         testing::Values(options{1, 0, errors}, options{2, 0, 0}, options{1, arg, errors},
                                         options{2, arg, errors | KEL_LOG_VERBOSE}, options{1, arg | extra, errors},
                                         options{2, arg | extra, errors}, options{2, extra, errors}));

// Where arguments are validated, few of the scans that are refused are run.
TEST_P(random_scans, agree_with_the_model)
{
    const options o = GetParam();
    const bool validated = o.debug & KEL_DEBUG_ARG;
    test_context ctx(o.version, o.debug, o.log);
    scan_maker maker(o.version + 10 * o.debug);
    destination_area dst;
    for (unsigned n = 0; n < 20000 && !HasFailure();) {
        scan s = maker.make(validated || maker.random.one_in(4));
        if (validated && refused(s, o.version) && !maker.random.one_in(8))
            continue;
        n++;
        check_roads(ctx, o, s, dst);
    }
}

// ---- Known cases ----------------------------------------------------------------------------------------------------

static constexpr options plain = {2, 0, KEL_LOG_ERROR};

static kel_int_t bytes(uint32_t size, uint64_t low, uint64_t high = 0)
{
    return {KEL_BYTES, size, {0, high, low}};
}

// The destination of a scan, whose data is placed by the check: with entries of 0 bytes a bit vector.
static kel_vec_t destination(uint64_t elements, uint32_t entry)
{
    return {entry ? KEL_BYTES : KEL_BITS, elements, nullptr, entry ? entry : 1, 0, 0, 0, nullptr, nullptr, 0};
}

static kel_vec_t byte_source(const guarded_buffer &data, uint64_t elements)
{
    return {KEL_BYTES, elements, data.data, 1, 0, 0, 0, nullptr, nullptr, 0};
}

struct known_source {
    uint64_t format, elements;
    uint32_t width;
    std::string data, aux = ""; // hexadecimal; aux elements have 8 bits
};

static const known_source nibbles = {KEL_BITS, 4, 4, "1234"}, bits_12 = {KEL_BITS, 2, 12, "a00bff"},
                          pairs = {KEL_BYTES, 3, 2, "010201030201"}, no_pairs = {KEL_BYTES, 0, 2, ""},
                          texts = {KEL_VAR, 3, 0, "4141424341430000000000000000000000000000", "010310"},
                          zero_width = {KEL_VAR, 3, 0, "0506", "010100"};

static known_source runs(const char *aux, uint64_t format = KEL_RLE)
{
    return {format, 3, 1, "050605", aux};
}

static const kel_int_t three = {KEL_BITS, 4, {0, 0, 3}}, zero = bytes(1, 0), five = bytes(1, 5), six = bytes(1, 6),
                       ten = bytes(1, 10), ab = bytes(2, 0x4142), ac = bytes(16, 0, uint64_t{0x4143} << 48),
                       longer = bytes(3, 0x010200), none = {};

// Small scans with the text of their outcome: status, matches of elements processed, size, bytes, messages.
static const struct known_case {
    known_source src;
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
    {pairs, 3, 0, 4, zero, none, "status -3, 0 of 0, 0 bytes "},
    {pairs, 3, 0, 30, zero, zero, "status -3, 0 of 0, 0 bytes "},
};

TEST(scan, known_cases)
{
    test_context ctx(2, 0);
    destination_area dst;
    const auto place = [](guarded_buffer &buffer, const std::string &hex_text) {
        for (size_t i = 0; i < hex_text.size() / 2; i++)
            buffer.data[i] = static_cast<uint8_t>(std::stoi(hex_text.substr(2 * i, 2), nullptr, 16));
    };
    for (const auto &[from, elements, entry, op, lower, upper, expected] : known_cases) {
        SCOPED_TRACE(expected);
        guarded_buffer data(from.data.size() / 2 + 1), aux(from.aux.size() / 2 + 1);
        place(data, from.data);
        place(aux, from.aux);
        const kel_vec_t src = {from.format, from.elements, data.data, from.width, 0, 0, 8, aux.data, nullptr, 0};
        scan s = {entry ? KEL_ONES_INDEX : 0, src, destination(elements, entry), op, lower, upper};
        std::ostringstream text;
        text << emulation(s, KEL_LOG_ERROR, {});
        EXPECT_EQ(text.str(), expected);
        check_roads(ctx, plain, s, dst);
    }
}

// Positions beyond 65535 in 2-byte entries: what does not fit reaches into the entry before it in the same word.
TEST(scan, positions_beyond_65535)
{
    test_context ctx(2, 0);
    destination_area dst;
    constexpr uint64_t elements = 65536 + 40;
    const guarded_buffer data(elements);
    memset(data.data, 0, elements);
    for (const uint64_t match : {0xfffd, 0xfffe, 0x10000, 0x10002, 0x10004, 0x10022})
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

    // The same by runs of 256, whose last one goes far beyond the end of the destination.
    const guarded_buffer runs_of_256(304);
    memset(runs_of_256.data, 0xff, 304);
    s.src = {KEL_RLE | KEL_ADD_ONE, 300, data.data, 1, 0, 0, 8, runs_of_256.data, nullptr, 0};
    for (uint64_t i = 0; i < 300; i++)
        data.data[i] = static_cast<uint8_t>(i % 5);
    s.op = KEL_GE_AND_LT;
    s.lower = bytes(1, 1);
    s.upper = bytes(1, 4);
    for (const uint64_t room : {76800, 14000, 13999})
        for (const uint32_t entry : {2u, 4u}) {
            s.dst = destination(room * 2 / entry, entry);
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
    for (const uint32_t entry : {2u, 4u})
        for (uint64_t lines = 0; lines < 512 * entry / 64; lines++)
            for (uint64_t first = 0; first < 70; first++) {
                for (uint64_t i = 0; i < data.size; i++)
                    data.data[i] = i < first || random.one_in(100);
                scan s = {
                    KEL_ONES_INDEX, byte_source(data, 256), destination(lines * 64 / entry, entry), KEL_EQ, zero, none};
                ASSERT_TRUE(check_roads(ctx, plain, s, dst));
            }
}

// Elements whose length in bits passes 64 bits: both roads stop at the destination's end, which wraps to its start.
TEST(scan, more_elements_than_a_length_can_tell)
{
    test_context ctx;
    destination_area dst;
    const guarded_buffer data(8);
    scan s = {KEL_ONES_INDEX, byte_source(data, 8), destination(0, 2), KEL_EQ, {0, 1, {}}, {}};
    dst.place(s, {});
    s.src.elements = s.dst.elements = uint64_t{1} << 61;
    EXPECT_EQ(kel_scan_value(ctx, KEL_ONES_INDEX, &s.src, &s.dst, KEL_EQ, &s.lower).status, KEL_EOVERFLOW);
    EXPECT_EQ(ctx.messages(), std::vector<std::string>{"EOVERFLOW at element index 1"});
}

TEST(scan_death, operator_beyond_the_table)
{
    test_context ctx(2, 0);
    destination_area dst;
    const guarded_buffer data(8);
    scan s = {0, byte_source(data, 8), destination(8, 0), 1000, zero, zero};
    dst.place(s, {});
    const auto op = static_cast<kel_compare_t>(s.op);
    EXPECT_DEATH(kel_scan_value(ctx, 0, &s.src, &s.dst, op, &zero), "kel_scan_value_emulate.*0");
    EXPECT_DEATH(kel_scan_range(ctx, 0, &s.src, &s.dst, op, &zero, &zero), "kel_scan_range_emulate.*0");
}

// Scans of uncompressed sources take no memory, whether they succeed or fail.
TEST(scan, allocates_nothing)
{
    block_store store;
    const kel_init_options_t allocator = store.options();
    for (const uint32_t debug : {0u, arg, arg | extra}) {
        test_context ctx(2, debug, 0, &allocator);
        scan_maker maker(77 + debug);
        destination_area dst;
        unsigned failures = 0;
        store.requests.clear();
        for (unsigned n = 0; n < 500; n++) {
            scan s = maker.make(true);
            dst.place(s, emulation(s, 0, {}));
            system_allocations = 0;
            const outcome seen = run(ctx, calls, s);
            ASSERT_EQ(system_allocations, 0u) << s;
            ASSERT_TRUE(store.requests.empty()) << s;
            failures += seen.status != KEL_SUCCESS;
        }
        EXPECT_TRUE(failures > 0 && failures < 250) << failures;
    }
}
