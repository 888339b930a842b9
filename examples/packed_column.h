// Columns packed as the library reads them, and results as it writes them.
#pragma once

#include <cstdint>
#include <functional>
#include <kel.h>
#include <memory>
#include <string>
#include <vector>

struct alignas(64) block_t {
    uint8_t bytes[64];
};
using blocks_t = std::vector<block_t>;

// Bits of an element, and bytes of all that a vector names: elements and repeats.
uint32_t width_bits(const kel_vec_t &vec);
size_t packed_bytes(const kel_vec_t &vec);

struct range_t {
    int64_t lowest;
    int64_t highest;
};

// The range of a column together with that of the values that it will be compared with.
range_t range_of(const std::vector<int32_t> &plain, range_t compared);

// The distinct texts of a column or two, in order. A column stores a text's place among them: its code.
struct dictionary_t {
    explicit dictionary_t(const std::vector<std::string> &column, const std::vector<std::string> &other = {});
    std::vector<int32_t> codes(const std::vector<std::string> &column) const;

    std::vector<std::string> texts;
    range_t range; // of the codes
};

// A column in two forms. Plain: 4 bytes for each number. Packed, for the library: each number is stored as its distance
// from the lowest of a range, in the bits that the greatest distance needs, back to back.
struct column_t {
    column_t(const std::vector<int32_t> &plain, range_t range);

    // Packed as runs of equal numbers: each number once, with a byte that counts its repeats.
    static column_t run_length(const std::vector<int32_t> &plain, range_t range);

    // A number of the range, for a comparison with the packed elements.
    kel_int_t value(int64_t number) const;

    std::vector<int32_t> plain;
    int64_t lowest;
    kel_vec_t vec; // the packed form

  private:
    blocks_t elements;
    blocks_t repeats;
};

// A column of texts of one length: their letters, back to back, compressed by a codec of their own if that pays.
// Training prints a line of a table.
struct text_column_t {
    text_column_t(kel_context_t *ctx, const char *name, const std::vector<std::string> &texts);
    static void print_head();

    std::vector<int32_t> plain; // texts of up to 4 letters as numbers, the first letter on top
    kel_vec_t vec;
    uint32_t width_bits; // of a text as it is stored
    size_t packed_bytes; // of all of them, with the codec

  private:
    blocks_t letters;
    blocks_t codewords;
    std::unique_ptr<kel_zip_t, std::function<void(kel_zip_t *)>> codec;
};

int32_t text_number(const std::string &text);
std::string number_text(int64_t number, size_t letters);

// Where an operation writes: a bit for each row, or a list of elements.
struct result_t {
    explicit result_t(size_t rows, uint64_t format = KEL_BITS, uint32_t width = 1, int64_t lowest = 0);

    // For a column's elements, in the 1, 2 or 4 bytes that hold them.
    explicit result_t(const column_t &column);

    // A bit, an index, or a number of the column.
    int64_t value(size_t at) const;

    kel_vec_t vec;

  private:
    blocks_t blocks;
    int64_t lowest;
};
