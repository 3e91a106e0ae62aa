// The entry for libFuzzer, and a main that runs the target over all files of directories.
#include "fuzz.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

std::string TakeUntil(std::string_view *rest, char separator)
{
    const std::string_view part = rest->substr(0, rest->find(separator));
    rest->remove_prefix(std::min(part.size() + 1, rest->size()));
    return std::string(part);
}

std::string TakeText(char *text, std::size_t length)
{
    const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
    FUZZ_CHECK(text != nullptr && text[length] == '\0');
    return {text, length};
}

std::unique_ptr<Kel, void (*)(Kel *)> MakeKel(std::string_view record)
{
    void *buffer = std::malloc(std::max<std::size_t>(record.size(), 1));
    FUZZ_CHECK(buffer != nullptr);
    std::memcpy(buffer, record.data(), record.size());
    Kel *kel = nullptr;
    if (Kel_MakeKel(buffer, static_cast<std::uint32_t>(record.size()), &kel) != 0) std::free(buffer);
    return {kel, Kel_Free};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::unique_ptr<char[]> copy(new char[size]);
    std::copy(data, data + size, copy.get());
    Fuzz({copy.get(), size});
    return 0;
}

#ifdef FUZZ_REPLAY
int main(int argc, char **argv)
{
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::set<std::filesystem::path> files;
    for (int at = 1; at < argc; ++at)
        for (const auto &entry : std::filesystem::directory_iterator(argv[at]))
            files.insert(entry.path());
    for (const std::filesystem::path &path : files) {
        // Named before it runs: whoever sees it break wants to know which one.
        std::printf("%s\n", path.filename().c_str());
        std::fflush(stdout);
        std::ifstream file(path, std::ios::binary);
        const std::vector<std::uint8_t> input{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
#endif
