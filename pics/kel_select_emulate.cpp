// The kernels of select.
#include "kel_move_kernel.h"
#include "kel_select.h"

kel_status_t kel_select_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                const kel_vec_t *mask, cca_t *cca)
{
    return move_emulate<true>({{ctx, src, dst, 0, cca}, flags, mask, false}, "Emulating kel_select");
}
