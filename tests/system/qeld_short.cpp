// qel-test-qeld-short: the daemon, whose performance test moves less and waits less: QELD_SHORT is the most
// messages or calls of one test (calls of 64 KiB: a tenth).
#include <cstdlib>

#include "qel_pt.h"

int qeld_main(int argc, char **argv);

int main(int argc, char **argv) {
    const char *most = getenv("QELD_SHORT");
    const auto count = static_cast<uint32_t>(strtoul(most ? most : "2000", nullptr, 10));
    g_qel_pt_volume.messages_max = count;
    g_qel_pt_volume.rpc_bytes = count / 10 * 65536;
    g_qel_pt_volume.pause_us = 50'000;
    return qeld_main(argc, argv);
}
