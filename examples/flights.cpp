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
};

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

// Asks questions about one set of flights, and prints a line of a table for each.
struct query_t {
    kel_context_t *ctx;
    const flights_t &flights;
    bool timed;

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

    void ask_numbers() const;
    void ask_times() const;
    void ask_airports() const;
    void print_rows(const scan_result &indexes) const;
};

// Delay and distance, one by one and joined.
void query_t::ask_numbers() const
{
    const packed_column delays(flights.delay, range_of(flights.delay, {late_minutes, late_minutes}));
    const packed_column distances(flights.distance, range_of(flights.distance, {near_miles, far_miles}));
    const int32_t *delay = flights.delay.data();
    const int32_t *distance = flights.distance.data();

    const question_t late = about("more than 2 hours late", "delay", delays, flights.delay);
    const scan_t scan_late = {delays, KEL_GT, {delays.value(late_minutes), {}}};
    const auto is_late = [=](size_t i) { return delay[i] > late_minutes; };
    scan_result late_bits = ask(late, false, scan_late, is_late);

    const question_t middle = about("500 to 1000 miles", "distance", distances, flights.distance);
    const scan_t scan_middle = {distances, KEL_GE_AND_LE, {distances.value(near_miles), distances.value(far_miles)}};
    const auto is_middle = [=](size_t i) { return distance[i] >= near_miles && distance[i] <= far_miles; };
    scan_result middle_bits = ask(middle, false, scan_middle, is_middle);

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

void query_t::ask_times() const
{
    const packed_column hours(flights.hour, {0, 23});
    const packed_column months(flights.month, {1, 12});
    const uint8_t *hour = flights.hour.data();
    const uint8_t *month = flights.month.data();
    ask(about("before 6 in the morning", "hour", hours, flights.hour), false,
        scan_t{hours, KEL_LT, {hours.value(early_hour), {}}}, [=](size_t i) { return hour[i] < early_hour; });
    ask(about("in March", "month", months, flights.month), false, scan_t{months, KEL_EQ, {months.value(march), {}}},
        [=](size_t i) { return month[i] == march; });
}

void query_t::ask_airports() const
{
    const packed_column origins(flights.origin);
    const packed_column destinations(flights.destination);
    const airport_t *origin = flights.origin.data();
    const airport_t *destination = flights.destination.data();
    ask(about("to Chicago (ORD or MDW)", "destination", destinations, flights.destination), false,
        scan_t{destinations, KEL_EQ_OR_EQ, {airport_value(ctx, chicago[0]), airport_value(ctx, chicago[1])}},
        [=](size_t i) { return same(destination[i], chicago[0]) || same(destination[i], chicago[1]); });
    print_rows(ask(about("from San Francisco (SFO)", "origin", origins, flights.origin), true,
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

void run(const std::string &path, bool timed)
{
    const flights_t flights = read_flights(path);
    kel_context_t *ctx;
    check(kel_thread_init(2, 1, 0, nullptr, &ctx), "kel_thread_init");
    std::unique_ptr<kel_context_t, decltype(&kel_thread_fini)> closer(ctx, kel_thread_fini);

    const query_t query = {ctx, flights, timed};
    printf("%zu flights in %s\n\n", flights.size(), path.c_str());
    query.print_head();
    query.ask_numbers();
    query.ask_times();
    query.ask_airports();
    check(kel_thread_fini(closer.release()), "kel_thread_fini");
    puts("\nEvery bit and every index agrees with a plain loop over plain arrays.");
}

} // namespace

constexpr char usage[] = "usage: flights [--no-times] [FILE]\n"
                         "\n"
                         "Packs the columns of a file of flights and asks questions with scans.\n"
                         "FILE has lines of date,delay,distance,origin,destination; default: the file that comes with\n"
                         "the library, " FLIGHTS_CSV "\n"
                         "\n"
                         "  --no-times  print no timings\n"
                         "  --help      print this text\n";

int main(int argc, char **argv)
try {
    std::string path;
    bool times = true;
    for (int i = 1; i < argc; i++) {
        const std::string_view arg = argv[i];
        if (arg == "--help") {
            fputs(usage, stdout);
            return 0;
        }
        if (arg == "--no-times") {
            times = false;
        } else if (arg.empty() || arg.starts_with('-') || !path.empty()) {
            fputs(usage, stderr);
            return 2;
        } else {
            path = arg;
        }
    }
    run(path.empty() ? FLIGHTS_CSV : path, times);
    return 0;
} catch (const std::exception &failure) {
    fflush(stdout);
    fprintf(stderr, "%s\n", failure.what());
    return 1;
}
