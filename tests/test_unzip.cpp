// Widths and places of a codec's symbols; the expansion of compressed vectors, alone and under every operation, against a decoder that reads single bits.

#include "kel_io.h"
#include "kel_zip.h"
#include "request_makers.h"
#include <algorithm>
#include <cstring>

using namespace model;

namespace
{

using std::to_string;

// A codec whose image ends at a page that faults: the lengths one behind the other, or rows of 16 bytes.
struct dictionary {
    dictionary(const std::vector<std::string> &all, bool rows) : symbols(all)
    {
        const size_t nsyms = symbols.size();
        std::string widths(rows ? 4096 : (nsyms + 1) / 2, '\0'), text;
        int ends[256] = {};
        for (size_t code = 0; code < nsyms; code++) {
            const std::string &symbol = symbols[code];
            const auto width = static_cast<int>(symbol.size());
            if (rows) {
                char *row = &widths[code % 256 * 16];
                memcpy(row + 2 + ends[code % 256], symbol.data(), symbol.size());
                ends[code % 256] += width;
                row[code < 512] = static_cast<char>(row[code < 512] | ends[code % 256] << (code / 256 % 2 ? 0 : 4));
            } else {
                text += symbol;
                widths[code / 2] = static_cast<char>(widths[code / 2] | width << (code % 2 ? 0 : 4));
            }
        }
        const std::string head = {static_cast<char>(nsyms >> 8), static_cast<char>(nsyms)};
        text = rows ? std::string(256, '\0') + widths : head + widths + text;
        image = std::make_unique<guarded_buffer>(text.size(), rows ? 16 : 1);
        auto *syms = static_cast<uint8_t *>(memcpy(image->data, text.data(), text.size()));
        syms += rows ? 258 : 2 + widths.size();
        codec = {image->data, syms, static_cast<uint16_t>(nsyms), static_cast<uint16_t>(text.size()), !rows, 0, {}};
        while (1u << code_width < nsyms)
            code_width++;
    }

    // One symbol of a faulty one has a bad width.
    static dictionary draw(random_source &random, bool faulty)
    {
        static constexpr char alphabet[] = {0, 1, 127, -1};
        static constexpr unsigned counts[] = {1, 1, 2, 3, 4, 255, 256, 257, 512, 513, 1000, 1024},
                                  bad[] = {0, 9, 10, 12, 15};
        const auto nsyms = random.one_in(2) ? random.pick(counts) : random.between<unsigned>(1, 1024);
        const bool rows = !faulty && random.one_in(3);
        const unsigned widest = rows ? std::min(8u, 14 / ((nsyms + 255) / 256)) : 8;
        std::vector<std::string> symbols(nsyms);
        for (std::string &symbol : symbols) {
            symbol.resize(random.between<unsigned>(1, widest));
            if (faulty && &symbol == &symbols[nsyms / 2])
                symbol.resize(random.pick(bad));
            for (char &byte : symbol)
                byte = random.pick(alphabet);
        }
        return {symbols, rows};
    }

    std::vector<std::string> symbols;
    std::unique_ptr<guarded_buffer> image;
    kel_zip_t codec;
    unsigned code_width = 0;
};

// Each symbol lies behind the one before, in the image or in the row.
void check_places(const dictionary &from)
{
    const kel_zip_t &codec = from.codec;
    std::vector<uint16_t> offsets(codec.nsyms + 1u, 0xeeee);
    kel_zip_offsets(&codec, offsets.data());
    const void *table = kel_zip_widths(&codec);
    EXPECT_EQ(zip_code_width(codec.nsyms), from.code_width);
    EXPECT_EQ(table, from.image->data + (codec.vorp ? 2 : 256));
    size_t ends[256] = {};
    for (unsigned code = 0; code < codec.nsyms; code++) {
        const unsigned row = codec.vorp ? 0 : code % 256;
        const size_t width = from.symbols[code].size();
        ASSERT_TRUE(offsets[code] == row * 16 + ends[row] && zip_width(table, code, codec.vorp) == width);
        ends[row] += width;
    }
    EXPECT_EQ(offsets.back(), 0xeeee);
}

struct source {
    kel_vec_t zipped;
    uint64_t wanted; // decoded bytes
};

// What becomes of a stream: the bytes, and what a diagnosis says of it.
struct expansion {
    kel_status_t status = KEL_SUCCESS;
    std::string bytes = "";
    lines_t fault = {};
};

// extra: symbols are tested. Others that are missing stand for nothing; of one that is too long the last 8 bytes count.
expansion decode(const source &s, const dictionary &from, bool extra, uint64_t room)
{
    expansion e;
    bit_reader in = {s.zipped.data, s.zipped.offset};
    const uint64_t codewords = s.zipped.codewords ? s.zipped.codewords : s.wanted;
    auto left = static_cast<int64_t>(s.wanted);
    const auto fault = [](const std::string &line) { return expansion{KEL_EDATAFMT, "", {"EDATAFMT: " + line}}; };
    for (uint64_t index = 0; left > 0; index++) {
        if (index == codewords)
            return fault("the stream of " + to_string(index) + " codewords ends before the decoded data");
        uint64_t code = in.field(from.code_width);
        for (unsigned i = 0; from.code_width == 0 && i < 64; i++) { // the low half of the first word, shifted
            const uint64_t bit = s.zipped.offset + i, held = 64 - reinterpret_cast<uintptr_t>(s.zipped.data) % 8 * 8;
            code = (code << 1 | (bit < held && bit_reader{s.zipped.data, bit}.field(1))) & UINT32_MAX;
        }
        const bool known = code < from.symbols.size();
        const std::string symbol = known ? from.symbols[code] : "";
        if (extra && !known)
            return fault("codeword " + to_string(code) + " > max valid codeword " + to_string(from.symbols.size() - 1) +
                         " at index " + to_string(index));
        if (extra && (symbol.empty() || symbol.size() > 8))
            return fault("codeword " + to_string(code) + " at index " + to_string(index) +
                         " maps to symbol with bad length " + to_string(symbol.size()) +
                         " bytes; must be between 1 and 8 bytes");
        if (extra && (e.bytes.empty() ? 0 : (e.bytes.size() - 1) / 8 * 8) >= room) // the last word is held back
            return {KEL_EOVERFLOW, e.bytes};
        if (symbol.empty() && from.code_width == 0) // and nothing else would come
            return {KEL_EDATAFMT};
        const size_t behind = std::max<size_t>(symbol.size(), 8) - 8;
        e.bytes += std::string(behind, '\0') + symbol.substr(behind);
        left -= static_cast<int64_t>(symbol.size());
    }
    e.bytes.resize((e.bytes.size() + 7) / 8 * 8);
    e.status = e.bytes.size() < room ? KEL_SUCCESS : KEL_EOVERFLOW;
    return e;
}

// Makes compressed vectors, whose codewords end with the word in front of a page that faults.
class stream_maker : public source_maker
{
  public:
    using source_maker::source_maker;

    // Any codewords; those of a faulty one need not be in the dictionary, or are too few.
    source make(const dictionary &from, bool faulty)
    {
        kel_vec_t vec = {};
        lawful = true;
        draw_format(vec, KEL_RLE | KEL_VAR);
        vec.elements = std::min<uint64_t>(vec.elements, 1500);
        draw_lengths(vec);
        source made = compressed(vec, from);
        bit_string stream;
        append(stream, random.word(), made.zipped.offset);
        const uint64_t last = from.symbols.size() - 1,
                       any = faulty && random.one_in(2) ? ~(~0u << from.code_width) : last;
        for (uint64_t bytes = 0; bytes < made.wanted; made.zipped.codewords++) {
            const uint64_t code = random.one_in(50) ? any : random.between(0, last);
            append(stream, code, from.code_width);
            bytes += code <= last ? std::max<size_t>(from.symbols[code].size(), last == 0) : 0;
        }
        if (from.code_width == 0)
            append(stream, faulty ? random.word() : 0, 64);
        if (random.one_in(3))
            made.zipped.codewords = from.code_width ? 0 : UINT64_MAX;
        else if (faulty && random.one_in(4))
            made.zipped.codewords -= made.zipped.codewords > 1;
        made.zipped.data = place(elements, stream);
        return made;
    }

  private:
    // All but the codewords.
    source compressed(const kel_vec_t &plain, const dictionary &from)
    {
        kel_vec_t vec = plain;
        vec.format |= KEL_ZIP;
        vec.offset = random.between<uint8_t>(0, bits_of(plain) > 64 ? 0 : 7);
        vec.codec = const_cast<kel_zip_t *>(&from.codec);
        vec.codewords = 0;
        uint64_t wanted = (vec.offset + bits_of(plain) * plain.elements + 7) / 8;
        if (variable_width(plain)) {
            wanted = 0;
            source_reader in = {plain};
            for (uint64_t i = 0; i < plain.elements; i++)
                wanted += in.width() / 8;
        }
        return {vec, wanted};
    }
};

// ---- Expansion alone ------------------------------------------------------------------------------------------------

TEST(expansion, agrees_with_the_model)
{
    const guarded_buffer area(size_t{1} << 16, 1);
    random_source random(1);
    stream_maker streams(random);
    for (unsigned turn = 0; turn < 1500 && !HasFailure(); turn++) {
        const bool extra = turn % 2;
        block_store store = {turn % 8};
        const kel_init_options_t allocator = store.options();
        test_context ctx(turn / 2 % 2 + 1, extra ? KEL_DEBUG_EXTRA : 0, KEL_LOG_ERROR, &allocator);
        const dictionary from = dictionary::draw(random, random.one_in(4));
        const source s = streams.make(from, random.one_in(4));
        const expansion diagnosis = decode(s, from, true, UINT64_MAX), all = decode(s, from, extra, UINT64_MAX);
        SCOPED_TRACE("turn " + to_string(turn));
        check_places(from);
        EXPECT_EQ(zip_valid_syms(ctx, &s.zipped, &from.codec), diagnosis.fault.empty());
        EXPECT_EQ(ctx.messages(), diagnosis.fault);
        EXPECT_EQ(kel_debug_calls, diagnosis.fault.size());
        for (uint64_t room = 0, most = all.bytes.size(); room < most + 18;
             room += room < 70 || room + 20 > most ? 1 : 50) {
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
        EXPECT_EQ(ctx.messages(),
                  cut ? lines_t{"kel_unzip outlen=" + to_string(s.wanted + 8) + " overflow"} : lines_t());
        EXPECT_EQ(kel_debug_calls, diagnosis.fault.size() + cut);
        EXPECT_EQ(store.requests.back(), (s.wanted + 15) / 8 * 8 + 16);
        if (!bad) {
            ASSERT_EQ(size, s.wanted + 8);
            EXPECT_EQ(memcmp(buf, whole.bytes.data(), std::min(size, whole.bytes.size())), 0);
            kel_free(ctx, buf, size);
        }
        EXPECT_EQ(store.live.size(), blocks);
    }
}

// Whatever an image and a stream hold, nothing outside of them is touched, and every expansion ends.
TEST(expansion, of_damaged_data_stays_inside)
{
    const guarded_buffer area(size_t{1} << 16, 1);
    random_source random(2);
    stream_maker streams(random);
    test_context ctx(2, 0, 0);
    for (unsigned turn = 0; turn < 4000; turn++) {
        dictionary from = dictionary::draw(random, random.one_in(2));
        const source s = streams.make(from, true);
        for (uint64_t scribbles = random.between(0, 20); scribbles > 0; scribbles--)
            from.image->data[random.between(0, from.codec.dict_sz - 1)] = random.between<uint8_t>(0, 255);
        if (random.one_in(4))
            from.codec.nsyms = random.between<uint16_t>(1, 1u << from.code_width);
        if (s.zipped.codewords == 0) // as many are read then as there are decoded bytes
            continue;
        const uint64_t room = random.one_in(2) ? s.wanted + 8 : random.between(0, s.wanted + 20);
        const kel_status_t status = kel_unzip(ctx, &s.zipped, &from.codec, area.data + area.size - room, room);
        ASSERT_TRUE(status == KEL_SUCCESS || status == KEL_EDATAFMT || status == KEL_EOVERFLOW) << status;
    }
}

// ---- Under operations -----------------------------------------------------------------------------------------------

// Requests with a compressed source, each against its model with the plain one; now and then the first codeword has no
// symbol, or there is no memory.
template <class maker>
void check_operations(uint32_t version, uint32_t debug)
{
    const options o = {version, debug, errors};
    block_store store = {uint64_t{version} * debug};
    const kel_init_options_t allocator = store.options();
    test_context ctx(version, debug, errors, &allocator);
    random_source random(10 * version + debug);
    maker makes(random);
    destination_area dst;
    for (unsigned turn = 0; turn < 300 && !testing::Test::HasFailure();) {
        auto r = makes.make(true);
        if (refused(r, version))
            continue;
        const outcome emulated = emulation(r, o);
        const outcome of_roads[] = {call(r, o, emulated, true), call(r, o, emulated, false), emulated};
        if (!makes.compress(ctx, r.src))
            continue;
        turn++;
        const unsigned width = zip_code_width(r.src.codec->nsyms), all = 1u << width, last = r.src.codec->nsyms - 1u;
        const bool broken =
            debug & extra && last + 1 < all && of_roads[calls].status == KEL_SUCCESS && random.one_in(8);
        for (unsigned bit = r.src.offset; broken && bit < r.src.offset + width; bit++)
            static_cast<uint8_t *>(r.src.data)[bit / 8] |= static_cast<uint8_t>(0x80 >> bit % 8);
        const size_t blocks = store.live.size();
        for (const road way : {calls, posts, emulations}) {
            const bool starved = way != posts && random.one_in(8), expanded = !of_roads[way].refused;
            outcome expected = of_roads[way];
            if (expanded && (starved || broken))
                expected = {.status = starved ? KEL_ENOMEM : KEL_EDATAFMT,
                            .cca = way == emulations ? cca_before : cca_t()};
            if (expanded && starved)
                expected.lines = {{KEL_LOG_ERROR, "kel_malloc failed to allocate " +
                                                      to_string(kel_decoded_bytes(ctx, &r.src) + 8) + " bytes"}};
            else if (expanded && broken && way == calls) {
                expected.lines = {{KEL_LOG_ERROR, "EDATAFMT: codeword " + to_string(all - 1) +
                                                      " > max valid codeword " + to_string(last) + " at index 0"}};
                expected.debug_calls = 1;
            }
            const size_t requests = store.requests.size();
            store.failing = starved ? requests + 1 : 0;
            if (!check(ctx, o, way, r, expected, dst))
                return;
            store.failing = 0;
            EXPECT_TRUE(way == posts || store.requests.size() == requests + expanded);
            EXPECT_EQ(store.live.size(), blocks);
        }
        EXPECT_EQ(kel_zip_free(ctx, r.src.codec), KEL_SUCCESS);
    }
}

TEST(compressed, operations_equal_those_on_plain_sources)
{
    for (const uint32_t version : {1u, 2u})
        for (const uint32_t debug : {0u, arg, arg | extra}) {
            SCOPED_TRACE(testing::Message() << "version " << version << ", debug " << debug);
            check_operations<scan_maker>(version, debug);
            check_operations<move_maker>(version, debug);
        }
    check_operations<translate_maker>(2, 0); // validation refuses them
}

} // namespace
