// A fuzz target: any dictionary and codewords that the stream format can hold, written, and decoded whole and in part.
// Every buffer is a block of its own, as long as the decoders ask for.
#include "vorp.h"
#include <algorithm>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>

namespace
{

using bytes_t = std::vector<uint8_t>;

void require(bool condition)
{
    if (!condition)
        abort();
}

struct dictionary {
    std::vector<bytes_t> symbols;
    bytes_t widths, bytes;

    explicit dictionary(FuzzedDataProvider &input)
        : symbols(input.ConsumeIntegralInRange<size_t>(vorp_min_entries, vorp_max_entries)),
          widths((symbols.size() + 1) / 2)
    {
        const unsigned longest = input.ConsumeIntegralInRange(1u, 8u), seed = input.ConsumeIntegral<uint8_t>();
        for (unsigned i = 0; i < symbols.size(); i++) {
            const unsigned told = input.ConsumeIntegral<uint8_t>();
            symbols[i].resize(1 + (told + seed * i) % longest);
            for (uint8_t &byte : symbols[i])
                byte = static_cast<uint8_t>(bytes.size() * 37 + seed), bytes.push_back(byte);
            widths[i / 2] |= static_cast<uint8_t>(symbols[i].size() << (i % 2 ? 0 : 4));
        }
    }
};

void expect_part(const bytes_t &stream, const bytes_t &plain, uint64_t position, uint64_t length)
{
    const uint64_t expected = std::min(length, plain.size() - position);
    bytes_t out(expected);
    out.reserve(1); // an address, even for nothing
    vorp_log_t log = {};
    require(vorp_decode_selective(&log, 0, stream.data(), out.data(), position, static_cast<int64_t>(length)) ==
            expected);
    require(std::equal(out.begin(), out.end(), plain.begin() + static_cast<ptrdiff_t>(position)));
}

void expect_all(const bytes_t &stream, const bytes_t &plain)
{
    bytes_t out(plain.size()), memory(vorp_max_entries * vorp_entry_wrkmem);
    uint64_t length = 0;
    vorp_log_t log = {};
    vorp_decode_wrkmem(&log, 0, stream.data(), out.data(), &length, out.size(), memory.data(), memory.size());
    require(length == plain.size() && out == plain);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    vorp_log_t log = {};
    vorp_config_t config;
    vorp_config_init(&config, input.PickValueInArray({VORP1, VORP3}), &log);
    const bool random_access = input.ConsumeBool(), stored = input.ConsumeIntegralInRange(0, 15) == 0;
    config.ra_interval =
        random_access ? input.ConsumeIntegralInRange<int16_t>(vorp_min_interval, vorp_max_interval) : int16_t{-1};
    const uint64_t at = input.ConsumeIntegral<uint16_t>(), part = input.ConsumeIntegral<uint16_t>();
    const unsigned repeats = input.ConsumeIntegralInRange(1u, 20u);
    const dictionary dict(input);

    std::vector<uint16_t> codewords;
    while (input.remaining_bytes() > 0 || codewords.size() < vorp_exact_codewords)
        codewords.push_back(static_cast<uint16_t>(input.ConsumeIntegral<uint16_t>() % dict.symbols.size()));
    const std::vector<uint16_t> once = codewords;
    for (unsigned i = 1; i < repeats; i++)
        codewords.insert(codewords.end(), once.begin(), once.end());
    bytes_t plain;
    for (const uint16_t code : codewords)
        plain.insert(plain.end(), dict.symbols[code].begin(), dict.symbols[code].end());

    const vorp_content_t content = {static_cast<unsigned>(dict.symbols.size()),
                                    dict.widths.data(),
                                    dict.bytes.data(),
                                    codewords.data(),
                                    codewords.size(),
                                    plain.size()};
    bytes_t stream(20000 + 10 * plain.size());
    stream.resize(stored ? vorp_stream_store(&config, plain.data(), plain.size(), stream.data(), stream.size())
                         : vorp_stream_write(&config, &content, stream.data(), stream.size()));
    require(!stream.empty());
    stream.shrink_to_fit();
    expect_all(stream, plain);
    if (random_access || stored)
        for (const uint64_t length : {part % 300, part, plain.size()})
            expect_part(stream, plain, at % (plain.size() + 1), length);
    return 0;
}
