// The performance test: application 6, "QEL_PT", on every node whose daemon was started for it. The console's
// thread sends and calls; the library's thread answers, echoes and reports, as the application has no thread
// of its own. The two meet in g_recv_num under one mutex.
#ifndef QEL_PT_H
#define QEL_PT_H

#include <cstdint>
#include <ctime>

#include "qel/qel.h"

// Registers the application and makes its node group. 0, or a negative error that was told.
int qel_pt_init() noexcept;

// The console command; returns when the test is over or failed.
void qel_performance_test() noexcept;

// One test with messages of @size bytes, header included, to a node or to a node group. 0, also when a report
// does not come; -11 nodes came or went; -22 an error reply; the negative error of the send or call.
int qel_pt_test_send(uint32_t size, int32_t destination) noexcept;
int qel_pt_test_rpc(uint32_t size, int32_t destination) noexcept;

// What one test moves at most, and the time to settle behind each. Tests of whole runs make it smaller before
// the daemon starts; nothing else writes it.
struct qel_pt_volume {
    uint32_t send_bytes, rpc_bytes, messages_max;
    uint64_t pause_us;
};
extern qel_pt_volume g_qel_pt_volume;

extern "C" void qel_pt_msg_proc(qel_msg *msg);
extern "C" void qel_pt_event_proc(qel_app_event event);

// ---- figures and texts: pure, for tests ------------------------------------------------------------------

// Whole milliseconds from @start to @end.
int64_t qel_time_sub(const timespec &end, const timespec &start) noexcept;

struct qel_pt_elapsed { // milliseconds
    double absolute_ms, system_ms, process_ms;
};
// The three lines of a send test: @what is "sending", "receiving" or "transmission".
void qel_pt_format_send(char *text, size_t text_size, const char *what, const qel_pt_elapsed &elapsed,
                        uint32_t count, uint32_t size) noexcept;
// The three lines of a test of remote procedure calls.
void qel_pt_format_rpc(char *text, size_t text_size, const qel_pt_elapsed &elapsed, uint32_t count) noexcept;

#endif
