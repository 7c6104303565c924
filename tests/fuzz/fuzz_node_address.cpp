// The node address file.
#include <cstdio>
#include <cstdlib>

#include "qel_cfg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    FILE *file = fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (!file)
        return 0;
    const int32_t node = qel_parse_node_address(file);
    fclose(file);
    if (node < -1 || node > QEL_NODE_ID_MAX)
        abort();
    return 0;
}
