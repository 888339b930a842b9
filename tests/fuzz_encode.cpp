// A fuzz target: what training and encoding make of any source comes back byte for byte, whatever room they had.
#include "fuzz_bytes.h"
#include "kel.h"
#include <bit>

namespace
{

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

// A stream as it comes out of a buffer of some capacity.
struct stream_t {
    explicit stream_t(size_t capacity) : room(stale_bytes(capacity + 2)), length(capacity) {}

    bytes_t room; // with two bytes behind its capacity
    size_t length;
    kel_result_t result = {};
};

// A stream is stored with one byte behind its length, and read by words.
void expect_source(kel_context_t *ctx, const bytes_t &source, const stream_t &stream, kel_zip_t *codec)
{
    bytes_t stored = stale_bytes(stream.length / 8 * 8 + 8);
    memcpy(stored.data(), stream.room.data(), stream.length + 1);
    kel_vec_t src = byte_vec(stored.data(), source.size());
    src.format |= KEL_ZIP;
    src.codec = codec;
    src.codewords = stream.result.count;
    std::vector<line> lines = stale_lines(source.size() / 64 + 1);
    const kel_vec_t dst = byte_vec(lines.data(), source.size());
    require(kel_extract(ctx, 0, &src, &dst).status == KEL_SUCCESS);
    require(source.empty() || memcmp(lines.data(), source.data(), source.size()) == 0);
}

stream_t encode(kel_context_t *ctx, bytes_t source, kel_zip_t *codec, size_t capacity)
{
    const kel_vec_t src = byte_vec(source.data(), source.size());
    stream_t stream(capacity);
    const uint8_t behind = stream.room.back();
    stream.result = kel_encode(ctx, &src, stream.room.data(), &stream.length, codec);
    require(stream.room.back() == behind);
    if (stream.result.status == KEL_SUCCESS)
        expect_source(ctx, source, stream, codec);
    else
        require(stream.result.count == 0);
    return stream;
}

unsigned code_width(kel_context_t *ctx, const kel_zip_t *codec)
{
    bytes_t image(8192);
    size_t length = image.size();
    require(kel_zip_get_contig(ctx, codec, image.data(), &length) == KEL_SUCCESS);
    return static_cast<unsigned>(std::bit_width(image[0] * 256u + image[1] - 1));
}

// A stream that is known to be that long fits if its last codeword starts in the buffer.
void encode_again(kel_context_t *ctx, const bytes_t &source, kel_zip_t *codec, size_t length, size_t capacity)
{
    const uint64_t count = encode(ctx, source, codec, length + 1).result.count;
    require(count > 0);
    const uint64_t last_start = (count - 1) * code_width(ctx, codec) / 8;
    for (const size_t room : {capacity, length}) {
        const stream_t again = encode(ctx, source, codec, room);
        const bool fits = last_start < room;
        require(again.result.status == (fits ? KEL_SUCCESS : KEL_EOVERFLOW));
        require(again.result.count == (fits ? count : 0) && again.length == length);
    }
}

void train(kel_context_t *ctx, bytes_t source, FuzzedDataProvider &input)
{
    const uint64_t options = input.ConsumeIntegralInRange<uint64_t>(0, 1);
    const kel_vec_t src = byte_vec(source.data(), source.size());
    const size_t capacity =
        input.ConsumeBool() ? input.ConsumeIntegralInRange<size_t>(0, source.size()) : source.size();
    stream_t stream(capacity);
    kel_zip_t *codec = nullptr;
    stream.result = kel_zip(ctx, options, &src, stream.room.data(), &stream.length, &codec);
    if (stream.result.status == KEL_SUCCESS)
        expect_source(ctx, source, stream, codec);
    else
        require(stream.result.count == 0);
    if (stream.result.status != KEL_SUCCESS && stream.result.status != KEL_EOVERFLOW) {
        require(stream.result.status == KEL_EZIP);
        return;
    }
    encode_again(ctx, source, codec, stream.length, capacity);
    const bytes_t other = input.ConsumeRemainingBytes<uint8_t>();
    const kel_status_t status = encode(ctx, other, codec, 2 * other.size()).result.status;
    require(status == KEL_SUCCESS || status == KEL_EZIP);
    require(kel_zip_free(ctx, codec) == KEL_SUCCESS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    stale_state = input.ConsumeIntegral<uint16_t>();
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
