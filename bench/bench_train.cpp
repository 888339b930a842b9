// Training, encoding and decoding of columns, beside lz4 and zstd at level 1: MB/s of the plain bytes, and the ratio.
#include "bench_case.h"
#include "kel_zip.h"
#include "vorp.h"
#include <cstdio>
#include <functional>
#include <lz4.h>
#include <vector>
#include <zstd.h>

namespace
{

constexpr uint64_t column_bytes = 4'000'000;

using bytes_t = std::vector<uint8_t>;

void append(bytes_t &column, const std::string &text)
{
    column.insert(column.end(), text.begin(), text.end());
}

// ---- Columns --------------------------------------------------------------------------------------------------------

// Words of a vocabulary, the first ones far more often.
bytes_t make_text()
{
    uint64_t random = 1;
    std::vector<std::string> words(3000);
    for (std::string &word : words)
        for (uint64_t letters = 2 + next_random(random) % 8; letters > 0; letters--)
            word += static_cast<char>('a' + next_random(random) % 26 * (next_random(random) % 26) / 26);
    bytes_t column;
    while (column.size() < column_bytes) {
        const uint64_t bound = next_random(random) % words.size() + 1;
        append(column, words[next_random(random) % bound] + ' ');
    }
    return column;
}

bytes_t make_log()
{
    static constexpr const char *events[] = {"connection opened", "connection closed", "cache miss for key", "retrying",
                                             "request finished"};
    uint64_t random = 2;
    bytes_t column;
    uint64_t second = 0;
    while (column.size() < column_bytes) {
        char line[160];
        second += next_random(random) % 3;
        snprintf(line, sizeof line, "2026-03-%02d %02d:%02d:%02d [%s] worker-%02d %s %04x\n",
                 static_cast<int>(1 + second / 86400 % 28), static_cast<int>(second / 3600 % 24),
                 static_cast<int>(second / 60 % 60), static_cast<int>(second % 60),
                 next_random(random) % 10 ? "info" : "warn", static_cast<int>(next_random(random) % 16),
                 events[next_random(random) % 5], static_cast<unsigned>(next_random(random) % 65536));
        append(column, line);
    }
    return column;
}

// Amounts in 4 bytes, the small ones far more often.
bytes_t make_numbers()
{
    uint64_t random = 3;
    bytes_t column(column_bytes);
    for (uint64_t i = 0; i < column_bytes; i += 4) {
        const uint64_t amount = next_random(random) % (uint64_t{1} << (next_random(random) % 16));
        for (unsigned j = 0; j < 4; j++)
            column[i + j] = static_cast<uint8_t>(amount * 5 >> (24 - 8 * j));
    }
    return column;
}

bytes_t make_flights()
{
    bytes_t column;
    if (FILE *file = fopen(FLIGHTS_CSV, "rb")) {
        column.resize(column_bytes);
        column.resize(fread(column.data(), 1, column.size(), file));
        fclose(file);
    }
    return column;
}

struct source_t {
    const char *name;
    bytes_t (*make)();
};

constexpr source_t sources[] = {
    {"text", make_text}, {"log", make_log}, {"numbers", make_numbers}, {"flights", make_flights}};

const bytes_t &get_column(const source_t &source)
{
    static const char *kept = nullptr;
    static bytes_t column;
    if (kept != source.name) {
        column = source.make();
        kept = source.name;
    }
    return column;
}

// ---- Measures -------------------------------------------------------------------------------------------------------

// Runs a coder of a column, and shows its rate and ratio; packed is what the column becomes.
void measure_coder(benchmark::State &state, const bytes_t &column, const std::function<bool()> &code,
                   const uint64_t &packed)
{
    bool good = true;
    measure_run(state, column.size(), [&] { good &= code(); });
    if (!good)
        state.SkipWithError("the coder fails");
    state.counters["ratio"] = static_cast<double>(column.size()) / static_cast<double>(packed);
}

// A codec that has been trained on a column, with its stream.
class trained_t
{
  public:
    trained_t(const bytes_t &column, uint64_t options) : stream(2 * column.size())
    {
        plain = fixed_vec(KEL_BYTES, 1, column.size(), const_cast<uint8_t *>(column.data()));
        train(options);
    }

    ~trained_t()
    {
        release();
    }

    trained_t(const trained_t &) = delete;
    trained_t &operator=(const trained_t &) = delete;

    bool train(uint64_t options)
    {
        release();
        length = stream.size();
        const kel_result_t result = kel_zip(ctx, options, &plain, stream.data(), &length, &codec);
        good = result.status == KEL_SUCCESS;
        packed = plain;
        packed.format = KEL_ZIP;
        packed.data = stream.data();
        packed.codec = codec;
        packed.codewords = result.count;
        bytes = good ? length + kel_zip_size(ctx, codec) : 0;
        return good;
    }

    void release()
    {
        if (good)
            kel_zip_free(ctx, codec);
        good = false;
    }

    const bench_context ctx;
    bytes_t stream;
    kel_vec_t plain;
    kel_vec_t packed;
    kel_zip_t *codec = nullptr;
    size_t length;
    uint64_t bytes;
    bool good = false;
};

void train(benchmark::State &state, source_t source, uint64_t options)
{
    const bytes_t &column = get_column(source);
    trained_t trained(column, options);
    measure_coder(
        state, column, [&] { return trained.train(options); }, trained.bytes);
}

void encode(benchmark::State &state, source_t source)
{
    const bytes_t &column = get_column(source);
    trained_t trained(column, 1);
    const auto code = [&] {
        size_t length = trained.stream.size();
        return kel_encode(trained.ctx, &trained.plain, trained.stream.data(), &length, trained.codec).status ==
               KEL_SUCCESS;
    };
    measure_coder(state, column, code, trained.bytes);
}

void decode(benchmark::State &state, source_t source)
{
    const bytes_t &column = get_column(source);
    trained_t trained(column, 1);
    bytes_t out(column.size() + 64);
    const auto code = [&] {
        return kel_unzip(trained.ctx, &trained.packed, trained.codec, out.data(), out.size()) == KEL_SUCCESS;
    };
    measure_coder(state, column, code, trained.bytes);
}

// The parse alone, without what comes before it.
void parse(benchmark::State &state, source_t source)
{
    const bytes_t &column = get_column(source);
    trained_t trained(column, 1);
    vorp_log_t log = {kel_log_func, trained.ctx};
    vorp_config_t config;
    vorp_config_init(&config, VORP4, &log);
    vorp_mempool_t pool;
    vorp_mempool_init(&config, &pool, vorp_pool_bytes, kel_alloc_func, kel_free_func, trained.ctx);
    vorp_dict_t dict;
    make_vorp_dict(trained.codec->nsyms, static_cast<const uint8_t *>(kel_zip_widths(trained.codec)),
                   trained.codec->syms, nullptr, &pool, &dict);
    const auto code = [&] {
        uint64_t length = 0;
        uint64_t count = 0;
        int overflow;
        return vorp_parse_fixed(column.data(), column.size(), trained.stream.data(), trained.stream.size(), &length,
                                zip_code_width(trained.codec->nsyms), &dict, &config, &overflow, &count) != 0;
    };
    measure_coder(state, column, code, trained.bytes);
    free_vorp_dict(&dict);
}

void lz4(benchmark::State &state, source_t source, bool decoding)
{
    const bytes_t &column = get_column(source);
    const int size = static_cast<int>(column.size());
    const auto *plain = reinterpret_cast<const char *>(column.data());
    std::vector<char> packed(static_cast<size_t>(LZ4_compressBound(size)));
    std::vector<char> out(column.size());
    const int capacity = static_cast<int>(packed.size());
    const int length = LZ4_compress_default(plain, packed.data(), size, capacity);
    const uint64_t bytes = static_cast<uint64_t>(length);
    const auto code = [&] {
        return decoding ? LZ4_decompress_safe(packed.data(), out.data(), length, size) == size
                        : LZ4_compress_default(plain, packed.data(), size, capacity) == length;
    };
    measure_coder(state, column, code, bytes);
}

void zstd(benchmark::State &state, source_t source, bool decoding)
{
    const bytes_t &column = get_column(source);
    bytes_t packed(ZSTD_compressBound(column.size()));
    bytes_t out(column.size());
    const uint64_t length = ZSTD_compress(packed.data(), packed.size(), column.data(), column.size(), 1);
    const auto code = [&] {
        return decoding ? ZSTD_decompress(out.data(), out.size(), packed.data(), length) == column.size()
                        : ZSTD_compress(packed.data(), packed.size(), column.data(), column.size(), 1) == length;
    };
    measure_coder(state, column, code, length);
}

} // namespace

void add_trainers()
{
    for (const source_t &source : sources) {
        const std::string name = std::string("/") + source.name;
        add_benchmark("more/train" + name + "/fast", train, source, uint64_t{0});
        add_benchmark("more/train" + name + "/thorough", train, source, uint64_t{1});
        add_benchmark("more/train" + name + "/lz4", lz4, source, false);
        add_benchmark("more/train" + name + "/zstd1", zstd, source, false);
        add_benchmark("more/encode" + name, encode, source);
        add_benchmark("more/parse" + name, parse, source);
        add_benchmark("more/decode" + name, decode, source);
        add_benchmark("more/decode" + name + "/lz4", lz4, source, true);
        add_benchmark("more/decode" + name + "/zstd1", zstd, source, true);
    }
}
