// Sources of destination elements: fields as they stand, fields that are converted, and texts.
//
// ready() tells how many elements can be had: 0 at the end, and of texts in front of a length that is no text's.
// next(count) answers the next ones, up to batch, which stay until the next call, and skip(count) passes them over:
// whole blocks, or all that are ready. fill(to, count) writes whole blocks of them.
#pragma once

#include "kel_text.h"
#include <utility>

namespace
{

// Elements that are handed out at a time, by their width: those that are made aside stay in the first cache.
constexpr uint64_t batch_elements(unsigned bytes)
{
    constexpr uint64_t aside = 8192; // bytes
    return std::min<uint64_t>(block_batch * block_elements, aside / bytes);
}

// ---- Fields ---------------------------------------------------------------------------------------------------------

// Whole elements that are taken as they stand.
template <unsigned bytes>
class unchanged_elements
{
  public:
    static constexpr uint64_t batch = batch_elements(bytes);

    explicit unchanged_elements(const kel_vec_t *src)
        : data(static_cast<const uint8_t *>(src->data)), left(src->elements)
    {
    }

    uint64_t ready() const
    {
        return left;
    }

    const uint8_t *next(uint64_t count)
    {
        left -= count;
        return std::exchange(data, data + count * bytes);
    }

    void skip(uint64_t count)
    {
        next(count);
    }

    void fill(uint8_t *to, uint64_t count)
    {
        memcpy(to, next(count), count * bytes);
    }

  private:
    const uint8_t *data;
    uint64_t left;
};

// Fields that are turned into elements of the destination: cut, or shifted to the high end.
template <unsigned bytes>
class converted_elements
{
  public:
    static constexpr uint64_t batch = batch_elements(bytes);

    converted_elements(const kernel_set_t *set, const kel_vec_t *src, const adaptation_t &shift)
        : cursor(set->overrun, element_fields(src), src->elements), right(static_cast<unsigned>(shift.right)),
          left(static_cast<unsigned>(shift.left)),
          make(choose_producer(set, &kernel_set_t::elements, cursor.shape(), uint64_t{bytes}))
    {
    }

    uint64_t ready() const
    {
        return cursor.left();
    }

    const uint8_t *next(uint64_t count)
    {
        fill(made, count);
        return made;
    }

    void skip(uint64_t count)
    {
        while (count > 0)
            count -= take(count).elements;
    }

    void fill(uint8_t *to, uint64_t count)
    {
        while (count > 0) {
            const blocks_t taken = take(count);
            make(taken.data, cursor.shape(), right, left, to, taken.blocks);
            to += taken.elements * bytes;
            count -= std::min(count, taken.elements);
        }
    }

  private:
    blocks_t take(uint64_t count)
    {
        return cursor.take((count + block_elements - 1) / block_elements);
    }

    block_cursor cursor;
    const unsigned right;
    const unsigned left;
    const element_blocks_t make;
    uint8_t made[batch * bytes];
};

// ---- Texts ----------------------------------------------------------------------------------------------------------

// A destination element of 16 bytes.
typedef uint64_t two_words_t __attribute__((vector_size(16)));

template <unsigned bytes>
auto zero_element()
{
    if constexpr (bytes == 1)
        return uint8_t{};
    else if constexpr (bytes == 2)
        return uint16_t{};
    else if constexpr (bytes == 4)
        return uint32_t{};
    else if constexpr (bytes == 8)
        return uint64_t{};
    else
        return two_words_t{};
}

// How texts become destination elements: one is loaded so that its first bytes are where they have to be, and those
// around it are cleared.
template <unsigned bytes>
class text_adapter
{
    using Word = decltype(zero_element<bytes>());

  public:
    explicit text_adapter(bool left) : most_before(left ? 0 : bytes - 1)
    {
        for (unsigned i = 0; i < longest_text; i++) {
            const unsigned moved = std::min(i + 1, bytes);
            kept[i] = zero_element<bytes>();
            memset(reinterpret_cast<uint8_t *>(&kept[i]) + (left ? 0 : bytes - moved), 0xff, moved);
        }
    }

    void put(const texts_t &texts, uint8_t *to) const
    {
        int8_t places[block_elements]; // where texts are loaded from, as texts.within
        for (unsigned i = 0; i < block_elements; i++)
            places[i] = static_cast<int8_t>(texts.within[i] - (most_before - std::min(texts.lengths[i], most_before)));
        for (unsigned group = 0; group < 8; group++) {
            const uint8_t *const first = texts.data + texts.groups[group];
            const uint8_t *const lengths = texts.lengths + 8 * group;
#pragma GCC unroll 8
            for (unsigned i = 0; i < 8; i++, to += bytes) {
                Word word;
                memcpy(&word, first + places[8 * group + i], sizeof word);
                word &= kept[lengths[i]];
                memcpy(to, &word, sizeof word);
            }
        }
    }

  private:
    Word kept[longest_text];   // by length less 1
    const uint8_t most_before; // bytes that are loaded in front of a text, of one byte
};

template <unsigned bytes>
class text_elements
{
  public:
    static constexpr uint64_t batch = batch_elements(bytes);

    text_elements(const kernel_set_t *set, const kel_vec_t *src, bool left) : source(set, src), adapter(left) {}

    uint64_t ready()
    {
        if (at == measured) {
            measured = source.next();
            at = 0;
        }
        return measured - at;
    }

    const uint8_t *next(uint64_t count)
    {
        fill(made, count);
        return made;
    }

    void skip(uint64_t count)
    {
        at += count;
    }

    void fill(uint8_t *to, uint64_t count)
    {
        for (uint64_t i = at; i < at + count; i += block_elements, to += block_elements * bytes)
            adapter.put(source.block(i / block_elements), to);
        at += count;
    }

  private:
    text_source source;
    const text_adapter<bytes> adapter;
    uint64_t measured = 0; // texts of the batch,
    uint64_t at = 0;       // and the next one
    uint8_t made[batch * bytes];
};

} // namespace
