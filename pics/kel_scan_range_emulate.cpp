// The kernels of the range scan.
#include "kel_scan_kernel.h"

static constexpr family_t<16> family = {
    .verbose_line = "Emulating kel_scan_range",
    .source = "pics/kel_scan_range_emulate.cpp",
    .line = __LINE__,
    .first_op = KEL_EQ_OR_EQ,
    .op_bits = 4,
    .operators =
        {
            {{accept_eq, accept_eq}, false}, // KEL_EQ_OR_EQ
            {{accept_ge, accept_le}, true},  // KEL_GE_AND_LE
            {{accept_ne, accept_ne}, true},  // KEL_NE_AND_NE
            {{accept_lt, accept_gt}, false}, // KEL_LT_OR_GT
            {},
            {{accept_ge, accept_lt}, true}, // KEL_GE_AND_LT
            {},
            {{accept_lt, accept_ge}, false}, // KEL_LT_OR_GE
            {},
            {{accept_gt, accept_le}, true}, // KEL_GT_AND_LE
            {},
            {{accept_le, accept_gt}, false}, // KEL_LE_OR_GT
            {},
            {{accept_gt, accept_lt}, true}, // KEL_GT_AND_LT
            {},
            {{accept_le, accept_ge}, false}, // KEL_LE_OR_GE
        },
};
static_assert(family.ops() == kel_range_ops);

kel_status_t kel_scan_range_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                    kel_compare_t op, const kel_int_t *lower, const kel_int_t *upper, cca_t *cca)
{
    return scan_emulate<2>(family, {{ctx, src, dst, 0, cca}, {lower, upper}, {}}, flags, op);
}
