// What the process prints: standard output goes to a file while a capture lives. Lines of the log can be
// compared to the byte because their line numbers, which say nothing, are taken out: "<qel_cfg, 123> 3:
// text" reads "<qel_cfg> 3: text".
#ifndef QEL_CAPTURE_H
#define QEL_CAPTURE_H

#include <cstdint>
#include <string>
#include <vector>

class qel_capture {
  public:
    qel_capture();  // one at a time
    ~qel_capture(); // prints what was captured if the test has failed
    qel_capture(const qel_capture &) = delete;
    qel_capture &operator=(const qel_capture &) = delete;

    std::string raw();  // everything so far, as printed
    std::string text(); // the same with the line numbers taken out
    std::string take(); // what came since the last take(), without line numbers
    // The lines (of all so far) that one module logged at one level: their texts behind the prefix.
    std::vector<std::string> lines(const std::string &file, int level);
    // How often @line, made with qel_line(), stands in all so far.
    unsigned count(const std::string &line);
    bool has(const std::string &line) { return count(line) != 0; }

  private:
    int saved_, file_;
    size_t taken_ = 0;
    std::string everything_;
};

enum qel_test_level { V = 0, I = 1, W = 2, X = 3 };
// "<file> level: " and the formatted text, as take() and text() show a log line.
[[gnu::format(printf, 3, 4)]] std::string qel_line(const char *file, int level, const char *fmt, ...);
[[gnu::format(printf, 1, 2)]] std::string qel_format(const char *fmt, ...);
std::string qel_without_line_numbers(const std::string &text);

// The masks; all levels by default.
void qel_set_masks(uint32_t debug = 0xF, uint32_t log = 0);

#endif
