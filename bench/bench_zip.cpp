// Expansion of codeword streams, beside memcpy and beside the decoders of lz4 and zstd on the same bytes.
#include "bench_column.h"
#include "kel_zip.h"
#include <algorithm>
#include <lz4.h>
#include <map>
#include <vector>
#include <zstd.h>

namespace
{

constexpr uint64_t decoded_bytes = 16'000'000;
constexpr uint64_t small_bytes = 16'384;

using bytes_t = std::vector<uint8_t>;

struct dictionary_t {
    unsigned symbols;
    unsigned mean_length;
};

// A dictionary of random symbols, a stream of random codewords, and what they stand for.
struct coded_t {
    coded_t(const dictionary_t &shape, uint64_t least_bytes, uint64_t least_codewords)
        : symbols(static_cast<uint16_t>(shape.symbols)), widths(kel_zip_width_bytes(shape.symbols))
    {
        uint64_t random = shape.symbols + shape.mean_length;
        std::vector<bytes_t> texts(symbols);
        for (unsigned code = 0; code < symbols; code++) {
            const unsigned spread = std::min(shape.mean_length - 1, kel_max_symbol_bytes - shape.mean_length);
            const uint64_t length = shape.mean_length - spread + next_random(random) % (2 * spread + 1);
            for (uint64_t i = 0; i < length; i++)
                texts[code].push_back(static_cast<uint8_t>(next_random(random)));
            widths[code / 2] |= static_cast<uint8_t>(length << (code % 2 ? 0 : 4));
            all_texts.insert(all_texts.end(), texts[code].begin(), texts[code].end());
        }
        field_list stream;
        for (; plain.size() < least_bytes || codewords < least_codewords; codewords++) {
            const uint64_t code = next_random(random) % symbols;
            stream.put(code, zip_code_width(symbols));
            plain.insert(plain.end(), texts[code].begin(), texts[code].end());
        }
        packed = stream.take();
        packed.resize(packed.size() + 8); // may be read up to the end of a word
    }

    kel_vec_t vec(kel_zip_t *codec, uint64_t bytes) const
    {
        kel_vec_t vec = fixed_vec(KEL_ZIP, 1, bytes, const_cast<uint8_t *>(packed.data()));
        vec.codec = codec;
        vec.codewords = bytes == plain.size() ? codewords : 0;
        return vec;
    }

    uint16_t symbols;
    bytes_t widths;
    bytes_t all_texts;
    bytes_t packed;
    bytes_t plain;
    uint64_t codewords = 0;
};

// With a codec, in the internal calls' context.
class column_t : public coded_t
{
  public:
    explicit column_t(const dictionary_t &shape) : coded_t(shape, decoded_bytes, 0)
    {
        if (kel_zip_create(ctx, symbols, widths.data(), all_texts.data(), &codec) != KEL_SUCCESS)
            abort();
    }

    ~column_t()
    {
        kel_zip_free(ctx, codec);
    }

    column_t(const column_t &) = delete;
    column_t &operator=(const column_t &) = delete;

    const bench_context ctx;
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
    measure_run(state, bytes, [&] { good &= decode(to.data(), to.size()); });
    if (!good || memcmp(to.data(), column.plain.data(), bytes) != 0)
        state.SkipWithError("the decoder fails");
}

void unzip(benchmark::State &state, dictionary_t shape, uint64_t bytes)
{
    const column_t &column = get_column(shape);
    const kel_vec_t src = column.vec(column.codec, bytes);
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

// ---- The table's case -----------------------------------------------------------------------------------------------

// One codec for each library.
class codecs_t
{
  public:
    explicit codecs_t(const coded_t &coded) : dictionary(coded) {}

    ~codecs_t()
    {
        for (const auto &[library, codec] : codecs)
            library->kel_zip_free(library->ctx, codec);
    }

    codecs_t(const codecs_t &) = delete;
    codecs_t &operator=(const codecs_t &) = delete;

    kel_zip_t *of(const library_t &library)
    {
        kel_zip_t *&codec = codecs[&library];
        if (!codec && library.kel_zip_create(library.ctx, dictionary.symbols, dictionary.widths.data(),
                                             dictionary.all_texts.data(), &codec) != KEL_SUCCESS)
            abort();
        return codec;
    }

  private:
    const coded_t &dictionary;
    std::map<const library_t *, kel_zip_t *> codecs;
};

using call_t = std::function<kel_result_t(const library_t &library, const kel_vec_t &src)>;

// A row of an operation on a compressed column of bytes, which is expanded first.
void add_compressed(const char *operation, const std::string &shape, const coded_t &coded, uint64_t counted,
                    const call_t &call, const std::function<outcome_t()> &expect)
{
    const auto make = [=, &coded] {
        const auto codecs = std::make_shared<codecs_t>(coded);
        return make_task(
            [=, &coded](const library_t &library) {
                return call(library, coded.vec(codecs->of(library), coded.plain.size()));
            },
            destination_bytes(), expect);
    };
    add_case(list_t::table, {operation, shape, counted, limit_t::copy, coded.plain.size(), make});
}

void add_compressed_rows()
{
    static const coded_t coded({1024, 4}, 0, in_cache);
    const uint64_t bytes = coded.plain.size();
    const auto extract = [=](const library_t &library, const kel_vec_t &src) {
        const kel_vec_t dst = fixed_vec(KEL_BYTES, 1, bytes, destination_bytes());
        return library.kel_extract(library.ctx, 0, &src, &dst);
    };
    add_compressed("decode", "1024 symbols of 1 to 7 bytes", coded, coded.codewords, extract, [] {
        return outcome_t{coded.plain, 0};
    });
    constexpr uint64_t half = 0x7f;
    const auto scan = [=](const library_t &library, kel_vec_t src) {
        src.format |= KEL_BYTES;
        const kel_vec_t dst = fixed_vec(KEL_BITS, 1, bytes, destination_bytes());
        const kel_int_t most = fixed_val(KEL_BYTES, 1, 0, half);
        return library.kel_scan_value(library.ctx, 0, &src, &dst, KEL_LE, &most);
    };
    add_compressed("scan", "1 byte, compressed, to bits, 50%", coded, bytes, scan,
                   [=] { return expect_matches(to_bits, bytes, [](uint64_t i) { return coded.plain[i] <= half; }); });
    const auto select = [=](const library_t &library, const kel_vec_t &src) {
        const kel_vec_t dst = fixed_vec(KEL_BYTES, 1, bytes, destination_bytes());
        const kel_vec_t mask = fixed_vec(KEL_BITS, 1, bytes, source_bytes());
        return library.kel_select(library.ctx, 0, &src, &dst, &mask);
    };
    add_compressed("select", "1 byte, compressed, 50%", coded, bytes, select, [=] {
        outcome_t selected = {};
        for (uint64_t i = 0; i < bytes; i++)
            if (get_field(source_bytes(), i, 1))
                selected.bytes.push_back(coded.plain[i]);
        selected.count = selected.bytes.size();
        return selected;
    });
}

} // namespace

void add_decoders()
{
    add_compressed_rows();
    for (const unsigned symbols : {16u, 256u, 1024u})
        for (const unsigned length : {2u, 4u, 8u}) {
            const dictionary_t shape = {symbols, length};
            const std::string name = std::to_string(symbols) + "symbols/mean" + std::to_string(length);
            add_benchmark("more/unzip/" + name, unzip, shape, decoded_bytes);
            add_benchmark("more/unzip/16KB/" + name, unzip, shape, small_bytes);
            add_benchmark("more/unzip/memcpy/" + name, copy, shape, decoded_bytes);
            add_benchmark("more/unzip/lz4/" + name, lz4, shape, decoded_bytes);
            add_benchmark("more/unzip/zstd1/" + name, zstd, shape, decoded_bytes);
        }
}
