// A second formulation of training and parsing, with plain containers and no eye to speed. It gives what vorp_kel_zip
// gives, to the byte, and the pool's use to the byte as well. The heap sort is its own, because the order of equal
// symbols is part of the result.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace training_model
{

struct exhausted {
};

// What the sources of a test have met, so that a test can tell that it has met everything.
struct coverage {
    unsigned cut_rounds = 0, power_lost = 0, no_nodes = 0, exhausted = 0, not_worth = 0, reused = 0, reuse_full = 0,
             last_columns = 0;
};

struct pool {
    uint64_t used = 0;

    void take(uint64_t size)
    {
        constexpr uint64_t capacity = 4000000 + 16;
        used = used / 16 * 16 + 16;
        const uint64_t taken = size / 16 * 16 + 16;
        if (used + taken > capacity)
            throw exhausted{};
        used += taken;
    }
};

// Symbols by their bytes. Nodes stay once they are made, and only they use the pool.
class symbol_set
{
  public:
    explicit symbol_set(pool &from) : memory(from)
    {
        memory.take(272);
        memory.take(257 * 64);
        memory.take(2048);
        children[""] = {256, true, true};
        for (unsigned byte = 0; byte < 256; byte++)
            ids[std::string(1, static_cast<char>(byte))] = byte;
        for (const auto &[symbol, id] : ids)
            children[symbol];
    }

    void insert(const std::string &symbol, uint64_t id)
    {
        size_t known = 1;
        while (known < symbol.size() && children.contains(symbol.substr(0, known + 1)))
            known++;
        if (known < symbol.size())
            memory.take(64 * (symbol.size() - known));
        for (; known < symbol.size(); known++) {
            node &parent = children[symbol.substr(0, known)];
            if (!parent.has_offsets)
                memory.take(16);
            parent.has_offsets = true;
            if (parent.count == 2 && !parent.has_list) {
                memory.take(2048);
                parent.has_list = true;
            }
            parent.count++;
            children[symbol.substr(0, known + 1)];
        }
        ids[symbol] = id;
    }

    void erase(const std::string &symbol)
    {
        ids.erase(symbol);
    }

    // The longest symbol at text's start.
    std::pair<uint64_t, std::string> longest(const std::string &text) const
    {
        for (size_t length = std::min<size_t>(text.size(), 8); length > 0; length--)
            if (const auto found = ids.find(text.substr(0, length)); found != ids.end())
                return {found->second, found->first};
        abort();
    }

  private:
    struct node {
        unsigned count = 0;
        bool has_offsets = false, has_list = false;
    };

    pool &memory;
    std::unordered_map<std::string, node> children;
    std::unordered_map<std::string, uint64_t> ids;
};

// A heap sort with a's places counted from 1: siftings up, then the top exchanged with the end and sifted down.
template <class T>
void heap_sort(T *a, uint64_t count, const std::function<int64_t(T, T)> &compare)
{
    const auto order = [&](uint64_t x, uint64_t y) { return static_cast<int32_t>(compare(a[x - 1], a[y - 1])); };
    const auto exchange = [&](uint64_t x, uint64_t y) { std::swap(a[x - 1], a[y - 1]); };
    for (uint64_t last = 2; last <= count; last++)
        for (uint64_t place = last; place > 1 && order(place, place / 2) > 0; place /= 2)
            exchange(place, place / 2);
    for (uint64_t end = count; end > 1;) {
        exchange(1, end--);
        for (uint64_t parent = 1, child = 2; child <= end; parent = child, child *= 2) {
            if (child < end && order(child, child + 1) <= 0)
                child++;
            if (order(child, parent) <= 0)
                break;
            exchange(child, parent);
        }
    }
}

// Bits of codewords that tell count symbols apart.
inline unsigned code_bits(uint64_t count)
{
    return count == 0 ? 0 : static_cast<unsigned>(std::bit_width(count - 1));
}

struct result {
    int outcome = -1;
    uint64_t length = 0;
    std::optional<uint64_t> codewords;
    std::vector<uint8_t> dictionary = {0, 0}; // as a packed image
    std::vector<uint8_t> stream;              // and the byte behind it
    uint64_t pool_used = 0;
};

class trainer
{
  public:
    trainer(const std::vector<uint8_t> &source, int level, coverage &seen)
        : text(source.begin(), source.end()), met(seen), refined(level % 2 == 0), by_rows(level > 2)
    {
        if (text.size() < 20000) {
            most_entries = 256;
            most_bytes = 2048;
        } else if (by_rows) {
            most_bytes = 3584;
        }
    }

    result run(uint64_t capacity)
    {
        result out;
        out.stream.assign(capacity + 1, 0);
        if (text.size() <= 8)
            return out;
        try {
            build();
            finish();
            out.pool_used = memory.used;
        } catch (const exhausted &) {
            met.exhausted++;
            return out;
        }
        const unsigned width = code_bits(entries);
        if (width == 0) { // one symbol or none: two to the width, of which the low byte is first
            out.dictionary = {1, 0};
            return out;
        }
        write_dictionary(out);
        write_stream(out, width, capacity);
        return out;
    }

  private:
    struct symbol {
        std::string bytes;
        uint64_t frequency = 0;
    };

    std::string gram(uint64_t position, unsigned length) const
    {
        return text.substr(position, length);
    }

    void build()
    {
        memory.take(32);
        const auto thousandth = static_cast<uint64_t>(static_cast<double>(text.size()) * 0.001);
        const uint64_t base = std::max<uint64_t>(std::min<uint64_t>(thousandth, 2048), refined ? 1000 : 300);
        for (const uint64_t size : {uint64_t{40}, uint64_t{262144}, uint64_t{48}, uint64_t{2048},
                                    8 * std::max<uint64_t>(7 * base, 8192), uint64_t{256}, uint64_t{120}})
            memory.take(size);
        symbols.emplace(memory);
        memory.take(16384);
        memory.take(16384);
        nodes.resize(256);
        for (unsigned byte = 0; byte < 256; byte++) {
            nodes[byte].bytes = static_cast<char>(byte);
            single.push_back(byte);
        }
        srand48(0);
        memory.take(56 * base);
        for (unsigned length = 2; length <= 8; length++) {
            enter(candidates(base, length), length);
            if (refined)
                resize();
        }
        resize();
    }

    // Those of length bytes that were drawn twice or more: buckets in their order, the newest of a bucket first.
    std::vector<uint64_t> candidates(uint64_t base, unsigned length)
    {
        struct drawn {
            std::string bytes;
            uint64_t frequency;
        };
        const uint64_t samples = base * (9 - length);
        std::vector<std::vector<drawn>> buckets(samples / 4);
        memory.take(24);
        memory.take(8 * buckets.size());
        for (uint64_t sample = 0; sample < samples; sample++) {
            const std::string bytes = gram(static_cast<uint64_t>(lrand48()) % (text.size() - 8), length);
            uint64_t hash = 5381;
            for (const char byte : bytes)
                hash = hash * 33 + static_cast<uint8_t>(byte);
            auto &bucket = buckets[hash % buckets.size()];
            const auto known = std::find_if(bucket.begin(), bucket.end(), [&](auto &d) { return d.bytes == bytes; });
            if (known != bucket.end()) {
                known->frequency++;
            } else {
                memory.take(32);
                bucket.insert(bucket.begin(), {bytes, 1});
            }
        }
        std::vector<uint64_t> list;
        for (const auto &bucket : buckets)
            for (const drawn &item : bucket)
                if (item.frequency > 1) {
                    list.push_back(new_node());
                    nodes[list.back()] = {item.bytes, item.frequency};
                }
        return list;
    }

    uint64_t new_node()
    {
        if (!unused.empty()) {
            met.reused++;
            const uint64_t index = unused.back();
            unused.pop_back();
            return index;
        }
        if (nodes.size() == 8192) {
            met.no_nodes++;
            throw exhausted{};
        }
        nodes.emplace_back();
        return nodes.size() - 1;
    }

    void give_back(uint64_t index)
    {
        if (unused.size() < 2048)
            unused.push_back(index);
        else
            met.reuse_full++;
    }

    void enter(std::vector<uint64_t> list, unsigned length)
    {
        heap_sort<uint64_t>(list.data(), list.size(), [&](uint64_t a, uint64_t b) {
            return static_cast<int64_t>(nodes[a].frequency - nodes[b].frequency);
        });
        const double share = 1.0 - (length - 2) * 0.125;
        auto most = static_cast<uint64_t>(static_cast<double>(most_entries) * share);
        if (!refined)
            most = static_cast<uint64_t>(static_cast<double>(most) * 2.0 / 7.0);
        for (; most > 0 && !list.empty(); most--, list.pop_back()) {
            longer.push_back(list.back());
            symbols->insert(nodes[list.back()].bytes, list.back());
            total_bytes += length;
        }
        for (; !list.empty(); list.pop_back())
            give_back(list.back());
    }

    uint64_t count() const
    {
        return single.size() + longer.size();
    }

    void drop_last()
    {
        give_back(longer.back());
        symbols->erase(nodes[longer.back()].bytes);
        total_bytes -= nodes[longer.back()].bytes.size();
        longer.pop_back();
    }

    void count_frequencies()
    {
        for (const auto *list : {&single, &longer})
            for (const uint64_t index : *list)
                nodes[index].frequency = 0;
        tokens = 0;
        for (size_t at = 0; at < text.size(); tokens++) {
            const auto [index, bytes] = symbols->longest(text.substr(at, 8));
            nodes[index].frequency++;
            at += bytes.size();
        }
    }

    void resize()
    {
        if (refined)
            count_frequencies();
        heap_sort<uint64_t>(longer.data(), longer.size(), [&](uint64_t a, uint64_t b) {
            return static_cast<int64_t>(nodes[b].frequency - nodes[a].frequency);
        });
        if (refined && !singles_cut) {
            const std::set<uint8_t> present(text.begin(), text.end());
            for (unsigned byte = 0; byte < 256; byte++)
                if (!present.contains(static_cast<uint8_t>(byte))) {
                    std::erase(single, byte);
                    symbols->erase(nodes[byte].bytes);
                    total_bytes--;
                }
            singles_cut = true;
        }
        if (longer.empty())
            return;
        while (longer.size() > 1 && nodes[longer.back()].frequency == 0)
            drop_last();
        while (total_bytes > most_bytes || count() > most_entries)
            drop_last();
    }

    // The symbols by their codewords; none if they cannot pay. Those that the row rule takes out leave empty entries,
    // unless the others need less bits.
    void finish()
    {
        memory.take(8 * count());
        memory.take(8 * count());
        uint64_t estimate = count() / 2 + total_bytes;
        if (refined)
            estimate += code_bits(count()) * tokens / 8 + 1;
        if (estimate > text.size()) {
            met.not_worth++;
            return;
        }
        memory.take(16 * count());
        for (const auto *list : {&single, &longer})
            listed.insert(listed.end(), list->begin(), list->end());
        entries = listed.size();
        if (by_rows)
            obey_rows();
        if (code_bits(listed.size()) < code_bits(entries)) {
            met.power_lost++;
            entries = listed.size();
        }
        for (const uint64_t index : listed)
            memory.take(nodes[index].bytes.size());
    }

    void obey_rows()
    {
        const std::function<int64_t(uint64_t, uint64_t)> ascending = [&](uint64_t a, uint64_t b) {
            return static_cast<int64_t>(nodes[a].bytes.size()) - static_cast<int64_t>(nodes[b].bytes.size());
        };
        const std::function<int64_t(uint64_t, uint64_t)> descending = [&](uint64_t a, uint64_t b) {
            return -ascending(a, b);
        };
        for (unsigned over = 0;; met.cut_rounds++) {
            heap_sort(listed.data(), listed.size(), ascending);
            for (; over > 0; over--) {
                symbols->erase(nodes[listed.back()].bytes);
                listed.pop_back();
            }
            met.last_columns += listed.size() > 768;
            if (listed.size() > 768)
                heap_sort(listed.data() + 768, listed.size() - 768, descending);
            for (size_t row = 0; row < 256; row++) {
                size_t sum = 0;
                for (size_t i = row; i < listed.size(); i += 256)
                    sum += nodes[listed[i]].bytes.size();
                over += sum > 14;
            }
            if (over == 0)
                return;
        }
    }

    void write_dictionary(result &out) const
    {
        out.dictionary = {static_cast<uint8_t>(entries >> 8), static_cast<uint8_t>(entries)};
        const auto length = [&](size_t i) { return i < listed.size() ? nodes[listed[i]].bytes.size() : 0; };
        for (size_t i = 0; i < entries; i += 2)
            out.dictionary.push_back(static_cast<uint8_t>(length(i) << 4 | length(i + 1)));
        for (const uint64_t index : listed)
            out.dictionary.insert(out.dictionary.end(), nodes[index].bytes.begin(), nodes[index].bytes.end());
    }

    // A codeword is written if its first byte has a place; the one behind it is taken for granted.
    void write_stream(result &out, unsigned width, uint64_t capacity) const
    {
        std::map<std::string, uint64_t> codes;
        for (size_t i = 0; i < listed.size(); i++)
            codes[nodes[listed[i]].bytes] = i;
        uint64_t bits = 0, codewords = 0;
        bool overflow = false;
        for (size_t at = 0; at < text.size(); codewords++, bits += width) {
            const auto [index, bytes] = symbols->longest(text.substr(at, 8));
            at += bytes.size();
            if (bits / 8 >= capacity) {
                overflow = true;
                continue;
            }
            const uint64_t both = codes.at(bytes) << (16 - width - bits % 8);
            out.stream[bits / 8] |= static_cast<uint8_t>(both >> 8);
            out.stream[bits / 8 + 1] |= static_cast<uint8_t>(both);
        }
        out.outcome = overflow;
        out.codewords = codewords;
        out.length = bits / 8 + (bits % 8 + width < 8);
    }

    const std::string text;
    coverage &met;
    const bool refined, by_rows;
    uint64_t most_entries = 1024, most_bytes = 8192;
    pool memory;
    std::optional<symbol_set> symbols;
    std::vector<symbol> nodes;
    std::vector<uint64_t> single, longer, unused, listed;
    uint64_t total_bytes = 256, tokens = 0, entries = 0;
    bool singles_cut = false;
};

} // namespace training_model
