// The road of runs: elements that are moved again and again.
//
// What is stored of a run is at least one store of copies, and the next run is stored over what was too much. A mask
// makes the runs that it leaves out empty.
#pragma once

#include "kel_move.h"

namespace
{

template <unsigned bytes>
class run_mover
{
  public:
    explicit run_mover(const move_t &move) : source(move.set(), move.src) {}

    // The elements of some mask words.
    template <class Elements>
    kel_status_t operator()(Elements &elements, const uint64_t *masks, uint64_t count, byte_sink<bytes> &to,
                            progress_t &progress)
    {
        kel_status_t status = KEL_SUCCESS;
        const uint8_t *from = elements.next(count);
        for (; count > 0 && status == KEL_SUCCESS; masks++, from += block_elements * bytes) {
            runs_t runs;
            const bool sound = source.next(runs);
            count -= runs.count;
            uint32_t masked[block_elements];
            const bool all = *masks == ~uint64_t{0} << (block_elements - runs.count);
            const uint64_t sum = all ? runs.sum : take(runs, *masks, masked);
            if (!sound || sum + copies<bytes>::size / bytes >= to.room()) {
                status = move_elements(from, *masks, runs.of, runs.count, to, progress);
                continue;
            }
            const kept_bytes behind(to.to + sum * bytes, to.end);
            to.to = move(from, all ? runs.of : masked, runs.count, to.to);
            progress.stored += runs.count;
            progress.processed += runs.sum;
        }
        return status;
    }

  private:
    static_assert(copies<bytes>::size <= kept_bytes::most);

    // What a mask takes of runs, and its sum.
    static uint64_t take(const runs_t &runs, uint64_t mask, uint32_t *taken)
    {
        uint64_t sum = 0;
        for (unsigned i = 0; i < runs.count; i++, mask <<= 1) {
            taken[i] = static_cast<uint32_t>(static_cast<int64_t>(mask) >> 63) & runs.of[i];
            sum += taken[i];
        }
        return sum;
    }

    // A block with room for all of its runs, as often as they are taken.
    static uint8_t *move(const uint8_t *from, const uint32_t *taken, unsigned count, uint8_t *to)
    {
        for (unsigned i = 0; i < count; i++, from += bytes) {
            const uint64_t size = uint64_t{taken[i]} * bytes;
            copies<bytes>(from).put(to, size);
            to += size;
        }
        return to;
    }

    run_source source;
};

} // namespace
