// The configuration file, through the questions that read it; the first byte chooses the question.
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>

#include "fuzz_bus.h"
#include "qel_cfg.h"

// "etc/qel.conf" is a link to memory, so that a run costs no disk.
static int conf_file() {
    static char dir[] = "/tmp/qel-fuzz-conf.XXXXXX";
    const int fd = memfd_create("qel.conf", MFD_CLOEXEC);
    fuzz_bus::check(fd >= 0 && mkdtemp(dir), "no memory file");
    const std::string root = dir, link = root + "/etc/qel.conf", to = "/proc/self/fd/" + std::to_string(fd);
    fuzz_bus::check(mkdir((root + "/etc").c_str(), 0700) == 0 && symlink(to.c_str(), link.c_str()) == 0,
                    "no link");
    setenv("QEL_ROOT", dir, 1);
    atexit([] {
        const std::string r = dir;
        unlink((r + "/etc/qel.conf").c_str());
        rmdir((r + "/etc").c_str());
        rmdir(dir);
    });
    return fd;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int fd = conf_file();
    if (size == 0 || ftruncate(fd, 0) != 0 ||
        pwrite(fd, data + 1, size - 1, 0) != static_cast<ssize_t>(size - 1))
        return 0;
    uint32_t members[QEL_APP_GROUP_MBRS];
    switch (data[0] % 5) { // one question a run
    case 0:
        (void)qel_get_dbg_cfg();
        break;
    case 1:
        (void)qel_get_log_cfg();
        break;
    case 2:
        (void)qel_cfg_get_blocked_resume_enabled();
        break;
    case 3:
        (void)qel_get_app_priority(12);
        break;
    default:
        if (qel_get_app_mc_members(0x3001, members) > QEL_APP_GROUP_MBRS)
            abort();
        break;
    }
    return 0;
}
