// A reference model of a scan, written to be read and not to be fast. It reads single bits, holds every number as a
// string of bytes, and takes one stored element after the other. It shares no code with the library.
//
// Only the writer works in 64-bit words, because the words are part of the result: the overflow test looks at stored
// words, and an index that is too wide for its list entry reaches into the entries before it in the same word.
#pragma once

#include "kel_frame.h"
#include "support.h"
#include <algorithm>
#include <array>
#include <ostream>
#include <utility>

namespace scan_model
{

// One scan. A value scan uses lower alone.
struct scan {
    bool range;
    uint64_t flags;
    kel_vec_t src, dst;
    int op;
    kel_int_t lower, upper;
};

// A log line: its level and its message.
using line = std::pair<uint32_t, std::string>;

// All that a scan leaves behind. bytes is what was written from the start of the destination on; what is behind it is
// untouched.
struct outcome {
    kel_status_t status = KEL_SUCCESS;
    cca_t cca = {};
    std::vector<uint8_t> bytes;
    std::vector<line> lines;
    unsigned debug_calls = 0;
    unsigned error_calls = 0;

    // A failure that is reported: a line if errors are logged, and a call of the debugging hook.
    void report(uint32_t log_options, const std::string &message)
    {
        if (log_options & KEL_LOG_ERROR)
            lines.emplace_back(KEL_LOG_ERROR, message);
        debug_calls++;
    }
};

// A number of up to 256 bits, most significant byte first, so that arrays compare as numbers do.
using number = std::array<uint8_t, 32>;

inline number shifted_right(const number &n, uint64_t bytes)
{
    number result = {};
    std::copy(n.begin(), n.end() - static_cast<long>(bytes), result.begin() + static_cast<long>(bytes));
    return result;
}

inline uint64_t round_up(uint64_t n, uint64_t unit)
{
    return (n + unit - 1) / unit * unit;
}

inline uint64_t bits_of(uint64_t format, uint64_t elem_width)
{
    return format & KEL_BITS ? elem_width : elem_width * 8;
}

inline uint64_t bytes_of(uint64_t format, uint64_t elem_width)
{
    return round_up(bits_of(format, elem_width), 8) / 8;
}

inline bool has_aux(const kel_vec_t &vec)
{
    return vec.format & (KEL_VAR | KEL_RLE);
}

// A scan of run-length elements, whose widths are fixed even if the format has KEL_VAR, too.
inline bool variable_width(const kel_vec_t &vec)
{
    return (vec.format & KEL_VAR) && !(vec.format & KEL_RLE);
}

inline uint64_t add_one(const kel_vec_t &vec)
{
    return vec.format & KEL_ADD_ONE ? 1 : 0;
}

struct bit_reader {
    const uint8_t *data;
    uint64_t position;

    bool bit()
    {
        const uint64_t at = position++;
        return data[at / 8] >> (7 - at % 8) & 1;
    }

    number field(uint64_t bits)
    {
        number result = {};
        for (uint64_t weight = bits; weight-- > 0;)
            result[31 - weight / 8] |= static_cast<uint8_t>(bit() << weight % 8);
        return result;
    }

    uint64_t aux(unsigned bits)
    {
        uint64_t result = 0;
        for (unsigned i = 0; i < bits; i++)
            result = result << 1 | bit();
        return result;
    }
};

inline bit_reader data_of(const kel_vec_t &vec)
{
    return {static_cast<const uint8_t *>(vec.data), vec.offset};
}

inline bit_reader aux_of(const kel_vec_t &vec)
{
    return {static_cast<const uint8_t *>(vec.aux_data), vec.aux_offset};
}

// The bytes that hold the elements of a source.
inline uint64_t data_bytes(const kel_vec_t &src)
{
    uint64_t bits = src.offset + bits_of(src.format, src.elem_width) * src.elements;
    if (variable_width(src)) {
        bits = src.offset;
        bit_reader aux = aux_of(src);
        for (uint64_t i = 0; i < src.elements; i++)
            bits += 8 * (aux.aux(src.aux_width) + add_one(src));
    }
    return (bits + 7) / 8;
}

struct word_writer {
    std::vector<uint8_t> stored;
    uint64_t cache = 0;
    unsigned held = 0;

    void store()
    {
        for (int shift = 56; shift >= 0; shift -= 8)
            stored.push_back(static_cast<uint8_t>(cache >> shift));
        cache = 0;
        held = 0;
    }

    void put_bit(bool bit)
    {
        cache |= uint64_t{bit} << (63 - held);
        if (++held == 64)
            store();
    }

    // A full cache stays until the next field, and a value wider than its field is cut only where the field is split.
    void put_bits(uint64_t value, unsigned bits)
    {
        unsigned room = 64 - held;
        if (bits > room) {
            if (room > 0) {
                cache |= value >> (bits - room);
                bits -= room;
                value &= (uint64_t{1} << bits) - 1;
            }
            store();
            room = 64;
        }
        cache |= value << (room - bits);
        held += bits;
    }

    // Whether there was room to pad.
    bool finish(uint64_t nominal)
    {
        const bool fits = round_up(stored.size(), 64) <= nominal;
        if (held)
            store();
        while (fits && stored.size() % 64)
            stored.push_back(0);
        return fits;
    }
};

// The bytes of a destination up to its nominal end.
inline uint64_t nominal_bytes(const kel_vec_t &dst)
{
    return round_up((dst.offset + bits_of(dst.format, dst.elem_width) * dst.elements + 7) / 8, 64);
}

// The bytes of the widest operand, which settles how many words of the values take part.
inline uint64_t widest_operand(const scan &s)
{
    uint64_t wide = s.src.format & KEL_VAR ? 16 : bytes_of(s.src.format, s.src.elem_width);
    wide = std::max(wide, bytes_of(s.lower.format, s.lower.elem_width));
    if (s.range)
        wide = std::max(wide, bytes_of(s.upper.format, s.upper.elem_width));
    return wide;
}

// A value as a number, with its garbage above the width as far as the operand class looks at it.
inline number number_of(const kel_int_t &value, uint64_t wide)
{
    const uint64_t width = bits_of(value.format, value.elem_width);
    const uint64_t seen[3] = {
        wide > 16 && width >= 128 ? value.dword[0] : 0,
        wide > 8 && width >= 64 ? value.dword[1] : 0,
        wide == 0 ? value.dword[2] & 0xff : value.dword[2],
    };
    number result = {};
    for (unsigned i = 0; i < 24; i++)
        result[8 + i] = static_cast<uint8_t>(seen[i / 8] >> (56 - i % 8 * 8));
    return result;
}

// Compares as left-aligned byte strings: -1, 0 or 1.
inline int order(number element, uint64_t element_bits, number value, uint64_t value_bits)
{
    const uint64_t element_bytes = round_up(element_bits, 8) / 8;
    const uint64_t value_bytes = round_up(value_bits, 8) / 8;
    if (value_bytes > element_bytes)
        value = shifted_right(value, value_bytes - element_bytes);
    if (element_bytes > value_bytes)
        element = shifted_right(element, element_bytes - value_bytes);
    if (element != value)
        return element < value ? -1 : 1;
    return element_bytes == value_bytes ? 0 : element_bytes < value_bytes ? -1 : 1;
}

inline bool holds(int op, int ordered)
{
    return op == KEL_EQ   ? ordered == 0
           : op == KEL_NE ? ordered != 0
           : op == KEL_GE ? ordered >= 0
           : op == KEL_GT ? ordered > 0
           : op == KEL_LE ? ordered <= 0
                          : ordered < 0;
}

struct range_operator {
    int op, first;
    bool both;
    int second;
};

inline constexpr range_operator range_operators[] = {
    {KEL_EQ_OR_EQ, KEL_EQ, false, KEL_EQ}, {KEL_GE_AND_LE, KEL_GE, true, KEL_LE}, {KEL_NE_AND_NE, KEL_NE, true, KEL_NE},
    {KEL_LT_OR_GT, KEL_LT, false, KEL_GT}, {KEL_GE_AND_LT, KEL_GE, true, KEL_LT}, {KEL_LT_OR_GE, KEL_LT, false, KEL_GE},
    {KEL_GT_AND_LE, KEL_GT, true, KEL_LE}, {KEL_LE_OR_GT, KEL_LE, false, KEL_GT}, {KEL_GT_AND_LT, KEL_GT, true, KEL_LT},
    {KEL_LE_OR_GE, KEL_LE, false, KEL_GE},
};

inline constexpr int value_operators[] = {KEL_EQ, KEL_GE, KEL_NE, KEL_LT, KEL_LE, KEL_GT};

inline bool known_operator(const scan &s)
{
    if (s.range)
        return std::any_of(std::begin(range_operators), std::end(range_operators),
                           [&](const range_operator &r) { return r.op == s.op; });
    return std::count(std::begin(value_operators), std::end(value_operators), s.op) != 0;
}

inline bool matches(const scan &s, const number &element, uint64_t element_bits, const number &lower,
                    const number &upper)
{
    const int first = order(element, element_bits, lower, bits_of(s.lower.format, s.lower.elem_width));
    if (!s.range)
        return holds(s.op, first);
    const int second = order(element, element_bits, upper, bits_of(s.upper.format, s.upper.elem_width));
    const range_operator r = *std::find_if(std::begin(range_operators), std::end(range_operators),
                                           [&](const range_operator &known) { return known.op == s.op; });
    return r.both ? holds(r.first, first) && holds(r.second, second) : holds(r.first, first) || holds(r.second, second);
}

// What the loop over the stored elements counts.
struct progress {
    uint64_t stored = 0, processed = 0, count = 0, index = 0;
};

// The next stored element: reads it, compares it and writes its outcome.
inline kel_status_t step(const scan &s, bit_reader &data, bit_reader &aux, word_writer &out, progress &at)
{
    const kel_vec_t &src = s.src;
    const uint64_t wide = widest_operand(s);
    uint64_t width = bits_of(src.format, src.elem_width);
    if (variable_width(src)) {
        width = 8 * (aux.aux(src.aux_width) + add_one(src));
        if (width == 0)
            return KEL_EDATAFMT;
    }
    const number element = data.field(wide == 0 ? 8 : width); // operands without any width are compared as bytes
    uint64_t run = 1;
    if (src.format & KEL_RLE) {
        run = aux.aux(src.aux_width) + add_one(src);
        if (run == 0)
            return KEL_EDATAFMT;
    }
    at.processed += run;
    if (out.stored.size() >= nominal_bytes(s.dst))
        return KEL_EOVERFLOW;

    const bool match = matches(s, element, width, number_of(s.lower, wide), number_of(s.upper, wide));
    if (match)
        at.count += run;
    const auto entry = static_cast<unsigned>(bits_of(s.dst.format, s.dst.elem_width) & ~uint64_t{7});
    for (uint64_t i = 0; i < run; i++, at.index++) {
        if (!(s.flags & KEL_ONES_INDEX))
            out.put_bit(match);
        else if (match)
            out.put_bits(at.index, entry);
    }
    return KEL_SUCCESS;
}

// The emulation of a scan. cca is what the caller's record holds before.
inline outcome emulation(const scan &s, uint32_t log_options, const cca_t &cca)
{
    outcome result;
    result.cca = cca;
    if (log_options & KEL_LOG_VERBOSE)
        result.lines.emplace_back(KEL_LOG_VERBOSE, s.range ? "Emulating kel_scan_range" : "Emulating kel_scan_value");
    if (!known_operator(s)) {
        result.status = KEL_EPARSE;
        return result;
    }

    bit_reader data = data_of(s.src), aux = aux_of(s.src);
    word_writer out;
    progress at;
    while (result.status == KEL_SUCCESS && at.stored < s.src.elements) {
        result.status = step(s, data, aux, out, at);
        at.stored++;
    }
    if (result.status != KEL_SUCCESS) {
        result.error_calls++;
        result.report(log_options, (result.status == KEL_EDATAFMT ? "EDATAFMT" : "EOVERFLOW") +
                                       (" at element index " + std::to_string(at.stored)));
    }
    if (!out.finish(nominal_bytes(s.dst)) && result.status == KEL_SUCCESS)
        result.status = KEL_EOVERFLOW;
    result.bytes = out.stored;
    result.cca = {static_cast<uint32_t>(out.stored.size()), static_cast<uint32_t>(at.processed), at.count};
    return result;
}

inline bool width_refused(uint64_t width, unsigned version)
{
    return width > 128 || (width % 8 && width > (version == 2 ? 24 : 16));
}

// Whether validation of the descriptors refuses a scan.
inline bool refused(const scan &s, unsigned version)
{
    const kel_vec_t &src = s.src, &dst = s.dst;
    const uint64_t width = bits_of(src.format, src.elem_width), entry = bits_of(dst.format, dst.elem_width);
    const auto value_refused = [&](const kel_int_t &value) {
        return value.elem_width == 0 || width_refused(bits_of(value.format, value.elem_width), version);
    };
    const bool variable = src.format & KEL_VAR;
    if (variable && src.format & (KEL_RLE | KEL_BITS))
        return true;
    if (has_aux(src) ? src.aux_width > 8 : add_one(src) != 0)
        return true;
    if (width_refused(width, version) || (width == 0 && !variable) || (src.offset && width > 64))
        return true;
    if (s.flags & KEL_ONES_INDEX ? entry != 16 && entry != 32 : entry != 1)
        return true;
    return dst.offset || dst.elements < src.elements || !known_operator(s) || value_refused(s.lower) ||
           (s.range && value_refused(s.upper));
}

// The complaint about bits above the rounded width of a value in the word where its top lies, or nothing.
inline std::string spare_bits(const kel_int_t &value, const char *name)
{
    const uint64_t width = bits_of(value.format, value.elem_width), top = round_up(width, 8);
    if (width == 0 || width > 192 || top % 64 == 0 || value.dword[2 - top / 64] >> top % 64 == 0)
        return "";
    return std::string("Invalid ") + name + "->dword[" + std::to_string(2 - (width - 1) / 64) +
           "]: bytes above elem_width " + std::to_string(value.elem_width) +
           (value.format & KEL_BITS ? " bits" : " bytes") + " are non-zero";
}

// What validation of the data complains about.
inline std::vector<std::string> data_faults(const scan &s)
{
    std::vector<std::string> faults;
    const kel_vec_t &src = s.src;
    const bool run_length = src.format & KEL_RLE, published = src.aux_width <= 8;
    uint64_t sum = 0, wide_element = src.elements;
    bit_reader aux = aux_of(src);
    for (uint64_t i = 0; has_aux(src) && i < src.elements; i++) {
        const uint64_t length = aux.aux(src.aux_width);
        sum += length + add_one(src);
        if (length > 15)
            wide_element = std::min(wide_element, i);
    }
    if (run_length && published && sum > s.dst.elements)
        faults.push_back("Invalid src: sum of aux_data runs (" + std::to_string(sum) + ") > dst elements (" +
                         std::to_string(s.dst.elements) + ")");
    if (run_length && published && sum == 0)
        faults.push_back("Invalid src aux_data: total length is 0");
    if (src.format & KEL_VAR && src.aux_width == 8 && wide_element < src.elements)
        faults.push_back("Invalid src aux_data element at index " + std::to_string(wide_element) +
                         "; high 4 bits are non-zero. They must be 0 for variable-width elements with aux_width = 8 "
                         "bits.");
    for (const std::string &fault :
         {spare_bits(s.lower, s.range ? "lower" : "val"), s.range ? spare_bits(s.upper, "upper") : std::string()})
        if (!fault.empty())
            faults.push_back(fault);
    return faults;
}

// A synchronous call whose descriptors are not refused; its buffers do not overlap.
inline outcome call(const scan &s, uint32_t debug_options, uint32_t log_options)
{
    if (debug_options & KEL_DEBUG_EXTRA) {
        outcome result;
        for (const std::string &fault : data_faults(s)) {
            result.status = KEL_EINVAL;
            result.report(log_options, fault);
        }
        if (result.status != KEL_SUCCESS)
            return result;
    }

    outcome result = emulation(s, log_options, {});
    if (result.status != KEL_EDATAFMT || add_one(s.src))
        return result;
    // The diagnosis looks at the low four bits alone, so that it may name an element before the failing one.
    bit_reader aux = aux_of(s.src);
    for (uint64_t i = 0; i < s.src.elements; i++)
        if ((aux.aux(s.src.aux_width) & 15) == 0) {
            result.report(log_options, "EDATAFMT: aux_data element at index " + std::to_string(i) + " is 0");
            break;
        }
    return result;
}

// ---- Scans and outcomes as text

inline std::ostream &operator<<(std::ostream &out, const kel_vec_t &vec)
{
    return out << "format " << vec.format << " elements " << vec.elements << " width " << vec.elem_width << " offset "
               << unsigned{vec.offset} << " address mod 64 " << reinterpret_cast<uintptr_t>(vec.data) % 64
               << " aux width " << vec.aux_width << " offset " << unsigned{vec.aux_offset} << " address mod 8 "
               << reinterpret_cast<uintptr_t>(vec.aux_data) % 8;
}

inline std::ostream &operator<<(std::ostream &out, const kel_int_t &value)
{
    return out << "format " << value.format << " width " << value.elem_width << std::hex << " dwords " << value.dword[0]
               << ' ' << value.dword[1] << ' ' << value.dword[2] << std::dec;
}

inline std::ostream &operator<<(std::ostream &out, const scan &s)
{
    return out << (s.range ? "range" : "value") << " op " << s.op << " flags " << s.flags << "\n  src " << s.src
               << "\n  dst " << s.dst << "\n  lower " << s.lower << "\n  upper " << s.upper;
}

inline std::ostream &operator<<(std::ostream &out, const outcome &o)
{
    out << "status " << o.status << " count " << o.cca.retval << " processed " << o.cca.n_processed << " output "
        << o.cca.output_sz << " kel_debug " << o.debug_calls << " emulate_error " << o.error_calls;
    for (const line &l : o.lines)
        out << "\n    " << l.first << ": " << l.second;
    return out;
}

} // namespace scan_model
