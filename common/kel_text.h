// Diagnostic text: the words of statuses, flags, formats, operators and argument lists that log lines show. Each
// function answers a constant string or fills a caller's buffer of size bytes, cutting what does not fit; none logs.
#pragma once

#include "kel.h"

inline constexpr int kel_flags_text_size = 40;      // the flags that a validator refuses
inline constexpr int kel_sync_flags_text_size = 64; // the synchronisation flags
inline constexpr int kel_request_flags_text_size = 64;
inline constexpr int kel_fmt_text_size = 30;
inline constexpr int kel_args_text_size = 512;

// The text for a value that has no word, cut at 19 characters. The 20 bytes that it stands in are never released.
const char *badval(uint64_t value);
// Calls alloc with size, in one instruction (ml/alloc.S).
extern "C" void *malloc_helper(size_t size, void *(*alloc)(size_t));

const char *kel_status_str(int32_t status);
const char *log_str(uint32_t level);
const char *scan_op_str(kel_context_t *ctx, kel_compare_t op, char *buffer, int size);
const char *bit_byte_fmt_str(uint64_t format);

char *flags_str(kel_context_t *ctx, uint64_t flags, char *buffer, int size);
char *fmt_str(kel_context_t *ctx, uint64_t format, char *buffer, int size);
char *src_vec_str(kel_context_t *ctx, const kel_vec_t *vec, char *buffer, int size);
char *dst_vec_str(kel_context_t *ctx, const kel_vec_t *vec, char *buffer, int size);
char *bv_args_str(kel_context_t *ctx, const kel_vec_t *vec, char *buffer, int size);
char *val_str(kel_context_t *ctx, const kel_int_t *val, char *buffer, int size);

// The argument lists of entry lines.
char *entry_args_str(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst, char *buffer,
                     int size);
char *copy_args_str(kel_context_t *ctx, uint64_t flags, const void *src, const void *dst, uint64_t count, char *buffer,
                    int size);
char *fill_args_str(kel_context_t *ctx, uint64_t flags, uint64_t val, const void *dst, uint64_t count,
                    uint32_t val_width, char *buffer, int size);
