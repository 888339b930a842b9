// Scans: the values that elements are compared with, and the public calls.
#include "kel_scan.h"
#include "kel_io.h"
#include "kel_valid.h"

// ---- Values ---------------------------------------------------------------------------------------------------------

static int kel_int_create_valid(kel_context_t *ctx, size_t len)
{
    return kel_validate([=](auto do_log) KEL_INLINED {
        int valid =
            kel_test(do_log, len >= 1 && len <= kel_max_int_bytes, ctx, "Invalid len %ld", static_cast<long>(len));
        valid &= thread_valid(ctx, do_log);
        return valid;
    });
}

static uint64_t big_endian(const uint8_t *bytes, size_t len)
{
    uint64_t word = 0;
    for (size_t i = 0; i < len; i++)
        word = word << 8 | bytes[i];
    return word;
}

static kel_status_t int_create(kel_context_t *ctx, const uint8_t *bytes, size_t len, kel_int_t *val)
{
    if (ctx->debug_options && !kel_int_create_valid(ctx, len))
        return kel_owner(ctx) ? KEL_EINVAL : KEL_ETHREAD;
    if (!kel_given(ctx, {{"buf", bytes}, {"val", val}}))
        return KEL_EINVAL;
    val->format = KEL_BYTES;
    val->elem_width = static_cast<uint32_t>(len);
    const size_t above = len > 8 ? len - 8 : 0; // bytes above the last word
    if (above > 0)
        val->dword[1] = big_endian(bytes, above);
    val->dword[2] = big_endian(bytes + above, len - above);
    return KEL_SUCCESS;
}

kel_status_t kel_int_create(kel_context_t *ctx, const void *buf, size_t len, kel_int_t *val)
{
    kel_log_line(ctx, KEL_LOG_ENTRY, "kel_int_create(): ctx=0x%lx, buf=0x%lx, len=%ld, val=0x%lx", kel_log_ptr(ctx),
                 kel_log_ptr(buf), static_cast<long>(len), kel_log_ptr(val));
    const kel_status_t status = int_create(ctx, static_cast<const uint8_t *>(buf), len, val);
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_int_create() returns %s", kel_status_str(status));
    return status;
}

// The word of a value that holds its top, if that has bits above the value's whole bytes; such bits are to be zero. A
// value whose bytes end at a word's border has none.
static bool val_valid(const kel_int_t *val)
{
    const uint64_t bits = kel_width_bits(val);
    const uint64_t rounded = kel_round_bits(bits);
    if (bits > 192 || rounded % 64 == 0)
        return true;
    return val->dword[2 - rounded / 64] >> (rounded % 64) == 0;
}

// ---- Validation -----------------------------------------------------------------------------------------------------

KEL_INLINED static inline int val_shape_valid(kel_context_t *ctx, const kel_int_t *val, const char *name,
                                              unsigned version, int log)
{
    char fmt[kel_fmt_text_size];
    int valid = kel_test(log, val->format <= KEL_BITS, ctx, "Invalid %s format: %s; must be KEL_BITS or KEL_BYTES",
                         name, fmt_str(ctx, val->format & ~KEL_BITS, fmt, sizeof fmt));
    valid &= kel_test(log, width_valid(val->format, val->elem_width, version), ctx,
                      "Invalid %s elem_width %u %s; must be 1-%u bits or 1-%u bytes", name, val->elem_width,
                      bit_byte_fmt_str(val->format & KEL_BITS), kel_max_elem_bits(version), kel_max_elem_bytes);
    return valid;
}

// The arguments of the scans. upper is null for a scan with one value.
struct scan_args {
    const kel_vec_t *src;
    const kel_vec_t *dst;
    kel_compare_t op;
    const kel_int_t *val;
    const kel_int_t *upper;
};

static int scan_valid(kel_context_t *ctx, uint64_t flags, const scan_args &a, kel_queue_t *queue, unsigned version)
{
    constexpr const char *refusal =
        "kel_scan_{value/range}_post() cannot be a pipeline target for a source with pipe flags KEL_PIPE_MASK";
    const pipe_target_t target = {a.src, nullptr, nullptr, KEL_PIPE_SRC | KEL_PIPE_AUX, refusal};
    return kel_validate([=, &a](auto log) KEL_INLINED {
        const uint32_t ops = a.upper ? kel_range_ops : kel_value_ops;
        const unsigned op_bit = static_cast<uint32_t>(a.op) % 32; // kept: an operator is tested modulo 32

        int valid = src_valid(ctx, a.src, KEL_VAR, 0, "src", version, log);
        valid &= dst_ones_valid(ctx, flags, a.dst, version, log);
        valid &= thread_valid(ctx, log);
        valid &= kel_test(log, ops >> op_bit & 1, ctx, "Invalid op %s", scan_op_str(ctx, a.op, nullptr, 0));
        valid &=
            kel_test(log, a.dst->elements >= a.src->elements, ctx, "dst elements %ld is less than src elements %ld",
                     static_cast<long>(a.dst->elements), static_cast<long>(a.src->elements));
        valid &= flags_valid(ctx, flags, KEL_ONES_INDEX, 0, version, log);
        valid &= chain_valid(ctx, queue, flags, target, version, log);
        if (a.upper)
            valid &= val_shape_valid(ctx, a.upper, "upper", version, log);
        valid &= val_shape_valid(ctx, a.val, a.upper ? "lower" : "val", version, log);
        return valid;
    });
}

static int val_content_valid(kel_context_t *ctx, const kel_int_t *val, const char *name)
{
    const uint64_t bits = kel_width_bits(val);
    return kel_test(1, val_valid(val), ctx, "Invalid %s->dword[%u]: bytes above elem_width %u %s are non-zero", name,
                    static_cast<unsigned>(2 - (bits - 1) / 64), val->elem_width,
                    bit_byte_fmt_str(val->format & KEL_BITS));
}

static int scan_valid_extra(kel_context_t *ctx, const scan_args &a)
{
    int valid = aux_valid_extra(ctx, a.src, a.dst, ctx->api_version);
    valid &= kel_test(1, !vec_overlap(a.src, a.dst), ctx, "Invalid src or dst: src data and dst data overlap");
    valid &= kel_test(1, !aux_overlap(a.src, a.dst), ctx, "Invalid src or dst: src aux_data and dst data overlap");
    valid &= val_content_valid(ctx, a.val, a.upper ? "lower" : "val");
    if (a.upper)
        valid &= val_content_valid(ctx, a.upper, "upper");
    return valid;
}

// ---- The two operations ---------------------------------------------------------------------------------------------

// What the two scans have in common.
struct scan_op {
    using args = scan_args;

    static int valid(kel_context_t *ctx, uint64_t flags, const args &a, kel_queue_t *queue, unsigned version)
    {
        return scan_valid(ctx, flags, a, queue, version);
    }

    static int valid_extra(kel_context_t *ctx, uint64_t, const args &a)
    {
        return scan_valid_extra(ctx, a);
    }

    static const kel_vec_t *diagnosed(const args &a)
    {
        return a.src;
    }

    static void *pipe_dst(const args &a)
    {
        return a.dst->data;
    }

    // The arguments as entry lines show them.
    struct texts {
        texts(kel_context_t *ctx, uint64_t flags, const args &a) : op(scan_op_str(ctx, a.op, nullptr, 0))
        {
            entry_args_str(ctx, flags, a.src, a.dst, vectors, sizeof vectors);
            val_str(ctx, a.val, val, sizeof val);
            if (a.upper)
                val_str(ctx, a.upper, upper, sizeof upper);
        }

        const char *op;
        char vectors[kel_args_text_size];
        char val[kel_args_text_size];
        char upper[kel_args_text_size];
    };
};

struct scan_value_op : scan_op {
    static constexpr char return_format[] = "kel_scan_value() returns {%s, count=%ld}";
    static constexpr char post_return_format[] = "kel_scan_value_post() returns {%s}";

    static bool given(kel_context_t *ctx, const args &a)
    {
        return kel_given(ctx, {{"src", a.src}, {"dst", a.dst}, {"val", a.val}});
    }

    static void log_entry(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        const texts t(ctx, flags, a);
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_scan_value(): %s, \n  op=%s,\n  val = %s", t.vectors, t.op, t.val);
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t flags, const args &a, const void *udata)
    {
        const texts t(ctx, flags, a);
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_scan_value_post(): %s, \n  op=%s,\n  val=%s\n  udata=0x%lx", t.vectors,
                    t.op, t.val, kel_log_ptr(udata));
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t flags, const args &a, cca_t *cca)
    {
        return kel_scan_value_emulate(ctx, flags, a.src, a.dst, a.op, a.val, cca);
    }

    static void request(const args &a, kel_request_t *request)
    {
        request->cmd = KEL_CMD_SCAN_VALUE;
        request->src = *a.src;
        request->dst = *a.dst;
        request->arg.scan_value = {a.op, *a.val};
    }
};

struct scan_range_op : scan_op {
    static constexpr char return_format[] = "kel_scan_range() returns {%s, count=%ld}";
    static constexpr char post_return_format[] = "kel_scan_range_post returns {%s}";

    static bool given(kel_context_t *ctx, const args &a)
    {
        return kel_given(ctx, {{"src", a.src}, {"dst", a.dst}, {"lower", a.val}, {"upper", a.upper}});
    }

    static void log_entry(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        const texts t(ctx, flags, a);
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_scan_range(): %s, \n  op=%s,\n  lower = %s,\n  upper = %s", t.vectors,
                    t.op, t.val, t.upper);
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t flags, const args &a, const void *udata)
    {
        const texts t(ctx, flags, a);
        kel_log_msg(ctx, KEL_LOG_ENTRY,
                    "kel_scan_range_post(): %s, \n  op=%s,\n  lower = %s,\n  upper = %s\n  udata = 0x%lx", t.vectors,
                    t.op, t.val, t.upper, kel_log_ptr(udata));
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t flags, const args &a, cca_t *cca)
    {
        return kel_scan_range_emulate(ctx, flags, a.src, a.dst, a.op, a.val, a.upper, cca);
    }

    static void request(const args &a, kel_request_t *request)
    {
        request->cmd = KEL_CMD_SCAN_RANGE;
        request->src = *a.src;
        request->dst = *a.dst;
        request->arg.scan_range = {a.op, *a.val, *a.upper};
    }
};

kel_result_t kel_scan_value(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                            kel_compare_t op, const kel_int_t *val)
{
    return kel_execute<scan_value_op>(ctx, flags, {src, dst, op, val, nullptr});
}

kel_result_t kel_scan_range(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                            kel_compare_t op, const kel_int_t *lower, const kel_int_t *upper)
{
    return kel_execute<scan_range_op>(ctx, flags, {src, dst, op, lower, upper});
}

kel_status_t kel_scan_value_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                 kel_compare_t op, const kel_int_t *val, void *udata)
{
    return kel_post<scan_value_op>(queue, flags, {src, dst, op, val, nullptr}, udata);
}

kel_status_t kel_scan_range_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                 kel_compare_t op, const kel_int_t *lower, const kel_int_t *upper, void *udata)
{
    return kel_post<scan_range_op>(queue, flags, {src, dst, op, lower, upper}, udata);
}
