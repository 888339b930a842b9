// Packs columns and holds results.
#include "packed_column.h"
#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

constexpr size_t alignment = 64;          // of a destination, and the unit that its end is rounded to
constexpr size_t room_behind = 64;        // bytes that a destination needs behind its end
constexpr uint32_t most_packed_bits = 24; // a wider element is a whole number of bytes
constexpr uint32_t index_bytes = 4;       // of an entry of an index list

// Whole units of the alignment, filled with one byte.
static aligned_bytes make_bytes(size_t size, int fill)
{
    const size_t rounded = (size + alignment - 1) / alignment * alignment;
    aligned_bytes bytes(static_cast<uint8_t *>(std::aligned_alloc(alignment, rounded)));
    if (!bytes)
        throw std::bad_alloc();
    memset(bytes.get(), fill, rounded);
    return bytes;
}

range_t range_of(const std::vector<int32_t> &plain, range_t compared)
{
    const auto [lowest, highest] = std::minmax_element(plain.begin(), plain.end());
    return {std::min<int64_t>(*lowest, compared.lowest), std::max<int64_t>(*highest, compared.highest)};
}

// ---- Columns --------------------------------------------------------------------------------------------------------

uint32_t packed_column::width_for(range_t range)
{
    const auto bits = static_cast<uint32_t>(std::bit_width(static_cast<uint64_t>(range.highest - range.lowest)));
    return bits > most_packed_bits ? (bits + 7) / 8 * 8 : std::max(bits, 1u);
}

packed_column::packed_column(size_t elements, uint64_t format, uint32_t width, int64_t lowest)
    : vec{.format = format,
          .elements = elements,
          .data = nullptr,
          .elem_width = width,
          .offset = 0,
          .aux_offset = 0,
          .aux_width = 0,
          .aux_data = nullptr,
          .codec = nullptr,
          .codewords = 0},
      bytes(make_bytes(size(), 0)), bias(lowest)
{
    vec.data = bytes.get();
}

// The first bit of an element is its highest, and so is that of a byte.
void packed_column::store(size_t at, uint64_t element)
{
    size_t bit = at * vec.elem_width;
    for (uint32_t i = vec.elem_width; i-- > 0; bit++)
        bytes[bit / 8] = static_cast<uint8_t>(bytes[bit / 8] | (element >> i & 1) << (7 - bit % 8));
}

kel_int_t packed_column::value(int64_t number) const
{
    const auto format = static_cast<uint32_t>(vec.format);
    return {format, vec.elem_width, {0, 0, static_cast<uint64_t>(number - bias)}};
}

// ---- Results --------------------------------------------------------------------------------------------------------

static size_t result_bytes(uint64_t entries, bool indexes)
{
    return indexes ? entries * index_bytes : (entries + 7) / 8;
}

// What a scan leaves unwritten is to differ from every right answer, so the bytes do not start as 0.
scan_result::scan_result(size_t elements, bool list)
    : bytes(make_bytes(result_bytes(elements, list) + alignment + room_behind, 0xa5)),
      indexes(list), vec{.format = list ? KEL_BYTES : KEL_BITS,
                         .elements = elements,
                         .data = bytes.get(),
                         .elem_width = list ? index_bytes : 1,
                         .offset = 0,
                         .aux_offset = 0,
                         .aux_width = 0,
                         .aux_data = nullptr,
                         .codec = nullptr,
                         .codewords = 0}
{
}

size_t scan_result::size() const
{
    return result_bytes(indexes ? count : vec.elements, indexes);
}

uint32_t scan_result::index(size_t entry) const
{
    uint32_t index = 0;
    for (size_t i = 0; i < index_bytes; i++) // big-endian
        index = index << 8 | bytes[index_bytes * entry + i];
    return index;
}

bool scan_result::operator==(const scan_result &other) const
{
    return count == other.count && size() == other.size() && memcmp(bytes.get(), other.bytes.get(), size()) == 0;
}
