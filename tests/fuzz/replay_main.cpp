// Replays inputs through a fuzz target without a fuzzer: every file of a corpus directory and every prefix
// of each, because a parser's usual fault is to trust that the next byte is there. Each input lies in memory
// of exactly its size, so that an address checker sees the first byte read beyond it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {
void run(const uint8_t *data, size_t size) {
    auto *copy = static_cast<uint8_t *>(malloc(size ? size : 1));
    if (!copy)
        abort();
    if (size)
        memcpy(copy, data, size);
    (void)LLVMFuzzerTestOneInput(size ? copy : copy + 1, size);
    free(copy);
}

std::vector<uint8_t> read_file(const std::string &path) {
    std::vector<uint8_t> bytes;
    FILE *file = fopen(path.c_str(), "rb");
    if (!file) {
        perror(path.c_str());
        exit(1);
    }
    uint8_t block[4096];
    for (size_t got; (got = fread(block, 1, sizeof block, file)) != 0;)
        bytes.insert(bytes.end(), block, block + got);
    fclose(file);
    return bytes;
}
} // namespace

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize)
        (void)LLVMFuzzerInitialize(&argc, &argv);
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS_DIRECTORY\n", argv[0]);
        return 2;
    }
    DIR *dir = opendir(argv[1]);
    if (!dir) {
        perror(argv[1]);
        return 1;
    }
    std::vector<std::string> names;
    while (const dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    if (names.empty()) {
        fprintf(stderr, "%s: no inputs\n", argv[1]);
        return 1;
    }

    size_t inputs = 0;
    for (const std::string &name : names) {
        const std::vector<uint8_t> bytes = read_file(std::string(argv[1]) + "/" + name);
        // Long inputs: every prefix of the first 4 KiB, then every 64th.
        for (size_t size = 0; size < bytes.size(); size += size < 4096 ? 1 : 64, ++inputs)
            run(bytes.data(), size);
        run(bytes.data(), bytes.size());
        ++inputs;
    }
    printf("%zu files, %zu inputs\n", names.size(), inputs);
    return 0;
}
