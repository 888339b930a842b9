// Training and encoding: what is compressed comes back, every status and line, and the pool and the sort under them.

#include "kel_zip.h"
#include "support.h"
#include "vorp.h"
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

using bytes_t = std::vector<uint8_t>;

// A source, what it is compressed to, and the codec.
struct coder {
    coder(test_context &context, const bytes_t &source, uint64_t format = KEL_BYTES)
        : ctx(context),
          data(source), src{format, source.size(), const_cast<uint8_t *>(data.data()), 1, 0, 0, 0, nullptr, nullptr, 0}
    {
    }

    kel_result_t zip(uint64_t options, size_t room)
    {
        make_room(room);
        return kel_zip(ctx, options, &src, stream.data(), &length, &codec);
    }

    kel_result_t encode(size_t room)
    {
        make_room(room);
        return kel_encode(ctx, &src, stream.data(), &length, codec);
    }

    void make_room(size_t room) // and something behind it
    {
        stream.assign(room / 8 * 8 + 16, 0xee);
        length = room;
    }

    // What the stream gives back, by the public call.
    bytes_t expanded(uint64_t codewords) const
    {
        kel_vec_t packed = src, dst = src;
        packed.format |= KEL_ZIP;
        packed.data = const_cast<uint8_t *>(stream.data());
        packed.codec = codec;
        packed.codewords = codewords;
        const guarded_buffer out(data.size() / 64 * 64 + 128, 64);
        dst.data = out.data;
        EXPECT_EQ(kel_extract(ctx, 0, &packed, &dst).status, KEL_SUCCESS);
        return {out.data, out.data + data.size()};
    }

    void free()
    {
        EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
    }

    test_context &ctx;
    const bytes_t data;
    kel_vec_t src;
    bytes_t stream;
    size_t length = 0;
    kel_zip_t *codec = static_cast<kel_zip_t *>(at(0x40));
};

// ---- Sources --------------------------------------------------------------------------------------------------------

// Pieces one after the other, the last one cut.
template <class Piece>
bytes_t made_of(uint64_t size, const Piece &piece)
{
    std::string text;
    while (text.size() < size)
        text += piece(text.size());
    return {text.begin(), text.begin() + static_cast<ptrdiff_t>(size)};
}

struct words_t {
    uint64_t count, shortest, longest, low, high; // letters from low to high

    std::vector<std::string> draw(random_source &random) const
    {
        std::vector<std::string> words(count);
        for (std::string &word : words)
            for (uint64_t letters = random.between(shortest, longest); letters > 0; letters--)
                word += static_cast<char>(random.between(low, high));
        return words;
    }

    // One after the other: all parts of words of one length are frequent, and the dictionary is full. Under thorough
    // training the row rule shortens the dictionaries of few words, below powers of two as well.
    bytes_t text(random_source &random, uint64_t size) const
    {
        const auto words = draw(random);
        return made_of(size, [&](uint64_t) { return words[random.between(0, words.size() - 1)]; });
    }
};

// Texts of few or many words, lines, numbers, runs, noise.
bytes_t any_source(random_source &random, uint64_t size)
{
    const uint64_t kind = random.between(0, 5), count = random.between(2, random.one_in(2) ? 60 : 3000);
    const auto words =
        words_t{count, 1, 12, kind == 0 ? 'a' : uint64_t{' '}, kind == 0 ? 'h' : uint64_t{'z'}}.draw(random);
    return made_of(size, [&](uint64_t place) -> std::string {
        const uint64_t number = random.between(0, uint64_t{1} << random.between(1, 20));
        const auto repeated = static_cast<char>(number % 4);
        switch (kind) {
        case 0:
        case 1:
            return words[random.between(0, random.between(0, count - 1))] + ' ';
        case 2:
            return "id=" + std::to_string(random.between(0, 99999)) + " " + words[place % count] + "\n";
        case 3:
            return {0, static_cast<char>(number >> 16), static_cast<char>(number >> 8), static_cast<char>(number)};
        case 4:
            return std::string(random.between(1, 300), repeated);
        default:
            return random.one_in(20) ? std::string(1, static_cast<char>(number)) : words[0];
        }
    });
}

// A source that knows where training looks: as many n-grams of 2 bytes as can be are drawn twice each, and then triples
// of 3 bytes.
bytes_t drawn_twice(uint64_t triples)
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

// ---- Training and parsing -------------------------------------------------------------------------------------------

void no_log(void *, const char *, ...) {}
vorp_log_t silent = {no_log, nullptr};

vorp_config_t configured(vorp_level_t level, vorp_log_t *log = &silent)
{
    vorp_config_t config;
    vorp_config_init(&config, level, log);
    return config;
}

// What the pool has served when the table stands.
uint64_t pool_used(const bytes_t &source, vorp_level_t level)
{
    vorp_config_t config = configured(level);
    vorp_adjust_dictionary_size(source.size(), &config);
    vorp_mempool_t pool;
    EXPECT_EQ(vorp_mempool_init(&config, &pool, vorp_pool_bytes, nullptr, nullptr, nullptr), 0);
    vorp_dict_t *dict = nullptr;
    vorp_table_create(source.data(), source.size(), &config, pool_objects<vorp_table_t>(&pool, 1, ""), &pool, &dict);
    const uint64_t used = pool.used[0];
    vorp_mempool_release(&pool);
    return used;
}

// A digest of what training and parsing make of a source: the bytes, what is told, the use of the pool.
uint64_t trained(const bytes_t &source, vorp_level_t level, uint64_t capacity)
{
    bytes_t dictionary(vorp_dict_out_bytes, 0xcd), stream(capacity + 1, 0xff);
    uint64_t length = 99, codewords = 99;
    const int outcome = vorp_kel_zip(source.data(), source.size(), stream.data(), capacity, &length, nullptr, nullptr,
                                     no_log, nullptr, level, dictionary.data(), &codewords);
    if (stream[capacity] == 0xff) // no codeword has come so far
        stream[capacity] = 0;
    const uint64_t told[] = {static_cast<uint64_t>(outcome), length, codewords,
                             outcome >= 0 ? pool_used(source, level) : 0};
    uint64_t digest = 0xcbf29ce484222325;
    for (const uint64_t word : told)
        digest = (digest ^ word) * 0x100000001b3;
    for (const bytes_t *bytes : {&dictionary, &stream})
        for (const uint8_t byte : *bytes)
            digest = (digest ^ byte) * 0x100000001b3;
    return digest;
}

// Compresses, and compares what comes back, also from a second encoding; true if the source was compressible.
bool round_trip(test_context &ctx, uint64_t options, const bytes_t &source)
{
    coder c(ctx, source);
    const kel_result_t result = c.zip(options, 2 * source.size() + 15);
    if (result.status != KEL_SUCCESS) {
        EXPECT_TRUE(result.status == KEL_EZIP && result.count == 0);
        return false;
    }
    const size_t length = c.length;
    EXPECT_EQ(c.expanded(result.count), source);
    EXPECT_LE(length + kel_zip_size(ctx, c.codec), source.size());
    // With no more room than told, but for a last codeword that starts in a byte which is not counted.
    const kel_result_t encoded =
        c.encode(std::max(length, (result.count - 1) * zip_code_width(c.codec->nsyms) / 8 + 1));
    EXPECT_TRUE(encoded.status == KEL_SUCCESS && encoded.count == result.count && c.length == length);
    EXPECT_EQ(c.expanded(result.count), source);
    c.free();
    return true;
}

// Equal sources give equal dictionaries and streams for ever, because users store them.
TEST(training, gives_the_same_for_ever)
{
    random_source random(65);
    test_context contexts[] = {test_context(1, KEL_DEBUG_ARG, 0), test_context(2, KEL_DEBUG_ARG, 0)};
    std::map<std::string, uint64_t> digests;
    unsigned compressed = 0;
    const auto train = [&](const std::string &kind, const bytes_t &source, vorp_level_t level, uint64_t capacity) {
        uint64_t &digest = digests[kind + " " + std::to_string(level)];
        digest = 31 * digest + trained(source, level, capacity);
        compressed += level >= VORP3 && round_trip(contexts[random.between(0, 1)], level == VORP4, source);
    };
    for (unsigned i = 0; i < 500 && !HasFailure(); i++) {
        const uint64_t size = random.one_in(3)    ? random.between(1, 200)
                              : random.one_in(3)  ? random.between(19990, 20010)
                              : random.one_in(30) ? random.between(20000, 400000)
                                                  : random.between(200, 30000);
        const uint64_t capacity = random.one_in(4) ? random.between(0, size) : 2 * size + 16;
        const vorp_level_t level = random.pick({VORP1, VORP2, VORP3, VORP3, VORP4, VORP4});
        train("any", any_source(random, size), level, capacity);
    }
    for (unsigned i = 0; i < 60 && !HasFailure(); i++)
        train("few words", words_t{random.between(20, 90), 3, 9, 'a', 'z'}.text(random, random.between(20000, 60000)),
              VORP4, 100000);
    for (unsigned i = 0; i < 24 && !HasFailure(); i++) {
        const uint64_t letters = random.between(6, 8);
        const words_t words = {random.between(60, 900), letters, letters, 1, random.between(40, 250)};
        const vorp_level_t level = random.pick({VORP3, VORP4});
        train("dense", words.text(random, random.between(30000, 150000)), level, 150000);
    }
    for (const auto &[count, alphabet] : {std::pair{1500u, 20u}, {6000u, 20u}, {1500u, 250u}}) // one leaves no memory
        train("exhausting", words_t{count, 8, 8, 1, alphabet}.text(random, 2100000), VORP3, 2100000);
    for (const uint64_t triples : {1500u, 6144u}) // nodes suffice if they are used again; they do not
        train(std::to_string(triples) + " triples", drawn_twice(triples), VORP3, 2100000);
    EXPECT_EQ(digests, (std::map<std::string, uint64_t>{{"1500 triples 3", 0xc772acd4c754b3b1},
                                                        {"6144 triples 3", 0xf26a055b7fa6d27b},
                                                        {"any 1", 0x1241a706acdba372},
                                                        {"any 2", 0x0efd94b991ec5f71},
                                                        {"any 3", 0xd472a8e34a46b5d5},
                                                        {"any 4", 0x02d3813d0b2628f8},
                                                        {"dense 3", 0xf19ebf3210ef18b9},
                                                        {"dense 4", 0xcdc2785230e6e22a},
                                                        {"exhausting 3", 0xf05418b85abec06f},
                                                        {"few words 4", 0x163633d939b6a30c}}));
    EXPECT_GT(compressed, 100u);
}

// The format's own encoder, with random access: the table's first entry, and its length counted twice.
TEST(training, random_access)
{
    random_source random(66);
    for (const uint64_t size : {3000u, 25000u}) {
        const bytes_t source = words_t{30, 5, 5, 1, 26}.text(random, size);
        bytes_t dictionary(vorp_dict_out_bytes), plain(size);
        uint64_t length = 0, plain_length = 0, codewords = 0;
        EXPECT_EQ(vorp_kel_zip(source.data(), size, plain.data(), size, &plain_length, nullptr, nullptr, no_log,
                               nullptr, VORP2, dictionary.data(), &codewords),
                  0);
        constexpr int16_t interval = 64;
        const uint64_t entries = (size + interval - 1) / interval;
        std::vector<uint64_t> in(size / 8 + 1), out(entries + size / 8 + 1), table(entries);
        memcpy(in.data(), source.data(), size);
        kel_store_be(table.data(), entries << 42);
        EXPECT_EQ(vorp_encode(&silent, 0, in.data(), size, out.data(), &length, 8 * out.size(), VORP2, nullptr, nullptr,
                              nullptr, 1, interval),
                  0);
        EXPECT_EQ(length, plain_length + 2 * 8 * entries);
        EXPECT_TRUE(std::equal(table.begin(), table.end(), out.begin()));
        EXPECT_EQ(memcmp(out.data() + entries, plain.data(), plain_length), 0);
    }
}

// The dictionary's section then has the distance of each symbol from its offset's own place.
TEST(training, offsets)
{
    uint8_t symbols[] = {'a', 'b', 'b', 'c', 'd', 'd', 'd', 'e'}, out[100];
    vorp_table_entry_t entries[] = {
        {symbols, 1, 0}, {symbols + 1, 2, 0}, {symbols + 3, 1, 0}, {symbols + 4, 3, 0}, {symbols + 7, 1, 0}};
    vorp_config_t config = configured(VORP1);
    config.ra_interval = 8;
    vorp_table_t table = {};
    table.entries = entries;
    table.entry_count = 5;
    EXPECT_EQ(hex(out, vorp_copy_dict_to_output_fixed(&table, &config, out)),
              "0005121310000a00090009000800096162626364646465");
}

// ---- Statuses and lines ---------------------------------------------------------------------------------------------

TEST(training, memory)
{
    random_source random(63);
    const bytes_t source = any_source(random, 30000);
    for (size_t misaligned = 0; misaligned < 8; misaligned++)
        for (size_t failing = 0; failing < 4; failing++) { // pool, record, image
            block_store store = {.misaligned = misaligned};
            const kel_init_options_t options = store.options();
            test_context ctx(2, KEL_DEBUG_ARG, 0, &options);
            const size_t live = store.live.size();
            coder c(ctx, source);
            store.failing = failing == 0 ? 0 : store.requests.size() + failing;
            ASSERT_EQ(c.zip(1, source.size()).status, failing == 0 ? KEL_SUCCESS : KEL_ENOMEM);
            if (failing == 0) {
                store.failing = store.requests.size() + 1;
                EXPECT_EQ(c.encode(source.size()).status, KEL_ENOMEM);
                c.free();
            }
            EXPECT_EQ(store.live.size(), live);
        }
}

TEST(training, overflow_and_retry)
{
    random_source random(64);
    test_context ctx;
    coder c(ctx, any_source(random, 25000));
    const uint64_t count = c.zip(1, 24999).count;
    const size_t needed = c.length;
    c.free();
    const auto report = [&](size_t room) {
        return lines_t{"Compression buffer overflow. buffer size = " + std::to_string(room) +
                       ", needed = " + std::to_string(needed)};
    };
    const kel_result_t cut = c.zip(1, needed - 2);
    EXPECT_TRUE(cut.status == KEL_EOVERFLOW && cut.count == 0 && c.length == needed && c.codec != nullptr);
    EXPECT_EQ(ctx.messages(), report(needed));
    EXPECT_EQ(c.encode(needed - 2).status, KEL_EOVERFLOW);
    EXPECT_EQ(ctx.messages(), report(needed - 2));
    const kel_result_t whole = c.encode(needed);
    EXPECT_TRUE(whole.status == KEL_SUCCESS && whole.count == count && c.length == needed);
    c.free();
}

TEST(training, refusals)
{
    test_context ctx(1);
    const auto refused = [&](coder &c, kel_status_t status, const lines_t &lines) {
        EXPECT_EQ(c.zip(0, 10000).status, status);
        EXPECT_EQ(ctx.messages(), lines);
    };
    const bytes_t same(9000, 'x');
    const std::string wide = "Invalid src elem_width 17 bits; must be 1-16 bits or 1-16 bytes";
    coder bad(ctx, same, KEL_ZIP | KEL_BITS), nothing(ctx, {}, KEL_VAR), small(ctx, bytes_t(8, 'x')), known(ctx, same);
    bad.src.elem_width = 17;
    refused(bad, KEL_EINVAL, {wide, "Invalid src format: zip"});
    EXPECT_EQ(bad.encode(10000).status, KEL_EINVAL);
    EXPECT_EQ(ctx.messages(), (lines_t{wide, "Invalid src format: zip"}));
    EXPECT_EQ(known.zip(6, 10000).status, KEL_EINVAL);
    EXPECT_EQ(ctx.messages(), lines_t{"bad options 0x6"});
    nothing.src.aux_width = 8;
    refused(nothing, KEL_EINVAL, {});
    EXPECT_TRUE(bad.codec == at(0x40) && known.codec == at(0x40) && nothing.codec == at(0x40));

    ctx->log.options |= KEL_LOG_PERF;
    refused(small, KEL_EZIP, {"Too many candidate symbols; temp space limit exceeded.  Data is not compressible."});
    EXPECT_EQ(small.codec, nullptr);
    ctx->log.options = KEL_LOG_ERROR;
    EXPECT_EQ(known.zip(0, 10000).status, KEL_EZIP); // all single bytes fill the dictionary of a small source
    EXPECT_EQ(ctx.messages().at(0).substr(0, 37), "Negative compression. dst + codec len");

    const uint8_t width = 0x10, other = 'y'; // of a codec that lacks a byte
    ASSERT_EQ(kel_zip_create(ctx, 1, &width, &other, &known.codec), KEL_SUCCESS);
    EXPECT_EQ(known.encode(10000).status, KEL_EZIP);
    EXPECT_EQ(ctx.messages(), lines_t{"Some bytes in src cannot be encoded with codec"});
    known.free();
    ctx.disown();
    refused(known, KEL_EINVAL, {test_context::wrong_thread()});
}

// Codecs that validation has not tested: too many symbols, and symbols behind the image.
TEST(training, damaged_codecs)
{
    test_context ctx(2, 0);
    coder c(ctx, bytes_t(9000, 'x'));
    for (const uint16_t nsyms : {uint16_t{5000}, uint16_t{200}}) {
        const bool many = nsyms > 1024;
        const guarded_buffer image(many ? 45056 : 1024, 16);
        memset(image.data, 0x88, image.size);
        kel_store_be(image.data, nsyms);
        ASSERT_EQ(many ? kel_zip_create(ctx, nsyms, image.data, image.data, &c.codec)
                       : kel_zip_create_contig(ctx, image.data, image.size, &c.codec),
                  KEL_SUCCESS);
        EXPECT_EQ(c.encode(10000).status, KEL_EDATAFMT);
        EXPECT_EQ(ctx.messages(),
                  lines_t{"EDATAFMT: codec of " + std::to_string(nsyms) + " symbols passes its image of " +
                          std::to_string(c.codec->dict_sz) + " bytes"});
        c.free();
    }
}

// Texts are trained on by their lengths, and encoded as the bytes that their vector declares.
TEST(training, texts)
{
    test_context ctx;
    coder c(ctx, bytes_t(24000, 'x'), KEL_VAR);
    bytes_t lengths(3000, 8);
    c.src.elements = lengths.size(), c.src.elem_width = 0, c.src.aux_width = 8;
    c.src.aux_data = lengths.data();
    const kel_result_t trained = c.zip(1, 23998);
    ASSERT_EQ(trained.status, KEL_SUCCESS);
    const size_t length = c.length;
    const bytes_t stream = c.stream;
    EXPECT_EQ(c.encode(23998).status, KEL_EZIP); // nothing is declared
    c.src.elements = c.data.size(), c.src.elem_width = 1;
    EXPECT_EQ(c.encode(23998).count, trained.count);
    EXPECT_EQ(std::tuple(c.length, c.stream), std::tuple(length, stream));
    c.free();
}

// A parse that breaks off tells all the same that it had no room.
TEST(training, overflow_before_an_unknown_byte)
{
    const vorp_config_t config = configured(VORP1);
    vorp_mempool_t pool;
    ASSERT_EQ(vorp_mempool_init(&config, &pool, vorp_pool_bytes, nullptr, nullptr, nullptr), 0);
    vorp_dict_t dict;
    const uint8_t widths[] = {0x11}, source[] = {'a', 'b', 'a', 'b', 'b', 'b', 'b', 'b', 'a', '?'};
    make_vorp_dict(2, widths, source, nullptr, &pool, &dict);
    const uint64_t used = pool.used[0];
    vorp_trie_insert(dict.trie, source, 1, 0); // takes nothing a second time
    EXPECT_EQ(pool.used[0], used);
    for (const uint64_t capacity : {0u, 1u, 2u}) {
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
    coder c(ctx, made_of(32000, [](uint64_t) { return "abcdefgh"; }));
    ASSERT_EQ(c.zip(1, 31999).count, 4000u);
    const lines_t trained = ctx.messages();
    const size_t length = c.length;
    EXPECT_EQ(c.encode(31999).count, 4000u);
    const auto ratio = [&](const char *what, uint64_t bytes) {
        char text[80];
        snprintf(text, sizeof text, "compression ratio %s codec = %.2lf", what, 32000.0 / static_cast<double>(bytes));
        return std::string(text);
    };
    const std::string context = "(): ctx=" + pointer_text(ctx.ctx), codec = "codec=" + pointer_text(c.codec);
    const std::string args =
        ",\n  src = data=" + pointer_text(c.data.data()) +
        ", elements=32000, width=1, offset=0,\n      fmt=bytes\n  buf=" + pointer_text(c.stream.data()) +
        ", *buflen=31999, ";
    const std::string outcome = "{SUCCESS, count=4000}", returned = " *buflen=" + std::to_string(length);
    const std::string ratios[] = {ratio("excluding", length), ratio("including", length + kel_zip_size(ctx, c.codec))};
    EXPECT_EQ(trained, (lines_t{"kel_zip" + context + ", options=0x1" + args + "&codec=" + pointer_text(&c.codec),
                                "Created codec with " + std::to_string(c.codec->nsyms) + " symbols", ratios[0],
                                ratios[1], "kel_zip() returns " + codec + "," + returned + ", and " + outcome}));
    EXPECT_EQ(ctx.messages(), (lines_t{"kel_encode" + context + args + codec, ratios[0], ratios[1],
                                       "kel_encode() returns" + returned + " and " + outcome}));
    c.free();
}

// ---- Under the encoder ----------------------------------------------------------------------------------------------

// Draws blocks until the pool is exhausted. Those of bytes follow one behind the other.
void draw_all(vorp_mempool_t &pool, uint64_t *used)
{
    random_source random(1);
    auto *base = static_cast<uint8_t *>(pool.chunks[0]);
    *used = pool.used[0];
    memset(pool.raw[0], 0x5a, pool.chunk_size);
    while (setjmp(pool.recover) == 0) {
        const uint64_t size = random.between(0, 200);
        const bool zero = random.one_in(2), align = !random.one_in(4);
        auto *block = static_cast<uint8_t *>(vorp_mempool_getmemory(&pool, size, zero, align, ""));
        *used = align ? *used / 16 * 16 + 16 : *used;
        ASSERT_EQ(block, base + *used);
        ASSERT_EQ(std::count(block, block + size, zero ? 0 : 0x5a), size);
        ASSERT_EQ(pool.used[0], *used += align ? size / 16 * 16 + 16 : size);
    }
}

// A client's block at any address holds words in every request; an exhausted pool comes back and is released whole.
TEST(vorp_pool, recovery)
{
    for (size_t misaligned = 0; misaligned < 8; misaligned++) {
        block_store store = {.misaligned = misaligned};
        const kel_init_options_t options = store.options();
        test_context ctx(2, 0, KEL_LOG_VERBOSE, &options);
        const size_t blocks = store.live.size();
        vorp_log_t log = {kel_log_func, ctx.ctx};
        const vorp_config_t config = configured(VORP4, &log);
        vorp_mempool_t pool;
        uint64_t used = 0;
        ASSERT_EQ(vorp_mempool_init(&config, &pool, 5000, kel_alloc_func, kel_free_func, ctx.ctx), 0);
        EXPECT_EQ(store.requests.back(), 5008u + 8 + 16); // with the words of the callback and of the context
        EXPECT_EQ(pool.chunks[0], at(reinterpret_cast<uintptr_t>(pool.raw[0]) / 8 * 8));
        draw_all(pool, &used);
        EXPECT_GT(used + 224, pool.chunk_size);
        EXPECT_LE(used, pool.chunk_size);
        kel_log_func(ctx, "x"); // loses its last character
        kel_log_func(ctx, "%d of %s\n", 3, "five");
        EXPECT_EQ(ctx.lines.at(2).level, uint32_t{KEL_LOG_VERBOSE});
        EXPECT_EQ(ctx.messages(), (lines_t{"VORP running out of memory! recovering...", "", "3 of five"}));
        ctx->log.options = 0;
        kel_log_func(ctx, "off\n");
        EXPECT_EQ(ctx.messages(), lines_t{});
        vorp_mempool_release(&pool);
        EXPECT_EQ(store.live.size(), blocks);
        store.failing = store.requests.size() + 1;
        EXPECT_EQ(vorp_mempool_init(&config, &pool, 5000, kel_alloc_func, kel_free_func, ctx.ctx), -1);
    }
}

using trace_t = std::vector<std::pair<uint8_t, uint8_t>>;

int64_t compare(void *trace, const void *a, const void *b)
{
    const auto left = *static_cast<const uint8_t *>(a), right = *static_cast<const uint8_t *>(b);
    static_cast<trace_t *>(trace)->emplace_back(left, right);
    return int64_t{0x7f00000000000000} | static_cast<uint32_t>(left - right);
}

// Elements of all sizes take the way of those of 8 bytes, which training sorts.
TEST(lsrsrx, elements_of_all_sizes)
{
    random_source random(4);
    for (size_t n = 0; n < 150; n++) {
        bytes_t keys(n);
        for (uint8_t &key : keys)
            key = random.between<uint8_t>(0, n % 3 == 0 ? 5 : 255);
        const auto sorted = [&](size_t size) {
            const guarded_buffer data(n * size, 1);
            for (size_t i = 0; i < n; i++)
                *static_cast<uint8_t *>(memset(data.data + i * size, static_cast<int>(i), size)) = keys[i];
            std::pair<trace_t, std::string> result;
            lsrsrx(data.data, n, size, compare, &result.first);
            for (const uint8_t *element = data.data; element < data.data + n * size; element += size) {
                result.second += hex(element, 2);
                EXPECT_EQ(std::count(element + 1, element + size, element[1]), size - 1);
            }
            return result;
        };
        const auto words = sorted(8);
        ASSERT_TRUE(sorted(3) == words && sorted(16) == words) << n;
    }
}

} // namespace
