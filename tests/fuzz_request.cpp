// A fuzz target: whole requests of every operation, at once and posted, with any descriptors, values and flags, under
// full validation. A request ends in a status that agrees with the log, and in no byte outside its buffers: each buffer
// is a block of its own, no longer than the public header says that it has to be.
#include "kel.h"
#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>
#include <new>

namespace
{

void require(bool condition, int line = __builtin_LINE())
{
    if (!condition) {
        fprintf(stderr, "line %d: a requirement does not hold\n", line);
        abort();
    }
}

uint64_t round_up(uint64_t n, uint64_t unit)
{
    return (n + unit - 1) / unit * unit;
}

uint64_t bits_of(const auto &of)
{
    return of.format & KEL_BITS ? of.elem_width : uint64_t{8} * of.elem_width;
}

void *at(uintptr_t address)
{
    return reinterpret_cast<void *>(address);
}

// A block of memory that ends with the last byte that may be touched; lead bytes before data keep it off its alignment.
struct buffer {
    buffer(uint64_t lead_bytes, uint64_t bytes)
        : memory(static_cast<uint8_t *>(::operator new(lead_bytes + bytes, align))), data(memory.get() + lead_bytes),
          lead(lead_bytes), size(bytes)
    {
        memset(memory.get(), unwritten, lead + size);
    }

    void put(uint64_t bit, uint64_t value, unsigned bits)
    {
        for (; bits-- > 0; bit++)
            data[bit / 8] =
                static_cast<uint8_t>((data[bit / 8] & ~(0x80 >> bit % 8)) | (value >> bits & 1) << (7 - bit % 8));
    }

    void keep()
    {
        kept.assign(memory.get(), data + size);
    }

    bool is_kept() const
    {
        return std::equal(kept.begin(), kept.end(), memory.get());
    }

    bool unwritten_from(uint64_t start) const
    {
        const auto is_unwritten = [](uint8_t byte) { return byte == unwritten; };
        return std::all_of(memory.get(), data, is_unwritten) &&
               (start >= size || std::all_of(data + start, data + size, is_unwritten));
    }

    static constexpr std::align_val_t align{64};
    static constexpr uint8_t unwritten = 0xa5;
    struct release {
        void operator()(uint8_t *block) const
        {
            ::operator delete(block, align);
        }
    };
    std::unique_ptr<uint8_t, release> memory;
    uint8_t *data;
    uint64_t lead, size;
    std::vector<uint8_t> kept;
};
using buffer_ptr = std::shared_ptr<buffer>;

uint64_t field(const void *data, uint64_t bit, unsigned bits)
{
    uint64_t value = 0;
    for (const auto *bytes = static_cast<const uint8_t *>(data); bits-- > 0; bit++)
        value = value << 1 | (bytes[bit / 8] >> (7 - bit % 8) & 1);
    return value;
}

// An operator is tested modulo 32. What it has above that goes into the fields over it in the number of a kernel, which
// are the format in 2 bits and twice the type of operands: with an operator of its family 4 up to 8 bytes, 5 above. A
// number that has no kernel, with format 3 or with type 7 or more, ends the program, if nothing else is refused.
bool ends_program(int64_t op, const kel_vec_t &src, uint64_t widest_bits, bool range)
{
    const uint32_t family = range ? 0xaaaf0000 : 0xaf;
    const uint64_t type = src.format & KEL_VAR || widest_bits > 64 ? 5 : 4;
    const uint64_t format = src.format & KEL_RLE ? 1 : src.format & KEL_VAR ? 2 : 0;
    const uint64_t kernel = (2 * type << 2 | format) | static_cast<uint64_t>(range ? op - 16 : op) >> (range ? 4 : 3);
    return family >> (op & 31) & 1 && (kernel % 4 == 3 || kernel >> 3 >= 7);
}

void *take(uint64_t size, void *live)
{
    *static_cast<uint64_t *>(live) += size;
    return malloc(size);
}

void give(void *block, uint64_t size, void *live)
{
    *static_cast<uint64_t *>(live) -= size;
    free(block);
}

class session
{
  public:
    session(FuzzedDataProvider &data, uint32_t major) : input(data), version(major)
    {
        const kel_init_options_t allocator = {take, give, &live_bytes};
        require(kel_thread_init(version, 1, KEL_ALLOC, &allocator, &ctx) == KEL_SUCCESS);
        const auto count = [](kel_context_t *, void *count_of, uint32_t level, const char *, const char *) {
            *static_cast<unsigned *>(count_of) += level == KEL_LOG_ERROR;
        };
        kel_set_log_callback(ctx, one_in(4) ? KEL_LOG_ALL : KEL_LOG_ERROR, count, &errors);
        kel_set_debug(ctx, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA);
        require(kel_queue_create(ctx, range<int>(1, 4), &queue) == KEL_SUCCESS);
        noise_state = input.ConsumeIntegral<uint64_t>();
        if (input.ConsumeBool())
            make_codec();
    }

    ~session()
    {
        if (codec)
            require(kel_zip_free(ctx, codec) == KEL_SUCCESS);
        require(kel_thread_fini(ctx) == KEL_SUCCESS && live_bytes == 0);
    }

    void step()
    {
        constexpr void (session::*plain[])() = {&session::select,  &session::extract,    &session::translate,
                                                &session::logical, &session::copy,       &session::fill,
                                                &session::nop,     &session::int_create, &session::poll};
        form = one_in(4) ? twisted : one_in(8) ? hopeless : lawful;
        posted = one_in(2);
        silent = false;
        told = 0;
        expanded = 0;
        sources.clear();
        target = nullptr;
        const uint64_t operation = range(0, 10);
        if (operation < 2)
            scan(operation == 1);
        else
            (this->*plain[operation - 2])();
        if (waiting.size() > 2 || one_in(4))
            poll();
    }

  private:
    enum form_t { lawful, twisted, hopeless };

    // ---- Drawing; when the input is used up, everything is the lowest ----

    template <class T = uint64_t>
    T range(uint64_t low, uint64_t high)
    {
        return static_cast<T>(input.ConsumeIntegralInRange(low, high));
    }

    bool one_in(uint64_t n)
    {
        return range(0, n - 1) == n - 1;
    }

    template <class T>
    T any()
    {
        return input.ConsumeIntegral<T>();
    }

    uint64_t noise()
    {
        noise_state += 0x9e3779b97f4a7c15;
        const uint64_t mixed = (noise_state ^ noise_state >> 31) * 0xbf58476d1ce4e5b9;
        return mixed ^ mixed >> 29;
    }

    uint64_t draw_count()
    {
        return one_in(16) ? range(0, 4096) : one_in(4) ? range(0, 400) : range(1, 70);
    }

    // ---- Descriptors and their buffers ----------------------------------------------------------------------------------

    void make_codec()
    {
        constexpr uint64_t header = 2;
        nsyms = one_in(4) ? range<unsigned>(1, 1024) : range<unsigned>(1, 40);
        const unsigned longest = range<unsigned>(1, 8), odd = one_in(8) ? 64 : 0;
        std::vector<uint8_t> bytes(header + (nsyms + 1) / 2);
        bytes[0] = static_cast<uint8_t>(nsyms >> 8), bytes[1] = static_cast<uint8_t>(nsyms);
        for (unsigned i = 0; i < nsyms; i++) {
            const auto width = static_cast<unsigned>(odd && noise() % odd == 0 ? noise() % 16 : 1 + noise() % longest);
            bytes[header + i / 2] |= static_cast<uint8_t>(i % 2 ? width : width << 4);
            for (unsigned k = 0; k < width; k++)
                bytes.push_back(static_cast<uint8_t>(noise()));
        }
        if (input.ConsumeBool()) {
            const uint8_t *widths = bytes.data() + header;
            kel_zip_create(ctx, static_cast<uint16_t>(nsyms), widths, widths + (nsyms + 1) / 2, &codec);
            return;
        }
        for (unsigned faults = one_in(4) ? range<unsigned>(1, 3) : 0; faults > 0; faults--)
            bytes[noise() % bytes.size()] = any<uint8_t>();
        if (one_in(8))
            bytes = input.ConsumeBytes<uint8_t>(range(0, 600));
        image = std::make_shared<buffer>(one_in(16) ? 1 : 0, bytes.size());
        std::copy(bytes.begin(), bytes.end(), image->data);
        kel_zip_create_contig(ctx, image->data, bytes.size(), &codec);
        nsyms = bytes.size() < header ? 0 : bytes[0] * 256u + bytes[1];
    }

    uint64_t draw_flags(uint64_t allowed, bool with_dst = true)
    {
        constexpr uint64_t pipes[] = {0, 0, 0, KEL_PIPE_SRC, KEL_PIPE_AUX, KEL_PIPE_MASK, KEL_PIPE_FLAGS};
        uint64_t flags = any<uint64_t>() & allowed;
        if (posted) {
            const bool chained = last_flags & KEL_SERIAL;
            flags |= chained != one_in(16) ? KEL_COND : 0;
            flags |= one_in(4) ? KEL_SERIAL : 0;
            flags |= version == 2 || one_in(16) ? input.PickValueInArray(pipes) : 0;
        }
        if (form == twisted && one_in(4))
            flags ^= UINT64_C(1) << range(0, 11);
        if (form == hopeless && (!with_dst || input.ConsumeBool())) // a destination's offset is the other reason
            flags |= UINT64_C(1) << range(11, 63);
        return flags;
    }

    // Mostly as wide as an element, and near the start of the source.
    kel_int_t draw_value(const kel_vec_t &src)
    {
        kel_int_t value = {};
        value.format = src.format & KEL_BITS ? KEL_BITS : KEL_BYTES;
        value.elem_width = src.format & KEL_VAR || one_in(4) ? range<uint32_t>(1, 16) : src.elem_width;
        if (form != lawful && one_in(4)) {
            value.format = one_in(4) ? any<uint32_t>() : value.format;
            value.elem_width = one_in(2) ? any<uint32_t>() : range<uint32_t>(0, 200);
        }
        const uint64_t bits = round_up(std::min<uint64_t>(bits_of(value), 192), 8);
        for (uint64_t i = 0; i < bits / 8; i++)
            value.dword[2 - i / 8] |= (noise() & (one_in(2) ? 0xff : 0)) << i % 8 * 8;
        if (one_in(32))
            value.dword[range(0, 2)] = any<uint64_t>();
        return value;
    }

    void twist(kel_vec_t &vec)
    {
        constexpr struct {
            size_t place, size;
            uint64_t most;
        } fields[] = {{offsetof(kel_vec_t, format), 8, 127},     {offsetof(kel_vec_t, elements), 8, 4096},
                      {offsetof(kel_vec_t, elem_width), 4, 140}, {offsetof(kel_vec_t, offset), 1, 8},
                      {offsetof(kel_vec_t, aux_offset), 1, 8},   {offsetof(kel_vec_t, aux_width), 2, 16}};
        const auto &chosen = fields[range(0, 5)];
        const uint64_t value = chosen.size < 8 && one_in(4) ? any<uint64_t>() : range(0, chosen.most);
        memcpy(reinterpret_cast<uint8_t *>(&vec) + chosen.place, &value, chosen.size);
    }

    kel_vec_t wild_vector()
    {
        const auto pointer = [&] { return input.ConsumeBool() ? nullptr : at(any<uintptr_t>()); };
        return {any<uint64_t>() & (one_in(4) ? UINT64_MAX : 31),
                any<uint64_t>() >> range(0, 63),
                pointer(),
                any<uint32_t>() >> range(0, 31),
                any<uint8_t>(),
                any<uint8_t>(),
                any<uint16_t>(),
                pointer(),
                static_cast<kel_zip_t *>(pointer()),
                any<uint64_t>()};
    }

    // A new stream of these bits, or the output of the last request, if that is to be fed. It ends with the aligned word
    // that holds its last bit, or with its last byte.
    buffer_ptr add_stream(uint64_t pipe, uint64_t bits, uint64_t lead, bool &fed, uint64_t unit = 8)
    {
        const uint64_t bytes = (bits + 7) / 8;
        fed = posted && pipe && (last_flags & KEL_PIPE_FLAGS) == pipe && last_target && last_target->lead % 64 == 0 &&
              round_up(bytes, 8) <= last_target->size && !one_in(8);
        if (fed)
            sources.push_back(last_target);
        else
            sources.push_back(std::make_shared<buffer>(lead, round_up(lead + bytes, unit) - lead));
        return sources.back();
    }

    void fill_stream(buffer &stream)
    {
        const uint64_t style = range(0, 4), mask = style == 1 ? 0 : style == 2 ? 0x0101010101010101 : UINT64_MAX;
        for (uint64_t i = 0; i < stream.size; i++)
            stream.data[i] = static_cast<uint8_t>(noise() & mask);
        if (style == 3)
            input.ConsumeData(stream.data, stream.size);
    }

    // The lengths or runs; mostly such that validation passes.
    void lay_lengths(kel_vec_t &src)
    {
        const unsigned width = src.aux_width <= 8 && std::has_single_bit(src.aux_width) ? src.aux_width : 0;
        const uint64_t add_one = src.format & KEL_ADD_ONE ? 1 : 0, style = range(0, 7);
        const uint64_t longest = style == 7 ? 255 : style == 6 ? 15 : style == 5 ? 14 : 1 + style;
        const uint64_t most = std::min<uint64_t>(longest, (1u << width) - 1), least = style == 6 ? 0 : 1 - add_one;
        bool fed;
        const buffer_ptr aux = add_stream(KEL_PIPE_AUX, src.aux_offset + width * src.elements, range(0, 7), fed);
        src.aux_data = aux->data;
        expanded = 0;
        for (uint64_t i = 0; width && i < src.elements; i++) {
            const uint64_t bit = src.aux_offset + i * width;
            if (!fed)
                aux->put(bit, least + noise() % (std::max(most, least) - least + 1), width);
            expanded += field(src.aux_data, bit, width) + add_one;
        }
    }

    // Codewords, mostly as many as are needed and of the dictionary.
    void lay_codewords(kel_vec_t &src, uint64_t decoded)
    {
        const unsigned width = nsyms > 1 ? static_cast<unsigned>(std::bit_width(nsyms - 1)) : 0;
        src.codec = codec;
        told = 1;
        src.codewords = one_in(4) ? range(0, decoded) : one_in(4) ? 0 : decoded;
        const uint64_t readable = src.codewords ? src.codewords : decoded, codes = one_in(8) ? 1024 : nsyms;
        bool fed;
        const buffer_ptr stream =
            add_stream(KEL_PIPE_SRC, src.offset + (width ? width * readable : 64), range(0, 7), fed);
        src.data = stream->data;
        if (!fed)
            memset(stream->data, one_in(16) ? 1 : 0, stream->size);
        for (uint64_t i = 0; !fed && i < readable; i++)
            stream->put(src.offset + i * width, noise() % codes, width);
    }

    // Streams that are as long as the descriptor says, where validation accepts it.
    void lay_source(kel_vec_t &src)
    {
        const uint64_t width = bits_of(src) <= 128 ? bits_of(src) : 0;
        expanded = src.elements;
        if (src.format & (KEL_VAR | KEL_RLE))
            lay_lengths(src);
        const uint64_t bits = src.format & KEL_VAR ? 8 * expanded : width * src.elements;
        if (src.format & KEL_VAR)
            expanded = src.elements;
        if (src.format & KEL_ZIP)
            return lay_codewords(src, src.format & KEL_VAR ? bits / 8 : (src.offset + bits + 7) / 8);
        bool fed;
        const buffer_ptr stream = add_stream(KEL_PIPE_SRC, src.offset + bits, range(0, 7), fed);
        if (!fed)
            fill_stream(*stream);
        src.data = src.elements == 0 && !fed && one_in(2) ? nullptr : stream->data;
    }

    kel_vec_t draw_source(uint64_t formats, uint64_t most_bits)
    {
        if (form == hopeless)
            return wild_vector();
        constexpr uint64_t choices[] = {0, KEL_BITS, KEL_BITS, KEL_RLE, KEL_RLE | KEL_BITS, KEL_VAR};
        kel_vec_t src = {};
        src.elements = draw_count();
        src.format = (input.PickValueInArray(choices) | (one_in(4) ? KEL_ZIP : 0)) & formats;
        if (src.format & (KEL_VAR | KEL_RLE) && input.ConsumeBool())
            src.format |= KEL_ADD_ONE;
        src.elem_width =
            range<uint32_t>(1, src.format & KEL_BITS ? std::min<uint64_t>(most_bits, 8 + 8 * version) : most_bits / 8);
        if (src.format & KEL_VAR)
            src.elem_width = 0;
        src.offset = bits_of(src) > 64 ? 0 : range<uint8_t>(0, 7);
        src.aux_width = static_cast<uint16_t>(1u << range(0, 3));
        src.aux_offset = range<uint8_t>(0, 7);
        if (form == twisted)
            twist(src);
        if (!codec)
            src.format &= ~KEL_ZIP;
        lay_source(src);
        return src;
    }

    // A mask, a bitmap (which has an alignment) or a source of a logical operation (which is read a little further).
    kel_vec_t draw_bits(uint64_t elements, uint64_t pipe, uint64_t align, unsigned behind)
    {
        if (form == hopeless)
            return wild_vector();
        kel_vec_t vec = {KEL_BITS, elements, nullptr, 1, 0, 0, 0, nullptr, nullptr, 0};
        vec.offset = align > 1 || one_in(2) ? 0 : range<uint8_t>(1, 7);
        if (form == twisted && one_in(4))
            twist(vec);
        if (form == twisted && one_in(16))
            align = 1;
        bool fed;
        const uint64_t lead = align > 1 ? range(0, 3) * align : range(0, 7);
        const buffer_ptr stream =
            add_stream(pipe, vec.offset + vec.elements + 8 * behind, lead, fed, align > 1 ? 1 : 8);
        if (!fed)
            fill_stream(*stream);
        vec.data = stream->data;
        return vec;
    }

    // least: the elements that validation asks for at least.
    kel_vec_t draw_destination(uint64_t bits, uint64_t elements, uint64_t least)
    {
        constexpr uint64_t most = 1 << 17;
        if (form == hopeless) {
            kel_vec_t wild = wild_vector();
            wild.offset = range<uint8_t>(1, 255);
            return wild;
        }
        const bool in_bits = bits == 1 || input.ConsumeBool();
        kel_vec_t dst = {in_bits ? KEL_BITS : KEL_BYTES, 0, nullptr, 0, 0, 0, 0, nullptr, nullptr, 0};
        dst.elem_width = static_cast<uint32_t>(in_bits ? bits : bits / 8);
        dst.elements = elements > most ? least : std::max(elements, least) + (one_in(2) ? range(0, 70) : 0);
        if (elements > least && one_in(8))
            dst.elements = range(least, elements);
        if (form == twisted && one_in(4))
            twist(dst);
        const uint64_t claimed = bits_of(dst) <= 128 ? (bits_of(dst) * dst.elements + 7) / 8 : 0;
        target = std::make_shared<buffer>(form == twisted && one_in(8) ? range(1, 63) : 0, round_up(claimed, 64) + 64);
        dst.data = target->data;
        return dst;
    }

    // ---- Requests -------------------------------------------------------------------------------------------------------

    // What holds of every request that has been made; its own failures are told when it is polled.
    void judge(kel_status_t status, uint64_t count)
    {
        for (const buffer_ptr &source : sources)
            require(source->is_kept());
        require(form != hopeless || status == KEL_EINVAL || status == KEL_EQFULL);
        require(status == KEL_SUCCESS || errors > 0 || silent);
        if (status == KEL_EINVAL || status == KEL_EQFULL)
            require(count == 0 && (!target || target->unwritten_from(0)));
        else
            require(status == KEL_SUCCESS || status == KEL_EDATAFMT || status == KEL_EOVERFLOW);
    }

    // written_bits: what an element takes in the destination.
    template <class... arguments>
    void run(const auto &call, const auto &post, uint64_t written_bits, uint64_t flags, arguments... args)
    {
        for (const buffer_ptr &source : sources)
            source->keep();
        errors = 0;
        if (!posted) {
            const kel_result_t result = call(ctx, flags, args...);
            judge(result.status, result.count);
            require(result.status != KEL_SUCCESS || errors <= told);
            const bool counted = flags & KEL_ONES_INDEX || expanded == UINT64_MAX;
            const uint64_t bytes = ((counted ? result.count : expanded) * written_bits + 7) / 8;
            if (target && result.status == KEL_SUCCESS)
                require(target->unwritten_from(silent ? bytes : round_up(bytes, 64)));
            return;
        }
        void *udata = at(++posts);
        const kel_status_t status = post(queue, flags, args..., udata);
        judge(status, 0);
        if (status != KEL_SUCCESS)
            return;
        waiting.push_back({udata, errors > told});
        last_flags = flags;
        last_target = target;
    }

    void scan(bool two_values)
    {
        constexpr int names[] = {0, 1, 2, 3, 5, 7}, names2[] = {16, 17, 18, 19, 21, 23, 25, 27, 29, 31};
        const uint64_t flags = draw_flags(KEL_ONES_INDEX | KEL_CACHE | KEL_NOWAIT);
        const kel_vec_t src = draw_source(KEL_VAR | KEL_RLE | KEL_BITS | KEL_ZIP, 128);
        const uint64_t bits = flags & KEL_ONES_INDEX ? 16u << range(0, 1) : 1;
        const kel_vec_t dst = draw_destination(bits, expanded, src.elements);
        const kel_int_t lower = draw_value(src), upper = draw_value(src);
        int op = two_values ? input.PickValueInArray(names2) : input.PickValueInArray(names);
        if (one_in(4))
            op = one_in(2) ? any<int32_t>() : op + 32 * range<int>(0, 4);
        const uint64_t widest = std::max({bits_of(src), bits_of(lower), two_values ? bits_of(upper) : 0});
        if (ends_program(op, src, widest, two_values))
            op = op & 31;
        const auto compare = static_cast<kel_compare_t>(op);
        if (two_values)
            run(kel_scan_range, kel_scan_range_post, bits_of(dst), flags, &src, &dst, compare, &lower, &upper);
        else
            run(kel_scan_value, kel_scan_value_post, bits_of(dst), flags, &src, &dst, compare, &lower);
    }

    void select()
    {
        const uint64_t flags = draw_flags(KEL_PAD | KEL_CACHE | KEL_NOWAIT), bits = 8u << range(0, 4);
        const kel_vec_t src = draw_source(KEL_BITS | KEL_ZIP, 128);
        const kel_vec_t mask = draw_bits(src.elements + (one_in(2) ? range(0, 70) : 0), KEL_PIPE_MASK, 1, 0);
        uint64_t ones = 0;
        for (uint64_t i = 0; form != hopeless && i < std::min(src.elements, mask.elements); i++)
            ones += field(mask.data, mask.offset + i, 1);
        const kel_vec_t dst = draw_destination(bits, ones, 0);
        expanded = UINT64_MAX;
        run(kel_select, kel_select_post, bits_of(dst), flags, &src, &dst, &mask);
    }

    void extract()
    {
        const uint64_t flags = draw_flags(KEL_PAD | KEL_CACHE | KEL_NOWAIT), bits = 8u << range(0, 4);
        const kel_vec_t src = draw_source(KEL_VAR | KEL_RLE | KEL_BITS | KEL_ZIP, 128);
        const kel_vec_t dst = draw_destination(bits, expanded, src.elements);
        run(kel_extract, kel_extract_post, bits_of(dst), flags, &src, &dst);
    }

    void translate()
    {
        const uint64_t flags = draw_flags(KEL_ONES_INDEX | KEL_INVERT | KEL_CACHE | KEL_NOWAIT);
        const kel_vec_t src = draw_source(KEL_RLE | KEL_BITS, one_in(8) ? 24 : 12);
        const uint64_t width = bits_of(src), index_bits = std::min<uint64_t>(width, one_in(16) ? 24 : 12);
        const bool plain = form != hopeless && width <= 24 && !(src.format & (KEL_VAR | KEL_ZIP));
        uint64_t highest = 0; // of the elements
        for (uint64_t i = 0; plain && i < src.elements; i++)
            highest = std::max(highest, field(src.data, src.offset + i * width, static_cast<unsigned>(width)));
        const uint64_t elements = !one_in(4) ? UINT64_C(1) << index_bits : one_in(2) ? range(0, 4096) : highest;
        const kel_vec_t bitmap =
            draw_bits(elements, 0, version == 2 ? 16 : 64, elements == 0); // the first byte is read
        const auto val_width = one_in(4) ? range<uint32_t>(0, 33) : static_cast<uint32_t>(width);
        const uint64_t bits = flags & KEL_ONES_INDEX ? 16u << range(0, 1) : 1;
        const kel_vec_t dst = draw_destination(bits, expanded, src.elements);
        run(kel_translate, kel_translate_post, bits_of(dst), flags, &src, &dst, &bitmap, val_width);
    }

    void logical()
    {
        constexpr decltype(&kel_and) calls[] = {kel_and, kel_or, kel_xor};
        constexpr decltype(&kel_and_post) posts_of[] = {kel_and_post, kel_or_post, kel_xor_post};
        const uint64_t op = range(0, 2), flags = draw_flags(KEL_INVERT | KEL_INVERT_SRC | KEL_CACHE);
        expanded = draw_count();
        const kel_vec_t src1 = draw_bits(expanded, KEL_PIPE_SRC, 1, 2), src2 = draw_bits(expanded, 0, 1, 2);
        const kel_vec_t dst = draw_destination(1, expanded, expanded);
        expanded = src1.elements;
        silent = true; // rules of pipelines
        run(calls[op], posts_of[op], 1, flags, &src1, &src2, &dst);
    }

    void copy()
    {
        const uint64_t flags = draw_flags(KEL_CACHE | KEL_NOWAIT, false);
        const uint64_t count = form == hopeless ? any<uint64_t>() : draw_count();
        if (form == hopeless)
            return run(kel_copy, kel_copy_post, 8, flags, at(any<uintptr_t>()), at(any<uintptr_t>()), count);
        bool fed;
        const buffer_ptr source = add_stream(KEL_PIPE_SRC, 8 * count, range(0, 7), fed);
        expanded = count;
        target = std::make_shared<buffer>(range(0, 63), count);
        const bool overlaps = form == twisted && count > 0 && one_in(4);
        run(kel_copy, kel_copy_post, 8, flags, source->data, overlaps ? source->data : target->data, count);
    }

    void fill()
    {
        const uint64_t flags = draw_flags(KEL_CACHE | KEL_NOWAIT, false), value = any<uint64_t>();
        const uint32_t width = one_in(4) ? any<uint32_t>() >> range(0, 31) : 1u << range(0, 3);
        if (form == hopeless)
            return run(kel_fill, kel_fill_post, 8, flags, value, at(any<uintptr_t>()), any<uint64_t>(), width);
        const uint64_t count =
            width > (1 << 20) ? 0 : std::min<uint64_t>(draw_count(), (1 << 20) / std::max(width, 1u));
        expanded = count * width;
        target = std::make_shared<buffer>(range(0, 63), expanded);
        run(kel_fill, kel_fill_post, 8, flags, value, static_cast<void *>(target->data), count, width);
    }

    void nop()
    {
        run(kel_nop, kel_nop_post, 0, draw_flags(0, false));
    }

    void int_create()
    {
        const size_t len = one_in(4) ? any<size_t>() >> range(0, 63) : range(1, 16);
        const bool valid = len >= 1 && len <= 16;
        const buffer bytes(range(0, 7), valid ? len : 0);
        kel_int_t value = {};
        errors = 0;
        const kel_status_t status = kel_int_create(ctx, valid ? bytes.data : nullptr, len, &value);
        require(status == (valid ? KEL_SUCCESS : KEL_EINVAL) && (errors == 0) == valid);
        require(value.elem_width == (valid ? len : 0));
    }

    void poll()
    {
        if (one_in(4)) {
            void *const udata = at(range(0, posts + 1));
            const auto same = [&](const posted_request &r) { return r.udata == udata; };
            const bool found = std::any_of(waiting.begin(), waiting.end(), same);
            require(kel_cancel(queue, udata) == (found ? KEL_SUCCESS : KEL_ENOMATCH));
            require(kel_cancel_all(queue) == (waiting.empty() ? KEL_EQEMPTY : KEL_SUCCESS));
        }
        const int most = one_in(2) ? range<int>(0, 4) : -1;
        const uint64_t expected = std::min<uint64_t>(waiting.size(), static_cast<uint64_t>(int64_t{most}));
        const auto results = std::make_unique<kel_poll_t[]>(expected);
        const int polled = kel_poll(queue, results.get(), most, any<int64_t>());
        require(polled == (waiting.empty() ? KEL_EQEMPTY : static_cast<int>(expected)));
        for (uint64_t i = 0; i < expected; i++, waiting.pop_front()) {
            const kel_status_t status = results[i].status;
            require(results[i].udata == waiting.front().udata && (status != KEL_SUCCESS || !waiting.front().failed));
            require(status == KEL_SUCCESS || status == KEL_EDATAFMT || status == KEL_EOVERFLOW);
        }
    }

    FuzzedDataProvider &input;
    uint32_t version;
    kel_context_t *ctx = nullptr;
    kel_queue_t *queue = nullptr;
    uint64_t live_bytes = 0;
    unsigned errors = 0; // lines at error level
    uint64_t noise_state;
    buffer_ptr image; // of the codec, which may use it where it is
    kel_zip_t *codec = nullptr;
    unsigned nsyms = 0;

    // The request at hand. A hopeless one is refused before its data is looked at.
    form_t form = lawful;
    bool posted = false, silent = false; // silent: may be refused without words
    unsigned told = 0;                   // lines of a success: a last symbol may end behind an expansion
    std::vector<buffer_ptr> sources;
    buffer_ptr target;
    uint64_t expanded = 0; // elements of a source, runs counted

    // The requests before.
    struct posted_request {
        void *udata;
        bool failed; // as the log tells
    };
    std::deque<posted_request> waiting;
    uint64_t last_flags = 0, posts = 0;
    buffer_ptr last_target;
};

} // namespace

// The library keeps the texts of unknown values on purpose. Whether all else goes back is told by the allocator.
extern "C" int __lsan_is_turned_off(void)
{
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    session requests(input, input.ConsumeIntegralInRange(1u, 2u));
    for (unsigned n = 0; n == 0 || (n < 30 && input.remaining_bytes() > 0); n++)
        requests.step();
    return 0;
}
