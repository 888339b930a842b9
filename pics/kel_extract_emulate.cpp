// The kernels of extract.
#include "kel_extract.h"
#include "kel_move_kernel.h"

static kel_status_t emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst, cca_t *cca,
                            bool fast)
{
    return move_emulate({{ctx, src, dst, 0, cca}, flags, nullptr, false}, "Emulating kel_extract", fast);
}

kel_status_t kel_extract_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                 cca_t *cca)
{
    return emulate(ctx, flags, src, dst, cca, true);
}

kel_status_t kel_extract_general(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                 cca_t *cca)
{
    return emulate(ctx, flags, src, dst, cca, false);
}
