// Where the outcome of a scan or translate goes: bit vectors and index lists.
//
// A sink takes one stored element with its run (put), or the outcome of up to 64 elements as a mask word, the first
// element on top (put_block). It refuses a block whenever the elements have to be written one by one to come out right:
// near the end of the destination, and where an index does not fit in an entry. full() is the test that comes before
// every element; it looks at stored words only, so that a destination may run over by what the writer still holds.
#pragma once

#include "kel_emulate_subr.h"
#include <limits>

namespace
{

// A destination, its writer, and its nominal end.
class sink
{
  public:
    explicit sink(const kel_vec_t *dst) : end(kel_dst_end(dst->data, kel_data_bytes(dst)))
    {
        kelio_vec_output(dst, &out);
        kelio_aux_output(dst, &aux);
    }

    bool full() const
    {
        return kelio_overflow(&out, end);
    }

    kel_output_t out;
    kel_output_t aux; // of a KEL_VAR destination
    void *end;
};

class bit_sink : public sink
{
  public:
    using sink::sink;

    void put(bool match, uint64_t run)
    {
        for (; run > 0; run--)
            kelio_put_bit(&out, match);
    }

    bool put_block(uint64_t mask, uint64_t elements)
    {
        if (full())
            return false;
        out.cache = mask;
        out.cache_bits = elements;
        if (elements == 64)
            kelio_flush(&out);
        return true;
    }
};

// The entry's width is the destination's, less the bits above whole bytes.
inline uint64_t index_bits(const kel_vec_t *dst)
{
    return kel_width_bits(dst) & ~uint64_t{7};
}

class index_sink : public sink
{
  public:
    explicit index_sink(const kel_vec_t *dst) : sink(dst), entry_bits(index_bits(dst)) {}

    // Kept: an index is not cut to the entry's width, so that its high bits land in the entries before it.
    void put(bool match, uint64_t run)
    {
        if (!match)
            index += run;
        else
            for (; run > 0; run--)
                kelio_put_bits(&out, index++, entry_bits);
    }

    uint64_t entry_bits;
    uint64_t index = 0;
};

// An index list whose entries are whole words, which a block can store by themselves.
template <class Entry>
class entry_sink : public index_sink
{
  public:
    using index_sink::index_sink;

    bool put_block(uint64_t mask, uint64_t elements)
    {
        auto *start = reinterpret_cast<uint8_t *>(out.buf);
        auto *next = start + out.cache_bits / 8;
        const bool fits = static_cast<uint8_t *>(end) - next >= static_cast<ptrdiff_t>(64 * sizeof(Entry));
        if (!fits || index > std::numeric_limits<Entry>::max() - 63)
            return false;
        if (mask != 0) {
            kel_store_be(start, out.cache);
            for (; mask != 0; next += sizeof(Entry)) {
                const auto first = static_cast<unsigned>(std::countl_zero(mask));
                kel_store_be(next, static_cast<Entry>(index + first));
                mask &= ~(uint64_t{1} << 63 >> first);
            }
            reload(start, next);
        }
        index += elements;
        return true;
    }

  private:
    // Takes the word with the last of the entries between start and next back into the writer, as put leaves it.
    void reload(uint8_t *start, uint8_t *next)
    {
        const size_t words = static_cast<size_t>(next - start - 1) / 8;
        out.buf += words;
        out.cache_bits = 8 * static_cast<uint64_t>(next - start) - 64 * words;
        out.cache = kel_load_be<uint64_t>(out.buf) & kel_shl(~uint64_t{0}, 64 - out.cache_bits);
    }
};

} // namespace
