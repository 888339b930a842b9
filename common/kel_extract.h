// The emulation of extract.
#pragma once

#include "kel_cca.h"

kel_status_t kel_extract_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                 cca_t *cca);
