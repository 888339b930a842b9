// A soak test: threads with contexts of their own make random requests against the models, and train codecs and use
// them, while allocations fail at random.
//
//   soak MINUTES               a line a minute, and at the first difference the seed of the round that it was in
//   soak MINUTES SEED ROUNDS   the rounds of this seed and the seeds that follow it: with one round, that one alone
#include "request_makers.h"
#include <atomic>
#include <chrono>
#include <gtest/gtest-spi.h>
#include <mutex>
#include <thread>

using namespace model;
using std::chrono::steady_clock;

namespace
{

std::atomic<uint64_t> requests_done, failures_injected, next_seed;
std::atomic<bool> failed;

// The life of some contexts, which depends on nothing but the seed.
class round_of_requests
{
  public:
    round_of_requests(uint64_t seed, workplace &at_place) : place(at_place)
    {
        random = random_source(seed);
        o = place.draw_options();
        allocator = random.one_in(4) ? nullptr : &callbacks;
        store.misaligned = random.between(0, 7);
    }

    void run()
    {
        constexpr unsigned requests = 8; // of an operation, each by all roads
        open_and_close();
        {
            test_context other(3 - o.version, arg, errors, allocator);
            test_context ctx(o.version, o.debug, o.log, allocator);
            bool agrees = true;
            for (int operations = 4; agrees && operations > 0; operations--)
                agrees = place.check_some(ctx, o, requests);
            if (agrees) {
                queue(ctx);
                compress(ctx);
                queue(other);
            }
            requests_done += 4 * requests;
        }
        EXPECT_TRUE(store.live.empty());
    }

  private:
    // Makes a call, of whose allocations one may fail. Then nothing is left of the call, and another one succeeds.
    kel_status_t attempt(const auto &call)
    {
        const size_t live = store.live.size();
        store.requests.clear();
        store.failing = random.between(0, 4);
        const kel_status_t status = call();
        const bool injected = store.failing && store.requests.size() >= store.failing;
        store.failing = 0;
        if (!injected)
            return status;
        failures_injected++;
        EXPECT_EQ(status, KEL_ENOMEM);
        EXPECT_EQ(store.live.size(), live);
        return call();
    }

    void open_and_close()
    {
        kel_context_t *ctx = nullptr;
        const auto open = [&] {
            const auto status = kel_thread_init(o.version, 1, allocator ? KEL_ALLOC : 0, allocator, &ctx);
            return static_cast<int>(status) == 12 ? KEL_ENOMEM : status; // what the lack of the first block is told by
        };
        EXPECT_EQ(attempt(open), KEL_SUCCESS);
        EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
    }

    void queue(test_context &ctx)
    {
        constexpr int length = 3;
        kel_queue_t *made = nullptr;
        kel_poll_t polled[length];
        EXPECT_EQ(attempt([&] { return kel_queue_create(ctx, length, &made); }), KEL_SUCCESS);
        for (int posted = 0; posted <= length; posted++)
            EXPECT_EQ(kel_nop_post(made, 0, at(1)), posted < length ? KEL_SUCCESS : KEL_EQFULL);
        EXPECT_EQ(kel_poll(made, polled, -1, 0), length);
        EXPECT_EQ(kel_queue_destroy(made), KEL_SUCCESS);
    }

    // ---- Compressed sources ----

    // Text of few words, which is worth a codec: the quick training wants 20,000 bytes.
    void draw_text(bool thorough)
    {
        std::string words[12];
        for (std::string &word : words)
            for (uint64_t letters = random.between(2, 9); letters > 0; letters--)
                word += static_cast<char>(random.between('a', 'z'));
        const size_t size = thorough ? random.between(3000, 8000) : random.between(20000, 30000);
        for (text.clear(); text.size() < size;)
            text += random.pick(words);
        text.resize(size / 16 * 16);
    }

    kel_result_t encode(test_context &ctx, const kel_vec_t &plain, uint64_t *thorough, guarded_buffer &stream,
                        size_t &length)
    {
        kel_result_t result = {};
        const auto call = [&] {
            length = text.size();
            result = thorough ? kel_zip(ctx, *thorough, &plain, stream.data, &length, &codec)
                              : kel_encode(ctx, &plain, stream.data, &length, codec);
            return result.status;
        };
        EXPECT_EQ(attempt(call), KEL_SUCCESS);
        return result;
    }

    // The codec by way of its image.
    void reopen(test_context &ctx, guarded_buffer &image)
    {
        size_t length = image.size;
        EXPECT_EQ(kel_zip_get_contig(ctx, codec, image.data, &length), KEL_SUCCESS);
        EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
        EXPECT_EQ(attempt([&] { return kel_zip_create_contig(ctx, image.data, length, &codec); }), KEL_SUCCESS);
    }

    void compress(test_context &ctx)
    {
        static constexpr uint32_t widths[] = {1, 2, 4, 8, 16};
        uint64_t thorough = !random.one_in(4);
        draw_text(thorough);
        const uint32_t width = random.pick(widths);
        const kel_vec_t source = plain_vector(KEL_BYTES, text.size() / width, width, text.data());
        guarded_buffer trained(round_up(text.size() + 2, 8)), again(trained.size), image(8192, 64), out(32768, 64);
        size_t length = 0, length_again = 0;
        const kel_result_t result = encode(ctx, source, &thorough, trained, length);
        if (result.status != KEL_SUCCESS)
            return;
        if (random.one_in(2))
            reopen(ctx, image);
        EXPECT_EQ(encode(ctx, source, nullptr, again, length_again).count, result.count);
        EXPECT_TRUE(length == length_again && memcmp(trained.data, again.data, length) == 0);

        kel_vec_t zipped = source, plain = source;
        zipped.format |= KEL_ZIP;
        zipped.data = again.data;
        zipped.codec = codec;
        zipped.codewords = result.count;
        plain.data = out.data;
        EXPECT_EQ(attempt([&] { return kel_extract(ctx, 0, &zipped, &plain).status; }), KEL_SUCCESS);
        EXPECT_EQ(memcmp(out.data, text.data(), text.size()), 0);
        EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
    }

    workplace &place;
    random_source &random = place.random;
    options o;
    block_store store = {};
    const kel_init_options_t callbacks = store.options();
    const kel_init_options_t *allocator;
    std::string text = {};
    kel_zip_t *codec = nullptr;
};

// Whether a round came out as the models say; if not, tells about it.
bool passes(uint64_t seed, workplace &place)
{
    static std::mutex telling;
    testing::TestPartResultArray differences;
    {
        testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &differences);
        round_of_requests(seed, place).run();
    }
    if (differences.size() == 0)
        return true;
    const std::lock_guard lock(telling);
    for (int i = 0; i < differences.size(); i++)
        fprintf(stderr, "%s\n", differences.GetTestPartResult(i).message());
    fprintf(stderr, "The same round again: soak 1 %lu 1\n", seed);
    failed = true;
    return false;
}

// Takes the rounds in turn, up to the end and to the last seed.
void soak(steady_clock::time_point end, uint64_t first, uint64_t rounds)
{
    const auto place = std::make_unique<workplace>();
    for (uint64_t seed; !failed && steady_clock::now() < end && (seed = next_seed++) - first < rounds;)
        passes(seed, *place);
}

} // namespace

// The system log is no place for the lines of injected failures.
extern "C" void syslog(int, const char *, ...) {}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const std::chrono::duration<double, std::ratio<60>> minutes(argc > 1 ? atof(argv[1]) : 1);
    const uint64_t first = argc > 2 ? strtoull(argv[2], nullptr, 0) : uint64_t{std::random_device()()} << 32;
    const uint64_t rounds = argc > 3 ? strtoull(argv[3], nullptr, 0) : UINT64_MAX;
    const auto start = steady_clock::now(), end = start + std::chrono::duration_cast<steady_clock::duration>(minutes);
    next_seed = first;
    std::vector<std::thread> threads(std::min<uint64_t>(std::max(8u, 2 * std::thread::hardware_concurrency()), rounds));
    for (std::thread &thread : threads)
        thread = std::thread(soak, end, first, rounds);
    for (auto line = start; line < end && !failed && next_seed - first < rounds;) {
        line = std::min<steady_clock::time_point>(line + std::chrono::minutes(1), end);
        while (!failed && next_seed - first < rounds && steady_clock::now() < line)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        printf("%lu requests, %lu allocations failed\n", requests_done.load(), failures_injected.load());
        fflush(stdout);
    }
    for (std::thread &thread : threads)
        thread.join();
    return failed;
}
