/* A C11 client of the public interface alone: every record, constant and call compiles and links in C, and its own
   failure hook takes the place of the library's. */
#include "kel.h"
#include <assert.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

_Static_assert(sizeof(kel_status_t) == 4 && sizeof(kel_compare_t) == 4 && sizeof(kel_cmd_t) == 4,
               "32-bit enumerations");
_Static_assert(sizeof(kel_vec_t) == 56 && sizeof(kel_int_t) == 32, "vectors and values");
_Static_assert(sizeof(kel_result_t) == 16 && sizeof(kel_poll_t) == 24, "results");
_Static_assert(offsetof(kel_vec_t, aux_data) == 32 && offsetof(kel_vec_t, codewords) == 48, "fields of a vector");

#define CHECK(condition)                                                                                               \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                                            \
            exit(1);                                                                                                   \
        }                                                                                                              \
    } while (0)

static uint64_t blocks_out;
static int failed_tests;

void kel_debug(void);
void kel_debug(void)
{
    failed_tests++;
}

static void *take(uint64_t size, void *cb_data)
{
    ++*(uint64_t *)cb_data;
    return malloc(size);
}

static void give(void *block, uint64_t size, void *cb_data)
{
    (void)size;
    --*(uint64_t *)cb_data;
    free(block);
}

static void scan(kel_context_t *ctx)
{
    uint8_t packed[8] = {0x12, 0x34};
    void *out = aligned_alloc(64, 128);
    kel_vec_t src = {.format = KEL_BITS, .elements = 4, .data = packed, .elem_width = 4};
    kel_vec_t dst = {.format = KEL_BITS, .elements = 4, .data = out, .elem_width = 1};
    kel_int_t three = {.format = KEL_BITS, .elem_width = 4, .dword = {0, 0, 3}};
    kel_int_t two = {0};
    kel_result_t result = kel_scan_value(ctx, 0, &src, &dst, KEL_EQ, &three);
    CHECK(result.status == KEL_SUCCESS && result.count == 1 && *(uint8_t *)out == 0x20);

    CHECK(kel_int_create(ctx, "\x20", 1, &two) == KEL_SUCCESS && two.dword[2] == 0x20);
    two.dword[2] = 2;
    two.format = KEL_BITS;
    two.elem_width = 4;
    dst.format = KEL_BYTES;
    dst.elem_width = 2;
    result = kel_scan_range(ctx, KEL_ONES_INDEX, &src, &dst, KEL_GE_AND_LE, &two, &three);
    CHECK(result.status == KEL_SUCCESS && result.count == 2 && memcmp(out, "\0\1\0\2", 4) == 0);
    free(out);
}

int main(void)
{
    const kel_init_options_t allocator = {take, give, &blocks_out};
    kel_context_t *ctx = NULL;
    uint32_t version = 0;
    CHECK(kel_thread_init(2, 1, KEL_ALLOC, &allocator, &ctx) == KEL_SUCCESS && blocks_out > 0);
    CHECK(kel_version(ctx, &version) == KEL_SUCCESS && version == 2);
    CHECK(kel_nop(ctx, 0).status == KEL_SUCCESS);
    CHECK(kel_nop(ctx, KEL_CACHE | KEL_COND).status == KEL_EINVAL && failed_tests == 2);
    scan(ctx);
    CHECK(kel_thread_fini(ctx) == KEL_SUCCESS && blocks_out == 0);
    return 0;
}
