// What select and extract share: the record of a move, one element at a time, and destinations of whole elements.
#pragma once

#include "kel_sink.h"
#include <bit>

namespace
{

struct move_t : kernel_t {
    uint64_t flags;
    const kel_vec_t *mask; // a bit for each stored element says whether it is moved; null: all are
    bool pad;              // whether elements are adapted to the destination's width
};

// A mask is never compressed: KEL_ZIP only drops its offset.
inline unsigned mask_offset(const kel_vec_t *mask)
{
    return mask->format & KEL_ZIP ? 0 : mask->offset;
}

// ---- One element ----------------------------------------------------------------------------------------------------

// Where elements go, in their rounded width or adapted to the destination's.
class element_sink : public sink
{
  public:
    explicit element_sink(const move_t &moved) : sink(moved), move(moved), dst_bits(kel_width_bits(moved.dst)) {}

    template <class Type>
    kel_status_t put(const typename Type::word &element, uint64_t bits, uint64_t run)
    {
        if (!move.pad)
            put_runs<Type>(element, kel_round_bits(bits), run);
        else if (move.var_dst())
            return put_var<Type>(element, bits, run);
        else if (dst_bits % 8 != 0)
            return put_packed<Type>(element, bits, run);
        else
            Type::put_pad(&out, move.flags, element, bits, dst_bits, run);
        return KEL_SUCCESS;
    }

  private:
    template <class Type>
    void put_runs(const typename Type::word &element, uint64_t bits, uint64_t run)
    {
        for (; run > 0; run--)
            Type::put(&out, element, bits);
    }

    bool extra() const
    {
        return move.ctx->debug_options & KEL_DEBUG_EXTRA;
    }

    // The element keeps its width, which goes to the stream beside it, always as a word of 8 bytes.
    template <class Type>
    kel_status_t put_var(const typename Type::word &element, uint64_t bits, uint64_t run)
    {
        for (uint64_t i = 0; i < run; i++)
            kelio_put_word(&aux, bits / 8);
        put_runs<Type>(element, bits, run);
        return extra() && dst_bits == 8 && bits / 8 > UINT8_MAX ? KEL_EDATASIZE : KEL_SUCCESS;
    }

    // Elements that are no whole bytes: always left-justified, KEL_PAD or not.
    template <class Type>
    kel_status_t put_packed(typename Type::word element, uint64_t bits, uint64_t run)
    {
        if (extra() && bits > 31 && bits != 64 && bits != 128)
            return KEL_EDATASIZE;
        if constexpr (!std::is_pointer_v<typename Type::word>)
            if (bits < dst_bits)
                element = kel_word_shift(element, true, dst_bits - bits);
        put_runs<Type>(element, dst_bits, run);
        return KEL_SUCCESS;
    }

    const move_t &move;
    const uint64_t dst_bits;
};

// What puts an element that the mask, if there is one, does not leave out: from the next stored element on.
inline auto move_visitor(const move_t &move, element_sink &to)
{
    return [&]<class Type>(progress_t &progress) {
        kel_input_t bits_of_mask = {};
        if (move.mask && progress.stored < move.src->elements) {
            const uint64_t bit = mask_offset(move.mask) + progress.stored;
            const auto *bytes = static_cast<const uint8_t *>(move.mask->data) + bit / 64 * 8;
            kelio_buf_input(bytes, static_cast<unsigned>(bit % 64), &bits_of_mask);
        }
        return [&, mask = bits_of_mask](const typename Type::word &element, uint64_t bits, uint64_t run) mutable {
            if (move.mask) {
                if (!kelio_get_bits(&mask, 1))
                    return KEL_SUCCESS;
                progress.count += run;
            }
            return to.put<Type>(element, bits, run);
        };
    };
}

// ---- Whole elements -------------------------------------------------------------------------------------------------

// Bits of an element as it is written.
inline uint64_t written_bits(const move_t &move)
{
    return move.pad ? kel_width_bits(move.dst) : kel_round_bits(kel_width_bits(move.src));
}

// Whether the destination takes whole elements as they come.
inline bool takes_whole(const move_t &move)
{
    const uint64_t bits = written_bits(move);
    return kel_power_of_two(bits) && bits >= 8 && bits <= 8 * kel_max_elem_bytes && !move.var_dst();
}

// A destination of whole elements, which are stored as they come. A writer of bits holds its last word back, and so
// takes one element more than there is nominal room for before it is full; so does this.
template <unsigned bytes>
class byte_sink : public sink
{
  public:
    explicit byte_sink(const kernel_t &kernel) : sink(kernel), to(static_cast<uint8_t *>(kernel.dst->data)), start(to)
    {
        const auto first = reinterpret_cast<uintptr_t>(to);
        const auto stop = reinterpret_cast<uintptr_t>(end);
        most = stop > first ? (stop - first) / bytes + 1 : 0;
    }

    uint64_t count() const // of elements that have been stored
    {
        return static_cast<uint64_t>(to - start) / bytes;
    }

    uint64_t room() const // for more of them
    {
        return most - std::min(count(), most);
    }

    // Leaves the writer as one of bits would be. That holds back the last word, even a whole one, which makes a
    // difference only in a full destination, in one that is not aligned, and if more elements follow.
    void written(bool followed)
    {
        const auto size = static_cast<uint64_t>(to - start);
        if (size == 0)
            return;
        const bool aligned = reinterpret_cast<uintptr_t>(start) % kel_dst_align == 0;
        const bool held = size % 8 != 0 || room() == 0 || !aligned || followed;
        out.buf += (size - held) / 8;
        if (!held)
            return;
        out.cache_bits = 8 * ((size - 1) % 8 + 1);
        out.cache = kel_load_be<uint64_t>(out.buf) & kel_shl(~uint64_t{0}, 64 - out.cache_bits);
    }

    uint8_t *to; // where the next element goes

  private:
    uint8_t *const start;
    uint64_t most;
};

// An element again and again.
template <unsigned bytes>
class copies
{
  public:
    static constexpr unsigned size = 32; // of a store

    explicit copies(const uint8_t *from)
    {
        if constexpr (bytes <= 8) {
            uint64_t word = 0;
            memcpy(&word, from, bytes);
            words[0] = words[1] = word * (~uint64_t{0} / (~uint64_t{0} >> (64 - 8 * bytes)));
        } else {
            memcpy(&words, from, bytes);
        }
    }

    // So many bytes of them, and what comes behind those up to a whole number of stores, of which there is at least
    // one.
    void put(uint8_t *to, uint64_t count) const
    {
        store(to);
        for (uint64_t i = size; i < count; i += size)
            store(to + i);
    }

    void put_exactly(uint8_t *to, uint64_t count) const
    {
        for (; count >= sizeof words; count -= sizeof words, to += sizeof words)
            memcpy(to, &words, sizeof words);
        memcpy(to, &words, count);
    }

  private:
    typedef uint64_t words_t __attribute__((vector_size(16)));

    void store(uint8_t *to) const
    {
        memcpy(to, &words, sizeof words);
        memcpy(to + sizeof words, &words, sizeof words);
    }

    words_t words;
};

// A block in which something is to be looked at before every element. runs: one for each; null: all are 1.
template <unsigned bytes>
kel_status_t move_elements(const uint8_t *from, uint64_t mask, const uint32_t *runs, uint64_t elements,
                           byte_sink<bytes> &to, progress_t &progress)
{
    for (uint64_t i = 0; i < elements; i++, from += bytes, mask <<= 1, progress.stored++) {
        const uint64_t run = runs ? runs[i] : 1;
        if (run == 0)
            return KEL_EDATAFMT;
        progress.processed += run;
        if (to.room() == 0)
            return KEL_EOVERFLOW;
        if (mask >> 63) {
            copies<bytes>(from).put_exactly(to.to, run * bytes);
            to.to += run * bytes;
        }
    }
    return KEL_SUCCESS;
}

// What blocks have left of texts, from a length on that is no text's.
inline kel_status_t walk_rest(const move_t &move, const kel_output_t &out, progress_t &progress)
{
    element_sink to(move);
    to.out = out;
    const kel_status_t status = walk_into<uint128_unalign>(move, to, true, false, progress, move_visitor(move, to));
    return finish(move, to, status, progress);
}

// The end of a move by blocks.
template <unsigned bytes>
kel_status_t finish_blocks(const move_t &move, byte_sink<bytes> &to, kel_status_t status, progress_t &progress)
{
    const bool followed = status == KEL_SUCCESS && progress.stored < move.src->elements;
    progress.count = move.mask ? to.count() : 0;
    to.written(followed);
    return followed ? walk_rest(move, to.out, progress) : finish(move, to, status, progress);
}

} // namespace
