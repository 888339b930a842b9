// The published limits of each interface version.
#include "kel_frame.h"
#include "kel_platform.h"

namespace
{

constexpr unsigned floor_log2(unsigned value)
{
    return value > 1 ? 1 + floor_log2(value / 2) : 0;
}

constexpr kel_props_t make_props(unsigned version)
{
    const bool v2 = version == 2;
    return {
        .ones_saturates = 1,
        .max_elem_bits = kel_max_elem_bits(version),
        .max_elem_bytes = kel_max_elem_bytes,
        .max_log_elem_bytes = floor_log2(kel_max_elem_bytes),
        .max_var_elem_bytes = kel_max_elem_bytes,
        .max_rle_elem_bits = kel_max_aux_bits,
        .max_width_elem_bits = kel_max_aux_bits,
        .max_scan_value_bytes = kel_max_int_bytes,
        .dst_align = kel_dst_align,
        .dst_pad = kel_dst_align,
        .trans_bitmap_align = kel_bitmap_align(version),
        .zip_align = kel_zip_align,
        .large_elem_align = kel_large_elem_align,
        .zip_constrained = v2 ? 0u : 1u,
        .zip_native = v2 ? 1u : 0u,
        .max_native_bitmap = kel_published_bitmap(version),
        .max_zip_symbols = kel_max_zip_symbols,
        .max_src_len = kel_published_src_len,
        .max_dst_len = kel_published_dst_len,
        .debug_options = kel_debug_options,
        .log_options = kel_log_levels,
        .max_zip_contig = kel_max_zip_contig(version),
        .trans_bitmap_align_best = kel_bitmap_align_best(version),
        .zip_align_best = kel_zip_align_best(version),
        .pipe = v2 ? 1u : 0u,
    };
}

constexpr kel_props_t kel1_props = make_props(1);
constexpr kel_props_t kel2_props = make_props(2);

} // namespace

void kel1_get_props(kel_context_t *, kel_props_t *props)
{
    *props = kel1_props;
}

void kel2_get_props(kel_context_t *, kel_props_t *props)
{
    *props = kel2_props;
}

// Unlike elsewhere the owner test stands before the entry line, and a failure of it reaches no hook.
kel_status_t kel_get_props(kel_context_t *ctx, kel_props_t *props)
{
    kel_status_t status = KEL_SUCCESS;
    if (ctx->debug_options && !kel_owner(ctx)) {
        log_wrong_thread(ctx);
        status = KEL_ETHREAD;
    } else {
        kel_log_line(ctx, KEL_LOG_ENTRY, "kel_get_props(): ctx=0x%lx, props=0x%lx", kel_log_ptr(ctx),
                     kel_log_ptr(props));
        if (ctx->api_version == 2)
            kel2_get_props(ctx, props);
        else if (ctx->api_version == 1)
            kel1_get_props(ctx, props);
        else
            kel_assert_fail("0", "common/kel.cpp", 247, __func__);
    }
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_get_props() returns %s", kel_status_str(status));
    return status;
}
