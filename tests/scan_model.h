// A reference model of a scan, which compares strings of bytes.
#pragma once

#include "model.h"

namespace model
{

// One scan. A value scan uses lower alone.
struct scan {
    static constexpr bool compressible = true;

    uint64_t flags;
    kel_vec_t src, dst;
    int op;
    kel_int_t lower, upper;

    bool range() const
    {
        return op >= KEL_EQ_OR_EQ;
    }
};

// ---- Comparison -----------------------------------------------------------------------------------------------------

enum : unsigned { below = 1, same = 2, above = 4 };

// What an operator accepts of an element's order to lower and to upper, and whether it wants both.
struct operator_row {
    int op;
    unsigned lower;
    bool both = false;
    unsigned upper = 0;
};

inline constexpr operator_row value_operators[] = {{KEL_EQ, same},         {KEL_NE, below | above}, {KEL_LT, below},
                                                   {KEL_GE, same | above}, {KEL_LE, below | same},  {KEL_GT, above}};

inline constexpr operator_row range_operators[] = {
    {KEL_EQ_OR_EQ, same, false, same},
    {KEL_NE_AND_NE, below | above, true, below | above},
    {KEL_GE_AND_LE, same | above, true, below | same},
    {KEL_LT_OR_GT, below, false, above},
    {KEL_GE_AND_LT, same | above, true, below},
    {KEL_LT_OR_GE, below, false, same | above},
    {KEL_GT_AND_LE, above, true, below | same},
    {KEL_LE_OR_GT, below | same, false, above},
    {KEL_GT_AND_LT, above, true, below},
    {KEL_LE_OR_GE, below | same, false, same | above},
};

// The row of a scan's operator, or null if it is none.
inline const operator_row *row_of(const scan &s)
{
    const auto search = [&](const auto &rows) {
        const auto *row = std::find_if(std::begin(rows), std::end(rows), [&](const auto &r) { return r.op == s.op; });
        return row == std::end(rows) ? nullptr : row;
    };
    return s.range() ? search(range_operators) : search(value_operators);
}

// The bytes of the widest operand, which settles how many words of the values take part.
inline uint64_t widest_operand(const scan &s)
{
    const uint64_t src = s.src.format & KEL_VAR ? 16 : bytes_of(s.src);
    return std::max({src, bytes_of(s.lower), s.range() ? bytes_of(s.upper) : 0});
}

// Elements and values are compared as strings of bytes, where a prefix is less than what continues it. Before a value
// stand the bytes above its width, as far as its operand class looks at them, and before an element as many zeros: 24.
inline std::string value_text(const kel_int_t &value, uint64_t wide)
{
    const uint64_t words[] = {
        wide > 16 && bits_of(value) >= 128 ? value.dword[0] : 0, wide > 8 && bits_of(value) >= 64 ? value.dword[1] : 0,
        wide == 0 ? value.dword[2] & 0xff : value.dword[2], // without any width the operands are single bytes
    };
    std::string text(wide == 0 ? 1 : bytes_of(value), '\0');
    for (const uint64_t word : words)
        for (int shift = 56; shift >= 0; shift -= 8)
            text += static_cast<char>(word >> shift);
    return text;
}

inline bool accepts(unsigned orders, const std::string &element, const std::string &value)
{
    return orders & (element < value ? below : element == value ? same : above);
}

// ---- The emulation and the public call ------------------------------------------------------------------------------

inline outcome emulation(const scan &s, const options &o)
{
    const char *const name = s.range() ? "kel_scan_range" : "kel_scan_value";
    const operator_row *const accepted = row_of(s);
    const uint64_t wide = widest_operand(s);
    const std::string lower = value_text(s.lower, wide), upper = value_text(s.upper, wide);
    const kel_vec_t none = {};
    emulator e = {accepted ? s.src : none, s.dst, wide == 0};
    outcome result = e.run(name, o.log, [&](const std::string &element, uint64_t, uint64_t run) {
        const std::string text = std::string(24, '\0') + element;
        const bool first = accepts(accepted->lower, text, lower), second = accepts(accepted->upper, text, upper);
        e.put_result(s.flags, accepted->both ? first && second : first || second, run);
        return KEL_SUCCESS;
    });
    if (!accepted) {
        result.status = KEL_EPARSE;
        result.cca = cca_before;
    }
    return result;
}

// Whether validation of the descriptors refuses a scan.
inline bool refused(const scan &s, unsigned version)
{
    const auto bad_value = [&](const kel_int_t &value) {
        return value.elem_width == 0 || bad_width(bits_of(value), version);
    };
    return source_refused(s.src, KEL_VAR | KEL_RLE, version) || results_refused(s.flags, s.src, s.dst) || !row_of(s) ||
           bad_value(s.lower) || (s.range() && bad_value(s.upper));
}

// Whether validation of the data refuses a scan: its source, and bits above the rounded width of a value in the word
// where its top lies.
inline bool faulty_data(const scan &s)
{
    const auto spare_bits = [](const kel_int_t &value) {
        const uint64_t width = bits_of(value), top = round_up(width, 8);
        return width > 0 && width <= 192 && top % 64 != 0 && value.dword[2 - top / 64] >> top % 64 != 0;
    };
    return faulty_aux(s.src, s.dst) || spare_bits(s.lower) || (s.range() && spare_bits(s.upper));
}

inline std::ostream &operator<<(std::ostream &out, const scan &s)
{
    tell(out << (s.range() ? "range" : "value") << " op " << s.op << " flags " << s.flags, s.dst, {&s.src});
    for (const kel_int_t *value : {&s.lower, &s.upper})
        out << "\n  value format " << value->format << " width " << value->elem_width << std::hex << " dwords "
            << value->dword[0] << ' ' << value->dword[1] << ' ' << value->dword[2] << std::dec;
    return out;
}

} // namespace model
