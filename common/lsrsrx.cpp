// A heap sort. Which elements it compares, and in which order, decides where equal ones end up, and so the bytes of
// trained dictionaries: kept as it is.
#include "vorp.h"

namespace
{

// A heap with the greatest element in front. Positions are counted from 1: the parent of i is i / 2.
struct heap {
    uint8_t *base;
    uint64_t n;
    uint64_t size; // bytes of an element
    vorp_cmp_func cmp;
    void *ctx;

    void *at(uint64_t position) const
    {
        return base + (position - 1) * size;
    }

    bool above(uint64_t a, uint64_t b) const
    {
        return static_cast<int32_t>(cmp(ctx, at(a), at(b))) > 0;
    }

    void swap(uint64_t a, uint64_t b) const
    {
        slmeswap(at(a), at(b), size);
    }

    void rise(uint64_t position) const
    {
        for (; position > 1 && above(position, position / 2); position /= 2)
            swap(position, position / 2);
    }

    // Of equal children the right one is taken.
    void sink() const
    {
        uint64_t parent = 1;
        for (uint64_t child = 2; child <= n; child *= 2) {
            if (child < n && !above(child, child + 1))
                child++;
            if (!above(child, parent))
                break;
            swap(child, parent);
            parent = child;
        }
    }
};

} // namespace

void lsrsrx(void *base, uint64_t n, uint64_t size, vorp_cmp_func cmp, void *ctx)
{
    heap all = {static_cast<uint8_t *>(base), n, size, cmp, ctx};
    for (uint64_t position = 2; position <= n; position++)
        all.rise(position);
    while (all.n > 1) {
        all.swap(1, all.n--);
        all.sink();
    }
}
