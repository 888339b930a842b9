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
#include <sstream>
#include <stdexcept>

#define UNKNOWN "(?\?\?)"

namespace
{

struct operation;

// What the operations take, in memory of its own, whose bytes are 0xee.
struct request {
    explicit request(const operation &op);

    // Makes a row's word hold, as src.width=17. Formats are words; data are places in the bytes; aux, lower and upper are
    // lists.
    void spoil(const std::string &word);

    alignas(64) uint8_t bytes[512];
    kel_vec_t src, dst, second; // a mask, a bitmap, or a second source
    kel_int_t lower = {KEL_BYTES, 1, {0, 0, 0xdd}}, upper = {KEL_BYTES, 1, {0, 0, 0xff}};
    kel_compare_t value_op = KEL_GE, range_op = KEL_GE_AND_LE;
    uint64_t flags = 0, count = 8;
    uint32_t val_width = 8;
    uint32_t debug = KEL_DEBUG_ARG, version = 0; // under which it is made; 0: any
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

uint64_t number(const std::string &text)
{
    static const std::map<std::string, uint64_t> formats = {{"bytes", KEL_BYTES}, {"bits", KEL_BITS},
                                                            {"var", KEL_VAR},     {"rle", KEL_RLE},
                                                            {"zip", KEL_ZIP},     {"add1", KEL_ADD_ONE}};
    return formats.count(text) ? formats.at(text) : std::stoull(text, nullptr, 0);
}

void request::spoil(const std::string &word)
{
    const std::string name = word.substr(0, word.find('=')), field = name.substr(name.find('.') + 1);
    std::vector<uint64_t> list;
    uint64_t sum = 0; // of a format's words
    std::istringstream items(word.substr(name.size() + 1));
    for (std::string item; std::getline(items, item, word.find('|') == std::string::npos ? ',' : '|');
         sum |= list.back())
        list.push_back(number(item));
    const auto set = [&](auto &...to) { ((to = static_cast<std::remove_reference_t<decltype(to)>>(sum)), ...); };
    kel_vec_t &v = name[0] == 's' && name[1] == 'e' ? second : name[0] == 's' ? src : dst;
    if (field == "data" || field == "aux_data")
        (field == "data" ? v.data : v.aux_data) = bytes + sum;
    else if (name == "aux")
        src.aux_data = std::copy(list.begin(), list.end(), bytes + 192) - list.size();
    else if (name == "lower" || name == "upper")
        (name == "lower" ? lower : upper) = {
            static_cast<uint32_t>(list[0]), static_cast<uint32_t>(list[1]), {list[2], list[3], list[4]}};
    else if (name == "op")
        value_op = range_op = static_cast<kel_compare_t>(sum);
    else
        name == "flags"         ? set(flags)
        : name == "count"       ? set(count)
        : name == "val_width"   ? set(val_width)
        : name == "debug"       ? set(debug)
        : name == "version"     ? set(version)
        : field == "format"     ? set(v.format)
        : field == "elements"   ? set(v.elements)
        : field == "width"      ? set(v.elem_width)
        : field == "offset"     ? set(v.offset)
        : field == "aux_width"  ? set(v.aux_width)
        : field == "aux_offset" ? set(v.aux_offset)
                                : throw std::invalid_argument(word);
}

// ---- Refusals -------------------------------------------------------------------------------------------------------

// The transcript: heads, and the lines below each, with \n for an end of line.
std::vector<std::pair<std::string, lines_t>> sections()
{
    std::vector<std::pair<std::string, lines_t>> all;
    std::ifstream file(TRANSCRIPT);
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("> "))
            all.push_back({line.substr(2), {}});
        else if (!line.starts_with('#'))
            all.back().second.push_back(line);
    return all;
}

lines_t section(const std::string &head)
{
    for (const auto &[each, lines] : sections())
        if (each == head)
            return lines;
    return {"not in the transcript"};
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
    if (foreign && group != "nop" && (group != "fill" || lines.empty() || !lines[0].starts_with("Invalid val_width")))
        lines.insert(std::find_if(lines.begin(), lines.end(), [&](auto &line) { return !before_thread(group, line); }),
                     test_context::wrong_thread());
    return lines;
}

// A request in both versions, at once and posted, by the context's thread and a foreign one, with lines and without.
void expect_refusals(const operation &op, const std::string &spoiled, const lines_t &told)
{
    for (int variant = 0; variant < 16; variant++) {
        SCOPED_TRACE("variant " + std::to_string(variant));
        const uint32_t version = variant % 2 ? 1 : 2, level = variant & 2 ? 0 : KEL_LOG_ERROR;
        const bool posted = variant & 4, foreign = variant & 8;
        request r(op);
        std::istringstream words(spoiled);
        for (std::string word; words >> word;)
            r.spoil(word);
        if (r.version == 3 - version || (foreign && r.debug != KEL_DEBUG_ARG))
            continue;
        r.flags &= ~(posted ? KEL_COND | KEL_SERIAL | KEL_PIPE_FLAGS : 0);
        const std::string before = hex(r.bytes, sizeof r.bytes);
        test_context ctx(version, r.debug | KEL_DEBUG_PERF, level);
        ctx->events.cycles = 1;
        kel_queue_t *queue = open_queue(ctx, 1);
        if (foreign)
            ctx.disown();
        const lines_t lines = expected_lines(op.group, told, &op == &scan_value, version, posted, foreign);
        EXPECT_EQ(posted ? op.post(queue, r, nullptr) : op.call(ctx, r).status, lines.empty() ? KEL_SUCCESS
                                                                                : foreign     ? KEL_ETHREAD
                                                                                              : KEL_EINVAL);
        EXPECT_EQ(escaped(ctx.messages()), level ? lines : lines_t());
        EXPECT_EQ(kel_debug_calls, lines.size());
        EXPECT_TRUE(lines.empty() || hex(r.bytes, sizeof r.bytes) == before);
        // Calls that come as far as to a trace probe leave the counters reset; a posted fill goes through the call.
        const bool traced = op.group == std::string("fill") || (!posted && op.group != std::string("nop"));
        EXPECT_EQ(ctx->events.cycles, lines.empty() && traced ? 0u : 1u);
    }
}

} // namespace

// Each row of the transcript that has an operation with its debug options. Where it is to show that something is no
// fault, an unknown flag or an overlap keeps the request from its kernel.
TEST(refusals, of_the_transcript)
{
    unsigned rows = 0;
    for (const auto &[head, lines] : sections())
        for (const operation &op : operations)
            if (const std::string start = std::string(op.group) + " debug="; head.starts_with(start)) {
                SCOPED_TRACE(head);
                expect_refusals(op, head.substr(strlen(op.group)), lines);
                rows++;
            }
    EXPECT_GT(rows, 100u);
}

// The flags of each operation, bit by bit.
TEST(refusals, flags)
{
    const std::map<std::string, uint64_t> masks = {{"nop", 0},        {"scan", 35},    {"select", 38}, {"extract", 38},
                                                   {"translate", 43}, {"logical", 26}, {"copy", 34},   {"fill", 34}};
    for (const operation &op : operations)
        for (unsigned bit = 0; bit < 64; bit++) {
            test_context ctx(1 + bit % 2);
            ctx->events.cycles = 1;
            request r(op);
            r.flags = uint64_t{1} << bit;
            if (bit == 0)
                r.spoil(op.dst_format == KEL_BITS ? "dst.width=2" : "dst.width=1"), r.dst.format = KEL_BYTES;
            EXPECT_EQ(op.call(ctx, r).status == KEL_SUCCESS, masks.at(op.group) >> bit & 1) << op.group << bit;
            EXPECT_EQ(ctx->events.cycles, 1u);
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
            r.flags = 1 << 11;
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
                lines_t lines = section(head);
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
        CALL(by_arg, kel_fill_post(q, KEL_SERIAL, 0, requests[0].bytes + 256, 3, 2, at(9)));
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
            EXPECT_EQ(every.results[1].count, every.wide.retval); // its line shows half of it

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
            lines_t expected = section("every call");
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
