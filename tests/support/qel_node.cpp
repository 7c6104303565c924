#include "qel_node.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

qel_node::qel_node() {
    // The child of a death test dies before it could tidy up: what it makes lies in its parent's directory.
    const char *parent = GTEST_FLAG_GET(internal_run_death_test).empty() ? nullptr : getenv("QEL_ROOT");
    dir = std::string(parent ? parent : "/tmp") + "/qel.XXXXXX";
    if (!mkdtemp(dir.data()) || (!parent && guard_.watch(dir) != 0))
        abort();
    fs::create_directories(dir + "/etc");
    fs::create_directories(dir + "/tmp/addr");
    conf_path = dir + "/etc/qel.conf";
    addr_path = dir + "/tmp/addr/.qel_node_addr";
    log_dir = dir + "/velt/dev/qel";
    setenv("QEL_ROOT", dir.c_str(), 1);
    setenv("VELT_DIR", (dir + "/velt").c_str(), 1);
    set_node_address("1\n");
}

qel_node::~qel_node() {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
}

void qel_node::write_file(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}
std::string qel_node::read_file(const std::string &path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}
std::vector<std::string> qel_node::list_dir(const std::string &path) {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(path, ignored))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}
void qel_node::set_conf(const std::string &text) const { write_file(conf_path, text); }
void qel_node::remove_conf() const { fs::remove(conf_path); }
void qel_node::set_node_address(const std::string &text) const { write_file(addr_path, text); }
void qel_node::remove_node_address() const { fs::remove(addr_path); }
