// The shared-memory queue of one datagram socket of the local transport: many writers in many processes, one
// reader, any of them killed at any instruction, none of them trusting a byte of it. docs/local-transport.md
// has the layout and the reasons.
//
// Writers are serialised by a lock that survives its owner; the reader takes no lock. A writer builds the new
// state of the queue beside the old one and switches with one store, so there is nothing to repair.
#ifndef QEL_PORT_LOCAL_QUEUE_H
#define QEL_PORT_LOCAL_QUEUE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/uio.h>

constexpr uint32_t qel_lq_blocks = 32768; // of every queue that is shared; tests make smaller ones
constexpr uint32_t qel_lq_block_bytes = 8192;
constexpr uint32_t qel_lq_unit_bytes = 32; // records start at multiples of it; a header is one unit
constexpr uint32_t qel_lq_size_max = 66000;
constexpr uint32_t qel_lq_returned_max = 1024; // what a returned message keeps of its data

// What a record tells beside its data. In a returned one (code not 0) the source is the socket that rejected.
struct qel_lq_meta {
    uint32_t size;
    uint32_t src_ref, src_node;
    uint32_t name_type, name_instance;
    uint8_t importance; // 0..3; 4 in a returned message
    uint8_t code;       // 0 or a TIPC rejection code
    bool droppable;     // not returned when the receiver cannot take it
    bool named;         // sent to a name, not to a socket address
};

// The header of a record as it lies in shared memory.
struct qel_lq_header {
    uint32_t check; // bound to the position
    uint32_t size;
    uint32_t src_ref, src_node;
    uint32_t name_type, name_instance;
    uint32_t flags; // importance | code << 8 | droppable << 16 | named << 17
    uint32_t zero;
};
static_assert(sizeof(qel_lq_header) == qel_lq_unit_bytes);

// Judges the header @raw found at position @position, behind which @available bytes of stream (header
// included) are said to be. Null, or what is wrong with it. Pure.
const char *qel_lq_parse(const qel_lq_header &raw, uint64_t position, uint64_t available,
                         qel_lq_meta &meta) noexcept;

// What a message of @size bytes costs in the kernel's receive queue.
uint32_t qel_lq_cost(uint32_t size) noexcept;

struct qel_lq_shared;

// A queue as one process sees it. Nothing in it comes from shared memory.
struct qel_lq {
    qel_lq_shared *shared = nullptr;
    std::atomic<uint32_t> *next = nullptr;  // successor of each block in the stream
    std::atomic<uint32_t> *spare = nullptr; // a stack of retired blocks
    unsigned char *blocks = nullptr;
    uint32_t block_count = 0;
    size_t bytes = 0;
};

size_t qel_lq_bytes(uint32_t block_count) noexcept;
// @memory: qel_lq_bytes(block_count) bytes, aligned to a page.
void qel_lq_attach(qel_lq &q, void *memory, uint32_t block_count) noexcept;
// By the owner, on cleared memory that nobody else knows yet.
void qel_lq_init(const qel_lq &q, uint64_t rcvbuf_bytes) noexcept;

// The queue as a file. Create gives a sealed memfd or -1; map accepts exactly such a file (-1 else, errno).
int qel_lq_create_file() noexcept;
int qel_lq_map_file(qel_lq &q, int fd) noexcept;
void qel_lq_unmap(qel_lq &q) noexcept;

// ---- writing (any thread of any process) ----------------------------------------------------------------

enum class qel_lq_put {
    ok,
    full,   // the receiver holds as much as it may for this importance
    closed, // the receiver is gone
    busy,   // another writer kept the lock for too long
    broken, // the queue's state makes no sense; its owner will start it anew
};
enum class qel_lq_patience {
    once,    // one attempt and a short spin, no system call
    bounded, // up to two seconds
};
// Copies the message in. On ok the caller wakes the reader if qel_lq_sleeper() says so.
qel_lq_put qel_lq_write(const qel_lq &q, const qel_lq_meta &meta, const void *data,
                        qel_lq_patience patience) noexcept;
// So much lies unread that a writer does well to let the reader run, who may wait for this very processor:
// what is read soon is still in a cache, and the blocks it lay in are written again before others are
// touched.
bool qel_lq_far_ahead(const qel_lq &q) noexcept;
// Not 0: the reader sleeps, under this number, and is to be woken once per number.
uint64_t qel_lq_sleeper(const qel_lq &q) noexcept;
// No writer puts anything in after this. False when the lock could not be had (busy).
bool qel_lq_close(const qel_lq &q, qel_lq_patience patience) noexcept;
void qel_lq_close_by_force(const qel_lq &q) noexcept;
bool qel_lq_is_closed(const qel_lq &q) noexcept;
void qel_lq_set_rcvbuf(const qel_lq &q, uint64_t bytes) noexcept; // the owner

// ---- reading (one thread at a time) ---------------------------------------------------------------------

struct qel_lq_reader {
    uint64_t head = 0;  // position of the next record
    uint64_t tail = 0;  // as last seen
    uint64_t freed = 0; // cost of everything consumed
    uint32_t block = 0; // the block that @head lies in
    uint64_t sleep_number = 0;
};

enum class qel_lq_get { empty, record, broken };

// Something to read, or something wrong with the queue.
bool qel_lq_readable(const qel_lq &q, qel_lq_reader &r) noexcept;
// The record at the head; it stays there.
qel_lq_get qel_lq_peek(const qel_lq &q, qel_lq_reader &r, qel_lq_meta &meta) noexcept;
// Copies @bytes of the data of the record at the head into @iov. False: broken.
bool qel_lq_copy(const qel_lq &q, const qel_lq_reader &r, const iovec *iov, size_t iov_count,
                 size_t bytes) noexcept;
// Takes the record away. False: broken.
bool qel_lq_consume(const qel_lq &q, qel_lq_reader &r, const qel_lq_meta &meta) noexcept;
// The owner of a broken queue starts it anew and loses what is in it. The base of the limit is part of what
// may be damaged, so it is given again.
void qel_lq_restart(const qel_lq &q, qel_lq_reader &r, uint64_t rcvbuf_bytes) noexcept;

// Between the two the reader sleeps. Look at qel_lq_readable() again after the first.
void qel_lq_sleep_begin(const qel_lq &q, qel_lq_reader &r) noexcept;
void qel_lq_sleep_end(const qel_lq &q, qel_lq_reader &r) noexcept;
// Gives memory of a queue that was once full back to the system, if it is worth it and nobody is writing.
void qel_lq_trim(const qel_lq &q) noexcept;

// Places a reader where the dead owner stood, from what it had published. False: broken.
bool qel_lq_reader_of_dead(const qel_lq &q, qel_lq_reader &r) noexcept;

// ---- for tests ------------------------------------------------------------------------------------------

// Blocks ever used, blocks retired.
struct qel_lq_usage {
    uint32_t fresh, spare;
};
qel_lq_usage qel_lq_get_usage(const qel_lq &q) noexcept;
// Takes the lock and leaves with it, as a writer that dies inside does.
void qel_lq_lock_for_test(const qel_lq &q) noexcept;

#endif
