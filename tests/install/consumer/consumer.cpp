// A user's C++ program: the installed header, the installed library, nothing of the source tree.
#include <cstdio>
#include <memory>
#include <qel/qel.h>
#include <string_view>

int main() {
    struct free_msg {
        void operator()(qel_msg *msg) const noexcept { free(msg); }
    };
    const std::unique_ptr<qel_msg, free_msg> msg(qel_msg_alloc(QEL_MSG_DATA_MAX, 1, 0));
    if (!msg || qel_msg_data_len(msg.get()) != QEL_MSG_DATA_MAX)
        return 1;
    if (qel_msg_alloc(QEL_MSG_DATA_MAX + 1, 1, 0) != nullptr)
        return 2;
    if (std::string_view(qel_event_type_string(QEL_EVENT_JOIN)).empty())
        return 3;
    static_assert(noexcept(qel_run()));
    if (qel_comm_with(0, 1) != -22)
        return 4;
    std::puts("libqel answers");
}
