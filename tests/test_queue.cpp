// Queues and the rules of chains: random calls against a model of a queue, and the queues of a context.
#include "kel_frame.h"
#include "kel_sync.h"
#include "support.h"
#include <algorithm>
#include <climits>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <set>

namespace
{

std::vector<int> indexes(const kel_queue_t &q)
{
    return {q.findx, q.rindx, q.serial_indx, q.cond_indx, q.last_pipe_flags, static_cast<int>(q.nitems)};
}

constexpr uint32_t changing = 99; // in the place of debug options: they change from call to call

// A nop, or a scan, which may fail.
struct request {
    bool scans = false, fails = false;
    small_scan scan = {};
    void *udata = nullptr;
};

// A queue and its model.
class random_calls
{
  public:
    random_calls(uint32_t version, int size, uint32_t debug_mode)
        : random(version * 1000u + static_cast<unsigned>(size) * 10 + debug_mode), mode(debug_mode), ctx(version),
          queue(open_queue(ctx, size))
    {
        reset_model();
    }

    // Makes one call, and keeps the lines in seen.
    void step(std::set<std::string> &seen)
    {
        ctx->debug_options = mode == changing ? random.pick({0u, 1u}) : mode;
        ctx->log.options = random.one_in(2) ? KEL_LOG_ERROR : 0;
        lines.clear();
        const uint64_t call = random.between(0, 99);
        void *udata = at(random.between(0, 9));
        int got, expected;
        reset_hooks();
        if (call < 70) {
            const request r = draw();
            expected = model_post(r);
            got = r.scans ? r.scan.value_post(queue, r.udata) : kel_nop_post(queue, r.scan.flags, r.udata);
            EXPECT_TRUE(got != KEL_SUCCESS || !(r.scan.flags & KEL_COND) ||
                        queue->state[queue->rindx - 1].serial_indx == predecessor);
        } else if (call < 90) {
            static constexpr int capacities[] = {0, 1, 2, 3, 8, -1, INT_MIN};
            const int nres = random.pick(capacities);
            kel_poll_t results[9], polled[9];
            memset(results, 0xa5, sizeof results);
            memset(polled, 0xa5, sizeof polled);
            expected = model_poll(polled, nres);
            got = kel_poll(queue, results, nres, static_cast<int64_t>(random.word()));
            EXPECT_EQ(memcmp(results, polled, sizeof results), 0);
        } else if (call < 97) {
            const auto same = [&](const kel_poll_t &outcome) { return outcome.udata == udata; };
            expected = std::any_of(waiting.begin(), waiting.end(), same) ? KEL_SUCCESS : KEL_ENOMATCH;
            got = kel_cancel(queue, udata);
        } else {
            expected = waiting.empty() ? report("Queue is empty", KEL_EQEMPTY) : KEL_SUCCESS;
            got = kel_cancel_all(queue);
        }
        EXPECT_EQ(got, expected);
        EXPECT_EQ(kel_debug_calls, lines.size());
        EXPECT_EQ(ctx.messages(), ctx->log.options ? lines : lines_t());
        model.nitems = static_cast<uint32_t>(waiting.size());
        EXPECT_EQ(indexes(*queue), indexes(model));
        for (const std::string &line : lines)
            seen.insert(line.substr(0, line.find_first_of("0123456789")));
    }

  private:
    // Scans one of the buffers into another, and names a third as the aux stream.
    request draw()
    {
        const auto buffer = [&] { return buffers[random.between(0, 3)]; };
        request r;
        for (int tries = random.one_in(3) ? 8 : 0; tries < 9; tries++) {
            r.scans = random.one_in(2);
            r.fails = r.scans && random.one_in(10);
            r.scan.flags = random.word() & (random.one_in(3) ? 1984 : 192);
            r.scan.flags |= random.one_in(8) ? KEL_PAD : random.one_in(3) ? KEL_PIPE_SRC : 0;
            r.scan.src.data = buffer();
            r.scan.src.aux_data = buffer();
            r.scan.dst.data = buffer();
            r.scan.value_op = r.fails ? kel_compare_t{4} : KEL_EQ;
            r.udata = at(random.between(0, 9));
            if (faults(r).empty())
                break;
        }
        memset(r.scan.src.data, 5, static_cast<size_t>(random.between(0, 4)));
        return r;
    }

    kel_status_t report(const std::string &line, kel_status_t status)
    {
        lines = {line};
        return status;
    }

    // What validation has to say, in its order. The last request counts after it has been polled, too, and the numbers
    // of serial and conditional requests after the slots have moved.
    lines_t faults(const request &r) const
    {
        lines_t messages;
        const uint64_t flags = r.scan.flags, pipe = flags & 1792;
        if (r.fails)
            messages.push_back("Invalid op 4(?\?\?)");
        if (flags & KEL_PAD || (pipe && ctx->api_version == 1))
            messages.push_back(flags & KEL_PAD ? "Invalid flags pad" : "Invalid flags ");
        const int last = model.rindx - 1, fed = model.last_pipe_flags;
        const bool after_serial = last >= 0 && model.serial_indx == last;
        const bool after_cond = last >= 0 && model.cond_indx == last;
        if (!(flags & KEL_COND) && after_serial)
            messages.push_back("KEL_SERIAL request not followed by a KEL_COND request");
        if (flags & KEL_COND && !after_serial && !after_cond)
            messages.push_back("KEL_COND request has no KEL_SERIAL predecessor");
        const void *target = r.scans && fed == 256   ? r.scan.src.data
                             : r.scans && fed == 512 ? r.scan.src.aux_data
                                                     : nullptr;
        if (ctx->api_version == 2 && pipe != 0 && pipe != 256 && pipe != 512 && pipe != 1280)
            messages.push_back(
                "Pipeline flag set incorrectly. Use one of KEL_PIPE_SRC, KEL_PIPE_MASK, or KEL_PIPE_AUX");
        else if (ctx->api_version == 2 && fed && pipe_dst != target)
            messages.push_back("This request is a pipeline target, and src buffer " + pointer_text(target) +
                               " != dst buffer " + pointer_text(pipe_dst) + " of pipeline source; they must match");
        if (r.scans ? fed & ~768 : fed)
            messages.push_back(r.scans ? "kel_scan_{value/range}_post() cannot be a pipeline target for a source with "
                                         "pipe flags KEL_PIPE_MASK"
                                       : "kel_nop_post() cannot be a pipeline target");
        return messages;
    }

    kel_status_t model_post(const request &r)
    {
        if (waiting.size() == queue->size)
            return report("Queue " + pointer_text(queue) + " is full", KEL_EQFULL);
        lines = ctx->debug_options & KEL_DEBUG_ARG ? faults(r) : lines_t();
        if (!lines.empty())
            return KEL_EINVAL;
        if (waiting.empty())
            reset_model();
        if (model.rindx == static_cast<int>(queue->size)) {
            model.rindx -= model.findx;
            model.findx = 0;
        }
        const auto *bytes = static_cast<const uint8_t *>(r.scan.src.data);
        const auto fives = static_cast<uint64_t>(std::count(bytes, bytes + 4, 5));
        waiting.push_back({r.fails ? KEL_EPARSE : KEL_SUCCESS, 0, r.scans && !r.fails ? fives : 0, r.udata});
        pipe_dst = r.scans ? r.scan.dst.data : nullptr;
        predecessor = model.serial_indx;
        if (r.scan.flags & KEL_COND)
            model.cond_indx = model.rindx;
        if (r.scan.flags & KEL_SERIAL)
            model.serial_indx = model.rindx;
        model.last_pipe_flags = static_cast<int>(r.scan.flags & 1792);
        model.rindx++;
        return KEL_SUCCESS;
    }

    int model_poll(kel_poll_t *results, int nres)
    {
        if (waiting.empty())
            return report("Queue is empty", KEL_EQEMPTY);
        int polled = 0;
        for (; !waiting.empty() && polled != nres; waiting.pop_front(), model.findx++)
            results[polled++] = waiting.front();
        return polled;
    }

    void reset_model()
    {
        model = {};
        model.serial_indx = model.cond_indx = -1;
    }

    random_source random;
    const uint32_t mode; // the debug options
    alignas(64) uint8_t buffers[4][128] = {};
    test_context ctx;
    kel_queue_t *const queue;
    kel_queue_t model; // its indexes alone
    std::deque<kel_poll_t> waiting;
    const void *pipe_dst = nullptr; // of the last request
    int predecessor = 0;            // the serial request before it
    lines_t lines;                  // that the last call is to write
};

} // namespace

TEST(queue, random_calls_against_the_model)
{
    std::set<std::string> seen;
    for (const uint32_t version : {1u, 2u})
        for (int size = 1; size <= 8; size++)
            for (const uint32_t mode : {0u, uint32_t{KEL_DEBUG_ARG}, changing}) {
                random_calls calls(version, size, mode);
                for (int i = 0; i < 500; i++) {
                    SCOPED_TRACE(testing::Message()
                                 << "version " << version << ", size " << size << ", mode " << mode << ", step " << i);
                    calls.step(seen);
                    ASSERT_FALSE(testing::Test::HasFailure());
                }
            }
    EXPECT_EQ(seen.size(), 11u); // all lines that there are, but for numbers
}

// ---- The queues of a context ----------------------------------------------------------------------------------------

// Blocks are asked for the queue and its node together, then for its slots; whichever fails, nothing stays.
TEST(queues, creation_without_memory)
{
    const std::tuple<size_t, size_t, int, size_t> rows[] = {{1, 2, 5, sizeof(kel_queue_t)},
                                                            {2, 2, 5, sizeof(kel_queue_list_t)},
                                                            {3, 3, INT_MAX, INT_MAX * sizeof(ccb_state_t)}};
    for (const auto &[failing, asked, length, bytes] : rows) {
        block_store store = {1};
        const kel_init_options_t options = store.options();
        test_context ctx(2, 1, KEL_LOG_ERROR, &options);
        const size_t live = store.live.size();
        store.requests = {};
        store.failing = failing;
        kel_queue_t *const untouched = static_cast<kel_queue_t *>(at(0x40)), *queue = untouched;
        EXPECT_EQ(kel_queue_create(ctx, length, &queue), KEL_ENOMEM);
        EXPECT_EQ(ctx.messages(), lines_t{"kel_calloc failed to allocate " + std::to_string(bytes) + " bytes"});
        EXPECT_TRUE(queue == untouched && !ctx->qlist && kel_debug_calls == 0);
        EXPECT_TRUE(store.requests.size() == asked && store.live.size() == live) << "request " << failing;
    }
}

// The end of a context destroys its queues, the oldest first, with the outcomes that nobody has read. The first queue,
// in order of creation, that holds an outcome is named when KEL_DEBUG_SYNC is to come on.
TEST(queues, of_a_context)
{
    test_context shown;
    block_store store = {1};
    const kel_init_options_t options = store.options();
    kel_context_t *ctx = open_context(2, &options);
    ctx->log = shown->log;
    kel_queue_t *const queues[] = {open_queue(ctx, 3), open_queue(ctx, 1), open_queue(ctx, 2), open_queue(ctx, 4)};
    for (const int i : {3, 1, 0}) {
        EXPECT_EQ(debug_sync_check(ctx), i == 3);
        EXPECT_EQ(kel_nop_post(queues[i], 0, nullptr), KEL_SUCCESS);
        EXPECT_EQ(debug_sync_check(ctx), 0);
        EXPECT_EQ(shown.messages().back(), "kel_set_debug(): Queue " + pointer_text(queues[i]) +
                                               " has outstanding requests that have not been polled");
    }
    EXPECT_EQ(kel_debug_calls, 5u);
    EXPECT_EQ(kel_queue_destroy(queues[2]), KEL_SUCCESS);
    ctx->log.options = KEL_LOG_ENTRY;
    EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
    lines_t expected;
    for (const int i : {0, 1, 3})
        expected.push_back("kel_queue_destroy(): queue=" + pointer_text(queues[i]) + "\n");
    EXPECT_EQ(shown.messages(), expected);
    EXPECT_TRUE(store.live.empty());
}
