// From a trained dictionary to the final table: the symbols in the order of their codewords, and the section of a
// stream that they make. Under the row rule the longest symbols go until every row of a codec fits.
#include "vorp.h"
#include <initializer_list>

static constexpr char vorp_source[] = "common/vorp_table.cpp";

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
        size += zip_code_width(dict->count) * dict->tokens / 8 + 1;
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
    table->width = static_cast<uint8_t>(zip_code_width(static_cast<unsigned>(n)));
    table->entry_count = static_cast<uint16_t>(n);
    table->entries = pool_objects<vorp_table_entry_t>(pool, n, "ngram_entries");
    if (config->hw_constraint)
        vorp_dict_hwconstraint(src, *dict, lists.nodes, lists.indexes, &n);
    // Kept: codewords keep the width of the longer list, and empty entries stand behind the shortened one. Only where a
    // codec of the shortened list would read narrower codewords do table and stream follow it.
    if (zip_code_width(static_cast<unsigned>(n)) < table->width) {
        table->width = static_cast<uint8_t>(zip_code_width(static_cast<unsigned>(n)));
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
