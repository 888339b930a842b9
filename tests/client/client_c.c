/* A client in C: packs six numbers, scans them, and reads the indexes of the matches. */
#include <kel.h>
#include <kel_pack.h>
#include <stdio.h>

int main(void)
{
    static const int32_t numbers[] = {12, 7, -3, 7, 30, 7};
    _Alignas(64) uint8_t packed[64] = {0}, found[128];
    const kel_vec_t src = {.format = KEL_BITS, .elements = 6, .data = packed, .elem_width = 6};
    const kel_vec_t dst = {.format = KEL_BYTES, .elements = 6, .data = found, .elem_width = 2};
    const kel_int_t seven = {.format = KEL_BITS, .elem_width = 6, .dword = {0, 0, 7 + 3}};
    uint32_t at[6];

    kel_context_t *ctx;
    if (kel_pack(&src, 0, 6, numbers, sizeof *numbers, (uint64_t)-3) || kel_thread_init(2, 1, 0, NULL, &ctx))
        return 1;
    const kel_result_t result = kel_scan_value(ctx, KEL_ONES_INDEX, &src, &dst, KEL_EQ, &seven);
    if (result.status || kel_unpack(&dst, 0, result.count, at, sizeof *at, 0) || kel_thread_fini(ctx))
        return 1;
    for (uint64_t i = 0; i < result.count; i++)
        printf("%u\n", at[i]);
    return 0;
}
