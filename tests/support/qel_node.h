// A node for a test: its files in a directory of its own, to which QEL_ROOT and VELT_DIR lead.
#ifndef QEL_NODE_H
#define QEL_NODE_H

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "qel_guard.h"

// At first there is the address file of node 1 and no configuration.
struct qel_node : testing::Test {
    qel_node();
    ~qel_node() override; // the directory goes

    std::string dir;       // "/tmp/qel.XXXXXX"
    std::string conf_path; // etc/qel.conf below it
    std::string addr_path; // tmp/addr/.qel_node_addr below it
    std::string log_dir;   // what VELT_DIR leads to; not made here

    void set_conf(const std::string &text) const;
    void remove_conf() const;
    void set_node_address(const std::string &text) const; // as the file holds it
    void remove_node_address() const;

    static std::string read_file(const std::string &path); // "" when there is none
    static void write_file(const std::string &path, const std::string &text);
    static std::vector<std::string> list_dir(const std::string &path); // sorted

  private:
    qel_guard guard_;
};

#endif
