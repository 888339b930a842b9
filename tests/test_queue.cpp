// Queues and the rules of chains: random calls against a model of a queue, and the cases whose words are known.
#include "kel_frame.h"
#include "kel_sync.h"
#include "support.h"
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <thread>

namespace
{

using completion = std::tuple<kel_status_t, uint32_t, uint64_t, void *>; // the fields of kel_poll_t

std::string hex(const void *address)
{
    char text[24];
    snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(address));
    return text;
}

// An allocator that knows its blocks, at addresses as odd as wanted: each has to come back once, with its size.
struct block_ledger {
    size_t odd = 0;                // blocks are at this address modulo 16
    std::set<size_t> failing = {}; // the requests that get null, by number
    std::vector<uint64_t> asked = {};
    std::map<void *, uint64_t> live = {};

    static void *take(uint64_t size, void *cb_data)
    {
        auto &store = *static_cast<block_ledger *>(cb_data);
        store.asked.push_back(size);
        if (store.failing.count(store.asked.size() - 1))
            return nullptr;
        auto *block = static_cast<uint8_t *>(malloc(store.odd + size)) + store.odd;
        memset(block, 0xa5, size);
        store.live[block] = size;
        return block;
    }

    static void give(void *block, uint64_t size, void *cb_data)
    {
        auto &store = *static_cast<block_ledger *>(cb_data);
        ASSERT_EQ(store.live.count(block), 1u) << "not a block of this allocator";
        EXPECT_EQ(store.live[block], size);
        store.live.erase(block);
        free(static_cast<uint8_t *>(block) - store.odd);
    }

    kel_init_options_t options()
    {
        return {take, give, this};
    }
};

kel_queue_t *make_queue(kel_context_t *ctx, int length)
{
    kel_queue_t *queue = nullptr;
    EXPECT_EQ(kel_queue_create(ctx, length, &queue), KEL_SUCCESS);
    return queue;
}

// The indexes that rule a queue.
struct indexes {
    int findx = 0, rindx = 0, serial = -1, cond = -1, pipe_flags = 0;
    uint32_t nitems = 0;
    bool operator==(const indexes &) const = default;
};

void PrintTo(const indexes &i, std::ostream *out)
{
    *out << "findx " << i.findx << ", rindx " << i.rindx << ", serial " << i.serial << ", cond " << i.cond
         << ", pipe_flags " << i.pipe_flags << ", nitems " << i.nitems;
}

indexes indexes_of(const kel_queue_t *q)
{
    return {q->findx, q->rindx, q->serial_indx, q->cond_indx, q->last_pipe_flags, q->nitems};
}

// ---- The model ------------------------------------------------------------------------------------------------------

// Requests read 24 elements of one bit, and write one bit for each, to one of four buffers; with runs, the run counts
// are bits, too, so that the content of a buffer decides whether a scan meets a run of zero.
constexpr int n_buffers = 4;
constexpr unsigned n_elements = 24;
using memory = uint8_t[n_buffers][128];

enum kind_t { nop, value, range };
const char *const no_mask_target = // one text for both, braces included
    "kel_scan_{value/range}_post() cannot be a pipeline target for a source with pipe flags KEL_PIPE_MASK";

struct request {
    kind_t kind;
    uint64_t flags;
    uint64_t format;   // of the source
    int src, aux, dst; // buffers; -1: no aux stream
    uint64_t dst_elements;
    int op;
    bool low, high; // the values compared with; of a value scan the same
    void *udata;
};

struct operator_row {
    int op;
    const char *invalid; // its word, where it cannot be posted
    bool differs;        // matches what is neither of the values, instead of what is one of them
};
constexpr operator_row value_operators[] = {{KEL_EQ, nullptr, false}, {KEL_NE, nullptr, true}, {4, "4(?\?\?)", false}};
constexpr operator_row range_operators[] = {
    {KEL_EQ_OR_EQ, nullptr, false}, {KEL_NE_AND_NE, nullptr, true}, {20, "20(?\?\?)", false}};

const operator_row &operator_of(const request &r)
{
    const auto &rows = r.kind == value ? value_operators : range_operators;
    return r.op == rows[0].op ? rows[0] : r.op == rows[1].op ? rows[1] : rows[2];
}

bool bit(const uint8_t *bytes, unsigned index)
{
    return bytes[index / 8] >> (7 - index % 8) & 1;
}

struct slot_t {
    kel_status_t status;
    cca_t cca;
    void *udata;
    const void *pipe_dst;
};

class queue_model
{
  public:
    uint32_t version, size, debug, levels;
    const kel_queue_t *queue; // for texts only
    uint8_t (*real)[128];     // where the real buffers are, for addresses only
    indexes at = {};
    std::vector<slot_t> slots = std::vector<slot_t>(size);
    memory bytes = {};
    lines_t lines = {}; // of the last call
    unsigned debug_calls = 0;
    int predecessor = 0; // the serial request that the last conditional one depends on

    int post(const request &r)
    {
        if (at.nitems == size)
            return report({"Queue " + hex(queue) + " is full"}), KEL_EQFULL;
        if (const lines_t faults = faults_of(r); !faults.empty())
            return report(faults), KEL_EINVAL;
        store(r, run(r));
        return KEL_SUCCESS;
    }

    int poll(int nres, std::vector<completion> &got)
    {
        if (at.nitems == 0)
            return report({"Queue is empty"}), KEL_EQEMPTY;
        for (; at.nitems && static_cast<int>(got.size()) != nres; at.nitems--) {
            const slot_t &s = slots[static_cast<size_t>(at.findx++)];
            got.emplace_back(s.status, 0, s.cca.retval, s.udata);
            if (levels & KEL_LOG_VERBOSE)
                lines.push_back("cca = { status=" + std::string(words.at(s.status)) +
                                ",\n  out_bytes=" + std::to_string(s.cca.output_sz) + ", syms_processed=" +
                                std::to_string(s.cca.n_processed) + ", retval=" + std::to_string(s.cca.retval) + " }");
        }
        return static_cast<int>(got.size());
    }

    int cancel(const void *udata) const
    {
        for (int i = at.findx; i < at.rindx; i++)
            if (slots[static_cast<size_t>(i)].udata == udata)
                return KEL_SUCCESS;
        return KEL_ENOMATCH;
    }

    int cancel_all()
    {
        return at.nitems ? KEL_SUCCESS : (report({"Queue is empty"}), KEL_EQEMPTY);
    }

    // What validation says, at the levels that are on; nothing if the request may run.
    lines_t faults_of(const request &r) const
    {
        lines_t faults;
        if (debug & KEL_DEBUG_ARG) {
            if (r.kind != nop)
                scan_faults(r, faults);
            chain_faults(r, faults);
        }
        if (faults.empty() && debug & KEL_DEBUG_EXTRA && r.kind != nop)
            data_faults(r, faults);
        return faults;
    }

  private:
    static inline const std::map<int, const char *> words = {
        {KEL_SUCCESS, "SUCCESS"}, {KEL_EPARSE, "EPARSE"}, {KEL_EDATAFMT, "EDATAFMT"}};

    void report(const lines_t &messages)
    {
        debug_calls += static_cast<unsigned>(messages.size());
        if (levels & KEL_LOG_ERROR)
            lines.insert(lines.end(), messages.begin(), messages.end());
    }

    const void *address(int buffer) const
    {
        return buffer < 0 ? nullptr : real[buffer];
    }

    static void scan_faults(const request &r, lines_t &faults)
    {
        if (r.flags & KEL_ONES_INDEX)
            faults.push_back("Invalid dst elem_width 1 bits; must be 2 or 4 bytes for KEL_ONES_INDEX");
        if (const char *word = operator_of(r).invalid)
            faults.push_back(std::string("Invalid op ") + word);
        if (r.dst_elements < n_elements)
            faults.push_back("dst elements " + std::to_string(r.dst_elements) + " is less than src elements 24");
    }

    void flag_faults(const request &r, lines_t &faults) const
    {
        static constexpr std::pair<uint64_t, const char *> names[] = {
            {1, "ones"}, {2, "cache"}, {4, "pad"}, {8, "invert"}, {16, "invert_src"}, {32, "nowait"}};
        const uint64_t bad = r.flags & ~uint64_t{(r.kind == nop ? 192u : 227u) + (version == 2 ? 1792 : 0)};
        std::string text;
        for (const auto &[flag, name] : names)
            if (bad & flag)
                text.append(text.empty() ? "" : "|").append(name);
        if (bad)
            faults.push_back("Invalid flags " + text); // version 1 has no words for the pipe flags
    }

    void chain_faults(const request &r, lines_t &faults) const
    {
        flag_faults(r, faults);
        const int last = at.rindx - 1;
        const bool after_serial = last >= 0 && at.serial == last, after_cond = last >= 0 && at.cond == last;
        if (!(r.flags & KEL_COND) && after_serial)
            faults.push_back("KEL_SERIAL request not followed by a KEL_COND request");
        if (r.flags & KEL_COND && !after_serial && !after_cond)
            faults.push_back("KEL_COND request has no KEL_SERIAL predecessor");
        if (version == 2)
            pipe_faults(r, faults);
        if (r.kind == nop && at.pipe_flags)
            faults.push_back("kel_nop_post() cannot be a pipeline target");
        if (r.kind != nop && at.pipe_flags & ~768)
            faults.push_back(no_mask_target);
    }

    void pipe_faults(const request &r, lines_t &faults) const
    {
        const uint64_t pipe = r.flags & 1792;
        if (pipe != 0 && pipe != 256 && pipe != 512 && pipe != 1280) {
            faults.push_back("Pipeline flag set incorrectly. Use one of KEL_PIPE_SRC, KEL_PIPE_MASK, or KEL_PIPE_AUX");
            return;
        }
        if (at.rindx == 0 || at.pipe_flags == 0)
            return;
        const void *source = slots[static_cast<size_t>(at.rindx) - 1].pipe_dst;
        const bool reads_src = r.kind != nop && at.pipe_flags == 256, reads_aux = r.kind != nop && at.pipe_flags == 512;
        const void *target = reads_src ? address(r.src) : reads_aux ? address(r.aux) : nullptr;
        if (source != target)
            faults.push_back("This request is a pipeline target, and src buffer " + hex(target) + " != dst buffer " +
                             hex(source) + " of pipeline source; they must match");
    }

    void data_faults(const request &r, lines_t &faults) const
    {
        uint64_t sum = 0;
        for (unsigned i = 0; i < n_elements; i++)
            sum += run_length(r, i);
        if (sum > r.dst_elements && r.format & KEL_RLE)
            faults.push_back("Invalid src: sum of aux_data runs (" + std::to_string(sum) + ") > dst elements (" +
                             std::to_string(r.dst_elements) + ")");
        if (sum == 0)
            faults.push_back("Invalid src aux_data: total length is 0");
        if (r.src == r.dst)
            faults.push_back("Invalid src or dst: src data and dst data overlap");
        if (r.aux == r.dst && r.format & KEL_RLE)
            faults.push_back("Invalid src or dst: src aux_data and dst data overlap");
    }

    unsigned run_length(const request &r, unsigned element) const
    {
        return r.format & KEL_RLE ? bit(bytes[r.aux], element) + (r.format & KEL_ADD_ONE ? 1u : 0u) : 1u;
    }

    // Carries a request out. The partial output of a failed one stays.
    slot_t run(const request &r)
    {
        if (r.kind == nop)
            return {KEL_SUCCESS, {}, r.udata, nullptr};
        slot_t s = {KEL_SUCCESS, {}, r.udata, address(r.dst)};
        if (levels & KEL_LOG_VERBOSE)
            lines.push_back(r.kind == value ? "Emulating kel_scan_value" : "Emulating kel_scan_range");
        const operator_row &op = operator_of(r);
        if (op.invalid)
            return s.status = KEL_EPARSE, s;
        std::vector<bool> out;
        for (unsigned i = 0; i < n_elements && s.status == KEL_SUCCESS; i++) {
            const unsigned length = run_length(r, i);
            const bool element = bit(bytes[r.src], i);
            const bool match = (element == r.low || element == r.high) != op.differs;
            out.insert(out.end(), length, match);
            s.cca.n_processed += length;
            s.cca.retval += match ? length : 0;
            if (length == 0) {
                s.status = KEL_EDATAFMT;
                report({"EDATAFMT at element index " + std::to_string(i + 1)});
            }
        }
        s.cca.output_sz = out.empty() ? 0 : 64;
        memset(bytes[r.dst], 0, s.cca.output_sz);
        for (size_t i = 0; i < out.size(); i++)
            bytes[r.dst][i / 8] = static_cast<uint8_t>(bytes[r.dst][i / 8] | out[i] << (7 - i % 8));
        return s;
    }

    void store(const request &r, const slot_t &s)
    {
        if (at.nitems == 0)
            at = {};
        if (at.rindx == static_cast<int>(size)) { // serial and cond keep the numbers of slots that have moved
            slots.erase(slots.begin(), slots.begin() + at.findx);
            slots.resize(size);
            at.rindx -= at.findx;
            at.findx = 0;
        }
        slots[static_cast<size_t>(at.rindx)] = s;
        if (r.flags & KEL_COND) {
            at.cond = at.rindx;
            predecessor = at.serial;
        }
        if (r.flags & KEL_SERIAL)
            at.serial = at.rindx;
        at.pipe_flags = static_cast<int>(r.flags & 1792);
        at.rindx++;
        at.nitems++;
    }
};

// ---- Random calls ---------------------------------------------------------------------------------------------------

class random_calls
{
    using outcome = std::pair<int, int>; // got and expected

  public:
    random_calls(uint32_t version, int size, int debug_mode, size_t odd)
        : random(version * 1000u + static_cast<unsigned>(size * 10 + debug_mode)), mode(debug_mode), store{odd},
          options(store.options()), ctx(version, KEL_DEBUG_ARG, KEL_LOG_ERROR, &options),
          queue(make_queue(ctx, size)), model{version, static_cast<uint32_t>(size), 0, 0, queue, real}
    {
        random.fill(real, sizeof real);
        memcpy(model.bytes, real, sizeof real);
    }

    void step(std::set<std::string> &seen)
    {
        static constexpr uint32_t debug_options[] = {0, KEL_DEBUG_ARG, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA};
        static constexpr uint32_t log_levels[] = {0, KEL_LOG_ERROR, KEL_LOG_ERROR | KEL_LOG_VERBOSE};
        model.debug = ctx->debug_options = mode < 3 ? debug_options[mode] : random.pick(debug_options);
        model.levels = ctx->log.options = random.pick(log_levels);
        model.lines.clear();
        model.debug_calls = 0;
        reset_hooks();
        const uint64_t call = random.between(0, 99);
        void *udata = at(random.between(0, 9));
        const auto [got, expected] = call < 70   ? post()
                                     : call < 90 ? poll()
                                     : call < 97 ? outcome(kel_cancel(queue, udata), model.cancel(udata))
                                                 : outcome(kel_cancel_all(queue), model.cancel_all());
        EXPECT_EQ(got, expected);
        EXPECT_EQ(ctx.messages(), model.lines);
        EXPECT_EQ(kel_debug_calls, model.debug_calls);
        EXPECT_EQ(indexes_of(queue), model.at);
        EXPECT_EQ(memcmp(real, model.bytes, sizeof real), 0);
        seen.insert(kel_status_str(got < 0 ? got : 0));
        for (const std::string &line : model.lines)
            seen.insert(line.substr(0, line.find_first_of("0123456789")));
    }

  private:
    request draw()
    {
        request r = {};
        r.kind = static_cast<kind_t>(random.between(0, 2));
        const uint64_t flags = random.word() & (random.one_in(3) ? 1984 : 192);
        r.flags = flags | (random.one_in(8) ? random.word() & 63 : random.one_in(3) ? KEL_PIPE_SRC : 0);
        if (model.debug == 0)
            r.flags &= ~uint64_t{KEL_ONES_INDEX}; // no list of indexes fits in elements of one bit
        static constexpr uint64_t formats[] = {0, 0, KEL_RLE, KEL_RLE | KEL_ADD_ONE};
        static constexpr uint64_t dst_elements[] = {12, 24, 24, 48};
        r.format = KEL_BITS | random.pick(formats);
        r.dst = static_cast<int>(random.between(0, n_buffers - 1));
        do {
            r.src = static_cast<int>(random.between(0, n_buffers - 1));
            r.aux = static_cast<int>(random.between(0, n_buffers)) - 1;
        } while ((!(model.debug & KEL_DEBUG_EXTRA) && (r.src == r.dst || r.aux == r.dst)) ||
                 (r.format & KEL_RLE && r.aux < 0));
        r.dst_elements = random.pick(dst_elements);
        r.op = random.pick(r.kind == range ? range_operators : value_operators).op;
        r.low = random.one_in(2);
        r.high = r.kind == range ? random.one_in(2) : r.low;
        r.udata = at(random.between(0, 9));
        return r;
    }

    outcome post()
    {
        request r = draw();
        for (int tries = random.one_in(3) ? 0 : 8; tries && !model.faults_of(r).empty(); tries--)
            r = draw();
        const kel_vec_t src = {r.format, n_elements, real[r.src], 1, 0, 0, 1, r.aux < 0 ? nullptr : real[r.aux],
                               nullptr,  0};
        const kel_vec_t dst = {KEL_BITS, r.dst_elements, real[r.dst], 1, 0, 0, 0, nullptr, nullptr, 0};
        const kel_int_t low = {KEL_BITS, 1, {0, 0, r.low}}, high = {KEL_BITS, 1, {0, 0, r.high}};
        const auto op = static_cast<kel_compare_t>(r.op);
        const int got = r.kind == nop     ? kel_nop_post(queue, r.flags, r.udata)
                        : r.kind == value ? kel_scan_value_post(queue, r.flags, &src, &dst, op, &low, r.udata)
                                          : kel_scan_range_post(queue, r.flags, &src, &dst, op, &low, &high, r.udata);
        const int expected = model.post(r);
        if (expected == KEL_SUCCESS && r.flags & KEL_COND) {
            EXPECT_EQ(int{queue->state[queue->rindx - 1].serial_indx}, model.predecessor);
        }
        return {got, expected};
    }

    outcome poll()
    {
        static constexpr int capacities[] = {0, 1, 2, 3, 8, -1, INT_MIN};
        const int nres = random.pick(capacities);
        const kel_poll_t unwritten = {KEL_EBUSY, 77, 77, nullptr};
        std::vector<kel_poll_t> results(9, unwritten);
        const int got = kel_poll(queue, results.data(), nres, static_cast<int64_t>(random.word()));
        std::vector<completion> completions, expected;
        const int count = model.poll(nres, expected);
        for (const kel_poll_t &p : results)
            completions.emplace_back(p.status, p.reserved, p.count, p.udata);
        expected.resize(results.size(), {unwritten.status, unwritten.reserved, unwritten.count, unwritten.udata});
        EXPECT_EQ(completions, expected);
        return {got, count};
    }

    random_source random;
    const int mode; // an index of the debug options, or 3: they change from call to call
    alignas(64) memory real;
    block_ledger store;
    const kel_init_options_t options;
    test_context ctx;
    kel_queue_t *const queue;
    queue_model model;
};

} // namespace

TEST(queue, random_calls_against_the_model)
{
    std::set<std::string> seen;
    for (const uint32_t version : {1u, 2u})
        for (int size = 1; size <= 8; size++)
            for (int mode = 0; mode < 4; mode++) {
                random_calls calls(version, size, mode, size % 2 ? 1 : 0);
                for (int i = 0; i < 500; i++) {
                    SCOPED_TRACE(testing::Message()
                                 << "version " << version << ", size " << size << ", mode " << mode << ", step " << i);
                    calls.step(seen);
                    ASSERT_FALSE(testing::Test::HasFailure());
                }
            }
    // All the kinds of outcome have occurred.
    for (const char *text :
         {"SUCCESS", "EINVAL", "EQFULL", "EQEMPTY", "ENOMATCH", "cca = { status=EPARSE,\n  out_bytes=",
          "cca = { status=EDATAFMT,\n  out_bytes=", "Invalid src: sum of aux_data runs (",
          "Invalid src or dst: src aux_data and dst data overlap", "EDATAFMT at element index ", no_mask_target,
          "This request is a pipeline target, and src buffer "})
        EXPECT_EQ(seen.count(text), 1u) << text;
}

// ---- Chains ---------------------------------------------------------------------------------------------------------

// Sequences of nop posts: S, C and B have KEL_SERIAL, KEL_COND and both, '-' has neither, and '!' follows one that is
// refused. A digit polls that many.
TEST(chain, serial_and_conditional)
{
    const struct {
        const char *name;
        int size;
        const char *steps;
    } rows[] = {
        {"conditional first", 4, "C!B!S"},
        {"serial, plain", 4, "S-!S!C-"},
        {"serial, conditional, plain", 4, "SC-C!"},
        {"both", 5, "SB-!S!BC-"},
        {"a drained queue still counts", 1, "S1-!S!C1C1-"},
        {"the reset of the next store", 2, "SC2-C!"},
        {"a serial number that compaction has left behind", 3, "-SC2--!S!C1-"},
        {"a conditional number that compaction has left behind", 3, "-SC1-1C"},
    };
    for (const auto &row : rows)
        for (const uint32_t version : {1u, 2u}) {
            test_context ctx(version);
            kel_queue_t *queue = make_queue(ctx, row.size);
            for (const char *s = row.steps; *s; s++) {
                SCOPED_TRACE(testing::Message() << row.name << ": " << s);
                kel_poll_t results[8];
                if (*s >= '0' && *s <= '9') {
                    EXPECT_EQ(kel_poll(queue, results, *s - '0', 0), *s - '0');
                    continue;
                }
                const bool cond = *s == 'C' || *s == 'B', serial = *s == 'S' || *s == 'B', refused = s[1] == '!';
                const uint64_t flags = (cond ? KEL_COND : 0) | (serial ? KEL_SERIAL : 0);
                EXPECT_EQ(kel_nop_post(queue, flags, nullptr), refused ? KEL_EINVAL : KEL_SUCCESS);
                EXPECT_EQ(ctx.messages(), !refused ? lines_t{}
                                          : cond   ? lines_t{"KEL_COND request has no KEL_SERIAL predecessor"}
                                                   : lines_t{"KEL_SERIAL request not followed by a KEL_COND request"});
                s += refused;
            }
        }
}

// Which buffer a pipeline feeds. Illegal flags can come from a post without validation.
TEST(chain, fed_buffer)
{
    const kel_vec_t src = {0, 0, at(0x100), 0, 0, 0, 0, at(0x200), nullptr, 0};
    const kel_vec_t mask = {0, 0, at(0x300), 0, 0, 0, 0, nullptr, nullptr, 0};
    void *const buffer = at(0x400);
    const struct {
        uint64_t pipe_flags;
        const kel_vec_t *src, *mask;
        void *buffer;
        uintptr_t fed;
    } rows[] = {
        {KEL_PIPE_SRC, &src, &mask, buffer, 0x400},
        {KEL_PIPE_SRC, &src, &mask, nullptr, 0x100},
        {KEL_PIPE_SRC, nullptr, &mask, nullptr, 0},
        {KEL_PIPE_SRC, nullptr, nullptr, buffer, 0x400},
        {KEL_PIPE_AUX, &src, &mask, buffer, 0x200},
        {KEL_PIPE_AUX, nullptr, &mask, buffer, 0},
        {KEL_PIPE_MASK, &src, &mask, buffer, 0x300},
        {KEL_PIPE_MASK, &src, nullptr, buffer, 0},
        {KEL_PIPE_SRC | KEL_PIPE_AUX, &src, &mask, buffer, 0},
        {1024, &src, &mask, buffer, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        test_context ctx;
        kel_queue_t *queue = make_queue(ctx, 2);
        const cca_t cca = {};
        queue_get_next(queue, row.pipe_flags, &cca, KEL_SUCCESS, nullptr, at(row.fed));
        EXPECT_EQ(pipe_flags_valid(ctx, queue, 0, row.src, row.mask, row.buffer, 2, 1), 1);
        EXPECT_EQ(ctx.messages(), lines_t());
        queue_get_next(queue, row.pipe_flags, &cca, KEL_SUCCESS, nullptr, at(0x40));
        EXPECT_EQ(pipe_flags_valid(ctx, queue, 0, row.src, row.mask, row.buffer, 1, 1), 1);
        EXPECT_EQ(pipe_flags_valid(ctx, nullptr, 1024, row.src, row.mask, row.buffer, 2, 1), 1);
        EXPECT_EQ(pipe_flags_valid_post0(queue, 0, row.src, row.mask, row.buffer, 0), 0);
        EXPECT_EQ(ctx.messages(), lines_t());
        EXPECT_EQ(pipe_flags_valid(ctx, queue, 0, row.src, row.mask, row.buffer, 2, 1), 0);
        EXPECT_EQ(ctx.messages(), lines_t{"This request is a pipeline target, and src buffer " + hex(at(row.fed)) +
                                          " != dst buffer 0x40 of pipeline source; they must match"});
    }
}

// A small scan.
alignas(64) static uint8_t in[64] = {0x12, 0x32}, out[128];
static const kel_vec_t src = {KEL_BITS, 4, in, 4, 0, 0, 0, nullptr, nullptr, 0};
static const kel_vec_t dst = {KEL_BITS, 4, out, 1, 0, 0, 0, nullptr, nullptr, 0};
static const kel_int_t two = {KEL_BITS, 4, {0, 0, 2}}, three = {KEL_BITS, 4, {0, 0, 3}};

// ---- Lines ----------------------------------------------------------------------------------------------------------

TEST(lines, of_every_call)
{
    const cca_t wide = {0xffffffff, 0xfffffffe, 0x100000005};
    test_context ctx(2, KEL_DEBUG_ARG, 15);
    kel_queue_t *const untouched = reinterpret_cast<kel_queue_t *>(0x40);
    kel_queue_t *queue = untouched;
    kel_poll_t results[3];
    EXPECT_EQ(kel_queue_create(ctx, 0, &queue), KEL_EINVAL);
    EXPECT_EQ(kel_queue_create(ctx, INT_MIN, &queue), KEL_EINVAL);
    EXPECT_EQ(queue, untouched);
    EXPECT_EQ(kel_debug_calls, 0u);
    EXPECT_EQ(kel_queue_create(ctx, 3, &queue), KEL_SUCCESS);
    kel_poll(queue, results, 3, INT64_MIN);
    kel_cancel_all(queue);
    kel_cancel(queue, nullptr);
    kel_nop_post(queue, KEL_CACHE, at(0x12));
    kel_scan_value_post(queue, KEL_NOWAIT, &src, &dst, KEL_EQ, &two, at(0x13));
    queue_get_next(queue, 0, &wide, KEL_EDATAFMT, at(0x14), nullptr);
    kel_scan_range_post(queue, KEL_NOWAIT, &src, &dst, KEL_EQ_OR_EQ, &two, &three, nullptr);
    kel_nop_post(queue, UINT64_MAX, nullptr);
    kel_cancel(queue, at(0x14));
    kel_cancel_all(queue);
    kel_poll(queue, results, 0, 5);
    kel_poll(queue, results, -1, 0);
    kel_queue_destroy(queue);
    EXPECT_EQ(results[1].count, wide.retval); // the line shows half of it

    const std::string c = hex(ctx.ctx), q = hex(queue), slot = hex(&queue);
    const std::string args = "ctx=" + c + ", flags=nowait,\n  src = { data=" + hex(in) +
                             ", elements=4, width=4, offset=0,\n      fmt=bits }\n  dst = { { data=" + hex(out) +
                             ", elements=4, width=1, offset=0, fmt=bits } }, \n";
    const std::string two_text = "{ elem_width=4, fmt=bits, dwords={0x0, 0x2} }";
    const std::string three_text = "{ elem_width=4, fmt=bits, dwords={0x0, 0x3} }";
    const std::string expected[] = {
        "ENTRY kel_queue_create(): ctx=" + c + ", qlen=0, &queue=" + slot,
        "RETURN kel_queue_create returns queue=0x0 and status EINVAL",
        "ENTRY kel_queue_create(): ctx=" + c + ", qlen=-2147483648, &queue=" + slot,
        "RETURN kel_queue_create returns queue=0x0 and status EINVAL",
        "ENTRY kel_queue_create(): ctx=" + c + ", qlen=3, &queue=" + slot,
        "RETURN kel_queue_create returns queue=" + q + " and status SUCCESS",
        "ENTRY kel_poll(): queue=" + q + ", nres=3, timeout=-9223372036854775808",
        "ERROR Queue is empty",
        "RETURN kel_poll() returns {EQEMPTY, num_completed=0}",
        "ENTRY kel_cancel_all(): queue=" + q,
        "ERROR Queue is empty",
        "RETURN kel_cancel_all() returns EQEMPTY",
        "ENTRY kel_cancel(): queue=" + q + ", udata=0x0",
        "RETURN kel_cancel() returns ENOMATCH",
        "ENTRY kel_nop_post()\n  udata = 0x12",
        "ERROR Invalid flags cache",
        "RETURN kel_nop_post() returns {EINVAL}",
        "ENTRY kel_scan_value_post(): " + args + "  op=EQ,\n  val=" + two_text + "\n  udata=0x13",
        "VERBOSE Emulating kel_scan_value",
        "RETURN kel_scan_value_post() returns {SUCCESS}",
        "ENTRY kel_scan_range_post(): " + args + "  op=EQ_OR_EQ,\n  lower = " + two_text +
            ",\n  upper = " + three_text + "\n  udata = 0x0",
        "VERBOSE Emulating kel_scan_range",
        "RETURN kel_scan_range_post returns {SUCCESS}",
        "ENTRY kel_nop_post()\n  udata = 0x0",
        "ERROR Queue " + q + " is full",
        "RETURN kel_nop_post() returns {EQFULL}",
        "ENTRY kel_cancel(): queue=" + q + ", udata=0x14",
        "RETURN kel_cancel() returns SUCCESS",
        "ENTRY kel_cancel_all(): queue=" + q,
        "RETURN kel_cancel_all() returns SUCCESS",
        "ENTRY kel_poll(): queue=" + q + ", nres=0, timeout=5",
        "RETURN kel_poll() returns {SUCCESS, num_completed=0}",
        "ENTRY kel_poll(): queue=" + q + ", nres=-1, timeout=0",
        "VERBOSE cca = { status=SUCCESS,\n  out_bytes=64, syms_processed=4, retval=2 }",
        "VERBOSE cca = { status=EDATAFMT,\n  out_bytes=4294967295, syms_processed=4294967294, retval=5 }",
        "VERBOSE cca = { status=SUCCESS,\n  out_bytes=64, syms_processed=4, retval=3 }",
        "RETURN kel_poll() returns {SUCCESS, num_completed=3}",
        "ENTRY kel_queue_destroy(): queue=" + q + "\n",
        "RETURN kel_queue_destroy() returns SUCCESS",
    };
    ASSERT_EQ(ctx.lines.size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); i++) {
        std::string line = ctx.lines[i].prefix.substr(strlen("libkel "));
        line.erase(line.find(':'));
        EXPECT_EQ(line.append(" ").append(ctx.lines[i].message), expected[i]);
    }
}

// ---- The queues of a context ----------------------------------------------------------------------------------------

static std::vector<const kel_queue_t *> listed(const kel_context_t *ctx)
{
    std::vector<const kel_queue_t *> queues;
    for (const kel_queue_list_t *node = ctx->qlist; node; node = node->next)
        queues.push_back(node->queue);
    return queues;
}

TEST(queues, creation_without_memory)
{
    const size_t sizes[] = {sizeof(kel_queue_t), sizeof(kel_queue_list_t), sizeof(ccb_state_t)};
    const struct {
        int length;
        std::vector<size_t> failing; // which of the three blocks: the queue, its node, its slots
        size_t asked;
    } rows[] = {{5, {0}, 2}, {5, {1}, 2}, {5, {0, 1}, 2}, {5, {2}, 3}, {INT_MAX, {2}, 3}};
    for (const auto &row : rows)
        for (const uint32_t debug : {0u, 1u}) {
            SCOPED_TRACE(&row - rows);
            block_ledger store = {1};
            const kel_init_options_t options = store.options();
            test_context ctx(2, debug, KEL_LOG_ERROR | KEL_LOG_RETURN, &options);
            kel_queue_t *first = make_queue(ctx, 1);
            ctx.messages();
            const std::map<void *, uint64_t> live = store.live;
            const size_t start = store.asked.size();
            lines_t lines;
            for (const size_t block : row.failing) {
                store.failing.insert(start + block);
                lines.push_back("kel_calloc failed to allocate " +
                                std::to_string(sizes[block] * (block == 2 ? static_cast<size_t>(row.length) : 1)) +
                                " bytes");
            }
            lines.push_back("kel_queue_create returns queue=0x0 and status ENOMEM");
            kel_queue_t *queue = first;
            EXPECT_EQ(kel_queue_create(ctx, row.length, &queue), KEL_ENOMEM);
            EXPECT_EQ(queue, first);
            EXPECT_EQ(ctx.messages(), lines);
            EXPECT_EQ(kel_debug_calls, 0u);
            EXPECT_EQ(store.asked.size(), start + row.asked);
            EXPECT_EQ(store.live, live);
            EXPECT_EQ(listed(ctx), std::vector<const kel_queue_t *>{first});
        }
}

// The end of a context destroys its queues, the oldest first, with the outcomes that nobody has read.
TEST(queues, end_with_their_context)
{
    for (const size_t odd : {0u, 1u}) {
        block_ledger store = {odd};
        const kel_init_options_t options = store.options();
        kel_context_t *ctx;
        ASSERT_EQ(kel_thread_init(2, 1, KEL_ALLOC, &options, &ctx), KEL_SUCCESS);
        lines_t lines, expected;
        const kel_log_func_t capture = [](kel_context_t *, void *captured, uint32_t, const char *,
                                          const char *message) {
            static_cast<lines_t *>(captured)->push_back(message);
        };
        for (const int length : {3, 1, 2}) {
            kel_queue_t *queue = make_queue(ctx, length);
            EXPECT_EQ(kel_nop_post(queue, 0, nullptr), KEL_SUCCESS);
            expected.push_back("kel_queue_destroy(): queue=" + hex(queue) + "\n");
            expected.push_back("kel_queue_destroy() returns SUCCESS");
        }
        ASSERT_EQ(kel_set_log_callback(ctx, KEL_LOG_ALL, capture, &lines), KEL_SUCCESS);
        EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
        EXPECT_EQ(lines, expected);
        EXPECT_TRUE(store.live.empty());
    }
}

// Switching KEL_DEBUG_SYNC on names the first queue, in order of creation, that holds an outcome.
TEST(queues, outstanding_requests)
{
    for (const uint32_t debug : {0u, 1u})
        for (const uint32_t levels : {uint32_t{KEL_LOG_ERROR}, 0u}) {
            test_context ctx(1, debug, levels);
            EXPECT_EQ(debug_sync_check(ctx), 1);
            kel_queue_t *queues[] = {make_queue(ctx, 2), make_queue(ctx, 2), make_queue(ctx, 2)};
            kel_poll_t result;
            for (const int i : {0, 2, 1, 1})
                EXPECT_EQ(kel_nop_post(queues[i], 0, nullptr), KEL_SUCCESS);
            for (const int i : {0, 1, 1, 2}) {
                reset_hooks();
                EXPECT_EQ(kel_set_debug(ctx, debug | KEL_DEBUG_SYNC), KEL_EQFULL);
                EXPECT_EQ(ctx->debug_options, debug);
                EXPECT_EQ(kel_debug_calls, 1u);
                EXPECT_EQ(ctx.messages(), levels ? lines_t{"kel_set_debug(): Queue " + hex(queues[i]) +
                                                           " has outstanding requests that have not been polled"}
                                                 : lines_t());
                EXPECT_EQ(kel_poll(queues[i], &result, 1, 0), 1);
            }
            EXPECT_EQ(kel_set_debug(ctx, debug | KEL_DEBUG_SYNC), KEL_SUCCESS);
            EXPECT_EQ(kel_nop_post(queues[0], 0, nullptr), KEL_SUCCESS);
            EXPECT_EQ(kel_set_debug(ctx, debug | KEL_DEBUG_SYNC), KEL_SUCCESS); // it is on already
        }
}

// ---- Calls from a foreign thread ------------------------------------------------------------------------------------

static constexpr uint32_t never = 0, by_arg = KEL_DEBUG_ARG, by_any = KEL_DEBUG_ALL - 1;

TEST(queue, wrong_thread)
{
    kel_queue_t *created;
    kel_poll_t result;
    const struct {
        const char *name;
        std::function<int(kel_queue_t *)> call;
        uint32_t armed; // the debug options that keep a foreign thread out
        int passed;     // the result where none does
        const char *other_fault = nullptr;
    } rows[] = {
        {"create", [&](kel_queue_t *q) { return kel_queue_create(q->ctx, 0, &created); }, by_any, KEL_EINVAL},
        {"destroy", [&](kel_queue_t *q) { return kel_queue_destroy(q); }, by_any, KEL_SUCCESS},
        {"poll", [&](kel_queue_t *q) { return kel_poll(q, &result, 1, 0); }, by_arg, 1},
        {"cancel", [&](kel_queue_t *q) { return kel_cancel(q, at(1)); }, by_arg, KEL_ENOMATCH},
        {"cancel all", [&](kel_queue_t *q) { return kel_cancel_all(q); }, by_arg, KEL_SUCCESS},
        {"nop", [&](kel_queue_t *q) { return kel_nop_post(q, 0, nullptr); }, never, KEL_SUCCESS},
        {"nop with a bad flag", [&](kel_queue_t *q) { return kel_nop_post(q, KEL_PAD, nullptr); }, by_arg, KEL_SUCCESS,
         "Invalid flags pad"},
        {"value scan", [&](kel_queue_t *q) { return kel_scan_value_post(q, 0, &src, &dst, KEL_EQ, &two, nullptr); },
         by_arg, KEL_SUCCESS},
        {"range scan",
         [&](kel_queue_t *q) { return kel_scan_range_post(q, 0, &src, &dst, KEL_EQ_OR_EQ, &two, &three, nullptr); },
         by_arg, KEL_SUCCESS},
    };
    for (const auto &row : rows)
        for (const uint32_t debug : {0u, 1u, 2u, 4u, 8u}) {
            SCOPED_TRACE(testing::Message() << row.name << ", debug options " << debug);
            test_context ctx(2, debug);
            kel_queue_t *queue = make_queue(ctx, 2);
            EXPECT_EQ(kel_nop_post(queue, 0, nullptr), KEL_SUCCESS);
            const indexes before = indexes_of(queue);
            int status = 0, caller = 0;
            std::thread([&] {
                caller = static_cast<int>(pthread_self());
                status = row.call(queue);
            }).join();
            const bool refused = debug & row.armed;
            lines_t lines;
            if (refused) {
                const std::string owner = std::to_string(static_cast<int>(pthread_self()));
                lines = {row.other_fault
                             ? row.other_fault
                             : "Wrong thread " + std::to_string(caller) + " using context; owner is " + owner};
                EXPECT_EQ(indexes_of(queue), before);
            }
            EXPECT_EQ(status, refused ? KEL_ETHREAD : row.passed);
            EXPECT_EQ(ctx.messages(), lines);
            EXPECT_EQ(kel_debug_calls, lines.size());
        }
}
