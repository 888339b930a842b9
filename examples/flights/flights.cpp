// A query on flights. In a database's words:
//
//   select day, time, origin, destination, distance, delay from flights
//   where (distance between 500 and 1000 or time < 06:00) and delay > 120
//   and origin in (EWR, JFK, LGA) and month <> March and destination not in (ORD, MDW) and day >= 2001-02-01
//
// Scans and lookups make bit vectors of packed columns, logical operations join them, and selects fetch the rows that
// are wanted. Every step is checked against a plain loop over plain arrays, which is timed beside it.
#include "csv.h"
#include "steps.h"
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace
{

constexpr uint64_t rows_shown = 10;

constexpr int near_miles = 500;
constexpr int far_miles = 1000;
constexpr int late_minutes = 120;
constexpr int morning = 6 * 60; // minutes since midnight
constexpr kel_int_t one_bit = {KEL_BITS, 1, {0, 0, 1}};

// The bitmap of a translate: a bit for each code.
column_t bitmap(const dictionary_t &dictionary, bool (*wanted)(const std::string &text))
{
    std::vector<int32_t> bits;
    for (const std::string &text : dictionary.texts)
        bits.push_back(wanted(text));
    return {bits, {0, 1}};
}

// Writes a byte for each row. Arguments by value, so that compilers make vector code of it.
template <class Match>
uint32_t plain_find(uint8_t *mask, size_t rows, Match match)
{
    uint32_t count = 0;
    for (size_t i = 0; i < rows; i++) {
        mask[i] = match(i) ? 1 : 0;
        count += mask[i];
    }
    return count;
}

struct query_t {
    kel_context_t *ctx;
    const flights_t &flights;
    bool timed;
    size_t rows = flights.day.size();

    dictionary_t day_names{flights.day};
    dictionary_t airports{flights.origin, flights.destination};
    column_t march = bitmap(day_names, [](const std::string &date) { return date.substr(4, 4) == "-03-"; });
    column_t new_york = bitmap(airports, [](const std::string &a) { return a == "EWR" || a == "JFK" || a == "LGA"; });

    column_t day = column_t::run_length(day_names.codes(flights.day), day_names.range); // in order of date: long runs
    column_t time = {flights.time, {0, 24 * 60 - 1}};
    column_t origin = {airports.codes(flights.origin), airports.range};
    text_column_t destination{ctx, "destination", flights.destination}; // text, compressed
    text_column_t date_text{ctx, "date", flights.day};
    column_t distance = {flights.distance, range_of(flights.distance, {near_miles, far_miles})};
    column_t delay = {flights.delay, range_of(flights.delay, {late_minutes, late_minutes})};

    // Bit vectors, and lists.
    found_t middle{rows}, early{rows}, either{rows}, late{rows}, late_either{rows};
    found_t from_new_york{rows}, late_from_new_york{rows}, not_in_march{rows}, not_march{rows};
    found_t not_to_chicago{rows}, elsewhere{rows}, since_february{rows}, wanted{rows};
    found_t times{time}, origins{origin}, destinations{rows, 4}, distances{distance}, delays{delay};
    found_t all_days{day}, days{day}, row_numbers{rows, 4};

    // Runs a step that makes a bit vector; match answers for one row.
    template <class Match>
    void find(const step_t &step, found_t &found, const std::function<kel_result_t()> &call, Match match) const
    {
        const auto loop = [&](found_t &out) { out.count = plain_find(out.mask.data(), rows, match); };
        run_step(step, found, call, loop, timed);
    }

    void find_both(const char *what, const found_t &a, const found_t &b, found_t &both) const
    {
        find(
            {"kel_and", what, "bit vectors", {&a.vec, &b.vec}, 2}, both,
            [&] { return kel_and(ctx, 0, &a.vec, &b.vec, &both.vec); },
            [x = a.mask.data(), y = b.mask.data()](size_t i) { return x[i] & y[i]; });
    }

    void filter_numbers()
    {
        const kel_int_t nearest = distance.value(near_miles);
        const kel_int_t farthest = distance.value(far_miles);
        find(
            {"kel_scan_range", "500 to 1000 miles", "distance", {&distance.vec}, 4}, middle,
            [&] { return kel_scan_range(ctx, 0, &distance.vec, &middle.vec, KEL_GE_AND_LE, &nearest, &farthest); },
            [miles = distance.plain.data()](size_t i) { return miles[i] >= near_miles && miles[i] <= far_miles; });

        const kel_int_t six = time.value(morning);
        find(
            {"kel_scan_value", "before 6 in the morning", "time", {&time.vec}, 4}, early,
            [&] { return kel_scan_value(ctx, 0, &time.vec, &early.vec, KEL_LT, &six); },
            [minute = time.plain.data()](size_t i) { return minute[i] < morning; });

        find(
            {"kel_or", "either of the two", "bit vectors", {&middle.vec, &early.vec}, 2}, either,
            [&] { return kel_or(ctx, 0, &middle.vec, &early.vec, &either.vec); },
            [x = middle.mask.data(), y = early.mask.data()](size_t i) { return x[i] | y[i]; });

        const kel_int_t two_hours = delay.value(late_minutes);
        find(
            {"kel_scan_value", "over 2 hours late", "delay", {&delay.vec}, 4}, late,
            [&] { return kel_scan_value(ctx, 0, &delay.vec, &late.vec, KEL_GT, &two_hours); },
            [minutes = delay.plain.data()](size_t i) { return minutes[i] > late_minutes; });
        find_both("either, and late", either, late, late_either);
    }

    // A bitmap answers for each code; the plain loop looks codes up in an array.
    void filter_codes()
    {
        find(
            {"kel_translate", "from New York (3 airports)", "origin", {&origin.vec}, 4}, from_new_york,
            [&] {
                return kel_translate(ctx, 0, &origin.vec, &from_new_york.vec, &new_york.vec, origin.vec.elem_width);
            },
            [code = origin.plain.data(), in = new_york.plain.data()](size_t i) { return in[code[i]]; });
        find_both("these, from New York", late_either, from_new_york, late_from_new_york);

        find(
            {"kel_translate", "not in March (KEL_INVERT)", "day (runs)", {&day.vec}, 4}, not_in_march,
            [&] { return kel_translate(ctx, KEL_INVERT, &day.vec, &not_in_march.vec, &march.vec, day.vec.elem_width); },
            [code = day.plain.data(), in = march.plain.data()](size_t i) { return !in[code[i]]; });
        find_both("these, not in March", late_from_new_york, not_in_march, not_march);
    }

    // Texts are compared as they are, and expanded only inside the library.
    void filter_texts()
    {
        const auto text_value = [this](const std::string &text) {
            kel_int_t value = {};
            check(kel_int_create(ctx, text.data(), text.size(), &value), "kel_int_create");
            return value;
        };
        const kel_int_t chicago[] = {text_value("ORD"), text_value("MDW")};
        find(
            {"kel_scan_range", "not to Chicago (2)", "destination", {&destination}, 4}, not_to_chicago,
            [&] {
                return kel_scan_range(ctx, 0, &destination.vec, &not_to_chicago.vec, KEL_NE_AND_NE, &chicago[0],
                                      &chicago[1]);
            },
            [text = destination.plain.data(), ord = text_number("ORD"), mdw = text_number("MDW")](size_t i) {
                return text[i] != ord && text[i] != mdw;
            });
        find_both("these, not to Chicago", not_march, not_to_chicago, elsewhere);

        const std::string february = "2001-02-01";
        const kel_int_t first_day = text_value(february);
        find(
            {"kel_scan_value", "since February", "date", {&date_text}, sizeof(std::string)}, since_february,
            [&] { return kel_scan_value(ctx, 0, &date_text.vec, &since_february.vec, KEL_GE, &first_day); },
            [day = flights.day.data(), &february](size_t i) { return day[i] >= february; });
        find_both("these, since February", elsewhere, since_february, wanted);
    }

    // Runs a step that lists the wanted rows; value answers for one row.
    template <class Value>
    void list(const step_t &step, found_t &found, const std::function<kel_result_t()> &call, Value value) const
    {
        const auto loop = [&](found_t &out) {
            const uint8_t *keep = wanted.mask.data();
            size_t count = 0;
            for (size_t i = 0; i < rows; i++)
                if (keep[i])
                    out.list[count++] = value(i);
            out.count = count;
        };
        run_step(step, found, call, loop, timed);
    }

    void select(const char *name, const std::vector<int32_t> &plain, const kel_vec_t &vec, source_t source,
                found_t &to) const
    {
        const std::string what = std::to_string(to.vec.elem_width) + "-byte elements";
        list(
            {"kel_select", what, name, {source, &wanted.vec}, 4 + 1}, to,
            [&] { return kel_select(ctx, 0, &vec, &to.vec, &wanted.vec); }, [&](size_t i) { return plain[i]; });
    }

    void select(const char *name, const column_t &column, found_t &to) const
    {
        select(name, column.plain, column.vec, &column.vec, to);
    }

    void fetch()
    {
        select("time", time, times);
        select("origin", origin, origins);
        select("destination", destination.plain, destination.vec, &destination, destinations);
        select("distance", distance, distances);
        select("delay", delay, delays);

        // A select takes no runs: they are expanded first. The library does not count what it expands.
        run_step(
            {"kel_extract", "runs to rows", "day (runs)", {&day.vec}, 4}, all_days,
            [&] {
                return kel_result_t{kel_extract(ctx, 0, &day.vec, &all_days.vec).status, 0, rows};
            },
            [&](found_t &out) { out.list = day.plain, out.count = rows; }, timed);
        select("day", day.plain, all_days.vec, &all_days.vec, days);

        // A bit vector is a column of 1-bit elements: a scan for 1 lists the numbers of the rows.
        list(
            {"kel_scan_value", "row numbers", "bit vector", {&wanted.vec}, 1}, row_numbers,
            [&] { return kel_scan_value(ctx, KEL_ONES_INDEX, &wanted.vec, &row_numbers.vec, KEL_EQ, &one_bit); },
            [](size_t i) { return static_cast<int32_t>(i); });
    }

    // The end of the query again, as a chain of posted requests, each conditional on the one before. A pipe flag says
    // that the next request reads what this one writes; the datum of a request is its result.
    void post_chain() const
    {
        constexpr uint64_t link = KEL_COND | KEL_SERIAL;
        result_t mask(rows), delay_list(delay), expanded(day), day_list(day), numbers(rows, 4);
        const found_t *expected[] = {&wanted, &delays, &all_days, &days, &row_numbers};
        constexpr int requests = std::size(expected);
        kel_queue_t *queue;
        check(kel_queue_create(ctx, requests, &queue), "kel_queue_create");
        check(kel_and_post(queue, KEL_SERIAL | KEL_PIPE_MASK, &elsewhere.vec, &since_february.vec, &mask.vec, &mask),
              "kel_and_post");
        check(kel_select_post(queue, link, &delay.vec, &delay_list.vec, &mask.vec, &delay_list), "kel_select_post");
        check(kel_extract_post(queue, link | KEL_PIPE_SRC, &day.vec, &expanded.vec, &expanded), "kel_extract_post");
        check(kel_select_post(queue, link, &expanded.vec, &day_list.vec, &mask.vec, &day_list), "kel_select_post");
        check(
            kel_scan_value_post(queue, KEL_COND | KEL_ONES_INDEX, &mask.vec, &numbers.vec, KEL_EQ, &one_bit, &numbers),
            "kel_scan_value_post");

        kel_poll_t done[requests];
        if (kel_poll(queue, done, requests, 0) != requests)
            throw std::runtime_error("not every posted request was completed");
        for (int i = 0; i < requests; i++) {
            const std::string name = "posted request " + std::to_string(i + 1);
            check(done[i].status, name);
            const auto *result = static_cast<const result_t *>(done[i].udata);
            check_result(name, *result, result == &expanded ? rows : done[i].count, *expected[i]);
        }
        check(kel_queue_destroy(queue), "kel_queue_destroy");
        printf("\nThe end of it, posted as a chain of %d requests and polled, finds the same.\n", requests);
    }

    // Decodes the lists; the texts must read as they do in the file.
    void print_rows() const
    {
        const uint64_t count = row_numbers.count;
        printf("\nThe first %" PRIu64 " of %" PRIu64 " flights:\n", std::min(count, rows_shown), count);
        printf("%8s  %-16s  %-4s  %-3s  %6s  %6s\n", "row", "date", "from", "to", "miles", "delay");
        for (size_t i = 0; i < count; i++) {
            const auto number = [i](const found_t &list) { return static_cast<size_t>(list.value(i)); };
            const size_t row = number(row_numbers);
            const std::string &date = day_names.texts[number(days)];
            const std::string &from = airports.texts[number(origins)];
            const std::string to = number_text(destinations.value(i), flights.destination[row].size());
            if (date != flights.day[row] || from != flights.origin[row] || to != flights.destination[row])
                throw std::runtime_error("*** WRONG ANSWER *** row " + std::to_string(row) + " is not the file's");
            if (i < rows_shown)
                printf("%8zu  %s %02" PRId64 ":%02" PRId64 "  %-4s  %-3s  %6" PRId64 "  %6" PRId64 "\n", row,
                       date.c_str(), times.value(i) / 60, times.value(i) % 60, from.c_str(), to.c_str(),
                       distances.value(i), delays.value(i));
        }
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

// The query's codec is released with it, before the context is closed.
void answer(query_t query)
{
    puts("");
    print_head(query.timed);
    query.filter_numbers();
    query.filter_codes();
    query.filter_texts();
    query.fetch();
    query.post_chain();
    query.print_rows();
}

void run(const std::string &path, bool timed, bool traced)
{
    const flights_t flights = read_flights(path);
    kel_context_t *ctx;
    check(kel_thread_init(2, 1, 0, nullptr, &ctx), "kel_thread_init");
    std::unique_ptr<kel_context_t, decltype(&kel_thread_fini)> closer(ctx, kel_thread_fini);

    if (traced)
        check(kel_set_log_callback(ctx, KEL_LOG_ALL, trace, nullptr), "kel_set_log_callback");
    printf("%zu flights in %s\n\n", flights.day.size(), path.c_str());
    text_column_t::print_head();
    answer({.ctx = ctx, .flights = flights, .timed = timed});
    check(kel_thread_fini(closer.release()), "kel_thread_fini");
    puts("\nEvery bit and every element agrees with a plain loop over plain arrays.");
}

} // namespace

constexpr char usage[] = "usage: flights [--no-times] [--trace] [FILE]\n"
                         "\n"
                         "Packs the columns of a file of flights, filters them, and fetches the rows that are wanted.\n"
                         "FILE has lines of date,delay,distance,origin,destination; default: the file that comes with\n"
                         "the library, " FLIGHTS_CSV "\n"
                         "\n"
                         "  --no-times  print no timings\n"
                         "  --trace     show the library's log lines; each step runs once, without timings\n"
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
