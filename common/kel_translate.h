// The emulations of translate.
#pragma once

#include "kel_cca.h"

kel_status_t kel_translate_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                   const kel_vec_t *bitmap, unsigned val_width, cca_t *cca);

// The form with a test value, as the coprocessor's command has it: the low val_width bits of an element select the bit
// of the bitmap, and only an element whose bits above them equal the test value can hit. It has no frame: nothing is
// validated.
kel_status_t kel_translate_testval(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                   const void *bitmap, int val_width, uint64_t test_value, cca_t *cca);
kel_status_t kel_translate_testval_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src,
                                           const kel_vec_t *dst, const void *bitmap, unsigned val_width,
                                           uint64_t test_value, cca_t *cca);
