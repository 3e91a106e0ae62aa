// Runs a fuzz target over files, and over all files of directories: the kept inputs as a test.
#include "fuzz.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

namespace {

std::vector<std::filesystem::path> FilesAt(const std::filesystem::path &path)
{
    if (!std::filesystem::is_directory(path)) return {path};
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(path))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

// From memory of exactly its size, so that a sanitizer sees a read behind its end.
void Run(const std::vector<char> &input)
{
    const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[input.size()]);
    std::copy(input.begin(), input.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), input.size());
}

} // namespace

int main(int argc, char **argv)
{
    int inputs = 0;
    Run({});
    for (int at = 1; at < argc; ++at) {
        for (const std::filesystem::path &path : FilesAt(argv[at])) {
            std::ifstream file(path, std::ios::binary);
            if (!file) {
                std::fprintf(stderr, "%s: %s\n", path.c_str(), std::strerror(errno));
                return 1;
            }
            // Named before it runs: whoever sees it break wants to know which one.
            std::printf("%s\n", path.filename().c_str());
            std::fflush(stdout);
            Run({std::istreambuf_iterator<char>(file), {}});
            ++inputs;
        }
    }
    std::printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
