// The training of a dictionary.
//
// Training goes by samples. For each length from 2 to 8 bytes, n-grams at random positions are counted in a hash set;
// those that were seen twice or more are candidates, and the most frequent ones enter the dictionary, which starts with
// all single bytes. The dictionary is then ranked and cut to its limits, after each length by the frequencies of a real
// parse if the level is thorough, otherwise once, by the sampled ones.
//
// Equal sources give equal dictionaries, down to the order of equal symbols: streams that users store depend on it. So
// the random sequence, the order of hash chains, the sort and each request to the pool, which decides when a source
// runs out of temporary space, are part of the result.
#include "vorp.h"
#include "vorp_match.h"
#include <algorithm>
#include <cstdlib>
#include <initializer_list>

static constexpr char vorp_source[] = "common/vorp_train.cpp";

namespace
{

constexpr unsigned shortest_gram = 2;
constexpr unsigned longest_gram = kel_max_symbol_bytes;

// Nodes of n-grams. No list of them outgrows its array: candidates are nodes, and of longer symbols the dictionary gets
// at most as many as its entries in each length, on top of what the cut after the length before has left. Without
// refinement, which cuts only once, all lengths together get 4.375 * 2 / 7 times its entries.
constexpr uint64_t node_limit = 8192;
constexpr uint64_t list_limit = 2048; // of the dictionary's longer symbols, and of nodes that wait for reuse
static_assert(list_limit >= 2 * vorp_max_entries);

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
    for (unsigned value = 0; value < vorp_byte_values; value++)
        one_gram[value] = static_cast<uint8_t>(value);
}

vorp_plists_t *vorp_plists_init(vorp_mempool_t *pool, uint64_t base)
{
    auto *plists = pool_objects<vorp_plists_t>(pool, 1, "ngram_list");
    plists->nodes = pool_objects<vorp_ngram_t>(pool, node_limit, "(all)vorp_ngram_nodes");
    plists->dict_array = pool_objects<vorp_array_t>(pool, 2, "dict_array");
    const uint64_t candidates = std::max(samples_of(base, shortest_gram), node_limit);
    plists->dict_array[0] = make_array(pool, vorp_byte_values, "dict_array_for each i-gram");
    plists->dict_array[1] = make_array(pool, candidates, "dict_array_for each i-gram");
    plists->one_gram = pool_objects<uint8_t>(pool, vorp_byte_values, "one_gram");
    vorp_generate_one_grams(plists->one_gram);
    for (uint64_t value = 0; value < vorp_byte_values; value++) {
        vorp_ngram_node_init(&plists->nodes[value], 1, &plists->one_gram[value]);
        vorp_array_append(nullptr, &plists->dict_array[0], value);
    }
    plists->node_count = vorp_byte_values;
    plists->node_max = node_limit;
    return plists;
}

vorp_dict_t *vorp_dict_init(vorp_mempool_t *pool, const vorp_plists_t *plists)
{
    auto *dict = pool_objects<vorp_dict_t>(pool, 1, "dict_init");
    dict->count = vorp_byte_values;
    dict->bytes = vorp_byte_values;
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
    // Downwards, so that lower values keep their places in the list.
    for (uint64_t value = vorp_byte_values; value-- > 0;) {
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
