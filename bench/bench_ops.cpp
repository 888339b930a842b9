// Select, extract, translate, the logical operations, copy and fill, beside what memory allows: a plain read, memcpy, and
// a store loop over as many bytes.
#include "bench_support.h"
#include "kel_extract.h"
#include "kel_select.h"
#include "kel_translate.h"
#include <vector>

namespace
{

constexpr uint64_t in_cache = 16'384;
constexpr uint64_t out_of_cache = 20'000'000;

struct size_name_t {
    const char *name;
    uint64_t elements;
};

constexpr size_name_t sizes[] = {{"16k", in_cache}, {"20M", out_of_cache}};

struct width_t {
    const char *name;
    uint64_t format;
    uint32_t width;
};

uint64_t bytes_of(const kel_vec_t &vec)
{
    return vec.elements * (vec.format == KEL_BITS ? vec.elem_width : 8 * vec.elem_width) / 8;
}

// Memory of the process's life: sources of random bytes, and destinations.
uint8_t *source_bytes()
{
    static const bench_bytes bytes = [] {
        bench_bytes random(8 * out_of_cache);
        uint64_t state = 1;
        for (uint64_t i = 0; i < out_of_cache; i++) {
            const uint64_t word = next_random(state);
            memcpy(random.data() + 8 * i, &word, sizeof word);
        }
        return random;
    }();
    return bytes.data();
}

uint8_t *destination_bytes()
{
    static const bench_bytes bytes(8 * out_of_cache);
    return bytes.data();
}

void require(benchmark::State &state, kel_status_t status)
{
    if (status != KEL_SUCCESS)
        state.SkipWithError("the request fails");
}

// ---- Limits ---------------------------------------------------------------------------------------------------------

void copy_limit(benchmark::State &state, uint64_t bytes)
{
    const uint8_t *from = source_bytes();
    uint8_t *to = destination_bytes();
    measure_run(state, {{"GB/s", bytes}, {"moved_GB/s", 2 * bytes}}, [&] {
        memcpy(to, from, bytes);
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
    });
}

void read_limit(benchmark::State &state, uint64_t bytes)
{
    const uint8_t *from = source_bytes();
    measure_run(state, {{"GB/s", bytes}}, [&] {
        uint64_t sum = 0;
        for (uint64_t i = 0; i < bytes / 8; i++) {
            uint64_t word;
            memcpy(&word, from + 8 * i, sizeof word);
            sum += word;
        }
        benchmark::DoNotOptimize(sum);
    });
}

void store_limit(benchmark::State &state, uint64_t bytes)
{
    uint64_t word = 0x0102030405060708;
    uint8_t *to = destination_bytes();
    benchmark::DoNotOptimize(word);
    measure_run(state, {{"GB/s", bytes}}, [&] {
        for (uint64_t i = 0; i < bytes / 8; i++)
            memcpy(to + 8 * i, &word, sizeof word);
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
    });
}

// ---- Extract and select ---------------------------------------------------------------------------------------------

using extract_t = decltype(kel_extract_emulate);

void extract(benchmark::State &state, width_t width, uint32_t dst_bytes, uint64_t elements, extract_t *road)
{
    const bench_context ctx(0);
    const kel_vec_t src = fixed_vec(width.format, width.width, elements, source_bytes());
    const kel_vec_t dst = fixed_vec(KEL_BYTES, dst_bytes, elements, destination_bytes());
    kel_status_t status = KEL_SUCCESS;
    cca_t cca = {};
    measure_run(state, {{"elements/ns", elements}, {"dst_GB/s", bytes_of(dst)}},
                [&] { status = road(ctx, 0, &src, &dst, &cca); });
    require(state, status);
}

using select_t = decltype(kel_select_emulate);

void select(benchmark::State &state, width_t width, uint32_t dst_bytes, uint64_t percent, uint64_t elements,
            select_t *road)
{
    static std::vector<uint8_t> mask_bytes(out_of_cache / 8);
    static uint64_t masked = 0;
    if (masked != percent) {
        uint64_t random = percent;
        bit_writer out(mask_bytes.data());
        for (uint64_t i = 0; i < out_of_cache; i++)
            out.put(next_random(random) % 100 < percent, 1);
        masked = percent;
    }
    const bench_context ctx(0);
    const kel_vec_t src = fixed_vec(width.format, width.width, elements, source_bytes());
    const kel_vec_t dst = fixed_vec(KEL_BYTES, dst_bytes, elements, destination_bytes());
    const kel_vec_t mask = fixed_vec(KEL_BITS, 1, elements, mask_bytes.data());
    kel_status_t status = KEL_SUCCESS;
    cca_t cca = {};
    measure_run(state, {{"elements/ns", elements}, {"src_GB/s", bytes_of(src)}},
                [&] { status = road(ctx, 0, &src, &dst, &mask, &cca); });
    require(state, status);
}

// ---- Translate ------------------------------------------------------------------------------------------------------

using translate_t = decltype(kel_translate_emulate);

void translate(benchmark::State &state, width_t width, uint64_t flags, uint64_t elements, translate_t *road)
{
    const bench_context ctx(0);
    const bench_bytes bitmap_bytes((uint64_t{1} << width.width) / 8);
    memcpy(bitmap_bytes.data(), source_bytes(), (uint64_t{1} << width.width) / 8);
    const kel_vec_t src = fixed_vec(width.format, width.width, elements, source_bytes());
    const kel_vec_t dst = flags & KEL_ONES_INDEX ? fixed_vec(KEL_BYTES, 4, elements, destination_bytes())
                                                 : fixed_vec(KEL_BITS, 1, elements, destination_bytes());
    const kel_vec_t bitmap = fixed_vec(KEL_BITS, 1, uint64_t{1} << width.width, bitmap_bytes.data());
    kel_status_t status = KEL_SUCCESS;
    cca_t cca = {};
    measure_run(state, {{"elements/ns", elements}, {"packed_GB/s", bytes_of(src)}},
                [&] { status = road(ctx, flags, &src, &dst, &bitmap, width.width, &cca); });
    require(state, status);
}

// ---- Logical operations, copy, fill ---------------------------------------------------------------------------------

struct place_t {
    const char *name;
    unsigned bytes; // the first source starts this far behind a multiple of 64,
    uint8_t offset; // at this bit
};

constexpr place_t places[] = {{"aligned", 0, 0}, {"3bytes", 3, 0}, {"5bits", 0, 5}};

void logical_and(benchmark::State &state, place_t place, uint64_t bits)
{
    const bench_context ctx;
    kel_vec_t src1 = fixed_vec(KEL_BITS, 1, bits, source_bytes() + place.bytes);
    const kel_vec_t src2 = fixed_vec(KEL_BITS, 1, bits, source_bytes() + (bits / 8 + 127) / 64 * 64);
    const kel_vec_t dst = fixed_vec(KEL_BITS, 1, bits, destination_bytes());
    src1.offset = place.offset;
    kel_status_t status = KEL_SUCCESS;
    measure_run(state, {{"moved_GB/s", 3 * bits / 8}}, [&] { status = kel_and(ctx, 0, &src1, &src2, &dst).status; });
    require(state, status);
}

void copy(benchmark::State &state, uint64_t bytes)
{
    const bench_context ctx;
    const uint8_t *from = source_bytes();
    uint8_t *to = destination_bytes();
    kel_status_t status = KEL_SUCCESS;
    measure_run(state, {{"GB/s", bytes}}, [&] { status = kel_copy(ctx, 0, from, to, bytes).status; });
    require(state, status);
}

void fill(benchmark::State &state, uint64_t bytes)
{
    const bench_context ctx;
    uint8_t *to = destination_bytes();
    kel_status_t status = KEL_SUCCESS;
    measure_run(state, {{"GB/s", bytes}}, [&] { status = kel_fill(ctx, 0, 0x01020304, to, bytes / 4, 4).status; });
    require(state, status);
}

// ---- Registration ---------------------------------------------------------------------------------------------------

constexpr width_t extracted[] = {{"1bit", KEL_BITS, 1},   {"4bit", KEL_BITS, 4},   {"12bit", KEL_BITS, 12},
                                 {"16bit", KEL_BITS, 16}, {"24bit", KEL_BITS, 24}, {"3byte", KEL_BYTES, 3}};
constexpr width_t whole[] = {
    {"1byte", KEL_BYTES, 1}, {"2byte", KEL_BYTES, 2}, {"4byte", KEL_BYTES, 4}, {"8byte", KEL_BYTES, 8}};
constexpr width_t codes[] = {{"8bit", KEL_BITS, 8}, {"16bit", KEL_BITS, 16}, {"24bit", KEL_BITS, 24}};
constexpr uint64_t shares[] = {1, 10, 50, 99}; // percent of ones in a mask

void add_extracts(const size_name_t &size)
{
    const std::string end = std::string("/") + size.name;
    for (const width_t &width : extracted)
        for (const uint32_t bytes : {1, 2, 4, 8})
            add_benchmark(std::string("extract/") + width.name + "/to" + std::to_string(bytes) + end, extract, width,
                          bytes, size.elements, kel_extract_emulate);
    for (const width_t &width : whole)
        add_benchmark(std::string("extract/") + width.name + "/unchanged" + end, extract, width, width.width,
                      size.elements, kel_extract_emulate);
    add_benchmark("extract/12bit/to2/general" + end, extract, extracted[2], 2u, size.elements, kel_extract_general);
}

void add_selects(const size_name_t &size)
{
    const std::string end = std::string("/") + size.name;
    for (const uint64_t share : shares) {
        const std::string dense = std::string(1, '/').append(std::to_string(share)).append("%");
        for (const width_t &width : whole)
            add_benchmark(std::string("select/") + width.name + dense + end, select, width, width.width, share,
                          size.elements, kel_select_emulate);
        add_benchmark("select/12bit/to2" + dense + end, select, extracted[2], 2u, share, size.elements,
                      kel_select_emulate);
        add_benchmark("select/4byte/general" + dense + end, select, whole[2], 4u, share, size.elements,
                      kel_select_general);
    }
}

void add_translates(const size_name_t &size)
{
    const std::string end = std::string("/") + size.name;
    for (const width_t &width : codes) {
        add_benchmark(std::string("translate/") + width.name + "/bits" + end, translate, width, uint64_t{0},
                      size.elements, kel_translate_emulate);
        add_benchmark(std::string("translate/") + width.name + "/index4" + end, translate, width, KEL_ONES_INDEX,
                      size.elements, kel_translate_emulate);
        add_benchmark(std::string("translate/") + width.name + "/bits/general" + end, translate, width, uint64_t{0},
                      size.elements, kel_translate_general);
    }
}

void add_bytes(const char *name, uint64_t bytes)
{
    const std::string end = std::string("/") + name;
    add_benchmark("memcpy" + end, copy_limit, bytes);
    add_benchmark("read" + end, read_limit, bytes);
    add_benchmark("store" + end, store_limit, bytes);
    add_benchmark("copy" + end, copy, bytes);
    add_benchmark("fill" + end, fill, bytes);
    for (const place_t &place : places)
        add_benchmark(std::string("and/") + place.name + end, logical_and, place, bytes / 2 * 8);
}

[[maybe_unused]] const bool added = [] {
    add_bytes("100B", 100);
    add_bytes("10KB", 10'000);
    add_bytes("100MB", 100'000'000);
    for (const size_name_t &size : sizes) {
        add_extracts(size);
        add_selects(size);
        add_translates(size);
    }
    return true;
}();

} // namespace
