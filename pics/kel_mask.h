// The road of mask words: the elements of a source are tested by blocks, and the mask words go to a sink. A whole batch
// is tested before its first mask word is put. So elements are tested that the sink has no room for: a test must do no
// harm with any element.
#pragma once

#include "kel_sink.h"

namespace
{

// A block that the sink refused as a whole. runs: one for each element; null: all are 1.
template <class Sink>
kel_status_t put_elements(Sink &sink, uint64_t mask, const uint32_t *runs, uint64_t elements, progress_t &progress)
{
    for (uint64_t i = 0; i < elements; i++, mask <<= 1) {
        const uint64_t run = runs ? runs[i] : 1;
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

// Inlined, so that what the sink and the progress hold stays in registers.
template <class Sink>
[[gnu::always_inline]] inline kel_status_t put_blocks(Sink &sink, uint64_t *masks, uint64_t elements,
                                                      progress_t &progress)
{
    kel_status_t status = KEL_SUCCESS;
    size_t block = sink.put_whole(masks, elements / block_elements);
    const uint64_t whole = block * block_elements;
    elements -= whole;
    progress.stored += whole;
    progress.processed += whole;
    [[maybe_unused]] const auto kept = sink.keep(masks + block, (elements + block_elements - 1) / block_elements);
    for (; elements > 0 && status == KEL_SUCCESS; block++) {
        const uint64_t in_block = std::min<uint64_t>(elements, block_elements);
        elements -= in_block;
        if (sink.put_block(masks[block], in_block)) {
            progress.stored += in_block;
            progress.processed += in_block;
        } else {
            status = put_elements(sink, masks[block], nullptr, in_block, progress);
            masks[block] = 0; // its matches are counted already
        }
    }
    progress.count += popc_words(masks, block);
    return status;
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
            status = put_elements(sink, *masks, runs.of, runs.count, progress);
        }
    }
    return status;
}

// ---- The kernel -----------------------------------------------------------------------------------------------------

// Calls put(masks, elements) with all mask words, batch by batch.
template <class Source, class Put>
kel_status_t for_all_masks(Source &source, const Put &put)
{
    uint64_t masks[Source::batch];
    kel_status_t status = KEL_SUCCESS;
    while (status == KEL_SUCCESS) {
        const uint64_t elements = source.next(masks);
        if (elements == 0)
            break;
        status = put(masks, elements);
    }
    return status;
}

// Puts all mask words of a source without runs.
template <class Sink, class Source>
kel_status_t put_all_masks(Sink &to, Source &source, progress_t &progress)
{
    return for_all_masks(source,
                         [&](uint64_t *masks, uint64_t elements) { return put_blocks(to, masks, elements, progress); });
}

template <class Sink, class Test>
kel_status_t mask_kernel(const kernel_t &kernel, const Test &test)
{
    Sink to(kernel);
    progress_t progress;
    mask_source<Test> source(kernel.set(), kernel.src, test);
    kel_status_t status;
    if (kernel.src->format & KEL_RLE) {
        run_source runs(kernel.set(), kernel.src);
        status = for_all_masks(source, [&](const uint64_t *masks, uint64_t elements) {
            return put_run_blocks(to, masks, elements, runs, progress);
        });
    } else {
        status = put_all_masks(to, source, progress);
    }
    return finish(kernel, to, status, progress);
}

// Whether a source's elements can be tested by blocks, if they are plain or wide fields.
inline bool masks_by_blocks(const kel_vec_t *src, kel_fmt_t fmt)
{
    return fmt == kel_fmt_fixed || (fmt == kel_fmt_rle && plain_aux(src));
}

// Whether a destination can take whole mask words: a bit vector, or a list of 2- or 4-byte entries.
inline bool takes_blocks(const kel_vec_t *dst, bool ones)
{
    return !ones || index_bits(dst) == 16 || index_bits(dst) == 32;
}

// Calls run<Sink>() with the sink of a destination that takes blocks.
template <class Run>
kel_status_t with_block_sink(const kel_vec_t *dst, bool ones, const Run &run)
{
    if (!ones)
        return run.template operator()<bit_sink>();
    return index_bits(dst) == 16 ? run.template operator()<entry_sink<uint16_t>>()
                                 : run.template operator()<entry_sink<uint32_t>>();
}

template <class Test>
kel_status_t mask_kernel(const kernel_t &kernel, const Test &test, bool ones)
{
    return with_block_sink(kernel.dst, ones, [&]<class Sink>() { return mask_kernel<Sink>(kernel, test); });
}

} // namespace
