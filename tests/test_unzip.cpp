// The expansion of compressed vectors, alone and under every operation, against a decoder that reads single bits.
#include "kel_extract.h"
#include "kel_frame.h"
#include "kel_io.h"
#include "kel_scan.h"
#include "kel_select.h"
#include "kel_translate.h"
#include "kel_zip.h"
#include "support.h"
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace
{

std::string num(uint64_t value)
{
    return std::to_string(value);
}

// A dictionary, and a codec whose image ends at a page that faults. One symbol of a faulty one has a bad width.
struct dictionary {
    dictionary(random_source &random, bool faulty)
    {
        static constexpr char alphabet[] = {0, 1, 127, -1};
        static constexpr unsigned counts[] = {1, 1, 2, 3, 4, 255, 256, 257, 512, 513, 1000, 1024}, bad[] = {0, 9, 15};
        const auto nsyms = random.one_in(2) ? random.pick(counts) : random.between<unsigned>(1, 1024);
        const bool rows = !faulty && random.one_in(3);
        const unsigned widest = rows ? std::min(8u, 14 / ((nsyms + 255) / 256)) : 8, faulty_code = nsyms / 2;
        std::string widths(rows ? 4096 : (nsyms + 1) / 2, '\0'), all;
        int ends[256] = {};
        for (unsigned code = 0; code < nsyms; code++) {
            const bool bad_width = faulty && code == faulty_code;
            std::string symbol(bad_width ? random.pick(bad) : random.between<unsigned>(1, widest), '\0');
            for (char &byte : symbol)
                byte = random.pick(alphabet);
            symbols.push_back(symbol);
            const auto width = static_cast<int>(symbol.size());
            if (rows) {
                char *row = &widths[code % 256 * 16];
                memcpy(row + 2 + ends[code % 256], symbol.data(), symbol.size());
                ends[code % 256] += width;
                row[code < 512] = static_cast<char>(row[code < 512] | ends[code % 256] << (code / 256 % 2 ? 0 : 4));
            } else {
                all += symbol;
                widths[code / 2] = static_cast<char>(widths[code / 2] | width << (code % 2 ? 0 : 4));
            }
        }
        const std::string head = {static_cast<char>(nsyms >> 8), static_cast<char>(nsyms)};
        const std::string text = rows ? std::string(256, '\0') + widths : head + widths + all;
        image = std::make_unique<guarded_buffer>(text.size(), rows ? 16 : 1);
        auto *syms = static_cast<uint8_t *>(memcpy(image->data, text.data(), text.size()));
        syms += rows ? 258 : 2 + widths.size();
        codec = {image->data, syms, static_cast<uint16_t>(nsyms), static_cast<uint16_t>(text.size()), !rows, 0, {}};
        while (1u << code_width < nsyms)
            code_width++;
    }

    std::vector<std::string> symbols;
    std::unique_ptr<guarded_buffer> image;
    kel_zip_t codec;
    unsigned code_width = 0;
};

// Appends bits; a stream is a string of them until it is placed.
void append(std::string &stream, uint64_t field, unsigned bits)
{
    while (bits-- > 0)
        stream += static_cast<char>(field >> bits & 1);
}

std::string pack(const std::string &stream)
{
    std::string bytes((stream.size() + 7) / 8, '\0');
    for (size_t i = 0; i < stream.size(); i++)
        bytes[i / 8] = static_cast<char>(bytes[i / 8] | stream[i] << (7 - i % 8));
    return bytes;
}

// A compressed vector and a plain one with the same elements, at any addresses; the words with their last bytes end at
// pages that fault.
struct source {
    source(random_source &random, const dictionary &from, bool faulty);

    uint8_t *place(random_source &random, const std::string &bytes)
    {
        const size_t lead = random.between(0, 7), size = std::max<size_t>(bytes.size(), 1);
        memory.push_back(std::make_unique<guarded_buffer>((lead + size + 7) / 8 * 8));
        random.fill(memory.back()->data, memory.back()->size);
        return static_cast<uint8_t *>(memcpy(memory.back()->data + lead, bytes.data(), bytes.size()));
    }

    kel_vec_t zipped = {}, plain = {};
    uint64_t wanted = 0;   // decoded bytes
    uint64_t expanded = 0; // elements, with their runs
    std::vector<std::unique_ptr<guarded_buffer>> memory = {};
};

// What becomes of a stream: the bytes, and what a diagnosis says of it.
struct expansion {
    kel_status_t status = KEL_SUCCESS;
    std::string bytes = "";
    lines_t fault = {};
};

expansion decode(const source &s, const dictionary &from, bool extra, uint64_t room)
{
    expansion e;
    bit_reader in = {s.zipped.data, s.zipped.offset};
    auto left = static_cast<int64_t>(s.wanted);
    for (uint64_t index = 0; left > 0; index++) {
        uint64_t code = in.field(from.code_width);
        for (unsigned i = 0; from.code_width == 0 && i < 64; i++) { // the low half of the first word, shifted
            const uint64_t bit = s.zipped.offset + i, held = 64 - reinterpret_cast<uintptr_t>(s.zipped.data) % 8 * 8;
            code = (code << 1 | (bit < held && bit_reader{s.zipped.data, bit}.field(1))) & UINT32_MAX;
        }
        if (code >= from.symbols.size()) {
            const std::string text = "EDATAFMT: codeword " + num(code) + " > max valid codeword ";
            return {KEL_EDATAFMT, e.bytes, {text + num(from.symbols.size() - 1) + " at index " + num(index)}};
        }
        const std::string &symbol = from.symbols[code];
        if (symbol.empty() || symbol.size() > 8)
            return {KEL_EDATAFMT,
                    e.bytes,
                    {"EDATAFMT: codeword " + num(code) + " at index " + num(index) +
                     " maps to symbol with bad length " + num(symbol.size()) +
                     " bytes; must be between 1 and 8 bytes"}};
        if (extra && (e.bytes.empty() ? 0 : (e.bytes.size() - 1) / 8 * 8) >= room) // the last word is held back
            return {KEL_EOVERFLOW, e.bytes};
        e.bytes += symbol;
        left -= static_cast<int64_t>(symbol.size());
    }
    e.bytes.resize((e.bytes.size() + 7) / 8 * 8);
    e.status = e.bytes.size() < room ? KEL_SUCCESS : KEL_EOVERFLOW;
    return e;
}

source::source(random_source &random, const dictionary &from, bool faulty)
{
    static constexpr uint64_t formats[] = {0, KEL_BITS, KEL_VAR, KEL_VAR, KEL_RLE, KEL_RLE | KEL_BITS};
    static constexpr uint16_t aux_widths[] = {1, 2, 4, 8};
    plain.format = random.pick(formats);
    plain.elements = random.between(0, random.one_in(8) ? 1500 : 60);
    plain.elem_width = random.between<uint32_t>(!(plain.format & KEL_VAR), 16); // not read where lengths are given
    if (plain.format & KEL_BITS && random.one_in(3))
        plain.elem_width *= 8;
    const uint64_t bits = plain.elem_width * (plain.format & KEL_BITS ? 1 : 8);
    const bool add_one = plain.format & (KEL_VAR | KEL_RLE) && random.one_in(2), zeros = !faulty && random.one_in(6);
    plain.format |= add_one ? KEL_ADD_ONE : 0;
    plain.aux_width = random.pick(aux_widths);
    plain.aux_offset = random.between<uint8_t>(0, 7);
    std::string aux, stream;
    append(aux, random.word(), plain.aux_offset);
    for (uint64_t i = 0; i < plain.elements; i++) {
        const uint64_t most = std::min((1u << plain.aux_width) - 1, 15u);
        const auto stored = random.between(add_one || (zeros && random.one_in(40)) ? 0 : 1, most);
        append(aux, stored, plain.aux_width);
        expanded += plain.format & KEL_RLE ? stored + add_one : 1;
        wanted += plain.format & KEL_VAR ? stored + add_one : 0;
    }
    plain.aux_data = place(random, pack(aux));

    zipped = plain;
    zipped.format |= KEL_ZIP;
    zipped.offset = random.between<uint8_t>(0, bits > 64 ? 0 : 7);
    if (!(plain.format & KEL_VAR))
        wanted = (zipped.offset + bits * plain.elements + 7) / 8;
    append(stream, random.word(), zipped.offset);
    const uint64_t any_code = faulty && random.one_in(2) ? (1u << from.code_width) - 1 : from.symbols.size() - 1;
    for (uint64_t made = 0; made < wanted; zipped.codewords++) {
        const uint64_t code = random.one_in(50) ? any_code : random.between(0, from.symbols.size() - 1);
        append(stream, code, from.code_width);
        made += code < from.symbols.size() ? std::max<size_t>(from.symbols[code].size(), from.symbols.size() == 1) : 0;
    }
    if (from.code_width == 0)
        append(stream, faulty ? random.word() : 0, 64);
    else if (random.one_in(3))
        zipped.codewords = 0;
    zipped.codec = const_cast<kel_zip_t *>(&from.codec);
    zipped.data = place(random, pack(stream));
    std::string decoded = decode(*this, from, false, 0).bytes;
    decoded.resize(wanted);
    plain.data = place(random, decoded);
}

// ---- Expansion alone ------------------------------------------------------------------------------------------------

TEST(expansion, agrees_with_the_model)
{
    const guarded_buffer area(size_t{1} << 16, 1);
    random_source random(1);
    for (unsigned turn = 0; turn < 1200 && !HasFailure(); turn++) {
        const bool extra = turn % 2;
        block_store store = {turn % 8};
        const kel_init_options_t allocator = store.options();
        test_context ctx(turn / 2 % 2 + 1, extra ? KEL_DEBUG_EXTRA : 0, KEL_LOG_ERROR, &allocator);
        const dictionary from(random, extra && random.one_in(4));
        const source s(random, from, extra && random.one_in(4));
        const expansion all = decode(s, from, false, UINT64_MAX);
        SCOPED_TRACE("turn " + num(turn));
        EXPECT_EQ(zip_valid_syms(ctx, &s.zipped, &from.codec), all.fault.empty());
        EXPECT_EQ(ctx.messages(), all.fault);
        EXPECT_EQ(kel_debug_calls, all.fault.size());
        for (uint64_t room = 0; room < all.bytes.size() + 18;
             room += room < 70 || room + 20 > all.bytes.size() ? 1 : 50) {
            auto *to = static_cast<uint8_t *>(memset(area.data + area.size - room, 0xa5, room));
            const expansion e = decode(s, from, extra, room);
            ASSERT_EQ(kel_unzip(ctx, &s.zipped, &from.codec, to, room), e.status) << room;
            const std::string expected = e.bytes + std::string(e.status ? 0 : room - e.bytes.size(), '\xa5');
            const size_t told = e.status == KEL_EDATAFMT ? 0 : std::min<size_t>(room, expected.size());
            ASSERT_EQ(memcmp(to, expected.data(), told), 0) << room;
        }

        const expansion whole = decode(s, from, extra, s.wanted + 8);
        const size_t blocks = store.live.size();
        void *buf = nullptr;
        size_t size = 0;
        const bool cut = whole.status == KEL_EOVERFLOW, bad = whole.status == KEL_EDATAFMT;
        EXPECT_EQ(kelio_unzip(ctx, &s.zipped, &buf, &size), bad ? KEL_EDATAFMT : KEL_SUCCESS);
        EXPECT_EQ(ctx.messages(), cut ? lines_t{"kel_unzip outlen=" + num(s.wanted + 8) + " overflow"} : lines_t());
        EXPECT_EQ(kel_debug_calls, all.fault.size() + cut);
        EXPECT_EQ(store.requests.back(), (s.wanted + 15) / 8 * 8 + 16);
        if (!bad) {
            ASSERT_EQ(size, s.wanted + 8);
            EXPECT_EQ(memcmp(buf, whole.bytes.data(), std::min(size, whole.bytes.size())), 0);
            kel_free(ctx, buf, size);
        }
        EXPECT_EQ(store.live.size(), blocks);
    }
}

TEST(expansion, known_bytes)
{
    test_context ctx(2, 0);
    uint8_t image[24] = {0, 3, 0x21, 0x30, 'A', 'B', 'C', 'D', 'E', 'F'}, to[24];
    kel_zip_t codec = {image, image + 4, 3, 10, 1, 0, {}};
    alignas(8) uint8_t codewords[8] = {0x24};
    kel_vec_t src = {KEL_ZIP, 6, codewords, 1, 0, 0, 0, nullptr, &codec, 3};
    EXPECT_EQ(kel_unzip(ctx, &src, &codec, to, 9), KEL_SUCCESS);
    EXPECT_EQ(hex(to, 8), "4142444546430000");
    EXPECT_EQ(kel_unzip(ctx, &src, &codec, to, 8), KEL_EOVERFLOW);
    for (uint8_t width = 9; width < 16; width++) { // of a symbol that is too long the last 8 bytes count
        codec.dict_sz = static_cast<uint16_t>(4 + width);
        image[2] = static_cast<uint8_t>(width << 4);
        for (uint8_t i = 0; i < width; i++)
            image[4 + i] = i;
        codewords[0] = 0;
        EXPECT_EQ(kel_unzip(ctx, &src, &codec, to, 24), KEL_SUCCESS);
        EXPECT_EQ(hex(to, width), hex("\0\0\0\0\0\0\0", width - 8u) + hex(image + width - 4, 8));
    }
}

// ---- Under operations -----------------------------------------------------------------------------------------------

struct request {
    uint64_t flags;
    kel_vec_t dst, side; // side: mask or bitmap
    kel_compare_t op;
    kel_int_t lower, upper;
};

enum { scan_value, scan_range, extract, select, translate, operations_count };

// Calls one of a family of functions, with what goes before and behind the arguments of its operation.
#define CALL(family, first, ...)                                                                                       \
    (op == scan_value                                                                                                  \
         ? kel_scan_value##family(first, r.flags, &src, &r.dst, r.op, &r.lower __VA_OPT__(, ) __VA_ARGS__)             \
     : op == scan_range                                                                                                \
         ? kel_scan_range##family(first, r.flags, &src, &r.dst, r.op, &r.lower, &r.upper __VA_OPT__(, ) __VA_ARGS__)   \
     : op == extract ? kel_extract##family(first, r.flags, &src, &r.dst __VA_OPT__(, ) __VA_ARGS__)                    \
     : op == select  ? kel_select##family(first, r.flags, &src, &r.dst, &r.side __VA_OPT__(, ) __VA_ARGS__)            \
                     : kel_translate##family(first, r.flags, &src, &r.dst, &r.side, 1 __VA_OPT__(, ) __VA_ARGS__))

enum way_t { called, emulated, posted };

struct outcome {
    kel_status_t status;
    uint64_t count, done; // done: output and elements as the completion record tells them
    std::string bytes;
    lines_t lines;
    unsigned debug_calls, error_calls;

    bool operator==(const outcome &) const = default;
};

// Where requests come from, and what they use.
class request_maker
{
  public:
    explicit request_maker(uint64_t seed) : random(seed)
    {
        random.fill(side.data, side.size);
    }

    request make(unsigned op, const kel_vec_t &src, uint64_t expanded)
    {
        static constexpr uint32_t widths[] = {1, 2, 4, 8, 16};
        static constexpr int value_ops[] = {0, 1, 2, 3, 5, 7}, range_ops[] = {16, 17, 18, 19, 21, 23, 25, 27, 29, 31};
        const bool moves = op == extract || op == select, other = random.one_in(2);
        request r = {moves ? other * KEL_PAD : other * KEL_ONES_INDEX, {}, {}, {}, {}, {}};
        r.dst.elements = random.one_in(4) ? random.between(0, expanded) : expanded;
        r.dst.format = moves || other ? KEL_BYTES : KEL_BITS;
        r.dst.elem_width = moves ? random.pick(widths) : other ? 2 * random.between<uint32_t>(1, 2) : 1;
        r.side = {KEL_BITS, op == select ? src.elements : 65536, side.data, 1, 0, 0, 0, nullptr, nullptr, 0};
        r.side.offset = op == select ? random.between<uint8_t>(0, 7) : 0;
        r.op = static_cast<kel_compare_t>(op == scan_value ? random.pick(value_ops) : random.pick(range_ops));
        for (kel_int_t *value : {&r.lower, &r.upper}) {
            const bool same = src.elem_width - 1 < 16 && !(src.format & KEL_BITS) && random.one_in(2);
            *value = {KEL_BYTES, same ? src.elem_width : random.between<uint32_t>(1, 16), {}};
            for (unsigned i = 0; i < value->elem_width; i++)
                value->dword[2 - i / 8] |= (random.one_in(2) ? random.between(0, 1) : uint64_t{127}) << i % 8 * 8;
        }
        return r;
    }

    outcome run(test_context &ctx, way_t way, unsigned op, const kel_vec_t &src, request r)
    {
        const uint64_t bits = r.dst.elem_width * (r.dst.format ? 1 : 8), most = 256 * 16; // a run may go past the end
        const uint64_t room = (bits * r.dst.elements + 511) / 512 * 64 + 64 + most;
        r.dst.data = area.data + area.size - room;
        memset(static_cast<char *>(r.dst.data) - 64, 0xa5, room + 64);
        reset_hooks();
        cca_t cca = {0x5a5a5a5a, 0x5a5a5a5a, 0x5a5a5a5a5a5a5a5a};
        kel_result_t result = {};
        if (way == called)
            result = CALL(, ctx);
        else if (way == emulated)
            result = {CALL(_emulate, ctx, &cca), 0, cca.retval};
        else
            result = post(ctx, op, src, r);
        return {result.status,
                result.count,
                uint64_t{cca.output_sz} << 32 | cca.n_processed,
                std::string(static_cast<char *>(r.dst.data) - 64, room + 64),
                ctx.messages(),
                kel_debug_calls,
                emulate_error_calls};
    }

    static kel_result_t post(test_context &ctx, unsigned op, const kel_vec_t &src, const request &r)
    {
        kel_queue_t *queue = nullptr;
        kel_poll_t polled = {};
        kel_queue_create(ctx, 1, &queue);
        polled.status = CALL(_post, queue, nullptr);
        if (polled.status == KEL_SUCCESS)
            kel_poll(queue, &polled, 1, 0);
        kel_queue_destroy(queue);
        return {polled.status, 0, polled.count};
    }

    random_source random;
    guarded_buffer side{8192 + 8, 64}, area{size_t{1} << 20, 64};
};

class operations_on_compressed : public testing::TestWithParam<std::tuple<uint32_t, uint32_t>>
{
};

INSTANTIATE_TEST_SUITE_P(contexts, operations_on_compressed,
                         testing::Combine(testing::Values(1u, 2u), testing::Values(0u, 1u, 3u)));

TEST_P(operations_on_compressed, equal_those_on_plain)
{
    static constexpr way_t ways[] = {called, called, emulated, posted};
    constexpr uint64_t before = 0x5a5a5a5a5a5a5a5a; // what the completion record holds
    const auto [version, debug] = GetParam();
    block_store store = {uint64_t{version} * debug};
    const kel_init_options_t allocator = store.options();
    test_context ctx(version, debug, KEL_LOG_ERROR, &allocator);
    request_maker maker(10 * version + debug);
    random_source &random = maker.random;
    const size_t blocks = store.live.size();
    for (unsigned turn = 0; turn < 3500 && !HasFailure();) {
        const bool faulty = debug == 3 && random.one_in(8);
        const dictionary from(random, faulty);
        const source s(random, from, faulty);
        const bool aux = s.plain.format & (KEL_VAR | KEL_RLE), narrow = s.plain.elem_width <= 2;
        const auto op = random.between<unsigned>(0, operations_count - 1);
        if ((op == select && aux) || (op == translate && (debug || s.plain.format & KEL_VAR || !narrow)))
            continue;
        turn++;
        store.failing = 0;
        const request r = maker.make(op, s.plain, s.expanded);
        const way_t way = random.pick(ways);
        outcome expected = maker.run(ctx, way, op, s.plain, r);
        const expansion e = decode(s, from, debug & KEL_DEBUG_EXTRA, s.wanted + 8);
        const bool refused = expected.status == KEL_EINVAL, failing = way != posted && random.one_in(8);
        const size_t requests = store.requests.size();
        store.failing = failing ? requests + 1 : 0;
        if (!refused && (failing || e.status == KEL_EDATAFMT)) {
            const uint64_t count = way == emulated ? before : 0;
            const unsigned told = way == called && !failing;
            const std::string no_memory = "kel_malloc failed to allocate " + num(s.wanted + 8) + " bytes";
            expected = {failing ? KEL_ENOMEM : KEL_EDATAFMT,
                        count,
                        before,
                        std::string(expected.bytes.size(), '\xa5'),
                        failing ? lines_t{no_memory}
                        : told  ? e.fault
                                : lines_t(),
                        told,
                        0};
        } else if (!refused && e.status == KEL_EOVERFLOW) {
            expected.lines.insert(expected.lines.begin(), "kel_unzip outlen=" + num(s.wanted + 8) + " overflow");
            expected.debug_calls++;
        }
        const outcome seen = maker.run(ctx, way, op, s.zipped, r);
        EXPECT_TRUE(seen == expected) << "turn " << turn << ", operation " << op << ", way " << way << ": "
                                      << seen.status << " " << testing::PrintToString(seen.lines) << ", not "
                                      << expected.status << " " << testing::PrintToString(expected.lines);
        EXPECT_TRUE(way == posted || store.requests.size() == requests + !refused);
        EXPECT_EQ(store.live.size(), blocks);
    }
}

// ---- Damaged data ---------------------------------------------------------------------------------------------------

// Memory up to a bound.
void *take_some(uint64_t bytes, void *store)
{
    return bytes > 1 << 20 ? nullptr : block_store::take(bytes, store);
}

// Whatever an image, a stream and the fields beside them hold, nothing outside is touched, and every call ends.
TEST(damaged, nothing_outside_is_touched)
{
    static constexpr uint64_t formats[] = {0, KEL_BITS, KEL_VAR, KEL_RLE, KEL_RLE | KEL_BITS, KEL_VAR | KEL_RLE};
    static constexpr uint16_t aux_widths[] = {1, 2, 3, 4, 8, 16, 32};
    request_maker maker(4);
    random_source &random = maker.random;
    block_store store;
    const kel_init_options_t allocator = {take_some, block_store::give, &store};
    test_context ctx(2, 0, 0, &allocator);
    const guarded_buffer image(8192, 1), stream(8192, 1), aux(8192, 1);
    for (const auto *buffer : {&image, &stream, &aux})
        mprotect(buffer->data - 4096, 4096, PROT_NONE);
    const auto place = [&](const guarded_buffer &buffer, size_t bytes) { // between these pages, next to one of them
        random.fill(buffer.data, buffer.size);
        return random.one_in(2) ? buffer.data : buffer.data + buffer.size - bytes;
    };
    for (unsigned turn = 0; turn < 10000; turn++) {
        const size_t length = random.between(0, random.one_in(2) ? 12 : 3000), words = random.between(2, 40) * 8;
        uint8_t *dict = place(image, length);
        if (random.one_in(2) && length > 1) {
            dict[0] = random.between<uint8_t>(0, 4);
            std::fill(dict + 2, dict + std::min<size_t>(length, 500), random.one_in(2) ? 0x11 : 0x95);
        }
        kel_zip_t *codec = nullptr;
        if (kel_zip_create_contig(ctx, dict, length, &codec) != KEL_SUCCESS)
            continue;
        const unsigned code_width = zip_code_width(codec->nsyms), lead = random.between<unsigned>(0, 7);
        kel_vec_t src = {KEL_ZIP | random.pick(formats),
                         random.between(0, 300),
                         place(stream, words) + lead,
                         1,
                         random.between<uint8_t>(0, 7),
                         0,
                         random.pick(aux_widths),
                         nullptr,
                         codec,
                         0};
        src.aux_data = place(aux, 2048);
        if (src.aux_width > 8 && src.format & KEL_RLE) // runs that outgrow the destination are not the expansion's
            memset(aux.data, 0, aux.size);
        src.elem_width = random.between<uint32_t>(1, random.one_in(9) ? 300 : 16);
        if (random.one_in(8) && !(src.format & KEL_VAR))
            src.elements = (random.one_in(2) ? uint64_t{1} << random.between(55, 63) : 0) - random.between(0, 100);
        const uint64_t fitting = (8 * (words - lead) - src.offset) / std::max(code_width, 1u);
        const uint64_t bytes = kel_decoded_bytes(ctx, &src);
        src.codewords = bytes <= fitting && random.one_in(2) ? 0 : random.between(fitting > 0, fitting);
        const auto op = random.between<unsigned>(0, select);
        const request r = maker.make(op, src, random.between(0, 400));
        if (op != select || src.elements < 1000)
            maker.run(ctx, random.one_in(2) ? called : emulated, op, src, r);
        zip_valid_syms(ctx, &src, codec);
        zip_free(ctx, codec);
    }
}

} // namespace

// A codeword of 0 bits does not change, however many there are said to be.
TEST(damaged, codewords_of_no_bits)
{
    test_context ctx(2, KEL_DEBUG_ARG);
    const uint8_t width = 0x10;
    const uint8_t symbol = 'A';
    kel_zip_t *codec = nullptr;
    ASSERT_EQ(kel_zip_create(ctx, 1, &width, &symbol, &codec), KEL_SUCCESS);
    alignas(64) uint8_t out[128];
    uint64_t stream = ~uint64_t{0};
    const kel_vec_t src = {KEL_ZIP, 8, &stream, 1, 0, 0, 0, nullptr, codec, UINT64_MAX};
    const kel_vec_t dst = {KEL_BYTES, 8, out, 1, 0, 0, 0, nullptr, nullptr, 0};
    EXPECT_EQ(kel_extract(ctx, 0, &src, &dst).status, KEL_EDATAFMT);
    stream = 0;
    EXPECT_EQ(kel_extract(ctx, 0, &src, &dst).status, KEL_SUCCESS);
    EXPECT_EQ(std::string(out, out + 8), "AAAAAAAA");
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
}
