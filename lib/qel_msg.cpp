// Texts of the message's codes and the two dumps. The header layout is the wire's: it is proved here.
#include <cstdio>

#include "qel_base.h"
#include "qel_log.h"

static_assert(sizeof(qel_hdr) == QEL_MSG_HDR_LEN && alignof(qel_hdr) == 4);
static_assert(offsetof(qel_hdr, version) == 0 && offsetof(qel_hdr, reserved) == 1);
static_assert(offsetof(qel_hdr, flags) == 2 && offsetof(qel_hdr, qos) == 3);
static_assert(offsetof(qel_hdr, len) == 4 && offsetof(qel_hdr, src_node) == 8);
static_assert(offsetof(qel_hdr, dst_node) == 12 && offsetof(qel_hdr, src_app) == 16);
static_assert(offsetof(qel_hdr, dst_app) == 20 && offsetof(qel_hdr, app_ver) == 24);
static_assert(offsetof(qel_hdr, seq) == 28 && offsetof(qel_hdr, rpc_status) == 32);
static_assert(std::has_unique_object_representations_v<qel_hdr>, "no padding may leave the process");
static_assert(offsetof(qel_msg, hdr) == sizeof(qel_link) && QEL_MSG_DATA_OFFSET % 4 == 0);

template <size_t N> static const char *text_of(const char *const (&table)[N], uint32_t code) noexcept {
    return code < N ? table[code] : "";
}

const char *qel_reply_stat_string(uint32_t status) noexcept {
    static constexpr const char *texts[] = {"RPC success",
                                            "QEL version mismatch",
                                            "application service unavailable",
                                            "application service version mismatch",
                                            "systerm error",
                                            "RPC timeout"};
    static_assert(std::size(texts) == QEL_STATUS_TIMEOUT + 1);
    return text_of(texts, status);
}

const char *qel_msg_type_string(uint32_t type) noexcept {
    static constexpr const char *texts[] = {
        "processed message num ack", "sync instance",           "sync instance ack",
        "debug switch command",      "application information", "application statistics",
        "application ping",          "application ping echo",   "reload application"};
    return text_of(texts, type);
}

const char *qel_event_type_string(uint32_t event) noexcept {
    static constexpr const char *texts[] = {"application join", "application quit"};
    return text_of(texts, event);
}

const char *qel_get_msg_flags_str(uint8_t flags, char *buf) noexcept {
    static constexpr struct {
        uint8_t bit;
        char word[9];
    } words[] = {{QEL_FLAG_SYNC, " SYNC"},
                 {QEL_FLAG_REQUEST, " REQUEST"},
                 {QEL_FLAG_ACK, " ACK"},
                 {QEL_FLAG_MNG, " QEL_MNG"}};
    if (flags == 0)
        return strcpy(buf, "none");
    char *end = buf;
    for (const auto &w : words)
        if (flags & w.bit)
            end = stpcpy(end, w.word);
    if (end == buf) // only bits without a word: the text behind the leading blank is empty, and must be there
        *++end = '\0';
    return buf + 1;
}

void qel_dump_msg_hdr_info(const qel_msg *msg) noexcept {
    if (!(g_qel_dbg_level.load(std::memory_order_relaxed) & 1u << QEL_LEVEL_VERBOSE))
        return;
    char words[32];
    printf("===== QEL message header information =====\n"
           "QEL version %d, flag: %s, qos %d\n"
           "message length %d, app version %d\n"
           "src app/node %d/%d, dst app/node %d/%d\n"
           "seq %d, RPC status %s\n"
           "==========================================\n",
           msg->hdr.version, qel_get_msg_flags_str(msg->hdr.flags, words), msg->hdr.qos,
           static_cast<int>(msg->hdr.len), static_cast<int>(msg->hdr.app_ver),
           static_cast<int>(msg->hdr.src_app), static_cast<int>(msg->hdr.src_node),
           static_cast<int>(msg->hdr.dst_app), static_cast<int>(msg->hdr.dst_node),
           static_cast<int>(msg->hdr.seq), qel_reply_stat_string(msg->hdr.rpc_status));
}

// At the error bit, not the verbose one: the raw bytes are wanted exactly when something went wrong.
void qel_dump_msg_raw(const void *bytes, int32_t length) noexcept {
    if (!(g_qel_dbg_level.load(std::memory_order_relaxed) & 1u << QEL_LEVEL_ERROR))
        return;
    const auto *b = static_cast<const unsigned char *>(bytes);
    flockfile(stdout);
    printf("=== QEL message raw data len %d ===\n", length);
    for (int32_t i = 0; i < length; i++)
        printf(i % 16 == 15 ? " %02x\n" : " %02x", b[i]);
    putchar('\n');
    funlockfile(stdout);
}
