// From plain fields to a sink by blocks: every element is tested, and the mask words go to the sink. Elements are
// tested a batch at a time, so that some behind one that finds no room any more are tested, too.
#pragma once

#include "kel_block.h"
#include "kel_kernel.h"

namespace
{

// The mask words of a source, a batch at a time.
template <class Test>
class mask_source
{
  public:
    mask_source(const kel_vec_t *src, const Test &tested)
        : test(tested), cursor(src, src->elements), make(choose_mask_blocks(cursor.shape(), tested))
    {
    }

    // Fills masks and answers the number of elements that they stand for; 0 at the end. The bits of the last word
    // behind the last element are 0.
    uint64_t next(uint64_t (&masks)[block_batch])
    {
        const blocks_t taken = cursor.take(block_batch);
        if (taken.elements == 0)
            return 0;
        make(taken.fields, test, masks, taken.blocks);
        masks[taken.blocks - 1] &= ~uint64_t{0} << (block_elements * taken.blocks - taken.elements);
        return taken.elements;
    }

  private:
    const Test test;
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

template <class Sink, class Test>
kel_status_t mask_kernel(const kernel_t &kernel, const Test &test)
{
    Sink to(kernel.dst);
    progress_t progress;
    mask_source<Test> source(kernel.src, test);
    uint64_t masks[block_batch];
    kel_status_t status = KEL_SUCCESS;
    while (status == KEL_SUCCESS) {
        const uint64_t elements = source.next(masks);
        if (elements == 0)
            break;
        status = put_blocks(to, masks, elements, progress);
    }
    return finish(kernel, to, status, progress);
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
