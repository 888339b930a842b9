// Sources by blocks: the mask words and the runs of a vector, 64 at a time.
//
// Blocks are loaded where they stand. Those whose load would pass the end of the vector are copied first: the last ones
// of every source.
#pragma once

#include "kel_emulate_subr.h"
#include "kel_producer.h"
#include <algorithm>
#include <iterator>

// ---- Shapes ---------------------------------------------------------------------------------------------------------

// Sources whose stored elements are fields of one width up to 64 bits, at an offset that stays in the first byte, with
// a length in bits that fits in 64 bits.
inline bool plain_fields(const kel_vec_t *src)
{
    const uint64_t bits = kel_width_bits(src);
    return bits >= 1 && bits <= 64 && src->offset <= kel_max_offset && src->elements <= (UINT64_MAX - 2 * 8) / 64;
}

// Or of more, in whole bytes.
inline bool wide_fields(const kel_vec_t *src)
{
    const uint64_t bits = kel_width_bits(src);
    return bits > 64 && bits <= 8 * kel_max_elem_bytes && bits % 8 == 0 && src->offset == 0 &&
           src->elements <= (UINT64_MAX - 2 * 8) / (8 * kel_max_elem_bytes);
}

// Sources whose runs or lengths, if they have any, are fields of up to a byte.
inline bool plain_aux(const kel_vec_t *src)
{
    return kel_power_of_two(src->aux_width) && src->aux_width <= kel_max_aux_bits && src->aux_offset <= kel_max_offset;
}

// The elements of a vector, and the lengths or runs beside them.
inline fields_t element_fields(const kel_vec_t *vec)
{
    return {static_cast<const uint8_t *>(vec->data), static_cast<unsigned>(kel_width_bits(vec)), vec->offset};
}

inline fields_t aux_fields(const kel_vec_t *vec)
{
    return {static_cast<const uint8_t *>(vec->aux_data), vec->aux_width, vec->aux_offset};
}

// ---- Blocks ---------------------------------------------------------------------------------------------------------

constexpr unsigned block_batch = 32; // blocks that are taken at a time

// Consecutive blocks of fields; the last may have fewer elements than 64.
struct blocks_t {
    const uint8_t *data;
    uint64_t blocks;
    uint64_t elements; // 0 at the end of the source
};

// Hands out the blocks of fields.
class block_cursor
{
  public:
    // overrun: of the producer that the blocks are for.
    block_cursor(unsigned overrun, const fields_t &first, uint64_t count)
        : fields(first), next(first.data), elements(count), bytes((first.offset + first.width * count + 7) / 8),
          loadable(count / block_elements)
    {
        while (loadable > 0 && 8 * fields.width * loadable + overrun > bytes)
            loadable--;
    }

    block_cursor(const block_cursor &) = delete; // it may point into itself

    const fields_t &shape() const
    {
        return fields;
    }

    // Elements that are left.
    uint64_t left() const
    {
        return elements;
    }

    // The next blocks, at most the given number of them, which is not 0. They stay where they are until the next call.
    blocks_t take(uint64_t most)
    {
        if (loadable == 0)
            copy_rest();
        blocks_t taken = {next, std::min(loadable, most), 0};
        taken.elements = std::min(elements, block_elements * taken.blocks);
        next += 8 * fields.width * taken.blocks;
        loadable -= taken.blocks;
        elements -= taken.elements;
        bytes -= std::min(bytes, 8 * fields.width * taken.blocks);
        return taken;
    }

  private:
    // Copies what is left, fewer than two blocks and an overrun, to where there is room behind its end. What follows
    // the last element is 0, so that a bitmap is not looked at far behind its end for a field that does not exist.
    void copy_rest()
    {
        if (elements == 0)
            return;
        loadable = (elements + block_elements - 1) / block_elements;
        memcpy(rest, next, bytes);
        if (const uint64_t used = (fields.offset + fields.width * elements) % 8; used != 0)
            rest[bytes - 1] = static_cast<uint8_t>(rest[bytes - 1] & 0xff00 >> used);
        const uint64_t end = 8 * fields.width * loadable;
        if (bytes < end)
            memset(rest + bytes, 0, end - bytes);
        memset(rest + std::max(bytes, end), 0, most_overrun);
        next = rest;
    }

    const fields_t fields; // of the source, as it was
    const uint8_t *next;   // what is left,
    uint64_t elements;     // its elements,
    uint64_t bytes;        // its length,
    uint64_t loadable;     // and the blocks that can be loaded where they are
    uint8_t rest[2 * 8 * 8 * kel_max_elem_bytes + 2 * most_overrun];
};

// ---- Mask words -----------------------------------------------------------------------------------------------------

namespace
{

// The mask words of a source, a batch at a time.
template <class Test>
class mask_source
{
  public:
    static constexpr size_t batch = 128; // blocks: a producer takes a while to begin

    [[gnu::always_inline]] // a call would cost a short scan too much
    mask_source(const kernel_set_t *set, const kel_vec_t *src, const Test &tested)
        : test(tested), cursor(set->overrun, element_fields(src), src->elements),
          make(choose_masks(set, cursor.shape(), tested))
    {
    }

    // Fills masks and answers the number of elements that they stand for; 0 at the end. The bits of the last word
    // behind the last element are 0.
    uint64_t next(uint64_t (&masks)[batch])
    {
        const blocks_t taken = cursor.take(batch);
        if (taken.elements == 0)
            return 0;
        make(taken.data, cursor.shape(), test, masks, taken.blocks);
        masks[taken.blocks - 1] &= ~uint64_t{0} << (block_elements * taken.blocks - taken.elements);
        return taken.elements;
    }

  private:
    const Test &test;
    block_cursor cursor;
    const mask_blocks_t<Test> make;
};

// ---- The stream beside elements -------------------------------------------------------------------------------------

// The lengths or runs of a source's elements, as bytes.
class aux_source
{
  public:
    aux_source(const kernel_set_t *set, const kel_vec_t *src)
        : cursor(set->overrun, aux_fields(src), src->elements),
          make(choose_producer(set, &kernel_set_t::elements, cursor.shape(), sizeof(uint8_t)))
    {
    }

    // Unpacks the next blocks, at most the given number of them, and answers how many elements they have.
    uint64_t unpack(uint8_t *to, uint64_t most)
    {
        const blocks_t taken = cursor.take(most);
        make(taken.data, cursor.shape(), 0, 0, to, taken.blocks);
        return taken.elements;
    }

  private:
    block_cursor cursor;
    const element_blocks_t make;
};

constexpr unsigned longest_run = 256;

// Up to 64 runs.
struct runs_t {
    uint32_t of[block_elements + 3]; // behind the last one are zeros
    unsigned count;
    uint64_t sum;
};

// The runs of a source, a block at a time.
class run_source
{
  public:
    run_source(const kernel_set_t *set, const kel_vec_t *src)
        : aux(set, src), add_one(src->format & KEL_ADD_ONE ? 1 : 0)
    {
    }

    // Moves on by a block, and tells whether none of its runs is 0.
    bool next(runs_t &runs)
    {
        if (at == unpacked) {
            unpacked = aux.unpack(batch, std::size(batch) / block_elements);
            at = 0;
        }
        const uint8_t *const block = batch + at;
        runs.count = static_cast<unsigned>(std::min<uint64_t>(unpacked - at, block_elements));
        at += runs.count;
        uint32_t sum = 0, zeros = 0;
        for (unsigned i = 0; i < runs.count; i++) {
            runs.of[i] = block[i] + add_one;
            sum += runs.of[i];
            zeros += runs.of[i] == 0;
        }
        for (unsigned i = 0; i < 3; i++)
            runs.of[runs.count + i] = 0;
        runs.sum = sum;
        return zeros == 0;
    }

  private:
    aux_source aux;
    const uint32_t add_one;
    uint8_t batch[8 * block_elements];
    uint64_t unpacked = 0; // elements of the batch,
    uint64_t at = 0;       // and where the next block starts
};

} // namespace
