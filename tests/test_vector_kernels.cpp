// The producers of each set beside their portable twins: random fields, at either end of memory between pages that
// fault.
#include "kel_producer.h"
#include "support.h"
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>

static void PrintTo(const kernel_set_t *set, std::ostream *out)
{
    *out << set->name;
}

namespace
{

constexpr uint64_t most_blocks = 3;

struct request_t {
    fields_t fields;
    uint64_t blocks;
};

std::ostream &operator<<(std::ostream &out, const request_t &request)
{
    return out << request.blocks << " blocks of " << request.fields.width << " bits at bit " << request.fields.offset
               << " of " << static_cast<const void *>(request.fields.data);
}

std::vector<const kernel_set_t *> sets()
{
    std::vector<const kernel_set_t *> all;
    for (const kernel_set_t *set = kernel_sets; set->name; set++)
        all.push_back(set);
    return all;
}

class kernel_sets_test : public testing::TestWithParam<const kernel_set_t *>
{
  protected:
    kernel_sets_test()
    {
        random.fill(source.data, source.size);
    }

    void SetUp() override
    {
        if (!set->present())
            GTEST_SKIP() << "this processor has no " << set->name;
    }

    // Fields that start behind a page that faults, or such that what may be loaded ends in front of one.
    request_t any_request(unsigned narrowest, unsigned widest, unsigned last_offset = 7)
    {
        const auto width = random.between<unsigned>(narrowest, widest);
        const auto offset = random.between<unsigned>(0, last_offset);
        const uint64_t blocks = random.between(1, most_blocks), loaded = 8 * width * blocks + set->overrun;
        return {{source.data + (random.one_in(2) ? 0 : source.size - loaded), width, offset}, blocks};
    }

    // Blocks of whole elements of 9 to 16 bytes.
    request_t any_wide_request()
    {
        const unsigned width = 8 * random.between<unsigned>(9, 16);
        return any_request(width, width, 0);
    }

    // Whether both producers make the same mask words.
    template <class Test>
    void compare_masks(const request_t &request, const Test &test)
    {
        uint64_t expected[most_blocks] = {}, seen[most_blocks] = {};
        const fields_t &fields = request.fields;
        const auto twin = choose_masks(portable, fields, test), made = choose_masks(set, fields, test);
        ASSERT_TRUE(made != twin || set == portable || fields.width == 1) << request;
        twin(fields.data, fields, test, expected, request.blocks);
        made(fields.data, fields, test, seen, request.blocks);
        ASSERT_EQ(hex(seen, sizeof seen), hex(expected, sizeof expected)) << request;
    }

    const kernel_set_t *const set = GetParam();
    const kernel_set_t *const portable = sets().back();
    random_source random{70};
    const guarded_buffer source{2 * size_t{4096}, 4096}; // whole pages
};

predicate_t any_predicate(random_source &random, unsigned width)
{
    const uint64_t highest = ~uint64_t{0} >> (64 - width);
    predicate_t predicate = {{}, {}, random.between<unsigned>(1, 2), random.one_in(2)};
    for (unsigned i = 0; i < 2; i++) {
        predicate.first[i] = random.one_in(5) ? random.between(0, 1) * highest : random.between(0, highest);
        const uint64_t most = highest - predicate.first[i];
        predicate.span[i] = random.one_in(5) ? random.between(0, 1) * most : random.between(0, most);
    }
    return predicate;
}

} // namespace

TEST_P(kernel_sets_test, intervals)
{
    for (unsigned i = 0; i < 300000; i++) {
        const request_t request = any_request(1, 64);
        ASSERT_NO_FATAL_FAILURE(compare_masks(request, any_predicate(random, request.fields.width)));
    }
}

// Intervals that begin at elements or a little before them, so that lower words decide.
TEST_P(kernel_sets_test, wide_intervals)
{
    for (unsigned i = 0; i < 50000; i++) {
        const request_t request = any_wide_request();
        const unsigned bytes = request.fields.width / 8;
        wide_predicate_t predicate = {{}, {}, random.between<unsigned>(1, 2), random.one_in(2)};
        for (unsigned j = 0; j < 2; j++) {
            const uint8_t *element = request.fields.data + bytes * random.between(0, block_elements - 1);
            for (unsigned byte = 0; byte < bytes; byte++)
                predicate.first[j] = predicate.first[j] << 8 | element[byte];
            predicate.first[j] -= std::min<uint128_t>(predicate.first[j], random.one_in(2) ? 0 : random.word());
            const uint128_t most = (~uint128_t{0} >> (128 - 8 * bytes)) - predicate.first[j];
            predicate.span[j] = std::min<uint128_t>(most, uint128_t{random.word()} << random.between(0, 64));
        }
        ASSERT_NO_FATAL_FAILURE(compare_masks(request, predicate));
    }
}

// Bitmaps end at the page that faults, but for the rest of a word; some say that they end before, or far behind it.
TEST_P(kernel_sets_test, bitmaps)
{
    for (unsigned width = 1; width <= 20; width++) {
        const uint64_t bits = uint64_t{1} << width;
        const guarded_buffer bytes((bits + 7) / 8, 4);
        random.fill(bytes.data, bytes.size);
        for (unsigned i = 0; i < 5000; i++) {
            const request_t request = any_request(width, width);
            const uint64_t told = random.one_in(2) ? bits : random.one_in(2) ? random.between(1, bits) : 1u << 24;
            ASSERT_NO_FATAL_FAILURE(compare_masks(request, bitmap_t{bytes.data, told, random.one_in(2)}));
        }
    }
}

// A bitmap for any field, of which few pages are ever touched.
TEST_P(kernel_sets_test, vast_bitmap)
{
    constexpr uint64_t bits = uint64_t{1} << 32;
    void *memory = mmap(nullptr, bits / 8, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto *bytes = static_cast<uint8_t *>(memory);
    for (unsigned i = 0; i < 200; i++) {
        const request_t request = any_request(20, 32);
        uint64_t elements[most_blocks * block_elements];
        portable_elements(request.fields, 8)(request.fields.data, request.fields, 0, 0, elements, request.blocks);
        for (uint64_t j = 0; j < request.blocks * block_elements; j++) {
            const uint64_t element = kel_load_be<uint64_t>(&elements[j]);
            if (random.one_in(2))
                bytes[element / 8] = static_cast<uint8_t>(bytes[element / 8] | 0x80 >> element % 8);
        }
        ASSERT_NO_FATAL_FAILURE(compare_masks(request, bitmap_t{bytes, bits, i % 4 == 0}));
    }
    munmap(memory, bits / 8);
}

// Elements as they are cut or padded to their destination, which ends at a page that faults.
TEST_P(kernel_sets_test, elements)
{
    for (const unsigned bytes : {1u, 2u, 4u, 8u, 16u}) {
        const unsigned bits = 8 * bytes;
        for (unsigned i = 0; i < 100000; i++) {
            const request_t request = random.one_in(8) ? any_wide_request() : any_request(1, 64);
            const fields_t &fields = request.fields;
            const unsigned rounded = (fields.width + 7) / 8 * 8;
            const unsigned right = rounded > bits ? rounded - bits : 0;
            const unsigned left = rounded < bits && random.one_in(2) ? bits - rounded : 0;
            const size_t size = request.blocks * block_elements * bytes;
            static uint8_t expected[most_blocks * block_elements * 16];
            static const guarded_buffer room(sizeof expected, 1);
            uint8_t *const seen = room.data + room.size - size;
            portable_elements(fields, bytes)(fields.data, fields, right, left, expected, request.blocks);
            choose_producer(set, &kernel_set_t::elements, fields, uint64_t{bytes})(fields.data, fields, right, left,
                                                                                   seen, request.blocks);
            ASSERT_EQ(memcmp(seen, expected, size), 0)
                << request << " to " << bytes << " bytes, shifted by " << right << " and " << left;
        }
    }
}

// Compactions of any mask. The vector form may leave something in the 64 bytes behind its end, within the room of a
// block.
TEST_P(kernel_sets_test, compactions)
{
    const auto any_mask = [&] {
        const uint64_t mask = random.word();
        return random.one_in(3) ? mask : random.one_in(2) ? mask & random.word() & random.word() : mask | random.word();
    };
    for (const unsigned bytes : {1u, 2u, 4u, 8u, 16u}) {
        const guarded_buffer from(block_elements * bytes, 1), room(block_elements * bytes, 1);
        uint8_t expected[block_elements * 16];
        const auto check = [&](const uint8_t *end, ptrdiff_t length, uint64_t mask) {
            ASSERT_EQ(end - room.data, length);
            ASSERT_EQ(memcmp(room.data, expected, static_cast<size_t>(length)), 0) << std::hex << mask;
            const uint8_t *const stop = room.data + room.size;
            ASSERT_TRUE(std::all_of(std::min(end + 64, stop), stop, [](uint8_t byte) { return byte == 0xa5; }));
            memset(room.data, 0xa5, room.size);
        };
        const pick_block_t pick = choose_producer(set, &kernel_set_t::picks, uint64_t{bytes});
        for (unsigned i = 0; i < 50000; i++) {
            const uint64_t mask = any_mask();
            random.fill(from.data, from.size);
            const auto length = portable_picks(bytes)(from.data, mask, expected) - expected;
            ASSERT_NO_FATAL_FAILURE(check(pick(from.data, mask, room.data), length, mask));
            if (bytes != 2 && bytes != 4)
                continue;
            const uint64_t index = random.between(0, bytes == 2 ? UINT16_MAX - 63 : UINT32_MAX - 63);
            ASSERT_EQ(portable_indexes(bytes)(mask, index, expected) - expected, length);
            ASSERT_NO_FATAL_FAILURE(check(
                choose_producer(set, &kernel_set_t::indexes, uint64_t{bytes})(mask, index, room.data), length, mask));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(vector_kernels, kernel_sets_test, testing::ValuesIn(sets()),
                         [](const auto &test) { return test.param->name; });
