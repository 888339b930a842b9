// A second formulation of training and parsing, with plain containers and no eye to speed. It gives what vorp_kel_zip
// gives, to the byte, and the pool's use to the byte as well. The heap sort is its own, because the order of equal
// symbols is part of the result.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
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
using coverage = std::map<std::string, unsigned>;

// A heap sort with a's places counted from 1: siftings up, then the top exchanged with the end and sifted down.
template <class T, class Compare>
void heap_sort(T *a, uint64_t count, const Compare &compare)
{
    const auto above = [&](uint64_t x, uint64_t y) { return static_cast<int32_t>(compare(a[x - 1], a[y - 1])) > 0; };
    const auto exchange = [&](uint64_t x, uint64_t y) { std::swap(a[x - 1], a[y - 1]); };
    for (uint64_t last = 2; last <= count; last++)
        for (uint64_t place = last; place > 1 && above(place, place / 2); place /= 2)
            exchange(place, place / 2);
    for (uint64_t end = count; end > 1;) {
        exchange(1, end--);
        for (uint64_t parent = 1, child = 2; child <= end; parent = child, child *= 2) {
            if (child < end && !above(child, child + 1))
                child++;
            if (!above(child, parent))
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
        : text(source.begin(), source.end()), met(seen), refined(level % 2 == 0), by_rows(level > 2),
          most_entries(text.size() < 20000 ? 256 : 1024), most_bytes(text.size() < 20000 ? 2048
                                                                     : by_rows           ? 3584
                                                                                         : 8192)
    {
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
            out.pool_used = used;
        } catch (const exhausted &) {
            met["exhausted"]++;
            return out;
        }
        if (const unsigned width = code_bits(entries)) {
            write_dictionary(out);
            write_stream(out, width, capacity);
        } else { // one symbol or none: two to the width, of which the low byte is first
            out.dictionary = {1, 0};
        }
        return out;
    }

  private:
    struct symbol {
        std::string bytes;
        uint64_t frequency = 0;
    };
    using indexes_t = std::vector<uint64_t>; // of nodes

    void take(uint64_t size)
    {
        constexpr uint64_t capacity = 4000000 + 16;
        used = used / 16 * 16 + 16;
        const uint64_t taken = size / 16 * 16 + 16;
        if (used + taken > capacity)
            throw exhausted{};
        used += taken;
    }

    // ---- Symbols by their bytes: the nodes of the trie stay once they are made, and only they use the pool ----------

    void insert(uint64_t index)
    {
        const std::string &bytes = nodes[index].bytes;
        size_t known = 1;
        while (known < bytes.size() && children.contains(bytes.substr(0, known + 1)))
            known++;
        if (known < bytes.size())
            take(64 * (bytes.size() - known));
        for (; known < bytes.size(); known++) {
            const unsigned siblings = children[bytes.substr(0, known)]++;
            if (siblings == 0 || siblings == 2)
                take(siblings == 0 ? 16 : 2048);
            children[bytes.substr(0, known + 1)];
        }
        symbols[bytes] = index;
        total_bytes += bytes.size();
    }

    void erase(uint64_t index)
    {
        symbols.erase(nodes[index].bytes);
        total_bytes -= nodes[index].bytes.size();
    }

    // The text cut into the longest symbols.
    template <class Visit>
    void parse(const Visit &visit) const
    {
        for (size_t at = 0, length; at < text.size(); at += length) {
            auto found = symbols.end();
            for (length = 9; found == symbols.end();)
                found = symbols.find(text.substr(at, --length));
            length = found->first.size();
            visit(found->second);
        }
    }

    // ---- Training ---------------------------------------------------------------------------------------------------

    void build()
    {
        take(32);
        const auto thousandth = static_cast<uint64_t>(static_cast<double>(text.size()) * 0.001);
        const uint64_t base = std::max<uint64_t>(std::min<uint64_t>(thousandth, 2048), refined ? 1000 : 300);
        for (const uint64_t size : {uint64_t{40}, uint64_t{262144}, uint64_t{48}, uint64_t{2048},
                                    8 * std::max<uint64_t>(7 * base, 8192), uint64_t{256}, uint64_t{120}, uint64_t{272},
                                    uint64_t{257 * 64}, uint64_t{2048}, uint64_t{16384}, uint64_t{16384}, 56 * base})
            take(size);
        for (unsigned byte = 0; byte < 256; byte++) {
            nodes.push_back({std::string(1, static_cast<char>(byte))});
            children[nodes[byte].bytes];
            insert(byte);
            single.push_back(byte);
        }
        srand48(0);
        for (unsigned length = 2; length <= 8; length++) {
            enter(candidates(base, length), length);
            if (refined)
                resize();
        }
        resize();
    }

    // Those of length bytes that were drawn twice or more: buckets in their order, the newest of a bucket first.
    indexes_t candidates(uint64_t base, unsigned length)
    {
        const uint64_t samples = base * (9 - length);
        std::vector<std::vector<symbol>> buckets(samples / 4);
        take(24);
        take(8 * buckets.size());
        for (uint64_t sample = 0; sample < samples; sample++) {
            const std::string bytes = text.substr(static_cast<uint64_t>(lrand48()) % (text.size() - 8), length);
            uint64_t hash = 5381;
            for (const char byte : bytes)
                hash = hash * 33 + static_cast<uint8_t>(byte);
            auto &bucket = buckets[hash % buckets.size()];
            auto known = std::find_if(bucket.begin(), bucket.end(), [&](auto &drawn) { return drawn.bytes == bytes; });
            if (known == bucket.end()) {
                take(32);
                known = bucket.insert(bucket.begin(), {bytes});
            }
            known->frequency++;
        }
        indexes_t list;
        for (const auto &bucket : buckets)
            for (const symbol &drawn : bucket)
                if (drawn.frequency > 1) {
                    list.push_back(new_node());
                    nodes[list.back()] = drawn;
                }
        return list;
    }

    uint64_t new_node()
    {
        if (unused.empty()) {
            if (nodes.size() == 8192) {
                met["no nodes"]++;
                throw exhausted{};
            }
            nodes.emplace_back();
            return nodes.size() - 1;
        }
        met["reused"]++;
        const uint64_t index = unused.back();
        unused.pop_back();
        return index;
    }

    void give_back(indexes_t &list)
    {
        if (unused.size() < 2048)
            unused.push_back(list.back());
        else
            met["reuse full"]++;
        list.pop_back();
    }

    void enter(indexes_t list, unsigned length)
    {
        sort_by_frequency(list, 1);
        auto most = static_cast<uint64_t>(static_cast<double>(most_entries) * (1.0 - (length - 2) * 0.125));
        if (!refined)
            most = static_cast<uint64_t>(static_cast<double>(most) * 2.0 / 7.0);
        for (; most > 0 && !list.empty(); most--, list.pop_back()) {
            longer.push_back(list.back());
            insert(list.back());
        }
        while (!list.empty())
            give_back(list);
    }

    void sort_by_frequency(indexes_t &list, int64_t sign) const
    {
        heap_sort(list.data(), list.size(), [&](uint64_t a, uint64_t b) {
            return sign * static_cast<int64_t>(nodes[a].frequency - nodes[b].frequency);
        });
    }

    uint64_t count() const
    {
        return single.size() + longer.size();
    }

    void drop_last()
    {
        erase(longer.back());
        give_back(longer);
    }

    void resize()
    {
        if (refined) {
            for (symbol &node : nodes)
                node.frequency = 0;
            tokens = 0;
            parse([&](uint64_t index) { nodes[index].frequency++, tokens++; });
        }
        sort_by_frequency(longer, -1);
        if (refined && !singles_cut) {
            const std::set<uint8_t> present(text.begin(), text.end());
            for (unsigned byte = 0; byte < 256; byte++)
                if (!present.contains(static_cast<uint8_t>(byte))) {
                    std::erase(single, byte);
                    erase(byte);
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

    // ---- The table --------------------------------------------------------------------------------------------------

    // The symbols by their codewords; none if they cannot pay. Those that the row rule takes out leave empty entries,
    // unless the others need less bits.
    void finish()
    {
        take(8 * count());
        take(8 * count());
        const uint64_t stream = refined ? code_bits(count()) * tokens / 8 + 1 : 0;
        if (count() / 2 + total_bytes + stream > text.size()) {
            met["not worth"]++;
            return;
        }
        take(16 * count());
        listed = single;
        listed.insert(listed.end(), longer.begin(), longer.end());
        entries = listed.size();
        if (by_rows)
            obey_rows();
        if (code_bits(listed.size()) < code_bits(entries)) {
            met["power lost"]++;
            entries = listed.size();
        }
        for (size_t i = 0; i < listed.size(); i++)
            take(length_of(i));
    }

    uint64_t length_of(size_t entry) const
    {
        return entry < listed.size() ? nodes[listed[entry]].bytes.size() : 0;
    }

    void obey_rows()
    {
        for (unsigned over = 0;; met["cut rounds"]++) {
            const auto ascending = [&](uint64_t a, uint64_t b) {
                return nodes[a].bytes.size() - nodes[b].bytes.size();
            };
            heap_sort(listed.data(), listed.size(), ascending);
            for (; over > 0; over--) {
                erase(listed.back());
                listed.pop_back();
            }
            if (listed.size() > 768) {
                met["last columns"]++;
                heap_sort(listed.data() + 768, listed.size() - 768, [&](auto a, auto b) { return ascending(b, a); });
            }
            for (size_t row = 0; row < 256; row++)
                over += length_of(row) + length_of(row + 256) + length_of(row + 512) + length_of(row + 768) > 14;
            if (over == 0)
                return;
        }
    }

    void write_dictionary(result &out) const
    {
        out.dictionary = {static_cast<uint8_t>(entries >> 8), static_cast<uint8_t>(entries)};
        for (size_t i = 0; i < entries; i += 2)
            out.dictionary.push_back(static_cast<uint8_t>(length_of(i) << 4 | length_of(i + 1)));
        for (const uint64_t index : listed)
            out.dictionary.insert(out.dictionary.end(), nodes[index].bytes.begin(), nodes[index].bytes.end());
    }

    // A codeword is written if its first byte has a place; the one behind it is taken for granted.
    void write_stream(result &out, unsigned width, uint64_t capacity) const
    {
        std::map<uint64_t, uint64_t> codes;
        for (const uint64_t index : listed)
            codes.emplace(index, codes.size());
        uint64_t bits = 0;
        out.outcome = 0;
        parse([&](uint64_t index) {
            const uint64_t place = bits / 8, both = codes.at(index) << (16 - width - bits % 8);
            bits += width;
            if (place >= capacity) {
                out.outcome = 1;
                return;
            }
            out.stream[place] |= static_cast<uint8_t>(both >> 8);
            out.stream[place + 1] |= static_cast<uint8_t>(both);
        });
        out.codewords = bits / width;
        out.length = bits / 8 + (bits % 8 + width < 8);
    }

    const std::string text;
    coverage &met;
    const bool refined, by_rows;
    const uint64_t most_entries, most_bytes;
    uint64_t used = 0; // of the pool
    std::unordered_map<std::string, unsigned> children;
    std::unordered_map<std::string, uint64_t> symbols;
    std::vector<symbol> nodes;
    indexes_t single, longer, unused, listed;
    uint64_t total_bytes = 0, tokens = 0, entries = 0;
    bool singles_cut = false;
};

} // namespace training_model
