// Texts: elements of variable width, of 1 to 16 bytes, by blocks.
//
// The lengths of some blocks are unpacked, checked, and summed up by words of eight, so that every text of a block is
// found without those before it. A text is loaded in 16 bytes that start or end with it. Where these would pass the
// bytes of sound texts, at the start of the source and at the end of every batch, and where texts do not start with a
// bit 0, a block is copied first.
#pragma once

#include "kel_source.h"

namespace
{

constexpr unsigned longest_text = 16;

// Whether a source is of variable width, with lengths in fields of up to 8 bits.
inline bool plain_texts(const kel_vec_t *src, kel_type_t type, kel_fmt_t fmt)
{
    const bool texts = (src->format & (KEL_VAR | KEL_RLE)) == KEL_VAR; // a bad operator can lead here without
    return fmt == kel_fmt_mixed && type == kel_type_uint128 && texts && plain_aux(src) &&
           src->offset <= kel_max_offset && src->elements <= UINT64_MAX / 256;
}

// 64 texts; those behind the last one of a source are any of 1 byte.
struct texts_t {
    const uint8_t *data;
    const uint8_t *lengths; // each less 1
    const uint16_t *groups; // where in data eight texts start,
    const uint8_t *within;  // and each of them from there
    bool longer;            // whether some have more than 8 bytes

    const uint8_t *at(unsigned i) const
    {
        return data + groups[i / 8] + within[i];
    }
};

class text_source
{
  public:
    text_source(const kernel_set_t *set, const kel_vec_t *src)
        : aux(set, src), data(static_cast<const uint8_t *>(src->data)), offset(src->offset),
          above(src->format & KEL_ADD_ONE ? 0 : 1)
    {
    }

    // Moves on by up to block_batch blocks, and answers the number of their texts: 0 at the end, and in front of a
    // block with a length that is no text's.
    uint64_t next()
    {
        data += bytes;
        before += bytes;
        bytes = 0;
        count = 0;
        if (!sound)
            return 0;
        const uint64_t taken = unpack();
        while (sound && block_elements * count < taken)
            sound = measure(places[count], &lengths[block_elements * count], &within[block_elements * count]);
        const uint64_t elements = std::min(taken, block_elements * count);
        bytes -= block_elements * count - elements; // of what stands behind the last text
        return elements;
    }

    uint64_t blocks() const
    {
        return count;
    }

    const uint8_t *all_lengths() const
    {
        return lengths;
    }

    // A block, which stays where it is until the next one is asked for.
    texts_t block(uint64_t number)
    {
        const place_t &place = places[number];
        const uint64_t first = block_elements * number;
        const bool loadable =
            offset == 0 && before + place.start >= longest_text && place.start + place.size + longest_text <= bytes;
        return {loadable ? data + place.start : copied(place), &lengths[first], place.groups, &within[first],
                place.longer};
    }

  private:
    struct place_t {
        uint64_t start; // in the batch
        uint64_t size;
        uint16_t groups[8];
        bool longer;
    };

    // Unpacks the lengths of a batch, and answers how many texts it has. Those that fill up its last block have 1 byte.
    uint64_t unpack()
    {
        const uint64_t taken = aux.unpack(lengths, block_batch);
        for (uint64_t first = 0; above && first < taken; first += block_elements)
            for (unsigned i = 0; i < block_elements; i++)
                lengths[first + i] = static_cast<uint8_t>(lengths[first + i] - above);
        memset(lengths + taken, 0, -taken % block_elements);
        return taken;
    }

    // Takes a block into the batch if all lengths are sound.
    bool measure(place_t &place, const uint8_t *less_one, uint8_t *starts)
    {
        constexpr uint64_t ones = 0x0101010101010101;
        uint64_t all = 0;
        uint64_t size = 0;
        for (unsigned group = 0; group < 8; group++) {
            uint64_t word;
            memcpy(&word, less_one + 8 * group, sizeof word);
            all |= word;
            const uint64_t ends = (word + ones) * ones; // of the texts, from that of the first one on
            const uint64_t begins = ends << 8;
            memcpy(starts + 8 * group, &begins, sizeof begins);
            place.groups[group] = static_cast<uint16_t>(size);
            size += ends >> 56;
        }
        if (all & ~(ones * (longest_text - 1)))
            return false;
        place.start = bytes;
        place.size = size;
        place.longer = all & ones * 8;
        bytes += size;
        count++;
        return true;
    }

    const uint8_t *copied(const place_t &place)
    {
        const uint8_t *from = data + place.start;
        uint8_t *const to = copy + longest_text;
        const uint64_t there = std::min(place.size, bytes - place.start);
        memset(copy, 0, longest_text);
        if (offset == 0) {
            memcpy(to, from, there);
        } else {
            stream_words words(from, offset);
            for (uint64_t at = 0; at < there; at += 8)
                kel_store_be(to + at, words.next(8 * std::min<uint64_t>(there - at, 8)));
        }
        memset(to + there, 0, place.size - there + longest_text);
        return to;
    }

    aux_source aux;
    const uint8_t *data; // of the batch,
    uint64_t bytes = 0;  // its size,
    uint64_t before = 0; // the bytes of those before it,
    uint64_t count = 0;  // and its blocks
    const unsigned offset;
    const uint8_t above; // 1 if lengths are stored as they are, and not less 1
    bool sound = true;
    place_t places[block_batch];
    uint8_t lengths[block_batch * block_elements + most_overrun]; // looked up by a producer
    uint8_t within[block_batch * block_elements];
    uint8_t copy[block_elements * longest_text + 2 * longest_text];
};

} // namespace
