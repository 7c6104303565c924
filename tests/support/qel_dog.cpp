// In a file of its own: only programs that ask what the watchdog was told are linked with one.
#include "qel_process.h"

namespace {
struct record {
    std::vector<std::string> told;
};
record &all() {
    static record &the = *new record; // threads of the library outlive main()
    return the;
}
void tell(const char *what, const char *name) {
    qel_time::lock();
    all().told.push_back(std::string(what) + " " + name);
    qel_time::unlock();
}
} // namespace

extern "C" {
void watchdog_register(const char *name) { tell("register", name); }
void watchdog_feed(const char *name) { tell("feed", name); }
void watchdog_unregister(const char *name) { tell("unregister", name); }
}

std::vector<std::string> qel_dog::take() {
    qel_time::lock();
    std::vector<std::string> told = std::exchange(all().told, {});
    qel_time::unlock();
    return told;
}
std::vector<std::string> qel_dog::take(const std::string &name) {
    std::vector<std::string> found;
    for (const std::string &line : take())
        if (line.size() > name.size() &&
            line.compare(line.size() - name.size() - 1, std::string::npos, " " + name) == 0)
            found.push_back(line);
    return found;
}
