// A fuzz target: what training and encoding make of any source comes back byte for byte, whatever room they had.
#include "kel.h"
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>

namespace
{

using bytes_t = std::vector<uint8_t>;

constexpr size_t spare = 2; // bytes of a stream's buffer behind its capacity

void require(bool condition)
{
    if (!condition)
        abort();
}

struct alignas(64) line {
    uint8_t bytes[64];
};

kel_vec_t byte_vec(void *data, uint64_t elements)
{
    return {KEL_BYTES, elements, data, 1, 0, 0, 0, nullptr, nullptr, 0};
}

// Words, and a text of them: sources that are worth training for grow out of few bytes.
bytes_t consume_source(FuzzedDataProvider &input)
{
    std::vector<bytes_t> words(input.ConsumeIntegralInRange(1u, 60u));
    for (bytes_t &word : words)
        word = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange(0u, 12u));
    const unsigned repeats = input.ConsumeIntegralInRange(1u, 100u);
    const bytes_t text = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange(0u, 600u));
    bytes_t source;
    for (unsigned i = 0; i < repeats; i++)
        for (const uint8_t number : text) {
            const bytes_t &word = words[(number + (number < 4 ? i : 0)) % words.size()];
            source.insert(source.end(), word.begin(), word.end());
        }
    return source;
}

void expect_source(kel_context_t *ctx, const bytes_t &source, const bytes_t &stream, uint64_t codewords,
                   kel_zip_t *codec)
{
    std::vector<line> lines(source.size() / 64 + 1);
    std::vector<uint64_t> words(stream.size() / 8 + 1); // a source is read by words
    memcpy(words.data(), stream.data(), stream.size());
    kel_vec_t src = byte_vec(words.data(), source.size());
    src.format |= KEL_ZIP;
    src.codec = codec;
    src.codewords = codewords;
    const kel_vec_t dst = byte_vec(lines.data(), source.size());
    require(kel_extract(ctx, 0, &src, &dst).status == KEL_SUCCESS);
    require(source.empty() || memcmp(lines.data(), source.data(), source.size()) == 0);
}

void encode(kel_context_t *ctx, bytes_t source, kel_zip_t *codec)
{
    const kel_vec_t src = byte_vec(source.data(), source.size());
    bytes_t stream(2 * source.size() + spare);
    size_t length = stream.size() - spare;
    const kel_result_t result = kel_encode(ctx, &src, stream.data(), &length, codec);
    if (result.status == KEL_SUCCESS)
        expect_source(ctx, source, stream, result.count, codec);
    else
        require(result.status == KEL_EZIP && result.count == 0);
}

void train(kel_context_t *ctx, bytes_t source, FuzzedDataProvider &input)
{
    const uint64_t options = input.ConsumeIntegralInRange<uint64_t>(0, 1);
    const kel_vec_t src = byte_vec(source.data(), source.size());
    size_t length = input.ConsumeBool() ? input.ConsumeIntegralInRange<size_t>(0, source.size()) : source.size();
    bytes_t stream(length + spare);
    kel_zip_t *codec = nullptr;
    kel_result_t result = kel_zip(ctx, options, &src, stream.data(), &length, &codec);
    if (result.status == KEL_EOVERFLOW) {
        require(codec && length + spare >= stream.size()); // as long as its room, at least
        stream.assign(++length + spare, 0xA5);             // a last byte may not have been counted
        result = kel_encode(ctx, &src, stream.data(), &length, codec);
        require(result.status == KEL_SUCCESS);
    }
    if (result.status != KEL_SUCCESS) {
        require(result.status == KEL_EZIP && result.count == 0);
        return;
    }
    expect_source(ctx, source, stream, result.count, codec);
    encode(ctx, source, codec);
    encode(ctx, input.ConsumeRemainingBytes<uint8_t>(), codec);
    require(kel_zip_free(ctx, codec) == KEL_SUCCESS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    kel_context_t *ctx = nullptr;
    if (kel_thread_init(input.ConsumeIntegralInRange(1u, 2u), 1, 0, nullptr, &ctx) != KEL_SUCCESS)
        return 0;
    kel_set_log_callback(
        ctx, KEL_LOG_ALL, [](auto...) {}, nullptr);
    kel_set_debug(ctx, KEL_DEBUG_ARG);
    train(ctx, consume_source(input), input);
    kel_thread_fini(ctx);
    return 0;
}
