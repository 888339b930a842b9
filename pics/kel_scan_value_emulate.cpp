// The kernels of the value scan.
#include "kel_scan_kernel.h"

static constexpr family_t<8> family = {
    .verbose_line = "Emulating kel_scan_value",
    .source = "pics/kel_scan_value_emulate.cpp",
    .line = __LINE__,
    .first_op = 0,
    .op_bits = 3,
    .operators =
        {
            {{accept_eq}, false}, // KEL_EQ
            {{accept_ge}, false}, // KEL_GE
            {{accept_ne}, false}, // KEL_NE
            {{accept_lt}, false}, // KEL_LT
            {},
            {{accept_le}, false}, // KEL_LE
            {},
            {{accept_gt}, false}, // KEL_GT
        },
};
static_assert(family.ops() == kel_value_ops);

kel_status_t kel_scan_value_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                    kel_compare_t op, const kel_int_t *val, cca_t *cca)
{
    return scan_emulate<1>(family, {{ctx, src, dst, 0, cca}, {val}, {}}, flags, op);
}
