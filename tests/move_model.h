// Reference models of select and extract, which move strings of bytes.
#pragma once

#include "model.h"

namespace model
{

// A select, or an extract, which has no mask.
struct move {
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
        for (; run > 0; run--) {
            if (packed)
                e.out.put_number(element, dst_bits > width ? dst_bits - width : 0, dst_bits);
            else
                e.out.put_bytes(adapted ? fitted(element, dst_bits / 8, m.flags & KEL_PAD) : element);
        }
        return KEL_SUCCESS;
    };
    return e.run(m.select ? "kel_select" : "kel_extract", o.log, take);
}

inline bool refused(const move &m, unsigned version)
{
    static constexpr uint64_t dst_bits[] = {8, 16, 32, 64, 128};
    if (source_refused(m.src, m.select ? 0 : KEL_RLE | KEL_VAR, version) || m.dst.offset ||
        std::count(std::begin(dst_bits), std::end(dst_bits), bits_of(m.dst)) == 0)
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
    out << (m.select ? "select" : "extract") << " flags " << m.flags;
    tell_vectors(out, {&m.src, &m.dst, &m.mask});
    tell_elements(out, m.src);
    out << "\n  selected ";
    for (uint64_t i = 0; i < m.src.elements; i++)
        out << m.selects(m.mask.offset, i);
    return out;
}

} // namespace model
