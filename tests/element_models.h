// Reference models of select and extract, which move strings of bytes, and of translate.
#pragma once

#include "model.h"
#include <bit>
#include <optional>

namespace model
{

// A select, or an extract, which has no mask.
struct move {
    static constexpr bool compressible = true;

    uint64_t flags;
    kel_vec_t src, dst;
    bool select;
    kel_vec_t mask;

    bool selects(uint64_t offset, uint64_t i) const
    {
        return !select || bit_reader{mask.data, offset + i}.field(1);
    }
};

// An element of whole bytes in a wider or narrower one.
inline std::string fitted(const std::string &element, uint64_t size, bool pad)
{
    const std::string first = element.substr(0, size), zeros(size - first.size(), '\0');
    return pad ? first + zeros : zeros + first;
}

inline outcome emulation(const move &m, const options &o)
{
    const uint64_t dst_bits = bits_of(m.dst), offset = m.mask.format & KEL_ZIP ? 0 : m.mask.offset;
    const bool adapted = m.src.format & KEL_VAR || bytes_of(m.src) != bytes_of(m.dst);
    uint64_t stored = 0;
    emulator e = {m.src, m.dst};
    const auto take = [&](const std::string &element, uint64_t width, uint64_t run) {
        if (!m.selects(offset, stored++))
            return KEL_SUCCESS;
        e.count += m.select ? run : 0;
        const bool packed = adapted && dst_bits % 8 != 0;
        if (packed && o.debug & KEL_DEBUG_EXTRA && width > 31 && width != 64 && width != 128)
            return KEL_EDATASIZE;
        const std::string text = adapted ? fitted(element, dst_bits / 8, m.flags & KEL_PAD) : element;
        for (; run > 0; run--) {
            if (packed)
                e.out.put_number(element, dst_bits > width ? dst_bits - width : 0, dst_bits);
            for (size_t i = 0; !packed && i < text.size(); i++)
                e.out.put_bits(static_cast<uint8_t>(text[i]), 8);
        }
        return KEL_SUCCESS;
    };
    return e.run(m.select ? "kel_select" : "kel_extract", o.log, take);
}

inline bool refused(const move &m, unsigned version)
{
    const uint64_t dst_bits = bits_of(m.dst);
    if (source_refused(m.src, m.select ? 0 : KEL_RLE | KEL_VAR, version) || m.dst.offset ||
        !std::has_single_bit(dst_bits) || dst_bits < 8 || dst_bits > 128)
        return true;
    return m.select ? m.mask.format != KEL_BITS || m.mask.elements < m.src.elements : m.dst.elements < m.src.elements;
}

// Without room for the ones of the mask, or for the runs.
inline bool faulty_data(const move &m)
{
    uint64_t ones = 0;
    for (uint64_t i = 0; i < m.src.elements; i++)
        ones += m.selects(m.mask.offset, i);
    return m.select ? ones > m.dst.elements : faulty_aux(m.src, m.dst);
}

inline std::ostream &operator<<(std::ostream &out, const move &m)
{
    kel_vec_t mask = m.mask; // as far as it is read
    mask.elements = m.select ? m.src.elements : 0;
    return tell(out << (m.select ? "select" : "extract") << " flags " << m.flags, m.dst, {&m.src, &mask});
}

// A translate, or its form with a test value.
struct translate {
    uint64_t flags;
    kel_vec_t src, dst, bitmap;
    uint32_t val_width;
    std::optional<uint64_t> test_value;

    // Whether the bitmap has the element with these low bits.
    bool has(uint64_t low) const
    {
        const uint64_t index = test_value ? low & ((uint64_t{1} << val_width % 32) - 1) : low;
        return bit_reader{bitmap.data, index}.field(1) && (!test_value || low >> val_width % 64 == *test_value);
    }
};

inline outcome emulation(const translate &t, const options &o)
{
    emulator e = {t.src, t.dst, bits_of(t.src) == 0 && !(t.src.format & KEL_VAR)};
    const auto take = [&](const std::string &element, uint64_t, uint64_t run) {
        const uint64_t bits = 8 * element.size(), low = std::min<uint64_t>(bits, 64);
        e.put_result(t.flags, t.has(bit_reader{element.data(), bits - low}.field(low)) != bool(t.flags & KEL_INVERT),
                     run);
        return KEL_SUCCESS;
    };
    return e.run(t.test_value ? "kel_translate_testval" : "kel_translate", o.log, take);
}

inline bool refused(const translate &t, unsigned version)
{
    const uint64_t width = bits_of(t.src), widest = version == 2 ? 24 : 16, align = version == 2 ? 16 : 64;
    return source_refused(t.src, KEL_RLE, version) || (width > widest && width != 24) ||
           results_refused(t.flags, t.src, t.dst) || t.val_width > width ||
           reinterpret_cast<uintptr_t>(t.bitmap.data) % align || t.bitmap.elements > 1 << 24;
}

// No bits in a value, bits above it, or a value beyond the bitmap. The values are those of stored elements.
inline bool faulty_data(const translate &t)
{
    bool faulty = faulty_aux(t.src, t.dst) || t.val_width == 0;
    bit_reader data = {t.src.data, t.src.offset};
    for (uint64_t i = 0; i < t.src.elements; i++) {
        const uint64_t value = data.field(bits_of(t.src));
        faulty |= value >= t.bitmap.elements || value >> t.val_width;
    }
    return faulty;
}

// Translates are not diagnosed. The form with a test value has no frame, and its entry tells the line of the emulation.
inline outcome call(const translate &t, const options &o, const outcome &emulated, bool)
{
    outcome result = t.test_value ? emulated : call<translate>(t, o, emulated, false);
    if (t.test_value && o.log & KEL_LOG_VERBOSE)
        result.lines.insert(result.lines.begin(), result.lines.front());
    return result;
}

inline std::ostream &operator<<(std::ostream &out, const translate &t)
{
    out << "flags " << t.flags << " val_width " << t.val_width << " test value " << t.test_value.value_or(0);
    return tell(out, t.dst, {&t.src, &t.bitmap});
}

// Operations on bytes, whose lines are not told here.

// And, or, xor: operation 0, 1, 2.
struct logical {
    uint64_t flags;
    kel_vec_t src, dst, src2;
    int op;
};

inline bool refused(const logical &l, unsigned)
{
    return l.flags & KEL_NOWAIT;
}

inline outcome emulation(const logical &l, const options &)
{
    // An offset counts from the low end of a byte. A partial byte of two sources with offsets comes from one behind.
    const auto byte = [](const kel_vec_t &vec, uint64_t i) {
        const auto *data = static_cast<const uint8_t *>(vec.data) + i;
        return vec.offset ? data[0] >> vec.offset | data[1] << (8 - vec.offset) : data[0];
    };
    outcome result;
    for (uint64_t i = 0; 8 * i < l.src.elements; i++) {
        const int kept = 0xff >> std::min<uint64_t>(l.src.elements - 8 * i, 8);
        const uint64_t from = i + (kept && l.src.offset && l.src2.offset);
        const int a = byte(l.src, from), b = byte(l.src2, from) ^ (l.flags & KEL_INVERT_SRC ? 0xff : 0);
        const int joined = (l.op == 0 ? a & b : l.op == 1 ? a | b : a ^ b) ^ (l.flags & KEL_INVERT ? 0xff : 0);
        result.bytes.push_back(static_cast<uint8_t>((joined & ~kept) | (unwritten & kept)));
        result.cca.retval += static_cast<uint64_t>(std::popcount(static_cast<uint8_t>(joined & ~kept)));
    }
    result.cca.output_sz = result.cca.n_processed = static_cast<uint32_t>(result.cca.retval);
    return result;
}

inline std::ostream &operator<<(std::ostream &out, const logical &l)
{
    return tell(out << "logical " << l.op << " flags " << l.flags, l.dst, {&l.src, &l.src2});
}

// A copy of the bytes of src, or a fill: of as many values as src has elements.
struct transfer {
    uint64_t flags;
    kel_vec_t src, dst;
    std::optional<uint64_t> value;
    uint64_t behind; // the bytes between the destination and the page that faults
};

inline bool refused(const transfer &t, unsigned)
{
    const uint32_t width = t.src.elem_width % 256;
    return t.value && (!std::has_single_bit(width) || width > 8);
}

inline outcome emulation(const transfer &t, const options &)
{
    outcome result;
    const uint64_t size = t.src.elements * t.src.elem_width, width = t.src.elem_width;
    const auto *bytes = static_cast<const uint8_t *>(t.src.data);
    uint64_t pattern = t.value.value_or(0);
    for (uint64_t i = 0; (width == 1 || width == 2) && i < 8 / width; i++)
        pattern = pattern << 8 * width | (*t.value & ((1u << 8 * width) - 1));
    if (width == 4)
        pattern |= pattern << 32; // whatever is above the value
    for (uint64_t i = 0; i < size; i++)
        result.bytes.push_back(t.value ? static_cast<uint8_t>(pattern >> (56 - i % 8 * 8)) : bytes[i]);
    return result;
}

inline uint64_t room_for(const transfer &t, const outcome &expected)
{
    return expected.bytes.size() + t.behind;
}

inline std::ostream &operator<<(std::ostream &out, const transfer &t)
{
    return out << (t.value ? "fill" : "copy") << " of " << t.src.elements << " * " << t.src.elem_width << " bytes to "
               << t.dst.data << ", value " << t.value.value_or(0);
}

bool faulty_data(const auto &) // of the last two
{
    return false;
}

} // namespace model
