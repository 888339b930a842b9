// A fuzz target: any bytes as the image of a codec, as a stream of codewords, and as the fields of its vector. Every
// buffer is a block of its own, no longer than the public header says that it has to be.
#include "kel.h"
#include <algorithm>
#include <bit>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>

namespace
{

struct alignas(64) line {
    uint8_t bytes[64];
};

// Words that hold some bits, the first of them taken from the input.
std::vector<uint64_t> consume_words(FuzzedDataProvider &input, uint64_t bits)
{
    std::vector<uint64_t> words(std::max<uint64_t>((bits + 63) / 64, 1));
    input.ConsumeData(words.data(), 8 * words.size());
    return words;
}

void run(kel_context_t *ctx, const kel_vec_t &src, uint64_t elements, uint32_t bits, const kel_int_t *value)
{
    const uint64_t last_run = src.format & KEL_RLE ? 256 * 16 / 64 : 0; // may go past the end as a whole
    std::vector<line> lines((bits * elements + 511) / 512 + 1 + last_run);
    const kel_vec_t dst = {KEL_BITS, elements, lines.data(), bits, 0, 0, 0, nullptr, nullptr, 0};
    if (value)
        kel_scan_value(ctx, 0, &src, &dst, KEL_GE, value);
    else
        kel_extract(ctx, 0, &src, &dst);
}

void use_codec(kel_context_t *ctx, kel_zip_t *codec, unsigned nsyms, FuzzedDataProvider &input)
{
    constexpr uint64_t formats[] = {0, KEL_BITS, KEL_VAR, KEL_RLE, KEL_RLE | KEL_BITS, KEL_VAR | KEL_RLE};
    const uint64_t format = KEL_ZIP | input.PickValueInArray(formats) | (input.ConsumeBool() ? KEL_ADD_ONE : 0);
    kel_vec_t src = {format, input.ConsumeIntegralInRange(0u, 600u), nullptr, 0, 0, 0, 0, nullptr, codec, 0};
    src.elem_width = input.ConsumeIntegralInRange(1u, 24u);
    src.offset = input.ConsumeIntegralInRange<uint8_t>(0, 7);
    src.aux_offset = input.ConsumeIntegralInRange<uint8_t>(0, 7);
    src.aux_width = static_cast<uint16_t>(1u << input.ConsumeIntegralInRange(0u, 3u));
    std::vector<uint64_t> aux = consume_words(input, src.aux_offset + src.aux_width * src.elements);
    src.aux_data = aux.data();
    const kel_int_t value = {KEL_BYTES, input.ConsumeIntegralInRange(1u, 16u), {}};
    const uint64_t dst_elements = input.ConsumeIntegralInRange(0u, 4096u);
    const uint32_t dst_bits = 8u << input.ConsumeIntegralInRange(0u, 4u);

    const uint64_t most_bytes = 1 + src.elements * 256; // that any format can ask for
    const uint64_t wanted = input.ConsumeIntegral<uint16_t>(), bits = 8 * input.remaining_bytes();
    std::vector<uint64_t> stream = consume_words(input, bits);
    src.data = stream.data();
    const unsigned code_width = static_cast<unsigned>(std::bit_width(nsyms)) - std::has_single_bit(nsyms);
    const uint64_t fitting = code_width ? (64 * stream.size() - src.offset) / code_width : UINT64_MAX;
    src.codewords = std::min(most_bytes > fitting ? std::max<uint64_t>(wanted, 1) : wanted, fitting);
    run(ctx, src, dst_elements, dst_bits, nullptr);
    run(ctx, src, dst_elements, 1, &value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const uint32_t version = input.ConsumeBool() + 1u;
    const bool validated = version == 1 || input.ConsumeIntegralInRange(0, 4) > 0; // else version 1 trusts the image
    std::vector<uint8_t> image = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(2, 8300));
    kel_context_t *ctx = nullptr;
    kel_zip_t *codec = nullptr;
    if (image.empty() || kel_thread_init(version, 1, 0, nullptr, &ctx) != KEL_SUCCESS)
        return 0;
    kel_set_log_callback(
        ctx, KEL_LOG_ALL, [](auto...) {}, nullptr);
    kel_set_debug(ctx, validated ? KEL_DEBUG_ARG | KEL_DEBUG_EXTRA : 0);
    if (kel_zip_create_contig(ctx, image.data(), image.size(), &codec) == KEL_SUCCESS) {
        use_codec(ctx, codec, image.size() < 2 ? 0 : image[0] * 256u + image[1], input);
        kel_zip_free(ctx, codec);
    }
    kel_thread_fini(ctx);
    return 0;
}
