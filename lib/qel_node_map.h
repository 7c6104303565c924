// A set of node IDs, 0..65535. A summary of the non-empty words makes copying, testing for emptiness and
// walking cost what is in it, not 65,536 bits: a word counts only while its summary bit is set.
//
// No lock: its owner guards it. Nodes above 65535 are never in it, and setting one does nothing: node numbers
// come from the wire.
#ifndef QEL_NODE_MAP_H
#define QEL_NODE_MAP_H

#include <bit>
#include <cstdint>

constexpr uint32_t qel_node_count = 65536;

struct qel_node_map {
    static constexpr uint32_t word_count = qel_node_count / 64;

    void reset() noexcept {
        for (uint64_t &s : summary)
            s = 0;
    }
    [[nodiscard]] bool any() const noexcept {
        uint64_t all = 0;
        for (const uint64_t s : summary)
            all |= s;
        return all != 0;
    }
    [[nodiscard]] bool test(uint32_t node) const noexcept {
        return node < qel_node_count && word(node / 64) >> node % 64 & 1;
    }
    void set(uint32_t node) noexcept {
        if (node < qel_node_count)
            put(node / 64, word(node / 64) | uint64_t{1} << node % 64);
    }
    void clear(uint32_t node) noexcept {
        if (node < qel_node_count)
            put(node / 64, word(node / 64) & ~(uint64_t{1} << node % 64));
    }
    // The lowest node at or above @from, or qel_node_count.
    [[nodiscard]] uint32_t next(uint32_t from) const noexcept {
        if (from >= qel_node_count)
            return qel_node_count;
        uint32_t w = from / 64;
        uint64_t bits = word(w) >> from % 64 << from % 64;
        while (bits == 0) {
            if (++w == word_count)
                return qel_node_count;
            // on to the next word that is not empty
            const uint64_t rest = summary[w / 64] >> w % 64;
            if (rest == 0) {
                w |= 63;
                continue;
            }
            w += static_cast<uint32_t>(std::countr_zero(rest));
            bits = words[w];
        }
        return w * 64 + static_cast<uint32_t>(std::countr_zero(bits));
    }
    // *this = a AND b
    void assign_and(const qel_node_map &a, const qel_node_map &b) noexcept {
        for (uint32_t s = 0; s < word_count / 64; s++) {
            uint64_t kept = 0;
            for (uint64_t both = a.summary[s] & b.summary[s]; both; both &= both - 1) {
                const auto bit = static_cast<uint32_t>(std::countr_zero(both));
                const uint64_t value = a.words[s * 64 + bit] & b.words[s * 64 + bit];
                if (value) {
                    words[s * 64 + bit] = value;
                    kept |= uint64_t{1} << bit;
                }
            }
            summary[s] = kept;
        }
    }

  private:
    [[nodiscard]] uint64_t word(uint32_t w) const noexcept {
        return summary[w / 64] >> w % 64 & 1 ? words[w] : 0;
    }
    void put(uint32_t w, uint64_t value) noexcept {
        const uint64_t bit = uint64_t{1} << w % 64;
        words[w] = value;
        summary[w / 64] = value ? summary[w / 64] | bit : summary[w / 64] & ~bit;
    }
    uint64_t summary[word_count / 64] = {};
    uint64_t words[word_count]; // words[w] is meaningless while its summary bit is clear
};

#endif
