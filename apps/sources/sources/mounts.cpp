#include "mounts.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>

namespace {

// The kernel writes a blank, a tab, a newline and a backslash as \040, \011, \012 and \134.
std::string Plain(const std::string &word)
{
    std::string plain;
    for (std::size_t i = 0; i < word.size(); ++i) {
        const auto isDigit = [&](std::size_t at) {
            return at < word.size() && word[at] >= '0' && word[at] <= '7';
        };
        if (word[i] == '\\' && isDigit(i + 1) && isDigit(i + 2) && isDigit(i + 3)) {
            plain +=
                static_cast<char>((word[i + 1] - '0') * 64 + (word[i + 2] - '0') * 8 + word[i + 3] - '0');
            i += 3;
        } else {
            plain += word[i];
        }
    }
    return plain;
}

} // namespace

std::vector<Mount> ReadMounts(const std::string &mountInfo)
{
    std::vector<Mount> mounts;
    std::set<std::string> devices;
    std::istringstream lines(mountInfo);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream text(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
        const auto dash = std::ranges::find(words, "-");
        if (words.size() < 6 || words.end() - dash < 4 || dash - words.begin() < 6) continue;
        if (!devices.insert(words[2]).second) continue;
        const std::string options = "," + dash[3] + ",";
        mounts.push_back({words[2], Plain(words[4]), dash[1], Plain(dash[2]),
                          options.find(",ro,") != std::string::npos});
    }
    return mounts;
}
