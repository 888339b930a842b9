// Select and extract: kernels that move elements. Select is extract with a mask. There are four roads:
//
//   the walk          what the others do not take
//   move_all          extracts of plain and wide fields and of texts, straight into the destination
//   picker            selects of these: what mask words leave of blocks
//   run_mover         either of fields with runs
//
// The last three take elements from the sources of kel_element_source.h, and leave to the walk what is behind a length
// that is no text's.
#pragma once

#include "kel_element_source.h"
#include "kel_move_runs.h"

namespace
{

inline kel_status_t general_move(const move_t &move, kel_type_t type, kel_fmt_t fmt)
{
    element_sink to(move);
    return general_kernel(move, to, type, fmt, move_visitor(move, to));
}

// ---- Extract --------------------------------------------------------------------------------------------------------

template <unsigned bytes, class Elements>
kel_status_t move_all(const move_t &move, Elements &elements)
{
    byte_sink<bytes> to(move);
    progress_t progress;
    kel_status_t status = KEL_SUCCESS;
    while (const uint64_t ready = status == KEL_SUCCESS ? elements.ready() : 0) {
        const uint64_t moved = std::min(ready, to.room());
        const uint64_t rest = moved % block_elements, whole = moved - rest;
        if (whole > 0)
            elements.fill(to.to, whole);
        if (rest > 0)
            memcpy(to.to + whole * bytes, elements.next(rest), rest * bytes);
        to.to += moved * bytes;
        progress.stored += moved;
        if (moved < ready)
            status = KEL_EOVERFLOW;
    }
    progress.processed = progress.stored + (status != KEL_SUCCESS);
    return finish_blocks(move, to, status, progress);
}

// ---- Select ---------------------------------------------------------------------------------------------------------

template <unsigned bytes>
class picker
{
  public:
    explicit picker(const move_t &move) : fast(choose_producer(move.set(), &kernel_set_t::picks, uint64_t{bytes})) {}

    // The elements of some mask words.
    template <class Elements>
    kel_status_t operator()(Elements &elements, const uint64_t *masks, uint64_t count, byte_sink<bytes> &to,
                            progress_t &progress) const
    {
        const uint64_t ones = popc_words(masks, (count + block_elements - 1) / block_elements);
        if (ones >= to.room())
            return pick_elements(elements.next(count), masks, count, to, progress);
        if (ones == 0) {
            elements.skip(count);
        } else {
            const kept_bytes behind(to.to + ones * bytes, to.end);
            const uint64_t room = to.room();
            const uint8_t *const roomy = room > block_elements ? to.to + (room - block_elements - 1) * bytes : nullptr;
            to.to = pick(elements.next(count), masks, count, to.to, roomy);
        }
        progress.stored += count;
        progress.processed += count;
        return KEL_SUCCESS;
    }

  private:
    // Up to roomy there is room for a whole block, which vector forms need.
    uint8_t *pick(const uint8_t *from, const uint64_t *masks, uint64_t count, uint8_t *to, const uint8_t *roomy) const
    {
        const pick_block_t safe = portable_picks(bytes);
        for (; count >= block_elements; count -= block_elements, masks++, from += block_elements * bytes) {
            if (*masks == ~uint64_t{0})
                to = static_cast<uint8_t *>(memcpy(to, from, block_elements * bytes)) + block_elements * bytes;
            else if (*masks != 0)
                to = (to <= roomy ? fast : safe)(from, *masks, to);
        }
        return count > 0 ? safe(from, *masks, to) : to;
    }

    // Where the destination gets full.
    static kel_status_t pick_elements(const uint8_t *from, const uint64_t *masks, uint64_t count, byte_sink<bytes> &to,
                                      progress_t &progress)
    {
        kel_status_t status = KEL_SUCCESS;
        for (; count > 0 && status == KEL_SUCCESS; masks++, from += block_elements * bytes) {
            const uint64_t in_block = std::min<uint64_t>(count, block_elements);
            status = move_elements(from, *masks, nullptr, in_block, to, progress);
            count -= in_block;
        }
        return status;
    }

    const pick_block_t fast;
};

// ---- Batches with mask words ----------------------------------------------------------------------------------------

// The next mask words of a move, for so many elements; those behind the last one are left out.
inline void next_masks(const move_t &move, stream_words &words, uint64_t *masks, uint64_t elements)
{
    for (uint64_t in_block; elements > 0; elements -= in_block) {
        in_block = std::min<uint64_t>(elements, block_elements);
        const uint64_t mask = move.mask ? words.next(in_block) : ~uint64_t{0};
        *masks++ = mask & ~uint64_t{0} << (block_elements - in_block);
    }
}

template <unsigned bytes, class Mover, class Elements>
kel_status_t move_masked(const move_t &move, Elements &elements)
{
    byte_sink<bytes> to(move);
    Mover mover(move);
    stream_words words(move.mask ? move.mask->data : nullptr, move.mask ? mask_offset(move.mask) : 0);
    progress_t progress;
    kel_status_t status = KEL_SUCCESS;
    while (const uint64_t count = status == KEL_SUCCESS ? std::min(elements.ready(), Elements::batch) : 0) {
        uint64_t masks[block_batch];
        next_masks(move, words, masks, count);
        status = mover(elements, masks, count, to, progress);
    }
    return finish_blocks(move, to, status, progress);
}

// ---- The choice of a kernel -----------------------------------------------------------------------------------------

// Elements without runs. select: whether the kernel is one of select, which all have a mask.
template <bool select, unsigned bytes, class Elements>
kel_status_t move_plain(const move_t &move, Elements &elements)
{
    if constexpr (select)
        return move_masked<bytes, picker<bytes>>(move, elements);
    else
        return move_all<bytes>(move, elements);
}

template <bool select, unsigned bytes>
kel_status_t move_fields(const move_t &move)
{
    const uint64_t bits = kel_width_bits(move.src);
    const auto move_from = [&](auto &&elements) {
        return move.src->format & KEL_RLE ? move_masked<bytes, run_mover<bytes>>(move, elements)
                                          : move_plain<select, bytes>(move, elements);
    };
    if (bits == 8 * bytes && move.src->offset == 0)
        return move_from(unchanged_elements<bytes>(move.src));
    return move_from(converted_elements<bytes>(move.set(), move.src, kel_adaptation(move.flags, bits, 8 * bytes)));
}

template <bool select, unsigned bytes>
kel_status_t move_texts(const move_t &move)
{
    text_elements<bytes> texts(move.set(), move.src, move.flags & KEL_PAD);
    return move_plain<select, bytes>(move, texts);
}

// Calls run<bytes>() for elements of so many bytes.
template <class Run>
kel_status_t with_bytes(uint64_t bytes, const Run &run)
{
    switch (bytes) {
    case 1:
        return run.template operator()<1>();
    case 2:
        return run.template operator()<2>();
    case 4:
        return run.template operator()<4>();
    case 8:
        return run.template operator()<8>();
    default:
        return run.template operator()<16>();
    }
}

// Whether a source has plain or wide fields, with runs or without.
inline bool has_fields(const kel_vec_t *src, kel_fmt_t fmt)
{
    return (fmt == kel_fmt_fixed || (fmt == kel_fmt_rle && plain_aux(src))) && (plain_fields(src) || wide_fields(src));
}

template <bool select>
kel_status_t run_kernel(const move_t &move, kel_type_t type, kel_fmt_t fmt)
{
    if (move.set() && takes_whole(move) && (!move.mask || mask_offset(move.mask) <= kel_max_offset)) {
        const uint64_t bytes = written_bits(move) / 8;
        if (has_fields(move.src, fmt))
            return with_bytes(bytes, [&]<unsigned size>() { return move_fields<select, size>(move); });
        if (plain_texts(move.src, type, fmt))
            return with_bytes(bytes, [&]<unsigned size>() { return move_texts<select, size>(move); });
    }
    return general_move(move, type, fmt);
}

template <bool select>
kel_status_t move_emulate(move_t &&move, const char *verbose_line)
{
    const kel_vec_t *src = move.src;
    const uint64_t dst_bytes = kel_dispatch_bytes(move.dst->format, move.dst->elem_width);
    if (move.ctx->log.options & KEL_LOG_VERBOSE)
        kel_log_msg(move.ctx, KEL_LOG_VERBOSE, "%s", verbose_line);

    const auto type = static_cast<kel_type_t>(kel_class(std::max(kel_dispatch_bytes(src), dst_bytes)) / 2);
    const kel_fmt_t fmt = kel_dispatch_fmt(src);
    move.ext = kel_dispatch_ext(move.ctx, src);
    move.pad = src->format & KEL_VAR || kel_round_bits(kel_width_bits(src)) / 8 != dst_bytes;
    return with_plain_source(move, type, fmt, [&] { return run_kernel<select>(move, type, fmt); });
}

} // namespace
