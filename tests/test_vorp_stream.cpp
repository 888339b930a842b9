// Vorp streams that are written and decoded, and the text of every check that ends the process.
#include "support.h"
#include "vorp.h"
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

namespace
{

using bytes_t = std::vector<uint8_t>;

vorp_log_t no_log = {}; // nothing is to be said

vorp_config_t configured(int interval = -1, vorp_level_t level = VORP1)
{
    vorp_config_t config;
    vorp_config_init(&config, level, &no_log);
    config.ra_interval = static_cast<int16_t>(interval);
    return config;
}

// A dictionary, codewords, and the bytes that they stand for.
struct text_t {
    bytes_t widths, syms, plain;
    std::vector<uint16_t> codewords;
    std::vector<bytes_t> symbols;

    void add_symbol(const bytes_t &symbol)
    {
        widths.resize(symbols.size() / 2 + 1);
        widths.back() |= static_cast<uint8_t>(symbol.size() << (symbols.size() % 2 == 0 ? 4 : 0));
        syms.insert(syms.end(), symbol.begin(), symbol.end());
        symbols.push_back(symbol);
    }

    void add_codeword(unsigned code)
    {
        codewords.push_back(static_cast<uint16_t>(code));
        plain.insert(plain.end(), symbols[code].begin(), symbols[code].end());
    }

    // As a stream in memory that ends before a page that faults, if align is 1.
    std::unique_ptr<guarded_buffer> written(const vorp_config_t &config, size_t align = 1, bool stored = false) const
    {
        const vorp_content_t content = {static_cast<unsigned>(symbols.size()),
                                        widths.data(),
                                        syms.data(),
                                        codewords.data(),
                                        codewords.size(),
                                        plain.size()};
        bytes_t room(100000, 0xa5);
        const auto write = [&](uint64_t capacity) {
            return stored ? vorp_stream_store(&config, plain.data(), plain.size(), room.data(), capacity)
                          : vorp_stream_write(&config, &content, room.data(), capacity);
        };
        const uint64_t length = write(room.size());
        EXPECT_TRUE(write(length) == length && write(length - 1) == 0);
        auto stream = std::make_unique<guarded_buffer>(length, align);
        memcpy(stream->data, room.data(), length);
        return stream;
    }
};

text_t random_text(random_source &random, unsigned nsyms, unsigned count)
{
    text_t text;
    const unsigned longest = random.pick({1u, 3u, 8u});
    for (unsigned i = 0; i < nsyms; i++) {
        bytes_t symbol(random.between(1, longest));
        random.fill(symbol.data(), symbol.size());
        text.add_symbol(symbol);
    }
    for (unsigned i = 0; i < count; i++)
        text.add_codeword(random.between<unsigned>(0, nsyms - 1));
    return text;
}

// Five symbols and eight codewords, the fewest.
text_t shortest()
{
    text_t text;
    for (const bytes_t &symbol : {bytes_t{'a'}, {'b', 'c'}, {'d'}, {'e'}, {'f'}})
        text.add_symbol(symbol);
    for (const unsigned code : {0u, 1u, 2u, 3u, 1u, 1u, 1u, 0u})
        text.add_codeword(code);
    return text;
}

TEST(vorp_stream, bytes)
{
    const auto stream = shortest().written(configured(8));
    EXPECT_EQ(hex(stream->data, stream->size), "564f5250000000000002000000000000000000080000000c00000000" // header
                                               "0005121110000a0009000900080007616263646566"               // dictionary
                                               "0000000800000000"
                                               "00000800000000000000048f00000000" // count, table
                                               "053248");
    uint8_t header[vorp_header_size];
    uint16_t header_bytes;
    uint64_t size;
    vorp_config_t config = configured(64, VORP3);
    for (const auto &[stored, fields] : {std::pair(0u, "0600000000000000000040"), {1u, "0700000000000000000000"}}) {
        vorp_table_t table = {};
        table.stored = stored;
        memset(header, 0xa5, sizeof header);
        vorp_header_write(&table, &config, 100000, header, &header_bytes);
        EXPECT_EQ(hex(header, 28), "564f52500000000000" + std::string(fields) + "000186a000000000");
    }
    EXPECT_EQ(vorp_header_read(header, &config, &header_bytes, &size), 0);
    EXPECT_EQ(std::tuple(header_bytes, size, config.ra_interval, config.hw_constraint),
              std::tuple(28, 100000u, -1, 1u));
}

// Whole streams both ways, and every range of small ones. Inputs and outputs end where they are used up.
TEST(vorp_stream, decodes)
{
    random_source random(5);
    bytes_t wrkmem(vorp_max_entries * vorp_entry_wrkmem + 1, 0xa5);
    for (unsigned turn = 0; turn < 240; turn++) {
        const unsigned width = turn % 8 + 3;
        const bool stored = random.one_in(20);
        const auto config =
            configured(random.pick({-1, 8, 256, random.between<int>(8, 256)}), random.pick({VORP1, VORP3}));
        const text_t text = turn == 0
                                ? shortest()
                                : random_text(random, random.between<unsigned>((1u << (width - 1)) + 1, 1u << width),
                                              random.between<unsigned>(8, turn % 30 == 1 ? 3000 : 40));
        const uint64_t size = text.plain.size();
        uint64_t length = 0;
        const auto aligned = text.written(config, 8, stored), stream = text.written(config, 1, stored);
        const guarded_buffer room((size + 7) / 8 * 8), exact(size, 1);
        vorp_decode(&no_log, 0, aligned->data, room.data, &length, size, nullptr, nullptr, nullptr);
        ASSERT_EQ(hex(room.data, room.size), hex(text.plain.data(), size) + hex(exact.data, room.size - size));
        ASSERT_EQ(std::exchange(length, 0), size);
        vorp_decode_wrkmem(&no_log, 0, stream->data, exact.data, &length, size, wrkmem.data() + 1, wrkmem.size() - 1);
        ASSERT_EQ(hex(exact.data, size), hex(text.plain.data(), size));
        ASSERT_EQ(length, size);
        for (uint64_t pos = 0; size < 200 && (stored || config.ra_interval > 0) && pos <= size; pos++) {
            for (uint64_t len = 0; len <= size - pos + 1; len++) {
                const uint64_t expected = std::min(len, size - pos);
                uint8_t *to = exact.data + size - expected;
                memset(exact.data, 0xa5, size);
                ASSERT_EQ(vorp_decode_selective(&no_log, 0, stream->data, to, pos, static_cast<int64_t>(len)),
                          expected);
                ASSERT_EQ(memcmp(to, text.plain.data() + pos, expected), 0);
                ASSERT_EQ(std::count(exact.data, to, 0xa5), to - exact.data);
            }
        }
    }
}

// What a stream cannot hold.
TEST(vorp_stream, refused)
{
    const text_t good = shortest();
    uint8_t room[200];
    const auto write = [&](int interval, unsigned nsyms, uint64_t count, uint64_t size) {
        const vorp_config_t config = configured(interval);
        const vorp_content_t content = {nsyms, good.widths.data(), good.syms.data(), good.codewords.data(), count,
                                        size};
        return vorp_stream_write(&config, &content, room, sizeof room);
    };
    EXPECT_NE(write(8, 5, 8, 12), 0u);
    EXPECT_EQ(write(7, 5, 8, 12) + write(257, 5, 8, 12) + write(8, 4, 8, 12) + write(8, 6, 8, 12), 0u);
    EXPECT_EQ(write(8, 5, 7, 11) + write(8, 5, 8, 11) + write(8, 1025, 8, 12), 0u);
}

// ---- Checks that end the process ------------------------------------------------------------------------------------

constexpr size_t at_entries = 29, at_widths = 30;
alignas(8) uint8_t out[32];
uint64_t out_length;

enum reader { whole, by_wrkmem, range };

// Decodes the shortest stream with one byte of it changed.
void read(reader how, size_t at, uint8_t value, uint64_t max_out = 12, uint64_t wrkmem_bytes = 9216)
{
    const auto stream = shortest().written(configured(how == range ? 8 : -1), 8);
    bytes_t wrkmem(wrkmem_bytes);
    stream->data[at] = value;
    if (how == whole)
        vorp_decode(&no_log, 0, stream->data, out, &out_length, max_out, nullptr, nullptr, nullptr);
    else if (how == by_wrkmem)
        vorp_decode_wrkmem(&no_log, 0, stream->data, out, &out_length, max_out, wrkmem.data(), wrkmem_bytes);
    else
        vorp_decode_selective(&no_log, 0, stream->data, out, 0, 12);
}

void decode_at(size_t in, size_t to)
{
    alignas(8) uint8_t memory[8] = {};
    vorp_decode(&no_log, 0, memory + in, memory + to, &out_length, 0, nullptr, nullptr, nullptr);
}

void encode_at(const void *in, void *to, vorp_level_t level = VORP1, int16_t interval = 8)
{
    vorp_encode(&no_log, 0, in, 8, to, &out_length, sizeof out, level, nullptr, nullptr, nullptr, 1, interval);
}

void write_header(int interval)
{
    const vorp_config_t config = configured(interval);
    const vorp_table_t table = {};
    uint16_t header_bytes;
    vorp_header_write(&table, &config, 0, out, &header_bytes);
}

void read_stored(uint64_t pos)
{
    const auto stream = shortest().written(configured(), 1, true);
    EXPECT_EQ(vorp_decode_selective(&no_log, 0, stream->data, out, 12, 1), 0u);
    vorp_decode_selective(&no_log, 0, stream->data, out, pos, 1);
}

void print(void *, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
}

void init_pool(bool releaser, void *opaque, uint64_t request)
{
    const auto take = [](void *, uint64_t, uint64_t) -> void * { return out; };
    const auto release = [](void *, void *block) { return block; };
    vorp_log_t log = {print, nullptr};
    vorp_config_t config = configured();
    config.log = &log;
    vorp_mempool_t pool;
    vorp_mempool_init(&config, &pool, 100, take, releaser ? release : vorp_free_func{}, opaque);
    vorp_mempool_getmemory(&pool, request, 0, 1, "here");
}

vorp_array_t no_room = {0, 0, nullptr};

const std::pair<const char *, std::function<void()>> fatal[] = {
    {"vorp_decode: input buffer is not aligned: 1\n", [] { decode_at(1, 0); }},
    {"vorp_decode: output buffer is not aligned: 4\n", [] { decode_at(0, 4); }},
    {"vorp_header_read: corrupted hdr\n", [] { read(whole, 3, 0); }},
    {"vorp_header_read: wrong hdr version: 7\n", [] { read(by_wrkmem, 8, 7); }},
    {"vorp_header_read: only fixed_width supported\n", [] { read(range, 9, 1); }},
    {"vorp_header_read: checksum not implemented yet\n", [] { read(whole, 9, 10); }},
    {"vorp_header_write: wrong r.a. interval: 7\n", [] { write_header(7); }},
    {"vorp_header_write: wrong r.a. interval: 257\n", [] { write_header(257); }},
    {"vorp_decode: max output buffer size > uncompressed_size: 11, 12\n", [] { read(whole, 4, 0, 11); }},
    {"vorp_decode_wrkmem: max output buffer size > uncompressed_size: 11, 12\n", [] { read(by_wrkmem, 4, 0, 11); }},
    {"vorp_decode_selective: uncmp_size < uncmp_byte_pos: 12, 13\n", [] { read_stored(13); }},
    {"vorp_decode_fixed_width: wrong dict_entries: 0\n", [] { read(whole, at_entries, 0); }},
    {"vorp_decode_fixed_width: wrong dict_entries: 1285\n", [] { read(whole, at_entries - 1, 5); }},
    {"vorp_decode_fixed_width: wrong fixed_sz: 2\n", [] { read(whole, at_entries, 4); }},
    {"vorp_decode_fixed_width_wrkmem: incorrect dict size:%d: 0\n", [] { read(by_wrkmem, at_entries, 0); }},
    {"vorp_decode_fixed_width_wrkmem: insufficient wrkmem_sz:: 9215\n", [] { read(by_wrkmem, 4, 0, 12, 9215); }},
    {"vorp_decode_fixed_width_wrkmem: 2\n", [] { read(by_wrkmem, at_entries, 4); }},
    {"vorp_decode_fixed_random: wrong dict_entries: 0\n", [] { read(range, at_entries, 0); }},
    {"vorp_decode_fixed_random: wrong fixed_size: 2\n", [] { read(range, at_entries, 4); }},
    {"vorp_decode_fixed_dict_random: len < 0\n", [] { read(range, at_widths, 0x10); }},
    {"vorp_encode: input buffer is not aligned: 1\n", [] { encode_at(at(1), at(0)); }},
    {"vorp_encode: output buffer is not aligned: 4\n", [] { encode_at(at(8), at(4)); }},
    {"vorp_encode: r.a. interval out of range: 7\n", [] { encode_at(at(8), nullptr, VORP1, 7); }},
    {"vorp_encode: r.a. interval out of range: 257\n", [] { encode_at(at(8), nullptr, VORP1, 257); }},
    {"vorp_encode: wrong cmp level: 0\n", [] { encode_at(at(8), nullptr, VORPWRONG); }},
    {"vorp_encode: null output buf ptr\n", [] { encode_at(nullptr, nullptr); }},
    {"vorp_encode: null input buf ptr\n", [] { encode_at(nullptr, out); }},
    {"", [] { configured(-1, VORPWRONG); }},
    {"vorp_malloc_align: power of 2: 100, 24\n", [] { vorp_malloc_align(&no_log, 0, 100, "", 24, nullptr); }},
    {"vorp_mempool_init: null releaser", [] { init_pool(false, &no_log, 0); }},
    {"vorp_mempool_init: null opaque", [] { init_pool(true, nullptr, 0); }},
    {"here:\n chunk_size:112, req_size:128, index:0, MAX_INDEX=12\nvorp_mempool_getmemory: size exceeded",
     [] { init_pool(true, &no_log, 112); }},
    {"vorp_array_append: max_size exceeded\n", [] { vorp_array_append(nullptr, nullptr, 1); }},
    {"vorp_array_append: max_size exceeded\n", [] { vorp_array_append(nullptr, &no_room, 1); }},
    {"vorp_array_top: empty array\n", [] { vorp_array_top(nullptr, &no_room); }},
    {"vorp_array_pop: empty array\n", [] { vorp_array_pop(nullptr, &no_room); }},
    {"vorp_array_remove: index out of range\n", [] { vorp_array_remove(nullptr, &no_room, 0); }},
    {"vorp_array_get_value: index out of range\n", [] { vorp_array_get_value(nullptr, &no_room, 0); }},
};

TEST(vorp_death, texts_and_units)
{
    for (const auto &[text, run] : fatal) {
        const std::string_view told = text;
        std::string pattern = "^";
        for (const char c : told)
            pattern.append(strchr("().", c) ? "\\" : "").append(1, c);
        pattern += "test_vorp_stream: common/vorp";
        pattern += told.starts_with("vorp_decode") || told.starts_with("vorp_header") ? "_decode" : "";
        pattern += told.starts_with("vorp_encode") ? "_encode" : "";
        EXPECT_DEATH((dup2(STDERR_FILENO, STDOUT_FILENO), run()), pattern + "\\.cpp:[0-9]+: .*Assertion `0' failed");
    }
}

} // namespace
