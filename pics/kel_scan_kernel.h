// The scans: kernels for every type, format and output, the road of blocks beside them, and the choice between them.
//
// The general kernel goes element by element and is the definition of correct. Sources of fixed width up to 64 bits
// take the road of blocks, with the same bytes, counters, statuses and messages.
#pragma once

#include "kel_block.h"
#include "kel_platform.h"
#include "kel_predicate.h"
#include "kel_scan.h"
#include "kel_sink.h"

namespace
{

// What a scan is about, once its operator has been looked up; val has one or two values.
struct scan_t {
    kel_context_t *ctx;
    const kel_vec_t *src;
    const kel_vec_t *dst;
    const kel_int_t *val[2];
    operator_t op;
    unsigned ext;
    cca_t *cca;
};

// ---- Element types --------------------------------------------------------------------------------------------------
//
// A type reads an element (get), takes a value apart (value), and orders the two by their bytes (order); widths are in
// bits.

template <class Word, int (*cmp)(Word, Word)>
struct word_order {
    static int order(Word element, uint64_t bits, Word value, uint64_t value_bits)
    {
        const uint64_t rounded = kel_round_bits(bits);
        const uint64_t value_rounded = kel_round_bits(value_bits);
        if (value_rounded > rounded)
            value = kel_word_shift(value, false, value_rounded - rounded);
        else
            element = kel_word_shift(element, false, rounded - value_rounded);
        return cmp(element, value);
    }

    static int tie(uint64_t bits, uint64_t value_bits)
    {
        return dword_cmp(kel_round_bits(bits), kel_round_bits(value_bits));
    }
};

// A word of a value, 0 if the value is too narrow to have it.
inline uint64_t value_word(const kel_int_t *val, unsigned word)
{
    return kel_width_bits(val) >= 64 * (2 - word) ? val->dword[word] : 0;
}

struct uint64_unalign : word_order<uint64_t, dword_cmp> {
    using word = uint64_t;
    static constexpr int cached = 1;

    static word get(kel_input_t *in, uint64_t bits)
    {
        return kelio_get_dword(in, bits);
    }

    static word value(const kel_int_t *val)
    {
        return val->dword[2];
    }
};

struct uint128_unalign : word_order<qword_t, qword_cmp> {
    using word = qword_t;
    static constexpr int cached = 1;

    static word get(kel_input_t *in, uint64_t bits)
    {
        return kelio_get_qword(in, bits);
    }

    static word value(const kel_int_t *val)
    {
        return {value_word(val, 1), val->dword[2]};
    }
};

struct uint256_unalign : word_order<oword_t, oword_cmp> {
    using word = oword_t;
    static constexpr int cached = 1;

    static word get(kel_input_t *in, uint64_t bits)
    {
        return kelio_get_oword(in, bits);
    }

    static word value(const kel_int_t *val)
    {
        return {{0, value_word(val, 0), value_word(val, 1), val->dword[2]}};
    }
};

// Bytes, one after the other, whatever the offset is: what widths of zero lead to.
struct uint8_aligned : word_order<uint64_t, dword_cmp> {
    using word = uint64_t;
    static constexpr int cached = 0;

    static word get(kel_input_t *in, uint64_t)
    {
        return *kelio_get_bits_ptr(in, 8);
    }

    static word value(const kel_int_t *val)
    {
        return val->dword[2] & 0xff;
    }
};

// Operands of more than 32 bytes, compared byte by byte as far as there are bytes: the element shows the 8 bytes that
// kelio_get_bits_ptr keeps, a value has 24.
struct uintptr_unalign {
    using word = const uint8_t *;
    static constexpr int cached = 1;
    static constexpr uint64_t element_bytes = 8;

    struct value_bytes {
        uint8_t bytes[24];
    };

    static word get(kel_input_t *in, uint64_t bits)
    {
        return kelio_get_bits_ptr(in, bits);
    }

    static value_bytes value(const kel_int_t *val)
    {
        value_bytes value;
        for (unsigned i = 0; i < 3; i++)
            kel_store_be(value.bytes + 8 * i, val->dword[i]);
        return value;
    }

    static int order(word element, uint64_t bits, const value_bytes &value, uint64_t value_bits)
    {
        const uint64_t length = std::min<uint64_t>(value_bits / 8, sizeof value.bytes);
        const uint64_t compared = std::min({bits / 8, length, element_bytes});
        return byte_cmp(element, value.bytes + sizeof value.bytes - length, compared);
    }

    static int tie(uint64_t bits, uint64_t value_bits)
    {
        return dword_cmp(bits, value_bits);
    }
};

// The comparisons of an element with one value or two.
template <class Type, unsigned values>
class comparison
{
  public:
    explicit comparison(const scan_t &scan) : op(scan.op), needed(scan.op.both ? 2 : 1)
    {
        for (unsigned i = 0; i < values; i++) {
            value[i] = Type::value(scan.val[i]);
            value_bits[i] = kel_width_bits(scan.val[i]);
        }
    }

    bool match(const typename Type::word &element, uint64_t bits) const
    {
        const unsigned first = match_one(0, element, bits);
        if constexpr (values == 1)
            return first;
        else
            return first + match_one(1, element, bits) >= needed;
    }

  private:
    unsigned match_one(unsigned i, const typename Type::word &element, uint64_t bits) const
    {
        const int order = Type::order(element, bits, value[i], value_bits[i]);
        return accepts(op.accept[i], order != 0 ? order : Type::tie(bits, value_bits[i]));
    }

    operator_t op;
    unsigned needed; // comparisons that have to hold
    decltype(Type::value(nullptr)) value[values];
    uint64_t value_bits[values];
};

// ---- The general kernel ---------------------------------------------------------------------------------------------

// How far a scan came.
struct progress_t {
    uint64_t stored = 0;    // stored elements that were taken whole
    uint64_t processed = 0; // elements seen, runs expanded
    uint64_t count = 0;     // matches
};

template <class Sink>
kel_status_t finish(const scan_t &scan, const Sink &sink, kel_status_t status, const progress_t &progress)
{
    if (status != KEL_SUCCESS)
        kel_kernel_failed(scan.ctx, status, progress.stored + 1);
    status = kel_finish_output(scan.dst, sink.out, sink.end, scan.ext, status, scan.cca);
    scan.cca->retval = progress.count;
    scan.cca->n_processed = static_cast<uint32_t>(progress.processed);
    return status;
}

// widths: the aux stream holds the elements' lengths; runs: their repeat counts. A length is read before its element, a
// run behind it.
template <class Type, unsigned values, bool widths, bool runs, class Sink>
kel_status_t scan_elements(const scan_t &scan, Sink &sink, progress_t &progress)
{
    const kel_vec_t *src = scan.src;
    const comparison<Type, values> compared(scan);
    const uint64_t add_one = src->format & KEL_ADD_ONE ? 1 : 0;
    uint64_t bits = kel_width_bits(src);
    uint64_t run = 1;
    kel_input_t in;
    kel_input_t aux = {};
    kelio_vec_input(scan.ctx, src, src->data, Type::cached, &in);
    if constexpr (widths || runs)
        kelio_aux_input(src, &aux);

    for (; progress.stored < src->elements; progress.stored++) {
        if constexpr (widths)
            if ((bits = 8 * (kelio_aux_get(&aux, src->aux_width) + add_one)) == 0)
                return KEL_EDATAFMT;
        const auto element = Type::get(&in, bits);
        if constexpr (runs)
            if ((run = kelio_aux_get(&aux, src->aux_width) + add_one) == 0)
                return KEL_EDATAFMT;
        progress.processed += run;
        if (sink.full())
            return KEL_EOVERFLOW;
        const bool match = compared.match(element, bits);
        progress.count += match ? run : 0;
        sink.put(match, run);
    }
    return KEL_SUCCESS;
}

template <class Type, unsigned values, bool widths, bool runs, class Sink>
kel_status_t general_kernel(const scan_t &scan)
{
    Sink sink(scan.dst);
    progress_t progress;
    kel_status_t status = KEL_SUCCESS;
    if (scan.src->elements != 0) // a reader loads its first word at once, and an empty vector has none
        status = scan_elements<Type, values, widths, runs>(scan, sink, progress);
    return finish(scan, sink, status, progress);
}

// ---- The road of blocks ---------------------------------------------------------------------------------------------

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

template <class Sink>
kel_status_t block_kernel(const scan_t &scan, const predicate_t &predicate)
{
    Sink sink(scan.dst);
    progress_t progress;
    block_source source(scan.src, predicate);
    uint64_t masks[block_batch];
    kel_status_t status = KEL_SUCCESS;
    while (status == KEL_SUCCESS) {
        const uint64_t elements = source.next(masks);
        if (elements == 0)
            break;
        status = put_blocks(sink, masks, elements, progress);
    }
    return finish(scan, sink, status, progress);
}

template <unsigned values>
predicate_t scan_predicate(const scan_t &scan, kel_type_t type)
{
    outcomes_t at[values];
    for (unsigned i = 0; i < values; i++) {
        const kel_int_t *val = scan.val[i];
        const uint64_t high = type == kel_type_uint128 ? value_word(val, 1) : 0;
        at[i] = outcomes(kel_width_bits(scan.src), uint128_t{high} << 64 | val->dword[2], kel_width_bits(val));
    }
    if constexpr (values == 1)
        return reduce(scan.op, at[0]);
    else
        return reduce(scan.op, at[0], at[1]);
}

// ---- The choice of a kernel -----------------------------------------------------------------------------------------

template <class Type, unsigned values, class Sink>
kel_status_t general_by_format(const scan_t &scan, bool widths, bool runs)
{
    if (runs)
        return general_kernel<Type, values, false, true, Sink>(scan);
    if (widths)
        return general_kernel<Type, values, true, false, Sink>(scan);
    return general_kernel<Type, values, false, false, Sink>(scan);
}

template <unsigned values, class Sink>
kel_status_t general_by_type(const scan_t &scan, kel_type_t type, kel_fmt_t fmt)
{
    const bool runs = fmt != kel_fmt_fixed && scan.src->format & KEL_RLE;
    const bool widths = fmt == kel_fmt_mixed && scan.ext && scan.src->format & KEL_VAR;
    switch (type) {
    case kel_type_uintptr:
        return general_by_format<uintptr_unalign, values, Sink>(scan, false, runs);
    case kel_type_uint8:
        return general_by_format<uint8_aligned, values, Sink>(scan, false, runs);
    case kel_type_uint128:
        return general_by_format<uint128_unalign, values, Sink>(scan, widths, runs);
    case kel_type_uint256:
        return general_by_format<uint256_unalign, values, Sink>(scan, widths, runs);
    default:
        return general_by_format<uint64_unalign, values, Sink>(scan, widths, runs);
    }
}

// Whether a source can go by blocks: fixed elements of up to 64 bits, as many as a 64-bit length in bits can tell,
// against values of 1 to 128 bits.
template <unsigned values>
bool block_road(const scan_t &scan, kel_type_t type, kel_fmt_t fmt)
{
    const uint64_t bits = kel_width_bits(scan.src);
    bool fits = fmt == kel_fmt_fixed && (type == kel_type_uint64 || type == kel_type_uint128);
    fits &= bits >= 1 && bits <= 64 && scan.src->offset <= kel_max_offset;
    fits &= scan.src->elements <= (UINT64_MAX - 2 * 8) / 64;
    for (unsigned i = 0; i < values; i++) {
        const uint64_t value_bits = kel_width_bits(scan.val[i]);
        fits &= value_bits >= 1 && value_bits <= 128;
    }
    return fits;
}

// The kernel for a type, a format and an output. Compressed sources have none.
template <unsigned values>
kel_status_t run_kernel(const scan_t &scan, kel_type_t type, kel_fmt_t fmt, bool ones, bool fast)
{
    if (scan.src->format & KEL_ZIP)
        return KEL_ENOTIMPL;
    const uint64_t entry = index_bits(scan.dst);
    if (fast && block_road<values>(scan, type, fmt)) {
        const predicate_t predicate = scan_predicate<values>(scan, type);
        if (!ones)
            return block_kernel<bit_sink>(scan, predicate);
        if (entry == 16)
            return block_kernel<entry_sink<uint16_t>>(scan, predicate);
        if (entry == 32)
            return block_kernel<entry_sink<uint32_t>>(scan, predicate);
    }
    return ones ? general_by_type<values, index_sink>(scan, type, fmt)
                : general_by_type<values, bit_sink>(scan, type, fmt);
}

// A family of scan kernels as its dispatcher sees it.
template <unsigned count>
struct family_t {
    const char *verbose_line;
    const char *source;
    unsigned line;
    int first_op;
    unsigned op_bits;
    operator_t operators[count];
};

// The place of a kernel in its family. Class, format and operator are fields of one number, as stored tables have them,
// so that an operator outside the family spills into the fields above it and names another kernel, or none.
struct slot_t {
    unsigned op;
    unsigned fmt;
    uint64_t type;
};

inline slot_t find_slot(unsigned kernel_class, kel_fmt_t fmt, uint64_t op, unsigned op_bits)
{
    const uint64_t index = uint64_t{kernel_class * 4 | fmt} << op_bits | op;
    return {static_cast<unsigned>(index & ((1u << op_bits) - 1)), static_cast<unsigned>(index >> op_bits & 3),
            index >> (op_bits + 3)};
}

template <unsigned values, unsigned count>
kel_status_t scan_emulate(const family_t<count> &family, scan_t scan, uint64_t flags, kel_compare_t op, bool fast)
{
    const kel_vec_t *src = scan.src;
    uint64_t wide = kel_dispatch_bytes(src);
    for (unsigned i = 0; i < values; i++)
        wide = std::max(wide, kel_dispatch_bytes(scan.val[i]->format, scan.val[i]->elem_width));
    if (scan.ctx->log.options & KEL_LOG_VERBOSE)
        kel_log_msg(scan.ctx, KEL_LOG_VERBOSE, "%s", family.verbose_line);

    const auto relative_op = static_cast<uint64_t>(int64_t{op} - family.first_op);
    const slot_t slot = find_slot(kel_class(wide), kel_dispatch_fmt(src), relative_op, family.op_bits);
    if (slot.type >= kel_types || slot.fmt >= kel_fmts)
        kel_assert_fail("0", family.source, family.line, __func__);

    scan.op = family.operators[slot.op];
    scan.ext = kel_dispatch_ext(scan.ctx, src);
    if (scan.op.accept[0] == 0)
        return KEL_EPARSE;
    const auto type = static_cast<kel_type_t>(slot.type);
    const auto fmt = static_cast<kel_fmt_t>(slot.fmt);
    return run_kernel<values>(scan, type, fmt, flags & KEL_ONES_INDEX, fast);
}

} // namespace
