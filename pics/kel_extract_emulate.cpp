// The kernels of extract.
#include "kel_extract.h"
#include "kel_move_kernel.h"

kel_status_t kel_extract_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                 cca_t *cca)
{
    return move_emulate<false>({{ctx, src, dst, 0, cca}, flags, nullptr, false}, "Emulating kel_extract");
}
