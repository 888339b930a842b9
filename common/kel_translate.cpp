// Translate: elements looked up in a bitmap.
#include "kel_translate.h"
#include "kel_io.h"
#include "kel_valid.h"
#include "kel_zip.h"
#include <algorithm>

// A source element of 3 bytes is accepted beside the bits.
static constexpr unsigned widest_element_bits = 24;

static bool src_width_valid(uint64_t bits, unsigned version)
{
    return bits != 0 && (bits <= kel_max_elem_bits(version) || bits == widest_element_bits);
}

static int bitmap_valid(kel_context_t *ctx, const kel_vec_t *bitmap, unsigned version, int log)
{
    char fmt[kel_fmt_text_size];
    int valid = kel_test(log, bitmap->elem_width == 1, ctx, "Invalid bitmap width: %u; must be 1", bitmap->elem_width);
    valid &= kel_test(log, bitmap->format == KEL_BITS, ctx, "Invalid bitmap format: %s; must be KEL_BITS",
                      fmt_str(ctx, bitmap->format, fmt, sizeof fmt));
    valid &= kel_test(log, bitmap->offset == 0, ctx, "Invalid bitmap offset %u; must be 0", bitmap->offset);
    valid &= alignment_valid(ctx, bitmap->data, kel_bitmap_align(version), "bitmap data", log);
    valid &= kel_test(log, bitmap->elements <= kel_max_bitmap_elements, ctx,
                      "Invalid bitmap elements %lu; must be <= (1 << 24)", bitmap->elements);
    return valid;
}

static int translate_valid(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                           const kel_vec_t *bitmap, unsigned val_width, kel_queue_t *queue, unsigned version)
{
    constexpr const char *refusal =
        "kel_translate_post() cannot be a pipeline target for a source with pipe flags KEL_PIPE_MASK";
    const pipe_target_t target = {src, bitmap, nullptr, KEL_PIPE_SRC | KEL_PIPE_AUX, refusal};
    return kel_validate([=](auto log) KEL_INLINED {
        const uint64_t width = kel_width_bits(src);
        int valid = thread_valid(ctx, log);
        valid &= flags_valid(ctx, flags, KEL_ONES_INDEX | KEL_INVERT, 0, version, log);
        valid &= chain_valid(ctx, queue, flags, target, version, log);
        valid &= src_valid(ctx, src, 0, KEL_ZIP, "src", version, log);
        valid &= kel_test(log, src_width_valid(width, version), ctx,
                          "Invalid src elem_width %u %s; must be 1-%u bits or 1-3 bytes", src->elem_width,
                          bit_byte_fmt_str(src->format & KEL_BITS), kel_max_elem_bits(version));
        valid &= dst_ones_valid(ctx, flags, dst, version, log);
        valid &= kel_test(log, dst->elements >= src->elements, ctx, "dst elements %lu is less than src elements %lu",
                          dst->elements, src->elements);
        valid &= kel_test(log, val_width <= width && val_width <= widest_element_bits, ctx, "Invalid val_width: %lu",
                          static_cast<unsigned long>(val_width));
        valid &= bitmap_valid(ctx, bitmap, version, log);
        return valid;
    });
}

// The first element with some fault, if there is one.
struct element_fault {
    bool found = false;
    uint32_t index = 0;
    uint32_t value = 0;

    void note(bool faulty, uint32_t at, uint32_t shown)
    {
        if (faulty && !found)
            *this = {true, at, shown};
    }
};

struct element_faults {
    element_fault past_bitmap;
    element_fault high_bits;
};

// Elements that can be read. Kept: counts are looked at in 32 bits. A compressed source, which is refused unless
// arguments are unchecked, has as many as its codewords have bits for, and without a codec none.
static uint32_t readable_elements(const kel_vec_t *src)
{
    const auto elements = static_cast<uint32_t>(src->elements);
    const uint64_t width = kel_width_bits(src);
    if (!(src->format & KEL_ZIP) || width == 0)
        return elements;
    if (!src->codec)
        return 0;
    const uint64_t stream_bits = src->codewords * zip_code_width(src->codec->nsyms);
    return static_cast<uint32_t>(std::min<uint64_t>(elements, stream_bits / width));
}

// Kept: elements are looked at in 32 bits, and of a run-length source the stored ones.
static element_faults find_faults(kel_context_t *ctx, const kel_vec_t *src, uint32_t bitmap_len, uint32_t high_mask)
{
    element_faults faults;
    const uint32_t elements = readable_elements(src);
    if (elements == 0)
        return faults;
    kel_input_t in;
    kelio_vec_input(ctx, src, src->data, 1, &in);
    for (uint32_t i = 0; i < elements && !(faults.past_bitmap.found && faults.high_bits.found); i++) {
        const auto v = static_cast<uint32_t>(kelio_get_qword(&in, kel_width_bits(src)).lo);
        faults.past_bitmap.note(v >= bitmap_len, i, v);
        faults.high_bits.note(v & high_mask, i, v & high_mask);
    }
    return faults;
}

static int translate_valid_extra(kel_context_t *ctx, uint64_t, const kel_vec_t *src, const kel_vec_t *dst,
                                 const kel_vec_t *bitmap, unsigned val_width, unsigned)
{
    const uint64_t width = kel_width_bits(src);
    const auto bitmap_len = static_cast<uint32_t>(bitmap->elements);
    const bool width_ok = src_width_valid(width, ctx->api_version);
    const bool val_ok = val_width != 0 && !(width_ok && val_width > width);
    const bool narrow_val = width_ok && val_ok && val_width < width;
    const uint32_t high_mask = narrow_val ? static_cast<uint32_t>(~uint64_t{0} << val_width) : 0;

    int valid = aux_valid_extra(ctx, src, dst, ctx->api_version);
    element_faults faults;
    if (narrow_val || kel_shl(1, std::min<uint64_t>(width, val_width)) > bitmap_len)
        faults = find_faults(ctx, src, bitmap_len, high_mask);

    valid &= kel_test(1, !vec_overlap(src, dst), ctx, "src and dst vectors overlap");
    valid &= kel_test(1, !aux_overlap(src, dst), ctx, "aux and dst vectors overlap");
    valid &= kel_test(1, !vec_overlap(bitmap, dst), ctx, "bitmap and dst vectors overlap");
    valid &= kel_test(1, !faults.past_bitmap.found, ctx,
                      "src element at index %u has value %u which references past the bitmap length %u",
                      faults.past_bitmap.index, faults.past_bitmap.value, bitmap_len);
    valid &= kel_test(1, width_ok, ctx, "Invalid src elem_width %u %s; must be 1-%u bits or 3 bytes", src->elem_width,
                      bit_byte_fmt_str(src->format & KEL_BITS), kel_max_elem_bits(ctx->api_version));
    valid &= kel_test(1, val_ok, ctx, "Invalid val_width: %u", val_width);
    valid &= kel_test(1, !faults.high_bits.found, ctx,
                      "High order bits in src element at index %u above val_width(%u) bits are non-zero(%u)",
                      faults.high_bits.index, val_width, faults.high_bits.value);
    return valid;
}

struct translate_op {
    struct args {
        const kel_vec_t *src;
        const kel_vec_t *dst;
        const kel_vec_t *bitmap;
        uint32_t val_width;
    };

    static bool given(kel_context_t *ctx, const args &a)
    {
        return kel_given(ctx, {{"src", a.src}, {"dst", a.dst}, {"bitmap", a.bitmap}});
    }

    static constexpr char return_format[] = "kel_translate() returns {%s, count=%ld}";
    static constexpr char post_return_format[] = "kel_translate_post() returns %s";

    static void log_entry(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        char vectors[kel_args_text_size];
        char bitmap[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_translate(): %s,\n  bitmap = %s,\n  val_width=%u",
                    entry_args_str(ctx, flags, a.src, a.dst, vectors, sizeof vectors),
                    bv_args_str(ctx, a.bitmap, bitmap, sizeof bitmap), a.val_width);
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t flags, const args &a, const void *udata)
    {
        char vectors[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_translate_post(): %s\n  bitmap=0x%lx  val_width=%u  udata=0x%lx",
                    entry_args_str(ctx, flags, a.src, a.dst, vectors, sizeof vectors), kel_log_ptr(a.bitmap->data),
                    a.val_width, kel_log_ptr(udata));
    }

    static int valid(kel_context_t *ctx, uint64_t flags, const args &a, kel_queue_t *queue, unsigned version)
    {
        return translate_valid(ctx, flags, a.src, a.dst, a.bitmap, a.val_width, queue, version);
    }

    static int valid_extra(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        return translate_valid_extra(ctx, flags, a.src, a.dst, a.bitmap, a.val_width, ctx->api_version);
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t flags, const args &a, cca_t *cca)
    {
        return kel_translate_emulate(ctx, flags, a.src, a.dst, a.bitmap, a.val_width, cca);
    }

    static void *pipe_dst(const args &a)
    {
        return a.dst->data;
    }

    static void request(const args &a, kel_request_t *request)
    {
        request->cmd = KEL_CMD_TRANSLATE;
        request->src = *a.src;
        request->dst = *a.dst;
        request->arg.translate = {*a.bitmap, a.val_width};
    }
};

kel_result_t kel_translate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                           const kel_vec_t *bitmap, uint32_t val_width)
{
    return kel_execute<translate_op>(ctx, flags, {src, dst, bitmap, val_width});
}

kel_status_t kel_translate_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                const kel_vec_t *bitmap, uint32_t val_width, void *udata)
{
    return kel_post<translate_op>(queue, flags, {src, dst, bitmap, val_width}, udata);
}
