/**
 * @file
 * libkel: vector primitives over packed columns.
 *
 * A client opens a context for each thread, describes its buffers with vectors (kel_vec_t), and calls an operation
 * on them. An operation runs on the calling thread and has finished when the call returns.
 *
 * This header is the manual. It serves C11 and C++.
 *
 * Data. A vector is a stream of bits. Bit 0 of a stream is the most significant bit of its first byte, and a field
 * of n bits has its first stream bit on top; elements of several bytes are therefore big-endian in memory, on every
 * processor. Widths and lengths are in bits only where KEL_BITS says so, otherwise in bytes. Counts of elements are 64
 * bits wide.
 *
 * Buffers. A source may start at any address. It is read in aligned 8-byte words, up to the end of the word that holds
 * its last bit: the bytes up to there must be readable. A destination starts at a multiple of 64 bytes and at bit 0;
 * its nominal end is its byte length rounded up to 64 bytes. The library pads what it writes with zero bytes to the
 * next multiple of 64, and a destination needs 64 more bytes of room behind its nominal end, because overflow is
 * noticed between elements only; a run-length source may need more (see kel_scan_value). The library never takes
 * ownership of a vector or of what its pointers address.
 *
 * Failures. A call that fails says so by a negative kel_status_t (but for one case of kel_thread_init), never by ending
 * the program (but for an operator that no enumerator of kel_compare_t names, and SIGPIPE, see kel_set_log_file). An
 * argument that fails validation leaves every buffer untouched. Reasons are told in log lines at level KEL_LOG_ERROR.
 * A new context validates its arguments (KEL_DEBUG_ARG); with validation switched off, descriptors that break a rule
 * have undefined results.
 *
 * Null. Validation refuses a null vector, value or codec, and a null pointer that a call would store through, with
 * KEL_EINVAL and one line that names the argument. A buffer may be null where no byte goes or comes: with a capacity,
 * count, or number of elements of 0. Not tested are contexts, queues, the out-pointer of kel_thread_init, the record of
 * kel_get_props, and what a vector's data and aux_data point to.
 *
 * Callbacks. A log callback, or one of an allocator, may make any call but kel_thread_fini of the context that called
 * it, and those that take a queue of that context (post, poll, cancel, destroy).
 *
 * Threads. A context belongs to the thread that opened it. Contexts of different threads share nothing that a result
 * depends on, but for training (kel_zip). A thread closes its contexts before it ends: one that is left open stays
 * allocated and may not be used any more.
 */
#ifndef KEL_H
#define KEL_H

#include <stddef.h>
#include <stdint.h>

/** A call that the library exports. */
#if defined(__GNUC__)
#define KEL_API __attribute__((visibility("default")))
#else
#define KEL_API
#endif

/** In C++ a compiler warns of an outcome that nobody looks at; (void) in front of the call says that it is meant. */
#if defined(__cplusplus) && __cplusplus >= 201703L
#define KEL_NODISCARD [[nodiscard]]
#else
#define KEL_NODISCARD
#endif

/** Enumerations are 32 bits wide in both languages. */
#ifdef __cplusplus
#define KEL_INT32 : int32_t
extern "C" {
#else
#define KEL_INT32
#endif

/**
 * @defgroup statuses Statuses
 * @{
 */

/** The outcome of a call. */
typedef enum KEL_NODISCARD kel_status KEL_INT32
{
    KEL_SUCCESS = 0,     /**< the request was carried out */
    KEL_EINTERNAL = -1,  /**< the library failed inside, for example at creating its thread-specific key */
    KEL_EINVAL = -2,     /**< an argument failed validation */
    KEL_EPARSE = -3,     /**< a comparison that has no kernel */
    KEL_EDATAFMT = -4,   /**< unusable source data: a zero run or width, a bad codeword */
    KEL_EOVERFLOW = -5,  /**< the output did not fit in the destination */
    KEL_ENOMEM = -6,     /**< an allocation failed */
    KEL_EADI = -7,       /**< not produced */
    KEL_ETHREAD = -8,    /**< a context was used from a thread that does not own it */
    KEL_EBUSY = -9,      /**< not produced */
    KEL_ENOACCESS = -10, /**< not produced */
    KEL_EBADVER = -11,   /**< the interface version is refused */
    KEL_ENODEV = -12,    /**< not produced */
    KEL_ECANCEL = -13,   /**< not produced */
    KEL_EQEMPTY = -14,   /**< the queue holds no request */
    KEL_EQFULL = -15,    /**< the queue has no free slot, or requests are outstanding */
    KEL_ESERIAL = -16,   /**< not produced */
    KEL_ENOMATCH = -17,  /**< no outstanding request has this user datum */
    KEL_EZIP = -18,      /**< a buffer could not be compressed */
    KEL_EPIPE = -19,     /**< not produced */
    KEL_EDATASIZE = -20, /**< a number does not fit in its element (kel_pack.h); of operations only with a
                              destination that validation refuses */
    KEL_ENOTIMPL = -21   /**< not produced */
} kel_status_t;

/** @} */

/**
 * @defgroup request_flags Request flags
 *
 * The second argument of every operation, a 64-bit set. Each operation names the flags that it accepts; another bit
 * is refused with KEL_EINVAL. The synchronisation bits (KEL_SYNC_FLAGS_V1, KEL_SYNC_FLAGS_V2) belong to posted requests
 * and are refused by the synchronous calls.
 * @{
 */

#define KEL_ONES_INDEX UINT64_C(1)    /**< the destination receives the indexes of the matches, not a bit vector */
#define KEL_CACHE UINT64_C(2)         /**< accepted, without effect */
#define KEL_PAD UINT64_C(4)           /**< a narrow element stands at the high end of its destination element */
#define KEL_INVERT UINT64_C(8)        /**< inverts the result */
#define KEL_INVERT_SRC UINT64_C(16)   /**< complements the second source of a logical operation */
#define KEL_NOWAIT UINT64_C(32)       /**< accepted, without effect */
#define KEL_COND UINT64_C(64)         /**< the request depends on its serial predecessor */
#define KEL_SERIAL UINT64_C(128)      /**< the next request depends on this one */
#define KEL_PIPE_SRC UINT64_C(256)    /**< the output feeds the next request's source data; version 2 */
#define KEL_PIPE_AUX UINT64_C(512)    /**< the output feeds the next request's source aux_data; version 2 */
#define KEL_PIPE_MASK UINT64_C(1280)  /**< the output feeds the next request's mask or bitmap; version 2 */
#define KEL_PIPE_FLAGS UINT64_C(1792) /**< legal values of this group: 0, KEL_PIPE_SRC, KEL_PIPE_AUX, KEL_PIPE_MASK */

/** The synchronisation flags of version 1. */
#define KEL_SYNC_FLAGS_V1 (KEL_COND | KEL_SERIAL)
/** The synchronisation flags of version 2. */
#define KEL_SYNC_FLAGS_V2 (KEL_SYNC_FLAGS_V1 | KEL_PIPE_FLAGS)

/** @} */

/**
 * @defgroup vectors Vectors
 *
 * Format bits. At most one of KEL_VAR and KEL_RLE; no KEL_BITS with KEL_VAR; KEL_ADD_ONE only with KEL_VAR or KEL_RLE.
 * A destination is KEL_BYTES or KEL_BITS.
 * @{
 */

#define KEL_BYTES UINT64_C(0)    /**< elements of fixed width; elem_width counts bytes */
#define KEL_BITS UINT64_C(1)     /**< elements of fixed width; elem_width counts bits */
#define KEL_VAR UINT64_C(2)      /**< elements of variable width: aux_data holds their lengths in bytes */
#define KEL_RLE UINT64_C(4)      /**< run-length: aux_data holds a repeat count for each stored element */
#define KEL_ZIP UINT64_C(8)      /**< data holds codewords, which codec expands to the element stream */
#define KEL_ADD_ONE UINT64_C(16) /**< an aux element is one less than the length or count that it stands for */

typedef struct kel_codec kel_zip_t; /**< a dictionary codec */

/** Describes one buffer of elements. All fields are filled in by the caller. */
typedef struct kel_vec {
    uint64_t format;   /**< format bits */
    uint64_t elements; /**< number of elements; with KEL_RLE the number of stored elements, runs not expanded */
    void *data;        /**< the first byte of the stream */
    uint32_t
        elem_width;     /**< width of an element, in bits with KEL_BITS, else in bytes. KEL_VAR does not use it; give 0.
                            Source: 1 to 16 bytes; in bits 1 to 16 (version 1) or 1 to 24 (version 2), or a whole
                            number of bytes. */
    uint8_t offset;     /**< bits to skip at the start of data, 0 to 7; 0 if an element is wider than 8 bytes */
    uint8_t aux_offset; /**< bits to skip at the start of aux_data, 0 to 7 */
    uint16_t aux_width; /**< width of an aux element in bits: 1, 2, 4 or 8 */
    void *aux_data;     /**< the lengths of KEL_VAR or the counts of KEL_RLE, a stream like data */
    kel_zip_t *codec;   /**< the codec of KEL_ZIP; owned by the caller */
    uint64_t codewords; /**< number of codewords in data with KEL_ZIP */
} kel_vec_t;

/** A comparison value of up to 24 bytes, right-aligned. kel_int_create fills one from bytes; a caller may as well fill
 * it by assignment. The width takes part in every comparison (see kel_scan_value), so it is part of the value. */
typedef struct kel_int {
    uint32_t format; /**< KEL_BYTES or KEL_BITS */
    uint32_t
        elem_width;    /**< width of the value, in bits with KEL_BITS, else in bytes; the limits of a source element */
    uint64_t dword[3]; /**< the value, most significant word first: up to 8 bytes stand in dword[2], up to 16 in
                            dword[1] and dword[2]. Bytes above the width are to be zero; KEL_DEBUG_EXTRA tests
                            those in the word that holds the value's first byte. */
} kel_int_t;

/** @} */

/**
 * @defgroup operators Comparison operators
 * @{
 */

/** An operator of a scan. */
typedef enum kel_compare KEL_INT32 {
    /* with one value, for kel_scan_value */
    KEL_EQ = 0,
    KEL_GE = 1,
    KEL_NE = 2,
    KEL_LT = 3,
    KEL_LE = 5,
    KEL_GT = 7,
    /* with two values, for kel_scan_range: (element OP lower) AND or OR (element OP upper) */
    KEL_EQ_OR_EQ = 16,
    KEL_GE_AND_LE = 17,
    KEL_NE_AND_NE = 18,
    KEL_LT_OR_GT = 19,
    KEL_GE_AND_LT = 21,
    KEL_LT_OR_GE = 23,
    KEL_GT_AND_LE = 25,
    KEL_LE_OR_GT = 27,
    KEL_GT_AND_LT = 29,
    KEL_LE_OR_GE = 31
} kel_compare_t;

/** @} */

/**
 * @defgroup results Results
 * @{
 */

/** The outcome of a synchronous operation. */
typedef struct KEL_NODISCARD kel_result {
    kel_status_t status; /**< how it ended */
    uint32_t reserved;   /**< 0 */
    uint64_t count;      /**< the operation's count; after a failure the count as far as the operation came, or 0 */
} kel_result_t;

/** The outcome of a posted request. */
typedef struct kel_completion {
    kel_status_t status; /**< how it ended */
    uint32_t reserved;   /**< 0 */
    uint64_t count;      /**< as in kel_result_t */
    void *udata;         /**< the datum that the request was posted with */
} kel_poll_t;

typedef struct kel_context kel_context_t; /**< an open context; owned by the library */
typedef struct kel_queue kel_queue_t;     /**< a queue of requests; owned by the library */

/** @} */

/**
 * @defgroup logging Logging and debugging
 *
 * A log line has one level, which is one bit of a set of log options.
 * @{
 */

#define KEL_LOG_ERROR 1u   /**< failed validation and other failures */
#define KEL_LOG_ENTRY 2u   /**< the arguments of a call */
#define KEL_LOG_RETURN 4u  /**< the outcome of a call */
#define KEL_LOG_VERBOSE 8u /**< steps within an operation */
#define KEL_LOG_WARN 16u   /**< no message uses this level */
#define KEL_LOG_PERF 32u   /**< facts about cost */
#define KEL_LOG_ALL 64u    /**< in a call that sets options: all of the above */

#define KEL_DEBUG_ARG 1u   /**< validate arguments; the default of a new context */
#define KEL_DEBUG_EXTRA 2u /**< validate what depends on the data, too; costs a pass over it */
#define KEL_DEBUG_SYNC 4u  /**< no effect on a request */
#define KEL_DEBUG_PERF 8u  /**< fire the trace probes */
#define KEL_DEBUG_ALL 16u  /**< in a call that sets options: all of the above */

/** Receives the log lines of a context, on the thread that makes the call. prefix and message live as long as the
 * callback runs; their concatenation is the line that the other channels show. level is one log option bit. */
typedef void (*kel_log_func_t)(kel_context_t *ctx, void *cb_data, uint32_t level, const char *prefix,
                               const char *message);

/** @} */

/**
 * @defgroup requests Description of one request, as trace probes present it
 *
 * Only synchronous executions are presented.
 * @{
 */

/** An operation. */
typedef enum kel_cmd KEL_INT32 {
    KEL_CMD_SCAN_VALUE = 0,
    KEL_CMD_SCAN_RANGE = 1,
    KEL_CMD_TRANSLATE = 2,
    KEL_CMD_SELECT = 3,
    KEL_CMD_EXTRACT = 4,
    KEL_CMD_COPY = 5,
    KEL_CMD_FILL = 6,
    KEL_CMD_AND = 7,
    KEL_CMD_OR = 8,
    KEL_CMD_XOR = 9
} kel_cmd_t;

/** A request: what was asked for, as far as the operation has it. */
typedef struct kel_request {
    uint8_t major;      /**< interface version of the context */
    uint8_t minor;      /**< 0 */
    kel_cmd_t cmd;      /**< the operation; selects the member of arg */
    kel_context_t *ctx; /**< the context */
    kel_queue_t *queue; /**< null */
    uint64_t flags;     /**< request flags */
    kel_vec_t src;      /**< copy of the source, if the operation has one */
    kel_vec_t src2;     /**< copy of the second source */
    kel_vec_t dst;      /**< copy of the destination */
    void *udata;        /**< null */
    union {
        struct {
            kel_compare_t op;
            kel_int_t val;
        } scan_value;
        struct {
            kel_compare_t op;
            kel_int_t lower;
            kel_int_t upper;
        } scan_range;
        struct {
            kel_vec_t mask;
        } select;
        struct {
            kel_vec_t bitmap;
            size_t val_width;
        } translate;
        struct {
            void *src;
            void *dst;
            uint64_t count;
        } copy;
        struct {
            uint64_t val;
            void *dst;
            uint64_t count;
            uint32_t val_width;
        } fill;
    } arg; /**< what else the operation takes, under its name */
} kel_request_t;

/** @} */

/**
 * @defgroup contexts Contexts
 * @{
 */

/** Allocates size bytes, at any alignment; null if it cannot. */
typedef void *(*kel_alloc_t)(uint64_t size, void *cb_data);

/** Releases a block of kel_alloc_t; size is the size that was asked for it. */
typedef void (*kel_free_t)(void *block, uint64_t size, void *cb_data);

/** An allocator, for kel_thread_init with KEL_ALLOC. The library copies the record. The callbacks run on the thread
 * that makes the call and must not fail with anything but null. Contexts that are open on one thread at the same time
 * share a record and must agree on their allocator. */
typedef struct kel_init_options {
    kel_alloc_t alloc_func; /**< takes memory */
    kel_free_t free_func;   /**< gives it back */
    void *cb_data;          /**< handed back to both */
} kel_init_options_t;

/** Option bit of kel_thread_init: take memory from the callbacks of init_options. The bit of value 2 is accepted,
 * without effect. */
#define KEL_ALLOC 1u

/**
 * Opens a context on the calling thread and stores it in *ctx. The interface version is major 1 or 2, minor 1. Version
 * 2 accepts bit-packed source elements of up to 24 bits (version 1: 16), and pipe flags. A thread may hold several
 * contexts, of both versions.
 *
 * init_options is read only with KEL_ALLOC, and then must not be null. The context record itself and the library's copy
 * of init_options come from the system's allocator all the same.
 *
 * KEL_SUCCESS; KEL_EINVAL: an unknown option bit, or a null callback; KEL_EBADVER: a version that does not exist;
 * KEL_ENOMEM; KEL_EINTERNAL: the thread-specific key could not be made or set; 12, a positive number, if the first
 * block that the thread's record needs cannot be had. The reason of a refused argument, and of memory for the context
 * itself, is written to standard error and to the system log. After KEL_EINVAL and KEL_EBADVER *ctx is untouched, after
 * a failure to attach to the thread it is null.
 */
KEL_API kel_status_t kel_thread_init(uint32_t major, uint32_t minor, uint32_t options,
                                     const kel_init_options_t *init_options, kel_context_t **ctx);

/**
 * Closes a context: releases all that it holds. The caller's vectors and buffers are not touched. Two small things stay
 * for the life of the process, which a leak checker tells (functions allocate_context and badval): the library's copy
 * of init_options, and the texts of values without a word that it has had to show.
 *
 * KEL_SUCCESS; KEL_ETHREAD: the calling thread does not own the context, which stays open.
 */
KEL_API kel_status_t kel_thread_fini(kel_context_t *ctx);

/**
 * Stores the major number that the context was opened with in *value.
 *
 * KEL_SUCCESS; KEL_ETHREAD: the calling thread does not own the context; *value is untouched.
 */
KEL_API kel_status_t kel_version(kel_context_t *ctx, uint32_t *value);

/**
 * The limits and capabilities of the command set for the context's interface version, so that a client can size buffers
 * and choose formats. Widths in bytes or bits as the names say, alignments and lengths in bytes. Limits that are called
 * published are the coprocessor's; the library does not test them, and goes beyond.
 */
typedef struct kel_props {
    uint32_t ones_saturates;          /**< published; here an index is not saturated, see kel_scan_value */
    uint32_t max_elem_bits;           /**< widest element that is not a whole number of bytes */
    uint32_t max_elem_bytes;          /**< widest element */
    uint32_t max_log_elem_bytes;      /**< its base-2 logarithm */
    uint32_t max_var_elem_bytes;      /**< longest element of variable width */
    uint32_t max_rle_elem_bits;       /**< widest repeat count */
    uint32_t max_width_elem_bits;     /**< widest length */
    uint32_t max_scan_value_bytes;    /**< widest comparison value */
    uint32_t dst_align;               /**< alignment of a destination */
    uint32_t dst_pad;                 /**< unit of what is written to a destination, and the room behind its end */
    uint32_t trans_bitmap_align;      /**< alignment of a translate bitmap */
    uint32_t zip_align;               /**< alignment of a codec image */
    uint32_t large_elem_align;        /**< alignment of wide elements */
    uint32_t zip_constrained;         /**< 1: dictionaries obey the row rule */
    uint32_t zip_native;              /**< 1: codecs have the native form */
    uint32_t max_native_bitmap;       /**< published limit of a translate bitmap, in elements */
    uint32_t max_zip_symbols;         /**< most symbols of a codec */
    uint64_t max_src_len;             /**< published limit of a source */
    uint64_t max_dst_len;             /**< published limit of a destination */
    uint64_t debug_options;           /**< the debug options that exist */
    uint64_t log_options;             /**< the log levels that exist */
    uint32_t max_zip_contig;          /**< largest contiguous codec image */
    uint32_t trans_bitmap_align_best; /**< alignment of a translate bitmap for best speed */
    uint32_t zip_align_best;          /**< alignment of a codec image for best speed */
    uint32_t pipe;                    /**< 1: the pipe flags exist */
} kel_props_t;

/** Fills *props. KEL_SUCCESS; KEL_ETHREAD: *props is untouched. */
KEL_API kel_status_t kel_get_props(kel_context_t *ctx, kel_props_t *props);

/** @} */

/**
 * @defgroup options Log and debug options
 *
 * A context has two log channels. The environment's has levels of its own and is set once, when the context opens:
 * KEL_LOG_OPTIONS lists levels, separated by commas ("error", "warn", "entry", "return", "verbose", "perf", "all");
 * KEL_LOG_FD is the number of an open file descriptor, without which the lines go to the system log. The client's
 * channel is set by the calls below, each of which replaces the one before: its lines go to the system log, to a
 * descriptor, or to a callback; it gets the levels that the call names and the environment's, but no line that the
 * environment's channel has just written to the same target.
 *
 * KEL_DEBUG_OPTIONS lists debug options ("arg", "extra", "sync", "perf", "all"). Not set, it stands for "arg"; empty,
 * it switches validation off. An unknown word of KEL_LOG_OPTIONS, and a KEL_LOG_FD that is not a number, are told on
 * standard error and in the system log, up to 200 bytes of them; the good words hold, but without a descriptor that is
 * open their lines go nowhere. An unknown word of KEL_DEBUG_OPTIONS switches validation off, which only a log line
 * tells. The tid of a line is the calling thread's pthread_self() as an int. A program that runs with more rights than
 * who started it (set-uid)
 * does not look at the environment.
 *
 * options is a set of KEL_LOG_ bits. KEL_SUCCESS; KEL_EINVAL: a bit that does not exist, or a negative descriptor;
 * KEL_ETHREAD. After a failure nothing is changed.
 * @{
 */

/** To the system log. */
KEL_API kel_status_t kel_set_log(kel_context_t *ctx, uint64_t options);

/**
 * To an open descriptor, which stays the caller's and is to stay open. Lines are written at once: a pipe that is full
 * holds the call, and one without a reader raises SIGPIPE, which ends a program that does not ignore it. The same holds
 * for KEL_LOG_FD.
 */
KEL_API kel_status_t kel_set_log_file(kel_context_t *ctx, uint64_t options, int fd);

/** To a callback; a null one drops the lines. */
KEL_API kel_status_t kel_set_log_callback(kel_context_t *ctx, uint64_t options, kel_log_func_t cb, void *cb_data);

/**
 * Sets the debug options, a set of KEL_DEBUG_ bits. With 0 nothing is tested any more, the calling thread included.
 *
 * KEL_SUCCESS; KEL_EINVAL: a bit that does not exist; KEL_EQFULL: KEL_DEBUG_SYNC is switched on while a queue of the
 * context holds requests; KEL_ETHREAD. After a failure nothing is changed.
 */
KEL_API kel_status_t kel_set_debug(kel_context_t *ctx, uint64_t options);

/** @} */

/**
 * @defgroup queues Queues
 *
 * A queue takes a series of requests and hands back their outcomes in the order of posting. Every operation has a form
 * with _post, which takes a queue in the place of the context, the same arguments, and a datum of the caller's. The
 * operation runs to its end before the call returns, whose status tells only whether the request was taken: the outcome
 * waits for kel_poll. Vectors are not kept; the buffers that they name are used during the call alone.
 *
 * Chains. KEL_SERIAL says that the next request depends on this one, KEL_COND that this one depends on the one before:
 * a KEL_SERIAL request must be followed by a KEL_COND one, and the latter must follow either. A pipe flag says that
 * this request's output is an input of the next one, which must then name the same buffer. The rules are tested
 * (KEL_DEBUG_ARG) so that a chain is well-formed for a coprocessor; they change nothing in the execution, and a request
 * runs even if the one before it failed. One trap: a queue whose last slot has been used, and which still holds
 * outcomes, moves them to its front, and loses track of its last KEL_SERIAL and KEL_COND: the next post can then be
 * refused, or let through, in error. Who posts a chain polls the queue empty before it, and takes one that holds it all.
 *
 * Of every posted operation: KEL_SUCCESS: taken; KEL_EQFULL: no free slot; KEL_EINVAL, KEL_ETHREAD: refused by
 * validation, and not run. kel_nop_post alone is not refused from a thread that does not own the context.
 * @{
 */

/**
 * Creates a queue for qlen requests that are posted and not yet polled. It belongs to the context, whose end it does
 * not outlive. KEL_SUCCESS; KEL_EINVAL: qlen is not positive, or the context is being closed; KEL_ENOMEM; KEL_ETHREAD.
 * After a failure *queue is untouched.
 */
KEL_API kel_status_t kel_queue_create(kel_context_t *ctx, int qlen, kel_queue_t **queue);

/** Destroys a queue, with the outcomes that it still holds. KEL_SUCCESS; KEL_ETHREAD: the queue stays. */
KEL_API kel_status_t kel_queue_destroy(kel_queue_t *queue);

/**
 * Hands back up to nres outcomes, oldest first; a negative nres means no limit. Never waits: timeout is not read.
 *
 * The number of outcomes; KEL_EQEMPTY: there is none; KEL_EINVAL: results is null; KEL_ETHREAD.
 */
KEL_NODISCARD KEL_API int kel_poll(kel_queue_t *queue, kel_poll_t *results, int nres, int64_t timeout);

/**
 * Looks for a request with this datum. As every request has run when its post returns, nothing is cancelled: it is
 * polled as before. KEL_SUCCESS: there is one; KEL_ENOMATCH; KEL_ETHREAD.
 */
KEL_API kel_status_t kel_cancel(kel_queue_t *queue, void *udata);

/** The same for all requests. KEL_SUCCESS; KEL_EQEMPTY: there is none; KEL_ETHREAD. */
KEL_API kel_status_t kel_cancel_all(kel_queue_t *queue);

/** @} */

/**
 * @defgroup operations Operations
 *
 * Of every operation: KEL_EINVAL if an argument failed validation, KEL_ETHREAD if validation found that the calling
 * thread does not own the context; in both cases nothing was written and count is 0. The same holds for a KEL_ZIP
 * source that cannot be expanded (KEL_ENOMEM, KEL_EDATAFMT; see Codecs below). kel_nop is not refused from another
 * thread.
 * @{
 */

/** Does nothing. Accepts no flags. {KEL_SUCCESS, 0, 0}. */
KEL_API kel_result_t kel_nop(kel_context_t *ctx, uint64_t flags);

/** Posts a request that does nothing. Accepts the synchronisation flags; cannot follow a request with a pipe flag. */
KEL_API kel_status_t kel_nop_post(kel_queue_t *queue, uint64_t flags, void *udata);

/**
 * Builds a comparison value of len bytes from the big-endian byte string at buf. Sets format, elem_width and dword[2],
 * and dword[1] if len is above 8. The other words are left alone, so a caller's record starts zeroed.
 *
 * KEL_SUCCESS; KEL_EINVAL: len is not 1 to 16; KEL_ETHREAD. After a failure *val is untouched.
 */
KEL_API kel_status_t kel_int_create(kel_context_t *ctx, const void *buf, size_t len, kel_int_t *val);

/**
 * Compares every element of src with val and writes the outcome to dst: one bit for each element, 1 for a match, or
 * with KEL_ONES_INDEX the ascending list of the indexes of the matches, counted from 0. With KEL_RLE an element counts
 * as often as its run says. count is the number of matches.
 *
 * src: any format. dst: without KEL_ONES_INDEX elem_width 1 with KEL_BITS; with it 2 or 4 bytes, and a match index that
 * does not fit in an entry spoils the entries before it. offset 0, data a multiple of 64, dst->elements at least
 * src->elements; for KEL_RLE the caller makes room for the expanded runs, of which KEL_DEBUG_EXTRA tests the sum.
 * Source and destination must not overlap (tested by KEL_DEBUG_EXTRA).
 * flags: KEL_ONES_INDEX, KEL_CACHE, KEL_NOWAIT. op: one of the operators with one value.
 *
 * Elements and values are compared as left-aligned byte strings: both are rounded up to whole bytes, the longer one is
 * cut to the length of the shorter, they are compared as unsigned numbers, and of two that are equal so far the shorter
 * is the lesser. So values are best given in the width of the elements.
 *
 * KEL_SUCCESS; KEL_EINVAL; KEL_ETHREAD; KEL_EDATAFMT: a run or a width of 0; KEL_EOVERFLOW: the destination is full;
 * KEL_EPARSE: an operator without kernel (validation off). After KEL_EDATAFMT and KEL_EOVERFLOW dst holds the outcome
 * of the elements before the failing one, padded unless a run went past the nominal end, and count their matches. An
 * operator that no enumerator names is refused, acts as another, or ends the program.
 */
KEL_API kel_result_t kel_scan_value(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                    kel_compare_t op, const kel_int_t *val);

/**
 * As kel_scan_value, with two values: an element is compared with lower by the first operator of op, with upper by the
 * second, and matches if both hold (AND) or one does (OR). lower need not be below upper, and the two may differ in
 * width.
 */
KEL_API kel_result_t kel_scan_range(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                    kel_compare_t op, const kel_int_t *lower, const kel_int_t *upper);

/** @{ */
/** The posted scans. They may follow a request with KEL_PIPE_SRC or KEL_PIPE_AUX; their output is dst->data. */
KEL_API kel_status_t kel_scan_value_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                         kel_compare_t op, const kel_int_t *val, void *udata);
KEL_API kel_status_t kel_scan_range_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                         kel_compare_t op, const kel_int_t *lower, const kel_int_t *upper, void *udata);
/** @} */

/**
 * Copies the elements of src whose bit in mask is 1 to dst, one behind the other. count is the number of elements
 * written.
 *
 * src: KEL_BYTES or KEL_BITS, also with KEL_ZIP. mask: a bit vector (KEL_BITS, elem_width 1, offset 0 to 7) with at
 * least as many elements as src, such as a scan writes. dst: KEL_BYTES or KEL_BITS, elements of 1, 2, 4, 8 or 16 bytes,
 * offset 0, data a multiple of 64, with room for the selected elements (tested by KEL_DEBUG_EXTRA). dst must overlap
 * neither of the others (tested by KEL_DEBUG_EXTRA).
 * flags: KEL_PAD, KEL_CACHE, KEL_NOWAIT.
 *
 * An element is rounded up to whole bytes and adapted to the width of dst: a narrower one is written with zero bytes
 * before it, or with KEL_PAD behind it; of a wider one the first bytes are kept.
 *
 * The destination is full with its last padded unit of 64 bytes: count may pass dst->elements by what that unit holds,
 * and by one.
 *
 * KEL_SUCCESS; KEL_EINVAL; KEL_ETHREAD; KEL_EOVERFLOW: the destination is full. After KEL_EOVERFLOW dst holds the
 * elements before the failing one, and count their number.
 */
KEL_API kel_result_t kel_select(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                const kel_vec_t *mask);

/**
 * Writes every element of src to dst as a plain vector of elements of fixed width: runs are expanded, and elements are
 * adapted as kel_select does it, those of variable width included. count is 0, always: with KEL_RLE the caller knows
 * the number of elements as the sum of the runs.
 *
 * src: any format. dst: as that of kel_select, with at least src->elements elements; for KEL_RLE the caller makes room
 * for the expanded runs, of which KEL_DEBUG_EXTRA tests the sum. dst must not overlap src (tested by KEL_DEBUG_EXTRA).
 * flags: KEL_PAD, KEL_CACHE, KEL_NOWAIT.
 *
 * KEL_SUCCESS; KEL_EINVAL; KEL_ETHREAD; KEL_EDATAFMT: a run or a width of 0; KEL_EOVERFLOW: the destination is full.
 * After KEL_EDATAFMT and KEL_EOVERFLOW dst holds the elements before the failing one.
 */
KEL_API kel_result_t kel_extract(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst);

/**
 * Looks every element of src up in a bitmap and writes the outcome as kel_scan_value does: a bit for each element, or
 * with KEL_ONES_INDEX the list of the indexes of those whose bit is 1. Element e selects bit e of the bitmap, counted
 * in stream order: bit 0 is the most significant bit of its first byte. KEL_INVERT inverts the bit looked up. count is
 * the number of ones.
 *
 * src: KEL_BYTES, KEL_BITS or KEL_RLE, elements of 1 to 16 (version 1) or 1 to 24 (version 2) bits, or 1 to 3 bytes.
 * dst: as that of kel_scan_value. bitmap: KEL_BITS, elem_width 1, offset 0, data a multiple of 64 (version 1) or 16
 * (version 2), up to 2 to the 24th elements. val_width: the low bits of an element that make up its value, at most the
 * element's width; the lookup uses the whole element. KEL_DEBUG_EXTRA tests that val_width is not 0, that the bits
 * above it are zero, that every value lies in the bitmap, and that dst overlaps neither of the others; without it an
 * element past the bitmap reads what lies there. Those tests of elements take their number in 32 bits: of 2 to the 32nd
 * elements they look at none, of one more at the first. Of the bitmap the aligned 4 bytes around the bit of each
 * element are read, and its first 4; for elements of up to 8 bits all bytes that such elements can select a bit of.
 * flags: KEL_ONES_INDEX, KEL_INVERT, KEL_CACHE, KEL_NOWAIT.
 *
 * KEL_SUCCESS; KEL_EINVAL; KEL_ETHREAD; KEL_EDATAFMT: a run of 0; KEL_EOVERFLOW: the destination is full. After the
 * latter two dst and count are as after a failed kel_scan_value.
 */
KEL_API kel_result_t kel_translate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                   const kel_vec_t *bitmap, uint32_t val_width);

/** @{ */
/**
 * Combine two bit vectors into a third. KEL_INVERT_SRC complements src2 first, KEL_INVERT the result. count is the
 * number of ones in the result.
 *
 * src1, src2: KEL_BITS, elem_width 1, offset 0 to 7, the same number of elements. They are read in aligned 8-byte words
 * and up to 2 bytes behind the byte that holds the last element, which must be readable. dst: KEL_BITS, elem_width 1,
 * offset 0, data a multiple of 64, at least as many elements. Neither source may overlap dst (tested by
 * KEL_DEBUG_EXTRA). Unlike those of other operations, the result is not padded: exactly src1->elements bits of dst are
 * written.
 *
 * Beware: here an offset counts from the least significant bit of a byte, so that bit vectors with an offset are read
 * in another order than elsewhere; and if both offsets are non-zero, the last, partial byte of the result is formed one
 * source byte further on than its predecessors. Give sources with offset 0, wherever they start.
 * flags: KEL_INVERT, KEL_INVERT_SRC, KEL_CACHE.
 *
 * KEL_SUCCESS; KEL_EINVAL; KEL_ETHREAD.
 */
KEL_API kel_result_t kel_and(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                             const kel_vec_t *dst);
KEL_API kel_result_t kel_or(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                            const kel_vec_t *dst);
KEL_API kel_result_t kel_xor(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                             const kel_vec_t *dst);
/** @} */

/**
 * Copies count bytes from src to dst, at any addresses; nothing else is written. count of the result is 0. The two must
 * not overlap (tested by KEL_DEBUG_EXTRA). flags: KEL_CACHE, KEL_NOWAIT.
 *
 * KEL_SUCCESS; KEL_EINVAL; KEL_ETHREAD.
 */
KEL_API kel_result_t kel_copy(kel_context_t *ctx, uint64_t flags, const void *src, void *dst, uint64_t count);

/**
 * Writes count values of val_width bytes (1, 2, 4 or 8) to dst, at any address: the low bytes of val, big-endian. With
 * a val_width of 4, bits of val above 32 spoil every second value. Nothing else is written; count of the result is 0.
 * flags: KEL_CACHE, KEL_NOWAIT.
 *
 * Validation looks at the low 8 bits of val_width alone: 257 passes, and fills 257 bytes of val for each value.
 * KEL_SUCCESS; KEL_EINVAL; KEL_ETHREAD.
 */
KEL_API kel_result_t kel_fill(kel_context_t *ctx, uint64_t flags, uint64_t val, void *dst, uint64_t count,
                              uint32_t val_width);

/** @{ */
/**
 * The posted forms. After a request with a pipe flag may follow: a scan, an extract, a translate after KEL_PIPE_SRC or
 * KEL_PIPE_AUX; a select after KEL_PIPE_SRC or KEL_PIPE_MASK; a copy after KEL_PIPE_SRC; none of the others. Their
 * output is dst->data, or dst.
 */
KEL_API kel_status_t kel_select_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                     const kel_vec_t *mask, void *udata);
KEL_API kel_status_t kel_extract_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                      void *udata);
KEL_API kel_status_t kel_translate_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                                        const kel_vec_t *bitmap, uint32_t val_width, void *udata);
KEL_API kel_status_t kel_and_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                                  const kel_vec_t *dst, void *udata);
KEL_API kel_status_t kel_or_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                                 const kel_vec_t *dst, void *udata);
KEL_API kel_status_t kel_xor_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                                  const kel_vec_t *dst, void *udata);
KEL_API kel_status_t kel_copy_post(kel_queue_t *queue, uint64_t flags, const void *src, void *dst, uint64_t count,
                                   void *udata);
KEL_API kel_status_t kel_fill_post(kel_queue_t *queue, uint64_t flags, uint64_t val, void *dst, uint64_t count,
                                   uint32_t val_width, void *udata);
/** @} */

/** @} */

/**
 * @defgroup codecs Codecs
 *
 * A codec is a dictionary: it maps a codeword, which is an index, to a symbol of 1 to 8 bytes. A vector with KEL_ZIP
 * has in data a stream of codewords, most significant bit first, and names the codec; its other fields describe the
 * decoded elements, but for offset, which is where the first codeword starts. The codewords' symbols, one behind the
 * other, are the elements' stream; a symbol may end anywhere in an element. A codeword has as many bits as the highest
 * one needs: 10 for 513 to 1024 symbols, none for one symbol. Every operation with a source (scan, select, extract;
 * translate with validation off) takes such a vector: the library expands it into memory of its own, taken from the
 * context's allocator and given back before the call returns, and goes on as with a plain one. The operation returns
 * KEL_ENOMEM if that memory cannot be had, KEL_EDATAFMT if the stream cannot be expanded, with nothing written.
 *
 * What is guaranteed of a stream that is damaged or hostile, even with validation off: the library reads it in aligned
 * 8-byte words up to the end of the word that holds the last bit of codeword number codewords (of vec->codewords), or,
 * if that field is 0, of as many codewords as there are decoded bytes, and not behind; it reads symbols inside the
 * codec's image (dict_sz bytes as they were at creation), and writes inside its own memory. A stream that ends before
 * the decoded length is reached is KEL_EDATAFMT. A codeword that the dictionary does not have, or one with a symbol
 * length of 0 or above 8, is KEL_EDATAFMT under KEL_DEBUG_EXTRA, which also tells it in the log; without it such a
 * codeword stands for nothing, one with a length of 9 to 15 for its last 8 bytes behind zeros, and the decoded data is
 * wrong. A codec of more than 1024 symbols, which validation refuses, cannot be decoded (KEL_EDATAFMT). Codewords of 0
 * bits, those of a codec with one symbol, are decoded while bits 32 to 63 behind the start of the stream are zero: such
 * a stream is 8 zero bytes.
 *
 * A codec is not changed between its creation and its release, which are made with one context. It belongs to the
 * caller, and is to outlive the vectors that name it.
 *
 * The image, which clients store: the number of symbols (1 to 1024) in 2 bytes, big-endian; a length of 4 bits for each
 * symbol, the first in the high half of its byte, a last unused half 0; the symbols, one behind the other. At most 4098
 * bytes (version 1) or 8192 (version 2). In version 1 the symbols of the codewords that have their low 8 bits in common
 * may have 14 bytes together.
 * @{
 */

/**
 * Creates a codec from nsyms lengths (of 4 bits, as in an image) and symbols, which are copied.
 *
 * KEL_SUCCESS; KEL_EINVAL: nsyms is not 1 to 1024, an unused half of the last length is not 0, the calling thread does
 * not own the context, or, under KEL_DEBUG_EXTRA and in version 1, more than 14 bytes with common low bits; *codec is
 * untouched then, but null if only creation, with validation off, found no symbols or an image above 65535 bytes;
 * KEL_ENOMEM: *codec is null. Lengths are not tested.
 */
KEL_API kel_status_t kel_zip_create(kel_context_t *ctx, uint16_t nsyms, const uint8_t *widths, const uint8_t *syms,
                                    kel_zip_t **codec);

/**
 * Creates a codec from an image of length bytes at a multiple of 16. In version 2 the codec uses the image where it is,
 * and the caller keeps it for the life of the codec, unless it crosses a multiple of 8192: then, and always in version
 * 1, it is copied. KEL_DEBUG_EXTRA tests the lengths, their sum against length, and in version 1 the rule of 14 bytes.
 * Without KEL_DEBUG_EXTRA version 1 trusts the lengths, and reads behind length bytes if they say so: switch it on for
 * images that come from elsewhere.
 *
 * KEL_SUCCESS; KEL_EINVAL: as the tests say, or the thread does not own the context; KEL_ENOMEM. After a failure *codec
 * is null.
 */
KEL_API kel_status_t kel_zip_create_contig(kel_context_t *ctx, const void *buf, size_t length, kel_zip_t **codec);

/**
 * Copies the image to buf, of which *buflen is the capacity. *buflen becomes the length of the image.
 *
 * KEL_SUCCESS; KEL_EOVERFLOW: nothing is copied; KEL_EINVAL: the thread does not own the context, *buflen is untouched.
 */
KEL_API kel_status_t kel_zip_get_contig(kel_context_t *ctx, const kel_zip_t *codec, void *buf, size_t *buflen);

/**
 * Trains a codec on the elements of src, and compresses them with it: buf receives the stream of codewords for a
 * KEL_ZIP vector that is otherwise like src, but for offset (0), codec (*codec) and codewords (count). *buflen is the
 * capacity of buf in bytes, and becomes the stream's length, which may leave out a last, partial byte, and may come out
 * one above the capacity: buf is to have two bytes behind its capacity, and a stream is stored with one byte behind its
 * length. buf is cleared first, as far as its capacity, also by calls that fail later. Equal sources give equal codecs
 * and streams. Takes about 4 MB of temporary memory from the context's allocator.
 *
 * options: 0, or 1 for thorough training, which parses the whole source several times; either may do better. 0 cannot
 * compress sources below 20,000 bytes. src: any format but KEL_ZIP, in bytes from the start of data, offset 0. The
 * codec fits both versions. The caller releases it by kel_zip_free.
 *
 * KEL_SUCCESS; KEL_EINVAL: as validation says, or a KEL_VAR source without a byte: *codec is untouched; KEL_EZIP: the
 * source is not compressible (so is one of 8 bytes or less; *codec is null), or stream and codec together are larger
 * than it (*buflen is the stream's length): there is no codec, whatever *codec says; KEL_EOVERFLOW: buf is too small,
 * *buflen is the stream's length, and a capacity of one byte more is sure to suffice; the codec has been made all the
 * same, and is the caller's; KEL_ENOMEM: *codec is null. Otherwise *buflen stays after a failure. count is the number
 * of codewords, 0 after a failure. Training resets the process's random sequence (srand48): threads that train at the
 * same time disturb one another's choice of samples, and may get other codecs, as good ones.
 */
KEL_API kel_result_t kel_zip(kel_context_t *ctx, uint64_t options, const kel_vec_t *src, void *buf, size_t *buflen,
                             kel_zip_t **codec);

/**
 * Compresses the elements of src with a codec that there is already, by the longest symbol at each place. A KEL_VAR
 * source must declare the sum of its lengths as elements, and 1 as elem_width: as bytes it has elements times
 * elem_width, whatever its lengths say. buf, *buflen, count and temporary memory as above.
 *
 * KEL_SUCCESS; KEL_EINVAL: as validation says; KEL_EDATAFMT: the codec has more than 1024 symbols, or symbols behind
 * its image; KEL_EZIP: at some place no symbol goes on with the source, or there is no byte to encode, or stream and
 * codec together are larger than the source (*buflen is the stream's length then); KEL_EOVERFLOW: buf is too small,
 * *buflen as above; KEL_ENOMEM.
 */
KEL_API kel_result_t kel_encode(kel_context_t *ctx, const kel_vec_t *src, void *buf, size_t *buflen,
                                const kel_zip_t *codec);

/**
 * Releases a codec, which must not be null, with the image if it is the codec's own.
 *
 * KEL_SUCCESS; KEL_EINVAL: the codec is null; KEL_ETHREAD: the codec stays.
 */
KEL_API kel_status_t kel_zip_free(kel_context_t *ctx, kel_zip_t *codec);

/** @} */

/**
 * @defgroup blocks Raw command blocks
 * @{
 */

/** A command block of the coprocessor. */
typedef struct kel_block {
    uint64_t dwords[8]; /**< header, control, and addresses */
} ccb_t;

/** How much of a submission was taken, and why and where it stopped. */
typedef struct kel_submit_res {
    uint16_t dsr_submitted_ccb_len; /**< bytes of blocks that were taken */
    uint16_t dsr_submitted_ca_off;  /**< offset of a completion area */
    uint32_t dsr_err_ext;           /**< reason of a refusal */
    uint64_t dsr_err_va;            /**< address that it is about */
} kel_submit_res_t;

/** Would hand blocks to a coprocessor, of which there is none: returns -1, always, and looks at no argument. */
KEL_API int kel_submit(ccb_t *blocks, size_t length, unsigned int flags, kel_submit_res_t *result);

/** @} */

#undef KEL_INT32

#ifdef __cplusplus
}
#endif

#endif
