// The producers of destination elements for AVX2.
#include "kel_avx2.h"

#if KEL_HAVE_AVX2_UNITS

namespace
{

template <unsigned bits, bool narrow>
class element_maker
{
  public:
    static constexpr unsigned registers = bits / 8; // for half a block

    KEL_AVX2 element_maker(const fields_t &fields, unsigned right, unsigned up)
        : loader(fields), down(bits - fields.width + right), left(up)
    {
    }

    KEL_AVX2 __m256i make(const uint8_t *data, unsigned i) const
    {
        return lanes<bits>::left(lanes<bits>::right(loader.load(data, i), down), left);
    }

  private:
    const field_loader<bits, narrow, in_order> loader;
    const unsigned down;
    const unsigned left;
};

KEL_AVX2 inline void store(__m256i *&to, __m256i x)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i_u *>(to++), x);
}

// Elements as wide as lanes.
template <unsigned bits, bool narrow>
KEL_AVX2 void word_blocks(const uint8_t *data, const fields_t &fields, unsigned right, unsigned left, void *out,
                          size_t n)
{
    using maker_t = element_maker<bits, narrow>;
    const maker_t maker(fields, right, left);
    auto *to = static_cast<__m256i *>(out);
    for (size_t half = 0; half < 2 * n; half++, data += half_elements / 8 * fields.width)
        for (unsigned i = 0; i < maker_t::registers; i++)
            store(to, swap_bytes<bits>(maker.make(data, i)));
}

// Elements of one byte, of which nothing is left above it.
template <bool narrow>
KEL_AVX2 void byte_blocks(const uint8_t *data, const fields_t &fields, unsigned right, unsigned left, void *out,
                          size_t n)
{
    const element_maker<16, narrow> maker(fields, right, left);
    auto *to = static_cast<__m256i *>(out);
    for (size_t half = 0; half < 2 * n; half++, data += half_elements / 8 * fields.width) {
        const __m256i bytes = _mm256_packus_epi16(maker.make(data, 0), maker.make(data, 1));
        constexpr int quarters = 0 | 2 << 2 | 1 << 4 | 3 << 6; // of which packing took those of each half
        store(to, _mm256_permute4x64_epi64(bytes, quarters));
    }
}

// Whole bytes in as many or more: only their places change.
template <unsigned bytes>
KEL_AVX2 void whole_blocks(const uint8_t *data, const fields_t &fields, unsigned, unsigned left, void *out, size_t n)
{
    constexpr unsigned in_half = 16 / bytes; // of a register
    const unsigned size = fields.width / 8, step = in_half * size;
    const auto all = [](unsigned byte) KEL_AVX2 { return _mm_set1_epi8(static_cast<char>(byte)); };
    // Which byte of its element each byte is; those that are none are 0.
    const __m128i byte =
        _mm_add_epi8(lane_bytes<8 * bytes>([](unsigned i, unsigned) { return i; }), all(size + left / 8 - bytes));
    const __m128i none = _mm_or_si128(byte, _mm_cmpgt_epi8(byte, all(size - 1)));
    const __m128i first = _mm_mullo_epi16(lane_bytes<8 * bytes>([](unsigned, unsigned lane) { return lane / bytes; }),
                                          _mm_set1_epi16(static_cast<int16_t>(size)));
    const __m256i order = _mm256_broadcastsi128_si256(_mm_add_epi8(_mm_and_si128(none, all(0x8f)), first));
    auto *to = static_cast<__m256i *>(out);
    for (size_t i = 0; i < n * block_elements / in_half; i += 2, data += 2 * step)
        store(to, _mm256_shuffle_epi8(load_both(data, data + step), order));
}

template <unsigned bytes>
element_blocks_t choose_blocks(const fields_t &fields)
{
    if (fields.width > 8 * bytes)
        return nullptr;
    if (fields.width % 8 == 0 && fields.offset == 0)
        return whole_blocks<bytes>;
    if constexpr (bytes <= 8)
        return narrow_in(fields, 8 * bytes) ? word_blocks<8 * bytes, true> : word_blocks<8 * bytes, false>;
    return nullptr;
}

} // namespace

element_blocks_t avx2_elements(const fields_t &fields, uint64_t bytes)
{
    switch (bytes) {
    case 1:
        return fields.width > 16 ? nullptr : narrow_in(fields, 16) ? byte_blocks<true> : byte_blocks<false>;
    case 2:
        return choose_blocks<2>(fields);
    case 4:
        return choose_blocks<4>(fields);
    case 8:
        return choose_blocks<8>(fields);
    default:
        return choose_blocks<16>(fields);
    }
}

#endif
