// Training and encoding from outside: what is compressed comes back, and every status and line.

#include "kel_zip.h"
#include "support.h"
#include "training_model.h"
#include "vorp.h"
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

using bytes_t = std::vector<uint8_t>;

kel_vec_t byte_vec(const bytes_t &bytes, uint64_t format = KEL_BYTES)
{
    kel_vec_t vec = {};
    vec.format = format;
    vec.elements = bytes.size();
    vec.elem_width = 1;
    vec.data = const_cast<uint8_t *>(bytes.data());
    return vec;
}

// Texts of few or many words, lines, numbers, runs, records, noise.
bytes_t any_source(random_source &random, uint64_t size)
{
    bytes_t bytes;
    const uint64_t kind = random.between(0, 5);
    std::vector<std::string> words(random.one_in(2) ? random.between(2, 60) : random.between(60, 3000));
    for (std::string &word : words)
        for (uint64_t letters = random.between(1, 12); letters > 0; letters--)
            word += static_cast<char>(kind == 0 ? random.between('a', 'h') : random.between(' ', 'z'));
    while (bytes.size() < size) {
        std::string piece;
        switch (kind) {
        case 0:
        case 1:
            piece = words[random.between(0, random.between(0, words.size() - 1))] + ' ';
            break;
        case 2:
            piece = "id=" + std::to_string(random.between(0, 99999)) + " " + words[bytes.size() % words.size()] + "\n";
            break;
        case 3: {
            const uint64_t number = random.between(0, uint64_t{1} << random.between(1, 20));
            for (unsigned shift = 32; shift > 0; shift -= 8)
                piece += static_cast<char>(number >> (shift - 8));
            break;
        }
        case 4:
            piece = std::string(random.between(1, 300), static_cast<char>(random.between(0, 3)));
            break;
        default:
            piece = random.one_in(20) ? std::string(1, static_cast<char>(random.word())) : words[0];
        }
        bytes.insert(bytes.end(), piece.begin(), piece.end());
    }
    bytes.resize(size);
    return bytes;
}

// What a codec and a stream give back, by the public call.
bytes_t expand(kel_context_t *ctx, const bytes_t &stream, kel_zip_t *codec, uint64_t codewords, uint64_t size)
{
    std::vector<uint64_t> aligned((size + 63) / 64 * 8 + 24);
    auto *out = reinterpret_cast<uint8_t *>((reinterpret_cast<uintptr_t>(aligned.data()) + 63) & ~uintptr_t{63});
    kel_vec_t packed = byte_vec(stream, KEL_ZIP);
    packed.elements = size;
    packed.codec = codec;
    packed.codewords = codewords;
    kel_vec_t dst = byte_vec({});
    dst.elements = size;
    dst.data = out;
    EXPECT_EQ(kel_extract(ctx, 0, &packed, &dst).status, KEL_SUCCESS);
    return {out, out + size};
}

// Compresses, and compares what comes back, also from a second encoding; true if the source was compressible.
bool round_trip(test_context &ctx, uint64_t options, const bytes_t &source)
{
    const kel_vec_t src = byte_vec(source);
    bytes_t stream(2 * source.size() + 16);
    size_t length = stream.size() - 1;
    kel_zip_t *codec = nullptr;
    const kel_result_t result = kel_zip(ctx, options, &src, stream.data(), &length, &codec);
    if (result.status != KEL_SUCCESS) {
        EXPECT_EQ(result.status, KEL_EZIP);
        EXPECT_EQ(result.count, 0u);
        return false;
    }
    EXPECT_EQ(expand(ctx, stream, codec, result.count, source.size()), source);
    EXPECT_LE(length + kel_zip_size(ctx, codec), source.size());

    // With no more room than told, but for a last codeword that starts in a byte which is not counted.
    const uint64_t last_start = (result.count - 1) * zip_code_width(codec->nsyms) / 8;
    size_t again_length = std::max(length, last_start + 1);
    bytes_t again(again_length + 2, 0xA5);
    const kel_result_t encoded = kel_encode(ctx, &src, again.data(), &again_length, codec);
    EXPECT_TRUE(encoded.status == KEL_SUCCESS && encoded.count == result.count && again_length == length);
    EXPECT_EQ(expand(ctx, again, codec, result.count, source.size()), source);
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
    return true;
}

} // namespace

TEST(training, round_trips)
{
    random_source random(61);
    unsigned compressed = 0;
    for (const uint32_t version : {1u, 2u}) {
        test_context ctx(version, KEL_DEBUG_ARG, 0);
        for (unsigned i = 0; i < 1050; i++) {
            const uint64_t size = random.one_in(4)     ? random.between(9, 100)
                                  : random.one_in(3)   ? random.between(100, 1500)
                                  : random.one_in(150) ? random.between(100000, 4000000)
                                  : random.one_in(3)   ? random.between(15000, 30000)
                                                       : random.between(1500, 8000);
            compressed += round_trip(ctx, random.between(0, 1), any_source(random, size));
            ASSERT_FALSE(testing::Test::HasFailure()) << "case " << i;
        }
    }
    EXPECT_GT(compressed, 500u);
}

// Texts of few words under thorough training: the row rule shortens their dictionaries, below powers of two as well.
TEST(training, shortened_dictionaries)
{
    random_source random(62);
    test_context ctx(2, KEL_DEBUG_ARG, 0);
    for (unsigned i = 0; i < 300; i++) {
        bytes_t source;
        std::vector<std::string> words(random.between(20, 90));
        for (std::string &word : words)
            for (uint64_t letters = random.between(3, 9); letters > 0; letters--)
                word += static_cast<char>(random.between('a', 'z'));
        while (source.size() < random.between(20000, 60000)) {
            const std::string &word = random.pick({words[0], words[1], words[random.between(0, words.size() - 1)]});
            source.insert(source.end(), word.begin(), word.end());
        }
        EXPECT_TRUE(round_trip(ctx, 1, source)) << "case " << i;
        ASSERT_FALSE(testing::Test::HasFailure()) << "case " << i;
    }
}

static void no_log(void *, const char *, ...) {}

// What the pool has served when the table stands.
static uint64_t pool_used(const bytes_t &source, vorp_level_t level)
{
    vorp_log_t silent = {no_log, nullptr};
    vorp_config_t config;
    vorp_config_init(&config, level, &silent);
    vorp_adjust_dictionary_size(source.size(), &config);
    vorp_mempool_t pool;
    EXPECT_EQ(vorp_mempool_init(&config, &pool, vorp_pool_bytes, nullptr, nullptr, nullptr), 0);
    auto *table = pool_objects<vorp_table_t>(&pool, 1, "table_create");
    vorp_dict_t *dict = nullptr;
    vorp_table_create(source.data(), source.size(), &config, table, &pool, &dict);
    const uint64_t used = pool.used[0];
    vorp_mempool_release(&pool);
    return used;
}

static void compare_training(const bytes_t &source, int level, uint64_t capacity, training_model::coverage &met)
{
    const training_model::result expected = training_model::trainer(source, level, met).run(capacity);
    bytes_t dictionary(vorp_dict_out_bytes, 0xCD);
    bytes_t stream(capacity + 1, 0xFF);
    uint64_t length = 99, codewords = 99;
    const int outcome = vorp_kel_zip(source.data(), source.size(), stream.data(), capacity, &length, nullptr, nullptr,
                                     no_log, nullptr, static_cast<vorp_level_t>(level), dictionary.data(), &codewords);
    EXPECT_EQ(outcome, expected.outcome);
    EXPECT_EQ(length, expected.length);
    EXPECT_EQ(codewords, expected.codewords.value_or(99));
    if (stream[capacity] == 0xFF) // no codeword has come so far
        stream[capacity] = 0;
    EXPECT_EQ(stream, expected.stream);
    const auto written = dictionary.begin() + static_cast<ptrdiff_t>(expected.dictionary.size());
    EXPECT_EQ(bytes_t(dictionary.begin(), written), expected.dictionary);
    EXPECT_TRUE(std::all_of(written, dictionary.end(), [](uint8_t byte) { return byte == 0xCD; }));
    if (outcome >= 0) {
        EXPECT_EQ(pool_used(source, static_cast<vorp_level_t>(level)), expected.pool_used);
    }
}

// Words of one length, one after the other: all their parts are frequent, and the dictionary is full.
static bytes_t dense_words(uint64_t seed, uint64_t words, uint64_t letters, uint64_t alphabet, uint64_t size)
{
    random_source random(seed);
    bytes_t list(words * letters), bytes;
    for (uint8_t &letter : list)
        letter = random.between<uint8_t>(1, alphabet);
    while (bytes.size() < size) {
        const auto word = list.begin() + static_cast<ptrdiff_t>(letters * random.between(0, words - 1));
        bytes.insert(bytes.end(), word, word + static_cast<ptrdiff_t>(letters));
    }
    return bytes;
}

// The format's own encoder, with random access: the table's first entry, and its length counted twice. The dictionary's
// section then has the distance of each symbol from its offset's own place.
static void compare_random_access(const bytes_t &source)
{
    training_model::coverage met;
    const training_model::result expected = training_model::trainer(source, VORP2, met).run(source.size());
    constexpr int16_t interval = 64;
    const uint64_t entries = (source.size() + interval - 1) / interval;
    std::vector<uint64_t> in(source.size() / 8 + 1), out(entries + source.size() / 8 + 1);
    memcpy(in.data(), source.data(), source.size());
    vorp_log_t silent = {no_log, nullptr};
    uint64_t length = 0;
    EXPECT_EQ(vorp_encode(&silent, 0, in.data(), source.size(), out.data(), &length, 8 * out.size(), VORP2, nullptr,
                          nullptr, nullptr, 1, interval),
              0);
    EXPECT_EQ(length, expected.length + 2 * 8 * entries);
    EXPECT_EQ(kel_load_be<uint64_t>(out.data()), entries << 42);
    EXPECT_TRUE(std::all_of(out.begin() + 1, out.begin() + static_cast<ptrdiff_t>(entries), [](auto w) { return !w; }));
    EXPECT_EQ(memcmp(out.data() + entries, expected.stream.data(), expected.length), 0);
}

static void compare_offsets()
{
    std::vector<vorp_table_entry_t> entries;
    bytes_t symbols = {'a', 'b', 'b', 'c', 'd', 'd', 'd', 'e'};
    for (const auto &[place, length] : {std::pair{0, 1}, {1, 2}, {3, 1}, {4, 3}, {7, 1}})
        entries.push_back({symbols.data() + place, static_cast<uint8_t>(length), 0});
    vorp_log_t silent = {no_log, nullptr};
    vorp_config_t config;
    vorp_config_init(&config, VORP1, &silent);
    config.ra_interval = 8;
    vorp_table_t table = {};
    table.entries = entries.data();
    table.entry_count = 5;
    bytes_t out(100);
    out.resize(vorp_copy_dict_to_output_fixed(&table, &config, out.data()));
    EXPECT_EQ(hex(out.data(), out.size()), "0005"
                                           "121310"
                                           "000a"
                                           "0009"
                                           "0009"
                                           "0008"
                                           "0009"
                                           "6162626364646465");
}

TEST(training, random_access)
{
    random_source random(66);
    for (const uint64_t size : {3000u, 25000u})
        compare_random_access(dense_words(random.word(), 30, 5, 26, size));
    compare_offsets();
}

// A source that knows where training looks: as many n-grams of 2 bytes as can be are drawn twice each, and then triples
// of 3 bytes.
static bytes_t drawn_twice(uint64_t triples)
{
    constexpr uint64_t base = 2048;
    bytes_t bytes(2100000, ' ');
    srand48(0);
    for (const uint64_t length : {2u, 3u})
        for (uint64_t sample = 0; sample < (length == 2 ? 7 * base : 2 * triples); sample++) {
            const uint64_t number = sample / 2, position = static_cast<uint64_t>(lrand48()) % (bytes.size() - 8);
            for (uint64_t i = 0, rest = number; i < length; i++, rest /= 100)
                bytes[position + i] = static_cast<uint8_t>(80 * (length - 1) + rest % 100);
        }
    return bytes;
}

TEST(training, like_a_second_formulation)
{
    random_source random(65);
    training_model::coverage met;
    test_context ctx(2, KEL_DEBUG_ARG, 0);
    for (unsigned i = 0; i < 400; i++) {
        const uint64_t size = random.one_in(3)    ? random.between(1, 200)
                              : random.one_in(3)  ? random.between(19990, 20010)
                              : random.one_in(20) ? random.between(20000, 400000)
                                                  : random.between(200, 30000);
        const uint64_t capacity = random.one_in(4) ? random.between(0, size) : 2 * size + 16;
        compare_training(any_source(random, size), random.between<int>(VORP1, VORP4), capacity, met);
        ASSERT_FALSE(testing::Test::HasFailure()) << "case " << i;
    }
    for (unsigned i = 0; i < 24; i++) {
        const bytes_t source = dense_words(i, random.between(60, 900), random.between(6, 8), random.between(40, 250),
                                           random.between(30000, 150000));
        const uint64_t options = random.between(0, 1);
        compare_training(source, options ? VORP4 : VORP3, source.size(), met);
        round_trip(ctx, options, source);
        ASSERT_FALSE(testing::Test::HasFailure()) << "dense case " << i;
    }
    for (const auto &[words, alphabet] : {std::pair{1500u, 20u}, {6000u, 20u}, {1500u, 250u}})
        compare_training(dense_words(1, words, 8, alphabet, 2100000), VORP3, 2100000, met);
    for (const uint64_t triples : {1500u, 6144u}) // nodes suffice if they are used again; they do not
        compare_training(drawn_twice(triples), VORP3, 2100000, met);
    EXPECT_GT(met.cut_rounds, 20u);
    EXPECT_GT(met.power_lost, 0u);
    EXPECT_GT(met.last_columns, 0u);
    EXPECT_GT(met.not_worth, 20u);
    EXPECT_GT(met.no_nodes, 0u);
    EXPECT_GT(met.exhausted, met.no_nodes); // the others have no memory left
    EXPECT_GT(met.reused, 0u);
    EXPECT_GT(met.reuse_full, 0u);
}

TEST(training, memory)
{
    random_source random(63);
    const bytes_t source = any_source(random, 30000);
    for (size_t misaligned = 0; misaligned < 8; misaligned++)
        for (size_t failing = 0; failing < 4; failing++) { // pool, record, image
            block_store store;
            store.misaligned = misaligned;
            const kel_init_options_t options = store.options();
            test_context ctx(2, KEL_DEBUG_ARG, 0, &options);
            const size_t live = store.live.size();
            store.failing = failing == 0 ? 0 : store.requests.size() + failing;
            bytes_t stream(source.size() + 1);
            size_t length = source.size();
            kel_zip_t *codec = nullptr;
            const kel_vec_t src = byte_vec(source);
            const kel_result_t result = kel_zip(ctx, 1, &src, stream.data(), &length, &codec);
            ASSERT_EQ(result.status, failing == 0 ? KEL_SUCCESS : KEL_ENOMEM);
            if (failing == 0) {
                store.failing = store.requests.size() + 1;
                EXPECT_EQ(kel_encode(ctx, &src, stream.data(), &length, codec).status, KEL_ENOMEM);
                EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
            }
            EXPECT_EQ(store.live.size(), live);
        }
}

TEST(training, overflow_and_retry)
{
    random_source random(64);
    const bytes_t source = any_source(random, 25000);
    const kel_vec_t src = byte_vec(source);
    test_context ctx;
    bytes_t stream(source.size());
    size_t needed = source.size() - 1;
    kel_zip_t *codec = nullptr;
    const uint64_t count = kel_zip(ctx, 1, &src, stream.data(), &needed, &codec).count;
    ASSERT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
    size_t length = needed - 2;
    kel_result_t result = kel_zip(ctx, 1, &src, stream.data(), &length, &codec);
    EXPECT_TRUE(result.status == KEL_EOVERFLOW && result.count == 0 && length == needed && codec != nullptr);
    const std::string size = std::to_string(needed);
    EXPECT_EQ(ctx.messages(), lines_t{"Compression buffer overflow. buffer size = " + size + ", needed = " + size});
    length = needed - 2;
    EXPECT_EQ(kel_encode(ctx, &src, stream.data(), &length, codec).status, KEL_EOVERFLOW);
    EXPECT_EQ(ctx.messages(), lines_t{"Compression buffer overflow. buffer size = " + std::to_string(needed - 2) +
                                      ", needed = " + size});
    result = kel_encode(ctx, &src, stream.data(), &length, codec);
    EXPECT_TRUE(result.status == KEL_SUCCESS && result.count == count && length == needed);
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
}

TEST(training, refusals)
{
    test_context ctx(1);
    bytes_t source(9000, 'x');
    bytes_t stream(20000);
    size_t length = 10000;
    auto *const untouched = static_cast<kel_zip_t *>(at(0x40));
    kel_zip_t *codec = untouched;
    const auto train = [&](uint64_t options, const kel_vec_t &src) {
        length = 10000;
        return kel_zip(ctx, options, &src, stream.data(), &length, &codec).status;
    };
    kel_vec_t src = byte_vec(source, KEL_ZIP | KEL_BITS);
    src.elem_width = 17;
    EXPECT_EQ(train(6, src), KEL_EINVAL);
    EXPECT_EQ(ctx.messages(),
              (lines_t{"bad options 0x6", "Invalid src elem_width 17 bits; must be 1-16 bits or 1-16 bytes",
                       "Invalid src format: zip"}));
    EXPECT_EQ(codec, untouched);
    length = 10000;
    EXPECT_EQ(kel_encode(ctx, &src, stream.data(), &length, nullptr).status, KEL_EINVAL);
    EXPECT_EQ(ctx.messages(),
              (lines_t{"Invalid src elem_width 17 bits; must be 1-16 bits or 1-16 bytes", "Invalid src format: zip"}));
    src = byte_vec({}, KEL_VAR);
    src.aux_width = 8;
    EXPECT_EQ(train(0, src), KEL_EINVAL);
    EXPECT_EQ(ctx.messages(), lines_t{});
    EXPECT_EQ(codec, untouched);

    ctx->log.options |= KEL_LOG_PERF;
    src = byte_vec(bytes_t(8, 'x'));
    const lines_t exhausted = {"Too many candidate symbols; temp space limit exceeded.  Data is not compressible."};
    EXPECT_EQ(train(0, byte_vec(bytes_t(8, 'x'))), KEL_EZIP);
    EXPECT_EQ(ctx.messages(), exhausted);
    EXPECT_EQ(codec, nullptr);
    ctx->log.options = KEL_LOG_ERROR;
    EXPECT_EQ(train(0, byte_vec(source)), KEL_EZIP); // all single bytes fill the dictionary of a small source
    EXPECT_EQ(ctx.messages().at(0).substr(0, 37), "Negative compression. dst + codec len");

    // A codec that lacks a byte.
    const uint8_t widths[] = {0x10};
    ASSERT_EQ(kel_zip_create(ctx, 1, widths, source.data(), &codec), KEL_SUCCESS);
    source[5000] = 'y';
    length = 10000;
    src = byte_vec(source);
    EXPECT_EQ(kel_encode(ctx, &src, stream.data(), &length, codec).status, KEL_EZIP);
    EXPECT_EQ(ctx.messages(), lines_t{"Some bytes in src cannot be encoded with codec"});
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);

    ctx.disown();
    EXPECT_EQ(train(0, src), KEL_EINVAL);
    EXPECT_EQ(ctx.messages(), lines_t{test_context::wrong_thread()});
}

// Codecs that validation has not tested: too many symbols, and symbols behind the image.
TEST(training, damaged_codecs)
{
    test_context ctx(2, 0);
    bytes_t source(9000, 'x'), stream(20000);
    size_t length = 10000;
    const kel_vec_t src = byte_vec(source);
    kel_zip_t *codec = nullptr;
    for (const unsigned nsyms : {5000u, 200u}) {
        bytes_t image(nsyms > 1024 ? 45000 : 1024, 0x88);
        kel_store_be(image.data(), static_cast<uint16_t>(nsyms));
        const guarded_buffer aligned(image.size(), 16);
        memcpy(aligned.data, image.data(), image.size());
        ASSERT_EQ(nsyms > 1024 ? kel_zip_create(ctx, 5000, image.data(), image.data(), &codec)
                               : kel_zip_create_contig(ctx, aligned.data, aligned.size, &codec),
                  KEL_SUCCESS);
        EXPECT_EQ(kel_encode(ctx, &src, stream.data(), &length, codec).status, KEL_EDATAFMT);
        EXPECT_EQ(ctx.messages(), lines_t{"EDATAFMT: codec of " + std::to_string(nsyms) +
                                          " symbols passes its image of " + std::to_string(codec->dict_sz) + " bytes"});
        EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
    }
}

// Texts are trained on by their lengths, and encoded as the bytes that their vector declares.
TEST(training, texts)
{
    test_context ctx;
    const bytes_t source(24000, 'x'), lengths(source.size() / 8, 8);
    bytes_t trained(source.size(), 0xA5), encoded = trained;
    size_t length = source.size() - 2, again = length;
    kel_vec_t src = byte_vec(source, KEL_VAR);
    src.elements = lengths.size(), src.elem_width = 0, src.aux_width = 8;
    src.aux_data = const_cast<uint8_t *>(lengths.data());
    kel_zip_t *codec = nullptr;
    const kel_result_t result = kel_zip(ctx, 1, &src, trained.data(), &length, &codec);
    ASSERT_EQ(result.status, KEL_SUCCESS);
    EXPECT_EQ(kel_encode(ctx, &src, encoded.data(), &again, codec).status, KEL_EZIP); // nothing is declared
    src.elements = source.size(), src.elem_width = 1;
    EXPECT_EQ(kel_encode(ctx, &src, encoded.data(), &again, codec).count, result.count);
    EXPECT_EQ(std::tuple(again, encoded), std::tuple(length, trained));
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
}

// A parse that breaks off tells all the same that it had no room.
TEST(training, overflow_before_an_unknown_byte)
{
    vorp_log_t silent = {no_log, nullptr};
    vorp_config_t config;
    vorp_config_init(&config, VORP1, &silent);
    vorp_mempool_t pool;
    ASSERT_EQ(vorp_mempool_init(&config, &pool, vorp_pool_bytes, nullptr, nullptr, nullptr), 0);
    vorp_dict_t dict;
    const uint8_t widths[] = {0x11}, source[] = {'a', 'b', 'a', 'b', 'b', 'b', 'b', 'b', 'a', '?'};
    make_vorp_dict(2, widths, source, nullptr, &pool, &dict);
    for (const uint64_t capacity : {0, 1, 2}) {
        uint8_t stream[3] = {};
        uint64_t length = 99, count = 99;
        int overflow = 99;
        EXPECT_EQ(vorp_parse_fixed(source, 10, stream, capacity, &length, 1, &dict, &config, &overflow, &count), 0u);
        EXPECT_EQ(std::tuple(overflow, length, count), std::tuple(capacity < 2, 99u, 9u));
        EXPECT_EQ(stream[0], capacity == 0 ? 0 : 0b01011111);
    }
    free_vorp_dict(&dict);
}

TEST(training, lines)
{
    test_context ctx(2, KEL_DEBUG_ARG, KEL_LOG_ENTRY | KEL_LOG_RETURN | KEL_LOG_PERF | KEL_LOG_VERBOSE);
    bytes_t source;
    for (unsigned i = 0; i < 4000; i++)
        for (const char c : {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'})
            source.push_back(static_cast<uint8_t>(c));
    bytes_t stream(source.size());
    size_t length = stream.size() - 1;
    const kel_vec_t src = byte_vec(source);
    kel_zip_t *codec = nullptr;
    const kel_result_t result = kel_zip(ctx, 1, &src, stream.data(), &length, &codec);
    ASSERT_EQ(result.status, KEL_SUCCESS);
    EXPECT_EQ(result.count, 4000u);
    const std::string vec =
        "data=" + pointer_text(source.data()) + ", elements=32000, width=1, offset=0,\n      fmt=bytes";
    const auto ratio = [&](const char *what, uint64_t bytes) {
        char text[80];
        snprintf(text, sizeof text, "compression ratio %s codec = %.2lf", what, 32000.0 / static_cast<double>(bytes));
        return std::string(text);
    };
    const std::string ratios[] = {ratio("excluding", length), ratio("including", length + kel_zip_size(ctx, codec))};
    const std::string buf = "  buf=" + pointer_text(stream.data()) + ", *buflen=31999, ";
    const std::string outcome = "{SUCCESS, count=4000}";
    const std::string returned = ", *buflen=" + std::to_string(length) + ", and " + outcome;
    EXPECT_EQ(ctx.messages(), (lines_t{"kel_zip(): ctx=" + pointer_text(ctx.ctx) + ", options=0x1,\n  src = " + vec +
                                           "\n" + buf + "&codec=" + pointer_text(&codec),
                                       "Created codec with " + std::to_string(codec->nsyms) + " symbols", ratios[0],
                                       ratios[1], "kel_zip() returns codec=" + pointer_text(codec) + returned}));
    length = stream.size() - 1;
    EXPECT_EQ(kel_encode(ctx, &src, stream.data(), &length, codec).count, 4000u);
    EXPECT_EQ(ctx.messages(), (lines_t{"kel_encode(): ctx=" + pointer_text(ctx.ctx) + ",\n  src = " + vec + "\n" + buf +
                                           "codec=" + pointer_text(codec),
                                       ratios[0], ratios[1],
                                       "kel_encode() returns *buflen=" + std::to_string(length) + " and " + outcome}));
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
}
