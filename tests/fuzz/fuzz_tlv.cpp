// The section walker alone: it ends, and never hands out a byte beyond the section.
#include <cstdlib>

#include "qel_tlv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // aligned as a message's data are, and of exactly this size for an address checker
    auto *section = static_cast<unsigned char *>(malloc(size ? size : 1));
    if (!section)
        return 0;
    if (size)
        memcpy(section, data, size);
    uint32_t sum = 0;
    size_t items = 0;
    for (qel_tlv_list list(section, size); !list.empty() && list.ok() && list.len() >= qel_tlv_head_len;
         list.step()) {
        for (const unsigned char byte : list.value())
            sum += byte;
        if (++items > size / qel_tlv_head_len)
            abort();
    }
    free(section);
    return sum == UINT32_MAX ? -1 : 0;
}
