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

// Wide elements in 16 bytes.
KEL_AVX2 void wide_blocks(const uint8_t *data, const fields_t &fields, unsigned, unsigned left, void *out, size_t n)
{
    const __m128i order = _mm_add_epi8(lane_bytes<128>([](unsigned i, unsigned) { return i; }),
                                       _mm_set1_epi8(static_cast<char>((fields.width + left) / 8 - 16)));
    const wide_loader loader(fields, order);
    auto *to = static_cast<__m256i *>(out);
    for (size_t i = 0; i < n * block_elements / 2; i++, data += 2 * loader.bytes)
        store(to, loader.load(data, data + loader.bytes));
}

element_blocks_t pick(const fields_t &fields, unsigned bits, element_blocks_t narrow, element_blocks_t wide)
{
    if (fields.width > bits)
        return nullptr;
    return narrow_in(fields, bits) ? narrow : wide;
}

} // namespace

element_blocks_t avx2_elements(const fields_t &fields, uint64_t bytes)
{
    switch (bytes) {
    case 1:
        return pick(fields, 16, byte_blocks<true>, byte_blocks<false>);
    case 2:
        return pick(fields, 16, word_blocks<16, true>, word_blocks<16, false>);
    case 4:
        return pick(fields, 32, word_blocks<32, true>, word_blocks<32, false>);
    case 8:
        return pick(fields, 64, word_blocks<64, true>, word_blocks<64, false>);
    default:
        return fields.width > 64 ? wide_blocks : nullptr;
    }
}

#endif
