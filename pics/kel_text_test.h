// Scans of texts: mask words by lengths and by bytes.
#pragma once

#include "kel_predicate.h"
#include "kel_text.h"

namespace
{

// What is matched of texts: a predicate for each length. A text is taken as the high end of 16 bytes, of which the rest
// is any, so that intervals are as wide as that: those of texts of up to 8 bytes are told by the high word alone.
class text_test_t
{
  public:
    void set(unsigned bytes, const membership_t<uint128_t> &predicate)
    {
        const unsigned rest = 8 * (longest_text - bytes);
        const uint128_t lowest = (uint128_t{1} << rest) - 1;
        for (unsigned i = 0; i < 2; i++) {
            const unsigned from = i < predicate.intervals ? i : 0;
            of[i].first[bytes - 1] = predicate.first[from] << rest;
            of[i].span[bytes - 1] = predicate.span[from] << rest | lowest;
        }
        if (predicate.intervals == 1 && predicate.span[0] == ~uint128_t{0} >> rest) {
            mark(decided, bytes);
            if (!predicate.negated)
                mark(taken, bytes);
        } else {
            intervals = std::max(intervals, predicate.intervals);
            negated = predicate.negated; // the same for all lengths
        }
    }

    // The lengths of which all texts have the same outcome, and of these those of which they match.
    const uint8_t *decided_lengths() const
    {
        return decided;
    }

    const uint8_t *taken_lengths() const
    {
        return taken;
    }

    // The mask word of those of 64 texts that candidates tells; the other bits are 0. few: whether it pays to look at
    // these one by one.
    uint64_t masks(const texts_t &texts, uint64_t candidates, bool few) const
    {
        const uint64_t outside =
            intervals == 2 ? outside_of<2>(texts, candidates, few) : outside_of<1>(texts, candidates, few);
        return (negated ? outside : ~outside) & candidates;
    }

  private:
    // Intervals of 16 bytes that start with a text, one for each length less 1. Of texts of up to 8 bytes the low word
    // is any, so that the high words tell.
    struct intervals_t {
        template <bool longer>
        bool outside(const uint8_t *text, unsigned length) const
        {
            const uint64_t high = kel_load_be<uint64_t>(text);
            if constexpr (longer)
                return span[length] < (uint128_t{high} << 64 | kel_load_be<uint64_t>(text + 8)) - first[length];
            else
                return static_cast<uint64_t>(span[length] >> 64) < high - static_cast<uint64_t>(first[length] >> 64);
        }

        uint128_t first[longest_text];
        uint128_t span[longest_text];
    };

    static void mark(uint8_t *lengths, unsigned bytes)
    {
        lengths[(bytes - 1) / 8] = static_cast<uint8_t>(lengths[(bytes - 1) / 8] | 0x80 >> (bytes - 1) % 8);
    }

    template <unsigned intervals, bool longer>
    bool outside(const uint8_t *text, unsigned length) const
    {
        bool out = of[0].outside<longer>(text, length);
        if constexpr (intervals == 2)
            out &= of[1].outside<longer>(text, length);
        return out;
    }

    template <unsigned intervals, bool longer>
    uint64_t outside_of_all(const texts_t &texts) const
    {
        uint64_t mask = 0;
        for (unsigned group = 0; group < 8; group++) {
            const uint8_t *const first = texts.data + texts.groups[group];
            const uint8_t *const within = texts.within + 8 * group, *const lengths = texts.lengths + 8 * group;
            for (unsigned i = 0; i < 8; i++)
                mask = mask + mask + outside<intervals, longer>(first + within[i], lengths[i]);
        }
        return mask;
    }

    template <unsigned intervals>
    uint64_t outside_of(const texts_t &texts, uint64_t candidates, bool few) const
    {
        if (!few)
            return texts.longer ? outside_of_all<intervals, true>(texts) : outside_of_all<intervals, false>(texts);
        uint64_t mask = 0;
        for (; candidates != 0; candidates &= candidates - 1) {
            const auto bit = static_cast<unsigned>(std::countr_zero(candidates));
            const unsigned i = block_elements - 1 - bit;
            mask |= uint64_t{outside<intervals, true>(texts.at(i), texts.lengths[i])} << bit;
        }
        return mask;
    }

    intervals_t of[2];
    uint8_t decided[2] = {};
    uint8_t taken[2] = {};
    unsigned intervals = 1;
    bool negated = false;
};

// The mask words of texts, a batch at a time.
class text_masks
{
  public:
    static constexpr size_t batch = block_batch;

    text_masks(const kernel_set_t *set, const kel_vec_t *src, const text_test_t &tested)
        : test(tested), source(set, src), find(choose_masks(set, {nullptr, 8, 0}, lookup(tested.decided_lengths())))
    {
    }

    // As of a mask_source; 0 in front of lengths that are no text's, too.
    uint64_t next(uint64_t (&masks)[batch])
    {
        const uint64_t elements = source.next();
        if (elements == 0)
            return 0;
        const uint64_t blocks = source.blocks();
        uint64_t decided[batch];
        look_up(test.decided_lengths(), decided);
        look_up(test.taken_lengths(), masks);
        const bool few = block_elements * blocks - popc_words(decided, blocks) <= few_candidates * blocks;
        for (uint64_t block = 0; block < blocks; block++)
            if (const uint64_t candidates = ~decided[block]; candidates != 0)
                masks[block] |= test.masks(source.block(block), candidates, few);
        masks[blocks - 1] &= ~uint64_t{0} << (block_elements * blocks - elements);
        return elements;
    }

  private:
    static constexpr unsigned few_candidates = 16; // of a block: up to so many are looked at one by one

    static bitmap_t lookup(const uint8_t *lengths)
    {
        return {lengths, longest_text, false};
    }

    // The mask words of lengths that are among some.
    void look_up(const uint8_t *among, uint64_t *masks) const
    {
        if (among[0] | among[1])
            find(source.all_lengths(), {nullptr, 8, 0}, lookup(among), masks, source.blocks());
        else
            memset(masks, 0, source.blocks() * sizeof *masks);
    }

    const text_test_t &test;
    text_source source;
    const mask_blocks_t<bitmap_t> find;
};

} // namespace
