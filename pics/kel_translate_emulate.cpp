// The kernels of translate, and of its form with a test value.
#include "kel_mask.h"
#include "kel_translate.h"

namespace
{

// What an element is looked up in. With a test value, the bits of index_mask select the bit, and an element whose bits
// above them differ from the value does not hit.
struct lookup_t : bitmap_t {
    bool tested = false;
    uint64_t index_mask = ~uint64_t{0};
    unsigned index_bits = 0;
    uint64_t test_value = 0;

    bool hit(uint64_t element) const
    {
        const uint64_t index = element & index_mask;
        const bool passed = !tested || kel_shr(element, index_bits) == test_value;
        const bool bit = (data[index >> 3] << (index & 7) & 0x80) != 0;
        return (bit && passed) != negated;
    }
};

template <class Sink>
kel_status_t general_translate(const kernel_t &kernel, const lookup_t &lookup, kel_type_t type, kel_fmt_t fmt)
{
    Sink to(kernel);
    return general_kernel(kernel, to, type, fmt, [&]<class Type>(progress_t &progress) {
        return [lookup, &to, &progress](const typename Type::word &element, uint64_t, uint64_t run) {
            const bool hit = lookup.hit(Type::low(element));
            progress.count += hit ? run : 0;
            to.put(hit, run);
            return KEL_SUCCESS;
        };
    });
}

// Whether elements may be looked up that are never reached: if none can be behind the bitmap, or if all are reached.
bool bears_all(const kernel_t &kernel, const lookup_t &lookup, kel_fmt_t fmt)
{
    const uint64_t width = kel_width_bits(kernel.src);
    return (width < 64 && lookup.bits >> width != 0) ||
           (fmt == kel_fmt_fixed && kernel.dst->elements >= kernel.src->elements);
}

kel_status_t run_kernel(const kernel_t &kernel, const lookup_t &lookup, kel_type_t type, kel_fmt_t fmt, bool ones)
{
    if (kernel.set() && !lookup.tested && plain_fields(kernel.src) && masks_by_blocks(kernel.src, fmt) &&
        takes_blocks(kernel.dst, ones) && bears_all(kernel, lookup, fmt))
        return mask_kernel<bitmap_t>(kernel, lookup, ones);
    return ones ? general_translate<index_sink>(kernel, lookup, type, fmt)
                : general_translate<bit_sink>(kernel, lookup, type, fmt);
}

kel_status_t emulate(kernel_t &&kernel, uint64_t flags, lookup_t &lookup, const char *verbose_line)
{
    const uint64_t wide = kel_dispatch_bytes(kernel.src);
    if (kernel.ctx->log.options & KEL_LOG_VERBOSE)
        kel_log_msg(kernel.ctx, KEL_LOG_VERBOSE, "%s", verbose_line);

    const auto type = static_cast<kel_type_t>(kel_class(wide) / 2);
    const kel_fmt_t fmt = kel_dispatch_fmt(kernel.src);
    const bool ones = flags & KEL_ONES_INDEX;
    lookup.negated = flags & KEL_INVERT;
    kernel.ext = kel_dispatch_ext(kernel.ctx, kernel.src);
    return with_plain_source(kernel, type, fmt, [&] { return run_kernel(kernel, lookup, type, fmt, ones); });
}

} // namespace

kel_status_t kel_translate_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                   const kel_vec_t *bitmap, unsigned, cca_t *cca)
{
    lookup_t lookup = {{static_cast<const uint8_t *>(bitmap->data), bitmap->elements, false}};
    return emulate({ctx, src, dst, 0, cca}, flags, lookup, "Emulating kel_translate");
}

static constexpr char testval_line[] = "Emulating kel_translate_testval";

kel_status_t kel_translate_testval_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src,
                                           const kel_vec_t *dst, const void *bitmap, unsigned val_width,
                                           uint64_t test_value, cca_t *cca)
{
    const uint64_t index_mask = (uint64_t{1} << (val_width % 32)) - 1; // kept: the mask is made in 32 bits
    lookup_t lookup = {{static_cast<const uint8_t *>(bitmap), 0, false}, true, index_mask, val_width, test_value};
    return emulate({ctx, src, dst, 0, cca}, flags, lookup, testval_line);
}

kel_status_t kel_translate_testval(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                   const void *bitmap, int val_width, uint64_t test_value, cca_t *cca)
{
    kel_log_line(ctx, KEL_LOG_VERBOSE, "%s", testval_line);
    return kel_translate_testval_emulate(ctx, flags, src, dst, bitmap, static_cast<unsigned>(val_width), test_value,
                                         cca);
}
