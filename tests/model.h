// What the reference models of the operations share, written to be read and not to be fast. A model reads single bits,
// moves strings of bytes, and takes one stored element after the other. It shares no code with the library.
//
// Only the writer works in 64-bit words, because the words are part of the result: the overflow test looks at stored
// words, and a number that is too wide for its field reaches into the fields before it in the same word.
#pragma once

#include "kel_frame.h"
#include "support.h"
#include <algorithm>
#include <ostream>
#include <utility>

namespace model
{

// The context of a request.
struct options {
    uint32_t version, debug, log;
};

// All that a request leaves behind. bytes is what was written from the start of the destination on; what is behind it
// is untouched.
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

// Every byte of a destination before the request.
inline constexpr uint8_t unwritten = 0xa5;

// What an emulation finds in the caller's record of the counters.
inline constexpr cca_t cca_before = {7, 7, 7};

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

// The bytes of a destination up to its nominal end.
inline uint64_t nominal_bytes(const kel_vec_t &dst)
{
    return round_up((dst.offset + bits_of(dst) * dst.elements + 7) / 8, 64);
}

// The bytes of a destination that are looked at: up to the nominal end, or as many as the last run needs; 64 bytes
// behind the end for what does not fit.
uint64_t room_for(const auto &request, const outcome &expected)
{
    const uint64_t behind = expected.status == KEL_SUCCESS ? 0 : 64;
    return std::max(nominal_bytes(request.dst) + behind, round_up(expected.bytes.size(), 64));
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

// ---- The emulations -------------------------------------------------------------------------------------------------

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

    // An element shifted to the left, in a field of these bits, which need not hold it.
    void put_number(const std::string &element, uint64_t shift, uint64_t bits)
    {
        const std::string zeros(32, '\0'), text = zeros + element + zeros;
        for (uint64_t low = round_up(bits, 64); low > 0; bits = low) {
            low -= 64;
            put_bits(bit_reader{text.data(), 8 * (24 + element.size()) + shift - low}.field(64), bits - low);
        }
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

// An emulation under way.
struct emulator {
    const kel_vec_t &src, &dst;
    bool single_bytes = false; // elements of no width are bytes here
    source_reader in = {src};
    word_writer out = {};
    uint64_t processed = 0, count = 0, index = 0;

    // Reads the next stored element and hands it over with its width in bits and its run.
    kel_status_t step(const auto &take)
    {
        const uint64_t width = single_bytes ? 8 : in.width();
        if (variable_width(src) && width == 0)
            return KEL_EDATAFMT;
        const std::string element = in.data.bytes(width);
        const uint64_t run = in.run();
        if (run == 0)
            return KEL_EDATAFMT;
        processed += run;
        return out.stored.size() >= nominal_bytes(dst) ? KEL_EOVERFLOW : take(element, width, run);
    }

    // All elements; take says what is done with one.
    outcome run(const std::string &name, uint32_t log_options, const auto &take)
    {
        outcome result;
        if (log_options & KEL_LOG_VERBOSE)
            result.lines.emplace_back(KEL_LOG_VERBOSE, "Emulating " + name);
        uint64_t stored = 0;
        for (; result.status == KEL_SUCCESS && stored < src.elements; stored++)
            result.status = step(take);
        if (result.status != KEL_SUCCESS) {
            const char *const word = result.status == KEL_EDATAFMT    ? "EDATAFMT"
                                     : result.status == KEL_EOVERFLOW ? "EOVERFLOW"
                                                                      : "1844674407370955159"; // has no word
            result.error_calls++;
            result.report(log_options, word + (" at element index " + std::to_string(stored)));
        }
        if (!out.finish(nominal_bytes(dst)) && result.status == KEL_SUCCESS)
            result.status = KEL_EOVERFLOW;
        result.bytes = out.stored;
        result.cca = {static_cast<uint32_t>(out.stored.size()), static_cast<uint32_t>(processed), count};
        return result;
    }

    // An element's result as bits or, if it is 1, as indexes.
    void put_result(uint64_t flags, bool result, uint64_t run)
    {
        count += result ? run : 0;
        for (uint64_t i = 0; i < run; i++, index++) {
            if (!(flags & KEL_ONES_INDEX))
                out.put_bit(result);
            else if (result)
                out.put_bits(index, bits_of(dst) / 8 * 8);
        }
    }
};

// ---- Validation -----------------------------------------------------------------------------------------------------

inline bool bad_width(uint64_t bits, unsigned version)
{
    return bits > 128 || (bits % 8 && bits > (version == 2 ? 24 : 16));
}

// Whether validation of the descriptors refuses a source that may have these formats of KEL_VAR and KEL_RLE.
inline bool source_refused(const kel_vec_t &src, uint64_t aux_formats, unsigned version)
{
    const bool variable = src.format & KEL_VAR;
    if (src.format & ~(KEL_BITS | KEL_ADD_ONE | aux_formats) || (variable && src.format & (KEL_RLE | KEL_BITS)))
        return true;
    if (has_aux(src) ? src.aux_width > 8 : add_one(src) != 0)
        return true;
    return bad_width(bits_of(src), version) || (src.elem_width == 0 && !variable) || (src.offset && bits_of(src) > 64);
}

// The same of a destination that receives bits or indexes.
inline bool results_refused(uint64_t flags, const kel_vec_t &src, const kel_vec_t &dst)
{
    const uint64_t bits = bits_of(dst);
    return (flags & KEL_ONES_INDEX ? bits != 16 && bits != 32 : bits != 1) || dst.offset || dst.elements < src.elements;
}

// Whether validation of the data refuses a source: runs beyond the destination or none, and wide elements.
inline bool faulty_aux(const kel_vec_t &src, const kel_vec_t &dst)
{
    uint64_t sum = 0, widest = 0;
    bit_reader aux = source_reader{src}.aux;
    for (uint64_t i = 0; has_aux(src) && i < src.elements; i++) {
        const uint64_t length = aux.field(src.aux_width);
        sum += length + add_one(src);
        widest = std::max(widest, length);
    }
    return (src.format & KEL_RLE && src.aux_width <= 8 && (sum > dst.elements || sum == 0)) ||
           (src.format & KEL_VAR && src.aux_width == 8 && widest > 15);
}

// ---- The public calls -----------------------------------------------------------------------------------------------

// A call whose buffers do not overlap, after its emulation. Of the counters it shows the count alone. A diagnosed one
// looks for the reason of bad data. The lines of entry and return are told without words.
template <class request>
outcome call(const request &r, const options &o, const outcome &emulated, bool diagnosed)
{
    outcome result = emulated;
    result.cca = {0, 0, result.status == KEL_EPARSE ? 0 : result.cca.retval};
    if ((o.debug & KEL_DEBUG_ARG && refused(r, o.version)) || (o.debug & KEL_DEBUG_EXTRA && faulty_data(r)))
        result = {.status = KEL_EINVAL, .refused = true};
    if (diagnosed && result.status == KEL_EDATAFMT && !add_one(r.src)) {
        // The diagnosis looks at the low four bits alone, so that it may name an element before the failing one.
        bit_reader aux = source_reader{r.src}.aux;
        uint64_t i = 0;
        while (i < r.src.elements && (aux.field(r.src.aux_width) & 15) != 0)
            i++;
        if (i < r.src.elements)
            result.report(o.log, "EDATAFMT: aux_data element at index " + std::to_string(i) + " is 0");
    }
    if (o.log & KEL_LOG_ENTRY)
        result.lines.emplace(result.lines.begin(), KEL_LOG_ENTRY, "");
    if (o.log & KEL_LOG_RETURN)
        result.lines.emplace_back(KEL_LOG_RETURN, "");
    return result;
}

// ---- Requests and outcomes as text ----------------------------------------------------------------------------------

// A destination, and sources with their first elements and runs.
inline std::ostream &tell(std::ostream &out, const kel_vec_t &dst, std::initializer_list<const kel_vec_t *> sources)
{
    out << ", destination format " << dst.format << " elements " << dst.elements << " width " << dst.elem_width
        << " offset " << unsigned{dst.offset};
    for (const kel_vec_t *vec : sources) {
        out << "\n  format " << vec->format << " elements " << vec->elements << " width " << vec->elem_width
            << " offset " << unsigned{vec->offset} << " at " << vec->data << ", aux width " << vec->aux_width
            << " offset " << unsigned{vec->aux_offset} << " at " << vec->aux_data << ':';
        source_reader in = {*vec};
        for (uint64_t i = 0; i < std::min<uint64_t>(vec->elements, 200); i++) {
            const std::string element = in.data.bytes(in.width());
            out << ' ' << hex(element.data(), element.size()) << '*' << in.run();
        }
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

} // namespace model
