// Range scans of packed columns, beside a plain read and a copy of the same bytes; and the roads that lead to one
// result.
#include "bench_support.h"
#include "kel_scan.h"
#include <algorithm>
#include <benchmark/benchmark.h>
#include <string>
#include <vector>

namespace
{

constexpr uint64_t in_cache = 10'000;
constexpr uint64_t out_of_cache = 20'000'000;

struct width_t {
    const char *name;
    uint64_t format;
    uint32_t width;

    uint64_t bits() const
    {
        return format == KEL_BITS ? width : 8 * width;
    }
};

constexpr width_t widths[] = {
    {"1bit", KEL_BITS, 1},   {"4bit", KEL_BITS, 4},   {"7bit", KEL_BITS, 7},   {"8bit", KEL_BITS, 8},
    {"12bit", KEL_BITS, 12}, {"16bit", KEL_BITS, 16}, {"20bit", KEL_BITS, 20}, {"24bit", KEL_BITS, 24},
    {"32bit", KEL_BITS, 32}, {"64bit", KEL_BITS, 64}, {"3byte", KEL_BYTES, 3}, {"16byte", KEL_BYTES, 16},
};
constexpr width_t road_width = {"12bit", KEL_BITS, 12};
constexpr uint64_t widest_bytes = 16;

struct share_t {
    const char *name;
    unsigned permille; // of the elements match
};

constexpr share_t shares[] = {{"0.1%", 1}, {"10%", 100}, {"50%", 500}};
constexpr share_t road_share = {"10%", 100};

struct output_t {
    const char *name;
    uint64_t flags;
    uint64_t format;
    uint32_t width;
    uint64_t most_elements; // whose indexes fit
};

constexpr output_t outputs[] = {{"bits", 0, KEL_BITS, 1, out_of_cache},
                                {"index4", KEL_ONES_INDEX, KEL_BYTES, 4, out_of_cache},
                                {"index2", KEL_ONES_INDEX, KEL_BYTES, 2, in_cache}};

struct size_name_t {
    const char *name;
    uint64_t elements;
};

constexpr size_name_t sizes[] = {{"10k", in_cache}, {"20M", out_of_cache}};

// ---- Data -----------------------------------------------------------------------------------------------------------

// Elements of one width, a given share of which is in the middle half of the domain (with one bit: is 1), the range of
// the scans. Small scans take the first elements of the large ones.
class column_t
{
  public:
    column_t(const width_t &width, const share_t &share)
        : bits(width.bits()), permille(share.permille), packed(out_of_cache * bits / 8)
    {
        uint64_t random = bits * 1000 + permille;
        bit_writer out(packed.data());
        for (uint64_t i = 0; i < out_of_cache; i++) {
            const bool match = next_random(random) % 1000 < permille;
            small_matches += match && i < in_cache;
            large_matches += match;
            const uint64_t above = (next_random(random) & (half() - 1)) + first() + (match ? 0 : half());
            out.put(above & (2 * half() - 1), high_bits());
            if (bits > 64)
                out.put(next_random(random), 64);
        }
    }

    bool is(const width_t &width, const share_t &share) const
    {
        return bits == width.bits() && permille == share.permille;
    }

    uint8_t *data() const
    {
        return packed.data();
    }

    kel_int_t lower(const width_t &width) const
    {
        return bits > 64 ? fixed_val(width.format, width.width, first(), 0)
                         : fixed_val(width.format, width.width, 0, first());
    }

    kel_int_t upper(const width_t &width) const
    {
        const uint64_t last = first() + half() - 1;
        return bits > 64 ? fixed_val(width.format, width.width, last, ~uint64_t{0})
                         : fixed_val(width.format, width.width, 0, last);
    }

    uint64_t matches(uint64_t elements) const
    {
        return elements == in_cache ? small_matches : large_matches;
    }

    static uint64_t bytes(const width_t &width, uint64_t elements)
    {
        return elements * width.bits() / 8;
    }

  private:
    // Of an element's first 64 bits: their number, half of their domain, and the first value of the range.
    uint64_t high_bits() const
    {
        return std::min<uint64_t>(bits, 64);
    }

    uint64_t half() const
    {
        return uint64_t{1} << (high_bits() - 1);
    }

    uint64_t first() const
    {
        return std::max<uint64_t>(half() / 2, 1);
    }

    uint64_t bits;
    uint64_t permille;
    bench_bytes packed;
    uint64_t small_matches = 0;
    uint64_t large_matches = 0;
};

// The column that was asked for last is kept: benchmarks are in the order of columns.
const column_t &get_column(const width_t &width, const share_t &share)
{
    static std::unique_ptr<column_t> column;
    if (!column || !column->is(width, share)) {
        column.reset(); // before the next one takes its room
        column = std::make_unique<column_t>(width, share);
    }
    return *column;
}

// Room for every output.
uint8_t *output_bytes()
{
    static const bench_bytes bytes(widest_bytes * out_of_cache);
    return bytes.data();
}

// ---- Measures -------------------------------------------------------------------------------------------------------

// Counts what a run gets through.
template <class Run>
void measure(benchmark::State &state, const width_t &width, uint64_t elements, const Run &run)
{
    measure_run(state, {{"elements/ns", elements}, {"packed_GB/s", column_t::bytes(width, elements)}}, run);
}

void scan(benchmark::State &state, width_t width, share_t share, output_t output, uint64_t elements)
{
    const column_t &column = get_column(width, share);
    const bench_context ctx;
    const kel_vec_t src = fixed_vec(width.format, width.width, elements, column.data());
    const kel_vec_t dst = fixed_vec(output.format, output.width, elements, output_bytes());
    const kel_int_t lower = column.lower(width);
    const kel_int_t upper = column.upper(width);
    kel_result_t result = {};
    measure(state, width, elements,
            [&] { result = kel_scan_range(ctx, output.flags, &src, &dst, KEL_GE_AND_LE, &lower, &upper); });
    if (result.status != KEL_SUCCESS || result.count != column.matches(elements))
        state.SkipWithError("the scan fails, or miscounts");
}

void read(benchmark::State &state, width_t width, uint64_t elements)
{
    const column_t &column = get_column(width, shares[0]);
    measure(state, width, elements, [&] {
        uint64_t sum = 0;
        for (uint64_t i = 0; i < column_t::bytes(width, elements) / 8; i++) {
            uint64_t word;
            memcpy(&word, column.data() + 8 * i, sizeof word);
            sum += word;
        }
        benchmark::DoNotOptimize(sum);
    });
}

void copy(benchmark::State &state, width_t width, uint64_t elements)
{
    const column_t &column = get_column(width, shares[0]);
    measure(state, width, elements, [&] {
        memcpy(output_bytes(), column.data(), column_t::bytes(width, elements));
        benchmark::ClobberMemory();
    });
}

// ---- Roads ----------------------------------------------------------------------------------------------------------

// One scan to a bit vector, as all roads see it.
struct task_t {
    kel_context_t *ctx;
    kel_vec_t src;
    kel_vec_t dst;
    kel_int_t lower;
    kel_int_t upper;
    std::vector<uint16_t> plain16;
    std::vector<uint32_t> plain32;
};

using kernel_t = decltype(kel_scan_range_emulate);

template <kernel_t kernel>
void packed_road(const task_t &task)
{
    cca_t cca = {};
    kernel(task.ctx, 0, &task.src, &task.dst, KEL_GE_AND_LE, &task.lower, &task.upper, &cca);
}

template <class T, std::vector<T> task_t::*elements>
void plain_road(const task_t &task)
{
    const T *plain = (task.*elements).data();
    const auto lower = static_cast<T>(task.lower.dword[2]);
    const auto upper = static_cast<T>(task.upper.dword[2]);
    auto *out = static_cast<uint8_t *>(task.dst.data);
    for (uint64_t i = 0; i < task.src.elements; i += 8) {
        unsigned byte = 0;
        for (unsigned j = 0; j < 8; j++)
            byte |= static_cast<unsigned>((plain[i + j] >= lower) & (plain[i + j] <= upper)) << (7 - j);
        *out++ = static_cast<uint8_t>(byte);
    }
    benchmark::ClobberMemory();
}

constexpr struct {
    const char *name;
    void (*run)(const task_t &task);
} roads[] = {{"general", packed_road<kel_scan_range_general>},
             {"block", packed_road<kel_scan_range_emulate>},
             {"plain_uint16", plain_road<uint16_t, &task_t::plain16>},
             {"plain_uint32", plain_road<uint32_t, &task_t::plain32>}};

void road(benchmark::State &state, void (*run)(const task_t &task))
{
    static_assert(in_cache % 8 == 0);
    const column_t &column = get_column(road_width, road_share);
    const bench_context ctx(0);
    task_t task = {ctx,
                   fixed_vec(road_width.format, road_width.width, in_cache, column.data()),
                   fixed_vec(KEL_BITS, 1, in_cache, output_bytes()),
                   column.lower(road_width),
                   column.upper(road_width),
                   {},
                   {}};
    for (uint64_t i = 0; i < in_cache; i++) {
        const uint64_t bit = i * road_width.width;
        const unsigned two_bytes = column.data()[bit / 8] * 256u + column.data()[bit / 8 + 1];
        task.plain16.push_back(static_cast<uint16_t>(bit % 8 ? two_bytes & 0xfff : two_bytes >> 4));
        task.plain32.push_back(task.plain16.back());
    }
    memset(output_bytes(), 0xff, in_cache / 8);
    measure(state, road_width, in_cache, [&] { run(task); });

    bool right = true;
    for (uint64_t i = 0; i < in_cache; i++) {
        const bool found = output_bytes()[i / 8] >> (7 - i % 8) & 1;
        right &= found == (task.plain16[i] >= task.lower.dword[2] && task.plain16[i] <= task.upper.dword[2]);
    }
    if (!right)
        state.SkipWithError("the bits are wrong");
}

// ---- Registration ---------------------------------------------------------------------------------------------------

void add_column(const width_t &width, const share_t &share)
{
    for (const size_name_t &size : sizes)
        for (const output_t &output : outputs)
            if (size.elements <= output.most_elements)
                add_benchmark(std::string("scan/") + width.name + "/" + share.name + "/" + output.name + "/" +
                                  size.name,
                              scan, width, share, output, size.elements);
}

[[maybe_unused]] const bool added = [] {
    for (const auto &each : roads)
        add_benchmark(std::string("road/") + road_width.name + "/" + road_share.name + "/bits/10k/" + each.name, road,
                      each.run);
    for (const width_t &width : widths) {
        for (const size_name_t &size : sizes) {
            add_benchmark(std::string("read/") + width.name + "/" + size.name, read, width, size.elements);
            add_benchmark(std::string("copy/") + width.name + "/" + size.name, copy, width, size.elements);
        }
        for (const share_t &share : shares)
            add_column(width, share);
    }
    return true;
}();

} // namespace
