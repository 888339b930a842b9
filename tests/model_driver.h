// Runs requests by all roads and compares what they leave behind with their model, and makes random sources.
#pragma once

#include "model.h"
#include <cstring>
#include <gtest/gtest.h>
#include <numeric>
#include <sstream>

namespace model
{

// ---- One request against its model ----------------------------------------------------------------------------------

// The destinations of all cases: each ends in front of a page that faults.
class destination_area
{
  public:
    // Room for a request with this outcome: 64 bytes behind the nominal end, or as much as its last run needs.
    void place(kel_vec_t &dst, const outcome &expected)
    {
        room = std::max(nominal_bytes(dst) + 64, round_up(expected.bytes.size(), 64));
        start = buffer.data + buffer.size - room;
        dst.data = start;
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

// The public call, the posted one, the emulation behind them, and the general kernels alone.
enum road { calls, posts, emulations, general_kernels };

// Takes a road of an operation. What a request leaves in the log is there in the end, and nothing of its poll.
template <class... arguments>
outcome take_road(test_context &ctx, road way, const auto &call, const auto &post, const auto &emulate,
                  const auto &general, arguments... args)
{
    outcome seen = {.cca = cca_before};
    if (way == calls) {
        const kel_result_t result = call(ctx, args...);
        return {result.status, {0, result.reserved, result.count}};
    }
    if (way != posts) {
        seen.status = way == emulations ? emulate(ctx, args..., &seen.cca) : general(ctx, args..., &seen.cca);
        return seen;
    }
    kel_queue_t *queue = nullptr;
    EXPECT_EQ(kel_queue_create(ctx, 1, &queue), KEL_SUCCESS);
    ctx.lines.clear();
    seen = {post(queue, args..., nullptr)};
    const std::vector<log_line> lines = ctx.lines;
    kel_poll_t polled;
    if (seen.status == KEL_SUCCESS && kel_poll(queue, &polled, 1, 0) == 1)
        seen = {polled.status, {0, polled.reserved, polled.count}};
    EXPECT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
    ctx.lines = lines;
    return seen;
}

// All but the bytes. The reports of a refused call are any, but there are as many lines as calls of the hook.
inline bool agree(const outcome &seen, const outcome &expected, uint32_t log_options)
{
    const size_t reports = log_options & KEL_LOG_ERROR ? seen.debug_calls : 0,
                 frame =
                     (log_options & KEL_LOG_ENTRY) / KEL_LOG_ENTRY + (log_options & KEL_LOG_RETURN) / KEL_LOG_RETURN;
    const bool same_reports = expected.refused
                                  ? seen.debug_calls > 0 && seen.lines.size() == reports + frame
                                  : seen.debug_calls == expected.debug_calls && seen.lines == expected.lines;
    return same_reports && seen.status == expected.status && seen.error_calls == expected.error_calls &&
           memcmp(&seen.cca, &expected.cca, sizeof seen.cca) == 0;
}

// Runs a request; whether it leaves behind what is expected. If not, all about it goes into the test's failure.
template <class request>
bool check(test_context &ctx, const options &o, road way, request &r, const outcome &expected, destination_area &dst)
{
    dst.place(r.dst, expected);
    reset_hooks();
    ctx.lines.clear();
    outcome seen = run(ctx, way, r);
    for (const log_line &line : ctx.lines)
        seen.lines.emplace_back(line.level, line.level & (KEL_LOG_ENTRY | KEL_LOG_RETURN) ? "" : line.message);
    seen.debug_calls = kel_debug_calls;
    seen.error_calls = emulate_error_calls;
    if (agree(seen, expected, o.log) && dst.holds(expected)) [[likely]]
        return true;
    seen.bytes.assign(dst.start, dst.start + dst.room);
    ADD_FAILURE() << "road " << way << ", version " << o.version << ", debug " << o.debug << ", log " << o.log << ": "
                  << r << "\n  expected " << expected << "; hooks " << expected.debug_calls << ' '
                  << expected.error_calls << "\n  seen " << seen << "; hooks " << seen.debug_calls << ' '
                  << seen.error_calls;
    return false;
}

template <class request>
bool check_roads(test_context &ctx, const options &o, request &r, destination_area &dst)
{
    const outcome emulated = emulation(r, o);
    return check(ctx, o, calls, r, call(r, o, emulated, true), dst) &&
           check(ctx, o, posts, r, call(r, o, emulated, false), dst) && check(ctx, o, emulations, r, emulated, dst) &&
           check(ctx, o, general_kernels, r, emulated, dst);
}

// ---- Random requests ------------------------------------------------------------------------------------------------

inline constexpr uint32_t arg = KEL_DEBUG_ARG, extra = KEL_DEBUG_EXTRA, errors = KEL_LOG_ERROR, all_lines = 63;
inline constexpr options plain = {2, 0, errors};

inline constexpr options contexts[] = {
    plain,
    {1, 0, errors},
    {2, 0, 0},
    {1, arg, all_lines},
    {2, arg, errors},
    {1, arg | extra, errors},
    {2, arg | extra, all_lines},
    {1, extra, all_lines},
    {2, extra, errors},
};

// Where arguments are validated, few of the requests that are refused are run.
template <class maker>
void check_random(const options &o, unsigned requests)
{
    const bool validated = o.debug & KEL_DEBUG_ARG;
    test_context ctx(o.version, o.debug, o.log);
    maker makes(o.version + 10 * o.debug + 100 * o.log);
    destination_area dst;
    for (unsigned n = 0; n < requests && !testing::Test::HasFailure();) {
        auto r = makes.make(validated ? !makes.random.one_in(20) : makes.random.one_in(2));
        if (validated && refused(r, o.version) && !makes.random.one_in(8))
            continue;
        n++;
        check_roads(ctx, o, r, dst);
    }
}

// Makes sources. Their streams end with the aligned word in front of a page that faults.
class source_maker
{
  public:
    explicit source_maker(uint64_t seed) : random(seed) {}

    random_source random;

  protected:
    static constexpr size_t area = size_t{1} << 20;
    using bit_string = std::vector<bool>;
    using element_bits = std::bitset<256>; // in stream order

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

    uint64_t draw_hints()
    {
        return random.one_in(8) ? random.one_in(2) ? KEL_CACHE : KEL_NOWAIT : 0;
    }

    // A width of up to 24 bytes; lawful ones have up to widest bytes or up to 24 bits.
    uint32_t draw_width(bool in_bits)
    {
        const uint64_t most = lawful ? widest : 24;
        if (!in_bits)
            return random.between<uint32_t>(1, random.one_in(4) ? std::min<uint64_t>(most, 4) : most);
        if (random.one_in(6))
            return 8 * random.between<uint32_t>(1, most);
        return random.between<uint32_t>(1, lawful ? 24 : random.one_in(6) ? 192 : 64);
    }

    void draw_format(kel_vec_t &src, uint64_t lawful_aux_formats)
    {
        static constexpr uint64_t counts[] = {0, 1, 63, 64, 65, 127, 128, 129};
        static constexpr uint64_t aux_formats[] = {0, 0, KEL_RLE, KEL_VAR};
        src.elements = random.one_in(2) ? random.pick(counts) : random.between(0, random.one_in(50) ? 5000 : 300);
        src.format = no_width ? random.one_in(2) * KEL_RLE : random.pick(aux_formats);
        if (lawful)
            src.format &= lawful_aux_formats;
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

    // Aux elements are runs or widths, mostly without zeros.
    void draw_lengths(kel_vec_t &src)
    {
        static constexpr uint16_t widths[] = {1, 2, 4, 8}, unlawful_widths[] = {8, 16, 32};
        src.aux_width = !lawful && random.one_in(8) ? random.pick(unlawful_widths) : random.pick(widths);
        src.aux_offset = random.between<uint8_t>(0, 7);
        bit_string stream;
        append(stream, random.word(), src.aux_offset);
        const uint64_t longest_run = src.elements > 300 || !random.one_in(4) ? 3 : 255;
        const uint64_t longest = (wide_elements ? 32 : random.one_in(2) ? 16 : 6) - add_one(src);
        const uint64_t most =
            std::min<uint64_t>(src.format & KEL_RLE ? longest_run : longest, (uint64_t{1} << src.aux_width) - 1);
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

    element_bits draw_bits()
    {
        element_bits drawn;
        for (unsigned i = 0; i < 4; i++)
            drawn = drawn << 64 | element_bits(random.word());
        return drawn;
    }

    // Each element is the head of what draw says for its number of bits.
    void draw_elements(kel_vec_t &src, const auto &draw)
    {
        bit_string stream;
        append(stream, random.word(), src.offset);
        places.clear();
        for (const uint64_t length : lengths) {
            const uint64_t bits = no_width ? 8 : variable_width(src) ? 8 * length : bits_of(src);
            const element_bits drawn = draw(bits);
            places.emplace_back(stream.size(), bits);
            for (uint64_t i = 0; i < bits; i++)
                stream.push_back(drawn[i]);
        }
        src.data = place(elements, stream);
    }

    // A destination of any size around the one that holds the outcome of all elements.
    void draw_size(kel_vec_t &dst, uint64_t stored, uint64_t least, uint64_t all)
    {
        const uint64_t ample = std::max(least, all);
        dst.elements = random.one_in(2) ? ample : random.between(least, ample + 70);
        if (random.one_in(8))
            dst.elements = stored;
    }

    // The number of elements, runs expanded.
    uint64_t expanded(const kel_vec_t &src) const
    {
        return src.format & KEL_RLE ? std::accumulate(lengths.begin(), lengths.end(), uint64_t{0}) : src.elements;
    }

    // A destination of bits or indexes.
    void draw_results(uint64_t flags, const kel_vec_t &src, kel_vec_t &dst)
    {
        static constexpr uint32_t list_bits[] = {16, 32}, entry_bits[] = {8, 12, 16, 20, 24, 32, 40, 48, 56, 64};
        dst.elem_width = flags & KEL_ONES_INDEX ? random.pick(list_bits) : 1;
        if (!lawful && random.one_in(4))
            dst.elem_width = random.pick(entry_bits);
        dst.format = KEL_BITS;
        if (dst.elem_width % 8 == 0 && random.one_in(2)) {
            dst.format = KEL_BYTES;
            dst.elem_width /= 8;
        }
        if (!lawful && random.one_in(10))
            dst.offset = random.between<uint8_t>(1, 7);
        draw_size(dst, src.elements, lawful ? src.elements : 0, expanded(src));
    }

    bool lawful = false;           // within what validation accepts (of one version at least), though not always
    uint64_t widest = 16;          // bytes of a lawful element
    bool no_width = false;         // neither the elements nor the values have a width
    bool wide_elements = false;    // elements of variable width up to 32 bytes
    std::vector<uint64_t> lengths; // the runs or widths
    std::vector<std::pair<uint64_t, uint64_t>> places; // position and bits of each element
    guarded_buffer elements{area, 1}, aux{area, 1};
};

// ---- Known cases ----------------------------------------------------------------------------------------------------

// A vector as a case tells it.
struct known_vector {
    uint64_t format, elements;
    uint32_t width;
    std::string data, aux = ""; // hexadecimal; aux elements have 8 bits
};

// The same with its streams, each in front of a page that faults.
struct placed_vector {
    explicit placed_vector(const known_vector &v)
        : data(v.data.size() / 2 + 1),
          aux(v.aux.size() / 2 + 1), vec{v.format, v.elements, data.data, v.width, 0, 0, 8, aux.data, nullptr, 0}
    {
        for (const auto &[to, text] : {std::pair(data.data, v.data), std::pair(aux.data, v.aux)})
            for (size_t i = 0; i < text.size() / 2; i++)
                to[i] = static_cast<uint8_t>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
    }

    guarded_buffer data, aux;
    kel_vec_t vec;
};

// Checks a request and the text of its outcome: status, count of elements processed, size, bytes, messages.
template <class request>
void check_known(request r, const std::string &expected)
{
    SCOPED_TRACE(expected);
    test_context ctx(plain.version, plain.debug, plain.log);
    destination_area dst;
    std::ostringstream text;
    text << emulation(r, plain);
    EXPECT_EQ(text.str(), expected);
    check_roads(ctx, plain, r, dst);
}

} // namespace model
