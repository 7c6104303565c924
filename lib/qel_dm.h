// Diagnostics: the log file (a ring of about 100,000 bytes), the statistics file (rewritten with a snapshot),
// and the print buffer in which status texts are put together. They never stop the bus: what cannot be opened
// or written is simply not there.
#ifndef QEL_DM_H
#define QEL_DM_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "qel_base.h"

// Opens both files in the log directory. Once per process, before other threads log.
void qel_dm_init() noexcept;

// Builds "<VELT_DIR, by default /velt>/dev/qel" in @buf and creates what is missing of it, mode 0777. 0 or
// -1.
int qel_make_log_dir(char *buf, size_t size) noexcept;

// Whether the file has no other name: one in this directory, which is open to everybody, could be a hard link
// to a file that its owner would not want overwritten. False leaves the reason in errno.
bool qel_dm_has_one_name(int fd) noexcept;

// Of the files in @dir whose names begin with @prefix keeps the 5 newest; looks at 25 at most.
void qel_dm_remove_obsolete_files(const char *dir, const char *prefix) noexcept;

// Appends @text, behind the local time, to the log file. Any thread.
void qel_dm_record_log(const char *text) noexcept;

// Closes both files. Any thread; what is logged afterwards reaches standard output only.
void qel_dm_close_files() noexcept;

// ---- the print buffer -----------------------------------------------------------------------------------

constexpr size_t qel_pb_size = 16384;                               // of the message object, link included
constexpr uint32_t qel_pb_len_max = qel_pb_size - sizeof(qel_link); // largest header-and-data length

// Held from reset to reply or record, so that two threads that print do not mix their texts. Taken before
// g_lib_mutex, never inside it.
extern qel_mutex g_print_mutex;
extern qel_msg *g_print_msg QEL_PT_GUARDED_BY(g_print_mutex);

void qel_buf_printf_reset() noexcept QEL_REQUIRES(g_print_mutex);
// A piece is at most 255 characters. What passes the end is cut and an overflow notice put at the start.
[[gnu::format(printf, 1, 2)]] void qel_buf_printf(const char *fmt, ...) noexcept QEL_REQUIRES(g_print_mutex);
// The text is full and cut: what walks long lists may stop, nothing more is taken.
bool qel_buf_full() noexcept QEL_REQUIRES(g_print_mutex);
// Answers @request with the text; the result of qel_rpc_reply().
int qel_buf_printf_reply(qel_msg *request) noexcept QEL_REQUIRES(g_print_mutex);
// Rewrites the statistics file with the text; a failure closes the file for good.
void qel_dm_record_stat() noexcept QEL_REQUIRES(g_print_mutex);

// The open files or null, and the bytes written since the log file was last rewound; for tests.
extern FILE *g_qel_log_fp;
extern FILE *g_qel_stat_fp;
extern uint64_t g_qel_log_offset;

#endif
