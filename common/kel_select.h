// The emulation of select.
#pragma once

#include "kel_cca.h"

kel_status_t kel_select_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                const kel_vec_t *mask, cca_t *cca);
