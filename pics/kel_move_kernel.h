// Select and extract: kernels that move elements. Select is extract with a mask.
#pragma once

#include "kel_sink.h"
#include "kel_text.h"
#include <bit>

namespace
{

struct move_t : kernel_t {
    uint64_t flags;
    const kel_vec_t *mask; // a bit for each stored element says whether it is moved; null: all are
    bool pad;              // whether elements are adapted to the destination's width
};

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

// A mask is never compressed: KEL_ZIP only drops its offset.
inline unsigned mask_offset(const kel_vec_t *mask)
{
    return mask->format & KEL_ZIP ? 0 : mask->offset;
}

// What puts an element that the mask, if there is one, does not leave out.
inline auto move_visitor(const move_t &move, element_sink &to)
{
    kel_input_t bits_of_mask = {};
    if (move.mask && move.src->elements != 0)
        kelio_buf_input(move.mask->data, mask_offset(move.mask), &bits_of_mask);
    return [&, bits_of_mask]<class Type>(progress_t &progress) {
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

inline kel_status_t general_move(const move_t &move, kel_type_t type, kel_fmt_t fmt)
{
    element_sink to(move);
    return general_kernel(move, to, type, fmt, move_visitor(move, to));
}

// ---- The road of blocks ---------------------------------------------------------------------------------------------

// Bits of an element as it is written.
inline uint64_t written_bits(const move_t &move)
{
    return move.pad ? kel_width_bits(move.dst) : kel_round_bits(kel_width_bits(move.src));
}

// Whether the elements stand in the source as they will in the destination.
inline bool unchanged(const move_t &move)
{
    return kel_width_bits(move.src) == written_bits(move) && move.src->offset == 0;
}

// Whether the destination takes whole elements as they come.
inline bool takes_whole(const move_t &move)
{
    const uint64_t bits = written_bits(move);
    return kel_power_of_two(bits) && bits >= 8 && bits <= 8 * kel_max_elem_bytes && !move.var_dst();
}

// Whether the elements can be moved by blocks: plain or wide fields to whole elements.
inline bool moves_by_blocks(const move_t &move, kel_fmt_t fmt)
{
    const bool readable = plain_fields(move.src) || wide_fields(move.src);
    const bool plain = fmt == kel_fmt_fixed || (fmt == kel_fmt_rle && plain_runs(move.src));
    return takes_whole(move) && plain && readable && (!move.mask || mask_offset(move.mask) <= kel_max_offset);
}

// A destination of whole elements, which are stored as they come. A writer of bits holds its last word back, and so
// takes one element more than there is nominal room for before it is full; so does this.
class byte_sink : public sink
{
  public:
    byte_sink(const kernel_t &kernel, uint64_t element_bytes) : sink(kernel), bytes(element_bytes)
    {
        const auto start = reinterpret_cast<uintptr_t>(kernel.dst->data);
        const auto stop = reinterpret_cast<uintptr_t>(end);
        room = stop > start ? ((stop - start) >> std::countr_zero(bytes)) + 1 : 0;
        aligned = start % kel_dst_align == 0;
    }

    // Leaves the writer as one of bits would be after count elements. That holds back the last word, even a whole one,
    // which makes a difference only in a full destination, in one that is not aligned, and if more elements follow.
    void written(uint64_t count, bool followed = false)
    {
        const uint64_t size = count * bytes;
        if (size == 0)
            return;
        const bool held = size % 8 != 0 || count >= room || !aligned || followed;
        out.buf += (size - held) / 8;
        if (!held)
            return;
        out.cache_bits = 8 * ((size - 1) % 8 + 1);
        out.cache = kel_load_be<uint64_t>(out.buf) & kel_shl(~uint64_t{0}, 64 - out.cache_bits);
    }

    uint64_t room; // elements that can be stored; with the last of them it is full

  private:
    uint64_t bytes; // of an element
    bool aligned;
};

// The first count elements of the source, as they will be in the destination.
inline converted_elements converted(const move_t &move, uint64_t count)
{
    const uint64_t bits = written_bits(move);
    return {move.set(), move.src, count, bits / 8, kel_adaptation(move.flags, kel_width_bits(move.src), bits)};
}

inline kel_status_t extract_blocks(const move_t &move)
{
    const uint64_t bytes = written_bits(move) / 8;
    byte_sink to(move, bytes);
    const uint64_t moved = std::min(move.src->elements, to.room);
    const bool overflow = moved < move.src->elements;
    auto *dst = static_cast<uint8_t *>(move.dst->data);
    if (!unchanged(move))
        converted(move, moved).convert_all(dst, moved);
    else if (moved > 0)
        memcpy(dst, move.src->data, moved * bytes);
    to.written(moved);
    return finish(move, to, overflow ? KEL_EOVERFLOW : KEL_SUCCESS, {moved, moved + overflow, 0});
}

// ---- Texts ----------------------------------------------------------------------------------------------------------

// A destination element of 16 bytes.
typedef uint64_t two_words_t __attribute__((vector_size(16)));

// How texts become destination elements: one is loaded so that its bytes are where they have to be, and those around it
// are cleared.
template <class Word>
class text_adapter
{
  public:
    explicit text_adapter(bool left)
    {
        for (unsigned i = 0; i < longest_text; i++) {
            const size_t cleared = sizeof(Word) - std::min<size_t>(i + 1, sizeof(Word));
            before[i] = static_cast<uint8_t>(left ? 0 : cleared);
            memset(&kept[i], 0, sizeof kept[i]);
            memset(reinterpret_cast<uint8_t *>(&kept[i]) + before[i], 0xff, sizeof(Word) - cleared);
        }
    }

    void put(const texts_t &texts, uint8_t *to) const
    {
        for (unsigned group = 0; group < 8; group++) {
            const uint8_t *const first = texts.data + texts.groups[group];
            for (unsigned i = 8 * group; i < 8 * group + 8; i++, to += sizeof(Word)) {
                Word word;
                const unsigned length = texts.lengths[i];
                memcpy(&word, first + texts.within[i] - before[length], sizeof word);
                word &= kept[length];
                memcpy(to, &word, sizeof word);
            }
        }
    }

  private:
    Word kept[longest_text];      // by length less 1, as all tables
    uint8_t before[longest_text]; // bytes that are loaded before a text
};

// By blocks as far as there are texts.
template <class Word>
kel_status_t extract_texts(const move_t &move)
{
    const text_adapter<Word> adapter(move.flags & KEL_PAD);
    byte_sink to(move, sizeof(Word));
    text_source source(move.set(), move.src);
    progress_t progress;
    auto *dst = static_cast<uint8_t *>(move.dst->data);
    kel_status_t status = KEL_SUCCESS;
    while (const uint64_t elements = status == KEL_SUCCESS ? source.next() : 0) {
        const uint64_t moved = std::min(elements, to.room - progress.stored);
        for (uint64_t left = moved, block = 0; left > 0; block++) {
            const uint64_t in_block = std::min<uint64_t>(left, block_elements);
            uint8_t part[block_elements * sizeof(Word)];
            const bool whole = in_block == block_elements;
            adapter.put(source.block(block), whole ? dst : part);
            if (!whole)
                memcpy(dst, part, in_block * sizeof(Word));
            dst += in_block * sizeof(Word);
            left -= in_block;
        }
        progress.stored += moved;
        if (moved < elements)
            status = KEL_EOVERFLOW;
    }
    progress.processed = progress.stored + (status != KEL_SUCCESS);
    to.written(progress.stored, true);
    element_sink rest(move);
    rest.out = to.out;
    if (status == KEL_SUCCESS)
        status = walk_into<uint128_unalign>(move, rest, true, false, progress, move_visitor(move, rest));
    return finish(move, rest, status, progress);
}

inline kel_status_t extract_texts(const move_t &move)
{
    switch (written_bits(move)) {
    case 8:
        return extract_texts<uint8_t>(move);
    case 16:
        return extract_texts<uint16_t>(move);
    case 32:
        return extract_texts<uint32_t>(move);
    case 64:
        return extract_texts<uint64_t>(move);
    default:
        return extract_texts<two_words_t>(move);
    }
}

// ---- Select ---------------------------------------------------------------------------------------------------------

// A block that may fill the destination: the test for that comes before every element.
template <unsigned bytes>
kel_status_t select_elements(const uint8_t *from, uint64_t mask, uint64_t elements, uint64_t room, uint8_t *&to,
                             progress_t &progress)
{
    for (; elements > 0; elements--, from += bytes, mask <<= 1, progress.stored++) {
        progress.processed++;
        if (progress.count == room)
            return KEL_EOVERFLOW;
        if (mask >> 63) {
            memcpy(to, from, bytes);
            to += bytes;
            progress.count++;
        }
    }
    return KEL_SUCCESS;
}

// The blocks of some mask words, of so many elements.
template <unsigned bytes, class Source>
kel_status_t select_batch(Source &source, const uint64_t *masks, uint64_t elements, pick_block_t fast, byte_sink &sink,
                          uint8_t *&to, progress_t &progress)
{
    const pick_block_t safe = portable_picks(bytes);
    for (; elements > 0; masks++) {
        const uint64_t in_block = std::min<uint64_t>(elements, block_elements);
        const uint64_t ones = popc_words(masks, 1);
        elements -= in_block;
        if (progress.count + ones >= sink.room) {
            if (select_elements<bytes>(source.next(in_block), *masks, in_block, sink.room, to, progress) != KEL_SUCCESS)
                return KEL_EOVERFLOW;
            continue;
        }
        const bool roomy = in_block == block_elements && progress.count + block_elements < sink.room;
        if (ones == 0)
            source.skip(in_block);
        else if (ones == block_elements)
            to = static_cast<uint8_t *>(memcpy(to, source.next(in_block), bytes * block_elements)) + bytes * ones;
        else
            to = (roomy ? fast : safe)(source.next(in_block), *masks, to);
        progress.stored += in_block;
        progress.processed += in_block;
        progress.count += ones;
    }
    return KEL_SUCCESS;
}

template <unsigned bytes, class Source>
kel_status_t select_from(const move_t &move, Source &&source)
{
    const pick_block_t pick = choose_producer(move.set(), &kernel_set_t::picks, uint64_t{bytes});
    byte_sink sink(move, bytes);
    stream_words words(move.mask->data, mask_offset(move.mask));
    auto *to = static_cast<uint8_t *>(move.dst->data);
    progress_t progress;
    kel_status_t status = KEL_SUCCESS;
    for (uint64_t left = move.src->elements; left > 0 && status == KEL_SUCCESS;) {
        uint64_t masks[block_batch];
        size_t n = 0;
        uint64_t elements = 0;
        for (uint64_t in_block; left > 0 && n < block_batch; elements += in_block, left -= in_block) {
            in_block = std::min<uint64_t>(left, block_elements);
            masks[n++] = words.next(in_block) & ~uint64_t{0} << (block_elements - in_block);
        }
        const kept_bytes behind(to + popc_words(masks, n) * bytes, sink.end);
        status = select_batch<bytes>(source, masks, elements, pick, sink, to, progress);
    }
    sink.written(progress.count);
    return finish(move, sink, status, progress);
}

// ---- Runs -----------------------------------------------------------------------------------------------------------

// An element again and again.
template <unsigned bytes>
class copies
{
  public:
    static constexpr unsigned size = 32;

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

// What a mask takes of runs, and its sum.
inline uint64_t take_runs(const runs_t &runs, uint64_t mask, uint32_t *taken)
{
    uint64_t sum = 0;
    for (unsigned i = 0; i < runs.count; i++, mask <<= 1) {
        taken[i] = static_cast<uint32_t>(static_cast<int64_t>(mask) >> 63) & runs.of[i];
        sum += taken[i];
    }
    return sum;
}

// A block with room for all of its runs, as often as they are taken.
template <unsigned bytes>
uint8_t *move_runs(const uint8_t *from, const uint32_t *taken, unsigned count, uint8_t *to)
{
    for (unsigned i = 0; i < count; i++, from += bytes) {
        const uint64_t size = uint64_t{taken[i]} * bytes;
        copies<bytes>(from).put(to, size);
        to += size;
    }
    return to;
}

// A block in which something is to be looked at before every element.
template <unsigned bytes>
kel_status_t move_run_elements(const uint8_t *from, uint64_t mask, const runs_t &runs, uint64_t room, uint8_t *&to,
                               progress_t &progress)
{
    for (unsigned i = 0; i < runs.count; i++, from += bytes, mask <<= 1, progress.stored++) {
        const uint64_t run = runs.of[i];
        if (run == 0)
            return KEL_EDATAFMT;
        progress.processed += run;
        if (progress.count >= room)
            return KEL_EOVERFLOW;
        if (mask >> 63) {
            copies<bytes>(from).put_exactly(to, run * bytes);
            to += run * bytes;
            progress.count += run;
        }
    }
    return KEL_SUCCESS;
}

template <unsigned bytes, class Source>
kel_status_t move_runs_from(const move_t &move, Source &&source)
{
    byte_sink sink(move, bytes);
    run_source lengths(move.set(), move.src);
    stream_words words(move.mask ? move.mask->data : nullptr, move.mask ? mask_offset(move.mask) : 0);
    auto *to = static_cast<uint8_t *>(move.dst->data);
    progress_t progress;
    kel_status_t status = KEL_SUCCESS;
    for (uint64_t left = move.src->elements; left > 0 && status == KEL_SUCCESS;) {
        runs_t runs;
        const bool sound = lengths.next(runs);
        const uint64_t mask = move.mask ? words.next(runs.count) : ~uint64_t{0};
        const uint8_t *from = source.next(runs.count);
        left -= runs.count;
        uint32_t masked[block_elements];
        const uint32_t *const taken = move.mask ? masked : runs.of;
        const uint64_t sum = move.mask ? take_runs(runs, mask, masked) : runs.sum;
        if (!sound || progress.count + sum + copies<bytes>::size / bytes >= sink.room) {
            status = move_run_elements<bytes>(from, mask, runs, sink.room, to, progress);
            continue;
        }
        const kept_bytes behind(to + sum * bytes, sink.end);
        to = move_runs<bytes>(from, taken, runs.count, to);
        progress.stored += runs.count;
        progress.processed += runs.sum;
        progress.count += sum;
    }
    sink.written(progress.count);
    if (!move.mask)
        progress.count = 0;
    return finish(move, sink, status, progress);
}

// ---- The width of elements, and where they come from ----------------------------------------------------------------

template <unsigned bytes, class Source>
kel_status_t move_from(const move_t &move, Source &&source)
{
    return move.src->format & KEL_RLE ? move_runs_from<bytes>(move, source) : select_from<bytes>(move, source);
}

template <unsigned bytes>
kel_status_t move_blocks(const move_t &move)
{
    return unchanged(move) ? move_from<bytes>(move, unchanged_elements(move.src->data, bytes))
                           : move_from<bytes>(move, converted(move, move.src->elements));
}

inline kel_status_t move_blocks(const move_t &move)
{
    switch (written_bits(move)) {
    case 8:
        return move_blocks<1>(move);
    case 16:
        return move_blocks<2>(move);
    case 32:
        return move_blocks<4>(move);
    case 64:
        return move_blocks<8>(move);
    default:
        return move_blocks<16>(move);
    }
}

// ---- The choice of a kernel -----------------------------------------------------------------------------------------

inline kel_status_t run_kernel(const move_t &move, kel_type_t type, kel_fmt_t fmt)
{
    if (move.set() && moves_by_blocks(move, fmt))
        return move.mask || fmt == kel_fmt_rle ? move_blocks(move) : extract_blocks(move);
    if (move.set() && !move.mask && takes_whole(move) && plain_texts(move.src, type, fmt))
        return extract_texts(move);
    return general_move(move, type, fmt);
}

inline kel_status_t move_emulate(move_t &&move, const char *verbose_line)
{
    const kel_vec_t *src = move.src;
    const uint64_t dst_bytes = kel_dispatch_bytes(move.dst->format, move.dst->elem_width);
    if (move.ctx->log.options & KEL_LOG_VERBOSE)
        kel_log_msg(move.ctx, KEL_LOG_VERBOSE, "%s", verbose_line);

    const auto type = static_cast<kel_type_t>(kel_class(std::max(kel_dispatch_bytes(src), dst_bytes)) / 2);
    const kel_fmt_t fmt = kel_dispatch_fmt(src);
    move.ext = kel_dispatch_ext(move.ctx, src);
    move.pad = src->format & KEL_VAR || kel_round_bits(kel_width_bits(src)) / 8 != dst_bytes;
    return with_plain_source(move, type, fmt, [&] { return run_kernel(move, type, fmt); });
}

} // namespace
