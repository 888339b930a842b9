// The vorp stream: a dictionary, and codewords of one width that index it. This header has all of the format: its
// levels, its decoders, its writer, its encoder, and the containers under the encoder.
//
// A stream, with all numbers big-endian:
//
//   header      28 bytes: the magic "VORP", 4 zeros, version 0, flags, 8 zeros, the random-access interval in 2 bytes,
//               the size of the decoded data in 4, 4 zeros
//   then, of a stored stream, the data; of a compressed one
//   dictionary  the number of symbols E in 2 bytes, 5 to 1024; lengths of 4 bits, the first in the high half of its
//               byte; with random access E offsets of 2 bytes; the symbols, one behind the other. An offset is the
//               distance of a symbol from the offset's own address. Without offsets this is a codec's packed image.
//   count       the number of codewords in 4 bytes, at least 8; 4 zeros
//   table       with random access an entry of 8 bytes for each interval of the decoded data (vorp_access_t)
//   codewords   of ceil(log2(E)) bits, the first bit on top of the first byte
//
// The format's code has no error returns. A check that fails is a fault of the program or of the storage: it prints
// its text and ends the process, in every build. The one recovered failure is an exhausted memory pool.
#pragma once

#include "kel_io.h"
#include "kel_zip.h"
#include <csetjmp>
#include <cstdio>

// ---- Services of the caller -----------------------------------------------------------------------------------------

typedef void *(*vorp_alloc_func)(void *opaque, uint64_t n, uint64_t size); // n is 1; the memory is zeroed
typedef void *(*vorp_free_func)(void *opaque, void *block);
typedef void (*vorp_log_func)(void *opaque, const char *format, ...) __attribute__((format(printf, 2, 3)));

typedef struct {
    vorp_log_func log;
    void *opaque;
} vorp_log_t;

// The services of a context, which is the opaque argument. A format is cut by its last character, a newline.
void *kel_alloc_func(void *ctx, uint64_t n, uint64_t size);
void *kel_free_func(void *ctx, void *block);
void kel_log_func(void *ctx, const char *format, ...) __attribute__((format(printf, 2, 3)));

// A check that holds in every build. A unit that uses it names itself in vorp_source.
#define vorp_check(condition, ...)                                                                                     \
    do {                                                                                                               \
        if (!(condition)) [[unlikely]] {                                                                               \
            printf(__VA_ARGS__);                                                                                       \
            vorp_fail(vorp_source, __LINE__, __func__);                                                                \
        }                                                                                                              \
    } while (0)

[[noreturn]] void vorp_fail(const char *source, unsigned line, const char *function);

// ---- Configuration --------------------------------------------------------------------------------------------------

// Even levels refine: real frequencies are counted after each length of n-grams. From VORP3 on the dictionary obeys
// the row rule of codecs.
typedef enum { VORPWRONG = 0, VORP1 = 1, VORP2 = 2, VORP3 = 3, VORP4 = 4 } vorp_level_t;

typedef struct {
    vorp_log_t *log;
    uint64_t reserved;
    uint16_t max_entries; // of the dictionary
    uint64_t max_bytes;   // of its symbols
    uint32_t reserved1;
    uint8_t refine; // 0, or 2 for refinement
    uint32_t hw_constraint;
    int16_t ra_interval; // bytes between the points of random access, 8 to 256; -1: there are none
    uint32_t reserved2;
    uint32_t fixed_width; // codewords have one width, the only kind that there is
} vorp_config_t;

inline constexpr uint16_t vorp_min_entries = 5; // codewords have at least 3 bits
inline constexpr uint16_t vorp_max_entries = kel_max_zip_symbols;
inline constexpr uint64_t vorp_max_bytes = vorp_max_entries * kel_max_symbol_bytes;
inline constexpr int vorp_min_interval = 8;
inline constexpr int vorp_max_interval = 256;

// Any other level is a failed assertion.
void vorp_config_init(vorp_config_t *config, vorp_level_t level, vorp_log_t *log);

// The limits of an encoder's dictionary for an input of that many bytes.
void vorp_adjust_dictionary_size(uint64_t input_len, vorp_config_t *config);

// ---- Memory pool ----------------------------------------------------------------------------------------------------
//
// One bounded block that serves requests until it is released as a whole. Results depend on when it is exhausted, so
// its accounting is fixed: a request of s bytes uses (s & ~15) + 32, and the first lands at offset 16.
//
// A client's allocator may place the block anywhere. Its address is rounded down to a multiple of 8, so that every
// aligned request can hold words; the bytes that this brings in front count as used, and belong to the 16 that no
// aligned request gets.

inline constexpr uint64_t vorp_pool_unit = 16;

// Kept: a multiple of the unit grows by a unit, too.
inline constexpr uint64_t vorp_pool_round(uint64_t bytes)
{
    return (bytes & ~(vorp_pool_unit - 1)) + vorp_pool_unit;
}

// What an aligned request uses of the pool.
inline constexpr uint64_t vorp_pool_use(uint64_t bytes)
{
    return vorp_pool_unit + vorp_pool_round(bytes);
}

inline constexpr int MAX_INDEX = 12;
inline constexpr uint64_t vorp_pool_bytes = 4000000; // for one encode

typedef struct {
    uint8_t index;       // of the block in use; there is only one
    uint64_t chunk_size; // usable bytes of a block
    void *chunks[MAX_INDEX];
    void *raw[MAX_INDEX]; // what the allocator gave
    uint64_t used[MAX_INDEX];
    vorp_alloc_func alloc; // null: malloc
    vorp_free_func free;
    void *opaque;
    jmp_buf recover; // set by the owner before a request that may not fit
    vorp_log_t *log;
    uint64_t reserved;
} vorp_mempool_t;

// 0, or -1: there is no memory, and nothing to release.
int vorp_mempool_init(const vorp_config_t *config, vorp_mempool_t *pool, uint64_t size, vorp_alloc_func alloc,
                      vorp_free_func free, void *opaque);
// Does not return when the pool is exhausted. align is true for anything but bytes. name tells what a request is for
// that no pool of this size could meet.
void *vorp_mempool_getmemory(vorp_mempool_t *pool, uint64_t size, int zero, int align, const char *name);
// The unused rest of the pool, aligned for words, if it has that many bytes; else null. The next request takes it
// again.
void *vorp_mempool_rest(vorp_mempool_t *pool, uint64_t size);

// Zeroed objects.
template <class T>
T *pool_objects(vorp_mempool_t *pool, uint64_t count, const char *name)
{
    return static_cast<T *>(vorp_mempool_getmemory(pool, count * sizeof(T), 1, 1, name));
}

[[noreturn]] void vorp_mempool_throw(vorp_mempool_t *pool);
void vorp_mempool_release(vorp_mempool_t *pool);

void *vorp_malloc_align(vorp_log_t *log, uint64_t reserved, uint64_t size, const char *name, uint64_t alignment,
                        void **raw);
void vorp_free_align(vorp_log_t *log, uint64_t reserved, const char *name, void *block, void *raw);

// ---- Arrays ---------------------------------------------------------------------------------------------------------

typedef struct {
    uint64_t max_size;
    uint64_t size;
    uint64_t *items;
} vorp_array_t;
static_assert(sizeof(vorp_array_t) == 24);

void vorp_array_append(const vorp_config_t *config, vorp_array_t *array, uint64_t value);
uint64_t vorp_array_top(const vorp_config_t *config, const vorp_array_t *array);
uint64_t vorp_array_pop(const vorp_config_t *config, vorp_array_t *array);
void vorp_array_remove(const vorp_config_t *config, vorp_array_t *array, uint64_t i);
uint64_t vorp_array_get_value(const vorp_config_t *config, const vorp_array_t *array, uint64_t i);

// ---- Hash set of n-grams --------------------------------------------------------------------------------------------

typedef struct vorp_hset_item {
    uint64_t pos;  // of the first occurrence in the source
    uint64_t freq; // occurrences seen
    uint64_t hash;
    struct vorp_hset_item *next;
} vorp_hset_item_t;
static_assert(sizeof(vorp_hset_item_t) == 32);

typedef struct {
    uint64_t size;  // buckets
    uint64_t count; // items
    vorp_hset_item_t **buckets;
} vorp_hset_t;
static_assert(sizeof(vorp_hset_t) == 24);

uint64_t vorp_hashdjb2(const uint8_t *bytes, uint8_t n);
vorp_hset_t *vorp_hset_create(vorp_mempool_t *pool, uint64_t buckets);
// Counts the n bytes of src at pos. All calls for a set have the same src and n.
void vorp_hset_add_index(vorp_mempool_t *pool, vorp_hset_t *set, const uint8_t *src, uint64_t pos, uint8_t n);

// ---- Trie of symbols ------------------------------------------------------------------------------------------------

// Most nodes of a dictionary of short n-grams have one or two children; only above that they get a list of 256.
typedef struct vorp_trie_node {
    uint16_t id;          // of the symbol that ends here
    uint32_t terminal;    // a symbol ends here
    uint8_t present[32];  // bit b % 8 of byte b / 8: there is a child for byte b
    uint8_t labels[2];    // bytes of the first two children
    uint16_t child_count; // 0, 1, 2 or 256
    struct vorp_trie_node *child_base;
    int64_t *child_offsets; // of the children from child_base, in bytes: by labels, or of 256 by the byte
} vorp_trie_node_t;
static_assert(sizeof(vorp_trie_node_t) == 64);

typedef struct {
    vorp_trie_node_t *root;
    vorp_mempool_t *pool;
    uint8_t used[256]; // bytes that a walk has passed
} vorp_trie_t;
static_assert(sizeof(vorp_trie_t) == 272);

inline constexpr unsigned vorp_byte_values = 256;

// With a symbol for each byte, whose id is the byte.
vorp_trie_t *vorp_trie_create(vorp_mempool_t *pool);
int vorp_trie_is_child_present(const vorp_trie_node_t *node, uint8_t byte);
// Of a node with more than two children, only for a byte that is present.
vorp_trie_node_t *vorp_trie_get_child(const vorp_trie_node_t *node, uint8_t byte);
void vorp_trie_insert(vorp_trie_t *trie, const uint8_t *bytes, uint64_t n, uint16_t id);
// Nodes stay: the symbol is not found any more, longer ones are.
void vorp_trie_delete(vorp_trie_t *trie, const uint8_t *bytes, uint64_t n);
// The length of the longest symbol that starts the n bytes at s, and its id; 0: there is none.
uint64_t vorp_trie_longest_prefix(vorp_trie_t *trie, const uint8_t *s, uint16_t *id, uint64_t n);
int vorp_trie_is_present(const vorp_trie_t *trie, uint8_t byte);

// ---- Sorting --------------------------------------------------------------------------------------------------------

// Above 0: a goes behind b. Only the low 32 bits count, as a signed number.
typedef int64_t (*vorp_cmp_func)(void *ctx, const void *a, const void *b);

// A heap sort of n elements of size bytes. Equal elements come out in an order that trained dictionaries depend on.
void lsrsrx(void *base, uint64_t n, uint64_t size, vorp_cmp_func cmp, void *ctx);

// Exchanges two blocks of memory.
void slmeswap(void *a, void *b, uint64_t size);

// ---- Dictionary in the making ---------------------------------------------------------------------------------------

typedef struct {
    uint8_t len;       // 1 to 8
    uint16_t code;     // its codeword, once the table is final
    uint64_t freq;     // samples seen, or parses counted
    int64_t first_pos; // of one occurrence in the source; -1 for one byte
    uint8_t *one_gram; // of one byte: its place among all byte values; else null
} vorp_ngram_t;
static_assert(sizeof(vorp_ngram_t) == 32);

// Elements are indexes of nodes, and ctx is the nodes.
int64_t vorp_ngram_cmp_freq_desc(void *ctx, const void *a, const void *b);
int64_t vorp_ngram_cmp_freq_asc(void *ctx, const void *a, const void *b);
int64_t vorp_ngram_ctx_cmp_sz_asc(void *ctx, const void *a, const void *b);
int64_t vorp_ngram_ctx_cmp_sz_desc(void *ctx, const void *a, const void *b);
// Elements are addresses of nodes.
int64_t vorp_ngram_cmp_sz_asc(void *ctx, const void *a, const void *b);
int64_t vorp_ngram_cmp_sz_desc(void *ctx, const void *a, const void *b);

typedef struct {
    uint8_t *one_gram; // the byte values
    vorp_ngram_t *nodes;
    vorp_array_t *dict_array; // two: the one-grams, and the candidates of the current length
    uint64_t node_count;
    uint64_t node_max;
} vorp_plists_t;
static_assert(sizeof(vorp_plists_t) == 40);

typedef struct {
    uint16_t count; // symbols
    uint64_t bytes; // of all symbols
    vorp_array_t one_grams;
    vorp_array_t large_gram_array;
    vorp_array_t deleted_array; // nodes that are free
    vorp_ngram_t *nodes;
    vorp_trie_t *trie; // terminal nodes carry the index of the symbol's node
    int onegrams_removed;
    uint64_t tokens; // codewords of the last count of frequencies
} vorp_dict_t;
static_assert(sizeof(vorp_dict_t) == 120);

typedef struct {
    uint8_t *bytes;
    uint8_t len;
    uint16_t code;
} vorp_table_entry_t;
static_assert(sizeof(vorp_table_entry_t) == 16);

typedef struct {
    uint32_t stored; // the source is not worth compressing
    uint8_t width;   // of a codeword
    uint16_t entry_count;
    vorp_table_entry_t *entries;
    vorp_mempool_t *pool;
    uint64_t reserved; // the pool counts 32 bytes
} vorp_table_t;
static_assert(sizeof(vorp_table_t) == 32);

// ---- Header ---------------------------------------------------------------------------------------------------------

inline constexpr uint16_t vorp_header_size = 28;
inline constexpr unsigned vorp_count_bytes = 8; // of the section with the number of codewords

// 1: the stream is compressed; 0: it is stored. config gets what the header says.
int vorp_header_read(const void *in, vorp_config_t *config, uint16_t *hdr_len, uint64_t *uncompressed_size);
void vorp_header_write(const vorp_table_t *table, const vorp_config_t *config, uint64_t uncompressed_size, void *out,
                       uint16_t *hdr_len);

// An entry of the random-access table: the codeword that covers the first byte of an interval starts at the given bit
// of the byte at distance from the entry; skip bytes of its symbol stand before the interval.
typedef struct {
    uint32_t distance; // 25 bits
    unsigned skip;     // 0 to 7
    unsigned bit;
} vorp_access_t;

inline constexpr unsigned vorp_access_bytes = 8; // the last 4 are ignored
inline constexpr uint32_t vorp_max_distance = (1u << 25) - 1;

inline vorp_access_t vorp_access_read(const uint8_t *entry)
{
    const uint32_t word = kel_load_be<uint32_t>(entry);
    return {word >> 7, word >> 3 & 15, word & 7};
}

inline void vorp_access_write(uint8_t *entry, const vorp_access_t &access)
{
    kel_store_be(entry, access.distance << 7 | access.skip << 3 | access.bit);
}

// ---- Codewords ------------------------------------------------------------------------------------------------------

// Writes codewords one behind the other, the first bit on top, into bytes that are zero. Kept: room is tested for the
// first of a codeword's two bytes alone. The second may lie behind the room, in a byte that holds anything.
struct vorp_code_writer {
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

// ---- Decoders -------------------------------------------------------------------------------------------------------
//
// A stream is trusted to be what a writer made. Nothing behind its last codeword is read, and nothing behind the
// decoded data is written.

inline constexpr uint64_t vorp_exact_codewords = 8; // at the end of a stream, whose symbols are copied exactly
inline constexpr uint64_t vorp_entry_wrkmem = 9;    // bytes of work memory for a dictionary entry

// Decode a whole stream into out, which has room for max_out bytes; *outlen gets the decoded length. Both answer 0.
// in and out are 8-byte aligned.
int vorp_decode(vorp_log_t *log, uint64_t reserved, const void *in, void *out, uint64_t *outlen, uint64_t max_out,
                vorp_alloc_func alloc, vorp_free_func free, void *opaque);
// At any address, with work memory of vorp_max_entries * vorp_entry_wrkmem bytes.
int vorp_decode_wrkmem(vorp_log_t *log, uint64_t reserved, const void *in, void *out, uint64_t *outlen,
                       uint64_t max_out, void *wrkmem, uint64_t wrkmem_sz);
// Decodes len bytes from uncmp_pos on, or as many as there are; answers their number. A compressed stream must have
// random access.
uint64_t vorp_decode_selective(vorp_log_t *log, uint64_t reserved, const void *in, void *out, uint64_t uncmp_pos,
                               int64_t len);

// The same from the payload of a compressed stream, with a config from its header.
void vorp_decode_fixed_width(const uint8_t *data, void *out, uint64_t *outlen, const vorp_config_t *config,
                             vorp_alloc_func alloc, vorp_free_func free, void *opaque);
void vorp_decode_fixed_width_wrkmem(const uint8_t *data, void *out, uint64_t *outlen, const vorp_config_t *config,
                                    void *wrkmem, uint64_t wrkmem_sz);
uint64_t vorp_decode_fixed_random(const uint8_t *data, void *out, uint64_t pos, int64_t len,
                                  const vorp_config_t *config);

// Unpacks a dictionary section; answers the width of its codewords. A symbol stands at the start of a slot of 8 bytes,
// the rest of which is what follows it in the stream.
unsigned vorp_reconstruct_dict_fixed(const uint8_t *data, uint8_t *symbols, uint8_t *lengths, uint16_t *entries,
                                     uint64_t *dict_bytes, int with_ra);
// Finds the parts of a section with offsets.
unsigned vorp_reconstruct_dict_fixed_random(const uint8_t *data, const uint8_t **offsets, const uint8_t **lengths,
                                            uint16_t *entries, uint64_t *dict_bytes);

// All answer the bytes written.
uint64_t vorp_decode_dict_generic(const uint8_t *codewords, uint64_t count, const uint8_t *symbols,
                                  const uint8_t *lengths, uint8_t *out, unsigned width);
// The end of a stream, from bit b of *p on; counts from out_start.
uint64_t vorp_decode_dict_remain(const uint8_t *p, unsigned b, uint64_t n, const uint8_t *symbols,
                                 const uint8_t *lengths, uint8_t *out_pos, uint8_t *out_start, unsigned width);
uint64_t vorp_decode_dict_fixed_random(const vorp_config_t *config, const uint8_t *p, uint8_t *out, int64_t len,
                                       unsigned b, uint64_t skip, const uint8_t *offsets, const uint8_t *lengths,
                                       unsigned width);

// ---- Writer of whole streams ----------------------------------------------------------------------------------------

typedef struct {
    unsigned nsyms;
    const uint8_t *widths; // packed, as in the stream
    const uint8_t *syms;
    const uint16_t *codewords;
    uint64_t count;
    uint64_t uncompressed_size; // the sum of the symbols that the codewords stand for
} vorp_content_t;

// Lay out a stream at out; config has the interval and tells whether the dictionary obeys the row rule. They answer the
// stream's length, or 0 if it has no room or the format cannot hold it.
uint64_t vorp_stream_write(const vorp_config_t *config, const vorp_content_t *content, void *out, uint64_t capacity);
uint64_t vorp_stream_store(const vorp_config_t *config, const void *data, uint64_t size, void *out, uint64_t capacity);

// ---- Encoder --------------------------------------------------------------------------------------------------------

void vorp_ngram_node_init(vorp_ngram_t *node, uint8_t len, uint8_t *one_gram);

void vorp_generate_one_grams(uint8_t *one_gram);

// The store of candidates, and a dictionary of all bytes over it. base is what the numbers of samples are multiples of.
vorp_plists_t *vorp_plists_init(vorp_mempool_t *pool, uint64_t base);
vorp_dict_t *vorp_dict_init(vorp_mempool_t *pool, const vorp_plists_t *plists);

// Steps on a dictionary. remove_gram is for the last index of the longer symbols; calc_freq counts the codewords of a
// parse with symbols of up to window bytes; remove_onegrams is for bytes that no parse has met.
void vorp_dict_op_add_gram(const vorp_config_t *config, vorp_dict_t *dict, uint64_t index, const uint8_t *src);
void vorp_dict_op_remove_gram(const vorp_config_t *config, vorp_dict_t *dict, uint64_t i, const uint8_t *src);
void vorp_dict_op_calc_freq(const vorp_config_t *config, vorp_dict_t *dict, const uint8_t *src, uint64_t srclen,
                            uint64_t window);
void vorp_dict_op_remove_onegrams(const vorp_config_t *config, vorp_dict_t *dict);
// Ranks the longer symbols and cuts the dictionary to its limits.
void vorp_dict_resize(vorp_dict_t *dict, const uint8_t *src, uint64_t srclen, uint64_t window,
                      const vorp_config_t *config);
// Orders the symbols for the row rule, and takes out the longest until it holds. *n is their number.
void vorp_dict_hwconstraint(const uint8_t *src, vorp_dict_t *dict, vorp_ngram_t **final_nodes, uint64_t *map_array,
                            uint64_t *n);

// Trains a dictionary on src.
vorp_dict_t *vorp_dict_build(vorp_mempool_t *pool, const uint8_t *src, uint64_t srclen, const vorp_config_t *config);
void vorp_table_create(const uint8_t *src, uint64_t srclen, const vorp_config_t *config, vorp_table_t *table,
                       vorp_mempool_t *pool, vorp_dict_t **dict);
// Lays out the dictionary section; answers its length.
uint64_t vorp_copy_dict_to_output_fixed(const vorp_table_t *table, const vorp_config_t *config, uint8_t *out);

// Makes dict a parser for an existing dictionary, whose symbols stand at offsets from syms, or one behind the other if
// offsets is null. Its memory is the pool, which free_vorp_dict releases.
void make_vorp_dict(unsigned nsyms, const uint8_t *widths, const uint8_t *syms, const uint16_t *offsets,
                    vorp_mempool_t *pool, vorp_dict_t *dict);
void free_vorp_dict(vorp_dict_t *dict);

// Encodes src by the longest symbols; answers the number of codewords, 0 if there is none for some place or no byte.
uint64_t vorp_parse_fixed(const uint8_t *src, uint64_t srclen, uint8_t *buf, uint64_t buflen, uint64_t *outlen,
                          unsigned width, vorp_dict_t *dict, const vorp_config_t *config, int *overflow,
                          uint64_t *count);

// The largest dictionary section without offsets that training leaves behind.
inline constexpr size_t vorp_dict_out_bytes = kel_zip_header + vorp_max_entries / 2 + vorp_max_bytes;

// Trains and encodes. 0; 1: buf is too small, and *outlen what is needed; -1: not compressible; -2: no memory.
int vorp_encode_internal(const uint8_t *src, uint64_t srclen, uint8_t *buf, uint64_t buflen, uint64_t *outlen,
                         const vorp_config_t *config, vorp_alloc_func alloc, vorp_free_func free, void *opaque,
                         uint8_t *dict_out, uint64_t *count);
// Leaves bare codewords, behind a random-access table if ra_interval is above 0, without header and dictionary, which
// is lost: a writer of whole streams trains by itself. use_ra arms the test of ra_interval.
int vorp_encode(vorp_log_t *log, uint64_t reserved, const void *in, uint64_t in_len, void *out, uint64_t *outlen,
                uint64_t out_cap, vorp_level_t level, vorp_alloc_func alloc, vorp_free_func free, void *opaque,
                int use_ra, int16_t ra_interval);

// The same for a codec and a bare stream of codewords, with memory and log of a context. vorp_kel_encode takes a
// dictionary as it is: 0 or 1 as above, -1: some byte has no symbol, or there is none, -2: no memory.
int vorp_kel_zip(const void *src, uint64_t srclen, void *buf, uint64_t buflen, uint64_t *outlen, vorp_alloc_func alloc,
                 vorp_free_func free, vorp_log_func log, void *opaque, vorp_level_t level, uint8_t *dict_out,
                 uint64_t *count);
uint64_t vorp_kel_encode(const void *src, uint64_t srclen, void *buf, uint64_t buflen, uint64_t *outlen,
                         vorp_alloc_func alloc, vorp_free_func free, vorp_log_func log, void *opaque, unsigned nsyms,
                         const uint8_t *widths, const uint8_t *syms, const uint16_t *offsets, uint64_t *count);
