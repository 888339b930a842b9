// The program: runs the table, or what a filter names, and shows cases as rows of one table. With --benchmark_out the
// rows are written as JSON, too.
#include "bench_case.h"
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ostream>

namespace
{

// Cycles of the core for each ns: additions that wait for one another take one each. The best of some runs.
double clock_ghz()
{
    static const double best = [] {
        constexpr uint64_t additions = 1'000'000;
        double ghz = 0;
        for (int run = 0; run < 50; run++) {
            const auto begin = std::chrono::steady_clock::now();
            for (uint64_t left = additions; left > 0; left -= 8)
                __asm__ volatile(".rept 7\n\tadd $1, %0\n\t.endr\n\tsub $7, %0" : "+r"(left));
            const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - begin;
            ghz = std::fmax(ghz, (additions + additions / 8) / taken.count());
        }
        return ghz;
    }();
    return best;
}

// A row of the table; what was not measured is NaN.
struct row_t {
    const case_t *of;
    runner_t runner;
    double ns; // of a run
    double limit_ns;
    double portable_ns;

    double elements_per_ns() const
    {
        return of->limit == limit_t::none ? NAN : static_cast<double>(of->elements) / ns;
    }

    double elements_per_cycle() const
    {
        return elements_per_ns() / clock_ghz();
    }

    // Of the bytes that the limit moves. Plain loops have other bytes, and are left out.
    double gb_per_s() const
    {
        return runner == runner_plain ? NAN : rate(ns);
    }

    double limit_gb_per_s() const
    {
        return runner == runner_plain ? NAN : rate(limit_ns);
    }

    double share() const
    {
        return gb_per_s() / limit_gb_per_s();
    }

    double ratio() const
    {
        return runner == runner_library ? portable_ns / ns : NAN;
    }

    double rate(double of_ns) const
    {
        return of->limit == limit_t::none ? NAN : static_cast<double>(of->bytes) / of_ns;
    }
};

constexpr const char *row_names[runners] = {"", "libkel", "portable", "element by element", "plain loop"};
constexpr const char *limit_names[] = {"", "read", "memcpy", "memset"};

const char *limit_name(const row_t &row)
{
    return limit_names[static_cast<int>(row.of->limit)];
}

std::string number(double value, const char *format, const char *otherwise)
{
    char text[32];
    snprintf(text, sizeof text, format, value);
    return std::isnan(value) ? otherwise : text;
}

// ---- The table ------------------------------------------------------------------------------------------------------

constexpr const char *table_format = "%-10s %-38s %-18s %8s %10s %9s %8s %14s %7s %8s\n";

void print_header()
{
    printf("%.2f cycles per ns\n", clock_ghz());
    printf(table_format, "operation", "shape", "by", "elements", "per ns", "per cycle", "GB/s", "limit GB/s", "share",
           "ratio");
}

void print_row(const row_t &row)
{
    constexpr double few = 0.1; // shares below have a digit more
    const bool fixed = row.of->limit == limit_t::none;
    const std::string limit = number(row.limit_gb_per_s(), "%.1f", "");
    printf(table_format, row.of->operation, row.of->shape.c_str(), row_names[row.runner],
           fixed ? "" : size_text(row.of->elements).c_str(),
           fixed ? number(row.ns, "%.1f ns", "").c_str() : number(row.elements_per_ns(), "%.3f", "").c_str(),
           number(row.elements_per_cycle(), "%.3f", "").c_str(), number(row.gb_per_s(), "%.2f", "").c_str(),
           limit.empty() ? "" : (std::string(limit_name(row)) + " " + limit).c_str(),
           number(100 * row.share(), row.share() < few ? "%.1f%%" : "%.0f%%", "").c_str(),
           number(row.ratio(), "%.2f", "").c_str());
    fflush(stdout);
}

// Shows cases as rows, each when its last run is known, and other benchmarks as they come.
class table_reporter : public benchmark::ConsoleReporter
{
  public:
    table_reporter() : ConsoleReporter(OO_None) {}

    void ReportRuns(const std::vector<Run> &reports) override
    {
        const role_t role = find_role(reports.front().run_name.function_name);
        for (const Run &run : reports)
            if (run.error_occurred) {
                failed = true;
                fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
            }
        if (!role.of)
            return ConsoleReporter::ReportRuns(reports);
        if (role.of != current)
            end_case();
        current = role.of;
        for (const Run &run : reports)
            if (!run.error_occurred && run.run_type == Run::RT_Iteration)
                ns[role.runner] = std::fmin(ns[role.runner], run.GetAdjustedCPUTime());
    }

    void Finalize() override
    {
        end_case();
    }

    std::vector<row_t> rows;
    bool failed = false;

  private:
    void end_case()
    {
        for (const runner_t runner : {runner_library, runner_walk, runner_plain})
            if (!std::isnan(ns[runner])) {
                if (rows.empty())
                    print_header();
                rows.push_back({current, runner, ns[runner], ns[runner_limit], ns[runner_portable]});
                print_row(rows.back());
            }
        std::fill_n(ns, runners, NAN);
    }

    const case_t *current = nullptr;
    double ns[runners] = {NAN, NAN, NAN, NAN, NAN};
};

// ---- The file -------------------------------------------------------------------------------------------------------

// Writes the rows of the table that the other reporter has collected.
class json_reporter : public benchmark::BenchmarkReporter
{
  public:
    explicit json_reporter(const table_reporter &shown) : table(shown) {}

    bool ReportContext(const Context &) override
    {
        return true;
    }

    void ReportRuns(const std::vector<Run> &) override {}

    void Finalize() override
    {
        GetOutputStream() << "[";
        const char *separator = "\n";
        for (const row_t &row : table.rows) {
            GetOutputStream() << separator << line(row);
            separator = ",\n";
        }
        GetOutputStream() << "\n]\n";
    }

  private:
    static std::string line(const row_t &row)
    {
        const auto value = [](double of) { return number(of, "%.6g", "null"); };
        return std::string("{\"operation\": \"") + row.of->operation + "\", \"shape\": \"" + row.of->shape +
               "\", \"by\": \"" + row_names[row.runner] + "\", \"elements\": " + std::to_string(row.of->elements) +
               ", \"ns\": " + value(row.ns) + ", \"elements_per_ns\": " + value(row.elements_per_ns()) +
               ", \"elements_per_cycle\": " + value(row.elements_per_cycle()) +
               ", \"gb_per_s\": " + value(row.gb_per_s()) + ", \"limit\": \"" + limit_name(row) +
               "\", \"limit_gb_per_s\": " + value(row.limit_gb_per_s()) + ", \"share\": " + value(row.share()) +
               ", \"ratio\": " + value(row.ratio()) + "}";
    }

    const table_reporter &table;
};

} // namespace

int main(int argc, char **argv)
{
    // Of repetitions the best counts, of limits as well: others share the machine, and can only slow a run down.
    char shortest_run[] = "--benchmark_min_time=0.05"; // seconds
    char repetitions[] = "--benchmark_repetitions=7";
    std::vector<char *> options = {argv[0], shortest_run, repetitions}; // the caller's come later, and win
    options.insert(options.end(), argv + 1, argv + argc);
    bool to_file = false;
    for (const char *option : options)
        to_file |= strncmp(option, "--benchmark_out=", strlen("--benchmark_out=")) == 0;
    int count = static_cast<int>(options.size());
    benchmark::Initialize(&count, options.data());
    if (benchmark::ReportUnrecognizedArguments(count, options.data()))
        return 1;
    if (benchmark::GetBenchmarkFilter().empty())
        benchmark::SetBenchmarkFilter("^table/");

    add_scans();
    add_moves();
    add_packing();
    add_decoders();
    add_calls();
    add_trainers();
    table_reporter table;
    json_reporter file(table);
    if (benchmark::RunSpecifiedBenchmarks(&table, to_file ? &file : nullptr) == 0) {
        fprintf(stderr, "no such benchmark\n");
        return 1;
    }
    return table.failed ? 1 : 0;
}
