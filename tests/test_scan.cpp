// Scans against the reference model, and the small cases whose bytes are known.

#include "kel_scan.h"
#include "scan_model.h"
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>

using namespace scan_model;

// Where it can be had, the system's allocator is counted.
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define COUNTS_SYSTEM_ALLOCATIONS 1
static unsigned system_allocations;

extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_memalign(size_t align, size_t size);

extern "C" void *malloc(size_t size) noexcept
{
    system_allocations++;
    return __libc_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size) noexcept
{
    system_allocations++;
    return __libc_calloc(count, size);
}

extern "C" void *memalign(size_t align, size_t size) noexcept
{
    system_allocations++;
    return __libc_memalign(align, size);
}
#endif

// ---- Random scans ---------------------------------------------------------------------------------------------------

static void put_field(uint8_t *data, uint64_t position, uint64_t bits, const number &value)
{
    for (uint64_t weight = bits; weight-- > 0; position++) {
        const unsigned shift = 7 - position % 8;
        const unsigned bit = value[31 - weight / 8] >> weight % 8 & 1;
        data[position / 8] = static_cast<uint8_t>((data[position / 8] & ~(1u << shift)) | bit << shift);
    }
}

// The top bits of a left-aligned string, as a number.
static number leading_bits(const number &text, uint64_t bits)
{
    return bit_reader{text.data(), 0}.field(bits);
}

// Makes scans. Their streams end with the aligned word in front of a page that faults; the destination is placed later.
class scan_maker
{
  public:
    explicit scan_maker(uint64_t seed) : random(seed) {}

    // lawful: within the widths and formats that validation accepts (of one version at least), though not always.
    scan make(bool lawful)
    {
        scan s = {};
        s.range = random.one_in(2);
        s.flags = random.one_in(2) ? KEL_ONES_INDEX : 0;
        if (random.one_in(8))
            s.flags |= random.one_in(2) ? KEL_CACHE : KEL_NOWAIT;
        no_width = !lawful && random.one_in(40);
        wide_elements = !lawful && !no_width && random.one_in(10);
        draw_format(s.src, lawful);
        draw_aux(s.src, lawful);
        draw_data(s.src);
        s.lower = draw_value(s.src, lawful, wide_elements);
        s.upper = draw_value(s.src, lawful, false);
        draw_operator(s, lawful);
        draw_destination(s, lawful);
        return s;
    }

    random_source random;

  private:
    static constexpr size_t area = size_t{1} << 20;

    void draw_format(kel_vec_t &src, bool lawful)
    {
        static constexpr uint64_t counts[] = {0, 1, 63, 64, 65, 127, 128, 129};
        static constexpr uint64_t aux_formats[] = {0, 0, KEL_RLE, KEL_VAR};
        src.elements = random.one_in(2) ? random.pick(counts) : random.between(0, random.one_in(50) ? 5000 : 300);
        src.format = random.pick(aux_formats);
        if (no_width)
            src.format &= ~KEL_VAR;
        if (has_aux(src) && random.one_in(2))
            src.format |= KEL_ADD_ONE;
        if (!lawful && !no_width && random.one_in(16))
            src.format |= random.one_in(2) ? KEL_ADD_ONE : KEL_VAR;
        const bool variable = src.format & KEL_VAR;
        if (!lawful && variable && random.one_in(8))
            src.format |= KEL_BITS;
        src.offset = static_cast<uint8_t>(random.between(0, 7));
        if (variable) {
            src.elem_width = static_cast<uint32_t>(random.between(variable_width(src) ? 0 : 1, src.offset ? 8 : 16));
        } else if (no_width) {
            src.format |= random.between(0, 1); // KEL_BYTES or KEL_BITS
            src.offset = 0;
        } else if (random.one_in(2)) {
            src.elem_width = static_cast<uint32_t>(random.between(1, lawful ? 16 : 24));
        } else {
            src.format |= KEL_BITS;
            src.elem_width = static_cast<uint32_t>(random.one_in(6) ? 8 * random.between(1, lawful ? 16 : 24)
                                                                    : random.between(1, lawful ? 24 : 64));
            if (!lawful && random.one_in(8))
                src.elem_width = static_cast<uint32_t>(random.between(65, 192));
        }
        if (lawful && !variable && bits_of(src.format, src.elem_width) > 64)
            src.offset = 0;
    }

    // A stream of so many bits that ends with the word in front of the page, at any address; random bits all around.
    uint8_t *place(const guarded_buffer &buffer, uint64_t bits)
    {
        const uint64_t phase = random.one_in(3) ? 0 : random.between(1, 7);
        const uint64_t words = round_up(phase + std::max<uint64_t>((bits + 7) / 8, 1), 8);
        uint8_t *start = buffer.data + buffer.size - words;
        random.fill(start, words);
        return start + phase;
    }

    // Aux elements are runs or widths, mostly without zeros.
    void draw_aux(kel_vec_t &src, bool lawful)
    {
        static constexpr uint16_t widths[] = {1, 2, 4, 8}, unlawful_widths[] = {8, 16, 32};
        src.aux_width = !lawful && random.one_in(8) ? random.pick(unlawful_widths) : random.pick(widths);
        src.aux_offset = static_cast<uint8_t>(random.between(0, 7));
        src.aux_data = place(aux, src.aux_offset + src.aux_width * src.elements);
        lengths.assign(src.elements, 0);
        if (!has_aux(src))
            return;
        uint64_t longest = (uint64_t{1} << src.aux_width) - 1;
        if (src.format & KEL_RLE)
            longest = std::min<uint64_t>(longest, src.elements > 300 || !random.one_in(4) ? 3 : 255);
        else
            longest = std::min(longest, (wide_elements ? 32 : random.one_in(2) ? 16 : 6) - add_one(src));
        const bool zeros = random.one_in(4);
        for (uint64_t i = 0; i < src.elements; i++) {
            uint64_t stored = random.between(add_one(src) ? 0 : 1, longest);
            if (zeros && random.one_in(80))
                stored = 0;
            lengths[i] = stored + add_one(src);
            number field = {};
            for (unsigned byte = 0; byte < 4; byte++)
                field[31 - byte] = static_cast<uint8_t>(stored >> 8 * byte);
            put_field(static_cast<uint8_t *>(src.aux_data), src.aux_offset + i * src.aux_width, src.aux_width, field);
        }
    }

    // Elements are random, or few, so that many are equal.
    void draw_data(kel_vec_t &src)
    {
        const uint64_t width = no_width ? 8 : bits_of(src.format, src.elem_width);
        places.clear();
        uint64_t end = src.offset;
        for (uint64_t i = 0; i < src.elements; i++) {
            const uint64_t bits = variable_width(src) ? 8 * lengths[i] : width;
            places.emplace_back(end, bits);
            end += bits;
        }
        auto *data = place(elements, end);
        src.data = data;
        if (random.one_in(3))
            return;
        number texts[3];
        random.fill(texts[0].data(), texts[0].size());
        texts[1] = texts[2] = texts[0];
        const uint64_t last = variable_width(src) ? random.between(1, 40) : std::max<uint64_t>(width, 1);
        texts[1][(last - 1) / 8] ^= static_cast<uint8_t>(0x80 >> (last - 1) % 8);
        random.fill(&texts[2][last / 16], 1);
        for (const auto &[position, bits] : places)
            put_field(data, position, bits, leading_bits(random.pick(texts), bits));
    }

    // The bits of a value from this one up: zero or random.
    void fill_above(kel_int_t &value, uint64_t bits, bool garbage)
    {
        for (uint64_t bit = bits; bit < 192; bit++) {
            uint64_t &word = value.dword[2 - bit / 64];
            word &= ~(uint64_t{1} << bit % 64);
            word |= uint64_t{garbage && random.one_in(2)} << bit % 64;
        }
    }

    void draw_value_width(kel_int_t &value, uint64_t element_bits, bool lawful, bool wide)
    {
        const uint64_t widest = lawful ? 16 : 24;
        if (wide) {
            value.elem_width = static_cast<uint32_t>(random.between(17, 24));
        } else if (no_width) {
            value.format = static_cast<uint32_t>(random.between(0, 1));
        } else if (element_bits && element_bits <= 8 * widest && !random.one_in(3)) {
            value.format = element_bits % 8 || random.one_in(2) ? KEL_BITS : KEL_BYTES;
            value.elem_width = static_cast<uint32_t>(value.format == KEL_BITS ? element_bits : element_bits / 8);
        } else if (random.one_in(2)) {
            value.elem_width = static_cast<uint32_t>(random.between(1, random.one_in(2) ? widest : 4));
        } else {
            value.format = KEL_BITS;
            value.elem_width = static_cast<uint32_t>(random.between(1, lawful ? 24 : random.one_in(2) ? 64 : 192));
        }
    }

    // A value next to an element of the data, in a width that may be another.
    kel_int_t draw_value(const kel_vec_t &src, bool lawful, bool wide)
    {
        kel_int_t value = {};
        const auto [position, bits] =
            places.empty() ? std::pair<uint64_t, uint64_t>() : places[random.between(0, places.size() - 1)];
        draw_value_width(value, bits, lawful, wide);
        const uint64_t width = bits_of(value.format, value.elem_width);
        number element = bit_reader{static_cast<const uint8_t *>(src.data), position}.field(bits);
        const uint64_t element_bytes = (bits + 7) / 8, value_bytes = (width + 7) / 8;
        if (element_bytes > value_bytes && !no_width)
            element = shifted_right(element, element_bytes - value_bytes);
        else if (value_bytes > element_bytes)
            std::rotate(element.begin(), element.begin() + static_cast<long>(value_bytes - element_bytes),
                        element.end());
        for (unsigned i = 0; i < 24; i++)
            value.dword[i / 8] |= uint64_t{element[8 + i]} << (56 - i % 8 * 8);
        if (value_bytes > element_bytes && value_bytes <= 8 && random.one_in(2))
            value.dword[2] |= random.between(0, 255);
        if (random.one_in(3))
            value.dword[2] += random.one_in(2) ? 1 : UINT64_MAX;
        if (random.one_in(20))
            random.fill(value.dword, sizeof value.dword);
        fill_above(value, no_width ? 8 : random.one_in(2) ? width : value_bytes * 8, false);
        if (random.one_in(8))
            fill_above(value, no_width ? 8 : value_bytes * 8, true);
        return value;
    }

    void draw_operator(scan &s, bool lawful)
    {
        static constexpr int missing_value[] = {4, 6}, missing_range[] = {20, 22, 24, 26, 28, 30};
        if (!lawful && random.one_in(40))
            s.op = s.range ? random.pick(missing_range) : random.pick(missing_value);
        else
            s.op = s.range ? random.pick(range_operators).op : random.pick(value_operators);
    }

    // A destination of any size around the one that holds the outcome of all elements.
    void draw_destination(scan &s, bool lawful)
    {
        static constexpr uint32_t entry_bits[] = {8, 12, 16, 20, 24, 32, 40, 48, 56, 64};
        uint64_t needed = s.src.elements;
        if (s.src.format & KEL_RLE) {
            needed = 0;
            for (const uint64_t run : lengths)
                needed += run;
        }
        s.dst.format = KEL_BITS;
        s.dst.elem_width = 1;
        if (s.flags & KEL_ONES_INDEX)
            s.dst.elem_width = random.one_in(2) ? 16 : 32;
        if (!lawful && random.one_in(4))
            s.dst.elem_width = random.pick(entry_bits);
        if (s.dst.elem_width % 8 == 0 && random.one_in(2)) {
            s.dst.format = KEL_BYTES;
            s.dst.elem_width /= 8;
        }
        if (!lawful && random.one_in(10))
            s.dst.offset = static_cast<uint8_t>(random.between(1, 7));
        const uint64_t least = lawful ? s.src.elements : 0, ample = std::max(least, needed) + random.between(0, 70);
        s.dst.elements = random.one_in(2) ? std::max(least, needed) : random.between(least, ample);
        if (random.one_in(8))
            s.dst.elements = s.src.elements;
    }

    bool no_width = false;      // neither the elements nor the values have a width
    bool wide_elements = false; // elements of variable width up to 32 bytes, with a value above 16 bytes
    std::vector<uint64_t> lengths;
    std::vector<std::pair<uint64_t, uint64_t>> places; // position and bits of each element
    guarded_buffer elements{area, 1}, aux{area, 1};
};

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
        clear();
    }

    void clear()
    {
        memset(start - margin, 0xa5, room + margin);
    }

    bool holds(const outcome &expected) const
    {
        const auto untouched = [](uint8_t byte) { return byte == 0xa5; };
        return std::equal(expected.bytes.begin(), expected.bytes.end(), start) &&
               std::all_of(start + expected.bytes.size(), start + room, untouched) &&
               std::all_of(start - margin, start, untouched);
    }

    uint8_t *start = nullptr;
    uint64_t room = 0;

  private:
    static constexpr uint64_t margin = 64;
    guarded_buffer buffer{size_t{2} << 20, 64};
};

// The outcome of a scan as the library has it, without the bytes.
template <class Run>
static outcome observe(test_context &ctx, const Run &run)
{
    reset_hooks();
    ctx.lines.clear();
    outcome seen;
    run(seen);
    for (const log_line &l : ctx.lines)
        seen.lines.emplace_back(l.level, l.message);
    seen.debug_calls = kel_debug_calls;
    seen.error_calls = emulate_error_calls;
    return seen;
}

static outcome observe_call(test_context &ctx, const scan &s)
{
    return observe(ctx, [&](outcome &seen) {
        const auto op = static_cast<kel_compare_t>(s.op);
        const kel_result_t result = s.range ? kel_scan_range(ctx, s.flags, &s.src, &s.dst, op, &s.lower, &s.upper)
                                            : kel_scan_value(ctx, s.flags, &s.src, &s.dst, op, &s.lower);
        seen.status = result.status;
        seen.cca = {0, result.reserved, result.count};
    });
}

// With the emulations themselves, or with the general kernels alone.
static outcome observe_emulation(test_context &ctx, const scan &s, bool general, const cca_t &before)
{
    return observe(ctx, [&](outcome &seen) {
        const auto op = static_cast<kel_compare_t>(s.op);
        const auto value = general ? kel_scan_value_general : kel_scan_value_emulate;
        const auto range = general ? kel_scan_range_general : kel_scan_range_emulate;
        seen.cca = before;
        seen.status = s.range ? range(ctx, s.flags, &s.src, &s.dst, op, &s.lower, &s.upper, &seen.cca)
                              : value(ctx, s.flags, &s.src, &s.dst, op, &s.lower, &seen.cca);
    });
}

// A call tells less than an emulation: the count alone, and no reserved bits.
static outcome as_call(outcome o)
{
    o.cca = {0, 0, o.cca.retval};
    return o;
}

// All but the bytes.
static bool agree(const outcome &seen, const outcome &expected)
{
    return seen.status == expected.status && memcmp(&seen.cca, &expected.cca, sizeof seen.cca) == 0 &&
           seen.lines == expected.lines && seen.debug_calls == expected.debug_calls &&
           seen.error_calls == expected.error_calls;
}

static void dump(std::ostream &out, const char *name, const void *data, uint64_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    out << "\n  " << name << " (" << size << " bytes):" << std::hex;
    for (uint64_t i = 0; i < std::min<uint64_t>(size, 400); i++)
        out << (i % 8 ? "" : " ") << (bytes[i] >> 4) << (bytes[i] & 15);
    out << std::dec;
}

// Whether a scan went as expected; if not, all about it goes into the test's failure.
static bool verify(const char *road, const scan &s, const outcome &seen, const outcome &expected,
                   const destination_area &dst)
{
    if (agree(seen, expected) && dst.holds(expected)) [[likely]]
        return true;
    std::ostringstream text;
    text << road << ": " << s << "\n  expected " << expected << "\n  seen " << seen;
    dump(text, "data", s.src.data, data_bytes(s.src));
    if (has_aux(s.src))
        dump(text, "aux data", s.src.aux_data, (s.src.aux_offset + s.src.aux_width * s.src.elements + 7) / 8);
    dump(text, "expected output", expected.bytes.data(), expected.bytes.size());
    dump(text, "seen output", dst.start, dst.room);
    ADD_FAILURE() << text.str();
    return false;
}

struct context_options {
    uint32_t version, debug, log;
};

static std::ostream &operator<<(std::ostream &out, const context_options &options)
{
    return out << "version " << options.version << " debug " << options.debug << " log " << options.log;
}

// One scan through the public call. A refused one leaves its destination alone and reports as often as it fails.
static bool run_call(test_context &ctx, const context_options &options, scan &s, destination_area &dst)
{
    const bool refusal = options.debug & KEL_DEBUG_ARG && refused(s, options.version);
    outcome expected;
    if (!refusal)
        expected = as_call(call(s, options.debug, options.log));
    dst.place(s, expected);
    const outcome seen = observe_call(ctx, s);
    if (refusal) {
        expected.status = KEL_EINVAL;
        expected.lines = seen.lines;
        expected.debug_calls = std::max(seen.debug_calls, 1u);
        EXPECT_EQ(seen.lines.size(), options.log & KEL_LOG_ERROR ? seen.debug_calls : 0) << s;
    }
    return verify(refusal ? "refused call" : "call", s, seen, expected, dst);
}

static bool run_emulations(test_context &ctx, const context_options &options, scan &s, destination_area &dst)
{
    static constexpr cca_t before = {0x5a5a5a5a, 0x5a5a5a5a, 0x5a5a5a5a5a5a5a5a};
    const outcome expected = emulation(s, options.log, before);
    dst.place(s, expected);
    if (!verify("emulation", s, observe_emulation(ctx, s, false, before), expected, dst))
        return false;
    dst.clear();
    return verify("general kernels", s, observe_emulation(ctx, s, true, before), expected, dst);
}

using road = bool (*)(test_context &, const context_options &, scan &, destination_area &);

// lawful_share of 4 scans keep to the limits; few of those that validation refuses are run.
static void random_scans(const context_options &options, uint64_t seed, unsigned cases, unsigned lawful_share, road run)
{
    test_context ctx(options.version, options.debug, options.log);
    scan_maker maker(seed);
    destination_area dst;
    for (unsigned n = 0, failures = 0; n < cases && failures < 3;) {
        scan s = maker.make(maker.random.between(0, 3) < lawful_share);
        if (options.debug & KEL_DEBUG_ARG && refused(s, options.version) && !maker.random.one_in(8))
            continue;
        n++;
        if (!run(ctx, options, s, dst)) {
            failures++;
            std::cerr << "case " << n << " of seed " << seed << ", " << options << '\n';
        }
    }
}

class scan_calls : public testing::TestWithParam<context_options>
{
};

TEST_P(scan_calls, agree_with_the_model)
{
    const context_options options = GetParam();
    random_scans(options, 100 + options.version + 10 * options.debug + 100 * options.log, 25000,
                 options.debug & KEL_DEBUG_ARG ? 4 : 1, run_call);
}

INSTANTIATE_TEST_SUITE_P(contexts, scan_calls,
                         testing::Values(context_options{1, 0, 0}, context_options{2, 0, KEL_LOG_ERROR},
                                         context_options{1, KEL_DEBUG_ARG, KEL_LOG_ERROR},
                                         context_options{2, KEL_DEBUG_ARG, KEL_LOG_ERROR | KEL_LOG_VERBOSE},
                                         context_options{1, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA, KEL_LOG_ERROR},
                                         context_options{2, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA, KEL_LOG_ERROR},
                                         context_options{2, KEL_DEBUG_EXTRA, 0}));

class scan_emulations : public testing::TestWithParam<context_options>
{
};

TEST_P(scan_emulations, agree_with_the_model)
{
    const context_options options = GetParam();
    random_scans(options, 5000 + options.version + 10 * options.debug + 100 * options.log, 30000, 1, run_emulations);
}

INSTANTIATE_TEST_SUITE_P(contexts, scan_emulations,
                         testing::Values(context_options{1, 0, KEL_LOG_ERROR}, context_options{2, 0, 0},
                                         context_options{2, KEL_DEBUG_EXTRA, KEL_LOG_ERROR | KEL_LOG_VERBOSE}));

// ---- Known cases ----------------------------------------------------------------------------------------------------

static std::vector<uint8_t> bytes_of_hex(const std::string &hex)
{
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < hex.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

static kel_int_t byte_value(uint32_t bytes, uint64_t low, uint64_t high = 0)
{
    return {KEL_BYTES, bytes, {0, high, low}};
}

struct known_source {
    uint64_t format, elements;
    uint32_t width;
    std::string data, aux; // hexadecimal; aux elements have 8 bits
};

static known_source source(uint64_t format, uint64_t elements, uint32_t width, const char *data, const char *aux = "")
{
    return {format, elements, width, data, aux};
}

static kel_vec_t bit_vector(uint64_t elements)
{
    return {KEL_BITS, elements, nullptr, 1, 0, 0, 0, nullptr, nullptr, 0};
}

static kel_vec_t index_list(uint64_t elements, uint32_t bytes = 2)
{
    return {KEL_BYTES, elements, nullptr, bytes, 0, 0, 0, nullptr, nullptr, 0};
}

// Expected outcomes of an emulation: the output is hexadecimal, and zeros follow it up to output_sz.
static outcome success(uint64_t count, uint32_t processed, uint32_t output_sz, const std::string &output)
{
    outcome result;
    result.cca = {output_sz, processed, count};
    result.bytes = bytes_of_hex(output);
    result.bytes.resize(output_sz);
    return result;
}

static outcome failure(const std::string &message, uint64_t count, uint32_t processed, uint32_t output_sz,
                       const std::string &output)
{
    outcome result = success(count, processed, output_sz, output);
    result.status = message[1] == 'D' ? KEL_EDATAFMT : KEL_EOVERFLOW;
    result.report(KEL_LOG_ERROR, message);
    result.error_calls = 1;
    return result;
}

static outcome silent_failure(kel_status_t status, outcome result)
{
    result.status = status;
    return result;
}

// So many 2-byte list entries from 0 on.
static std::string entries(unsigned count)
{
    std::ostringstream hex;
    for (unsigned i = 0; i < count; i++)
        hex << (i < 16 ? "000" : "00") << std::hex << i;
    return hex.str();
}

static const known_source nibbles = source(KEL_BITS, 4, 4, "1234");
static const known_source pairs = source(KEL_BYTES, 3, 2, "010201030201");
static const known_source texts = source(KEL_VAR, 3, 0, "4141424341430000000000000000000000000000", "010310");
static const known_source runs = source(KEL_RLE, 3, 1, "050605", "010302");
static const known_source no_elements = source(KEL_BYTES, 0, 2, "");
static const std::string zeros(128, '0');
static const kel_int_t nibble_3 = {KEL_BITS, 4, {0, 0, 3}}, zero = byte_value(1, 0), five = byte_value(1, 5),
                       six = byte_value(1, 6), three_bytes = byte_value(3, 0x010200), text_ab = byte_value(2, 0x4142),
                       text_ac_padded = byte_value(16, 0, 0x4143000000000000), none = {};
static constexpr uint64_t ones = KEL_ONES_INDEX;

static const struct known_case {
    const char *name;
    known_source src;
    uint64_t flags;
    kel_vec_t dst; // its data is placed by the test
    int op;
    kel_int_t lower, upper;
    outcome expected;
    const char *diagnosis = "";
} known_cases[] = {
    {"bit vector", nibbles, 0, bit_vector(4), KEL_EQ, nibble_3, none, success(1, 4, 64, "20")},
    {"index list", nibbles, ones, index_list(4), KEL_EQ, nibble_3, none, success(1, 4, 64, "0002")},
    {"no elements", no_elements, 0, bit_vector(0), KEL_NE, zero, none, success(0, 0, 0, "")},
    {"no match, list", source(0, 64, 1, zeros.c_str()), ones, index_list(64), KEL_NE, zero, none,
     success(0, 64, 0, "")},
    {"no match", source(0, 64, 1, zeros.c_str()), 0, bit_vector(64), KEL_NE, zero, none, success(0, 64, 64, "")},
    {"run of 3", runs, 0, bit_vector(6), KEL_EQ, six, none, success(3, 6, 64, "70")},
    {"run of 3, list", runs, ones, index_list(6), KEL_EQ, six, none, success(3, 6, 64, "000100020003")},
    {"index behind a run", runs, ones, index_list(6), KEL_EQ, five, none, success(3, 6, 64, "000000040005")},
    {"runs of one more", source(KEL_RLE | KEL_ADD_ONE, 3, 1, "050605", "000201"), 0, bit_vector(6), KEL_EQ, six, none,
     success(3, 6, 64, "70")},
    {"zero run first", source(KEL_RLE, 3, 1, "050605", "000302"), 0, bit_vector(6), KEL_EQ, six, none,
     failure("EDATAFMT at element index 1", 0, 0, 0, ""), "EDATAFMT: aux_data element at index 0 is 0"},
    {"zero run behind one of 16", source(KEL_RLE, 3, 1, "050605", "100002"), 0, bit_vector(32), KEL_EQ, five, none,
     failure("EDATAFMT at element index 2", 16, 16, 64, "ffff"), "EDATAFMT: aux_data element at index 0 is 0"},
    {"zero width", source(KEL_VAR, 3, 0, "0506", "010100"), 0, bit_vector(3), KEL_EQ, six, none,
     failure("EDATAFMT at element index 3", 1, 2, 64, "40"), "EDATAFMT: aux_data element at index 2 is 0"},
    {"value longer, EQ", pairs, 0, bit_vector(3), KEL_EQ, three_bytes, none, success(0, 3, 64, "")},
    {"value longer, LE", pairs, 0, bit_vector(3), KEL_LE, three_bytes, none, success(1, 3, 64, "80")},
    {"value shorter, GT", pairs, 0, bit_vector(3), KEL_GT, byte_value(1, 1), none, success(3, 3, 64, "e0")},
    {"12 bits, value of 1 byte", source(KEL_BITS, 2, 12, "a00bff"), 0, bit_vector(2), KEL_GT, byte_value(1, 0x0a), none,
     success(2, 2, 64, "c0")},
    {"widths 1, 3, 16", texts, 0, bit_vector(3), KEL_LT, text_ab, none, success(1, 3, 64, "80")},
    {"widths 1, 3, 16, range", texts, ones, index_list(3, 4), KEL_GT_AND_LE, text_ab, text_ac_padded,
     success(2, 3, 64, "0000000100000002")},
    {"33 entries of 32", source(0, 33, 1, zeros.c_str()), ones, index_list(32), KEL_EQ, zero, none,
     success(33, 33, 128, entries(33))},
    {"34 entries of 32", source(0, 34, 1, zeros.c_str()), ones, index_list(32), KEL_EQ, zero, none,
     failure("EOVERFLOW at element index 34", 33, 34, 128, entries(33))},
    {"37 entries by one run", source(KEL_RLE, 1, 1, "00", "25"), ones, index_list(32), KEL_EQ, zero, none,
     silent_failure(KEL_EOVERFLOW, success(37, 37, 80, entries(37)))},
    {"missing operator", pairs, 0, bit_vector(3), 4, zero, none, silent_failure(KEL_EPARSE, {})},
    {"missing range operator", pairs, 0, bit_vector(3), 30, zero, zero, silent_failure(KEL_EPARSE, {})},
};

// A stream that ends with the aligned word in front of a page that faults.
class known_stream
{
  public:
    explicit known_stream(const std::string &hex) : buffer(round_up(hex.size() / 2 + 1, 8))
    {
        const std::vector<uint8_t> bytes = bytes_of_hex(hex);
        std::copy(bytes.begin(), bytes.end(), buffer.data);
    }

    guarded_buffer buffer;
};

TEST(scan, known_cases)
{
    test_context ctx(2, 0);
    destination_area dst;
    for (const known_case &c : known_cases) {
        SCOPED_TRACE(c.name);
        const known_stream data(c.src.data), aux(c.src.aux);
        const kel_vec_t src = {
            c.src.format, c.src.elements, data.buffer.data, c.src.width, 0, 0, 8, aux.buffer.data, nullptr, 0};
        scan s = {c.op >= KEL_EQ_OR_EQ, c.flags, src, c.dst, c.op, c.lower, c.upper};
        outcome expected = c.expected;
        const outcome modelled = emulation(s, KEL_LOG_ERROR, {});
        EXPECT_TRUE(agree(modelled, expected) && modelled.bytes == expected.bytes) << modelled;
        for (const bool general : {false, true}) {
            dst.place(s, expected);
            verify(general ? "general" : "emulation", s, observe_emulation(ctx, s, general, {}), expected, dst);
        }
        dst.clear();
        if (*c.diagnosis)
            expected.report(KEL_LOG_ERROR, c.diagnosis);
        verify("call", s, observe_call(ctx, s), as_call(expected), dst);
    }
}

// Positions beyond 65535 in 2-byte entries: what does not fit reaches into the entry before it in the same word.
TEST(scan, list_of_narrow_entries_beyond_65535)
{
    test_context ctx(2, 0);
    destination_area dst;
    constexpr uint64_t elements = 65536 + 40;
    const guarded_buffer data(elements);
    memset(data.data, 0, elements);
    kel_vec_t src = {KEL_BYTES, elements, data.data, 1, 0, 0, 0, nullptr, nullptr, 0};
    for (const uint64_t match : {0xfffd, 0xfffe, 0x10000, 0x10002, 0x10004, 0x10022})
        data.data[match] = 9;
    scan s = {false, ones, src, index_list(elements), KEL_EQ, byte_value(1, 9), {}};
    const outcome expected = success(6, elements, 64, "fffdffff0001000200050022");
    for (const bool general : {false, true}) {
        dst.place(s, expected);
        verify(general ? "general" : "emulation", s, observe_emulation(ctx, s, general, {}), expected, dst);
    }
    for (const uint64_t distance : {1, 3, 4, 5}) {
        for (uint64_t i = 0; i < elements; i += distance)
            data.data[i] = static_cast<uint8_t>(10 + distance);
        s.lower.dword[2] = 10 + distance;
        run_emulations(ctx, {2, 0, KEL_LOG_ERROR}, s, dst);
    }
}

// Lists of all sizes that are too small, with the entries at all places in a word and a block where they run full.
TEST(scan, list_overflows_at_any_entry)
{
    test_context ctx(2, 0);
    destination_area dst;
    random_source random(9);
    const guarded_buffer data(264);
    for (const uint32_t bytes : {2u, 4u})
        for (uint64_t lines = 0; lines < 512 * bytes / 64; lines++)
            for (uint64_t first = 0; first < 70; first++) {
                for (uint64_t i = 0; i < data.size; i++)
                    data.data[i] = i < first || random.one_in(100);
                const kel_vec_t src = {KEL_BYTES, 256, data.data, 1, 0, 0, 0, nullptr, nullptr, 0};
                scan s = {false, ones, src, index_list(lines * 64 / bytes, bytes), KEL_EQ, zero, {}};
                ASSERT_TRUE(run_emulations(ctx, {2, 0, KEL_LOG_ERROR}, s, dst));
            }
}

// The same by runs, whose last one goes far beyond the end of the destination.
TEST(scan, runs_beyond_65535)
{
    test_context ctx(2, 0);
    destination_area dst;
    const guarded_buffer data(304), aux(304);
    memset(aux.data, 0xff, aux.size);
    for (uint64_t i = 0; i < data.size; i++)
        data.data[i] = static_cast<uint8_t>(i % 5);
    const kel_vec_t src = {KEL_RLE | KEL_ADD_ONE, 300, data.data, 1, 0, 0, 8, aux.data, nullptr, 0};
    for (const uint64_t room : {76800, 14000, 13999})
        for (const uint64_t divisor : {1, 2}) {
            scan s = {true, ones, src, index_list(room / divisor), KEL_GE_AND_LT, byte_value(1, 1), byte_value(1, 4)};
            s.dst.elem_width = static_cast<uint32_t>(2 * divisor);
            run_emulations(ctx, {2, 0, KEL_LOG_ERROR}, s, dst);
        }
}

TEST(scan_death, operator_beyond_the_table)
{
    test_context ctx(2, 0);
    alignas(64) uint8_t in[8] = {}, out[128];
    const kel_vec_t src = {KEL_BYTES, 8, in, 1, 0, 0, 0, nullptr, nullptr, 0};
    kel_vec_t dst = bit_vector(8);
    dst.data = out;
    const auto op = static_cast<kel_compare_t>(1000);
    EXPECT_DEATH(kel_scan_value(ctx, 0, &src, &dst, op, &zero), "kel_scan_value_emulate.*0");
    EXPECT_DEATH(kel_scan_range(ctx, 0, &src, &dst, op, &zero, &zero), "kel_scan_range_emulate.*0");
}

// ---- Memory ---------------------------------------------------------------------------------------------------------

static void *counting_alloc(uint64_t size, void *count)
{
    ++*static_cast<unsigned *>(count);
    return malloc(size);
}

static void counting_free(void *block, uint64_t, void *)
{
    free(block);
}

// Scans of uncompressed sources take no memory, whether they succeed or fail.
TEST(scan, allocates_nothing)
{
    unsigned client_allocations = 0;
    const kel_init_options_t allocator = {counting_alloc, counting_free, &client_allocations};
    for (const uint32_t debug : {0u, KEL_DEBUG_ARG, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA}) {
        test_context ctx(2, debug, 0, &allocator);
        scan_maker maker(77 + debug);
        destination_area dst;
        unsigned failures = 0;
        client_allocations = 0;
        for (unsigned n = 0; n < 500; n++) {
            scan s = maker.make(true);
            dst.place(s, emulation(s, 0, {}));
            const auto op = static_cast<kel_compare_t>(s.op);
#ifdef COUNTS_SYSTEM_ALLOCATIONS
            system_allocations = 0;
#endif
            const kel_result_t result = s.range ? kel_scan_range(ctx, s.flags, &s.src, &s.dst, op, &s.lower, &s.upper)
                                                : kel_scan_value(ctx, s.flags, &s.src, &s.dst, op, &s.lower);
#ifdef COUNTS_SYSTEM_ALLOCATIONS
            ASSERT_EQ(system_allocations, 0u) << s;
#endif
            ASSERT_EQ(client_allocations, 0u) << s;
            failures += result.status != KEL_SUCCESS;
        }
        EXPECT_GT(failures, 0u);
        EXPECT_LT(failures, 250u);
    }
}
