// Argument tests that the operations share. The plain ones look at descriptors only; those named _extra look at data.
//
// Each answers 1 for valid, 0 for not, and reports what failed, every fault once and in a fixed order, if its last
// argument says so. None changes anything.
#pragma once

#include "kel_frame.h"
#include "kel_limits.h"
#include "kel_sync.h"

// fmt_add and fmt_remove name the format bits that the caller accepts beyond, or refuses of, the usual ones; name is
// the vector's role in the messages.
int src_valid(kel_context_t *ctx, const kel_vec_t *vec, uint64_t fmt_add, uint64_t fmt_remove, const char *name,
              unsigned api_version, int log);
// A destination that receives elements.
int dst_valid(kel_context_t *ctx, const kel_vec_t *vec, uint64_t fmt_add, uint64_t fmt_remove, unsigned api_version,
              int log);
// A destination that receives a bit vector, or with KEL_ONES_INDEX an index list.
int dst_ones_valid(kel_context_t *ctx, uint64_t flags, const kel_vec_t *vec, unsigned api_version, int log);
int flags_valid(kel_context_t *ctx, uint64_t flags, uint64_t flags_add, uint64_t flags_remove, unsigned api_version,
                int log);

// The width test of a source element or of a value, without a report; a width of 0 fails.
int width_valid(uint64_t format, uint32_t elem_width, unsigned api_version);

// The sum and the contents of a source's aux stream, reported at once.
int aux_valid_extra(kel_context_t *ctx, const kel_vec_t *src, const kel_vec_t *dst, unsigned api_version);
