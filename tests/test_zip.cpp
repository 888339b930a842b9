// Codecs: their images, the rules that these obey, export, release, memory.
#include "kel_zip.h"
#include "support.h"
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

using std::to_string;
using bytes_t = std::vector<uint8_t>;
using widths_t = std::vector<unsigned>;

uintptr_t place(const void *pointer)
{
    return reinterpret_cast<uintptr_t>(pointer);
}

// A call that creates a codec, from an image or from the widths and symbols in it.
struct attempt {
    bool contig, foreign, half_used; // half_used: behind an odd number of widths
    uint32_t version, generation, debug;
    unsigned failing; // the allocation that fails, 0 for none
    uint16_t nsyms;
    widths_t widths = {};
    uint8_t *buf = nullptr; // the image, the length that is told of it, and where its symbols are
    size_t length = 0, head = 0;
    bool relaid = false, copied = false; // what becomes of it
    bytes_t image = {};                  // the codec's
};

// Attempts with several faults or none, with images at all places in blocks of 8192 bytes.
attempt make_attempt(random_source &random)
{
    static constexpr unsigned counts[] = {1, 2, 3, 256, 257, 512, 513, 1023, 1024, 1025, 1026, 0};
    static constexpr unsigned odd_widths[] = {0, 1, 8, 9, 15};
    static constexpr size_t lengths[] = {4098, 4099, 8192, 8193};
    alignas(2 * 8192) static uint8_t area[4 * 8192];
    const auto nsyms = random.one_in(2) ? random.pick(counts) : random.between<unsigned>(1, 1024);
    attempt a = {random.one_in(2),
                 random.one_in(8),
                 nsyms % 2 && random.one_in(9),
                 random.between<uint32_t>(1, 2),
                 random.between<uint32_t>(0, 2),
                 random.between<uint32_t>(0, 3),
                 random.one_in(4) ? random.between<unsigned>(1, 2) : 0,
                 static_cast<uint16_t>(nsyms)};
    if (nsyms == 0)
        a.debug |= KEL_DEBUG_ARG; // with this test off the outcome is open
    const unsigned widest = random.one_in(8) ? 8 : std::min(8u, 14 / ((nsyms + 256) / 256));
    const unsigned least = random.one_in(2) ? widest : 1;
    for (unsigned i = 0; i < nsyms; i++)
        a.widths.push_back(random.between<unsigned>(least, widest));
    for (uint64_t i = random.one_in(3) && nsyms ? random.between(0, 3) : 0; i > 0; i--)
        a.widths[random.between(0, nsyms - 1)] = random.pick(odd_widths);
    a.head = 2 + (nsyms + 1) / 2;
    bytes_t image = {static_cast<uint8_t>(nsyms >> 8), static_cast<uint8_t>(nsyms)};
    image.resize(a.head);
    image.back() = static_cast<uint8_t>(a.half_used ? random.between(1, 15) : image.back());
    for (unsigned i = 0; i < nsyms; i++) {
        image[2 + i / 2] |= static_cast<uint8_t>(a.widths[i] << (i % 2 ? 0 : 4));
        image.insert(image.end(), a.widths[i], random.between<uint8_t>(0, 255));
    }
    const size_t least_length = std::max(a.head, image.size() - 1);
    a.length = random.one_in(9) ? least_length + random.between(0, 2) : image.size();
    if (random.one_in(6))
        a.length = std::max(random.pick(lengths), least_length);
    const size_t at_border = 2 * 8192 - a.length % 8192 + random.between(0, 1);
    a.buf = area + (random.one_in(3) ? at_border % 8192 : random.between(0, 511) * (random.one_in(9) ? 7 : 16));
    memset(area, 0, sizeof area);
    memcpy(a.buf, image.data(), image.size());
    a.relaid = !a.contig || (a.version == 1 && a.generation <= 1);
    a.copied = a.relaid || place(a.buf) / 8192 != (place(a.buf) + a.length - 1) / 8192;
    a.image = a.relaid ? image : bytes_t(a.buf, a.buf + a.length);
    return a;
}

// The low half of a byte comes first; a bad width ends the walk, and if their number is odd, the high half of that byte
// is counted and tested once more.
unsigned sum_widths(const widths_t &widths, lines_t &faults)
{
    unsigned sum = 0;
    const auto take = [&](size_t code, bool test) {
        sum += widths[code];
        if (test && (widths[code] == 0 || widths[code] > 8))
            faults.push_back("codeword " + to_string(code) + " maps to symbol with bad length " +
                             to_string(widths[code]) + " bytes; bytes must be between 1 and 8");
    };
    size_t i = 0;
    for (; i + 1 < widths.size() && faults.empty(); i += 2) {
        take(i + 1, true);
        take(i, faults.empty());
    }
    if (widths.size() % 2)
        take(faults.empty() ? i : i - 2, true);
    return sum;
}

// The lines of the tests that fail: those of the arguments, and if there is none, those of the data.
lines_t reports(const attempt &a)
{
    lines_t lines;
    const auto test = [&](bool failed, const std::string &line) {
        if (failed)
            lines.push_back(line);
    };
    if (a.debug & KEL_DEBUG_ARG) {
        const size_t longest = a.version == 2 ? 8192 : 4098;
        test(a.half_used, "last unused width in widths[] is not zero");
        test(a.nsyms == 0 || a.nsyms > 1024, "nsyms=" + to_string(a.nsyms) + " exceeds maximum of 1024");
        test(a.foreign, test_context::wrong_thread());
        test(a.contig && place(a.buf) % 16, "buf=" + pointer_text(a.buf) + " is not 16 byte aligned");
        test(a.contig && a.relaid && a.length > 4098, "length=" + to_string(a.length) + " exceeds maximum of 4098");
        test(a.contig && a.length > longest, "zip dictionary length sum " + to_string(a.length) +
                                                 "greater than maximum allowed bytes of " + to_string(longest));
    }
    if (!(a.debug & KEL_DEBUG_EXTRA) || !lines.empty())
        return lines;
    unsigned rows[256] = {};
    const size_t right = a.head + (a.contig ? sum_widths(a.widths, lines) : 0);
    for (size_t code = 0; code < a.nsyms; code++)
        rows[code % 256] += a.widths[code];
    const auto row = std::find_if(rows, rows + 255, [](unsigned sum) { return sum > 14; });
    test(a.version == 1 && *row > 14, "zip dictionary symbol length sum starting at symbol " +
                                          to_string(static_cast<uint64_t>(row - rows)) + " is " + to_string(*row) +
                                          ", which exceeds the maximum of 14 bytes");
    test(a.contig && a.length != right, "invalid length=" + to_string(a.length) + "; should be " + to_string(right));
    return lines;
}

// The codec, or null; with the lines that are to be logged.
kel_zip_t *check_creation(test_context &ctx, const attempt &a, lines_t &lines)
{
    kel_zip_t *const marker = static_cast<kel_zip_t *>(at(0x48)), *codec = marker;
    lines = reports(a);
    const bool refused = !lines.empty(), no_memory = a.failing > 0 && a.failing <= 1u + a.copied;
    const kel_status_t status = a.contig ? kel_zip_create_contig(ctx, a.buf, a.length, &codec)
                                         : kel_zip_create(ctx, a.nsyms, a.buf + 2, a.buf + a.head, &codec);
    EXPECT_EQ(status, refused ? KEL_EINVAL : no_memory ? KEL_ENOMEM : KEL_SUCCESS);
    EXPECT_EQ(kel_debug_calls, lines.size());
    if (!refused && a.failing != 1 && !a.relaid && a.copied)
        lines = {"kel_vorp_create_contig(): buf will cross a 8192 byte alignment boundary; copying to aligned buffer"};
    if (status != KEL_SUCCESS) {
        EXPECT_EQ(codec, refused && !a.contig ? marker : nullptr);
        return nullptr;
    }
    auto *image = static_cast<uint8_t *>(codec->dict);
    EXPECT_EQ(bytes_t(image, image + codec->dict_sz), a.image);
    EXPECT_TRUE(codec->nsyms == a.nsyms && codec->vorp == 1 && codec->syms == image + a.head);
    EXPECT_TRUE(codec->free_dict == a.copied && (a.copied ? place(image) % 8192 == 0 : image == a.buf));
    return codec;
}

// On the way out, from this thread or as if from another.
void check_end(test_context &ctx, kel_zip_t *codec, const bytes_t &image, bool foreign, lines_t &lines)
{
    const size_t size = image.size();
    const bool refused = foreign && ctx->debug_options & KEL_DEBUG_ARG, kept = foreign && ctx->debug_options;
    EXPECT_EQ(kel_zip_size(ctx, codec), size + 24);
    if (foreign)
        ctx.disown();
    for (const size_t room : {size - 1, size, size + 1}) {
        const guarded_buffer buffer(size, 1);
        size_t length = room;
        const kel_status_t expected = refused ? KEL_EINVAL : room >= size ? KEL_SUCCESS : KEL_EOVERFLOW;
        EXPECT_EQ(kel_zip_get_contig(ctx, codec, buffer.data, &length), expected);
        EXPECT_EQ(length, refused ? room : size);
        EXPECT_EQ(bytes_t(buffer.data, buffer.data + size), expected ? bytes_t(size, 0xa5) : image);
        if (refused)
            lines.push_back(test_context::wrong_thread());
        else if (expected && (ctx->debug_options || ctx->log.options)) // without any option nothing is reported
            lines.push_back("Contig buffer overflow. buffer size = " + to_string(room) +
                            ", needed = " + to_string(size));
    }
    EXPECT_EQ(kel_zip_free(ctx, codec), kept ? KEL_ETHREAD : KEL_SUCCESS);
    if (kept) {
        lines.push_back(test_context::wrong_thread());
        zip_free(ctx, codec);
    }
}

TEST(codecs, agree_with_the_model)
{
    random_source random(1);
    for (unsigned turn = 0; turn < 12000 && !HasFailure(); turn++) {
        const attempt a = make_attempt(random);
        SCOPED_TRACE("turn " + to_string(turn) + ", version " + to_string(a.version) + ", debug " + to_string(a.debug));
        block_store store = {turn % 8};
        const kel_init_options_t allocator = store.options();
        const bool logged = !random.one_in(3);
        test_context ctx(a.version, a.debug, logged ? KEL_LOG_ERROR | KEL_LOG_PERF : 0, &allocator);
        ctx->kel_version = a.generation;
        const size_t blocks = store.live.size();
        store.failing = a.failing ? store.requests.size() + a.failing : 0;
        const bytes_t given(a.buf, a.buf + a.length);
        if (a.foreign)
            ctx.disown();
        lines_t lines;
        if (kel_zip_t *codec = check_creation(ctx, a, lines)) {
            reset_hooks();
            const size_t before = lines.size();
            check_end(ctx, codec, a.image, a.foreign || random.one_in(4), lines);
            EXPECT_EQ(kel_debug_calls, lines.size() - before);
        }
        lines_t seen = ctx.messages();
        std::erase_if(seen, [](const auto &line) { return line.find(" failed to allocate ") != line.npos; });
        EXPECT_EQ(seen, logged ? lines : lines_t());
        EXPECT_EQ(bytes_t(a.buf, a.buf + a.length), given) << "the caller's image";
        EXPECT_EQ(store.live.size(), blocks);

        lines_t faults;
        int bad = 2;
        EXPECT_EQ(zip_sum_widths(a.nsyms, a.buf + 2, &bad), sum_widths(a.widths, faults));
        EXPECT_EQ(bad, !faults.empty());
        unsigned left = a.nsyms;
        while (left > 0 && a.widths[left - 1] == 0)
            left--;
        EXPECT_EQ(vorp_fix_zeros(a.nsyms, a.buf + 2), left);
    }
}

TEST(codecs, entry_and_return_lines)
{
    test_context ctx(2, KEL_DEBUG_ARG, KEL_LOG_ENTRY | KEL_LOG_RETURN);
    alignas(16) uint8_t image[16] = {0, 1, 0x10, 'A'};
    size_t length = sizeof image;
    kel_zip_t *codec = nullptr;
    EXPECT_EQ(kel_zip_create(ctx, 1, image + 2, image + 3, &codec), KEL_SUCCESS);
    const std::string context = "(): ctx=" + pointer_text(ctx.ctx), made = "codec=" + pointer_text(codec);
    EXPECT_EQ(kel_zip_get_contig(ctx, codec, image, &length), KEL_SUCCESS);
    EXPECT_EQ(hex(image, length), "00011041");
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
    EXPECT_EQ(kel_zip_create_contig(ctx, image, length, &codec), KEL_SUCCESS);
    const std::string remade = "codec=" + pointer_text(codec), buf = "buf=" + pointer_text(image);
    ctx.disown();
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_ETHREAD);
    zip_free(ctx, codec);
    EXPECT_EQ(kel_zip_create_contig(ctx, image, length, &codec), KEL_EINVAL);
    const std::string to = "&codec=" + pointer_text(&codec);
    const std::string from_image = "kel_zip_create_contig" + context + ", " + buf + ", \n  length=4, " + to;
    EXPECT_EQ(ctx.messages(), (lines_t{"kel_zip_create" + context + ", nsyms=1, \n  widths=" + pointer_text(image + 2) +
                                           ", syms=" + pointer_text(image + 3) + ", " + to,
                                       "kel_zip_create() returns " + made + " and status SUCCESS",
                                       "kel_zip_get_contig" + context + ", " + made + ",\n  " + buf + ", *buflen=16",
                                       "kel_zip_get_contig() returns *buflen=4 and SUCCESS",
                                       "kel_zip_free" + context + ", " + made, "kel_zip_free() returns SUCCESS",
                                       from_image, "kel_zip_create_contig() returns " + remade + " and status SUCCESS",
                                       "kel_zip_free() returns ETHREAD", from_image,
                                       "kel_zip_create_contig() returns codec=0x0 and status EINVAL"}));
}

} // namespace
