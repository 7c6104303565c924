#include "qel_dm.h"

#include <cerrno>
#include <cstdarg>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#define QEL_LOG_SRC "qel_dm"
#include "qel_log.h"

constinit std::atomic<uint32_t> g_qel_dbg_level{0};
constinit std::atomic<uint32_t> g_qel_log_level{0};

// Guards the log file and its offset. A leaf: nothing is locked inside it.
static constinit qel_mutex g_log_mutex;
FILE *g_qel_log_fp QEL_GUARDED_BY(g_log_mutex) = nullptr;
uint64_t g_qel_log_offset QEL_GUARDED_BY(g_log_mutex) = 0;

constinit qel_mutex g_print_mutex;
// Written under g_print_mutex; qel_dm_close_files() takes it away under g_stat_mutex from a thread that may
// already hold the print buffer.
static constinit qel_mutex g_stat_mutex;
FILE *g_qel_stat_fp QEL_GUARDED_BY(g_stat_mutex) = nullptr;

alignas(qel_msg) static constinit char g_pb_msg_buf[qel_pb_size] = {};
qel_msg *g_print_msg = reinterpret_cast<qel_msg *>(g_pb_msg_buf);

constexpr uint64_t log_ring_bytes = 99999; // beyond it the next line starts at the top again

void qel_log_write(const char *src, int line, qel_level level, const char *fmt, ...) noexcept {
    char text[512];
    int len = snprintf(text, sizeof text, "<%s, %d> %d: ", src, line, static_cast<int>(level));
    if (len < 0)
        return;
    if (static_cast<size_t>(len) < sizeof text) {
        va_list args;
        va_start(args, fmt);
        vsnprintf(text + len, sizeof text - static_cast<size_t>(len), fmt, args);
        va_end(args);
    }
    if (g_qel_dbg_level.load(std::memory_order_relaxed) >> level & 1)
        printf("%s", text);
    if (g_qel_log_level.load(std::memory_order_relaxed) >> level & 1)
        qel_dm_record_log(text);
}

// ---- directory and files --------------------------------------------------------------------------------

// Another process may make it at the same moment: what counts is that it is there afterwards.
static int make_dir_if_missing(const char *path) noexcept {
    struct stat st;
    return mkdir(path, 0777) == 0 || stat(path, &st) == 0 ? 0 : -1;
}

int qel_make_log_dir(char *buf, size_t size) noexcept {
    const char *base = secure_getenv("VELT_DIR");
    snprintf(buf, size, "%s", base ? base : "/velt");
    if (make_dir_if_missing(buf))
        return -1;
    const size_t used = strlen(buf);
    if (size - used < sizeof "/dev/qel")
        return -1;
    strcpy(buf + used, "/dev");
    if (make_dir_if_missing(buf))
        return -1;
    strcat(buf, "/qel");
    return make_dir_if_missing(buf);
}

void qel_dm_remove_obsolete_files(const char *dir, const char *prefix) noexcept {
    constexpr size_t looked_at_max = 25, kept = 5;
    struct old_file {
        char path[128];
        timespec modified;
    } files[looked_at_max];
    size_t count = 0;

    DIR *d = opendir(dir);
    if (!d)
        return;
    const size_t prefix_len = strlen(prefix);
    while (count < looked_at_max) {
        const dirent *entry = readdir(d);
        if (!entry)
            break;
        if (strncmp(entry->d_name, prefix, prefix_len) != 0)
            continue;
        old_file &f = files[count];
        const int len = snprintf(f.path, sizeof f.path, "%s/%s", dir, entry->d_name);
        struct stat st;
        if (len < 0 || static_cast<size_t>(len) >= sizeof f.path || lstat(f.path, &st) != 0 ||
            !S_ISREG(st.st_mode))
            continue;
        f.modified = st.st_mtim;
        count++;
    }
    closedir(d);
    if (count <= kept)
        return;

    // newest first; at most 25 of them
    for (size_t i = 1; i < count; i++) {
        for (size_t j = i; j > 0; j--) {
            const timespec &a = files[j - 1].modified, &b = files[j].modified;
            if (a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec >= b.tv_nsec))
                break;
            std::swap(files[j - 1], files[j]);
        }
    }
    for (size_t i = kept; i < count; i++)
        unlink(files[i].path);
}

bool qel_dm_has_one_name(int fd) noexcept {
    struct stat st;
    if (fstat(fd, &st) != 0)
        return false;
    if (st.st_nlink > 1)
        errno = EMLINK;
    return st.st_nlink <= 1;
}

// Directories of the log are open to everybody: no symbolic link is followed, nothing of several names is
// touched, no pipe is waited for or written to (its reader could go and leave us with SIGPIPE; a pipe cannot
// be truncated), and the mode is set on what was opened.
static FILE *open_new_file(const char *path) noexcept {
    qel_fd fd(open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0777));
    if (!fd || !qel_dm_has_one_name(fd.fd) || ftruncate(fd.fd, 0) != 0)
        return nullptr;
    (void)fchmod(fd.fd, 0777);
    FILE *file = fdopen(fd.fd, "w");
    if (file)
        fd.release();
    return file;
}

void qel_dm_init() noexcept {
    char dir[64];
    if (qel_make_log_dir(dir, sizeof dir))
        return;

    char when[32] = "";
    const time_t now = qel_sys_get().time();
    tm utc;
    if (gmtime_r(&now, &utc))
        strftime(when, sizeof when, "%Y%m%d-%H%M%S", &utc);

    char link[64], exe[128];
    const long pid = getpid();
    snprintf(link, sizeof link, "/proc/%ld/exe", pid);
    const ssize_t len = readlink(link, exe, sizeof exe - 1);
    if (len < 0)
        return;
    exe[len] = '\0';
    const char *slash = strrchr(exe, '/');
    if (!slash)
        return;
    const char *program = slash + 1;

    char stem[192], prefix[160], path[320];
    snprintf(stem, sizeof stem, "%s-%ld-%s", program, pid, when);

    snprintf(prefix, sizeof prefix, "log-%s", program);
    qel_dm_remove_obsolete_files(dir, prefix);
    snprintf(path, sizeof path, "%s/log-%s", dir, stem);
    FILE *file = open_new_file(path);
    if (file) {
        setlinebuf(file);
        qel_lock lock(g_log_mutex);
        g_qel_log_fp = file;
        g_qel_log_offset = 0;
    } else {
        QEL_ERROR("QEL open debug log file %s failed: %s.\n", path, strerror(errno));
    }

    snprintf(prefix, sizeof prefix, "stat-%s", program);
    qel_dm_remove_obsolete_files(dir, prefix);
    snprintf(path, sizeof path, "%s/stat-%s", dir, stem);
    file = open_new_file(path);
    if (file) {
        qel_lock lock(g_stat_mutex);
        g_qel_stat_fp = file;
    } else {
        QEL_ERROR("QEL open stat file %s failed: %s.\n", path, strerror(errno));
    }
}

void qel_dm_close_files() noexcept {
    FILE *log, *stat;
    {
        qel_lock lock(g_log_mutex);
        log = std::exchange(g_qel_log_fp, nullptr);
    }
    {
        qel_lock lock(g_stat_mutex);
        stat = std::exchange(g_qel_stat_fp, nullptr);
    }
    if (log) {
        fflush(log);
        fsync(fileno(log));
        fclose(log);
    }
    if (stat)
        fclose(stat);
}

void qel_dm_record_log(const char *text) noexcept {
    qel_lock lock(g_log_mutex);
    if (!g_qel_log_fp)
        return;
    if (g_qel_log_offset > log_ring_bytes) {
        if (fseek(g_qel_log_fp, 0, SEEK_SET) != 0)
            return;
        g_qel_log_offset = 0; // the old lines behind stay: a ring, not a new file
    }
    char when[64] = "";
    const time_t now = qel_sys_get().time();
    if (!ctime_r(&now, when))
        when[0] = '\0';
    const size_t time_len = strlen(when);
    if (time_len > 0)
        when[time_len - 1] = ' ';
    fprintf(g_qel_log_fp, "%s%s", when, text);
    g_qel_log_offset += time_len + strlen(text);
}

// ---- print buffer and statistics file -------------------------------------------------------------------

static bool g_pb_overflowed QEL_GUARDED_BY(g_print_mutex) = false; // the notice is there

static char *pb_text() noexcept { return g_pb_msg_buf + QEL_MSG_DATA_OFFSET; }

void qel_buf_printf_reset() noexcept {
    g_print_msg = ::new (g_pb_msg_buf) qel_msg{};
    g_print_msg->hdr.len = QEL_MSG_HDR_LEN + 1;
    *pb_text() = '\0';
    g_pb_overflowed = false;
}

bool qel_buf_full() noexcept { return g_pb_overflowed; }

void qel_buf_printf(const char *fmt, ...) noexcept {
    if (g_pb_overflowed)
        return;
    static constexpr char notice[] = "*** PRINT BUFFER STRING OVERFLOW ***\n";
    char piece[256];
    va_list args;
    va_start(args, fmt);
    const int formatted = vsnprintf(piece, sizeof piece, fmt, args);
    va_end(args);
    if (formatted < 0)
        return;
    size_t len = std::min(static_cast<size_t>(formatted), sizeof piece - 1);
    QEL_ASSERT(g_print_msg->hdr.len > QEL_MSG_HDR_LEN && g_print_msg->hdr.len <= qel_pb_len_max);
    const size_t room = qel_pb_len_max - g_print_msg->hdr.len;
    if (len > room) {
        memcpy(pb_text(), notice, sizeof notice - 1);
        len = room;
        g_pb_overflowed = true;
    }
    char *end = pb_text() + (g_print_msg->hdr.len - QEL_MSG_HDR_LEN - 1);
    memcpy(end, piece, len);
    end[len] = '\0';
    g_print_msg->hdr.len += static_cast<uint32_t>(len);
}

int qel_buf_printf_reply(qel_msg *request) noexcept { return qel_rpc_reply(request, g_print_msg, 0); }

void qel_dm_record_stat() noexcept {
    qel_lock lock(g_stat_mutex);
    if (!g_qel_stat_fp)
        return;
    char when[64] = "";
    const time_t now = qel_sys_get().time();
    if (!ctime_r(&now, when))
        when[0] = '\0';
    const size_t time_len = strlen(when), len = qel_msg_data_len(g_print_msg);
    const char *failed = nullptr;
    int error = 0;
    if (ftruncate(fileno(g_qel_stat_fp), 0) != 0)
        failed = "truncate";
    else if (fseek(g_qel_stat_fp, 0, SEEK_SET) != 0)
        failed = "seek";
    else if (fwrite(when, 1, time_len, g_qel_stat_fp) != time_len ||
             fwrite(pb_text(), 1, len, g_qel_stat_fp) != len || fflush(g_qel_stat_fp) != 0)
        failed = "write";
    error = errno;
    if (!failed) {
        fsync(fileno(g_qel_stat_fp));
        return;
    }
    fclose(g_qel_stat_fp);
    g_qel_stat_fp = nullptr;
    lock.unlock();
    QEL_ERROR("QEL %s stat file failed: %s.\n", failed, strerror(error));
}
