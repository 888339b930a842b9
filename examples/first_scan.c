/* Which of eight numbers of four bits are 7? */
#include <kel.h>
#include <stdio.h>

int main(void)
{
    _Alignas(8) uint8_t packed[8] = {0x37, 0x17, 0x0f, 0x72}; /* 3 7 1 7 0 15 7 2 */
    _Alignas(64) uint8_t found[64 + 64];                      /* 64 bytes of room behind the end */
    const kel_vec_t src = {.format = KEL_BITS, .elements = 8, .data = packed, .elem_width = 4};
    const kel_vec_t dst = {.format = KEL_BYTES, .elements = 8, .data = found, .elem_width = 2};
    const kel_int_t seven = {.format = KEL_BITS, .elem_width = 4, .dword = {0, 0, 7}};

    kel_context_t *ctx;
    if (kel_thread_init(2, 1, 0, NULL, &ctx) != KEL_SUCCESS)
        return 1;
    const kel_result_t result = kel_scan_value(ctx, KEL_ONES_INDEX, &src, &dst, KEL_EQ, &seven);
    for (uint64_t i = 0; i < result.count; i++)
        printf("%d\n", found[2 * i] << 8 | found[2 * i + 1]); /* an index is big-endian */
    if (kel_thread_fini(ctx) != KEL_SUCCESS)
        return 1;
    return result.status == KEL_SUCCESS ? 0 : 1;
}
