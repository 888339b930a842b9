// A compact form of a finished dictionary, for parses of a whole source: the longest symbol at a place in a few loads,
// where the trie takes a step for each byte.
//
// A table by the first two bytes has the symbol of one or two bytes, a small hash by the first three a list of the
// longer symbols, the longest first, each compared as a word of 8 bytes. It lies in the unused rest of the trie's pool
// for the time of a parse and changes no accounting; where the rest is too small, and at the last 7 bytes of a source,
// the trie is walked.
#pragma once

#include "vorp.h"

struct vorp_match_t {
    uint16_t id;
    uint16_t length; // 0: no symbol
};

class vorp_matcher
{
  public:
    explicit vorp_matcher(vorp_trie_t *trie);

    // The longest symbol that starts the n bytes at s. Whether the trie's marks are set for the bytes
    // that it passes is left open.
    vorp_match_t longest(const uint8_t *s, uint64_t n) const
    {
        if (n < word_bytes || !tables) [[unlikely]]
            return walk(s, n);
        const uint64_t word = kel_load_be<uint64_t>(s);
        const unsigned bucket = bucket_of(word);
        for (unsigned i = tables->first[bucket]; i < tables->first[bucket + 1]; i++) {
            const long_symbol &symbol = tables->symbols[i];
            if (((word ^ symbol.bytes) & symbol.mask) == 0)
                return {symbol.id, symbol.length};
        }
        const uint16_t entry = tables->short_symbols[word >> 48];
        return {static_cast<uint16_t>(entry & id_mask), static_cast<uint16_t>(entry >> id_bits)};
    }

  private:
    static constexpr uint64_t word_bytes = 8;
    static constexpr unsigned id_bits = 13; // of a node's index; the length is above
    static constexpr uint16_t id_mask = (1 << id_bits) - 1;
    static constexpr unsigned bucket_bits = 12;
    static constexpr unsigned buckets = 1 << bucket_bits;
    static constexpr unsigned most_long = 2048; // symbols of more than two bytes

    struct long_symbol {
        uint64_t bytes; // left-aligned
        uint64_t mask;
        uint16_t id;
        uint16_t length;
        uint32_t bucket;
    };

    struct tables_t {
        uint16_t short_symbols[1 << 16];
        uint16_t first[buckets + 1]; // of each bucket's symbols
        uint16_t next[buckets];
        long_symbol symbols[most_long];
        long_symbol found[most_long]; // in the order of the trie
    };

    static unsigned bucket_of(uint64_t word)
    {
        return static_cast<unsigned>((word >> 40) * 0x9e3779b1 >> (32 - bucket_bits)) & (buckets - 1);
    }

    vorp_match_t walk(const uint8_t *s, uint64_t n) const;
    bool collect(const vorp_trie_node_t *node, uint64_t bytes, unsigned length);
    bool add(const vorp_trie_node_t *node, uint64_t bytes, unsigned length);
    void sort_into_buckets();

    vorp_trie_t *trie;
    tables_t *tables; // null: the trie is walked
    unsigned count = 0;
};
