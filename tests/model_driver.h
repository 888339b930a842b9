// Runs requests by all roads and compares what they leave behind with their model, and makes random sources.
#pragma once

#include "kel_producer.h"
#include "model.h"
#include <bitset>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <sstream>

namespace model
{

// ---- One request against its model ----------------------------------------------------------------------------------

// The destinations of all cases: each ends in front of a page that faults.
class destination_area
{
  public:
    void place(auto &request, const outcome &expected)
    {
        room = room_for(request, expected);
        start = buffer.data + buffer.size - room;
        request.dst.data = start;
        memset(start - margin, unwritten, room + margin);
    }

    bool holds(const outcome &expected) const
    {
        const auto is_unwritten = [](uint8_t byte) { return byte == unwritten; };
        return std::equal(expected.bytes.begin(), expected.bytes.end(), start) &&
               std::all_of(start + expected.bytes.size(), start + room, is_unwritten) &&
               std::all_of(start - margin, start, is_unwritten);
    }

    uint8_t *start = nullptr;
    uint64_t room = 0;

  private:
    static constexpr uint64_t margin = 64;
    guarded_buffer buffer{size_t{8} << 20, 64};
};

// The public call, the posted one, and the emulation behind them.
enum road { calls, posts, emulations };

// Takes a road of an operation. What a request leaves in the log is there in the end, and nothing of its poll.
template <class... arguments>
outcome take_road(test_context &ctx, road way, const auto &call, const auto &post, const auto &emulate,
                  arguments... args)
{
    outcome seen = {.cca = cca_before};
    if (way == calls) {
        const kel_result_t result = call(ctx, args...);
        return {result.status, {0, result.reserved, result.count}};
    }
    if (way != posts) {
        seen.status = emulate(ctx, args..., &seen.cca);
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
inline bool agree(outcome &seen, const outcome &expected, uint32_t log_options)
{
    if (expected.refused) {
        const size_t reports = std::erase_if(seen.lines, [](const auto &line) { return line.first == KEL_LOG_ERROR; });
        if (seen.debug_calls == 0 || reports != (log_options & KEL_LOG_ERROR ? seen.debug_calls : 0))
            return false;
        seen.debug_calls = 0;
    }
    return seen.lines == expected.lines && seen.debug_calls == expected.debug_calls && seen.status == expected.status &&
           seen.error_calls == expected.error_calls && memcmp(&seen.cca, &expected.cca, sizeof seen.cca) == 0;
}

// Runs a request; whether it leaves behind what is expected. If not, all about it goes into the test's failure.
template <class request>
bool check(test_context &ctx, const options &o, road way, request &r, const outcome &expected, destination_area &dst)
{
    dst.place(r, expected);
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
    ADD_FAILURE() << "road " << way << " with " << (ctx->kernels ? ctx->kernels->name : "the walk") << ", version "
                  << o.version << ", debug " << o.debug << ", log " << o.log << ": " << r << "\n  expected " << expected
                  << "; hooks " << expected.debug_calls << ' ' << expected.error_calls << "\n  seen " << seen
                  << "; hooks " << seen.debug_calls << ' ' << seen.error_calls;
    return false;
}

// By all roads, and the emulation with every set of producers that the processor has, and by the walk alone.
template <class request>
bool check_roads(test_context &ctx, const options &o, request &r, destination_area &dst)
{
    const outcome emulated = emulation(r, o);
    bool good = check(ctx, o, calls, r, call(r, o, emulated, true), dst) &&
                check(ctx, o, posts, r, call(r, o, emulated, false), dst);
    const kernel_set_t *const widest = std::exchange(ctx->kernels, nullptr);
    good = good && check(ctx, o, emulations, r, emulated, dst);
    for (const kernel_set_t *set = kernel_sets; set->name; set++)
        if (good && set->present()) {
            ctx->kernels = set;
            good = check(ctx, o, emulations, r, emulated, dst);
        }
    ctx->kernels = widest;
    return good;
}

// ---- Random requests ------------------------------------------------------------------------------------------------

inline constexpr uint32_t arg = KEL_DEBUG_ARG, extra = KEL_DEBUG_EXTRA, errors = KEL_LOG_ERROR, all_lines = 63;
inline constexpr options plain = {2, 0, errors};

using random_requests = testing::TestWithParam<std::tuple<uint32_t, uint32_t, uint32_t>>; // the members of options

inline auto contexts(auto... debug)
{
    return testing::Combine(testing::Values(1u, 2u), testing::Values(debug...), testing::Values(0u, errors, all_lines));
}

// A request with its source compressed, if the operation takes such sources.
template <class request>
bool check_compressed(test_context &ctx, const options &o, auto &makes, const request &made, destination_area &dst)
{
    request r = made;
    if (!requires { request::compressible; } || refused(made, o.version) || !makes.compress(ctx, r.src))
        return true;
    const outcome emulated = emulation(made, o);
    const bool agrees = check(ctx, o, calls, r, call(made, o, emulated, true), dst) &&
                        check(ctx, o, posts, r, call(made, o, emulated, false), dst);
    EXPECT_EQ(kel_zip_free(ctx, r.src.codec), KEL_SUCCESS);
    return agrees;
}

// The contexts of requests whose lines are not in the model.
inline auto contexts_of_bytes()
{
    return testing::Combine(testing::Values(1u, 2u), testing::Values(0u, arg, arg | extra), testing::Values(errors));
}

// Where arguments are validated, few of the requests that are refused are run.
bool check_made(test_context &ctx, const options &o, auto &makes, unsigned requests, destination_area &dst)
{
    const bool validated = o.debug & KEL_DEBUG_ARG;
    for (unsigned n = 0; n < requests;) {
        auto r = makes.make(validated ? !makes.random.one_in(20) : makes.random.one_in(2));
        if (validated && refused(r, o.version) && !makes.random.one_in(8))
            continue;
        n++;
        if (!check_roads(ctx, o, r, dst) || testing::Test::HasFailure())
            return false;
        if (makes.random.one_in(8) && !check_compressed(ctx, o, makes, r, dst))
            return false;
    }
    return true;
}

template <class maker>
void check_random(const random_requests::ParamType &members, unsigned requests)
{
    const auto [version, debug, log] = members;
    test_context ctx(version, debug, log);
    random_source random(version + 10 * debug + 100 * log);
    maker makes(random);
    destination_area dst;
    check_made(ctx, {version, debug, log}, makes, requests, dst);
}

// Makes sources. Their streams end with the aligned word in front of a page that faults.
class source_maker
{
  public:
    explicit source_maker(random_source &numbers) : random(numbers) {}

    random_source &random;

  protected:
    static constexpr size_t area = size_t{1} << 20;
    using bit_string = std::vector<bool>;
    using element_bits = std::bitset<256>; // in stream order

    static void append(bit_string &stream, uint64_t field, unsigned bits)
    {
        while (bits-- > 0)
            stream.push_back(field >> bits & 1);
    }

    // Random bytes at any address such that they end with the word in front of the page.
    uint8_t *place(const guarded_buffer &buffer, uint64_t bytes)
    {
        const uint64_t phase = random.one_in(3) ? 0 : random.between(1, 7);
        const uint64_t words = round_up(phase + std::max<uint64_t>(bytes, 1), 8);
        uint8_t *start = buffer.data + buffer.size - words;
        random.fill(start, words);
        return start + phase;
    }

    // The same of a stream, with random bits all around.
    uint8_t *place(const guarded_buffer &buffer, const bit_string &stream)
    {
        uint8_t *const start = place(buffer, (stream.size() + 7) / 8);
        for (uint64_t i = 0; i < stream.size(); i++)
            start[i / 8] = static_cast<uint8_t>((start[i / 8] & ~(0x80 >> i % 8)) | stream[i] << (7 - i % 8));
        return start;
    }

    // Any of these, and now and then one without effect.
    uint64_t draw_flags(uint64_t flags)
    {
        return (random.word() & flags) | (random.one_in(8) ? random.one_in(2) ? KEL_CACHE : KEL_NOWAIT : 0);
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
        static constexpr uint16_t widths[] = {1, 2, 4, 8, 8, 8}, unlawful_widths[] = {8, 16, 32};
        src.aux_width = !lawful && random.one_in(8) ? random.pick(unlawful_widths) : random.pick(widths);
        src.aux_offset = random.between<uint8_t>(0, 7);
        bit_string stream;
        append(stream, random.word(), src.aux_offset);
        const uint64_t longest_run =
            random.one_in(src.elements > 300 ? 2 : 4) ? std::min<uint64_t>(255, 150000 / (src.elements + 1)) : 3;
        const uint64_t longest = (wide_elements ? 32 : random.one_in(2) ? 16 : 6) - add_one(src);
        const uint64_t most =
            std::min<uint64_t>(src.format & KEL_RLE ? longest_run : longest, (uint64_t{1} << src.aux_width) - 1);
        const bool zeros = random.one_in(4);
        lengths.clear();
        expanded = 0;
        for (uint64_t i = 0; i < src.elements; i++) {
            uint64_t stored = random.between(1 - add_one(src), most);
            if (zeros && random.one_in(80))
                stored = 0;
            lengths.push_back(stored + add_one(src));
            expanded += src.format & KEL_RLE ? lengths.back() : 1;
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

    // A destination of this width in bits, of any size around the one that holds the outcome of all elements.
    void draw_destination(kel_vec_t &dst, uint32_t bits, uint64_t least, uint64_t all)
    {
        dst.format = bits % 8 || random.one_in(2) ? KEL_BITS : KEL_BYTES;
        dst.elem_width = dst.format & KEL_BITS ? bits : bits / 8;
        dst.offset = random.between<uint8_t>(0, lawful || !random.one_in(10) ? 0 : 7);
        const uint64_t ample = std::max(least, all), some = random.between(least, ample + 70);
        dst.elements = random.one_in(8) ? lengths.size() : random.one_in(2) ? ample : some;
    }

    // A destination of bits or indexes.
    void draw_results(uint64_t flags, kel_vec_t &dst)
    {
        static constexpr uint32_t list_bits[] = {16, 32}, entry_bits[] = {8, 12, 16, 20, 24, 32, 40, 48, 56, 64};
        uint32_t bits = flags & KEL_ONES_INDEX ? random.pick(list_bits) : 1;
        if (!lawful && random.one_in(4))
            bits = random.pick(entry_bits);
        draw_destination(dst, bits, lawful ? lengths.size() : 0, expanded);
    }

  public:
    // Compresses the source that was made last, if it has any bits: they are cut into symbols at random, of which a
    // codec is made. The caller frees it.
    bool compress(kel_context_t *ctx, kel_vec_t &src)
    {
        const uint64_t end = places.empty() ? 0 : places.back().first + places.back().second, bits = end - src.offset;
        if (places.empty() || bits == 0)
            return false;
        std::string text;
        for (bit_reader in = {src.data, src.offset}; in.position < end;) {
            const uint64_t n = std::min<uint64_t>(end - in.position, 8);
            text += static_cast<char>(in.field(n) << (8 - n));
        }
        src.offset = random.between<uint8_t>(0, bits_of(src) > 64 ? 0 : 7);
        if (!(src.format & KEL_VAR))
            text.resize((src.offset + bits + 7) / 8); // the bytes that are decoded, by any offset
        const uint64_t longest = text.size() < 250 ? 8 : text.size() < 1000 ? 3 : 1; // 14 bytes in a row of symbols
        std::vector<std::string> symbols = {"a", "b"};
        std::vector<size_t> codes;
        for (size_t at = 0; at < text.size(); at += symbols[codes.back()].size()) {
            const std::string symbol = text.substr(at, random.between(1, longest));
            codes.push_back(static_cast<size_t>(std::find(symbols.begin(), symbols.end(), symbol) - symbols.begin()));
            if (codes.back() == symbols.size())
                symbols.push_back(symbol);
        }
        std::string widths((symbols.size() + 1) / 2, '\0'), bytes;
        for (size_t i = 0; i < symbols.size(); bytes += symbols[i++])
            widths[i / 2] = static_cast<char>(widths[i / 2] | static_cast<int>(symbols[i].size()) << (i % 2 ? 0 : 4));
        const std::string all = {static_cast<char>(symbols.size() >> 8), static_cast<char>(symbols.size())};
        bytes = all + widths + bytes;
        uint8_t *const at = image.data + image.size - round_up(bytes.size(), 16);
        memcpy(at, bytes.data(), bytes.size());
        EXPECT_EQ(kel_zip_create_contig(ctx, at, bytes.size(), &src.codec), KEL_SUCCESS);

        bit_string stream;
        append(stream, random.word(), src.offset);
        const auto width = static_cast<unsigned>(std::bit_width(symbols.size() - 1));
        for (const size_t code : codes)
            append(stream, code, width);
        src.codewords = random.one_in(4) ? 0 : codes.size();
        if (src.codewords == 0) // then as many may be read as there are bytes
            stream.resize(src.offset + width * text.size());
        src.data = place(codewords, stream);
        src.format |= KEL_ZIP;
        return true;
    }

  protected:
    bool lawful = false;           // within what validation accepts (of one version at least), though not always
    uint64_t widest = 16;          // bytes of a lawful element
    bool no_width = false;         // neither the elements nor the values have a width
    bool wide_elements = false;    // elements of variable width up to 32 bytes
    std::vector<uint64_t> lengths; // the runs or widths
    uint64_t expanded = 0;         // the elements of all runs
    std::vector<std::pair<uint64_t, uint64_t>> places; // position and bits of each element
    guarded_buffer elements{area, 1}, aux{area, 1}, codewords{area, 1}, image{8192, 64};
};

// ---- Known cases ----------------------------------------------------------------------------------------------------

inline kel_vec_t plain_vector(uint64_t format, uint64_t elements, uint32_t width, void *data = nullptr)
{
    return {format, elements, data, width, 0, 0, 0, nullptr, nullptr, 0};
}

// A vector whose streams are told in hexadecimal and lie in front of pages that fault; aux elements have 8 bits.
struct known_vector : kel_vec_t {
    known_vector(uint64_t f, uint64_t count, uint32_t width, const std::string &bytes, const std::string &lengths = "")
        : kel_vec_t{f, count, place(bytes), width, 0, 0, 8, place(lengths), nullptr, 0}
    {
    }

    static uint8_t *place(const std::string &text)
    {
        static std::deque<guarded_buffer> buffers;
        uint8_t *const data = buffers.emplace_back(text.size() / 2 + 1).data;
        for (size_t i = 0; i < text.size() / 2; i++)
            data[i] = static_cast<uint8_t>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
        return data;
    }
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
