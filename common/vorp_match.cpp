// The compact form of a dictionary: how it is built from the trie.
#include "vorp_match.h"
#include <algorithm>

vorp_matcher::vorp_matcher(vorp_trie_t *of) : trie(of), tables(nullptr)
{
    void *rest = vorp_mempool_rest(trie->pool, sizeof(tables_t));
    if (!rest)
        return;
    tables = static_cast<tables_t *>(rest);
    memset(tables->short_symbols, 0, sizeof tables->short_symbols);
    memset(tables->first, 0, sizeof tables->first);
    if (collect(trie->root, 0, 0))
        sort_into_buckets();
    else
        tables = nullptr;
}

vorp_match_t vorp_matcher::walk(const uint8_t *s, uint64_t n) const
{
    vorp_match_t match = {};
    match.length = static_cast<uint16_t>(vorp_trie_longest_prefix(trie, s, &match.id, n));
    return match;
}

// The symbols under a node, whose path is the given bytes, left-aligned. False: the tables cannot hold them.
bool vorp_matcher::collect(const vorp_trie_node_t *node, uint64_t bytes, unsigned length)
{
    if (length > 0 && node->terminal && !add(node, bytes, length))
        return false;
    for (unsigned index = 0; index < sizeof node->present; index++)
        for (unsigned present = node->present[index]; present != 0; present &= present - 1) {
            const unsigned byte = 8 * index + static_cast<unsigned>(std::countr_zero(present));
            if (length == word_bytes)
                return false;
            const vorp_trie_node_t *child = vorp_trie_get_child(node, static_cast<uint8_t>(byte));
            if (!collect(child, bytes | uint64_t{byte} << (56 - 8 * length), length + 1))
                return false;
        }
    return true;
}

// A node comes before its children, so that a symbol of two bytes replaces that of its first byte.
bool vorp_matcher::add(const vorp_trie_node_t *node, uint64_t bytes, unsigned length)
{
    if (node->id > id_mask || count == most_long)
        return false;
    if (length <= 2) {
        const auto entry = static_cast<uint16_t>(length << id_bits | node->id);
        std::fill_n(tables->short_symbols + (bytes >> 48), length == 1 ? 256 : 1, entry);
    } else {
        const uint64_t mask = ~uint64_t{0} << (64 - 8 * length);
        tables->found[count++] = {bytes, mask, node->id, static_cast<uint16_t>(length), bucket_of(bytes)};
    }
    return true;
}

// The longest of a bucket come first: they are placed by falling length.
void vorp_matcher::sort_into_buckets()
{
    for (unsigned i = 0; i < count; i++)
        tables->first[tables->found[i].bucket + 1]++;
    for (unsigned bucket = 0; bucket < buckets; bucket++) {
        tables->next[bucket] = tables->first[bucket];
        tables->first[bucket + 1] = static_cast<uint16_t>(tables->first[bucket + 1] + tables->first[bucket]);
    }
    for (unsigned length = word_bytes; length > 2; length--)
        for (unsigned i = 0; i < count; i++)
            if (tables->found[i].length == length)
                tables->symbols[tables->next[tables->found[i].bucket]++] = tables->found[i];
}
