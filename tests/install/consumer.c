/* A user's C program: the installed header, the installed library, nothing of the source tree. */
#include <qel/qel.h>
#include <stdio.h>

int main(void) {
    qel_msg *msg = qel_msg_alloc(4, 1, 0);
    qel_reply_set set;
    if (msg == NULL || msg->hdr.len != 40 || qel_msg_data_len(msg) != 4)
        return 1;
    memset(qel_msg_data(msg), 0, 4);
    set.count = 1;
    set.msg[0] = msg;
    qel_reply_msg_free(&set);
    if (set.count != 0)
        return 2;
    if (qel_reply_stat_string(QEL_STATUS_TIMEOUT)[0] == '\0')
        return 3;
    if (qel_comm_with(0, 1) != -22)
        return 4;
    puts("libqel answers");
    return 0;
}
