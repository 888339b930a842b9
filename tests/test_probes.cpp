// Counters, timers and trace probes; and the coprocessor's command records.
#include "kel_ccb.h"
#include "kel_frame.h"
#include "support.h"
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <link.h>
#include <map>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>
#include <utility>

namespace
{

std::string fields(const kel_perf_event_t &e) // which have no gaps but at the end
{
    return hex(&e, offsetof(kel_perf_event_t, unzip) + sizeof e.unzip);
}

constexpr kel_perf_event_t dirty = {1, 2, 3, 4, 5, 6, 7, 8, 9}, clean = {1, 0, 0, 0, 0, 0, 0, 0, 0};

} // namespace

// ---- Counters and timers --------------------------------------------------------------------------------------------

TEST(events, init_reset_add)
{
    for (const auto &[generation, frequency] : {std::pair{0u, 0u}, {1u, 1800u}, {2u, 1800u}, {3u, 0u}}) {
        test_context ctx;
        ctx->kel_version = generation;
        kel_perf_event_t events = dirty;
        kel_events_init(ctx, &events);
        EXPECT_EQ(fields(events), fields({frequency, 0, 0, 0, 0, 0, 0, 0, 0}));
    }
    constexpr kel_perf_event_t from = {10, uint64_t{1} << 40, 30, 6, 50, 3, 70, 80, 1};
    kel_perf_event_t events = dirty;
    kel_events_add(&events, &from);
    EXPECT_EQ(fields(events), fields({1, from.cycles + 2, 33, 6, 55, 7, 77, 88, 9}));
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

#if defined(__x86_64__) && defined(__ELF__)

namespace
{

// A probe as its note tells it to tracers: where the site is, and which registers hold the arguments.
uintptr_t site;
int registers[4]; // as numbers of greg

// What the site showed when it was last passed.
struct {
    unsigned hits;
    uint64_t args[4];
    kel_request_t request;
    kel_result_t result;
    kel_perf_event_t events;
} shown;

void find(const std::string &probe)
{
    static const std::map<std::string, int> numbers = {
        {"rax", REG_RAX}, {"rbx", REG_RBX}, {"rcx", REG_RCX}, {"rdx", REG_RDX}, {"rsi", REG_RSI},
        {"rdi", REG_RDI}, {"rbp", REG_RBP}, {"r8", REG_R8},   {"r9", REG_R9},   {"r10", REG_R10},
        {"r11", REG_R11}, {"r12", REG_R12}, {"r13", REG_R13}, {"r14", REG_R14}, {"r15", REG_R15}};
    FILE *notes = popen(("LC_ALL=C readelf --notes /proc/" + std::to_string(getpid()) + "/exe").c_str(), "r");
    char line[200], name[200] = "", args[4][8];
    while (fgets(line, sizeof line, notes)) {
        sscanf(line, " Name: %199s", name);
        if (name != probe)
            continue;
        sscanf(line, " Location: %lx", &site);
        if (sscanf(line, " Arguments: 8@%%%7s 8@%%%7s 8@%%%7s 8@%%%7s", args[0], args[1], args[2], args[3]) == 4)
            for (int i = 0; i < 4; i++)
                registers[i] = numbers.at(args[i]);
    }
    site += _r_debug.r_map->l_addr;
    pclose(notes);
}

// Runs instead of the no-op.
void stop(int, siginfo_t *, void *context)
{
    const greg_t *values = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
    for (int i = 0; i < 4; i++)
        shown.args[i] = static_cast<uint64_t>(values[registers[i]]);
    shown.hits++;
    memcpy(&shown.request, at(shown.args[1]), sizeof shown.request);
    memcpy(&shown.result, at(shown.args[2]), sizeof shown.result);
    memcpy(&shown.events, at(shown.args[3]), sizeof shown.events);
}

// Makes a call that passes the site of a probe once, where a breakpoint stands in the place of the no-op.
template <class Call>
void trace(const char *probe, const Call &call)
{
    constexpr uint8_t no_op = 0x90, breakpoint = 0xcc;
    find(probe);
    shown = {};
    struct sigaction action = {}, previous;
    action.sa_sigaction = stop;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, &previous);
    mprotect(at(site / 4096 * 4096), 4096, PROT_READ | PROT_WRITE | PROT_EXEC);
    EXPECT_EQ(std::exchange(*static_cast<uint8_t *>(at(site)), breakpoint), no_op);
    call();
    *static_cast<uint8_t *>(at(site)) = no_op;
    sigaction(SIGTRAP, &previous, nullptr);
    EXPECT_EQ(shown.hits, 1u);
}

template <class Record>
bool same(const Record &a, const Record &b)
{
    return memcmp(&a, &b, sizeof a) == 0;
}

} // namespace

#define SHOWN(cmd, call, src, src2, dst, rest)                                                                         \
    {                                                                                                                  \
        KEL_CMD_##cmd, [&] { return kel_##call; }, src, src2, dst, [&] { return rest; }                                \
    }

TEST(probe, shows_each_execution_with_its_arguments)
{
    alignas(64) uint8_t in[64] = {5, 7, 5, 9}, more[64] = {0xa5, 0x3c}, out[128];
    constexpr auto vec = [](uint64_t format, void *data) {
        return kel_vec_t{format, 8, data, 1, 0, 0, 0, nullptr, nullptr, 0};
    };
    const kel_vec_t bytes = vec(KEL_BYTES, in), bits = vec(KEL_BITS, more), more_bits = vec(KEL_BITS, in), none = {};
    const kel_vec_t list = vec(KEL_BYTES, out), mask = vec(KEL_BITS, out);
    kel_vec_t map = bits;
    map.elements = 256;
    const kel_int_t five = {KEL_BYTES, 1, {0, 0, 5}}, seven = {KEL_BYTES, 1, {0, 0, 7}};
    kel_context_t *c = nullptr;
    const auto &arg = shown.request.arg;
    const struct {
        kel_cmd_t cmd;
        std::function<kel_result_t()> call;
        kel_vec_t src, src2, dst;
        std::function<bool()> rest;
    } rows[] = {
        SHOWN(SCAN_VALUE, scan_value(c, KEL_CACHE, &bytes, &mask, KEL_EQ, &five), bytes, none, mask,
              arg.scan_value.op == KEL_EQ && same(arg.scan_value.val, five)),
        SHOWN(SCAN_RANGE, scan_range(c, KEL_CACHE, &bytes, &mask, KEL_EQ_OR_EQ, &five, &seven), bytes, none, mask,
              arg.scan_range.op == KEL_EQ_OR_EQ && same(arg.scan_range.lower, five) &&
                  same(arg.scan_range.upper, seven)),
        SHOWN(SELECT, select(c, KEL_CACHE, &bytes, &list, &bits), bytes, none, list, same(arg.select.mask, bits)),
        SHOWN(EXTRACT, extract(c, KEL_CACHE, &bytes, &list), bytes, none, list, true),
        SHOWN(TRANSLATE, translate(c, KEL_CACHE, &bytes, &mask, &map, 7), bytes, none, mask,
              same(arg.translate.bitmap, map) && arg.translate.val_width == 7),
        SHOWN(AND, and(c, KEL_CACHE, &bits, &more_bits, &mask), bits, more_bits, mask, true),
        SHOWN(OR, or (c, KEL_CACHE, &bits, &more_bits, &mask), bits, more_bits, mask, true),
        SHOWN(XOR, xor(c, KEL_CACHE, &bits, &more_bits, &mask), bits, more_bits, mask, true),
        SHOWN(COPY, copy(c, KEL_CACHE, in, out, 9), none, none, none,
              arg.copy.src == in && arg.copy.dst == out && arg.copy.count == 9),
        SHOWN(FILL, fill(c, KEL_CACHE, 77, out, 9, 2), none, none, none,
              arg.fill.val == 77 && arg.fill.dst == out && arg.fill.count == 9 && arg.fill.val_width == 2),
    };
    for (const uint32_t version : {1u, 2u})
        for (const auto &row : rows) {
            SCOPED_TRACE(testing::Message() << "version " << version << ", command " << row.cmd);
            test_context ctx(version, KEL_DEBUG_PERF);
            c = ctx;
            c->events = dirty;
            kel_result_t result;
            trace("kel-execute", [&] { result = row.call(); });
            const kel_request_t &r = shown.request;
            EXPECT_EQ(shown.args[0], version << 24 | 1u << 16 | static_cast<uint64_t>(row.cmd));
            EXPECT_EQ(std::tuple(r.major, r.minor, r.cmd, r.ctx, r.queue, r.flags, r.udata),
                      std::tuple(version, 0, row.cmd, c, nullptr, KEL_CACHE, nullptr));
            EXPECT_TRUE(same(r.src, row.src) && same(r.src2, row.src2) && same(r.dst, row.dst));
            EXPECT_TRUE(row.rest() && same(shown.result, result) && result.status == KEL_SUCCESS);
            EXPECT_EQ(at(shown.args[3]), &c->events);
            EXPECT_EQ(fields(shown.events), fields(dirty));
            EXPECT_EQ(fields(c->events), fields(clean));
        }
}

// The command is extended with its sign.
TEST(probe, shows_a_poll)
{
    test_context ctx(2, 0);
    kel_request_t request = {};
    request.cmd = static_cast<kel_cmd_t>(-1);
    kel_result_t result = {KEL_EOVERFLOW, 0, 77};
    kel_perf_event_t events = dirty;
    trace("kel-poll", [&] { kel_probe_poll(ctx, &request, &result, &events); });
    EXPECT_EQ(shown.args[0], UINT64_MAX);
    EXPECT_TRUE(at(shown.args[1]) == &request && at(shown.args[2]) == &result && at(shown.args[3]) == &events);
    EXPECT_EQ(fields(shown.events), fields(dirty));
    EXPECT_EQ(fields(events), fields(clean));
}

#endif

// ---- Command records ------------------------------------------------------------------------------------------------

// The bytes of a record that are not zero, with their offsets.
template <class Record>
static std::string places(const Record &record)
{
    std::string text;
    for (size_t i = 0; i < sizeof record; i++)
        if (const std::string byte = hex(reinterpret_cast<const char *>(&record) + i, 1); byte != "00")
            text += std::to_string(i) + ':' + byte + ' ';
    return text + std::to_string(sizeof record);
}

// In a word of bits every other field is full; elsewhere fields are numbered.
TEST(blocks, fields)
{
    constexpr kel_header_t hdr = {15, 0, 1, 0, 1, 0, 7, 0, 7, 0, 7, 0};
    constexpr kel_data_access_t dac = {3, 0, 0xfffff, 0, 31, 0, 3, 0};
    EXPECT_EQ(places(hdr), "0:af 2:e7 3:38 4");
    EXPECT_EQ(places(ccb_hdr_t{15, 0, 255, 0, 3, 0, 7, 0, 3}), "0:0f 1:ff 2:18 3:c7 4");
    EXPECT_EQ(places(kel_control_t{15, 0, 7, 0, 7, 0, 3, 0, 1023}), "0:0f 1:ee 2:cc 3:ff 4");
    EXPECT_EQ(places(kel_scan_control_t{0, 31, 0, 1, 0, 3, 0, 3, 0, 31}), "0:f0 1:11 2:33 3:f8 4");
    EXPECT_EQ(places(kel_translate_control_t{0, 31, 0, 1, 0, 3, 0, 3, 0, 511}), "0:f0 1:11 2:b3 3:ff 4");
    EXPECT_EQ(places(kel_select_control_t{0, 31, 0, 1, 0, 3, 0, 3, 1, 0}), "0:f0 1:11 2:73 4");
    EXPECT_EQ(places(kel_nop_control_t{1, 0}), "0:01 4");
    EXPECT_EQ(places(dac), "0:f3 1:ff 2:ff 4:df 8");
    EXPECT_EQ(places(kel_ccb_t{
                  {}, {1, 0, 0, 0, 0, 0, 0, 0, 0}, at(2), at(3), {1, 0, 0, 0, 0, 0, 0, 0}, at(5), 6, at(7), at(8)}),
              "4:01 8:02 16:03 24:01 32:05 40:06 48:07 56:08 64");
    EXPECT_EQ(places(kel_nop_ccb_t{{}, {1, 0}, at(2), {3}}), "4:01 8:02 16:03 64");
    EXPECT_EQ(places(kel_scan_ccb_t{
                  {}, {}, at(2), at(3), {}, at(4), {5, 6}, at(7), at(8), {9, 10}, {11, 12}, {13, 14}, {15}}),
              "8:02 16:03 32:04 40:05 44:06 48:07 56:08 64:09 68:0a 72:0b 76:0c 80:0d 84:0e 88:0f 128");
    EXPECT_EQ(places(kel_cca_t{1, 2, 3, 4, 5, 6, 7, 8, 9, {10}, 11, {12}}),
              "0:01 1:02 2:03 4:04 8:05 12:06 16:07 24:08 32:09 36:0a 56:0b 64:0c 128");
    EXPECT_EQ(places(ccb_completion_area_t{1, 2, 3, 4, 5, 6, 7, 8, 9, {10}, 11, {12}}),
              "0:01 1:02 2:03 4:04 8:05 12:06 16:07 24:08 32:09 36:0a 56:0b 64:0c 128");
    EXPECT_EQ(places(kel_ccb_thr_init_arg_t{1, 2, 3}), "0:01 8:02 16:03 24");
    EXPECT_EQ(places(kel_ccb_info_arg_t{1, 2, 3, 4, 5}), "0:01 2:02 4:03 6:04 8:05 10");
    EXPECT_EQ(places(kel_ccb_kill_arg{1, 2}), "0:01 2:02 4");
    EXPECT_EQ(places(kel_info_arg{1, 2, 3}), "0:01 8:02 16:03 24");
    EXPECT_EQ(offsetof(kel_ca_dequeue_arg_t, dcd_len_dequeued), 8u);
}

// The operators of a first value, of a second one, and of both. Where neither is there the first one counts.
TEST(blocks, scan_operator)
{
    constexpr uint32_t none = kel_lu_unused, opcodes[] = {2, 3, 18, 19, 0, 7, 51, 255};
    const std::tuple<uint32_t, uint32_t, std::vector<int>> rows[] = {
        {none, 30, {KEL_EQ, KEL_GE, KEL_NE, KEL_LT, KEL_EQ, KEL_EQ, KEL_NE, KEL_NE}},
        {none, none, {KEL_EQ, KEL_GE, KEL_NE, KEL_LT, KEL_EQ, KEL_EQ, KEL_NE, KEL_NE}},
        {3, none, {4, KEL_LE, 6, KEL_GT, 4, 4, 6, 6}},
        {0, 15, {KEL_EQ_OR_EQ, KEL_GE_AND_LE, KEL_NE_AND_NE, KEL_LT_OR_GT, 16, 16, 18, 18}},
    };
    for (const auto &[u_size, l_size, operators] : rows)
        for (size_t i = 0; i < std::size(opcodes); i++) {
            kel_scan_ccb_t block = {};
            block.ctrl.u_size = u_size & 31;
            block.ctrl.l_size = l_size & 31;
            block.hdr.opcode = opcodes[i] & 255;
            EXPECT_EQ(ccb_to_scan_op(&block), operators[i]) << u_size << ' ' << l_size << ' ' << opcodes[i];
        }
}

// Left-justified values come out right-aligned; the words that they do not fill hold what was there. The upper value has
// the bytes 1, 2, ..., 16, the lower one 65, 66, ..., 80.
TEST(blocks, scan_values)
{
    for (uint32_t length = 1; length <= 16; length++) {
        kel_scan_ccb_t block = {};
        block.lu1 = {0x01020304, 0x41424344};
        block.lu2 = {0x05060708, 0x45464748};
        block.lu3 = {0x090a0b0c, 0x494a4b4c};
        block.lu4 = {0x0d0e0f10, 0x4d4e4f50};
        const auto expect_value = [&](auto convert, uint8_t first) {
            kel_int_t value = {99, 99, {7, 7, 7}}, expected = {KEL_BYTES, length, {7, length > 8 ? 0u : 7u, 0}};
            for (uint8_t i = 0; i < length; i++)
                expected.dword[i + 8u < length ? 1 : 2] = expected.dword[i + 8u < length ? 1 : 2] << 8 | (first + i);
            convert(&block, &value);
            EXPECT_EQ(std::tuple(value.format, value.elem_width, std::vector(value.dword, value.dword + 3)),
                      std::tuple(expected.format, length, std::vector(expected.dword, expected.dword + 3)));
        };
        block.ctrl.l_size = block.ctrl.u_size = (length - 1) & 31;
        expect_value(ccb_to_scan_lower, 65);
        expect_value(ccb_to_scan_upper, 1);
        expect_value(ccb_to_scan_value, 65);
        block.ctrl.l_size = kel_lu_unused;
        expect_value(ccb_to_scan_value, 1);
    }
}

TEST(blocks, kill_words)
{
    const char *const words[] = {"COMPLETED", "DEQUEUED", "KILLED", "NOT FOUND", "INTERNAL ERROR"};
    for (const unsigned result : {0u, 1u, 2u, 3u, 4u, 65535u})
        EXPECT_STREQ(kel_kill_status_str(static_cast<uint16_t>(result)), words[result < 4 ? result : 4]);
}

TEST(blocks, submit_is_refused)
{
    kel_submit_res_t result = {1, 2, 3, 4};
    const lines_t lines = lines_without_context([&] {
        EXPECT_EQ(kel_submit(nullptr, 0, 0, nullptr), -1);
        EXPECT_EQ(kel_submit(nullptr, 64, UINT32_MAX, &result), -1);
    });
    EXPECT_EQ(lines, lines_t(2, log_text("ERROR", "kel_submit not supported on x64")));
    EXPECT_EQ(kel_debug_calls, 2u);
    EXPECT_EQ(places(result), "0:01 2:02 4:03 8:04 16");
}
