// Type-length-value sections, the data of management messages: items of {16-bit length including this head,
// 16-bit type, value}, big-endian, each padded to a multiple of 4 bytes. The walker reads bytes of strangers:
// it never looks behind the section's end.
#ifndef QEL_TLV_H
#define QEL_TLV_H

#include <cstdint>
#include <span>

#include "qel_base.h"

constexpr uint32_t qel_tlv_head_len = 4;

// Type codes on the wire; they never change.
enum qel_tlv_type : uint16_t {
    QEL_TLV_FC_ACK = 0,
    QEL_TLV_SYNC = 1,
    QEL_TLV_SYNC_ACK = 2,
    QEL_TLV_DBG_CMD = 3,
    QEL_TLV_APP_INFO = 4,
    QEL_TLV_APP_STAT = 5,
    QEL_TLV_PING = 6,
    QEL_TLV_PING_ECHO = 7,
    QEL_TLV_RELOAD = 8,
};

constexpr uint32_t qel_tlv_space(uint32_t item_len) noexcept { return (item_len + 3u) & ~3u; }

// Writes an item at @item, padding included, and returns the bytes used. @value may be null for an empty one.
inline uint32_t qel_tlv_set(void *item, uint16_t type, const void *value, uint32_t value_len) noexcept {
    auto *b = static_cast<unsigned char *>(item);
    const uint32_t len = value_len + qel_tlv_head_len, used = qel_tlv_space(len);
    qel_store_be16(b, static_cast<uint16_t>(len));
    qel_store_be16(b + 2, type);
    if (value_len && value)
        std::memcpy(b + qel_tlv_head_len, value, value_len);
    for (uint32_t i = len; i < used; i++)
        b[i] = 0;
    return used;
}

// Walks a section: while (!empty()) { if (!ok()) bad section; if (len() < 4) bad length; ...; step(); }
class qel_tlv_list {
  public:
    qel_tlv_list(const void *section, size_t size) noexcept
        : at_(static_cast<const unsigned char *>(section)), space_(static_cast<int64_t>(size)) {}
    [[nodiscard]] bool empty() const noexcept { return space_ == 0; }
    // Aligned, a whole head there, and no longer than the space left. The last item's padding may be missing;
    // then the space behind it is negative, which is no section either.
    [[nodiscard]] bool ok() const noexcept {
        return reinterpret_cast<uintptr_t>(at_) % 4 == 0 && space_ >= int64_t{qel_tlv_head_len} &&
               space_ >= int64_t{len()};
    }
    // The following three only after the checks above.
    [[nodiscard]] uint32_t len() const noexcept { return qel_load_be16(at_); }
    [[nodiscard]] uint16_t type() const noexcept { return qel_load_be16(at_ + 2); }
    [[nodiscard]] std::span<const unsigned char> value() const noexcept {
        return {at_ + qel_tlv_head_len, len() - qel_tlv_head_len};
    }
    void step() noexcept {
        const uint32_t used = qel_tlv_space(len());
        at_ += used;
        space_ -= used;
    }

  private:
    const unsigned char *at_;
    int64_t space_;
};

#endif
