// A reference model of translate, and of its form with a test value.
#pragma once

#include "model.h"
#include <optional>

namespace model
{

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
        e.put_result(t.flags, t.has(low_word(element)) != bool(t.flags & KEL_INVERT), run);
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
    if (!t.test_value)
        return call<translate>(t, o, emulated, false);
    outcome result = emulated;
    if (o.log & KEL_LOG_VERBOSE)
        result.lines.insert(result.lines.begin(), result.lines.front());
    return result;
}

inline std::ostream &operator<<(std::ostream &out, const translate &t)
{
    out << "flags " << t.flags << " val_width " << t.val_width << " test value " << t.test_value.value_or(0);
    tell_vectors(out, {&t.src, &t.dst, &t.bitmap});
    tell_elements(out, t.src);
    return out;
}

} // namespace model
