// Counters, timers and trace probes; and the coprocessor's command records.
#include "kel_ccb.h"
#include "kel_frame.h"
#include "support.h"
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <elf.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <link.h>
#include <map>
#include <sstream>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

namespace
{

std::vector<std::string> system_log;

template <class... Word>
std::vector<uint64_t> words(Word... word)
{
    return {uint64_t{word}...};
}

std::vector<uint64_t> fields(const kel_perf_event_t &e)
{
    return words(e.frequency, e.cycles, e.page, e.emulate, e.nomap, e.copy, e.retry, e.split, e.unzip);
}

constexpr kel_perf_event_t dirty = {1, 2, 3, 4, 5, 6, 7, 8, 9};
const std::vector<uint64_t> reset_fields = {1, 0, 0, 0, 0, 0, 0, 0, 0};

// A scan of four bytes for a value or two. Lives as long as its vectors are used.
struct small_scan {
    alignas(64) uint8_t in[64] = {5, 7, 5, 9};
    alignas(64) uint8_t out[128] = {};
    kel_vec_t src = {KEL_BYTES, 4, in, 1, 0, 0, 0, nullptr, nullptr, 0};
    kel_vec_t dst = {KEL_BITS, 4, out, 1, 0, 0, 0, nullptr, nullptr, 0};
    kel_int_t low = {KEL_BYTES, 1, {0, 0, 5}}, high = {KEL_BYTES, 1, {0, 0, 7}};
    uint64_t flags = KEL_CACHE;

    kel_result_t value(kel_context_t *ctx) const
    {
        return kel_scan_value(ctx, flags, &src, &dst, KEL_EQ, &low);
    }

    kel_result_t range(kel_context_t *ctx) const
    {
        return kel_scan_range(ctx, flags, &src, &dst, KEL_GE_AND_LE, &low, &high);
    }
};

} // namespace

extern "C" void syslog(int priority, const char *format, ...)
{
    EXPECT_EQ(priority, 15);
    EXPECT_STREQ(format, "%s");
    va_list args;
    va_start(args, format);
    system_log.emplace_back(va_arg(args, const char *));
    va_end(args);
}

// ---- Counters and timers --------------------------------------------------------------------------------------------

TEST(events, init_reset_add)
{
    for (const auto &[generation, frequency] : {std::pair{0u, 0u}, {1u, 1800u}, {2u, 1800u}, {3u, 0u}}) {
        test_context ctx;
        ctx->kel_version = generation;
        kel_perf_event_t events = dirty;
        kel_events_init(ctx, &events);
        EXPECT_EQ(fields(events), words(frequency, 0u, 0u, 0u, 0u, 0u, 0u, 0u, 0u));
    }
    kel_perf_event_t events = dirty;
    kel_events_reset(&events);
    EXPECT_EQ(fields(events), reset_fields);

    const kel_perf_event_t from = {10, uint64_t{1} << 40, 30, 6, 50, 3, 70, 80, 1};
    events = dirty;
    kel_events_add(&events, &from);
    EXPECT_EQ(fields(events), words(1u, (uint64_t{1} << 40) + 2, 33u, 6u, 55u, 7u, 77u, 88u, 9u));
    EXPECT_EQ(fields(from), words(10u, uint64_t{1} << 40, 30u, 6u, 50u, 3u, 70u, 80u, 1u));
}

static std::string printed_timers()
{
    testing::internal::CaptureStdout();
    kel_timer_print();
    return testing::internal::GetCapturedStdout();
}

TEST(timers, print)
{
    test_context ctx(2, 15);
    EXPECT_EQ(small_scan().value(ctx).count, 2u);
    EXPECT_EQ(printed_timers(), "");
    kel_perf = {0, {{1, 2}, {3, 4}}};
    EXPECT_EQ(printed_timers(), "");
    kel_perf = {4, {{9, 8}, {0, 49999}, {1, 0}, {0, 3}, {0, UINT32_MAX}, {0, 4}, {0, 40}, {0, 400}, {0, 4000}}};
    EXPECT_EQ(printed_timers(), "kel_perf:            kel_calls :    4\n"
                                "kel_perf:                      :    2 ns/call\n"
                                "kel_perf:           kel_cycles : 12499 cycles/call\n"
                                "kel_perf:           kel_submit :    0 ns/call\n"
                                "kel_perf:         kel_cca_free : 1073741823 ns/call\n"
                                "kel_perf:                mwait :    1 ns/call\n"
                                "kel_perf:                 post :   10 ns/call\n"
                                "kel_perf:                 poll :  100 ns/call\n"
                                "kel_perf:          kel_execute : 1000 ns/call\n");
    kel_perf = {uint64_t{1} << 32, {{}, {}, {0, 5}}};
    EXPECT_EQ(printed_timers(), "kel_perf:            kel_calls : 4294967296\n"
                                "kel_perf:      kel_execute_one :    0 ns/call\n");
    kel_perf = {};
}

TEST(timers, enabled_at_exit)
{
    const auto end_with_timers = [] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        kel_timer_enable();
        kel_perf.ncalls = 12345;
        exit(0);
    };
    EXPECT_EXIT(end_with_timers(), testing::ExitedWithCode(0), "^kel_perf:            kel_calls : 12345\n$");
}

// ---- Probes ---------------------------------------------------------------------------------------------------------

// Which calls reach the probe: those that do leave the counters reset.
TEST(probe, counters_of_a_call)
{
    using call_t = kel_status_t (*)(kel_context_t *, kel_queue_t *, small_scan &);
    constexpr call_t value = [](kel_context_t *ctx, kel_queue_t *, small_scan &s) { return s.value(ctx).status; };
    constexpr call_t range = [](kel_context_t *ctx, kel_queue_t *, small_scan &s) { return s.range(ctx).status; };
    constexpr call_t nop = [](kel_context_t *ctx, kel_queue_t *, small_scan &) { return kel_nop(ctx, 0).status; };
    constexpr call_t refused = [](kel_context_t *ctx, kel_queue_t *, small_scan &s) {
        s.flags = KEL_PAD;
        return s.range(ctx).status;
    };
    constexpr call_t refused_for_its_data = [](kel_context_t *ctx, kel_queue_t *, small_scan &s) {
        s.low.dword[2] = 0x105;
        return s.value(ctx).status;
    };
    constexpr call_t fails = [](kel_context_t *ctx, kel_queue_t *, small_scan &s) {
        static constexpr uint8_t no_run[8] = {};
        s.src.format = KEL_RLE;
        s.src.aux_data = const_cast<uint8_t *>(no_run);
        s.src.aux_width = 8;
        return s.value(ctx).status;
    };
    constexpr call_t post = [](kel_context_t *, kel_queue_t *queue, small_scan &s) {
        EXPECT_EQ(kel_nop_post(queue, 0, nullptr), KEL_SUCCESS);
        EXPECT_EQ(kel_scan_range_post(queue, 0, &s.src, &s.dst, KEL_GE_AND_LE, &s.low, &s.high, nullptr), KEL_SUCCESS);
        return kel_scan_value_post(queue, 0, &s.src, &s.dst, KEL_EQ, &s.low, nullptr);
    };
    const struct {
        call_t call;
        uint32_t debug;
        kel_status_t status;
        bool reset;
    } rows[] = {{value, 8, KEL_SUCCESS, true},
                {value, 15, KEL_SUCCESS, true},
                {value, 7, KEL_SUCCESS, false},
                {value, 0, KEL_SUCCESS, false},
                {range, 9, KEL_SUCCESS, true},
                {range, 1, KEL_SUCCESS, false},
                {fails, 9, KEL_EDATAFMT, true},
                {fails, 1, KEL_EDATAFMT, false},
                {refused, 9, KEL_EINVAL, false},
                {refused, 8, KEL_SUCCESS, true},
                {refused_for_its_data, 10, KEL_EINVAL, false},
                {refused_for_its_data, 9, KEL_SUCCESS, true},
                {nop, 15, KEL_SUCCESS, false},
                {post, 15, KEL_SUCCESS, false}};
    for (const uint32_t version : {1u, 2u})
        for (const auto &row : rows) {
            SCOPED_TRACE(&row - rows);
            test_context ctx(version, row.debug, 0);
            kel_queue_t *queue = nullptr;
            ASSERT_EQ(kel_queue_create(ctx, 3, &queue), KEL_SUCCESS);
            small_scan scan;
            ctx->events = dirty;
            EXPECT_EQ(row.call(ctx, queue, scan), row.status);
            EXPECT_EQ(fields(ctx->events), row.reset ? reset_fields : fields(dirty));
        }
}

// ThreadSanitizer runs signal handlers later than at the site.
#if defined(__x86_64__) && defined(__ELF__) && !defined(__SANITIZE_THREAD__)

// What a site showed when it was last passed.
static struct {
    unsigned hits;
    uint64_t args[4];
    kel_request_t request;
    kel_result_t result;
    kel_perf_event_t events;
} shown;
static int arg_registers[4]; // where the arguments are, as greg numbers

static void at_site(int, siginfo_t *, void *context)
{
    const greg_t *registers = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
    for (int i = 0; i < 4; i++)
        shown.args[i] = static_cast<uint64_t>(registers[arg_registers[i]]);
    shown.hits++;
    memcpy(&shown.request, reinterpret_cast<void *>(shown.args[1]), sizeof shown.request);
    memcpy(&shown.result, reinterpret_cast<void *>(shown.args[2]), sizeof shown.result);
    memcpy(&shown.events, reinterpret_cast<void *>(shown.args[3]), sizeof shown.events);
}

// Attaches to a probe of this program as tracers do: the note tells the site, whose no-op becomes a breakpoint.
class tracer
{
  public:
    explicit tracer(const std::string &probe)
    {
        shown = {};
        find(probe);
        struct sigaction action = {};
        action.sa_sigaction = at_site;
        action.sa_flags = SA_SIGINFO;
        sigaction(SIGTRAP, &action, &previous);
        write_site(0xcc);
    }

    ~tracer()
    {
        write_site(0x90);
        sigaction(SIGTRAP, &previous, nullptr);
    }

  private:
    void find(const std::string &probe)
    {
        std::ifstream file("/proc/self/exe", std::ios::binary);
        const std::string image{std::istreambuf_iterator<char>(file), {}};
        const auto *header = reinterpret_cast<const Elf64_Ehdr *>(image.data());
        const auto *sections = reinterpret_cast<const Elf64_Shdr *>(image.data() + header->e_shoff);
        for (unsigned i = 0; i < header->e_shnum; i++)
            if (image.data() + sections[header->e_shstrndx].sh_offset + sections[i].sh_name ==
                std::string(".note.stapsdt"))
                search(image.data() + sections[i].sh_offset, sections[i].sh_size, probe);
    }

    void search(const char *notes, size_t size, const std::string &probe)
    {
        const char *const end = notes + size;
        while (notes < end) {
            const auto *note = reinterpret_cast<const Elf64_Nhdr *>(notes);
            const char *content = notes + sizeof *note + (note->n_namesz + 3) / 4 * 4;
            const std::string provider = content + 24, name = content + 25 + provider.size();
            if (provider == "kel" && name == probe) {
                memcpy(&site, content, sizeof site);
                site += load_address();
                read_arguments(content + 26 + provider.size() + name.size());
            }
            notes = content + (note->n_descsz + 3) / 4 * 4;
        }
    }

    static uintptr_t load_address()
    {
        uintptr_t address = 0;
        const auto program = [](dl_phdr_info *info, size_t, void *data) {
            *static_cast<uintptr_t *>(data) = info->dlpi_addr;
            return 1; // the first is the program itself
        };
        dl_iterate_phdr(program, &address);
        return address;
    }

    static void read_arguments(const std::string &text)
    {
        static const std::map<std::string, int> registers = {
            {"rax", REG_RAX}, {"rbx", REG_RBX}, {"rcx", REG_RCX}, {"rdx", REG_RDX}, {"rsi", REG_RSI},
            {"rdi", REG_RDI}, {"rbp", REG_RBP}, {"r8", REG_R8},   {"r9", REG_R9},   {"r10", REG_R10},
            {"r11", REG_R11}, {"r12", REG_R12}, {"r13", REG_R13}, {"r14", REG_R14}, {"r15", REG_R15}};
        std::istringstream args(text);
        std::string arg;
        for (int &number : arg_registers) {
            args >> arg;
            number = registers.at(arg.substr(3)); // behind "8@%"
        }
    }

    void write_site(uint8_t instruction) const
    {
        constexpr uintptr_t page = 4096;
        auto *start = reinterpret_cast<void *>(site & ~(page - 1));
        ASSERT_EQ(mprotect(start, page, PROT_READ | PROT_WRITE | PROT_EXEC), 0);
        *reinterpret_cast<volatile uint8_t *>(site) = instruction;
        ASSERT_EQ(mprotect(start, page, PROT_READ | PROT_EXEC), 0);
    }

    uintptr_t site = 0;
    struct sigaction previous;
};

template <class Record>
static bool same(const Record &a, const Record &b)
{
    return memcmp(&a, &b, sizeof a) == 0;
}

static void expect_shown(kel_context_t *ctx, const small_scan &scan, kel_cmd_t cmd, const kel_result_t &result)
{
    const kel_request_t &request = shown.request;
    EXPECT_EQ(shown.args[0], uint64_t{ctx->api_version} << 24 | 1 << 16 | static_cast<uint64_t>(cmd));
    EXPECT_EQ(request.major, ctx->api_version);
    EXPECT_EQ(request.minor, 0);
    EXPECT_EQ(request.cmd, cmd);
    EXPECT_EQ(request.ctx, ctx);
    EXPECT_EQ(request.queue, nullptr);
    EXPECT_EQ(request.flags, scan.flags);
    EXPECT_TRUE(same(request.src, scan.src));
    EXPECT_TRUE(same(request.src2, kel_vec_t{}));
    EXPECT_TRUE(same(request.dst, scan.dst));
    EXPECT_EQ(request.udata, nullptr);
    EXPECT_EQ(shown.result.status, result.status);
    EXPECT_EQ(shown.result.count, result.count);
    EXPECT_EQ(shown.args[3], reinterpret_cast<uintptr_t>(&ctx->events));
    EXPECT_EQ(fields(shown.events), fields(dirty));
    EXPECT_EQ(fields(ctx->events), reset_fields);
}

TEST(probe, shows_each_execution)
{
    const tracer attached("kel-execute");
    for (const uint32_t version : {1u, 2u}) {
        test_context ctx(version, KEL_DEBUG_PERF);
        const small_scan scan;
        ctx->events = dirty;
        expect_shown(ctx, scan, KEL_CMD_SCAN_VALUE, scan.value(ctx));
        EXPECT_EQ(shown.result.count, 2u);
        EXPECT_EQ(shown.request.arg.scan_value.op, KEL_EQ);
        EXPECT_TRUE(same(shown.request.arg.scan_value.val, scan.low));
        ctx->events = dirty;
        expect_shown(ctx, scan, KEL_CMD_SCAN_RANGE, scan.range(ctx));
        EXPECT_EQ(shown.result.count, 3u);
        EXPECT_EQ(shown.request.arg.scan_range.op, KEL_GE_AND_LE);
        EXPECT_TRUE(same(shown.request.arg.scan_range.lower, scan.low));
        EXPECT_TRUE(same(shown.request.arg.scan_range.upper, scan.high));
    }
    EXPECT_EQ(shown.hits, 4u);

    test_context ctx(2, 0);
    const small_scan scan;
    scan.value(ctx);
    ctx->debug_options = 15;
    kel_nop(ctx, 0);
    EXPECT_EQ(shown.hits, 4u);
}

// The command is extended with its sign.
TEST(probe, poll)
{
    const tracer attached("kel-poll");
    test_context ctx(2, 0);
    for (const int cmd : {9, -1}) {
        kel_request_t request = {};
        kel_result_t result = {KEL_EOVERFLOW, 0, 77};
        kel_perf_event_t events = dirty;
        request.cmd = static_cast<kel_cmd_t>(cmd);
        kel_probe_poll(ctx, &request, &result, &events);
        EXPECT_EQ(shown.args[0], cmd < 0 ? UINT64_MAX : 0x2010009u);
        EXPECT_EQ(shown.args[1], reinterpret_cast<uintptr_t>(&request));
        EXPECT_EQ(shown.args[2], reinterpret_cast<uintptr_t>(&result));
        EXPECT_EQ(shown.args[3], reinterpret_cast<uintptr_t>(&events));
        EXPECT_EQ(fields(shown.events), fields(dirty));
        EXPECT_EQ(fields(events), reset_fields);
    }
    EXPECT_EQ(shown.hits, 2u);
}

#endif

// ---- Command records ------------------------------------------------------------------------------------------------

struct field_row {
    const char *name;
    unsigned low, high; // bits
    uint64_t (*filled)();
};

// The word of a record with all bits of one field set.
#define FIELD(type, field, low, high)                                                                                  \
    {                                                                                                                  \
#type "." #field, low, high, [] {                                                                                 \
         type record = {};                                                                                             \
         record.field = (uint64_t{1} << (high - low + 1)) - 1;                                                         \
         uint64_t word = 0;                                                                                            \
         memcpy(&word, &record, sizeof record);                                                                        \
         return word;                                                                                                  \
     }    \
    }
#define CONTROL_FIELDS(type)                                                                                           \
    FIELD(type, pri_fmt, 0, 3), FIELD(type, pri_elem_size, 4, 8), FIELD(type, pri_offset, 9, 11),                      \
        FIELD(type, sec_encoding, 12, 12), FIELD(type, sec_offset, 13, 15), FIELD(type, sec_elem_size, 16, 17),        \
        FIELD(type, out_fmt, 18, 19), FIELD(type, out_elem_size, 20, 21)

// clang-format off
static const field_row field_rows[] = {
    FIELD(kel_header_t, ccb_version, 0, 3), FIELD(kel_header_t, pipe, 4, 4), FIELD(kel_header_t, longccb, 5, 5),
    FIELD(kel_header_t, cond, 6, 6), FIELD(kel_header_t, serial, 7, 7), FIELD(kel_header_t, opcode, 8, 15),
    FIELD(kel_header_t, reserved, 16, 18), FIELD(kel_header_t, table_addr_type, 19, 20),
    FIELD(kel_header_t, out_addr_type, 21, 23), FIELD(kel_header_t, sec_addr_type, 24, 26),
    FIELD(kel_header_t, pri_addr_type, 27, 29), FIELD(kel_header_t, cca_addr_type, 30, 31),
    FIELD(ccb_hdr_t, ccb_ver, 0, 3), FIELD(ccb_hdr_t, sync_flags, 4, 7), FIELD(ccb_hdr_t, opcode, 8, 15),
    FIELD(ccb_hdr_t, rsvd, 16, 18), FIELD(ccb_hdr_t, at_tbl, 19, 20), FIELD(ccb_hdr_t, at_dst, 21, 23),
    FIELD(ccb_hdr_t, at_src1, 24, 26), FIELD(ccb_hdr_t, at_src0, 27, 29), FIELD(ccb_hdr_t, rsvd2, 30, 31),
    CONTROL_FIELDS(kel_control_t), FIELD(kel_control_t, misc, 22, 31),
    CONTROL_FIELDS(kel_scan_control_t), FIELD(kel_scan_control_t, u_size, 22, 26),
    FIELD(kel_scan_control_t, l_size, 27, 31),
    CONTROL_FIELDS(kel_translate_control_t), FIELD(kel_translate_control_t, unused, 22, 22),
    FIELD(kel_translate_control_t, test_value, 23, 31),
    CONTROL_FIELDS(kel_select_control_t), FIELD(kel_select_control_t, pad_dir, 22, 22),
    FIELD(kel_select_control_t, unused, 23, 31),
    CONTROL_FIELDS(kel_extract_control_t), FIELD(kel_extract_control_t, pad_dir, 22, 22),
    FIELD(kel_nop_control_t, ext_opcode, 0, 0), FIELD(kel_nop_control_t, unused, 1, 31),
    FIELD(kel_data_access_t, flow_ctrl, 0, 1), FIELD(kel_data_access_t, pipe_target, 2, 3),
    FIELD(kel_data_access_t, out_buf_size, 4, 23), FIELD(kel_data_access_t, unused1, 24, 31),
    FIELD(kel_data_access_t, out_alloc, 32, 36), FIELD(kel_data_access_t, unused2, 37, 37),
    FIELD(kel_data_access_t, pri_len_fmt, 38, 39), FIELD(kel_data_access_t, pri_len, 40, 63),
};

#define PLACE(type, field, offset, size) {#type "." #field, offsetof(type, field), sizeof(type::field), offset, size}

static const struct {
    const char *name;
    size_t offset, size, wanted_offset, wanted_size;
} place_rows[] = {
    PLACE(kel_ccb_t, hdr, 0, 4), PLACE(kel_ccb_t, ctrl, 4, 4), PLACE(kel_ccb_t, ca, 8, 8), PLACE(kel_ccb_t, pri, 16, 8),
    PLACE(kel_ccb_t, sec, 32, 8), PLACE(kel_ccb_t, dword5, 40, 8), PLACE(kel_ccb_t, out, 48, 8),
    PLACE(kel_translate_ccb_t, ctrl, 4, 4), PLACE(kel_translate_ccb_t, out, 48, 8),
    PLACE(kel_select_ccb_t, ctrl, 4, 4), PLACE(kel_select_ccb_t, out, 48, 8), PLACE(kel_extract_ccb_t, out, 48, 8),
    PLACE(kel_nop_ccb_t, ctrl, 4, 4), PLACE(kel_nop_ccb_t, ca, 8, 8), PLACE(kel_nop_ccb_t, unused, 16, 48),
    PLACE(kel_scan_ccb_t, ctrl, 4, 4), PLACE(kel_scan_ccb_t, ca, 8, 8), PLACE(kel_scan_ccb_t, pri, 16, 8),
    PLACE(kel_scan_ccb_t, dac, 24, 8), PLACE(kel_scan_ccb_t, sec, 32, 8), PLACE(kel_scan_ccb_t, out, 48, 8),
    PLACE(kel_scan_ccb_t, huff, 56, 8), PLACE(kel_scan_ccb_t, lu3, 72, 8), PLACE(kel_scan_ccb_t, lu4, 80, 8),
    PLACE(kel_lu_t, upper, 0, 4), PLACE(kel_lu_t, lower, 4, 4), PLACE(ccb_t, dwords, 0, 64),
    PLACE(kel_cca_t, status, 0, 1), PLACE(kel_cca_t, err, 1, 1), PLACE(kel_cca_t, rsvd, 2, 2),
    PLACE(kel_cca_t, n_remaining, 4, 4), PLACE(kel_cca_t, output_sz, 8, 4), PLACE(kel_cca_t, rsvd2, 12, 4),
    PLACE(kel_cca_t, run_cycles, 16, 8), PLACE(kel_cca_t, run_stats, 24, 8), PLACE(kel_cca_t, rsvd3, 36, 20),
    PLACE(kel_cca_t, rsvd4, 64, 64),
    PLACE(ccb_completion_area_t, cmd_status, 0, 1), PLACE(ccb_completion_area_t, err_mask, 1, 1),
    PLACE(ccb_completion_area_t, err_vals, 4, 4), PLACE(ccb_completion_area_t, output_sz, 8, 4),
    PLACE(ccb_completion_area_t, run_time, 16, 8), PLACE(ccb_completion_area_t, run_stats, 24, 8),
    PLACE(ccb_completion_area_t, n_processed, 32, 4), PLACE(ccb_completion_area_t, rsvd4, 64, 64),
    PLACE(kel_submit_res_t, dsr_submitted_ca_off, 2, 2), PLACE(kel_submit_res_t, dsr_err_ext, 4, 4),
    PLACE(kel_submit_res_t, dsr_err_va, 8, 8), PLACE(kel_ccb_thr_init_arg_t, dcti_compl_maplen, 8, 8),
    PLACE(kel_ccb_thr_init_arg_t, dcti_compl_mapoff, 16, 8), PLACE(kel_ca_dequeue_arg_t, dcd_len_requested, 0, 4),
    PLACE(kel_ca_dequeue_arg_t, dcd_len_dequeued, 8, 8), PLACE(kel_ccb_info_arg_t, kel_ccb_state, 2, 2),
    PLACE(kel_ccb_info_arg_t, kel_inst_num, 4, 2), PLACE(kel_ccb_info_arg_t, kel_q_num, 6, 2),
    PLACE(kel_ccb_info_arg_t, kel_q_pos, 8, 2), PLACE(kel_ccb_kill_arg, kel_kill_res, 2, 2),
    PLACE(kel_info_arg, kel_enabled, 8, 8), PLACE(kel_info_arg, kel_disabled, 16, 8),
};
// clang-format on

TEST(blocks, fields)
{
    for (const field_row &row : field_rows)
        EXPECT_EQ(row.filled(), (UINT64_MAX >> (63 - row.high + row.low)) << row.low) << row.name;
    for (const auto &row : place_rows) {
        EXPECT_EQ(row.offset, row.wanted_offset) << row.name;
        EXPECT_EQ(row.size, row.wanted_size) << row.name;
    }
}

TEST(blocks, scan_operator)
{
    constexpr unsigned none = 31;
    const struct {
        unsigned u_size, l_size, opcode;
        int op;
    } rows[] = {{none, 0, 2, KEL_EQ},
                {none, 7, 3, KEL_GE},
                {none, 15, 18, KEL_NE},
                {none, 30, 19, KEL_LT},
                {3, none, 3, KEL_LE},
                {3, none, 19, KEL_GT},
                {3, none, 2, 4},
                {3, none, 18, 6},
                {0, 0, 2, KEL_EQ_OR_EQ},
                {1, 2, 3, KEL_GE_AND_LE},
                {15, 15, 18, KEL_NE_AND_NE},
                {15, 0, 19, KEL_LT_OR_GT},
                {none, none, 19, KEL_LT},
                {none, none, 2, KEL_EQ},
                {none, 1, 0, KEL_EQ},
                {none, 1, 7, KEL_EQ},
                {none, 1, 16 + 32 + 3, KEL_NE},
                {none, 1, 255, KEL_NE}};
    for (const auto &row : rows) {
        kel_scan_ccb_t block = {};
        block.ctrl.u_size = row.u_size & 31;
        block.ctrl.l_size = row.l_size & 31;
        block.hdr.opcode = row.opcode & 255;
        EXPECT_EQ(ccb_to_scan_op(&block), row.op) << row.u_size << ' ' << row.l_size << ' ' << row.opcode;
    }
}

// A value of length bytes that stand first in text, as a number of two words; what is left alone holds `left`.
static std::vector<uint64_t> right_aligned(const uint8_t *text, unsigned length, uint64_t left)
{
    uint64_t high = 0, low = 0;
    for (unsigned i = 0; i < length; i++) {
        high = high << 8 | low >> 56;
        low = low << 8 | text[i];
    }
    return {left, length > 8 ? high : left, low};
}

TEST(blocks, scan_values)
{
    random_source random(1);
    const auto word = [](const uint8_t *bytes) {
        return static_cast<uint32_t>(bytes[0] << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3]);
    };
    const auto dwords = [](const kel_int_t &value) { return std::vector<uint64_t>(value.dword, value.dword + 3); };
    for (unsigned round = 0; round < 20; round++)
        for (unsigned length = 1; length <= 16; length++) {
            SCOPED_TRACE(length);
            uint8_t lower[16], upper[16];
            random.fill(lower, sizeof lower);
            random.fill(upper, sizeof upper);
            const auto other = static_cast<unsigned>(random.between(1, 16));
            const uint64_t left = random.word();
            const kel_int_t fresh = {99, 99, {left, left, left}};

            kel_int_t value = fresh;
            lu_to_dword(value.dword, length, word(lower), word(lower + 4), word(lower + 8), word(lower + 12));
            EXPECT_EQ(dwords(value), right_aligned(lower, length, left));

            kel_scan_ccb_t block = {};
            kel_lu_t *const lus[] = {&block.lu1, &block.lu2, &block.lu3, &block.lu4};
            for (unsigned i = 0; i < 4; i++)
                *lus[i] = {word(upper + 4 * i), word(lower + 4 * i)};
            const auto check = [&](void (*convert)(const kel_scan_ccb_t *, kel_int_t *), const uint8_t *text,
                                   unsigned width) {
                value = fresh;
                convert(&block, &value);
                EXPECT_EQ(value.format, 0u);
                EXPECT_EQ(value.elem_width, width);
                EXPECT_EQ(dwords(value), right_aligned(text, width, left));
            };
            block.ctrl.l_size = (length - 1) & 31;
            block.ctrl.u_size = (other - 1) & 31;
            check(ccb_to_scan_lower, lower, length);
            check(ccb_to_scan_upper, upper, other);
            check(ccb_to_scan_value, lower, length);
            block.ctrl.u_size = 31;
            check(ccb_to_scan_value, lower, length);
            block.ctrl.u_size = (other - 1) & 31;
            block.ctrl.l_size = 31;
            check(ccb_to_scan_value, upper, other);
        }
}

TEST(blocks, kill_words)
{
    for (const auto &[result, text] :
         std::initializer_list<std::pair<uint16_t, const char *>>{{0, "COMPLETED"},
                                                                  {1, "DEQUEUED"},
                                                                  {2, "KILLED"},
                                                                  {3, "NOT FOUND"},
                                                                  {4, "INTERNAL ERROR"},
                                                                  {65535, "INTERNAL ERROR"}})
        EXPECT_STREQ(kel_kill_status_str(result), text);
}

TEST(blocks, submit_is_refused)
{
    ccb_t block = {};
    kel_submit_res_t result;
    memset(&result, 0xa5, sizeof result);
    const kel_submit_res_t before = result;
    const std::string line =
        "libkel ERROR: tid=" + std::to_string(static_cast<int>(pthread_self())) + ": kel_submit not supported on x64";
    for (const bool null : {false, true}) {
        reset_hooks();
        system_log.clear();
        testing::internal::CaptureStderr();
        EXPECT_EQ(null ? kel_submit(nullptr, 0, 0, nullptr) : kel_submit(&block, 64, UINT32_MAX, &result), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line + "\n");
        EXPECT_EQ(system_log, std::vector{line});
        EXPECT_EQ(kel_debug_calls, 1u);
    }
    EXPECT_EQ(memcmp(&result, &before, sizeof result), 0);
}
