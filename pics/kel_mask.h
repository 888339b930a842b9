// From plain fields to a sink by blocks: every element is tested, and the mask words go to the sink. Elements are
// tested a batch at a time, so that some behind one that ends the kernel are tested, too: a test must bear any element.
#pragma once

#include "kel_block.h"
#include "kel_kernel.h"
#include <iterator>

namespace
{

// The mask words of a source, a batch at a time.
template <class Test>
class mask_source
{
  public:
    mask_source(const kel_vec_t *src, const Test &tested)
        : test(tested), cursor(element_fields(src), src->elements), make(choose_mask_blocks(cursor.shape(), tested))
    {
    }

    // Fills masks and answers the number of elements that they stand for; 0 at the end. The bits of the last word
    // behind the last element are 0.
    uint64_t next(uint64_t (&masks)[block_batch])
    {
        const blocks_t taken = cursor.take(block_batch);
        if (taken.elements == 0)
            return 0;
        make(taken.data, cursor.shape(), test, masks, taken.blocks);
        masks[taken.blocks - 1] &= ~uint64_t{0} << (block_elements * taken.blocks - taken.elements);
        return taken.elements;
    }

  private:
    const Test &test;
    block_cursor cursor;
    mask_blocks_t<Test> make;
};

// A block that the sink refused as a whole.
template <class Sink>
kel_status_t put_elements(Sink &sink, uint64_t mask, uint64_t elements, progress_t &progress)
{
    for (; elements > 0; elements--, mask <<= 1) {
        progress.processed++;
        if (sink.full())
            return KEL_EOVERFLOW;
        const bool match = mask >> 63;
        progress.count += match;
        sink.put(match, 1);
        progress.stored++;
    }
    return KEL_SUCCESS;
}

template <class Sink>
kel_status_t put_blocks(Sink &sink, uint64_t *masks, uint64_t elements, progress_t &progress)
{
    kel_status_t status = KEL_SUCCESS;
    [[maybe_unused]] const auto kept = sink.keep(masks, (elements + block_elements - 1) / block_elements);
    size_t block = 0;
    for (; elements > 0 && status == KEL_SUCCESS; block++) {
        const uint64_t in_block = std::min<uint64_t>(elements, block_elements);
        elements -= in_block;
        if (sink.put_block(masks[block], in_block)) {
            progress.stored += in_block;
            progress.processed += in_block;
        } else {
            status = put_elements(sink, masks[block], in_block, progress);
            masks[block] = 0; // its matches are counted already
        }
    }
    progress.count += popc_words(masks, block);
    return status;
}

// ---- Runs -----------------------------------------------------------------------------------------------------------

// The runs of a source, a block at a time.
class run_source
{
  public:
    explicit run_source(const kel_vec_t *src)
        : cursor(run_fields(src), src->elements), make(choose_element_blocks(cursor.shape(), sizeof *batch)),
          add_one(src->format & KEL_ADD_ONE ? 1 : 0)
    {
    }

    // Moves on by a block, and tells whether none of its runs is 0.
    bool next(runs_t &runs)
    {
        if (at == unpacked)
            unpack();
        const uint32_t *const block = batch + at;
        runs.count = static_cast<unsigned>(std::min<uint64_t>(unpacked - at, block_elements));
        at += runs.count;
        runs.sum = 0;
        uint64_t least = UINT64_MAX;
        for (unsigned i = 0; i < runs.count; i++) {
            runs.of[i] = kel_load_be<uint32_t>(&block[i]) + add_one;
            runs.sum += runs.of[i];
            least = std::min(least, runs.of[i]);
        }
        runs.of[runs.count] = 0;
        return least != 0;
    }

  private:
    void unpack()
    {
        const blocks_t taken = cursor.take(std::size(batch) / block_elements);
        make(taken.data, cursor.shape(), 0, 0, batch, taken.blocks);
        at = 0;
        unpacked = taken.elements;
    }

    block_cursor cursor;
    const element_blocks_t make;
    const uint64_t add_one;
    uint32_t batch[8 * block_elements];
    uint64_t unpacked = 0; // elements of the batch,
    uint64_t at = 0;       // and where the next block starts
};

// A block that was refused as a whole.
template <class Sink>
kel_status_t put_run_elements(Sink &sink, uint64_t mask, const runs_t &runs, progress_t &progress)
{
    for (unsigned i = 0; i < runs.count; i++, mask <<= 1) {
        const uint64_t run = runs.of[i];
        if (run == 0)
            return KEL_EDATAFMT;
        progress.processed += run;
        if (sink.full())
            return KEL_EOVERFLOW;
        const bool match = mask >> 63;
        progress.count += match ? run : 0;
        sink.put(match, run);
        progress.stored++;
    }
    return KEL_SUCCESS;
}

template <class Sink>
kel_status_t put_run_blocks(Sink &sink, const uint64_t *masks, uint64_t elements, run_source &source,
                            progress_t &progress)
{
    kel_status_t status = KEL_SUCCESS;
    for (; elements > 0 && status == KEL_SUCCESS; masks++) {
        runs_t runs;
        const bool sound = source.next(runs);
        elements -= runs.count;
        if (sound && sink.put_runs(*masks, runs, progress.count)) {
            progress.stored += runs.count;
            progress.processed += runs.sum;
        } else {
            status = put_run_elements(sink, *masks, runs, progress);
        }
    }
    return status;
}

// ---- The kernel -----------------------------------------------------------------------------------------------------

// Calls put(masks, elements) with all mask words, batch by batch.
template <class Test, class Put>
kel_status_t for_all_masks(const kernel_t &kernel, const Test &test, const Put &put)
{
    mask_source<Test> source(kernel.src, test);
    uint64_t masks[block_batch];
    kel_status_t status = KEL_SUCCESS;
    while (status == KEL_SUCCESS) {
        const uint64_t elements = source.next(masks);
        if (elements == 0)
            break;
        status = put(masks, elements);
    }
    return status;
}

template <class Sink, class Test>
kel_status_t mask_kernel(const kernel_t &kernel, const Test &test)
{
    Sink to(kernel.dst);
    progress_t progress;
    kel_status_t status;
    if (kernel.src->format & KEL_RLE) {
        run_source runs(kernel.src);
        status = for_all_masks(kernel, test, [&](const uint64_t *masks, uint64_t elements) {
            return put_run_blocks(to, masks, elements, runs, progress);
        });
    } else {
        status = for_all_masks(kernel, test, [&](uint64_t *masks, uint64_t elements) {
            return put_blocks(to, masks, elements, progress);
        });
    }
    return finish(kernel, to, status, progress);
}

// Whether a source's elements can be tested by blocks.
inline bool masks_by_blocks(const kel_vec_t *src, kel_fmt_t fmt)
{
    return plain_fields(src) && (fmt == kel_fmt_fixed || (fmt == kel_fmt_rle && plain_runs(src)));
}

// Whether a destination can take whole mask words: a bit vector, or a list of 2- or 4-byte entries.
inline bool takes_blocks(const kel_vec_t *dst, bool ones)
{
    return !ones || index_bits(dst) == 16 || index_bits(dst) == 32;
}

template <class Test>
kel_status_t mask_kernel(const kernel_t &kernel, const Test &test, bool ones)
{
    if (!ones)
        return mask_kernel<bit_sink>(kernel, test);
    return index_bits(kernel.dst) == 16 ? mask_kernel<entry_sink<uint16_t>>(kernel, test)
                                        : mask_kernel<entry_sink<uint32_t>>(kernel, test);
}

} // namespace
