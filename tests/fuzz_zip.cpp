// A fuzz target: any bytes as the image of a codec, as a stream of codewords, and as the fields of its vector. Every
// buffer is a block of its own, no longer than the public header says that it has to be.
#include "fuzz_bytes.h"
#include "kel.h"
#include <bit>

namespace
{

// Words that hold some bits, the first of them taken from the input.
std::vector<uint64_t> consume_words(FuzzedDataProvider &input, uint64_t bits)
{
    std::vector<uint64_t> words(std::max<uint64_t>((bits + 63) / 64, 1));
    input.ConsumeData(words.data(), 8 * words.size());
    return words;
}

// Twice, over other stale bytes: what is written does not depend on them.
void run(kel_context_t *ctx, const kel_vec_t &src, uint64_t elements, uint32_t bits, const kel_int_t *value)
{
    const uint64_t last_run = src.format & KEL_RLE ? 256 * 16 / 64 : 0; // may go past the end as a whole
    const uint64_t count = (bits * elements + 511) / 512 + 1 + last_run, bytes = sizeof(line) * count;
    std::vector<line> stale[2], lines[2];
    kel_result_t results[2];
    for (int turn = 0; turn < 2; turn++) {
        stale[turn] = lines[turn] = stale_lines(count);
        const kel_vec_t dst = {KEL_BITS, elements, lines[turn].data(), bits, 0, 0, 0, nullptr, nullptr, 0};
        results[turn] = value ? kel_scan_value(ctx, 0, &src, &dst, KEL_GE, value) : kel_extract(ctx, 0, &src, &dst);
    }
    require(results[0].status == results[1].status && results[0].count == results[1].count);
    const auto byte = [](const std::vector<line> &of, uint64_t i) { return of[i / 64].bytes[i % 64]; };
    for (uint64_t i = 0; i < bytes; i++) {
        const bool kept = byte(lines[0], i) == byte(stale[0], i) && byte(lines[1], i) == byte(stale[1], i);
        require(kept || byte(lines[0], i) == byte(lines[1], i));
    }
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
    stale_state = input.ConsumeIntegral<uint16_t>();
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
