// Every operation as a call and as a posted request: what its validators report, in which order, and what its lines
// say. A request is good until a row spoils it.
#include "kel_text.h"
#include "support.h"
#include <algorithm>
#include <climits>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>

#define UNKNOWN "(?\?\?)"

namespace
{

struct operation;

// What the operations take, in memory of its own, whose bytes are 0xee.
struct request {
    explicit request(const operation &op);

    // Other elements, which may have an aux stream; where they are, and how many, stays.
    static void set(kel_vec_t &v, uint64_t format, uint32_t width, uint8_t offset = 0, uint16_t aux_width = 0,
                    uint8_t aux_offset = 0)
    {
        v = {format, v.elements, v.data, width, offset, aux_offset, aux_width, nullptr, nullptr, 0};
    }

    // A source with an aux stream of these bytes.
    void set_aux(uint64_t format, uint16_t width, std::initializer_list<uint8_t> stream)
    {
        set(src, format, 1, 0, width);
        src.aux_data = std::copy(stream.begin(), stream.end(), bytes + 192) - stream.size();
    }

    alignas(64) uint8_t bytes[512];
    kel_vec_t src, dst, second; // a mask, a bitmap, or a second source
    kel_int_t lower = {KEL_BYTES, 1, {0, 0, 0xdd}}, upper = {KEL_BYTES, 1, {0, 0, 0xff}};
    kel_compare_t value_op = KEL_GE, range_op = KEL_GE_AND_LE;
    uint64_t flags = 0, count = 8;
    uint32_t val_width = 8;
};

struct operation {
    const char *group;
    uint64_t src_format, dst_format, second_elements;
    kel_result_t (*call)(kel_context_t *, const request &);
    kel_status_t (*post)(kel_queue_t *, const request &, void *udata);
};

#define OPERATION(group, src, dst, elements, name, ...)                                                                \
    {                                                                                                                  \
#group, src, dst, elements,                                                                                    \
            [](kel_context_t *c, const request &r) { return kel_##name(c, r.flags __VA_OPT__(, ) __VA_ARGS__); },      \
            [](kel_queue_t *q, const request &r, void *udata) {                                                        \
                return kel_##name##_post(q, r.flags, __VA_ARGS__ __VA_OPT__(, ) udata);                                \
            }       \
    }

const operation operations[] = {
    OPERATION(nop, 0, 0, 0, nop),
    OPERATION(scan, KEL_BYTES, KEL_BITS, 0, scan_range, &r.src, &r.dst, r.range_op, &r.lower, &r.upper),
    OPERATION(scan, KEL_BYTES, KEL_BITS, 0, scan_value, &r.src, &r.dst, r.value_op, &r.lower),
    OPERATION(select, KEL_BYTES, KEL_BYTES, 8, select, &r.src, &r.dst, &r.second),
    OPERATION(extract, KEL_BYTES, KEL_BYTES, 0, extract, &r.src, &r.dst),
    OPERATION(translate, KEL_BYTES, KEL_BITS, 256, translate, &r.src, &r.dst, &r.second, r.val_width),
    OPERATION(logical, KEL_BITS, KEL_BITS, 8, and, &r.src, &r.second, &r.dst),
    OPERATION(logical, KEL_BITS, KEL_BITS, 8, or, &r.src, &r.second, &r.dst),
    OPERATION(logical, KEL_BITS, KEL_BITS, 8, xor, &r.src, &r.second, &r.dst),
    OPERATION(copy, 0, 0, 0, copy, r.src.data, r.dst.data, r.count),
    OPERATION(fill, 0, 0, 0, fill, 0x102, r.dst.data, r.count, r.val_width),
};
const operation &scan_value = operations[2];

request::request(const operation &op)
    : src{op.src_format, 8, bytes + 128, 1, 0, 0, 0, bytes + 64, nullptr, 0},
      dst{op.dst_format, 8, bytes + 256, 1, 0, 0, 0, nullptr, nullptr, 0}, second{KEL_BITS, op.second_elements,
                                                                                  bytes,    1,
                                                                                  0,        0,
                                                                                  0,        nullptr,
                                                                                  nullptr,  0}
{
    memset(bytes, 0xee, sizeof bytes);
}

// ---- What is to be seen -----------------------------------------------------------------------------------------------

// The lines below a head in the transcript, which shows an end of line as \n. With TRANSCRIPT_OUT set, what is seen goes
// into that file, as it is the first time.
lines_t transcript(const std::string &head, const lines_t &seen)
{
    static const auto sections = [] {
        std::map<std::string, lines_t> made;
        std::ifstream file(TRANSCRIPT);
        lines_t *section = &made[""];
        for (std::string line; std::getline(file, line);)
            if (line.starts_with("> "))
                section = &made[line.substr(2)];
            else
                section->push_back(line);
        return made;
    }();
    static std::set<std::string> heads;
    if (const char *path = getenv("TRANSCRIPT_OUT"); path && heads.insert(head).second) {
        std::ofstream file(path, std::ios::app);
        file << "> " << head << '\n';
        for (const std::string &line : seen)
            file << line << '\n';
    }
    return sections.count(head) ? sections.at(head) : lines_t{"not in the transcript"};
}

bool replace(std::string &line, const std::string &from, const std::string &to)
{
    const size_t found = line.find(from);
    if (found != std::string::npos)
        line.replace(found, from.size(), to);
    return found != std::string::npos;
}

lines_t escaped(lines_t lines)
{
    for (std::string &line : lines)
        while (replace(line, "\n", "\\n"))
            ;
    return lines;
}

// ---- Refusals -------------------------------------------------------------------------------------------------------

struct refusal {
    std::string group;
    uint32_t debug;
    uint32_t version; // the only one, if not 0
    std::string spoiled;
    void (*spoil)(request &);
};

#define ROW(group, debug, version, ...)                                                                                \
    {                                                                                                                  \
#group, debug, version, #__VA_ARGS__, [](request & r) { __VA_ARGS__; }                                         \
    }

// The test of the thread comes first, in a copy behind the flags, and in a scan behind the vectors. A nop has none, and
// a fill looks at the width alone first.
bool before_thread(const std::string &group, const std::string &line)
{
    return (group == "scan" && (line.starts_with("Invalid src") || line.starts_with("Invalid dst"))) ||
           (group == "copy" && line.starts_with("Invalid flags"));
}

// The transcript has the lines of a call in the last version by the context's thread, and those of a range scan.
lines_t expected_lines(const std::string &group, lines_t lines, bool value, uint32_t version, bool posted, bool foreign)
{
    std::erase_if(lines, [&](const std::string &line) {
        return (posted && line.starts_with("Synchronization")) || (value && line.find("upper") != std::string::npos);
    });
    for (std::string &line : lines) {
        if (value)
            replace(line, "lower", "val");
        if (version == 1) {
            replace(line, "1-24 bits", "1-16 bits");
            replace(line, "must be 16", "must be 64");
            replace(line, "|pipe_src|pipe_aux|pipe_mask", "");
        }
    }
    if (foreign && group != "nop" && (group != "fill" || !lines[0].starts_with("Invalid val_width")))
        lines.insert(std::find_if(lines.begin(), lines.end(), [&](auto &line) { return !before_thread(group, line); }),
                     test_context::wrong_thread());
    return lines;
}

// Each row in both versions, at once and posted, by the context's thread and a foreign one, with lines and without.
void expect_refusals(const std::vector<refusal> &rows)
{
    for (const refusal &row : rows)
        for (const operation &op : operations)
            for (int variant = 15; variant >= 0 && op.group == row.group; variant--) {
                const uint32_t version = 1 + variant % 2, level = variant & 2 ? KEL_LOG_ERROR : 0;
                const bool posted = !(variant & 4), foreign = !(variant & 8);
                if ((row.version && row.version != version) || (foreign && row.debug != KEL_DEBUG_ARG))
                    continue;
                const std::string head = row.group + ", debug " + std::to_string(row.debug) + ": " + row.spoiled;
                SCOPED_TRACE(head + ", variant " + std::to_string(variant));
                test_context ctx(version, row.debug, level);
                kel_queue_t *queue = open_queue(ctx, 1);
                request r(op);
                row.spoil(r);
                r.flags &= ~(posted ? KEL_COND | KEL_SERIAL | KEL_PIPE_FLAGS : 0);
                const std::string before = hex(r.bytes, sizeof r.bytes);
                if (foreign)
                    ctx.disown();
                const kel_status_t status = posted ? op.post(queue, r, nullptr) : op.call(ctx, r).status;
                const lines_t seen = escaped(ctx.messages());
                const lines_t lines =
                    expected_lines(row.group, transcript(head, seen), &op == &scan_value, version, posted, foreign);
                EXPECT_EQ(status, lines.empty() ? KEL_SUCCESS : foreign ? KEL_ETHREAD : KEL_EINVAL);
                EXPECT_EQ(seen, level ? lines : lines_t());
                EXPECT_EQ(kel_debug_calls, lines.size());
                EXPECT_TRUE(lines.empty() || hex(r.bytes, sizeof r.bytes) == before);
            }
}

// A flag that does not exist, by itself: it keeps a request that is good but for this from its kernel.
constexpr uint64_t other = 1 << 11;

} // namespace

TEST(refusals, for_one_field)
{
    expect_refusals({
        ROW(scan, 1, 0, r.flags = other; r.set(r.src, KEL_BYTES, 8, 7, 99, 99)),
            ROW(scan, 1, 0, r.flags = other; r.set(r.src, KEL_BYTES, 16)),
            ROW(scan, 1, 0, r.flags = other; r.set(r.src, KEL_BITS, 1)),
            ROW(scan, 1, 2, r.flags = other; r.set(r.src, KEL_BITS, 24)),
            ROW(scan, 1, 0, r.flags = other; r.set(r.src, KEL_BITS, 16)),
            ROW(scan, 1, 0, r.flags = other; r.set(r.src, KEL_VAR | KEL_ADD_ONE | KEL_ZIP, 0, 7, 1, 7)),
            ROW(extract, 1, 0, r.flags = other; r.set(r.src, KEL_RLE | KEL_BITS | KEL_ADD_ONE, 3, 0, 2)),
            ROW(select, 1, 0, r.flags = other; r.set(r.src, KEL_BITS | KEL_ZIP, 3)),
            ROW(translate, 1, 0, r.flags = other; r.set(r.src, KEL_BITS | KEL_RLE | KEL_ADD_ONE, 8, 0, 4)),
            ROW(scan, 1, 0, r.set(r.src, KEL_BYTES, 8, 8)), ROW(scan, 1, 0, r.set(r.src, KEL_BYTES, 9, 1)),
            // The last of the widths is one byte modulo 2^32 bits.
            ROW(scan, 1, 0, r.set(r.src, KEL_RLE, 0, 0, 1)), ROW(scan, 1, 0, r.set(r.src, KEL_BITS, 25)),
            ROW(scan, 1, 1, r.set(r.src, KEL_BITS, 17)), ROW(extract, 1, 0, r.set(r.src, KEL_VAR, 17, 0, 8)),
            ROW(scan, 1, 0, r.src.elem_width = 0x20000001),
            // Formats that the operation refuses ask for no aux stream.
            ROW(select, 1, 0, r.set(r.src, KEL_RLE | KEL_ADD_ONE, 1, 0, 9, 9)),
            ROW(translate, 1, 0, r.set(r.src, KEL_VAR | KEL_ADD_ONE, 1, 0, 9, 9)),
            ROW(scan, 1, 0, r.set(r.src, 31 << 10, 1)), ROW(scan, 1, 0, r.set(r.src, KEL_VAR | KEL_RLE, 1, 0, 8)),
            ROW(scan, 1, 0, r.set(r.src, KEL_VAR | KEL_BITS, 0, 0, 8)),
            ROW(scan, 1, 0, r.set(r.src, KEL_ADD_ONE | KEL_ZIP, 1)), ROW(scan, 1, 0, r.set(r.src, KEL_RLE, 1)),
            ROW(scan, 1, 0, r.set(r.src, KEL_VAR, 0, 0, 16)), ROW(scan, 1, 0, r.set(r.src, KEL_RLE, 1, 0, 8, 8)),
            ROW(extract, 1, 0, r.flags = other; r.set(r.dst, KEL_BYTES, 16, 0, 3, 9)),
            ROW(extract, 1, 0, r.flags = other; r.set(r.dst, KEL_BITS, 8)),
            ROW(extract, 1, 0, r.set(r.dst, KEL_BYTES, 0)), ROW(extract, 1, 0, r.set(r.dst, KEL_BYTES, 32)),
            ROW(extract, 1, 0, r.dst.elem_width = 0x20000001), ROW(select, 1, 0, r.set(r.dst, KEL_BITS, 4)),
            ROW(select, 1, 0, r.set(r.dst, KEL_RLE | KEL_BITS, 8)),
            ROW(scan, 1, 0, r.flags = other; r.set(r.dst, KEL_BYTES, 2);
                r.flags |= KEL_ONES_INDEX | KEL_CACHE | KEL_NOWAIT),
            ROW(scan, 1, 0, r.flags = other; r.set(r.dst, KEL_BITS, 32); r.flags |= KEL_ONES_INDEX),
            ROW(scan, 1, 0, r.set(r.dst, KEL_BITS, 16)), ROW(scan, 1, 0, r.set(r.dst, KEL_BYTES, 8); r.flags = 1),
            ROW(scan, 1, 0, r.set(r.dst, KEL_BITS | KEL_VAR, 1); r.dst.data = r.bytes + 63),
            ROW(scan, 1, 0, r.lower = {KEL_BITS, 25, {}}), ROW(scan, 1, 1, r.lower = {KEL_BITS, 17, {}}),
            ROW(scan, 1, 0, r.upper = {KEL_BITS, 0, {}}),
            ROW(logical, 1, 0, r.set(r.src, KEL_BITS, 8); r.dst.elements = 7),
            ROW(translate, 1, 2, r.set(r.src, KEL_BITS, 17); r.flags = 1; r.set(r.dst, KEL_BYTES, 1)),
            ROW(translate, 1, 1, r.set(r.src, KEL_BITS, 17)),
            // The text of flags is cut at 39 characters.
            ROW(scan, 1, 0, r.flags = 7 << 11 | 28 | KEL_CACHE), ROW(nop, 1, 0, r.flags = KEL_COND),
            ROW(nop, 1, 0, r.flags = KEL_SERIAL | KEL_NOWAIT), ROW(nop, 1, 0, r.flags = 31),
            ROW(nop, 14, 0, r.flags = UINT64_MAX), ROW(copy, 1, 0, r.flags = KEL_PAD | KEL_COND),
            ROW(fill, 1, 0, r.flags = 0x7ff; r.val_width = 0x103), ROW(fill, 1, 0, r.flags = KEL_PAD | KEL_SERIAL),
    });
}

// Descriptors that are broken in all ways at once: the order of the lines.
TEST(refusals, all_at_once)
{
    expect_refusals({
        ROW(scan, 3, 0, r.src = {23 | 1 << 11, 9, r.dst.data, 129, 3, 200, 6, r.dst.data, nullptr, 0};
            r.dst = {KEL_ZIP, 3, r.bytes + 257, 1, 2, 0, 0, nullptr, nullptr, 0};
            r.value_op = r.range_op = kel_compare_t{6}; r.flags = KEL_PAD | KEL_SERIAL;
            r.lower = {KEL_RLE | KEL_BITS, 0, {1, 1, 1}}; r.upper = {1 << 5, 32, {1, 1, 1}}),
            ROW(select, 1, 0, r.src.elements = 9; r.set(r.src, KEL_BITS | KEL_RLE | KEL_VAR, 25, 8);
                r.set(r.dst, KEL_ZIP, 3, 1); r.dst.data = r.bytes + 67; r.set(r.second, KEL_VAR, 1, 9);
                r.flags = 0x7ff),
            ROW(extract, 1, 0, r.src.elements = 9; r.set(r.src, KEL_RLE | KEL_VAR | KEL_BITS | 32, 129, 1, 3, 8);
                r.set(r.dst, KEL_BITS | KEL_ADD_ONE, 7, 1); r.dst.data = r.bytes + 67; r.flags = 0x7ff),
            ROW(translate, 1, 0, r.src.elements = 9; r.set(r.src, KEL_ZIP | KEL_ADD_ONE, 4, 8);
                r.set(r.dst, KEL_RLE, 4, 1);
                r.second = {KEL_BYTES, (1 << 24) + 1, r.bytes + 67, 2, 1, 0, 0, nullptr, nullptr, 0};
                r.dst.data = r.bytes + 67; r.flags = KEL_PAD | KEL_COND; r.val_width = 25),
            ROW(logical, 1, 0, r.src.elements = 9; r.set(r.src, KEL_BYTES, 1, 8);
                r.set(r.second, KEL_BITS | KEL_ZIP, 2, 9); r.set(r.dst, KEL_VAR | KEL_BITS, 3, 1);
                r.dst.data = r.bytes + 67; r.flags = 0x7ff),
    });
}

// Where a row is to show that something is no fault, an overlap keeps the request from its kernel. A plain fault keeps
// the data from being looked at, and each debug option arms its own tests alone.
TEST(refusals, in_the_data)
{
    expect_refusals({
        ROW(scan, 3, 0, r.src.elements = 4; r.set_aux(KEL_RLE, 8, {2, 2, 2, 2})),
            ROW(scan, 3, 0, r.src.elements = 4; r.set_aux(KEL_RLE, 8, {2, 2, 2, 3})),
            ROW(scan, 3, 0, r.set_aux(KEL_RLE, 1, {0})),
            ROW(scan, 2, 0, r.set_aux(KEL_RLE, 16, {9, 9}); r.src.data = r.dst.data),
            ROW(scan, 3, 0, r.set_aux(KEL_VAR, 8, {1, 15, 16})),
            ROW(scan, 2, 0, r.set_aux(KEL_VAR, 4, {}); r.src.data = r.dst.data),
            ROW(scan, 3, 0, r.set_aux(KEL_RLE, 1, {}); r.src.aux_data = r.dst.data),
            // Values: the bits above their whole bytes, in the word of the top byte.
            ROW(scan, 3, 0, r.lower = {KEL_BYTES, 16, {1, UINT64_MAX, 1}}),
            ROW(scan, 3, 0, r.lower = {KEL_BITS, 12, {1, 1, 0xffff}}),
            ROW(scan, 3, 0, r.lower = {KEL_BITS, 12, {0, 0, 0x10000}}),
            ROW(scan, 3, 0, r.lower = {KEL_BYTES, 9, {0, 0x100, 0}}),
            ROW(scan, 2, 0, r.lower = {KEL_BYTES, 17, {0x100, 0, 0}}),
            ROW(scan, 2, 0, r.src.data = r.dst.data; r.lower = {1, 193, {UINT64_MAX, 1, 1}};
                r.upper = {1, 0, {1, 1, 1}}),
            ROW(scan, 1, 0, r.lower.dword[2] = 0x105), ROW(scan, 3, 0, r.src.data = r.dst.data; r.flags = KEL_PAD),
            ROW(scan, 2, 0, r.src.data = r.dst.data; r.flags = KEL_PAD),
            ROW(scan, 2, 0, r.set(r.src, KEL_RLE | KEL_VAR, 1, 0, 8); r.src.data = r.src.aux_data = r.dst.data;
                r.lower.dword[2] = r.upper.dword[2] = 0x100),
            ROW(select, 2, 0, r.dst.data = r.src.data; r.dst.elements = 4), // 0xee has 6 ones
            ROW(select, 2, 0, r.dst.data = r.second.data; r.dst.elements = 6),
            ROW(extract, 2, 0, r.src.elements = 2; r.set(r.src, KEL_RLE, 1, 0, 8); r.src.data = r.bytes + 256;
                r.src.aux_data = r.bytes + 257),
            ROW(translate, 2, 0, r.second.elements = 8; r.val_width = 4), ROW(translate, 2, 0, r.second.elements = 238),
            ROW(translate, 2, 0, r.second.elements = 239),
            ROW(translate, 2, 0, r.second.data = r.dst.data; r.val_width = 0),
            ROW(translate, 2, 0, r.src.elements = 2; r.set(r.src, KEL_RLE, 4, 0, 8);
                r.src.data = r.src.aux_data = r.bytes + 256; r.second.elements = 8; r.val_width = 33),
            ROW(logical, 2, 0, r.src.data = r.second.data = r.dst.data),
            ROW(copy, 2, 0, r.dst.data = r.bytes + 136; r.count = 9), ROW(copy, 2, 0, r.dst.data = r.bytes + 136),
    });
}

// The flags of each operation, bit by bit.
TEST(refusals, flags)
{
    const std::map<std::string, uint64_t> masks = {{"nop", 0},        {"scan", 35},    {"select", 38}, {"extract", 38},
                                                   {"translate", 43}, {"logical", 26}, {"copy", 34},   {"fill", 34}};
    for (const operation &op : operations)
        for (unsigned bit = 0; bit < 64; bit++) {
            test_context ctx(1 + bit % 2);
            request r(op);
            r.flags = uint64_t{1} << bit;
            if (bit == 0)
                r.set(r.dst, KEL_BYTES, op.dst_format == KEL_BITS ? 2 : 1);
            EXPECT_EQ(op.call(ctx, r).status == KEL_SUCCESS, masks.at(op.group) >> bit & 1) << op.group << bit;
        }
}

// An operator is looked up modulo 32. A flag keeps the calls from their kernels.
TEST(refusals, operators)
{
    for (int op = 0; op < 64; op++)
        for (const bool range : {false, true}) {
            test_context ctx;
            request r(scan_value);
            r.value_op = r.range_op = static_cast<kel_compare_t>(op);
            r.flags = other;
            EXPECT_EQ(operations[2 - range].call(ctx, r).status, KEL_EINVAL);
            lines_t lines(1, std::string("Invalid op ") + scan_op_str(ctx, r.value_op, nullptr, 0));
            lines.resize(((range ? 0xaaaf0000 : 175) >> op % 32 & 1) == 0);
            lines.push_back("Invalid flags 11" UNKNOWN);
            EXPECT_EQ(ctx.messages(), lines);
        }
}

// What a request may follow in a queue, and which of its buffers the request before it has to have fed. A logical
// operation follows none, without a word.
TEST(refusals, chains)
{
    constexpr int none = -1, aux = 64, src = 128, second = 0; // places in the bytes
    const std::tuple<const char *, uint64_t, int> rows[] = {
        {"nop", KEL_PIPE_SRC, none},      {"fill", KEL_PIPE_SRC, none},      {"scan", KEL_PIPE_SRC, src},
        {"scan", KEL_PIPE_AUX, aux},      {"scan", KEL_PIPE_MASK, none},     {"select", KEL_PIPE_SRC, src},
        {"select", KEL_PIPE_AUX, aux},    {"select", KEL_PIPE_MASK, second}, {"extract", KEL_PIPE_SRC, src},
        {"extract", KEL_PIPE_MASK, none}, {"translate", KEL_PIPE_AUX, aux},  {"translate", KEL_PIPE_MASK, second},
        {"copy", KEL_PIPE_SRC, src},      {"copy", KEL_PIPE_AUX, none},      {"copy", KEL_PIPE_MASK, none},
        {"logical", KEL_PIPE_SRC, none}};
    for (const auto &[group, last, place] : rows)
        for (const operation &op : operations)
            for (const bool fed : {true, false}) {
                if (op.group != std::string(group))
                    continue;
                const std::string head = std::string(group) + " behind a pipe flag of " + std::to_string(last);
                SCOPED_TRACE(head);
                test_context ctx;
                kel_queue_t *queue = open_queue(ctx, 2);
                request r(op);
                void *const target = place == none ? nullptr : r.bytes + place, *const wrong = r.bytes + 448;
                EXPECT_EQ(kel_fill_post(queue, last, 0, fed ? target : wrong, 0, 1, nullptr), KEL_SUCCESS);
                const kel_status_t status = op.post(queue, r, nullptr);
                const lines_t seen = ctx.messages();
                lines_t lines = transcript(head, seen);
                if (!fed && op.group != std::string("logical"))
                    lines.insert(lines.begin(), "This request is a pipeline target, and src buffer " +
                                                    pointer_text(target) + " != dst buffer " + pointer_text(wrong) +
                                                    " of pipeline source; they must match");
                EXPECT_EQ(seen, lines);
                EXPECT_EQ(status == KEL_SUCCESS, fed && lines.empty() && op.group != std::string("logical"));
                EXPECT_EQ(kel_debug_calls, lines.size());
                r.flags = KEL_PIPE_SRC | KEL_PIPE_AUX;
                EXPECT_EQ(op.post(open_queue(ctx, 1), r, nullptr), KEL_EINVAL);
                EXPECT_EQ(ctx.messages().size(), op.group != std::string("logical"));
            }
}

// ---- Every call -----------------------------------------------------------------------------------------------------

namespace
{

constexpr uint32_t never = 0, by_arg = KEL_DEBUG_ARG, by_any = 15;

#define CALL(armed, ...)                                                                                               \
    calls.emplace_back(                                                                                                \
        armed, [&]([[maybe_unused]] kel_context_t *c, [[maybe_unused]] kel_queue_t *q) -> int { return __VA_ARGS__; })

// Calls of all operations and of what goes with them, and the debug options that keep a foreign thread out.
struct every_call {
    every_call()
    {
        for (const operation &op : operations) {
            const uint32_t armed = op.group == std::string("nop") ? never : by_arg;
            request &r = requests.emplace_back(op);
            r.flags = armed ? KEL_NOWAIT * !strchr("l", *op.group) : 0;
            CALL(armed, op.call(c, r).status);
            CALL(armed, op.post(q, r, at(5)));
        }
        request &bad = requests.emplace_back(scan_value);
        bad.value_op = kel_compare_t{4};
        CALL(by_arg, scan_value.call(c, bad).status);
        CALL(never, kel_nop(c, KEL_CACHE).status);
        CALL(never, kel_nop_post(q, UINT64_MAX, nullptr));
        CALL(by_any, kel_version(c, &version));
        CALL(by_any, kel_int_create(c, bad.bytes, 8, &value));
        CALL(by_any, kel_int_create(c, bad.bytes, 0, &value));
        CALL(by_any, kel_queue_create(c, 0, &made));
        CALL(by_any, kel_queue_create(c, INT_MIN, &made));
        CALL(by_any, kel_queue_create(c, 1, &made));
        CALL(by_arg, kel_cancel(q, at(5)));
        CALL(by_arg, kel_cancel(q, at(6)));
        CALL(by_arg, kel_poll(q, results, 0, INT64_MIN));
        CALL(by_arg, kel_poll(q, results, 1, 7));
        CALL(by_arg, kel_cancel_all(q));
        CALL(by_arg, kel_poll(q, results, -1, 0));
        CALL(never, kel_nop_post(q, KEL_CACHE, at(7)));
        CALL(never, (queue_get_next(q, 0, &wide, KEL_EDATAFMT, at(8), nullptr), 0));
        CALL(by_arg, kel_poll(q, results, 2, 0));
        CALL(by_arg, kel_poll(q, results, 2, 0));
        CALL(by_arg, kel_cancel_all(q));
        CALL(by_any, kel_queue_destroy(q));
    }

    std::deque<request> requests;
    uint32_t version = 0;
    kel_int_t value = {};
    kel_queue_t *made = nullptr;
    kel_poll_t results[20];
    const cca_t wide = {0xffffffff, 0xfffffffe, 0x100000005};
    std::vector<std::pair<uint32_t, std::function<int(kel_context_t *, kel_queue_t *)>>> calls;
};

} // namespace

// The lines of all calls: the same in both versions, and of the levels that are on. Addresses have names.
TEST(every_call, lines)
{
    for (const uint32_t version : {1u, 2u})
        for (const uint32_t levels : {63u, KEL_LOG_ERROR + 0u, KEL_LOG_ENTRY + 0u, KEL_LOG_RETURN + 0u}) {
            SCOPED_TRACE(testing::Message() << "version " << version << ", levels " << levels);
            every_call every;
            test_context ctx(version, KEL_DEBUG_ARG, levels);
            kel_queue_t *q = open_queue(ctx, std::size(operations));
            std::map<std::string, std::string> names = {{pointer_text(ctx), "CTX"},
                                                        {pointer_text(q), "QUEUE"},
                                                        {pointer_text(&every.made), "MADE"},
                                                        {pointer_text(&every.value), "VALUE"}};
            for (const request &r : every.requests)
                for (const auto &[name, place] : {std::pair{"SECOND", 0}, {"AUX", 64}, {"SRC", 128}, {"DST", 256}})
                    names[pointer_text(r.bytes + place)] = name;
            ctx.lines.clear();
            for (const auto &[armed, call] : every.calls)
                call(ctx, q);
            EXPECT_EQ(every.results[0].count, every.wide.retval); // its line shows half of it

            lines_t seen;
            for (const auto &[level, prefix, message] : ctx.lines) {
                EXPECT_EQ(prefix, log_text(log_str(level), ""));
                std::string &line = seen.emplace_back(std::string(log_str(level)) + ' ');
                for (size_t i = 0, end; i < message.size(); i = end) {
                    const bool address = message.compare(i, 2, "0x") == 0;
                    end = address ? message.find_first_not_of("0123456789abcdef", i + 2) : i + 1;
                    const std::string text = message.substr(i, end - i);
                    line += text == "\n" ? "\\n" : text.size() < 8 ? text : names.count(text) ? names[text] : "NEW";
                    end = std::min(end, message.size());
                }
            }
            lines_t expected = transcript("every call", seen);
            std::erase_if(expected, [&](const std::string &line) {
                uint32_t level = KEL_LOG_ERROR;
                while (level && !line.starts_with(log_str(level)))
                    level *= 2;
                return !(levels & level);
            });
            EXPECT_EQ(seen, expected);
        }
}

TEST(every_call, of_a_foreign_thread)
{
    for (const uint32_t debug : {0u, 1u, 2u, 4u, 8u})
        for (size_t i = 0; i < every_call().calls.size(); i++) {
            SCOPED_TRACE(testing::Message() << "debug options " << debug << ", call " << i);
            every_call every;
            const auto &[armed, call] = every.calls[i];
            test_context ctx(2, debug);
            kel_queue_t *q = open_queue(ctx, std::size(operations));
            EXPECT_EQ(kel_nop_post(q, 0, nullptr), KEL_SUCCESS);
            ctx.disown();
            const bool refused = debug & armed;
            EXPECT_TRUE(call(ctx, q) == KEL_ETHREAD || !refused);
            const lines_t lines = ctx.messages();
            EXPECT_EQ(std::count(lines.begin(), lines.end(), test_context::wrong_thread()), refused);
            EXPECT_EQ(kel_debug_calls, lines.size());
            EXPECT_TRUE(!refused || (q->rindx == 1 && q->findx == 0 && !every.made && every.version == 0));
            EXPECT_EQ(debug ? kel_thread_fini(ctx) : KEL_ETHREAD, KEL_ETHREAD);
        }
}
