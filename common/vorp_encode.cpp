// The training of a dictionary, and the parse of a source by it.
//
// Training goes by samples. For each length from 2 to 8 bytes, n-grams at random positions are counted in a hash set;
// those that were seen twice or more are candidates, and the most frequent ones enter the dictionary, which starts with
// all single bytes. The dictionary is then ranked and cut to its limits, after each length by the frequencies of a real
// parse if the level is thorough, otherwise once, by the sampled ones. Under the row rule the longest symbols go until
// every row of a codec fits.
//
// Equal sources give equal dictionaries, down to the order of equal symbols: streams that users store depend on it. So
// the random sequence, the order of hash chains, the sort and each request to the pool, which decides when a source
// runs out of temporary space, are part of the result.
#include "kel_io.h"
#include "kel_zip.h"
#include "vorp.h"
#include "vorp_match.h"
#include <algorithm>
#include <cstdlib>

namespace
{

constexpr unsigned shortest_gram = 2;
constexpr unsigned longest_gram = 8;
constexpr uint64_t all_bytes = 256;
constexpr uint64_t node_limit = 8192;
constexpr unsigned widest_code = 10;
constexpr uint64_t list_limit = 2048; // of the dictionary's longer symbols, and of nodes that wait for reuse

// Codeword bits of a dictionary of count symbols.
unsigned code_bits(uint64_t count)
{
    return static_cast<unsigned>(std::bit_width(count - 1));
}

// The base of the numbers of samples: a thousandth of the source within bounds.
uint64_t sampling_base(uint64_t srclen, const vorp_config_t *config)
{
    constexpr uint64_t most = 2048;
    const uint64_t least = config->refine ? 1000 : 300;
    const auto base = static_cast<uint64_t>(static_cast<double>(srclen) * 0.001);
    return std::max(std::min(base, most), least);
}

uint64_t samples_of(uint64_t base, unsigned n)
{
    return base * (longest_gram + 1 - n);
}

constexpr char vorp_source[] = "common/vorp_encode.cpp";

vorp_array_t make_array(vorp_mempool_t *pool, uint64_t max_size, const char *name)
{
    return {max_size, 0, pool_objects<uint64_t>(pool, max_size, name)};
}

} // namespace

// ---- Candidates -----------------------------------------------------------------------------------------------------

void vorp_ngram_node_init(vorp_ngram_t *node, uint8_t len, uint8_t *one_gram)
{
    node->len = len;
    node->freq = 0;
    node->first_pos = -1;
    node->one_gram = one_gram;
}

void vorp_generate_one_grams(uint8_t *one_gram)
{
    for (unsigned value = 0; value < all_bytes; value++)
        one_gram[value] = static_cast<uint8_t>(value);
}

vorp_plists_t *vorp_plists_init(vorp_mempool_t *pool, uint64_t base)
{
    auto *plists = pool_objects<vorp_plists_t>(pool, 1, "ngram_list");
    plists->nodes = pool_objects<vorp_ngram_t>(pool, node_limit, "(all)vorp_ngram_nodes");
    plists->dict_array = pool_objects<vorp_array_t>(pool, 2, "dict_array");
    const uint64_t candidates = std::max(samples_of(base, shortest_gram), node_limit);
    plists->dict_array[0] = make_array(pool, all_bytes, "dict_array_for each i-gram");
    plists->dict_array[1] = make_array(pool, candidates, "dict_array_for each i-gram");
    plists->one_gram = pool_objects<uint8_t>(pool, all_bytes, "one_gram");
    vorp_generate_one_grams(plists->one_gram);
    for (uint64_t value = 0; value < all_bytes; value++) {
        vorp_ngram_node_init(&plists->nodes[value], 1, &plists->one_gram[value]);
        vorp_array_append(nullptr, &plists->dict_array[0], value);
    }
    plists->node_count = all_bytes;
    plists->node_max = node_limit;
    return plists;
}

vorp_dict_t *vorp_dict_init(vorp_mempool_t *pool, const vorp_plists_t *plists)
{
    auto *dict = pool_objects<vorp_dict_t>(pool, 1, "dict_init");
    dict->count = all_bytes;
    dict->bytes = all_bytes;
    dict->one_grams = plists->dict_array[0];
    dict->trie = vorp_trie_create(pool);
    dict->large_gram_array = make_array(pool, list_limit, "large_gram_array");
    dict->deleted_array = make_array(pool, list_limit, "deleted_array");
    dict->nodes = plists->nodes;
    return dict;
}

namespace
{

// Counts the n-grams at random positions.
vorp_hset_t *sample_ngrams(vorp_mempool_t *pool, const uint8_t *src, uint64_t srclen, uint64_t samples, unsigned n)
{
    vorp_hset_t *set = vorp_hset_create(pool, samples >> 2);
    for (uint64_t i = 0; i < samples; i++) {
        const auto position = static_cast<uint64_t>(lrand48()) % (srclen - longest_gram);
        vorp_hset_add_index(pool, set, src, position, static_cast<uint8_t>(n));
    }
    return set;
}

// A node for a candidate: one that waits for reuse, or a new one. A source that has more candidates than there are
// nodes ends like one that has exhausted the pool.
uint64_t take_node(vorp_mempool_t *pool, vorp_plists_t *plists, vorp_dict_t *dict)
{
    if (dict->deleted_array.size > 0)
        return vorp_array_pop(nullptr, &dict->deleted_array);
    if (plists->node_count == plists->node_max)
        vorp_mempool_throw(pool);
    return plists->node_count++;
}

// All n-grams that were seen more than once, in the order of buckets and chains.
void list_candidates(vorp_mempool_t *pool, const vorp_hset_t *set, unsigned n, vorp_plists_t *plists, vorp_dict_t *dict)
{
    constexpr uint64_t fewest_seen = 2;
    for (uint64_t bucket = 0; bucket < set->size; bucket++)
        for (const vorp_hset_item_t *item = set->buckets[bucket]; item; item = item->next) {
            if (item->freq < fewest_seen)
                continue;
            const uint64_t index = take_node(pool, plists, dict);
            vorp_ngram_t *node = &dict->nodes[index];
            vorp_ngram_node_init(node, static_cast<uint8_t>(n), nullptr);
            node->freq = item->freq;
            node->first_pos = static_cast<int64_t>(item->pos);
            vorp_array_append(nullptr, &plists->dict_array[1], index);
        }
}

// How many candidates of a length may enter: all entries at 2, an eighth less for each further byte, and without
// refinement two sevenths of that.
uint64_t candidates_taken(const vorp_config_t *config, unsigned n)
{
    const double share = 1.125 - 0.125 * (n - 1);
    const auto taken = static_cast<uint64_t>(config->max_entries * share);
    return config->refine ? taken : static_cast<uint64_t>(static_cast<double>(taken) * 2.0 / 7.0);
}

// Moves the best candidates into the dictionary; the nodes of the others wait for reuse, as far as there is room.
void take_candidates(const vorp_config_t *config, vorp_array_t *candidates, uint64_t most, const uint8_t *src,
                     vorp_dict_t *dict)
{
    lsrsrx(candidates->items, candidates->size, sizeof *candidates->items, vorp_ngram_cmp_freq_asc, dict->nodes);
    for (; most > 0 && candidates->size > 0; most--)
        vorp_dict_op_add_gram(config, dict, vorp_array_pop(config, candidates), src);
    while (candidates->size > 0 && dict->deleted_array.size < dict->deleted_array.max_size)
        vorp_array_append(config, &dict->deleted_array, vorp_array_pop(config, candidates));
    candidates->size = 0;
}

} // namespace

vorp_dict_t *vorp_dict_build(vorp_mempool_t *pool, const uint8_t *src, uint64_t srclen, const vorp_config_t *config)
{
    const uint64_t base = sampling_base(srclen, config);
    vorp_plists_t *plists = vorp_plists_init(pool, base);
    vorp_dict_t *dict = vorp_dict_init(pool, plists);
    srand48(0);
    constexpr uint64_t positions = 7 * sizeof(uint64_t); // for each of the base: room that nothing reads
    vorp_mempool_getmemory(pool, positions * base, 0, 1, "pos_array");
    for (unsigned n = shortest_gram; n <= longest_gram; n++) {
        const vorp_hset_t *set = sample_ngrams(pool, src, srclen, samples_of(base, n), n);
        list_candidates(pool, set, n, plists, dict);
        take_candidates(config, &plists->dict_array[1], candidates_taken(config, n), src, dict);
        if (config->refine)
            vorp_dict_resize(dict, src, srclen, longest_gram, config);
    }
    vorp_dict_resize(dict, src, srclen, longest_gram, config);
    return dict;
}

// ---- The dictionary under construction ------------------------------------------------------------------------------

void vorp_dict_op_add_gram(const vorp_config_t *config, vorp_dict_t *dict, uint64_t index, const uint8_t *src)
{
    const vorp_ngram_t &node = dict->nodes[index];
    vorp_check(node.first_pos >= 0, "vorp_dict_op_add_gram: first pos is wrong");
    vorp_array_append(config, &dict->large_gram_array, index);
    vorp_trie_insert(dict->trie, src + node.first_pos, node.len, static_cast<uint16_t>(index));
    dict->bytes += node.len;
    dict->count++;
}

void vorp_dict_op_remove_gram(const vorp_config_t *config, vorp_dict_t *dict, uint64_t i, const uint8_t *src)
{
    const uint64_t index = vorp_array_top(config, &dict->large_gram_array);
    const vorp_ngram_t &node = dict->nodes[index];
    vorp_check(node.first_pos >= 0, "vorp_dict_op_remove_gram: wrong first_pos");
    if (dict->deleted_array.size < dict->deleted_array.max_size)
        vorp_array_append(config, &dict->deleted_array, index);
    vorp_array_remove(config, &dict->large_gram_array, i);
    vorp_trie_delete(dict->trie, src + node.first_pos, node.len);
    dict->bytes -= node.len;
    dict->count--;
}

void vorp_dict_op_calc_freq(const vorp_config_t *, vorp_dict_t *dict, const uint8_t *src, uint64_t srclen,
                            uint64_t window)
{
    for (const vorp_array_t *list : {&dict->one_grams, &dict->large_gram_array})
        for (uint64_t i = 0; i < list->size; i++)
            dict->nodes[list->items[i]].freq = 0;
    const vorp_matcher matcher(dict->trie);
    uint64_t tokens = 0;
    for (uint64_t position = 0; position < srclen; tokens++) {
        const vorp_match_t match = matcher.longest(src + position, std::min(window, srclen - position));
        vorp_check(match.length > 0, "vorp_dict_op_calc_freq: wrong prefix");
        dict->nodes[match.id].freq++;
        position += match.length;
    }
    dict->tokens = tokens;
    if (!dict->onegrams_removed) // the marks of a walk over the whole source
        for (uint64_t position = 0; position < srclen; position++)
            dict->trie->used[src[position]] = 1;
}

void vorp_dict_op_remove_onegrams(const vorp_config_t *config, vorp_dict_t *dict)
{
    for (uint64_t value = all_bytes; value-- > 0;) { // downwards, so that lower values keep their places in the list
        const auto byte = static_cast<uint8_t>(value);
        if (vorp_trie_is_present(dict->trie, byte))
            continue;
        vorp_trie_delete(dict->trie, &byte, 1);
        vorp_array_remove(config, &dict->one_grams, value);
        dict->bytes--;
        dict->count--;
    }
    dict->onegrams_removed = 1;
}

void vorp_dict_resize(vorp_dict_t *dict, const uint8_t *src, uint64_t srclen, uint64_t window,
                      const vorp_config_t *config)
{
    if (config->refine)
        vorp_dict_op_calc_freq(config, dict, src, srclen, window);
    vorp_check(dict->nodes, "vorp_dict_resize: null ptr to ngram nodes list");
    vorp_array_t *large = &dict->large_gram_array;
    lsrsrx(large->items, large->size, sizeof *large->items, vorp_ngram_cmp_freq_desc, dict->nodes);
    if (config->refine && !dict->onegrams_removed)
        vorp_dict_op_remove_onegrams(config, dict);
    if (large->size == 0)
        return;
    while (large->size > 1 && dict->nodes[vorp_array_top(config, large)].freq == 0)
        vorp_dict_op_remove_gram(config, dict, large->size - 1, src);
    while (dict->bytes > config->max_bytes || dict->count > config->max_entries)
        vorp_dict_op_remove_gram(config, dict, large->size - 1, src);
}

// ---- The row rule ---------------------------------------------------------------------------------------------------

namespace
{

constexpr uint64_t rows = kel_zip_rows;
constexpr uint64_t last_column = 3 * rows;

// Two lists of the same nodes in the same order, so that one sort's decisions hold for the other.
struct node_lists {
    vorp_ngram_t **nodes;
    uint64_t *indexes;
    vorp_dict_t *dict;
};

void sort_by_size(const node_lists &lists, uint64_t from, uint64_t end, bool descending)
{
    lsrsrx(lists.nodes + from, end - from, sizeof(void *), descending ? vorp_ngram_cmp_sz_desc : vorp_ngram_cmp_sz_asc,
           nullptr);
    lsrsrx(lists.indexes + from, end - from, sizeof *lists.indexes,
           descending ? vorp_ngram_ctx_cmp_sz_desc : vorp_ngram_ctx_cmp_sz_asc, lists.dict->nodes);
}

const uint8_t *symbol_bytes(const vorp_ngram_t &node, const uint8_t *src)
{
    return node.len > 1 ? src + node.first_pos : node.one_gram;
}

// length(i) of the symbols below n.
template <class Length>
uint64_t rows_over_limit(uint64_t n, const Length &length)
{
    uint64_t over = 0;
    for (uint64_t row = 0; row < rows; row++) {
        uint64_t sum = 0;
        for (uint64_t i = row; i < n && i < 4 * rows; i += rows)
            sum += length(i);
        over += sum > kel_zip_row_bytes;
    }
    return over;
}

} // namespace

// Orders the symbols by length and takes out the longest, until every row fits. Ascending columns with a descending
// last one set the longest symbols beside the shortest.
void vorp_dict_hwconstraint(const uint8_t *src, vorp_dict_t *dict, vorp_ngram_t **final_nodes, uint64_t *map_array,
                            uint64_t *n)
{
    const node_lists lists = {final_nodes, map_array, dict};
    uint64_t over = 0;
    do {
        sort_by_size(lists, 0, *n, false);
        for (; over > 0; over--) {
            const vorp_ngram_t &node = *final_nodes[--*n];
            vorp_trie_delete(dict->trie, symbol_bytes(node, src), node.len);
        }
        if (*n >= last_column)
            sort_by_size(lists, last_column, *n, true);
        over = rows_over_limit(*n, [=](uint64_t i) { return final_nodes[i]->len; });
    } while (over > 0);
}

// ---- The final table ------------------------------------------------------------------------------------------------

namespace
{

vorp_ngram_t **node_pointers(vorp_mempool_t *pool, uint64_t count, const char *name)
{
    return static_cast<vorp_ngram_t **>(vorp_mempool_getmemory(pool, count * sizeof(void *), 1, 1, name));
}

// About what the dictionary and the stream take at least: the row rule is not looked at.
uint64_t estimated_size(const vorp_dict_t *dict, const vorp_config_t *config)
{
    uint64_t size = (dict->count >> 1) + dict->bytes;
    if (config->refine)
        size += code_bits(dict->count) * dict->tokens / 8 + 1;
    return size;
}

// All symbols: the single bytes, then the others, each as their list stands.
void list_symbols(const node_lists &lists)
{
    uint64_t n = 0;
    for (const vorp_array_t *list : {&lists.dict->one_grams, &lists.dict->large_gram_array})
        for (uint64_t i = 0; i < list->size; i++, n++) {
            lists.indexes[n] = list->items[i];
            lists.nodes[n] = &lists.dict->nodes[list->items[i]];
        }
}

// Numbers the symbols and copies them out of the source.
void fill_entries(const node_lists &lists, uint64_t n, const uint8_t *src, vorp_table_t *table)
{
    for (uint64_t i = 0; i < n; i++) {
        const vorp_ngram_t *node = lists.nodes[i];
        vorp_check(node, "vorp_table_create: node missing from final_array");
        vorp_check(node->len < 2 || node->first_pos >= 0, "vorp_table_create: first_pos incorrect");
        vorp_table_entry_t *entry = &table->entries[i];
        entry->bytes = pool_objects<uint8_t>(table->pool, node->len, "__Symbols");
        memcpy(entry->bytes, symbol_bytes(*node, src), node->len);
        entry->len = node->len;
        entry->code = static_cast<uint16_t>(i);
        lists.dict->nodes[lists.indexes[i]].code = static_cast<uint16_t>(i);
    }
}

} // namespace

void vorp_table_create(const uint8_t *src, uint64_t srclen, const vorp_config_t *config, vorp_table_t *table,
                       vorp_mempool_t *pool, vorp_dict_t **dict)
{
    *dict = vorp_dict_build(pool, src, srclen, config);
    const node_lists lists = {node_pointers(pool, (*dict)->count, "final_nodes"),
                              pool_objects<uint64_t>(pool, (*dict)->count, "map_array"), *dict};
    if (estimated_size(*dict, config) > srclen) {
        table->stored = 1;
        return;
    }
    list_symbols(lists);
    uint64_t n = (*dict)->count;
    table->pool = pool;
    table->width = static_cast<uint8_t>(code_bits(n));
    table->entry_count = static_cast<uint16_t>(n);
    table->entries = pool_objects<vorp_table_entry_t>(pool, n, "ngram_entries");
    if (config->hw_constraint)
        vorp_dict_hwconstraint(src, *dict, lists.nodes, lists.indexes, &n);
    // Kept: codewords keep the width of the longer list, and empty entries stand behind the shortened one. Only where a
    // codec of the shortened list would read narrower codewords do table and stream follow it.
    if (code_bits(n) < table->width) {
        table->width = static_cast<uint8_t>(code_bits(n));
        table->entry_count = static_cast<uint16_t>(n);
    }
    fill_entries(lists, n, src, table);
}

uint64_t vorp_copy_dict_to_output_fixed(const vorp_table_t *table, const vorp_config_t *config, uint8_t *out)
{
    const uint64_t count = table->entry_count;
    const vorp_table_entry_t *entries = table->entries;
    if (config->hw_constraint) {
        const uint64_t over = rows_over_limit(count, [=](uint64_t i) { return entries[i].len; });
        vorp_check(over == 0, "vorp_copy_dict...: HW constraint not satisfied");
    }
    kel_store_be(out, static_cast<uint16_t>(count));
    uint8_t *widths = out + kel_zip_header;
    uint8_t *offsets = widths + kel_zip_width_bytes(count);
    uint8_t *symbols = offsets + (config->ra_interval > 0 ? 2 * count : 0);
    for (uint64_t i = 0; i < count; i++) {
        if (i % 2 == 0)
            widths[i / 2] = static_cast<uint8_t>(entries[i].len << 4);
        else
            widths[i / 2] = static_cast<uint8_t>(widths[i / 2] | entries[i].len);
        if (config->ra_interval > 0)
            kel_store_be(offsets + 2 * i, static_cast<uint16_t>(symbols - (offsets + 2 * i)));
        if (entries[i].len > 0)
            memcpy(symbols, entries[i].bytes, entries[i].len);
        symbols += entries[i].len;
    }
    return static_cast<uint64_t>(symbols - out);
}

// ---- The parse ------------------------------------------------------------------------------------------------------

namespace
{

constexpr uint64_t random_access_limit = 33554432; // bytes of a source, so that places in the table fit

// Writes codewords one behind the other, the first bit on top, into bytes that are zero. Kept: room is tested for the
// first of a codeword's two bytes alone. The second may lie behind the room, in a byte that holds anything.
struct code_writer {
    uint8_t *buf;
    uint64_t capacity; // bytes
    unsigned width;
    uint64_t at; // the byte of the next codeword's first bit; may have passed the end
    unsigned bit = 0;
    bool overflow = false;

    void put(unsigned code)
    {
        if (at < capacity) {
            uint8_t *to = buf + at;
            const unsigned placed = code << (16 - width - bit);
            to[0] = static_cast<uint8_t>(to[0] | placed >> 8);
            if (bit + width > 8)
                to[1] = static_cast<uint8_t>(placed);
        } else {
            overflow = true;
        }
        bit += width;
        at += bit / 8;
        bit %= 8;
    }
};

// Writes entry 0 of a random-access table and answers the table's size. The other entries are the stream writer's.
uint64_t start_random_access(uint64_t srclen, const vorp_config_t *config, uint8_t *buf)
{
    if (config->ra_interval <= 0)
        return 0;
    vorp_check(srclen < random_access_limit, "vorp_parse_fixed: input_sz > 32 MB: %u\n", static_cast<unsigned>(srclen));
    const auto interval = static_cast<uint64_t>(config->ra_interval);
    const uint64_t entries = (srclen + interval - 1) / interval;
    kel_store_be(buf, entries << 42);
    return 8 * entries;
}

} // namespace

uint64_t vorp_parse_fixed(const uint8_t *src, uint64_t srclen, uint8_t *buf, uint64_t buflen, uint64_t *outlen,
                          unsigned width, vorp_dict_t *dict, const vorp_config_t *config, int *overflow,
                          uint64_t *count)
{
    vorp_check(width <= widest_code, "vorp_parse_fixed: unexpected fixed-width length: %u\n", width);
    const uint64_t table_bytes = start_random_access(srclen, config, buf);
    code_writer writer = {buf, buflen, width, table_bytes};
    const vorp_matcher matcher(dict->trie);
    uint64_t position = 0, codewords = 0;
    for (; position < srclen; codewords++) {
        const vorp_match_t match = matcher.longest(src + position, srclen - position);
        if (match.length == 0)
            break;
        writer.put(dict->nodes[match.id].code);
        position += match.length;
    }
    *overflow = writer.overflow;
    *count = codewords;
    if (position < srclen)
        return 0;
    // Kept: the table counts twice, and a last, partial byte only if a codeword would have ended in it.
    *outlen = writer.at + table_bytes + (writer.bit + width < 8);
    return codewords;
}

// ---- A parser for a given dictionary --------------------------------------------------------------------------------

void make_vorp_dict(unsigned nsyms, const uint8_t *widths, const uint8_t *syms, const uint16_t *offsets,
                    vorp_mempool_t *pool, vorp_dict_t *dict)
{
    *dict = {};
    dict->count = static_cast<uint16_t>(nsyms);
    dict->onegrams_removed = 1;
    dict->bytes = kel_zip_header + kel_zip_width_bytes(nsyms);
    dict->nodes = pool_objects<vorp_ngram_t>(pool, nsyms, "ngram_nodes_vorp_dictionary");
    dict->trie = vorp_trie_create(pool);
    memset(dict->trie->root->present, 0, sizeof dict->trie->root->present); // no byte is a symbol by itself
    const uint8_t *next = syms;
    for (unsigned i = 0; i < nsyms; i++) {
        const unsigned length = vorp_width(widths, i);
        dict->nodes[i].code = static_cast<uint16_t>(i);
        vorp_trie_insert(dict->trie, offsets ? syms + offsets[i] : next, length, static_cast<uint16_t>(i));
        next += length;
    }
}

void free_vorp_dict(vorp_dict_t *dict)
{
    vorp_mempool_release(dict->trie->pool);
}

// ---- Training -------------------------------------------------------------------------------------------------------

namespace
{

// Trains, and encodes unless the source is not compressible. Control leaves it by longjmp if the pool runs out.
int train_and_parse(const uint8_t *src, uint64_t srclen, uint8_t *buf, uint64_t buflen, uint64_t *outlen,
                    const vorp_config_t *config, vorp_mempool_t *pool, vorp_table_t *table, uint8_t *dict_out,
                    uint64_t *count)
{
    vorp_dict_t *dict;
    vorp_table_create(src, srclen, config, table, pool, &dict);
    if (table->width == 0 || table->width > widest_code) {
        const unsigned entries = 1u << table->width; // kept: in the other byte order, so that 1 reads as 256
        dict_out[0] = static_cast<uint8_t>(entries);
        dict_out[1] = static_cast<uint8_t>(entries >> 8);
        return -1;
    }
    vorp_copy_dict_to_output_fixed(table, config, dict_out);
    int overflow;
    uint64_t length = 0;
    vorp_parse_fixed(src, srclen, buf, buflen, &length, table->width, dict, config, &overflow, count);
    *outlen = length;
    return overflow;
}

} // namespace

int vorp_encode_internal(const uint8_t *src, uint64_t srclen, uint8_t *buf, uint64_t buflen, uint64_t *outlen,
                         const vorp_config_t *config, vorp_alloc_func alloc, vorp_free_func release, void *opaque,
                         uint8_t *dict_out, uint64_t *count)
{
    vorp_mempool_t pool;
    *outlen = 0;
    memset(dict_out, 0, kel_zip_header);
    if (srclen <= longest_gram) // there are no positions to draw from
        return -1;
    if (vorp_mempool_init(config, &pool, vorp_pool_bytes, alloc, release, opaque) != 0)
        return -2;
    auto *table = pool_objects<vorp_table_t>(&pool, 1, "table_create");
    int result = -1;
    if (setjmp(pool.recover) == 0)
        result = train_and_parse(src, srclen, buf, buflen, outlen, config, &pool, table, dict_out, count);
    else
        memset(dict_out, 0, kel_zip_header);
    vorp_mempool_release(&pool);
    return result;
}

int vorp_encode(vorp_log_t *log, uint64_t reserved, const void *in, uint64_t in_len, void *out, uint64_t *outlen,
                uint64_t out_cap, vorp_level_t level, vorp_alloc_func alloc, vorp_free_func release, void *opaque,
                int use_ra, int16_t ra_interval)
{
    vorp_check(reinterpret_cast<uintptr_t>(in) % 8 == 0, "vorp_encode: input buffer is not aligned: %u\n",
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(in)));
    vorp_check(reinterpret_cast<uintptr_t>(out) % 8 == 0, "vorp_encode: output buffer is not aligned: %u\n",
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(out)));
    vorp_check(!use_ra || (ra_interval >= vorp_min_interval && ra_interval <= vorp_max_interval),
               "vorp_encode: r.a. interval out of range: %u\n", static_cast<unsigned>(ra_interval));
    vorp_check(level >= VORP1 && level <= VORP4, "vorp_encode: wrong cmp level: %u\n", static_cast<unsigned>(level));
    vorp_check(out, "vorp_encode: null output buf ptr\n");
    memset(out, 0, out_cap);
    vorp_check(in, "vorp_encode: null input buf ptr\n");

    vorp_config_t config;
    vorp_config_init(&config, level, log);
    config.reserved = reserved;
    config.ra_interval = ra_interval;
    vorp_adjust_dictionary_size(in_len, &config);
    uint8_t dict_out[vorp_dict_out_bytes + 2 * vorp_max_entries]; // random access adds an offset for each
    uint64_t count = 0;
    return vorp_encode_internal(static_cast<const uint8_t *>(in), in_len, static_cast<uint8_t *>(out), out_cap, outlen,
                                &config, alloc, release, opaque, dict_out, &count);
}
