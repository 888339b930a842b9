// Columns of fixed width over the random source: their shapes, a plain reader of their elements, and what correct
// operations on them leave.
#pragma once

#include "bench_case.h"
#include <algorithm>
#include <map>
#include <memory>
#include <string_view>

struct width_t {
    uint64_t format;
    uint32_t width;

    uint64_t bits() const
    {
        return format == KEL_BITS ? width : uint64_t{8} * width;
    }

    std::string name() const
    {
        return std::to_string(width) + (format == KEL_BITS ? " bit" : " byte") + (width == 1 ? "" : "s");
    }
};

inline uint64_t packed_bytes(const width_t &width, uint64_t elements)
{
    return (elements * width.bits() + 7) / 8;
}

// Up to 64 bits of a stream, from the given bit on. Byte by byte: unlike the library in all respects.
inline uint64_t get_field(const uint8_t *stream, uint64_t bit, uint64_t bits)
{
    uint64_t field = 0;
    while (bits > 0) {
        const uint64_t taken = std::min(bits, 8 - bit % 8);
        field = field << taken | (stream[bit / 8] >> (8 - bit % 8 - taken) & ((1u << taken) - 1));
        bit += taken;
        bits -= taken;
    }
    return field;
}

// An element, or of a wider one its first 64 bits.
inline uint64_t get_element(const uint8_t *stream, const width_t &width, uint64_t index)
{
    return get_field(stream, index * width.bits(), std::min<uint64_t>(width.bits(), 64));
}

// Calls use with a value of the smallest type of a plain array that holds as many bits.
template <class Use>
void with_plain_type(uint64_t bits, const Use &use)
{
    if (bits <= 8)
        use(uint8_t{});
    else if (bits <= 16)
        use(uint16_t{});
    else if (bits <= 32)
        use(uint32_t{});
    else
        use(uint64_t{});
}

template <class T>
using plain_t = std::shared_ptr<const std::vector<T>>;

template <class T>
plain_t<T> make_plain(const width_t &width, uint64_t elements)
{
    std::vector<T> plain(elements);
    for (uint64_t i = 0; i < elements; i++)
        plain[i] = static_cast<T>(get_element(source_bytes(), width, i));
    return std::make_shared<const std::vector<T>>(std::move(plain));
}

// ---- Texts ----------------------------------------------------------------------------------------------------------

// Elements of 1 byte up to 2 to the power of length_bits, by lengths of so many bits that are one less.
inline kel_vec_t text_vec(uint16_t length_bits, uint64_t elements)
{
    kel_vec_t texts = fixed_vec(KEL_VAR | KEL_ADD_ONE, 0, elements, source_bytes());
    texts.aux_data = source_bytes() + most_bytes / 2; // as random as the elements
    texts.aux_width = length_bits;
    return texts;
}

inline std::vector<std::string_view> get_texts(const kel_vec_t &vec)
{
    std::vector<std::string_view> texts;
    const char *next = static_cast<const char *>(vec.data);
    for (uint64_t i = 0; i < vec.elements; i++) {
        const auto *lengths = static_cast<const uint8_t *>(vec.aux_data);
        texts.emplace_back(next, 1 + get_field(lengths, i * vec.aux_width, vec.aux_width));
        next += texts.back().size();
    }
    return texts;
}

inline std::string text_name(uint16_t length_bits)
{
    return "1 to " + std::to_string(1 << length_bits) + " bytes";
}

// Of the texts and their lengths.
inline uint64_t text_bytes(uint16_t length_bits, uint64_t elements)
{
    return elements * (8 * ((1 << length_bits) + 1) / 2 + length_bits) / 8;
}

// ---- Where matches go -----------------------------------------------------------------------------------------------

struct output_t {
    const char *name;
    uint64_t flags;
    width_t width;
    uint64_t most_elements; // whose indexes fit
};

inline constexpr output_t to_bits = {"to bits", 0, {KEL_BITS, 1}, out_of_cache};
inline constexpr output_t to_index2 = {"to 2-byte indexes", KEL_ONES_INDEX, {KEL_BYTES, 2}, 65'536};
inline constexpr output_t to_index4 = {"to 4-byte indexes", KEL_ONES_INDEX, {KEL_BYTES, 4}, out_of_cache};
inline constexpr output_t outputs[] = {to_bits, to_index2, to_index4};

// What an operation leaves for which match(i) tells the matches.
template <class Match>
outcome_t expect_matches(const output_t &output, uint64_t elements, const Match &match)
{
    field_list fields;
    uint64_t count = 0;
    for (uint64_t i = 0; i < elements; i++) {
        const bool matches = match(i);
        count += matches;
        if (!(output.flags & KEL_ONES_INDEX))
            fields.put(matches, 1);
        else if (matches)
            fields.put(i, output.width.bits());
    }
    return {fields.take(), count};
}

inline kel_vec_t source_vec(const width_t &width, uint64_t elements)
{
    return fixed_vec(width.format, width.width, elements, source_bytes());
}

inline kel_vec_t destination_vec(const width_t &width, uint64_t elements)
{
    return fixed_vec(width.format, width.width, elements, destination_bytes());
}

inline constexpr unsigned output_unit(const output_t &output)
{
    return output.flags & KEL_ONES_INDEX ? output.width.width : 0;
}

// ---- Runs -----------------------------------------------------------------------------------------------------------

inline constexpr width_t run_width = {KEL_BITS, 12};
inline constexpr unsigned run_means[] = {2, 10, 100};

// Run lengths from 1 on, of a byte each.
struct runs_t {
    std::vector<uint8_t> lengths;
    uint64_t elements = 0; // runs expanded
};

inline const runs_t &get_runs(unsigned mean)
{
    static std::map<unsigned, runs_t> all;
    runs_t &made = all[mean];
    uint64_t random = mean;
    while (made.elements < in_cache) {
        made.lengths.push_back(static_cast<uint8_t>(1 + next_random(random) % (2 * mean - 1)));
        made.elements += made.lengths.back();
    }
    return made;
}

inline kel_vec_t run_vec(unsigned mean)
{
    const std::vector<uint8_t> &lengths = get_runs(mean).lengths;
    kel_vec_t vec = source_vec(run_width, lengths.size());
    vec.format |= KEL_RLE;
    vec.aux_data = const_cast<uint8_t *>(lengths.data());
    vec.aux_width = 8;
    return vec;
}

inline std::vector<uint64_t> expand(unsigned mean)
{
    const std::vector<uint8_t> &lengths = get_runs(mean).lengths;
    std::vector<uint64_t> expanded;
    for (uint64_t i = 0; i < lengths.size(); i++)
        expanded.insert(expanded.end(), lengths[i], get_element(source_bytes(), run_width, i));
    return expanded;
}

inline std::string run_name(unsigned mean)
{
    return run_width.name() + " in runs of " + std::to_string(mean);
}

// Bytes of the source, in whole words.
inline uint64_t run_bytes(unsigned mean)
{
    const uint64_t runs = get_runs(mean).lengths.size();
    return packed_bytes(run_width, runs) / 8 * 8 + runs / 8 * 8;
}
