#include "qel_capture.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "qel_log.h"

qel_capture::qel_capture() {
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    file_ = memfd_create("qel_capture", MFD_CLOEXEC);
    if (saved_ < 0 || file_ < 0 || dup2(file_, STDOUT_FILENO) < 0)
        abort();
}

qel_capture::~qel_capture() {
    const std::string all = raw();
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    close(file_);
    if (testing::Test::HasFailure()) {
        fwrite(all.data(), 1, all.size(), stdout);
        fflush(stdout);
    }
}

std::string qel_capture::raw() {
    fflush(stdout);
    char part[4096];
    ssize_t len;
    while ((len = pread(file_, part, sizeof part, static_cast<off_t>(everything_.size()))) > 0)
        everything_.append(part, static_cast<size_t>(len));
    return everything_;
}

std::string qel_capture::text() { return qel_without_line_numbers(raw()); }

std::string qel_capture::take() {
    const std::string all = raw();
    const std::string fresh = all.substr(taken_);
    taken_ = all.size();
    return qel_without_line_numbers(fresh);
}

unsigned qel_capture::count(const std::string &line) {
    const std::string all = text();
    unsigned found = 0;
    for (size_t at = all.find(line); at != std::string::npos; at = all.find(line, at + line.size()))
        found++;
    return found;
}

std::vector<std::string> qel_capture::lines(const std::string &file, int level) {
    const std::string prefix = "<" + file + "> " + std::to_string(level) + ": ";
    const std::string all = text();
    std::vector<std::string> found;
    for (size_t at = all.find(prefix); at != std::string::npos; at = all.find(prefix, at)) {
        at += prefix.size();
        const size_t end = all.find('\n', at);
        found.push_back(all.substr(at, end == std::string::npos ? end : end - at + 1));
    }
    return found;
}

std::string qel_without_line_numbers(const std::string &text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == '<') {
            size_t j = i + 1;
            while (j < text.size() && (isalnum(static_cast<unsigned char>(text[j])) || text[j] == '_'))
                j++;
            size_t k = j;
            if (text.compare(k, 2, ", ") == 0)
                for (k += 2; k < text.size() && isdigit(static_cast<unsigned char>(text[k]));)
                    k++;
            if (k > j + 2 && text.compare(k, 2, "> ") == 0 && k + 2 < text.size() &&
                isdigit(static_cast<unsigned char>(text[k + 2]))) {
                out.append(text, i, j - i);
                i = k;
            }
        }
        out += text[i++];
    }
    return out;
}

static std::string format_list(const char *fmt, va_list args) {
    va_list again;
    va_copy(again, args);
    const int len = vsnprintf(nullptr, 0, fmt, again);
    va_end(again);
    std::string out(static_cast<size_t>(len), '\0');
    vsnprintf(out.data(), out.size() + 1, fmt, args);
    return out;
}

std::string qel_format(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string out = format_list(fmt, args);
    va_end(args);
    return out;
}

std::string qel_line(const char *file, int level, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string out = format_list(fmt, args);
    va_end(args);
    return "<" + std::string(file) + "> " + std::to_string(level) + ": " + out;
}

void qel_set_masks(uint32_t debug, uint32_t log) {
    g_qel_dbg_level.store(debug);
    g_qel_log_level.store(log);
}
