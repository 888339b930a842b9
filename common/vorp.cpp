// The containers under the vorp encoder. They live in one pool of memory, free nothing, and check nothing in the inner
// loops.
#include "vorp.h"
#include "kel_platform.h"
#include <cstdlib>

static constexpr char vorp_source[] = "common/vorp.cpp";

void vorp_fail(const char *source, unsigned line, const char *function)
{
    fflush(stdout);
    kel_assert_fail("0", source, line, function);
}

// ---- Configuration --------------------------------------------------------------------------------------------------

void vorp_config_init(vorp_config_t *config, vorp_level_t level, vorp_log_t *log)
{
    if (level < VORP1 || level > VORP4)
        vorp_fail(vorp_source, __LINE__, __func__);
    *config = {.log = log,
               .reserved = 0,
               .max_entries = vorp_max_entries,
               .max_bytes = vorp_max_bytes,
               .reserved1 = 1,
               .refine = static_cast<uint8_t>(level == VORP2 || level == VORP4 ? 2 : 0),
               .hw_constraint = level >= VORP3,
               .ra_interval = -1,
               .reserved2 = 0,
               .fixed_width = 1};
}

// ---- Memory pool ----------------------------------------------------------------------------------------------------

void *vorp_malloc_align(vorp_log_t *, uint64_t, uint64_t size, const char *, uint64_t alignment, void **raw)
{
    vorp_check(std::has_single_bit(alignment), "vorp_malloc_align: power of 2: %u, %u\n", static_cast<unsigned>(size),
               static_cast<unsigned>(alignment));
    *raw = malloc(size + alignment);
    return reinterpret_cast<void *>((reinterpret_cast<uintptr_t>(*raw) + alignment - 1) & ~(alignment - 1));
}

void vorp_free_align(vorp_log_t *, uint64_t, const char *, void *, void *raw)
{
    free(raw);
}

static constexpr char pool_name[] = "vorp_mempool_init: buffer_vorp_mempool[0]";

int vorp_mempool_init(const vorp_config_t *config, vorp_mempool_t *pool, uint64_t size, vorp_alloc_func alloc,
                      vorp_free_func free, void *opaque)
{
    pool->log = config->log;
    pool->reserved = config->reserved;
    pool->index = 0;
    pool->chunk_size = vorp_pool_round(size);
    pool->alloc = alloc;
    pool->used[0] = 0;
    if (!alloc) {
        pool->chunks[0] =
            vorp_malloc_align(pool->log, pool->reserved, pool->chunk_size, pool_name, vorp_pool_unit, &pool->raw[0]);
        return pool->chunks[0] ? 0 : -1;
    }
    pool->free = free;
    pool->opaque = opaque;
    vorp_check(free, "vorp_mempool_init: null releaser");
    vorp_check(opaque, "vorp_mempool_init: null opaque");
    pool->raw[0] = alloc(opaque, 1, pool->chunk_size);
    const auto address = reinterpret_cast<uintptr_t>(pool->raw[0]);
    pool->used[0] = address % sizeof(uint64_t);
    pool->chunks[0] = reinterpret_cast<void *>(address - pool->used[0]);
    return pool->raw[0] ? 0 : -1;
}

void *vorp_mempool_getmemory(vorp_mempool_t *pool, uint64_t size, int zero, int align, const char *name)
{
    uint64_t &used = pool->used[pool->index];
    if (align) {
        size = vorp_pool_round(size);
        used = vorp_pool_round(used);
    }
    if (size > pool->chunk_size) {
        pool->log->log(pool->log->opaque, "%s:\n chunk_size:%lu, req_size:%lu, index:%ld, MAX_INDEX=%d\n", name,
                       pool->chunk_size, size, static_cast<long>(pool->index), MAX_INDEX);
        vorp_check(0, "vorp_mempool_getmemory: size exceeded");
    }
    if (used + size > pool->chunk_size)
        vorp_mempool_throw(pool);
    uint8_t *block = static_cast<uint8_t *>(pool->chunks[pool->index]) + used;
    used += size;
    if (zero)
        memset(block, 0, size);
    return block;
}

void *vorp_mempool_rest(vorp_mempool_t *pool, uint64_t size)
{
    const uint64_t used = vorp_pool_round(pool->used[pool->index]);
    const bool fits = used <= pool->chunk_size && size <= pool->chunk_size - used;
    return fits ? static_cast<uint8_t *>(pool->chunks[pool->index]) + used : nullptr;
}

// Leaves the interrupted frames as they stand: none of them owns anything outside the pool.
void vorp_mempool_throw(vorp_mempool_t *pool)
{
    pool->log->log(pool->log->opaque, "VORP running out of memory! recovering...\n");
    longjmp(pool->recover, 1);
}

void vorp_mempool_release(vorp_mempool_t *pool)
{
    for (int i = pool->index; i >= 0; i--) {
        if (pool->alloc)
            pool->free(pool->opaque, pool->raw[i]);
        else
            vorp_free_align(pool->log, pool->reserved, pool_name, pool->chunks[i], pool->raw[i]);
        pool->chunks[i] = nullptr;
        pool->raw[i] = nullptr;
        pool->used[i] = 0;
    }
    pool->index = 0;
}

// ---- Arrays ---------------------------------------------------------------------------------------------------------

void vorp_array_append(const vorp_config_t *, vorp_array_t *array, uint64_t value)
{
    vorp_check(array && array->size < array->max_size, "vorp_array_append: max_size exceeded\n");
    array->items[array->size++] = value;
}

uint64_t vorp_array_top(const vorp_config_t *, const vorp_array_t *array)
{
    vorp_check(array->size > 0, "vorp_array_top: empty array\n");
    return array->items[array->size - 1];
}

uint64_t vorp_array_pop(const vorp_config_t *, vorp_array_t *array)
{
    vorp_check(array->size > 0, "vorp_array_pop: empty array\n");
    return array->items[--array->size];
}

void vorp_array_remove(const vorp_config_t *, vorp_array_t *array, uint64_t i)
{
    vorp_check(i < array->size, "vorp_array_remove: index out of range\n");
    array->size--;
    memmove(array->items + i, array->items + i + 1, (array->size - i) * sizeof *array->items);
}

uint64_t vorp_array_get_value(const vorp_config_t *, const vorp_array_t *array, uint64_t i)
{
    vorp_check(i < array->size, "vorp_array_get_value: index out of range\n");
    return array->items[i];
}

// ---- Hash set -------------------------------------------------------------------------------------------------------

uint64_t vorp_hashdjb2(const uint8_t *bytes, uint8_t n)
{
    uint64_t hash = 5381;
    for (unsigned i = 0; i < n; i++)
        hash = hash * 33 + bytes[i];
    return hash;
}

vorp_hset_t *vorp_hset_create(vorp_mempool_t *pool, uint64_t buckets)
{
    auto *set = pool_objects<vorp_hset_t>(pool, 1, "vorp_hset_create");
    set->size = buckets;
    void *items = vorp_mempool_getmemory(pool, buckets * sizeof(void *), 1, 1, "vorp_hset_create items");
    set->buckets = static_cast<vorp_hset_item_t **>(items);
    return set;
}

void vorp_hset_add_index(vorp_mempool_t *pool, vorp_hset_t *set, const uint8_t *src, uint64_t pos, uint8_t n)
{
    const uint64_t hash = vorp_hashdjb2(src + pos, n);
    vorp_hset_item_t *&head = set->buckets[hash % set->size];
    for (vorp_hset_item_t *item = head; item; item = item->next) {
        if (item->hash == hash && memcmp(src + item->pos, src + pos, n) == 0) {
            item->freq++;
            return;
        }
    }
    auto *item = pool_objects<vorp_hset_item_t>(pool, 1, "vorp_hset_add_index");
    *item = {pos, 1, hash, head};
    head = item;
    set->count++;
}

// ---- Trie -----------------------------------------------------------------------------------------------------------

static constexpr uint16_t listed_children = 2; // that a node can have before it gets a list of all byte values

vorp_trie_t *vorp_trie_create(vorp_mempool_t *pool)
{
    auto *trie = pool_objects<vorp_trie_t>(pool, 1, "vorp_trie");
    auto *root = pool_objects<vorp_trie_node_t>(pool, 1 + vorp_byte_values, "trie root and 256 children");
    root->child_base = root + 1;
    root->child_offsets = pool_objects<int64_t>(pool, vorp_byte_values, "256 children of trie root");
    root->child_count = vorp_byte_values;
    memset(root->present, 0xff, sizeof root->present);
    for (unsigned byte = 0; byte < vorp_byte_values; byte++) {
        root->child_offsets[byte] = static_cast<int64_t>(byte * sizeof *root);
        root->child_base[byte].terminal = 1;
        root->child_base[byte].id = static_cast<uint16_t>(byte);
    }
    trie->root = root;
    trie->pool = pool;
    return trie;
}

int vorp_trie_is_child_present(const vorp_trie_node_t *node, uint8_t byte)
{
    return node->present[byte >> 3] >> (byte & 7) & 1;
}

static vorp_trie_node_t *child_at(const vorp_trie_node_t *node, int64_t offset)
{
    return reinterpret_cast<vorp_trie_node_t *>(reinterpret_cast<char *>(node->child_base) + offset);
}

vorp_trie_node_t *vorp_trie_get_child(const vorp_trie_node_t *node, uint8_t byte)
{
    if (node->child_count > listed_children)
        return child_at(node, node->child_offsets[byte]);
    for (unsigned i = 0; i < node->child_count; i++)
        if (node->labels[i] == byte)
            return child_at(node, node->child_offsets[i]);
    return nullptr;
}

static constexpr char leaf_name[] = "leaf_create";

static void list_all_bytes(vorp_mempool_t *pool, vorp_trie_node_t *node)
{
    auto *offsets = pool_objects<int64_t>(pool, vorp_byte_values, leaf_name);
    for (unsigned i = 0; i < listed_children; i++)
        offsets[node->labels[i]] = node->child_offsets[i];
    node->child_offsets = offsets;
    node->child_count = vorp_byte_values;
}

static void add_child(vorp_mempool_t *pool, vorp_trie_node_t *node, uint8_t byte, vorp_trie_node_t *child)
{
    node->present[byte >> 3] |= static_cast<uint8_t>(1 << (byte & 7));
    if (!node->child_base) {
        node->child_base = child;
        node->child_offsets = pool_objects<int64_t>(pool, listed_children, leaf_name);
    }
    const int64_t offset = reinterpret_cast<char *>(child) - reinterpret_cast<char *>(node->child_base);
    if (node->child_count < listed_children) {
        node->labels[node->child_count] = byte;
        node->child_offsets[node->child_count++] = offset;
        return;
    }
    if (node->child_count == listed_children)
        list_all_bytes(pool, node);
    node->child_offsets[byte] = offset;
}

// The node where a walk along n bytes ends, and how many of them it passes.
static vorp_trie_node_t *walk(const vorp_trie_t *trie, const uint8_t *bytes, uint64_t n, uint64_t *passed)
{
    vorp_trie_node_t *node = trie->root;
    uint64_t i = 0;
    for (; i < n && vorp_trie_is_child_present(node, bytes[i]); i++)
        node = vorp_trie_get_child(node, bytes[i]);
    *passed = i;
    return node;
}

// The new nodes of a symbol stand one behind the other.
void vorp_trie_insert(vorp_trie_t *trie, const uint8_t *bytes, uint64_t n, uint16_t id)
{
    uint64_t i;
    vorp_trie_node_t *node = walk(trie, bytes, n, &i);
    if (i < n) {
        auto *leaf = pool_objects<vorp_trie_node_t>(trie->pool, n - i, leaf_name);
        for (; i < n; i++) {
            add_child(trie->pool, node, bytes[i], leaf);
            node = leaf++;
        }
    }
    node->terminal = 1;
    node->id = id;
}

void vorp_trie_delete(vorp_trie_t *trie, const uint8_t *bytes, uint64_t n)
{
    uint64_t passed;
    walk(trie, bytes, n, &passed)->terminal = 0;
}

uint64_t vorp_trie_longest_prefix(vorp_trie_t *trie, const uint8_t *s, uint16_t *id, uint64_t n)
{
    const vorp_trie_node_t *node = trie->root;
    uint64_t longest = 0;
    for (uint64_t i = 0; i < n && vorp_trie_is_child_present(node, s[i]); i++) {
        node = vorp_trie_get_child(node, s[i]);
        trie->used[s[i]] = 1;
        if (node->terminal) {
            longest = i + 1;
            *id = node->id;
        }
    }
    return longest;
}

int vorp_trie_is_present(const vorp_trie_t *trie, uint8_t byte)
{
    return trie->used[byte];
}

// ---- Comparisons of n-grams -----------------------------------------------------------------------------------------

static const vorp_ngram_t &indexed(const void *nodes, const void *element)
{
    return static_cast<const vorp_ngram_t *>(nodes)[*static_cast<const uint64_t *>(element)];
}

static const vorp_ngram_t &addressed(const void *element)
{
    return **static_cast<const vorp_ngram_t *const *>(element);
}

int64_t vorp_ngram_cmp_freq_desc(void *ctx, const void *a, const void *b)
{
    return static_cast<int64_t>(indexed(ctx, b).freq - indexed(ctx, a).freq);
}

int64_t vorp_ngram_cmp_freq_asc(void *ctx, const void *a, const void *b)
{
    return vorp_ngram_cmp_freq_desc(ctx, b, a);
}

int64_t vorp_ngram_cmp_sz_asc(void *, const void *a, const void *b)
{
    return addressed(a).len - addressed(b).len;
}

int64_t vorp_ngram_cmp_sz_desc(void *ctx, const void *a, const void *b)
{
    return vorp_ngram_cmp_sz_asc(ctx, b, a);
}

int64_t vorp_ngram_ctx_cmp_sz_asc(void *ctx, const void *a, const void *b)
{
    return indexed(ctx, a).len - indexed(ctx, b).len;
}

int64_t vorp_ngram_ctx_cmp_sz_desc(void *ctx, const void *a, const void *b)
{
    return vorp_ngram_ctx_cmp_sz_asc(ctx, b, a);
}
