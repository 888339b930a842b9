// A column query over flights: packs columns, asks questions with scans, and checks every answer against a plain loop
// over plain arrays, which is timed beside it.
#include "csv.h"
#include "packed_column.h"
#include <algorithm>
#include <bit>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <string_view>

namespace
{

constexpr int timed_runs = 25; // the best one counts
constexpr uint64_t rows_shown = 5;

constexpr int late_minutes = 120;
constexpr int near_miles = 500;
constexpr int far_miles = 1000;
constexpr int early_hour = 6;
constexpr int march = 3;
constexpr airport_t san_francisco = {'S', 'F', 'O'};
constexpr airport_t chicago[2] = {{'O', 'R', 'D'}, {'M', 'D', 'W'}};

// ---- The library ----------------------------------------------------------------------------------------------------

void check(kel_status_t status, const char *call)
{
    if (status != KEL_SUCCESS)
        throw std::runtime_error(std::string(call) + " fails with status " + std::to_string(status));
}

kel_int_t airport_value(kel_context_t *ctx, const airport_t &airport)
{
    kel_int_t value = {};
    check(kel_int_create(ctx, airport.data(), airport.size(), &value), "kel_int_create");
    return value;
}

// Compares a column with one value or two, as the operator has it.
struct scan_t {
    const packed_column &column;
    kel_compare_t op;
    kel_int_t values[2];

    void operator()(kel_context_t *ctx, scan_result &result) const
    {
        const uint64_t flags = result.indexes ? KEL_ONES_INDEX : 0;
        const kel_result_t outcome =
            op >= KEL_EQ_OR_EQ ? kel_scan_range(ctx, flags, &column.vec, &result.vec, op, &values[0], &values[1])
                               : kel_scan_value(ctx, flags, &column.vec, &result.vec, op, &values[0]);
        check(outcome.status, "the scan");
        result.count = outcome.count;
    }

    // Posts the scan; the result is the request's datum.
    void post(kel_queue_t *queue, uint64_t flags, scan_result &result) const
    {
        flags |= result.indexes ? KEL_ONES_INDEX : 0;
        check(op >= KEL_EQ_OR_EQ
                  ? kel_scan_range_post(queue, flags, &column.vec, &result.vec, op, &values[0], &values[1], &result)
                  : kel_scan_value_post(queue, flags, &column.vec, &result.vec, op, &values[0], &result),
              "the posted scan");
    }
};

// Shows the library's own lines, indented.
void trace(kel_context_t *, void *, uint32_t, const char *, const char *message)
{
    for (const char *line = message; *line != '\0';) {
        const size_t length = strcspn(line, "\n");
        printf("    | %.*s\n", static_cast<int>(length), line);
        line += length + (line[length] != '\0');
    }
}

// Joins two bit vectors; bits behind the last element are 0 in both.
void join(const scan_result &a, const scan_result &b, scan_result &result)
{
    result.count = 0;
    for (size_t i = 0; i < result.size(); i += sizeof(uint64_t)) {
        uint64_t words[2];
        memcpy(&words[0], a.bytes.get() + i, sizeof words[0]);
        memcpy(&words[1], b.bytes.get() + i, sizeof words[1]);
        words[0] &= words[1];
        memcpy(result.bytes.get() + i, &words[0], sizeof words[0]);
        result.count += static_cast<unsigned>(std::popcount(words[0]));
    }
}

// ---- The plain loops ------------------------------------------------------------------------------------------------

template <class Match>
void loop_bits(scan_result &result, const Match &match)
{
    const size_t flights = result.vec.elements;
    uint64_t count = 0;
    const auto byte = [&](size_t first, size_t n) {
        unsigned bits = 0;
        for (size_t i = 0; i < n; i++)
            bits |= static_cast<unsigned>(match(first + i)) << (7 - i);
        count += static_cast<unsigned>(std::popcount(bits));
        return static_cast<uint8_t>(bits);
    };
    for (size_t i = 0; i < flights / 8; i++)
        result.bytes[i] = byte(8 * i, 8);
    if (flights % 8 != 0)
        result.bytes[flights / 8] = byte(flights / 8 * 8, flights % 8);
    result.count = count;
}

template <class Match>
void loop_indexes(scan_result &result, const Match &match)
{
    uint64_t count = 0;
    for (uint32_t i = 0; i < result.vec.elements; i++) {
        const uint32_t entry = std::endian::native == std::endian::big ? i : __builtin_bswap32(i);
        memcpy(result.bytes.get() + sizeof entry * count, &entry,
               sizeof entry); // the next one's place unless i matches
        count += match(i) ? 1 : 0;
    }
    result.count = count;
}

bool same(const airport_t &a, const airport_t &b)
{
    return a[0] == b[0] && a[1] == b[1] && a[2] == b[2];
}

// ---- Questions ------------------------------------------------------------------------------------------------------

struct question_t {
    const char *text;
    const char *columns;
    uint64_t width_bits; // of a packed element, or of several together
    size_t packed_bytes;
    size_t plain_bytes;
};

template <class T>
question_t about(const char *text, const char *name, const packed_column &packed, const std::vector<T> &plain)
{
    return {text, name, packed.width_bits(), packed.size(), plain.size() * sizeof(T)};
}

// The shortest of several runs, in microseconds.
template <class Run>
double best_time(int runs, const Run &run)
{
    using clock = std::chrono::steady_clock;
    auto best = clock::duration::max();
    for (int i = 0; i < runs; i++) {
        const auto start = clock::now();
        run();
        best = std::min(best, clock::now() - start);
    }
    return std::chrono::duration<double, std::micro>(best).count();
}

struct columns_t {
    explicit columns_t(const flights_t &flights)
        : delay(flights.delay, range_of(flights.delay, {late_minutes, late_minutes})),
          distance(flights.distance, range_of(flights.distance, {near_miles, far_miles})), hour(flights.hour, {0, 23}),
          month(flights.month, {1, 12}), origin(flights.origin), destination(flights.destination)
    {
    }

    packed_column delay;
    packed_column distance;
    packed_column hour;
    packed_column month;
    packed_column origin;
    packed_column destination;
};

// A scan that has been run, and what it found.
struct answered_t {
    scan_t scan;
    scan_result found;
};

// Asks questions about one set of flights, and prints a line of a table for each.
struct query_t {
    kel_context_t *ctx;
    const flights_t &flights;
    const columns_t columns;
    bool timed;
    std::deque<answered_t> answered;

    void print_head() const
    {
        printf("%-36s  %-15s  %4s  %8s  %8s  %-10s  %7s%s\n", "question", "columns", "bits", "packed B", "plain B",
               "output", "flights", timed ? "   scan us   loop us" : "");
    }

    // scan fills in a result, match answers for one flight.
    template <class Scan, class Match>
    scan_result ask(const question_t &question, bool indexes, const Scan &scan, const Match &match) const
    {
        const int runs = timed ? timed_runs : 1;
        scan_result scanned(flights.size(), indexes);
        scan_result looped(flights.size(), indexes);
        const double scan_time = best_time(runs, [&] { scan(ctx, scanned); });
        const double loop_time =
            best_time(runs, [&] { indexes ? loop_indexes(looped, match) : loop_bits(looped, match); });
        if (!(scanned == looped))
            throw std::runtime_error("*** WRONG ANSWER *** " + std::string(question.text) + ": the scan finds " +
                                     std::to_string(scanned.count) + " flights, the plain loop " +
                                     std::to_string(looped.count) + ", and their outputs differ");
        printf("%-36s  %-15s  %4" PRIu64 "  %8zu  %8zu  %-10s  %7" PRIu64, question.text, question.columns,
               question.width_bits, question.packed_bytes, question.plain_bytes, indexes ? "index list" : "bit vector",
               scanned.count);
        if (timed)
            printf("  %8.1f  %8.1f", scan_time, loop_time);
        puts("");
        return scanned;
    }

    // The same for a question that one scan answers; the scan is kept for the chain.
    template <class Match>
    scan_result &ask_scan(const question_t &question, bool indexes, const scan_t &scan, const Match &match)
    {
        answered.push_back({scan, ask(question, indexes, scan, match)});
        return answered.back().found;
    }

    void ask_numbers();
    void ask_times();
    void ask_airports();
    void print_rows(const scan_result &indexes) const;
    void run_chain() const;
};

// Delay and distance, one by one and joined.
void query_t::ask_numbers()
{
    const packed_column &delays = columns.delay;
    const packed_column &distances = columns.distance;
    const int32_t *delay = flights.delay.data();
    const int32_t *distance = flights.distance.data();

    const question_t late = about("more than 2 hours late", "delay", delays, flights.delay);
    const scan_t scan_late = {delays, KEL_GT, {delays.value(late_minutes), {}}};
    const auto is_late = [=](size_t i) { return delay[i] > late_minutes; };
    scan_result &late_bits = ask_scan(late, false, scan_late, is_late);

    const question_t middle = about("500 to 1000 miles", "distance", distances, flights.distance);
    const scan_t scan_middle = {distances, KEL_GE_AND_LE, {distances.value(near_miles), distances.value(far_miles)}};
    const auto is_middle = [=](size_t i) { return distance[i] >= near_miles && distance[i] <= far_miles; };
    scan_result &middle_bits = ask_scan(middle, false, scan_middle, is_middle);

    const question_t joined = {"500 to 1000 miles, over 2 hours late", "delay, distance",
                               late.width_bits + middle.width_bits, late.packed_bytes + middle.packed_bytes,
                               late.plain_bytes + middle.plain_bytes};
    const auto scan_both = [&](kel_context_t *, scan_result &result) {
        scan_late(ctx, late_bits);
        scan_middle(ctx, middle_bits);
        join(late_bits, middle_bits, result);
    };
    ask(joined, false, scan_both, [=](size_t i) { return is_late(i) && is_middle(i); });
}

void query_t::ask_times()
{
    const packed_column &hours = columns.hour;
    const packed_column &months = columns.month;
    const uint8_t *hour = flights.hour.data();
    const uint8_t *month = flights.month.data();
    ask_scan(about("before 6 in the morning", "hour", hours, flights.hour), false,
             scan_t{hours, KEL_LT, {hours.value(early_hour), {}}}, [=](size_t i) { return hour[i] < early_hour; });
    ask_scan(about("in March", "month", months, flights.month), false,
             scan_t{months, KEL_EQ, {months.value(march), {}}}, [=](size_t i) { return month[i] == march; });
}

void query_t::ask_airports()
{
    const packed_column &origins = columns.origin;
    const packed_column &destinations = columns.destination;
    const airport_t *origin = flights.origin.data();
    const airport_t *destination = flights.destination.data();
    ask_scan(about("to Chicago (ORD or MDW)", "destination", destinations, flights.destination), false,
             scan_t{destinations, KEL_EQ_OR_EQ, {airport_value(ctx, chicago[0]), airport_value(ctx, chicago[1])}},
             [=](size_t i) { return same(destination[i], chicago[0]) || same(destination[i], chicago[1]); });
    print_rows(ask_scan(about("from San Francisco (SFO)", "origin", origins, flights.origin), true,
                        scan_t{origins, KEL_EQ, {airport_value(ctx, san_francisco), {}}},
                        [=](size_t i) { return same(origin[i], san_francisco); }));
}

void query_t::print_rows(const scan_result &indexes) const
{
    const uint64_t shown = std::min(indexes.count, rows_shown);
    printf("\nThe first %" PRIu64 " of %" PRIu64 " flights from San Francisco:\n", shown, indexes.count);
    printf("%8s  %-16s  %-4s  %-3s  %6s  %6s\n", "index", "date", "from", "to", "miles", "delay");
    for (uint64_t row = 0; row < shown; row++) {
        const uint32_t i = indexes.index(row);
        printf("%8" PRIu32 "  %-16s  %-4.3s  %.3s  %6" PRId32 "  %6" PRId32 "\n", i, flights.date[i].c_str(),
               flights.origin[i].data(), flights.destination[i].data(), flights.distance[i], flights.delay[i]);
    }
}

// All scans again as one chain of posted requests, each conditional on the one before.
void query_t::run_chain() const
{
    const size_t n = answered.size();
    kel_queue_t *queue;
    check(kel_queue_create(ctx, static_cast<int>(n), &queue), "kel_queue_create");
    std::deque<scan_result> results;
    for (size_t i = 0; i < n; i++) {
        const uint64_t first = i > 0 ? KEL_COND : 0;
        const uint64_t last = i + 1 < n ? KEL_SERIAL : 0;
        answered[i].scan.post(queue, first | last, results.emplace_back(flights.size(), answered[i].found.indexes));
    }
    std::vector<kel_poll_t> completions(n);
    if (kel_poll(queue, completions.data(), static_cast<int>(n), 0) != static_cast<int>(n))
        throw std::runtime_error("not every posted scan was completed");
    for (size_t i = 0; i < n; i++) {
        check(completions[i].status, "a scan of the chain");
        results[i].count = completions[i].count;
        if (completions[i].udata != &results[i] || !(results[i] == answered[i].found))
            throw std::runtime_error("*** WRONG ANSWER *** posted scan " + std::to_string(i) + " differs");
    }
    check(kel_queue_destroy(queue), "kel_queue_destroy");
    printf("\nThe same %zu scans, posted as one chain and polled, find the same.\n", n);
}

void run(const std::string &path, bool timed, bool traced)
{
    const flights_t flights = read_flights(path);
    kel_context_t *ctx;
    check(kel_thread_init(2, 1, 0, nullptr, &ctx), "kel_thread_init");
    std::unique_ptr<kel_context_t, decltype(&kel_thread_fini)> closer(ctx, kel_thread_fini);

    if (traced)
        check(kel_set_log_callback(ctx, KEL_LOG_ALL, trace, nullptr), "kel_set_log_callback");
    query_t query = {ctx, flights, columns_t(flights), timed, {}};
    printf("%zu flights in %s\n\n", flights.size(), path.c_str());
    query.print_head();
    query.ask_numbers();
    query.ask_times();
    query.ask_airports();
    query.run_chain();
    check(kel_thread_fini(closer.release()), "kel_thread_fini");
    puts("\nEvery bit and every index agrees with a plain loop over plain arrays.");
}

} // namespace

constexpr char usage[] = "usage: flights [--no-times] [--trace] [FILE]\n"
                         "\n"
                         "Packs the columns of a file of flights and asks questions with scans.\n"
                         "FILE has lines of date,delay,distance,origin,destination; default: the file that comes with\n"
                         "the library, " FLIGHTS_CSV "\n"
                         "\n"
                         "  --no-times  print no timings\n"
                         "  --trace     show the library's log lines; each scan runs once, without timings\n"
                         "  --help      print this text\n";

int main(int argc, char **argv)
try {
    std::string path;
    bool times = true;
    bool traced = false;
    for (int i = 1; i < argc; i++) {
        const std::string_view arg = argv[i];
        if (arg == "--help") {
            fputs(usage, stdout);
            return 0;
        }
        if (arg == "--no-times") {
            times = false;
        } else if (arg == "--trace") {
            traced = true;
        } else if (arg.empty() || arg.starts_with('-') || !path.empty()) {
            fputs(usage, stderr);
            return 2;
        } else {
            path = arg;
        }
    }
    run(path.empty() ? FLIGHTS_CSV : path, times && !traced, traced);
    return 0;
} catch (const std::exception &failure) {
    fflush(stdout);
    fprintf(stderr, "%s\n", failure.what());
    return 1;
}
