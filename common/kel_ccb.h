// Command blocks and completion areas of the coprocessor, and the records of its driver's interface.
//
// No request becomes a command block here: the types keep the formats in one place, for a path to the hardware and for
// whoever receives blocks. Bit-fields stand in the order of the bits, the first in the lowest bits of its word.
#pragma once

#include "kel.h"
#include <cstddef>

// Word 0 of every block.
typedef struct {
    uint32_t ccb_version : 4; // format of the block
    uint32_t pipe : 1;        // pipelined into the next block
    uint32_t longccb : 1;     // the block is 128 bytes long
    uint32_t cond : 1;        // conditional on the predecessor
    uint32_t serial : 1;      // serialised with the successor
    uint32_t opcode : 8;
    uint32_t reserved : 3;
    uint32_t table_addr_type : 2; // address types: of the table,
    uint32_t out_addr_type : 3;   // of out,
    uint32_t sec_addr_type : 3;   // of sec,
    uint32_t pri_addr_type : 3;   // of pri,
    uint32_t cca_addr_type : 2;   // and of ca
} kel_header_t;

// The same word in a second naming.
typedef struct {
    uint32_t ccb_ver : 4;
    uint32_t sync_flags : 4;
    uint32_t opcode : 8;
    uint32_t rsvd : 3;
    uint32_t at_tbl : 2;
    uint32_t at_dst : 3;
    uint32_t at_src1 : 3;
    uint32_t at_src0 : 3;
    uint32_t rsvd2 : 2;
} ccb_hdr_t;

// The bits that all control words but that of a nop begin with: formats, element sizes and bit offsets of the inputs
// and the output.
#define KEL_CONTROL_FIELDS                                                                                             \
    uint32_t pri_fmt : 4;                                                                                              \
    uint32_t pri_elem_size : 5;                                                                                        \
    uint32_t pri_offset : 3;                                                                                           \
    uint32_t sec_encoding : 1;                                                                                         \
    uint32_t sec_offset : 3;                                                                                           \
    uint32_t sec_elem_size : 2;                                                                                        \
    uint32_t out_fmt : 2;                                                                                              \
    uint32_t out_elem_size : 2

typedef struct {
    KEL_CONTROL_FIELDS;
    uint32_t misc : 10; // by command
} kel_control_t;

typedef struct {
    KEL_CONTROL_FIELDS;
    uint32_t u_size : 5; // bytes of the upper value less 1; kel_lu_unused: there is none
    uint32_t l_size : 5; // bytes of the lower value less 1
} kel_scan_control_t;

inline constexpr uint32_t kel_lu_unused = 31;

typedef struct {
    KEL_CONTROL_FIELDS;
    uint32_t unused : 1;
    uint32_t test_value : 9;
} kel_translate_control_t;

typedef struct {
    KEL_CONTROL_FIELDS;
    uint32_t pad_dir : 1;
    uint32_t unused : 9;
} kel_select_control_t;

typedef kel_select_control_t kel_extract_control_t;

#undef KEL_CONTROL_FIELDS

typedef struct {
    uint32_t ext_opcode : 1;
    uint32_t unused : 31;
} kel_nop_control_t;

typedef struct {
    uint64_t flow_ctrl : 2;
    uint64_t pipe_target : 2;
    uint64_t out_buf_size : 20;
    uint64_t unused1 : 8;
    uint64_t out_alloc : 5;
    uint64_t unused2 : 1;
    uint64_t pri_len_fmt : 2; // unit of pri_len
    uint64_t pri_len : 24;
} kel_data_access_t;

// A block of 64 bytes by its control word and the name of its last pointer.
#define KEL_CCB(name, control, table)                                                                                  \
    typedef struct {                                                                                                   \
        kel_header_t hdr;                                                                                              \
        control ctrl;                                                                                                  \
        void *ca;  /* completion area */                                                                               \
        void *pri; /* primary input */                                                                                 \
        kel_data_access_t dac;                                                                                         \
        void *sec;       /* secondary input */                                                                         \
        uint64_t dword5; /* by command */                                                                              \
        void *out;                                                                                                     \
        void *table;                                                                                                   \
    } name;                                                                                                            \
    static_assert(sizeof(name) == 64 && offsetof(name, dac) == 24 && offsetof(name, table) == 56)

KEL_CCB(kel_ccb_t, kel_control_t, huff_or_bitmap);
KEL_CCB(kel_translate_ccb_t, kel_translate_control_t, bitmap);
KEL_CCB(kel_select_ccb_t, kel_select_control_t, huff);
KEL_CCB(kel_extract_ccb_t, kel_extract_control_t, huff);

#undef KEL_CCB

typedef struct {
    kel_header_t hdr;
    kel_nop_control_t ctrl;
    void *ca;
    uint64_t unused[6];
} kel_sync_ccb_t;

typedef kel_sync_ccb_t kel_nop_ccb_t;

// Four bytes of each of the two values of a scan.
typedef struct {
    uint32_t upper;
    uint32_t lower;
} kel_lu_t;

// A scan takes a long block; lu1 to lu4 hold the values, left-justified.
typedef struct {
    kel_header_t hdr;
    kel_scan_control_t ctrl;
    void *ca;
    void *pri;
    kel_data_access_t dac;
    void *sec;
    kel_lu_t lu1;
    void *out;
    void *huff;
    kel_lu_t lu2;
    kel_lu_t lu3;
    kel_lu_t lu4;
    uint64_t unused[5];
} kel_scan_ccb_t;

// What a command leaves in its completion area.
typedef struct {
    uint8_t status;
    uint8_t err;
    uint16_t rsvd;
    uint32_t n_remaining;
    uint32_t output_sz;
    uint32_t rsvd2;
    uint64_t run_cycles;
    uint64_t run_stats;
    uint32_t n_processed;
    uint32_t rsvd3[5];
    uint64_t retval;
    uint64_t rsvd4[8];
} kel_cca_t;

// The same area in a second naming.
typedef struct {
    volatile uint8_t cmd_status;
    uint8_t err_mask;
    uint16_t rsvd;
    uint32_t err_vals;
    uint32_t output_sz;
    uint32_t rsvd2;
    uint64_t run_time;
    uint64_t run_stats;
    uint32_t n_processed;
    uint32_t rsvd3[5];
    uint64_t command_rv;
    uint64_t rsvd4[8];
} ccb_completion_area_t;

static_assert(sizeof(kel_header_t) == 4 && sizeof(ccb_hdr_t) == 4 && sizeof(kel_control_t) == 4);
static_assert(sizeof(kel_scan_control_t) == 4 && sizeof(kel_translate_control_t) == 4);
static_assert(sizeof(kel_select_control_t) == 4 && sizeof(kel_nop_control_t) == 4 && sizeof(kel_data_access_t) == 8);
static_assert(sizeof(kel_sync_ccb_t) == 64 && offsetof(kel_sync_ccb_t, unused) == 16);
static_assert(sizeof(kel_scan_ccb_t) == 128 && offsetof(kel_scan_ccb_t, lu1) == 40);
static_assert(offsetof(kel_scan_ccb_t, lu2) == 64 && offsetof(kel_scan_ccb_t, unused) == 88);
static_assert(sizeof(kel_cca_t) == 128 && offsetof(kel_cca_t, n_processed) == 32 && offsetof(kel_cca_t, retval) == 56);
static_assert(sizeof(ccb_completion_area_t) == 128 && offsetof(ccb_completion_area_t, command_rv) == 56);

// ---- Records of the driver's interface ------------------------------------------------------------------------------

typedef struct {
    uint64_t dcti_ccb_buf_maxlen; // size of the block buffer
    uint64_t dcti_compl_maplen;   // length and offset of the mapping of completion areas
    uint64_t dcti_compl_mapoff;
} kel_ccb_thr_init_arg_t;

typedef struct {
    uint32_t dcd_len_requested;
    alignas(8) uint64_t dcd_len_dequeued;
} kel_ca_dequeue_arg_t;

typedef struct {
    uint16_t kel_ca_offset;
    uint16_t kel_ccb_state;
    uint16_t kel_inst_num;
    uint16_t kel_q_num;
    uint16_t kel_q_pos;
} kel_ccb_info_arg_t;

typedef struct {
    uint16_t kel_ca_offset;
    uint16_t kel_kill_res;
} kel_ccb_kill_arg;

typedef struct {
    uint64_t kel_version;
    uint64_t kel_enabled;
    uint64_t kel_disabled;
} kel_info_arg;

static_assert(sizeof(kel_submit_res_t) == 16 && sizeof(kel_ca_dequeue_arg_t) == 16 && sizeof(kel_ccb_info_arg_t) == 10);

// The text of a kel_kill_res.
const char *kel_kill_status_str(uint16_t result);

// ---- Conversions of a scan's block ----------------------------------------------------------------------------------

// The operator of a block: an opcode of 2 tests for equality, one of 3 for order, 16 more inverts the test.
kel_compare_t ccb_to_scan_op(const kel_scan_ccb_t *ccb);

// The values of a block, right-aligned: that of a value scan, which may stand in either place, and those of a range
// scan. dword[0], and dword[1] of a value of up to 8 bytes, are left alone.
void ccb_to_scan_value(const kel_scan_ccb_t *ccb, kel_int_t *val);
void ccb_to_scan_lower(const kel_scan_ccb_t *ccb, kel_int_t *lower);
void ccb_to_scan_upper(const kel_scan_ccb_t *ccb, kel_int_t *upper);

// Right-aligns len bytes (1 to 16) that stand left-justified in four words.
void lu_to_dword(uint64_t *dword, unsigned len, uint32_t a, uint32_t b, uint32_t c, uint32_t d);
