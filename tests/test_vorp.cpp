// The containers under the vorp encoder against models, and its sort against a second formulation.
#include "support.h"
#include "vorp.h"
#include <algorithm>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <set>

namespace
{

vorp_log_t no_log = {}; // nothing is to be said

vorp_config_t configured(int interval = -1, vorp_level_t level = VORP1, vorp_log_t *log = &no_log)
{
    vorp_config_t config;
    vorp_config_init(&config, level, log);
    config.ra_interval = static_cast<int16_t>(interval);
    return config;
}

struct test_pool : vorp_mempool_t {
    explicit test_pool(uint64_t size)
    {
        const vorp_config_t config = configured();
        EXPECT_EQ(vorp_mempool_init(&config, this, size, nullptr, nullptr, nullptr), 0);
    }
    ~test_pool()
    {
        vorp_mempool_release(this);
    }
};

uint64_t pool_use(uint64_t size)
{
    return size / 16 * 16 + 32;
}

TEST(vorp_config, levels_and_sizes)
{
    for (const auto level : {VORP1, VORP2, VORP3, VORP4}) {
        vorp_config_t config = configured(-1, level);
        EXPECT_EQ(config.refine, level % 2 == 0 ? 2 : 0);
        EXPECT_EQ(config.hw_constraint, level >= VORP3 ? 1u : 0u);
        EXPECT_EQ(std::tuple(config.max_entries, config.max_bytes, config.fixed_width), std::tuple(1024, 8192u, 1u));
        vorp_adjust_dictionary_size(20000, &config);
        EXPECT_EQ(std::tuple(config.max_entries, config.max_bytes), std::tuple(1024, level >= VORP3 ? 3584u : 8192u));
        vorp_adjust_dictionary_size(19999, &config);
        EXPECT_EQ(std::tuple(config.max_entries, config.max_bytes), std::tuple(256, 2048u));
    }
}

TEST(vorp_pool, accounting)
{
    test_pool pool(9280);
    EXPECT_EQ(pool.chunk_size, 9296u);
    auto *base = static_cast<uint8_t *>(pool.chunks[0]);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(base) % 16, 0u);
    memset(base, 0x11, 96);
    EXPECT_EQ(vorp_mempool_getmemory(&pool, 16, 0, 1, ""), base + 16);
    EXPECT_EQ(vorp_mempool_getmemory(&pool, 15, 1, 1, ""), base + 64);
    EXPECT_EQ(hex(base, 96), std::string(128, '1') + std::string(32, '0') + std::string(32, '1'));
    EXPECT_EQ(vorp_mempool_getmemory(&pool, 3, 0, 0, ""), base + 80);
    EXPECT_EQ(pool.used[0], 83u);
}

// Draws blocks for ever.
void draw(vorp_mempool_t &pool, uint64_t *used)
{
    random_source random(1);
    const auto start = reinterpret_cast<uintptr_t>(pool.raw[0]) / 8 * 8;
    while (true) {
        const uint64_t size = random.between(0, 200);
        void *block = vorp_mempool_getmemory(&pool, size, 1, 1, "");
        ASSERT_EQ(reinterpret_cast<uintptr_t>(block), start + *used + 16);
        memset(block, 0x5a, size);
        ASSERT_EQ(pool.used[0], *used += pool_use(size));
        ASSERT_LE(*used, pool.chunk_size);
    }
}

void draw_until_exhausted(vorp_mempool_t &pool, uint64_t *used)
{
    if (setjmp(pool.recover) == 0)
        draw(pool, used);
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
        const vorp_config_t config = configured(-1, VORP4, &log);
        vorp_mempool_t pool;
        uint64_t used = 0;
        ASSERT_EQ(vorp_mempool_init(&config, &pool, 5000, kel_alloc_func, kel_free_func, ctx.ctx), 0);
        EXPECT_EQ(store.requests.back(), 5008u + 8 + 16); // with the words of the callback and of the context
        draw_until_exhausted(pool, &used);
        EXPECT_GT(used + pool_use(200), pool.chunk_size);
        EXPECT_EQ(ctx.messages(), lines_t{"VORP running out of memory! recovering..."});
        vorp_mempool_release(&pool);
        EXPECT_EQ(store.live.size(), blocks);
        store.failing = store.requests.size() + 1;
        EXPECT_EQ(vorp_mempool_init(&config, &pool, 5000, kel_alloc_func, kel_free_func, ctx.ctx), -1);
    }
}

TEST(vorp_log, loses_its_last_character)
{
    test_context ctx(2, 0, KEL_LOG_VERBOSE);
    kel_log_func(ctx, "x");
    kel_log_func(ctx, "%d of %s\n", 3, "five");
    EXPECT_EQ(ctx.lines.at(0).level, uint32_t{KEL_LOG_VERBOSE});
    EXPECT_EQ(ctx.messages(), (lines_t{"", "3 of five"}));
    ctx->log.options = KEL_LOG_ERROR;
    kel_log_func(ctx, "off\n");
    EXPECT_EQ(ctx.messages(), lines_t{});
}

TEST(vorp_array, operations)
{
    uint64_t items[3];
    vorp_array_t array = {3, 0, items};
    for (const uint64_t value : {10u, 20u, 30u})
        vorp_array_append(nullptr, &array, value);
    vorp_array_remove(nullptr, &array, 0);
    EXPECT_EQ(vorp_array_get_value(nullptr, &array, 0), 20u);
    EXPECT_EQ(vorp_array_pop(nullptr, &array), 30u);
    EXPECT_EQ(vorp_array_top(nullptr, &array), 20u);
    EXPECT_EQ(array.size, 1u);
}

// New items stand at the head of their chain.
TEST(vorp_hset, like_a_map)
{
    EXPECT_EQ(vorp_hashdjb2(nullptr, 0), 5381u);
    random_source random(2);
    const guarded_buffer src(600, 1);
    for (size_t i = 0; i < src.size; i++)
        src.data[i] = random.between<uint8_t>('a', 'c');
    for (uint8_t n = 1; n <= 8; n++) {
        test_pool pool(100000);
        vorp_hset_t *set = vorp_hset_create(&pool, 37);
        using item_t = std::pair<uint64_t, uint64_t>; // position, frequency
        std::map<std::string, item_t> model;
        std::vector<lines_t> chains(37);
        for (unsigned turn = 0; turn < 1000; turn++) {
            const uint64_t pos = random.between(0, src.size - n);
            const std::string gram(src.data + pos, src.data + pos + n);
            vorp_hset_add_index(&pool, set, src.data, pos, n);
            uint64_t hash = 5381;
            for (const char byte : gram)
                hash = hash * 33 + static_cast<uint8_t>(byte);
            if (model.try_emplace(gram, pos, 0).first->second.second++ == 0)
                chains[hash % 37].push_back(gram);
        }
        EXPECT_EQ(set->count, model.size());
        EXPECT_EQ(pool.used[0], pool_use(24) + pool_use(37 * 8) + model.size() * pool_use(32));
        for (unsigned bucket = 0; bucket < 37; bucket++) {
            const vorp_hset_item_t *item = set->buckets[bucket];
            for (; !chains[bucket].empty(); chains[bucket].pop_back(), item = item->next)
                ASSERT_EQ(item_t(item->pos, item->freq), model[chains[bucket].back()]);
            EXPECT_EQ(item, nullptr);
        }
    }
}

// What a trie holds: the symbols in force, and the children of the nodes that were ever made.
struct trie_model {
    std::map<std::string, uint16_t> symbols;
    std::map<std::string, std::set<char>> nodes;
    std::set<uint8_t> used;
    uint64_t pool_bytes = pool_use(272) + pool_use(16448) + pool_use(2048);

    void insert(const std::string &symbol, uint16_t id)
    {
        uint64_t made = 0;
        for (size_t n = 1; n <= symbol.size(); n++) {
            auto &siblings = nodes[symbol.substr(0, n - 1)];
            if (siblings.insert(symbol[n - 1]).second && n > 1) { // the root has all its children
                made++;
                pool_bytes += siblings.size() == 1 ? pool_use(16) : siblings.size() == 3 ? pool_use(2048) : 0;
            }
        }
        pool_bytes += made > 0 ? pool_use(64 * made) : 0;
        symbols[symbol] = id;
    }

    size_t longest(const std::string &text)
    {
        size_t found = 0;
        for (size_t n = 1; n <= text.size() && nodes[text.substr(0, n - 1)].count(text[n - 1]); n++) {
            used.insert(static_cast<uint8_t>(text[n - 1]));
            found = symbols.count(text.substr(0, n)) ? n : found;
        }
        return found;
    }
};

TEST(vorp_trie, like_a_map)
{
    random_source random(3);
    test_pool pool(4000000);
    vorp_trie_t *trie = vorp_trie_create(&pool);
    trie_model model;
    for (unsigned byte = 0; byte < 256; byte++)
        model.insert({static_cast<char>(byte)}, static_cast<uint16_t>(byte));
    for (unsigned turn = 0; turn < 20000; turn++) {
        const guarded_buffer text(random.between(0, 8), 1);
        for (size_t i = 0; i < text.size; i++)
            text.data[i] = random.between<uint8_t>('a', i % 3 == 0 ? 'f' : 'c');
        const std::string symbol(text.data, text.data + text.size);
        if (symbol.size() > 1 && random.one_in(4)) {
            vorp_trie_insert(trie, text.data, text.size, static_cast<uint16_t>(turn));
            model.insert(symbol, static_cast<uint16_t>(turn));
        } else if (model.symbols.count(symbol) && random.one_in(2)) {
            vorp_trie_delete(trie, text.data, text.size);
            model.symbols.erase(symbol);
        }
        uint16_t id = 0xa5a5;
        const size_t longest = model.longest(symbol);
        ASSERT_EQ(vorp_trie_longest_prefix(trie, text.data, &id, text.size), longest);
        ASSERT_EQ(id, longest > 0 ? model.symbols[symbol.substr(0, longest)] : 0xa5a5);
        ASSERT_EQ(pool.used[0], model.pool_bytes);
    }
    uint16_t id; // a walk also marks what it passes behind its last match
    vorp_trie_insert(trie, reinterpret_cast<const uint8_t *>("xyz"), 3, 1);
    EXPECT_EQ(vorp_trie_longest_prefix(trie, reinterpret_cast<const uint8_t *>("xyx"), &id, 3), 1u);
    model.used.insert({'x', 'y'});
    for (unsigned byte = 0; byte < 256; byte++)
        EXPECT_EQ(vorp_trie_is_present(trie, static_cast<uint8_t>(byte)), model.used.count(static_cast<uint8_t>(byte)));
}

// ---- Sorting --------------------------------------------------------------------------------------------------------

using element_t = std::array<uint8_t, 16>; // key, number
using trace_t = std::vector<std::pair<element_t, element_t>>;

int64_t compare(void *trace, const void *a, const void *b)
{
    const auto *left = static_cast<const uint8_t *>(a), *right = static_cast<const uint8_t *>(b);
    static_cast<trace_t *>(trace)->push_back({{left[0], left[1]}, {right[0], right[1]}});
    return int64_t{0x7f00000000000000} | static_cast<uint32_t>(left[0] - right[0]);
}

// The sort by recursion, with places from 0.
void literal_sort(std::vector<element_t> &heap, trace_t *trace)
{
    const auto greater = [&](size_t a, size_t b) { return int32_t(compare(trace, &heap[a], &heap[b])) > 0; };
    const std::function<void(size_t)> rise = [&](size_t i) {
        if (i == 0 || !greater(i, (i - 1) / 2))
            return;
        std::swap(heap[i], heap[(i - 1) / 2]);
        rise((i - 1) / 2);
    };
    const std::function<void(size_t, size_t)> sink = [&](size_t i, size_t end) {
        const size_t left = 2 * i + 1, right = left + 1;
        const size_t child = right < end && !greater(left, right) ? right : left;
        if (child >= end || !greater(child, i))
            return;
        std::swap(heap[i], heap[child]);
        sink(child, end);
    };
    for (size_t i = 1; i < heap.size(); i++)
        rise(i);
    for (size_t end = heap.size(); end-- > 1;) {
        std::swap(heap[0], heap[end]);
        sink(0, end);
    }
}

// The same comparisons in the same order; elements are swapped as words and as bytes.
TEST(lsrsrx, like_a_second_formulation)
{
    random_source random(4);
    for (unsigned turn = 0; turn < 450; turn++) {
        const size_t size = random.pick({3u, 8u, 16u});
        const unsigned n = turn / 3, keys = random.pick({1u, 6u, 256u});
        const guarded_buffer data(n * size, 1);
        std::vector<element_t> model(n);
        for (unsigned i = 0; i < n; i++) {
            model[i] = {random.between<uint8_t>(0, keys - 1), static_cast<uint8_t>(i)};
            memcpy(data.data + i * size, &model[i], size);
        }
        trace_t trace, expected;
        lsrsrx(data.data, n, size, compare, &trace);
        literal_sort(model, &expected);
        ASSERT_EQ(trace, expected);
        for (unsigned i = 0; i < n; i++)
            ASSERT_EQ(memcmp(data.data + i * size, &model[i], size), 0);
        ASSERT_TRUE(std::is_sorted(model.begin(), model.end(), [](auto &a, auto &b) { return a[0] < b[0]; }));
    }
}

TEST(lsrsrx, comparisons_of_n_grams)
{
    vorp_ngram_t nodes[2] = {{3, 0, 7, 0, nullptr}, {8, 0, 5, 0, nullptr}};
    const uint64_t index[2] = {0, 1};
    const vorp_ngram_t *address[2] = {nodes, nodes + 1};
    EXPECT_EQ(vorp_ngram_cmp_freq_desc(nodes, index, index + 1), -2);
    EXPECT_EQ(vorp_ngram_cmp_freq_asc(nodes, index, index + 1), 2);
    EXPECT_EQ(vorp_ngram_ctx_cmp_sz_asc(nodes, index, index + 1), -5);
    EXPECT_EQ(vorp_ngram_ctx_cmp_sz_desc(nodes, index, index + 1), 5);
    EXPECT_EQ(vorp_ngram_cmp_sz_asc(nullptr, address, address + 1), -5);
    EXPECT_EQ(vorp_ngram_cmp_sz_desc(nullptr, address, address + 1), 5);
}

} // namespace
