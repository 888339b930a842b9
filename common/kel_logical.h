// The logical operations on bit vectors, on memory directly.
#pragma once

#include "kel_cca.h"

// Opcodes. The inverted ones are the operations under KEL_INVERT.
enum kel_logical_op : int { kel_op_and = 240, kel_op_or, kel_op_xor, kel_op_nand, kel_op_nor, kel_op_xnor };

// op is one of the first three; any other acts as kel_op_xor. Always KEL_SUCCESS; all fields of cca get the number of
// ones.
kel_status_t kel_logical_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                                 const kel_vec_t *dst, int op, cca_t *cca);

// The operation of an opcode on two words; any unknown one acts as kel_op_xnor.
uint64_t logical_op(int op, uint64_t a, uint64_t b);

// n bits of the result, and the number of ones among them. The offsets are 0 to 7.
uint64_t do_logical_il(int op, uint64_t flags, const void *src1, const void *src2, void *dst, uint64_t n,
                       unsigned offset1, unsigned offset2, int have_popcnt);

// The command that trace probes show for an opcode; -1 for any other.
kel_cmd_t op_to_cmd(int op);

// Entries of the command set without an implementation: KEL_ENOTIMPL.
kel_status_t kel_and_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                             const kel_vec_t *dst, cca_t *cca);
kel_status_t kel_or_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                            const kel_vec_t *dst, cca_t *cca);
kel_status_t kel_xor_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                             const kel_vec_t *dst, cca_t *cca);
