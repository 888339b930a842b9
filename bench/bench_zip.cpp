// Expansion of codeword streams, beside memcpy and beside the decoders of lz4 and zstd on the same bytes.
#include "bench_support.h"
#include "kel_zip.h"
#include <algorithm>
#include <lz4.h>
#include <vector>
#include <zstd.h>

namespace
{

constexpr uint64_t decoded_bytes = 16'000'000;
constexpr uint64_t small_bytes = 16'384;

struct dictionary_t {
    unsigned symbols;
    unsigned mean_length;
};

// A dictionary of random symbols, a stream of random codewords, and what they stand for.
class column_t
{
  public:
    explicit column_t(const dictionary_t &shape) : codewords(2 * decoded_bytes)
    {
        uint64_t random = shape.symbols + shape.mean_length;
        std::vector<uint8_t> widths(kel_zip_width_bytes(shape.symbols));
        std::vector<std::vector<uint8_t>> symbols(shape.symbols);
        std::vector<uint8_t> all;
        for (unsigned code = 0; code < shape.symbols; code++) {
            const unsigned spread = std::min(shape.mean_length - 1, kel_max_symbol_bytes - shape.mean_length);
            const uint64_t length = shape.mean_length - spread + next_random(random) % (2 * spread + 1);
            for (uint64_t i = 0; i < length; i++)
                symbols[code].push_back(static_cast<uint8_t>(next_random(random)));
            widths[code / 2] |= static_cast<uint8_t>(length << (code % 2 ? 0 : 4));
            all.insert(all.end(), symbols[code].begin(), symbols[code].end());
        }
        if (kel_zip_create(ctx, static_cast<uint16_t>(shape.symbols), widths.data(), all.data(), &codec) != KEL_SUCCESS)
            abort();
        bit_writer out(codewords.data());
        while (plain.size() < decoded_bytes) {
            const uint64_t code = next_random(random) % shape.symbols;
            out.put(code, zip_code_width(shape.symbols));
            plain.insert(plain.end(), symbols[code].begin(), symbols[code].end());
        }
        out.put(0, 8); // so that the last codeword is stored whole
        plain.resize(decoded_bytes);
    }

    ~column_t()
    {
        kel_zip_free(ctx, codec);
    }

    column_t(const column_t &) = delete;
    column_t &operator=(const column_t &) = delete;

    const bench_context ctx;
    bench_bytes codewords;
    std::vector<uint8_t> plain;
    kel_zip_t *codec;
};

// The column that was asked for last is kept.
const column_t &get_column(const dictionary_t &shape)
{
    static std::unique_ptr<column_t> column;
    static dictionary_t kept = {};
    if (kept.symbols != shape.symbols || kept.mean_length != shape.mean_length) {
        column.reset();
        column = std::make_unique<column_t>(shape);
        kept = shape;
    }
    return *column;
}

// Runs a decoder of the first bytes of a column: decode(to, room) answers whether it went well.
template <class Decode>
void measure_decoder(benchmark::State &state, const column_t &column, uint64_t bytes, const Decode &decode)
{
    std::vector<uint8_t> to(bytes + 64);
    bool good = true;
    measure_run(state, {{"GB/s", bytes}}, [&] { good &= decode(to.data(), to.size()); });
    if (!good || memcmp(to.data(), column.plain.data(), bytes) != 0)
        state.SkipWithError("the decoder fails");
}

void unzip(benchmark::State &state, dictionary_t shape, uint64_t bytes)
{
    const column_t &column = get_column(shape);
    kel_vec_t src = fixed_vec(KEL_ZIP, 1, bytes, column.codewords.data());
    src.codec = column.codec;
    measure_decoder(state, column, bytes, [&](uint8_t *to, size_t room) {
        return kel_unzip(column.ctx, &src, src.codec, to, room) == KEL_SUCCESS;
    });
}

void copy(benchmark::State &state, dictionary_t shape, uint64_t bytes)
{
    const column_t &column = get_column(shape);
    measure_decoder(state, column, bytes, [&](uint8_t *to, size_t) {
        memcpy(to, column.plain.data(), bytes);
        benchmark::ClobberMemory();
        return true;
    });
}

void lz4(benchmark::State &state, dictionary_t shape, uint64_t bytes)
{
    const column_t &column = get_column(shape);
    const int size = static_cast<int>(bytes);
    std::vector<char> packed(static_cast<size_t>(LZ4_compressBound(size)));
    const auto *plain = reinterpret_cast<const char *>(column.plain.data());
    const int length = LZ4_compress_default(plain, packed.data(), size, static_cast<int>(packed.size()));
    measure_decoder(state, column, bytes, [&](uint8_t *to, size_t room) {
        return LZ4_decompress_safe(packed.data(), reinterpret_cast<char *>(to), length, static_cast<int>(room)) == size;
    });
    state.counters["ratio"] = static_cast<double>(bytes) / length;
}

void zstd(benchmark::State &state, dictionary_t shape, uint64_t bytes)
{
    const column_t &column = get_column(shape);
    std::vector<char> packed(ZSTD_compressBound(bytes));
    const size_t length = ZSTD_compress(packed.data(), packed.size(), column.plain.data(), bytes, 1);
    measure_decoder(state, column, bytes, [&](uint8_t *to, size_t room) {
        return ZSTD_decompress(to, room, packed.data(), length) == bytes;
    });
    state.counters["ratio"] = static_cast<double>(bytes) / static_cast<double>(length);
}

[[maybe_unused]] const bool added = [] {
    for (const unsigned symbols : {16u, 256u, 1024u})
        for (const unsigned length : {2u, 4u, 8u}) {
            const dictionary_t shape = {symbols, length};
            const std::string name = std::to_string(symbols) + "symbols/mean" + std::to_string(length);
            add_benchmark("unzip/" + name, unzip, shape, decoded_bytes);
            add_benchmark("unzip/16KB/" + name, unzip, shape, small_bytes);
            add_benchmark("unzip/memcpy/" + name, copy, shape, decoded_bytes);
            add_benchmark("unzip/lz4/" + name, lz4, shape, decoded_bytes);
            add_benchmark("unzip/zstd1/" + name, zstd, shape, decoded_bytes);
        }
    return true;
}();

} // namespace
