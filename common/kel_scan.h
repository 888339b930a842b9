// The emulations of the scans.
#pragma once

#include "kel_cca.h"

kel_status_t kel_scan_value_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                    kel_compare_t op, const kel_int_t *val, cca_t *cca);
kel_status_t kel_scan_range_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                    kel_compare_t op, const kel_int_t *lower, const kel_int_t *upper, cca_t *cca);
