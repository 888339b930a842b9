// Columns packed as the scans read them, and results as the scans write them.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <kel.h>
#include <memory>
#include <vector>

struct free_bytes {
    void operator()(uint8_t *bytes) const
    {
        std::free(bytes);
    }
};
using aligned_bytes = std::unique_ptr<uint8_t[], free_bytes>; // at a multiple of 64

struct range_t {
    int64_t lowest;
    int64_t highest;
};

// The range of a column together with that of the values that it will be compared with.
range_t range_of(const std::vector<int32_t> &plain, range_t compared);

// A column of elements of fixed width, back to back. Numbers are stored as their distance from the lowest of a range,
// in the bits that the greatest distance needs; codes of letters in a byte for each letter.
struct packed_column {
    template <class T>
    packed_column(const std::vector<T> &plain, range_t range)
        : packed_column(plain.size(), KEL_BITS, width_for(range), range.lowest)
    {
        for (size_t i = 0; i < plain.size(); i++)
            store(i, static_cast<uint64_t>(plain[i] - bias));
    }

    template <size_t letters>
    explicit packed_column(const std::vector<std::array<char, letters>> &plain)
        : packed_column(plain.size(), KEL_BYTES, letters, 0)
    {
        std::copy_n(plain.data()->data(), size(), bytes.get());
    }

    // A number of the range, for a comparison with the elements.
    kel_int_t value(int64_t number) const;

    uint64_t width_bits() const
    {
        return vec.format & KEL_BITS ? vec.elem_width : 8 * vec.elem_width;
    }

    size_t size() const
    {
        return (vec.elements * width_bits() + 7) / 8;
    }

    kel_vec_t vec;

  private:
    packed_column(size_t elements, uint64_t format, uint32_t width, int64_t lowest);
    static uint32_t width_for(range_t range);
    void store(size_t at, uint64_t element);

    aligned_bytes bytes;
    int64_t bias;
};

// The result of a scan: a bit for each element, or the list of the indexes of the matches.
struct scan_result {
    scan_result(size_t elements, bool indexes);

    // The bytes that hold the result.
    size_t size() const;

    // An entry of an index list.
    uint32_t index(size_t entry) const;

    // Whether two results are the same in every bit or every index.
    bool operator==(const scan_result &other) const;

    aligned_bytes bytes;
    bool indexes;
    kel_vec_t vec;
    uint64_t count = 0; // matches
};
