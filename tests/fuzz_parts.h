// What the fuzz target of requests draws from its input: flags, values, a codec and vectors with their buffers. A
// buffer is a block of its own, no longer than the public header says that it has to be.
#pragma once

#include "kel.h"
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>
#include <new>
#include <vector>

inline uint64_t round_up(uint64_t n, uint64_t unit)
{
    return (n + unit - 1) / unit * unit;
}

inline uint64_t bits_of(const auto &of)
{
    return of.format & KEL_BITS ? of.elem_width : uint64_t{8} * of.elem_width;
}

inline void *at(uintptr_t address)
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

inline uint64_t field(const void *data, uint64_t bit, unsigned bits)
{
    uint64_t value = 0;
    for (const auto *bytes = static_cast<const uint8_t *>(data); bits-- > 0; bit++)
        value = value << 1 | (bytes[bit / 8] >> (7 - bit % 8) & 1);
    return value;
}

// Draws the parts of one request after the other, some of them from the request before.
class request_parts
{
  public:
    explicit request_parts(FuzzedDataProvider &data, uint32_t major) : input(data), version(major) {}

  protected:
    enum form_t { lawful, twisted, hopeless };

    // ---- Drawing; when the input is used up, everything is the lowest ----------------------------------------------

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

    // ---- Descriptors and their buffers -----------------------------------------------------------------------------

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

    // A new stream of these bits, or the output of the last request, if that is to be fed. It ends with the aligned
    // word that holds its last bit, or with its last byte.
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

    FuzzedDataProvider &input;
    uint32_t version;
    kel_context_t *ctx = nullptr;
    uint64_t noise_state = 0;
    buffer_ptr image; // of the codec, which may use it where it is
    kel_zip_t *codec = nullptr;
    unsigned nsyms = 0;

    // The request at hand. A hopeless one is refused before its data is looked at.
    form_t form = lawful;
    bool posted = false;
    unsigned told = 0; // lines of a success: a last symbol may end behind an expansion
    std::vector<buffer_ptr> sources;
    buffer_ptr target;
    uint64_t expanded = 0; // elements of a source, runs counted

    // The request that was posted last.
    uint64_t last_flags = 0;
    buffer_ptr last_target;
};
