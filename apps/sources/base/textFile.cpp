#include "textFile.h"

#include <array>
#include <charconv>
#include <fcntl.h>
#include <kltlibs/uniquefd.h>
#include <unistd.h>

std::string ReadTextFile(const std::string &file)
{
    constexpr std::size_t kBytesMax = 1024 * 1024;
    std::string text;
    const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::array<char, 4096> piece;
    for (ssize_t count = 1; fd && count > 0 && text.size() < kBytesMax;) {
        count = read(fd.Get(), piece.data(), piece.size());
        if (count > 0) text.append(piece.data(), static_cast<std::size_t>(count));
    }
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

std::optional<std::uint64_t> ReadNumberFile(const std::string &file)
{
    const std::string text = ReadTextFile(file);
    std::uint64_t number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}
