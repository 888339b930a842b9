// Where the outcome of a scan or translate goes: bit vectors and index lists.
//
// A sink takes one stored element with its run (put), or the outcome of up to 64 elements as a mask word, the first
// element on top (put_block), or those of some whole blocks (put_whole, which answers how many it took), or the outcome
// of up to 64 elements with their runs (put_runs, which counts the matches). It refuses a block whose elements have to
// be written one by one to come out right: near the end of the destination, and where an index does not fit in an
// entry. full() is the test that comes before every element. It looks at stored
// words alone, so that what the writer still holds may go behind the end.
#pragma once

#include "kel_source.h"
#include "kel_walk.h"
#include <bit>
#include <limits>

namespace
{

// A destination, its writer, and its nominal end.
class sink
{
  public:
    explicit sink(const kernel_t &kernel) : end(kel_dst_end(kernel.dst->data, kel_data_bytes(kernel.dst)))
    {
        kelio_vec_output(kernel.dst, &out);
        kelio_aux_output(kernel.dst, &aux);
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
        while (run > 0) {
            const uint64_t taken = std::min(run, 64 - out.cache_bits);
            out.cache |= match ? ~uint64_t{0} << (64 - taken) >> out.cache_bits : 0;
            out.cache_bits += taken;
            run -= taken;
            if (out.cache_bits == 64)
                kelio_flush(&out);
        }
    }

    // The bits are made aside, from the word that the writer holds on, so that stores may pass the end of what they
    // store: there is no branch for full words, which no processor could predict.
    bool put_runs(uint64_t mask, const runs_t &runs, uint64_t &matches)
    {
        const uint64_t held = out.cache_bits + runs.sum;
        if (full() || held / 64 >= static_cast<uint64_t>(static_cast<uint64_t *>(end) - out.buf))
            return false;
        uint64_t words[block_elements * longest_run / 64 + 7];
        kel_store_be(words, out.cache);
        const uint64_t bits = out.cache_bits % 8;
        byte_writer writer = {reinterpret_cast<uint8_t *>(words) + out.cache_bits / 8,
                              out.cache << (out.cache_bits - bits), bits};
        writer.put_runs(mask, runs);
        matches -= popc_words(&out.cache, 1);
        memcpy(out.buf, words, held / 64 * 8);
        out.buf += held / 64;
        out.cache_bits = held % 64;
        out.cache = kel_load_be<uint64_t>(&words[held / 64]) & byte_writer::ones(out.cache_bits);
        matches += popc_words(words, held / 64) + popc_words(&out.cache, 1);
        return true;
    }

    // What has to be kept while mask words are put: nothing.
    struct keeper {
    };

    keeper keep(const uint64_t *, size_t)
    {
        return {};
    }

    size_t put_whole(const uint64_t *masks, size_t n)
    {
        const auto room = static_cast<uint8_t *>(end) - reinterpret_cast<uint8_t *>(out.buf);
        n = std::min(n, room > 0 ? (static_cast<size_t>(room) + 7) / 8 : 0);
        for (size_t i = 0; i < n; i++)
            kel_store_be(out.buf + i, masks[i]);
        out.buf += n;
        return n;
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

  private:
    // Stores a bit stream by the byte, and up to 40 bytes behind its end.
    struct byte_writer {
        uint8_t *to;
        uint64_t held; // left-aligned, from the byte at to
        uint64_t bits; // of held, fewer than 8

        static uint64_t ones(uint64_t count)
        {
            return ~(~uint64_t{0} >> count);
        }

        void put(uint64_t field, uint64_t count) // left-aligned, of up to 56 bits
        {
            held |= field >> bits;
            kel_store_be(to, held);
            bits += count;
            to += bits / 8;
            held <<= bits & ~uint64_t{7};
            bits %= 8;
        }

        void put_run(uint64_t match, uint64_t run) // of up to 256 bits
        {
            held |= match >> bits;
            kel_store_be(to, held);
            for (unsigned i = 1; i <= longest_run / 64; i++)
                kel_store_be(to + 8 * i, match);
            bits += run;
            to += bits / 8;
            held = (bits < 8 ? held : match) & ones(bits % 8);
            bits %= 8;
        }

        // Four runs at a time, at once where they are short.
        void put_runs(uint64_t mask, const runs_t &runs)
        {
            for (unsigned i = 0; i < runs.count; i += 4) {
                const uint32_t *const run = runs.of + i;
                uint64_t match[4]; // all ones or zeros
                for (unsigned j = 0; j < 4; j++, mask <<= 1)
                    match[j] = static_cast<uint64_t>(static_cast<int64_t>(mask) >> 63);
                const uint64_t half = run[0] + run[1], all = half + run[2] + run[3];
                if (all <= 56)
                    put((match[0] & ones(run[0])) | (match[1] & ones(run[1])) >> run[0] |
                            ((match[2] & ones(run[2])) | (match[3] & ones(run[3])) >> run[2]) >> half,
                        all);
                else
                    for (unsigned j = 0; j < 4; j++)
                        put_run(match[j], run[j]);
            }
        }
    };
};

// The entry's width is the destination's, less the bits above whole bytes.
inline uint64_t index_bits(const kel_vec_t *dst)
{
    return kel_width_bits(dst) & ~uint64_t{7};
}

class index_sink : public sink
{
  public:
    explicit index_sink(const kernel_t &kernel) : sink(kernel), entry_bits(index_bits(kernel.dst)) {}

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

// Keeps what stands behind the end of some stores, below a limit, and puts it back.
class kept_bytes
{
  public:
    static constexpr size_t most = 64; // the widest register

    kept_bytes(uint8_t *end, const void *limit) : place(end)
    {
        if (end < limit)
            size = std::min(most, static_cast<size_t>(static_cast<const uint8_t *>(limit) - end));
        copy(kept, place);
    }

    ~kept_bytes()
    {
        copy(place, kept);
    }

    kept_bytes(const kept_bytes &) = delete;

  private:
    void copy(uint8_t *to, const uint8_t *from) const
    {
        if (size == most) [[likely]]
            memcpy(to, from, most); // at once
        else
            memcpy(to, from, size);
    }

    uint8_t *const place;
    size_t size = 0;
    uint8_t kept[most];
};

// An index list whose entries are whole words, which a block can store by themselves.
template <class Entry>
class entry_sink : public index_sink
{
  public:
    explicit entry_sink(const kernel_t &kernel)
        : index_sink(kernel), put_indexes(choose_producer(kernel.set(), &kernel_set_t::indexes, sizeof(Entry)))
    {
    }

    // Keeps what stands behind the entries of n mask words, until they are put.
    kept_bytes keep(const uint64_t *masks, size_t n)
    {
        return {reinterpret_cast<uint8_t *>(out.buf) + out.cache_bits / 8 + popc_words(masks, n) * sizeof(Entry), end};
    }

    // All or none.
    size_t put_whole(const uint64_t *masks, size_t n)
    {
        const uint64_t ones = popc_words(masks, n), elements = n * block_elements;
        if (n == 0 || !fits(ones + block_elements, elements))
            return 0;
        if (ones > 0) {
            const kept_bytes behind = keep(masks, n);
            auto *start = reinterpret_cast<uint8_t *>(out.buf);
            uint8_t *next = begin(start);
            for (size_t i = 0; i < n; i++)
                if (masks[i] != 0)
                    next = put_indexes(masks[i], index + i * block_elements, next);
            reload(start, next);
        }
        index += elements;
        return n;
    }

    bool put_block(uint64_t mask, uint64_t elements)
    {
        if (!fits(block_elements, block_elements))
            return false;
        if (mask != 0) {
            auto *start = reinterpret_cast<uint8_t *>(out.buf);
            reload(start, put_indexes(mask, index, begin(start)));
        }
        index += elements;
        return true;
    }

    bool put_runs(uint64_t mask, const runs_t &runs, uint64_t &matches)
    {
        if (!fits(runs.sum, runs.sum))
            return false;
        if (mask == 0) {
            index += runs.sum;
            return true;
        }
        auto *start = reinterpret_cast<uint8_t *>(out.buf);
        uint8_t *next = begin(start);
        for (unsigned i = 0; i < runs.count; index += runs.of[i++], mask <<= 1) {
            if (!(mask >> 63))
                continue;
            matches += runs.of[i];
            for (uint64_t j = 0; j < runs.of[i]; j++, next += sizeof(Entry))
                kel_store_be(next, static_cast<Entry>(index + j));
        }
        reload(start, next);
        return true;
    }

  private:
    const index_block_t put_indexes;

    // Whether so many entries have room, and the indexes of so many elements fit in them.
    bool fits(uint64_t entries, uint64_t elements) const
    {
        const auto held = static_cast<ptrdiff_t>(out.cache_bits / 8);
        const ptrdiff_t room = static_cast<uint8_t *>(end) - reinterpret_cast<uint8_t *>(out.buf) - held;
        return room >= 0 && entries <= static_cast<uint64_t>(room) / sizeof(Entry) &&
               index + elements - 1 <= std::numeric_limits<Entry>::max();
    }

    // Where the next entry goes, behind those that the writer holds, which are stored.
    uint8_t *begin(uint8_t *start) const
    {
        kel_store_be(start, out.cache);
        return start + out.cache_bits / 8;
    }

    // Takes the word with the last of the entries between start and next back into the writer, as put leaves it.
    void reload(uint8_t *start, uint8_t *next)
    {
        const size_t words = static_cast<size_t>(next - start - 1) / 8;
        out.buf += words;
        out.cache_bits = 8 * static_cast<uint64_t>(next - start) - 64 * words;
        out.cache = kel_load_be<uint64_t>(out.buf) & kel_shl(~uint64_t{0}, 64 - out.cache_bits);
    }
};

// ---- The end of a kernel --------------------------------------------------------------------------------------------

inline kel_status_t finish(const kernel_t &kernel, sink &to, kel_status_t status, const progress_t &progress)
{
    if (status != KEL_SUCCESS)
        kel_kernel_failed(kernel.ctx, status, progress.stored + 1);
    kel_output_t *aux = kernel.var_dst() ? &to.aux : nullptr;
    status = kel_finish_output(kernel.dst, &to.out, to.end, aux, status, kernel.cca);
    kernel.cca->retval = progress.count;
    kernel.cca->n_processed = static_cast<uint32_t>(progress.processed);
    return status;
}

// ---- From the walk to a sink ----------------------------------------------------------------------------------------

// The walk to a sink. make_visit<Type>(progress) makes what outputs an element; the test for overflow comes before
// each.
template <class Type, class Sink, class MakeVisit>
kel_status_t walk_into(const kernel_t &kernel, Sink &to, bool widths, bool runs, progress_t &progress,
                       const MakeVisit &make_visit)
{
    auto visit = make_visit.template operator()<Type>(progress);
    const auto output = [&](const typename Type::word &element, uint64_t bits, uint64_t run) {
        return to.full() ? KEL_EOVERFLOW : visit(element, bits, run);
    };
    return walk_source<Type>(kernel, widths, runs, progress, output);
}

// The general kernel.
template <class Sink, class MakeVisit>
kel_status_t general_kernel(const kernel_t &kernel, Sink &to, kel_type_t type, kel_fmt_t fmt,
                            const MakeVisit &make_visit)
{
    return with_element_type(kernel, type, fmt, [&]<class Type>(bool widths, bool runs) {
        progress_t progress;
        const kel_status_t status = walk_into<Type>(kernel, to, widths, runs, progress, make_visit);
        return finish(kernel, to, status, progress);
    });
}

} // namespace
