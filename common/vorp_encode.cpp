// The parse of a source into codewords, by the dictionary of a codec or by one that is trained on the source.
#include "vorp.h"
#include "vorp_match.h"

static constexpr char vorp_source[] = "common/vorp_encode.cpp";

// ---- The parse ------------------------------------------------------------------------------------------------------

namespace
{

constexpr uint64_t random_access_limit = 33554432; // bytes of a source, so that places in the table fit

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
    vorp_check(width <= kel_max_code_bits, "vorp_parse_fixed: unexpected fixed-width length: %u\n", width);
    const uint64_t table_bytes = start_random_access(srclen, config, buf);
    vorp_code_writer writer = {buf, buflen, width, table_bytes};
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

namespace
{

// Nothing recovers here from an exhausted pool, and nothing has to. A symbol adds at most a node for each of its bytes,
// of which a damaged codec tells up to 15, and each node a list of two children. It links only the first of its nodes
// to one that was there before; so a list of all bytes, which a node gets with its third child, takes two symbols.
constexpr uint64_t symbol_nodes = 15;
constexpr uint64_t symbol_use = vorp_pool_use(symbol_nodes * sizeof(vorp_trie_node_t)) +
                                symbol_nodes * vorp_pool_use(2 * sizeof(int64_t)) +
                                vorp_pool_use(vorp_byte_values * sizeof(int64_t)) / 2;
constexpr uint64_t trie_use = vorp_pool_use(sizeof(vorp_trie_t)) +
                              vorp_pool_use((1 + vorp_byte_values) * sizeof(vorp_trie_node_t)) +
                              vorp_pool_use(vorp_byte_values * sizeof(int64_t));
static_assert(vorp_pool_use(kel_max_zip_symbols * sizeof(vorp_ngram_t)) + trie_use + kel_max_zip_symbols * symbol_use <=
              vorp_pool_bytes);

} // namespace

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
    if (table->width == 0 || table->width > kel_max_code_bits) {
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
    if (srclen <= kel_max_symbol_bytes) // there are no positions to draw from
        return -1;
    if (vorp_mempool_init(config, &pool, vorp_pool_bytes, alloc, release, opaque) != 0)
        return -2;
    auto *table = pool_objects<vorp_table_t>(&pool, 1, "table_create"); // the first request: there is room for it
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
