// Columns packed as the library reads them, and results as it writes them.
#pragma once

#include <functional>
#include <kel.hpp>
#include <string>
#include <vector>

// Throws std::runtime_error unless the status is a success.
void check(kel_status_t status, const std::string &call);

// Bytes of all that a vector names: elements and repeats.
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
struct column_t : kel::column {
    column_t(const std::vector<int32_t> &plain, range_t range);

    // Packed as runs of equal numbers: each number once, with a byte that counts its repeats.
    static column_t run_length(const std::vector<int32_t> &plain, range_t range);

    // A number of the range, for a comparison with the packed elements.
    kel_int_t value(int64_t number) const;

    std::vector<int32_t> plain;
    int64_t lowest;

  private:
    column_t(kel::column &&made, const std::vector<int32_t> &plain, range_t range);
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
    kel::column letters;
    kel::column codewords;
    kel::codec codec;
};

int32_t text_number(const std::string &text);
std::string number_text(int64_t number, size_t letters);

// Where an operation writes: a bit for each row, or a list of elements.
struct result_t : kel::column {
    explicit result_t(size_t rows);

    // Elements of some bytes.
    result_t(size_t rows, uint32_t bytes, int64_t lowest = 0);

    // For a column's elements, in the 1, 2 or 4 bytes that hold them.
    explicit result_t(const column_t &column);

    // A bit, an index, or a number of the column.
    int64_t value(size_t at) const;

  private:
    result_t(kel::column &&made, int64_t lowest);

    int64_t lowest;
};
