// The scans: comparisons of elements with values, the road of blocks, and the choice of a kernel.
#pragma once

#include "kel_mask.h"
#include "kel_platform.h"
#include "kel_predicate.h"
#include "kel_scan.h"
#include "kel_text_test.h"

namespace
{

// What a scan is about, once its operator has been looked up; val has one or two values.
struct scan_t : kernel_t {
    const kel_int_t *val[2];
    operator_t op;
};

// ---- Comparison -----------------------------------------------------------------------------------------------------

// A word of a value, 0 if the value is too narrow to have it.
inline uint64_t value_word(const kel_int_t *val, unsigned word)
{
    return kel_width_bits(val) >= 64 * (2 - word) ? val->dword[word] : 0;
}

inline int word_cmp(uint64_t a, uint64_t b)
{
    return dword_cmp(a, b);
}

inline int word_cmp(qword_t a, qword_t b)
{
    return qword_cmp(a, b);
}

inline int word_cmp(oword_t a, oword_t b)
{
    return oword_cmp(a, b);
}

// How an element type takes a value apart (value), and orders an element and a value by their bytes (order) and by
// their widths (tie).
template <class Type>
struct operand {
    using word = typename Type::word;

    static word value(const kel_int_t *val)
    {
        if constexpr (std::is_same_v<Type, uint8_aligned>)
            return val->dword[2] & 0xff;
        else if constexpr (std::is_same_v<word, uint64_t>)
            return val->dword[2];
        else if constexpr (std::is_same_v<word, qword_t>)
            return {value_word(val, 1), val->dword[2]};
        else
            return {{0, value_word(val, 0), value_word(val, 1), val->dword[2]}};
    }

    static int order(word element, uint64_t bits, word value, uint64_t value_bits)
    {
        const uint64_t rounded = kel_round_bits(bits);
        const uint64_t value_rounded = kel_round_bits(value_bits);
        if (value_rounded > rounded)
            value = kel_word_shift(value, false, value_rounded - rounded);
        else
            element = kel_word_shift(element, false, rounded - value_rounded);
        return word_cmp(element, value);
    }

    static int tie(uint64_t bits, uint64_t value_bits)
    {
        return dword_cmp(kel_round_bits(bits), kel_round_bits(value_bits));
    }
};

// Compared byte by byte as far as there are bytes: of an element the 8 that are kept, of a value 24.
template <>
struct operand<uintptr_unalign> {
    struct value_bytes {
        uint8_t bytes[24];
    };

    static value_bytes value(const kel_int_t *val)
    {
        value_bytes value;
        for (unsigned i = 0; i < 3; i++)
            kel_store_be(value.bytes + 8 * i, val->dword[i]);
        return value;
    }

    static int order(const uint8_t *element, uint64_t bits, const value_bytes &value, uint64_t value_bits)
    {
        const uint64_t length = std::min<uint64_t>(value_bits / 8, sizeof value.bytes);
        const uint64_t compared = std::min({bits / 8, length, uintptr_unalign::kept_bits / 8});
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
            value[i] = operand<Type>::value(scan.val[i]);
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
        const int order = operand<Type>::order(element, bits, value[i], value_bits[i]);
        return accepts(op.accept[i], order != 0 ? order : operand<Type>::tie(bits, value_bits[i]));
    }

    operator_t op;
    unsigned needed; // comparisons that have to hold
    decltype(operand<Type>::value(nullptr)) value[values];
    uint64_t value_bits[values];
};

// ---- Kernels --------------------------------------------------------------------------------------------------------

// Whether a scan's values can be reduced to predicates: they have 1 to 128 bits, and are compared as numbers.
template <unsigned values>
bool reducible(const scan_t &scan, kel_type_t type)
{
    bool fits = type == kel_type_uint64 || type == kel_type_uint128;
    for (unsigned i = 0; i < values; i++) {
        const uint64_t value_bits = kel_width_bits(scan.val[i]);
        fits &= value_bits >= 1 && value_bits <= 128;
    }
    return fits;
}

// For elements of that many bits, which fit in a word, and values of the type that Value holds.
template <unsigned values, class Word, class Value>
membership_t<Word> predicate_for(const scan_t &scan, uint64_t element_bits)
{
    const auto at = [&](const kel_int_t *val) {
        Value value = val->dword[2];
        if constexpr (sizeof(Value) > sizeof(uint64_t))
            value |= Value{value_word(val, 1)} << 64;
        return outcomes<Word>(element_bits, value, kel_width_bits(val));
    };
    if constexpr (values == 1)
        return reduce(scan.op, at(scan.val[0]));
    else
        return reduce(scan.op, at(scan.val[0]), at(scan.val[1]));
}

// What compares an element and puts the outcome.
template <unsigned values, class Sink>
auto scan_visitor(const scan_t &scan, Sink &to)
{
    return [&]<class Type>(progress_t &progress) {
        return [compared = comparison<Type, values>(scan), &to, &progress](const typename Type::word &element,
                                                                           uint64_t bits, uint64_t run) {
            const bool match = compared.match(element, bits);
            progress.count += match ? run : 0;
            to.put(match, run);
            return KEL_SUCCESS;
        };
    };
}

template <unsigned values, class Sink>
kel_status_t general_scan(const scan_t &scan, kel_type_t type, kel_fmt_t fmt)
{
    Sink to(scan);
    return general_kernel(scan, to, type, fmt, scan_visitor<values>(scan, to));
}

constexpr uint64_t fewest_texts = block_elements; // for which predicates for all lengths pay

// By blocks as far as there are texts.
template <unsigned values, class Sink>
kel_status_t text_scan(const scan_t &scan)
{
    Sink to(scan);
    progress_t progress;
    text_test_t test;
    for (unsigned bytes = 1; bytes <= longest_text; bytes++)
        test.set(bytes, predicate_for<values, uint128_t, uint128_t>(scan, 8 * bytes));
    text_masks source(scan.set(), scan.src, test);
    kel_status_t status = put_all_masks(to, source, progress);
    if (status == KEL_SUCCESS)
        status = walk_into<uint128_unalign>(scan, to, true, false, progress, scan_visitor<values>(scan, to));
    return finish(scan, to, status, progress);
}

// The kernel for a type, a format and an output.
template <unsigned values>
kel_status_t run_kernel(const scan_t &scan, kel_type_t type, kel_fmt_t fmt, bool ones)
{
    const bool blocks = scan.set() && reducible<values>(scan, type) && takes_blocks(scan.dst, ones);
    const uint64_t bits = kel_width_bits(scan.src);
    if (blocks && masks_by_blocks(scan.src, fmt)) {
        if (plain_fields(scan.src))
            return mask_kernel(scan,
                               type == kel_type_uint64 ? predicate_for<values, uint64_t, uint64_t>(scan, bits)
                                                       : predicate_for<values, uint64_t, uint128_t>(scan, bits),
                               ones);
        if (wide_fields(scan.src))
            return mask_kernel(scan, predicate_for<values, uint128_t, uint128_t>(scan, bits), ones);
    }
    if (blocks && plain_texts(scan.src, type, fmt) && scan.src->elements >= fewest_texts)
        return with_block_sink(scan.dst, ones, [&]<class Sink>() { return text_scan<values, Sink>(scan); });
    return ones ? general_scan<values, index_sink>(scan, type, fmt) : general_scan<values, bit_sink>(scan, type, fmt);
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

    // The operators that there are, a bit for each.
    constexpr uint32_t ops() const
    {
        uint32_t set = 0;
        for (unsigned i = 0; i < count; i++)
            set |= uint32_t{operators[i].accept[0] != 0} << (static_cast<unsigned>(first_op) + i);
        return set;
    }
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
kel_status_t scan_emulate(const family_t<count> &family, scan_t &&scan, uint64_t flags, kel_compare_t op)
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
    const bool ones = flags & KEL_ONES_INDEX;
    return with_plain_source(scan, type, fmt, [&] { return run_kernel<values>(scan, type, fmt, ones); });
}

} // namespace
