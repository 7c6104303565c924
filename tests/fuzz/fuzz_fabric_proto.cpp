// The decoders of what processes and qel-fabric say to each other. What they accept is within its bounds.
#include <cstddef>
#include <cstdint>
#include <span>

#include "qel_base.h"
#include "qel_fabric_proto.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const auto in = std::as_bytes(std::span(data, size));
    qel_fabric_hello hello{};
    if (qel_fabric_decode(in, hello))
        QEL_ASSERT(size == sizeof hello && qel_fabric_node_valid(hello.node) && hello.kind - 1 < 3);
    qel_fabric_request request{};
    if (qel_fabric_decode(in, request))
        QEL_ASSERT(size == sizeof request && request.op - 1 < qel_fabric_op_last);
    qel_fabric_reply reply{};
    if (qel_fabric_decode(in, reply))
        QEL_ASSERT(size == sizeof reply && reply.count <= qel_fabric_targets_max && reply.error >= 0);
    if (size >= 8) {
        const uint32_t index = qel_fabric_gen_index(qel_load_host32(data), qel_load_host32(data + 4));
        QEL_ASSERT(index < qel_fabric_gens);
    }
    return 0;
}
