// The shared-memory queue while somebody scribbles over it: no byte pattern may make reader or writer leave
// the memory, loop without end or hold the lock. Input: a list of steps; a step is one byte and its
// arguments.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "qel_base.h"
#include "qel_port_local_queue.h"

namespace {

constexpr uint32_t blocks = 4;

struct input {
    const uint8_t *at;
    size_t left;
    uint32_t number(size_t bytes) {
        uint32_t n = 0;
        for (size_t i = 0; i < bytes && left > 0; i++, at++, left--)
            n = n << 8 | *at;
        return n;
    }
};

void parse_alone(input in) {
    qel_lq_header header{};
    memcpy(&header, in.at, std::min(in.left, sizeof header));
    qel_lq_meta meta{};
    const uint64_t position = in.left > sizeof header ? in.at[sizeof header] * 32u : 0;
    for (const uint64_t available : {uint64_t{0}, uint64_t{32}, uint64_t{70'000}}) {
        if (qel_lq_parse(header, position, available, meta))
            continue;
        QEL_ASSERT(meta.size <= qel_lq_size_max && meta.size + 32 <= available && meta.importance <= 4);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    parse_alone({data, size});

    // Of exactly the queue's size, so that the sanitizer sees a step outside.
    static const size_t bytes = qel_lq_bytes(blocks);
    static auto *memory = static_cast<unsigned char *>(aligned_alloc(4096, bytes));
    static unsigned char room[qel_lq_size_max];
    memset(memory, 0, bytes);
    qel_lq q;
    qel_lq_attach(q, memory, blocks);
    qel_lq_init(q, 2 << 20);
    qel_lq_reader reader;
    const auto restart = [&] {
        memset(memory + 128, 0, 8); // the lock: one that a living thread seems to hold is waited for
        qel_lq_restart(q, reader, 2 << 20);
    };
    input in{data, size};
    for (int steps = 0; in.left > 0 && steps < 64; steps++) {
        qel_lq_meta meta{};
        switch (in.number(1) % 8) {
        case 0:
        case 1: {
            meta.size = in.number(2);
            meta.importance = 3;
            (void)qel_lq_write(q, meta, room, qel_lq_patience::once);
            break;
        }
        case 2:
        case 3:
            switch (qel_lq_peek(q, reader, meta)) {
            case qel_lq_get::record: {
                const iovec to = {room, sizeof room};
                if (!qel_lq_copy(q, reader, &to, 1, meta.size) || !qel_lq_consume(q, reader, meta))
                    restart();
                break;
            }
            case qel_lq_get::broken:
                restart();
                break;
            case qel_lq_get::empty:
                break;
            }
            break;
        case 4: { // anywhere, the heads and tables more often than the blocks
            uint32_t where = in.number(2);
            const uint32_t count = in.number(1) % 16;
            where = where & 0x8000 ? where % static_cast<uint32_t>(bytes) : where % 1024;
            for (uint32_t i = 0; i < count && where + i < bytes; i++)
                memory[where + i] = static_cast<unsigned char>(in.number(1));
            break;
        }
        case 5:
            qel_lq_trim(q);
            break;
        case 6: {
            qel_lq_reader dead;
            if (qel_lq_reader_of_dead(q, dead) && qel_lq_peek(q, dead, meta) == qel_lq_get::record) {
                const iovec to = {room, sizeof room};
                (void)(qel_lq_copy(q, dead, &to, 1, meta.size) && qel_lq_consume(q, dead, meta));
            }
            break;
        }
        case 7:
            if (qel_lq_close(q, qel_lq_patience::once))
                return 0;
            break;
        }
    }
    // Whatever happened, its owner can start it anew and it works.
    restart();
    qel_lq_meta sent{.size = 100,
                     .src_ref = 7,
                     .src_node = 0,
                     .name_type = 0,
                     .name_instance = 0,
                     .importance = 0,
                     .code = 0,
                     .droppable = false,
                     .named = false};
    qel_lq_meta got{};
    QEL_ASSERT(qel_lq_write(q, sent, room, qel_lq_patience::once) == qel_lq_put::ok);
    QEL_ASSERT(qel_lq_peek(q, reader, got) == qel_lq_get::record && got.size == 100 && got.src_ref == 7);
    QEL_ASSERT(qel_lq_consume(q, reader, got));
    return 0;
}
