// The producers of destination elements in portable code.
#include "kel_limits.h"
#include "kel_unpack.h"

namespace
{

template <class Word>
struct word_element {
    static constexpr unsigned bits = 8 * sizeof(Word);

    static void store(uint8_t *to, unsigned i, uint64_t field, unsigned left)
    {
        kel_store_be(to + i * sizeof(Word), static_cast<Word>(field << left));
    }
};

// A field of up to 64 bits in an element of 128 stands in either half: shifted, it goes to the very top.
struct qword_element {
    static void store(uint8_t *to, unsigned i, uint64_t field, unsigned left)
    {
        kel_store_be<uint64_t>(to + 16 * i, left >= 64 ? field << (left - 64) : 0);
        kel_store_be<uint64_t>(to + 16 * i + 8, left >= 64 ? 0 : field);
    }
};

template <class Element, unsigned bytes, bool wide>
void element_blocks(const uint8_t *data, const fields_t &fields, unsigned right, unsigned left, void *to, size_t n)
{
    auto *block = static_cast<uint8_t *>(to);
    for (; n > 0; n--, data += 8 * fields.width, block += block_elements * bytes)
        unpack<wide>(data, fields, right, [=](unsigned i, uint64_t field) { Element::store(block, i, field, left); });
}

// Elements of 9 to 16 bytes. A narrower destination element gets the first bytes of one. That of 16 bytes gets all, by
// two moves of 8 bytes that may overlap, and zeros in front or behind.
template <unsigned bytes>
void wide_blocks(const uint8_t *data, const fields_t &fields, unsigned, unsigned left, void *to, size_t n)
{
    const unsigned size = fields.width / 8, front = (128 - fields.width - left) / 8;
    auto *element = static_cast<uint8_t *>(to);
    for (size_t i = 0; i < n * block_elements; i++, data += size, element += bytes) {
        if constexpr (bytes < kel_max_elem_bytes) {
            memcpy(element, data, bytes);
        } else {
            memset(element, 0, bytes);
            memcpy(element + front, data, 8);
            memcpy(element + front + size - 8, data + size - 8, 8);
        }
    }
}

template <class Element, unsigned bytes>
element_blocks_t choose_width(const fields_t &fields)
{
    return fields.width > 64                    ? wide_blocks<bytes>
           : fields.width > widest_narrow_field ? element_blocks<Element, bytes, true>
                                                : element_blocks<Element, bytes, false>;
}

} // namespace

element_blocks_t portable_elements(const fields_t &fields, uint64_t bytes)
{
    switch (bytes) {
    case 1:
        return choose_width<word_element<uint8_t>, 1>(fields);
    case 2:
        return choose_width<word_element<uint16_t>, 2>(fields);
    case 4:
        return choose_width<word_element<uint32_t>, 4>(fields);
    case 8:
        return choose_width<word_element<uint64_t>, 8>(fields);
    default:
        return choose_width<qword_element, 16>(fields);
    }
}
