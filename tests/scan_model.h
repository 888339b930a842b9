// A reference model of a scan, written to be read and not to be fast. It reads single bits, compares strings of bytes,
// and takes one stored element after the other. It shares no code with the library.
//
// Only the writer works in 64-bit words, because the words are part of the result: the overflow test looks at stored
// words, and an index that is too wide for its list entry reaches into the entries before it in the same word.
#pragma once

#include "kel_frame.h"
#include "support.h"
#include <algorithm>
#include <ostream>
#include <utility>

namespace scan_model
{

// One scan. A value scan uses lower alone.
struct scan {
    uint64_t flags;
    kel_vec_t src, dst;
    int op;
    kel_int_t lower, upper;

    bool range() const
    {
        return op >= KEL_EQ_OR_EQ;
    }
};

// The context of a scan.
struct options {
    uint32_t version, debug, log;
};

// All that a scan leaves behind. bytes is what was written from the start of the destination on; what is behind it is
// untouched.
struct outcome {
    kel_status_t status = KEL_SUCCESS;
    cca_t cca = {};
    std::vector<uint8_t> bytes = {};
    std::vector<std::pair<uint32_t, std::string>> lines = {}; // levels and messages
    unsigned debug_calls = 0, error_calls = 0;
    bool refused = false; // by validation, with one or more reports, which are not told here

    // A failure that is reported: a line if errors are logged, and a call of the debugging hook.
    void report(uint32_t log_options, const std::string &message)
    {
        if (log_options & KEL_LOG_ERROR)
            lines.emplace_back(KEL_LOG_ERROR, message);
        debug_calls++;
    }
};

// ---- Widths and elements --------------------------------------------------------------------------------------------

inline uint64_t round_up(uint64_t n, uint64_t unit)
{
    return (n + unit - 1) / unit * unit;
}

// Of a vector's elements or a value.
uint64_t bits_of(const auto &of)
{
    return of.format & KEL_BITS ? of.elem_width : uint64_t{8} * of.elem_width;
}

uint64_t bytes_of(const auto &of)
{
    return round_up(bits_of(of), 8) / 8;
}

inline bool has_aux(const kel_vec_t &vec)
{
    return vec.format & (KEL_VAR | KEL_RLE);
}

// Run-length elements have a fixed width even if the format has KEL_VAR, too.
inline bool variable_width(const kel_vec_t &vec)
{
    return (vec.format & KEL_VAR) && !(vec.format & KEL_RLE);
}

inline uint64_t add_one(const kel_vec_t &vec)
{
    return vec.format & KEL_ADD_ONE ? 1 : 0;
}

// The two streams of a source.
struct source_reader {
    const kel_vec_t &src;
    bit_reader data = {src.data, src.offset};
    bit_reader aux = {src.aux_data, src.aux_offset};

    // The next element's width in bits, and its run.
    uint64_t width()
    {
        return variable_width(src) ? 8 * (aux.field(src.aux_width) + add_one(src)) : bits_of(src);
    }

    uint64_t run()
    {
        return src.format & KEL_RLE ? aux.field(src.aux_width) + add_one(src) : 1;
    }
};

// ---- Comparison -----------------------------------------------------------------------------------------------------

enum : unsigned { below = 1, same = 2, above = 4 };

// What an operator accepts of an element's order to lower and to upper, and whether it wants both.
struct operator_row {
    int op;
    unsigned lower;
    bool both = false;
    unsigned upper = 0;
};

inline constexpr operator_row value_operators[] = {{KEL_EQ, same},         {KEL_NE, below | above}, {KEL_LT, below},
                                                   {KEL_GE, same | above}, {KEL_LE, below | same},  {KEL_GT, above}};

inline constexpr operator_row range_operators[] = {
    {KEL_EQ_OR_EQ, same, false, same},
    {KEL_NE_AND_NE, below | above, true, below | above},
    {KEL_GE_AND_LE, same | above, true, below | same},
    {KEL_LT_OR_GT, below, false, above},
    {KEL_GE_AND_LT, same | above, true, below},
    {KEL_LT_OR_GE, below, false, same | above},
    {KEL_GT_AND_LE, above, true, below | same},
    {KEL_LE_OR_GT, below | same, false, above},
    {KEL_GT_AND_LT, above, true, below},
    {KEL_LE_OR_GE, below | same, false, same | above},
};

// The row of a scan's operator, or null if it is none.
inline const operator_row *row_of(const scan &s)
{
    const auto search = [&](const auto &rows) {
        const auto *row = std::find_if(std::begin(rows), std::end(rows), [&](const auto &r) { return r.op == s.op; });
        return row == std::end(rows) ? nullptr : row;
    };
    return s.range() ? search(range_operators) : search(value_operators);
}

// The bytes of the widest operand, which settles how many words of the values take part.
inline uint64_t widest_operand(const scan &s)
{
    const uint64_t src = s.src.format & KEL_VAR ? 16 : bytes_of(s.src);
    return std::max({src, bytes_of(s.lower), s.range() ? bytes_of(s.upper) : 0});
}

// Elements and values are compared as strings of bytes, where a prefix is less than what continues it. Before a value
// stand the bytes above its width, as far as its operand class looks at them, and before an element as many zeros: 24.
inline std::string element_text(bit_reader &data, uint64_t bits)
{
    return std::string(24, '\0') + data.bytes(bits);
}

inline std::string value_text(const kel_int_t &value, uint64_t wide)
{
    const uint64_t words[] = {
        wide > 16 && bits_of(value) >= 128 ? value.dword[0] : 0, wide > 8 && bits_of(value) >= 64 ? value.dword[1] : 0,
        wide == 0 ? value.dword[2] & 0xff : value.dword[2], // without any width the operands are single bytes
    };
    std::string text(wide == 0 ? 1 : bytes_of(value), '\0');
    for (const uint64_t word : words)
        for (int shift = 56; shift >= 0; shift -= 8)
            text += static_cast<char>(word >> shift);
    return text;
}

inline bool accepts(unsigned orders, const std::string &element, const std::string &value)
{
    return orders & (element < value ? below : element == value ? same : above);
}

// ---- The emulation --------------------------------------------------------------------------------------------------

struct word_writer {
    std::vector<uint8_t> stored;
    uint64_t cache = 0;
    uint64_t held = 0;

    void store()
    {
        for (int shift = 56; shift >= 0; shift -= 8)
            stored.push_back(static_cast<uint8_t>(cache >> shift));
        cache = held = 0;
    }

    // A full cache stays until the next field, and a value wider than its field is cut only where the field is split.
    void put_bits(uint64_t value, uint64_t bits)
    {
        if (held + bits > 64) {
            const uint64_t rest = held + bits - 64;
            if (rest < bits) {
                cache |= value >> rest;
                value &= (uint64_t{1} << rest) - 1;
                bits = rest;
            }
            store();
        }
        cache |= value << (64 - held - bits);
        held += bits;
    }

    // A cache that single bits fill is stored at once.
    void put_bit(bool bit)
    {
        put_bits(bit, 1);
        if (held == 64)
            store();
    }

    // Whether there was room to pad.
    bool finish(uint64_t nominal)
    {
        const bool fits = round_up(stored.size(), 64) <= nominal;
        if (held)
            store();
        if (fits)
            stored.resize(round_up(stored.size(), 64));
        return fits;
    }
};

// The bytes of a destination up to its nominal end.
inline uint64_t nominal_bytes(const kel_vec_t &dst)
{
    return round_up((dst.offset + bits_of(dst) * dst.elements + 7) / 8, 64);
}

// A scan under way.
struct emulator {
    const scan &s;
    const operator_row &accepted = *row_of(s);
    uint64_t wide = widest_operand(s);
    std::string lower = value_text(s.lower, wide), upper = value_text(s.upper, wide);
    source_reader in = {s.src};
    word_writer out = {};
    uint64_t processed = 0, count = 0, index = 0;

    // Reads the next stored element, compares it and writes its outcome.
    kel_status_t step()
    {
        const uint64_t width = in.width();
        if (variable_width(s.src) && width == 0)
            return KEL_EDATAFMT;
        const std::string element = element_text(in.data, wide == 0 ? 8 : width);
        const uint64_t run = in.run();
        if (run == 0)
            return KEL_EDATAFMT;
        processed += run;
        if (out.stored.size() >= nominal_bytes(s.dst))
            return KEL_EOVERFLOW;

        const bool first = accepts(accepted.lower, element, lower), second = accepts(accepted.upper, element, upper);
        const bool match = accepted.both ? first && second : first || second;
        count += match ? run : 0;
        for (uint64_t i = 0; i < run; i++, index++) {
            if (!(s.flags & KEL_ONES_INDEX))
                out.put_bit(match);
            else if (match)
                out.put_bits(index, bits_of(s.dst) / 8 * 8);
        }
        return KEL_SUCCESS;
    }
};

// before is what the caller's record of the counters holds.
inline outcome emulation(const scan &s, uint32_t log_options, const cca_t &before)
{
    outcome result;
    result.cca = before;
    if (log_options & KEL_LOG_VERBOSE)
        result.lines.emplace_back(KEL_LOG_VERBOSE, s.range() ? "Emulating kel_scan_range" : "Emulating kel_scan_value");
    if (!row_of(s)) {
        result.status = KEL_EPARSE;
        return result;
    }

    emulator e = {s};
    uint64_t stored = 0;
    for (; result.status == KEL_SUCCESS && stored < s.src.elements; stored++)
        result.status = e.step();
    if (result.status != KEL_SUCCESS) {
        result.error_calls++;
        result.report(log_options, (result.status == KEL_EDATAFMT ? "EDATAFMT" : "EOVERFLOW") +
                                       (" at element index " + std::to_string(stored)));
    }
    if (!e.out.finish(nominal_bytes(s.dst)) && result.status == KEL_SUCCESS)
        result.status = KEL_EOVERFLOW;
    result.bytes = e.out.stored;
    result.cca = {static_cast<uint32_t>(e.out.stored.size()), static_cast<uint32_t>(e.processed), e.count};
    return result;
}

// ---- The public call ------------------------------------------------------------------------------------------------

// Whether validation of the descriptors refuses a scan.
inline bool refused(const scan &s, unsigned version)
{
    const kel_vec_t &src = s.src, &dst = s.dst;
    const auto bad_width = [&](uint64_t bits) { return bits > 128 || (bits % 8 && bits > (version == 2 ? 24 : 16)); };
    const auto bad_value = [&](const kel_int_t &value) { return value.elem_width == 0 || bad_width(bits_of(value)); };
    const bool variable = src.format & KEL_VAR;
    if (variable && src.format & (KEL_RLE | KEL_BITS))
        return true;
    if (has_aux(src) ? src.aux_width > 8 : add_one(src) != 0)
        return true;
    if (bad_width(bits_of(src)) || (src.elem_width == 0 && !variable) || (src.offset && bits_of(src) > 64))
        return true;
    if (s.flags & KEL_ONES_INDEX ? bits_of(dst) != 16 && bits_of(dst) != 32 : bits_of(dst) != 1)
        return true;
    return dst.offset || dst.elements < src.elements || !row_of(s) || bad_value(s.lower) ||
           (s.range() && bad_value(s.upper));
}

// Whether validation of the data refuses a scan: runs beyond the destination or none, wide elements, and bits above the
// rounded width of a value in the word where its top lies.
inline bool faulty_data(const scan &s)
{
    const kel_vec_t &src = s.src;
    uint64_t sum = 0, widest = 0;
    bit_reader aux = source_reader{src}.aux;
    for (uint64_t i = 0; has_aux(src) && i < src.elements; i++) {
        const uint64_t length = aux.field(src.aux_width);
        sum += length + add_one(src);
        widest = std::max(widest, length);
    }
    const auto spare_bits = [](const kel_int_t &value) {
        const uint64_t width = bits_of(value), top = round_up(width, 8);
        return width > 0 && width <= 192 && top % 64 != 0 && value.dword[2 - top / 64] >> top % 64 != 0;
    };
    return (src.format & KEL_RLE && src.aux_width <= 8 && (sum > s.dst.elements || sum == 0)) ||
           (src.format & KEL_VAR && src.aux_width == 8 && widest > 15) || spare_bits(s.lower) ||
           (s.range() && spare_bits(s.upper));
}

// A synchronous call; its buffers do not overlap. Of the counters it shows the matches alone.
inline outcome call(const scan &s, const options &o)
{
    outcome result;
    if ((o.debug & KEL_DEBUG_ARG && refused(s, o.version)) || (o.debug & KEL_DEBUG_EXTRA && faulty_data(s))) {
        result.status = KEL_EINVAL;
        result.refused = true;
        return result;
    }

    result = emulation(s, o.log, {});
    result.cca = {0, 0, result.cca.retval};
    if (result.status != KEL_EDATAFMT || add_one(s.src))
        return result;
    // The diagnosis looks at the low four bits alone, so that it may name an element before the failing one.
    bit_reader aux = source_reader{s.src}.aux;
    for (uint64_t i = 0; i < s.src.elements; i++)
        if ((aux.field(s.src.aux_width) & 15) == 0) {
            result.report(o.log, "EDATAFMT: aux_data element at index " + std::to_string(i) + " is 0");
            break;
        }
    return result;
}

// ---- Scans and outcomes as text -------------------------------------------------------------------------------------

inline std::ostream &operator<<(std::ostream &out, const scan &s)
{
    out << (s.range() ? "range" : "value") << " op " << s.op << " flags " << s.flags;
    for (const kel_vec_t *vec : {&s.src, &s.dst})
        out << "\n  format " << vec->format << " elements " << vec->elements << " width " << vec->elem_width
            << " offset " << unsigned{vec->offset} << " at " << vec->data << ", aux width " << vec->aux_width
            << " offset " << unsigned{vec->aux_offset} << " at " << vec->aux_data;
    for (const kel_int_t *value : {&s.lower, &s.upper})
        out << "\n  value format " << value->format << " width " << value->elem_width << std::hex << " dwords "
            << value->dword[0] << ' ' << value->dword[1] << ' ' << value->dword[2] << std::dec;
    out << "\n  elements";
    source_reader in = {s.src};
    for (uint64_t i = 0; i < std::min<uint64_t>(s.src.elements, 200); i++) {
        const std::string element = in.data.bytes(in.width());
        out << ' ' << hex(element.data(), element.size()) << '*' << in.run();
    }
    return out;
}

// The status, matches of elements, bytes, messages; the bytes without the zeros at the end.
inline std::ostream &operator<<(std::ostream &out, const outcome &o)
{
    size_t size = o.bytes.size();
    while (size > 0 && o.bytes[size - 1] == 0)
        size--;
    out << "status " << o.status << ", " << o.cca.retval << " of " << o.cca.n_processed << ", " << o.cca.output_sz
        << " bytes " << hex(o.bytes.data(), size);
    for (const auto &[level, message] : o.lines)
        out << "; " << message;
    return out;
}

} // namespace scan_model
