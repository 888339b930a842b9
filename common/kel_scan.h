// The emulations of the scans.
#pragma once

#include "kel_cca.h"

// Sets of operators, a bit for each: of scans with one value, and with two.
constexpr uint32_t kel_value_ops =
    1u << KEL_EQ | 1u << KEL_GE | 1u << KEL_NE | 1u << KEL_LT | 1u << KEL_LE | 1u << KEL_GT;
constexpr uint32_t kel_range_ops = 1u << KEL_EQ_OR_EQ | 1u << KEL_GE_AND_LE | 1u << KEL_NE_AND_NE | 1u << KEL_LT_OR_GT |
                                   1u << KEL_GE_AND_LT | 1u << KEL_LT_OR_GE | 1u << KEL_GT_AND_LE | 1u << KEL_LE_OR_GT |
                                   1u << KEL_GT_AND_LT | 1u << KEL_LE_OR_GE;

kel_status_t kel_scan_value_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                    kel_compare_t op, const kel_int_t *val, cca_t *cca);
kel_status_t kel_scan_range_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                    kel_compare_t op, const kel_int_t *lower, const kel_int_t *upper, cca_t *cca);
