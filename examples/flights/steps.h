// The steps of a query: each runs in the library and as a plain loop, and both must find the same.
#pragma once

#include "packed_column.h"
#include <functional>

// What a step finds. The library makes a bit for each row or a list; the plain loop makes a byte for each row, 1 or 0,
// or a list.
struct found_t : result_t {
    using result_t::result_t;

    std::vector<uint8_t> mask = std::vector<uint8_t>(vec.elements);
    std::vector<int32_t> list = std::vector<int32_t>(vec.elements); // with room behind the last element
    uint64_t count = 0;                                             // rows that match, or elements of the list
};

// What a step reads: a column or a bit vector.
struct source_t {
    source_t(const kel_vec_t *vec) : width(kel_element_bits(vec)), bytes(packed_bytes(*vec)) {}
    source_t(const text_column_t *column) : width(column->width_bits), bytes(column->packed_bytes) {}

    uint64_t width; // bits
    size_t bytes;
};

struct step_t {
    const char *call;
    std::string what;
    const char *column;
    std::vector<source_t> sources;
    size_t plain_bytes; // of the plain arrays, for a row
};

// Throws std::runtime_error if a bit or an element that the library wrote differs from the plain loop's.
void check_result(const std::string &name, const result_t &result, uint64_t count, const found_t &found);

// Prints the head of the table of steps.
void print_head(bool timed);

// Runs a step in both ways, checks what they find, and prints a line of the table.
void run_step(const step_t &step, found_t &found, const std::function<kel_result_t()> &call,
              const std::function<void(found_t &)> &loop, bool timed);
