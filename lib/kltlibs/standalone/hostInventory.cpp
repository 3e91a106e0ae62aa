#include "hostInventory.h"

#include "files.h"
#include "kltlibs/rundir.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace HostInventory {

namespace {

// Behind its "%" comes no escape, so that List passes over a file that is still being written.
constexpr char kNewFile[] = "%new-XXXXXX";

// 0 with the file name of an entry; EINVAL for a part that can be no name.
int FileName(const Path &path, std::string *name)
{
    std::array<char, KLT_RUN_PATH_BYTES> host;
    if (const int error = KltRunDir_Path("host", host.data(), host.size()); error != 0) return error;
    *name = host.data();
    for (const std::string &part : path) {
        if (part.empty() || part == "." || part == ".." || part.find('\0') != std::string::npos)
            return EINVAL;
        *name += '/';
        *name += EscapeName(part);
    }
    return 0;
}

// ENOENT also for a name that is too long or leads through a file: no such entry can be there.
int ErrorOfAccess() { return errno == ENOTDIR || errno == ENAMETOOLONG ? ENOENT : errno; }

// A descriptor for one short use, which is there also when the process has no other left: one with a low
// number, below any limit, is kept in reserve and given up for as long as the use lasts. One user of it at
// a time.
class ShortDescriptor {
public:
    // open gives a descriptor, or -1 with errno.
    template <class Open> explicit ShortDescriptor(Open open)
    {
        mFd = open();
        if (mFd >= 0 || (errno != EMFILE && errno != ENFILE)) return;
        mReserved = std::unique_lock(TheReserve().mutex);
        TheReserve().fd.Reset();
        mFd = open();
    }
    ~ShortDescriptor()
    {
        const int error = errno;
        if (mFd >= 0) close(mFd);
        if (mReserved.owns_lock()) TheReserve().Fill();
        errno = error;
    }
    ShortDescriptor(const ShortDescriptor &) = delete;
    ShortDescriptor &operator=(const ShortDescriptor &) = delete;

    int Get() const { return mFd; }

    // Closed by the caller's own means.
    int Release() { return std::exchange(mFd, -1); }

    // Before the process opens much else.
    static void Prepare() { (void)TheReserve(); }

private:
    struct Reserve {
        Reserve() { Fill(); }
        void Fill() { fd.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

        std::mutex mutex;
        UniqueFd fd;
    };
    static Reserve &TheReserve()
    {
        static Reserve &reserve = *new Reserve;
        return reserve;
    }

    std::unique_lock<std::mutex> mReserved;
    int mFd = -1;
};

int ReadWhole(const Path &path, std::string *text)
{
    std::string name;
    if (const int error = FileName(path, &name); error != 0) return error;
    ShortDescriptor::Prepare();
    const ShortDescriptor file([&] { return open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); });
    if (file.Get() < 0) return ErrorOfAccess();
    std::array<char, 4096> piece;
    for (;;) {
        const ssize_t count = read(file.Get(), piece.data(), piece.size());
        if (count < 0) return errno;
        if (count == 0) return 0;
        text->append(piece.data(), static_cast<std::size_t>(count));
    }
}

int ReadNames(const Path &path, std::vector<std::string> *names)
{
    std::string directory;
    if (const int error = FileName(path, &directory); error != 0) return error;
    ShortDescriptor opened([&] { return open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (opened.Get() < 0) return ErrorOfAccess() == ENOENT ? 0 : errno;
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(fdopendir(opened.Get()), closedir);
    if (entries == nullptr) return errno;
    (void)opened.Release(); // the directory's own from here on
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(entries.get());
        if (entry == nullptr) return errno;
        auto name = UnescapeName(entry->d_name);
        if (name && *name != "." && *name != "..") names->push_back(std::move(*name));
    }
}

int WriteWhole(int file, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(file, text.data(), text.size());
        if (count < 0) return errno;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

template <typename Integer>
int ParseWithin(std::string_view text, Integer low, Integer high, Integer *value)
{
    Integer parsed = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, parsed);
    if (error == std::errc::invalid_argument || stop != end) return EINVAL;
    if (error != std::errc() || parsed < low || parsed > high) return ERANGE;
    *value = parsed;
    return 0;
}

} // namespace

std::optional<std::string> ReadText(const Path &path, int *error)
{
    std::string text;
    const int result = ReadWhole(path, &text);
    if (error != nullptr) *error = result;
    if (result != 0) return std::nullopt;
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

int ReadInteger(const Path &path, std::int64_t low, std::int64_t high, std::int64_t *value)
{
    int error;
    const auto text = ReadText(path, &error);
    return text ? ParseInteger(*text, low, high, value) : error;
}

int ReadUnsigned(const Path &path, std::uint64_t high, std::uint64_t *value)
{
    int error;
    const auto text = ReadText(path, &error);
    return text ? ParseUnsigned(*text, high, value) : error;
}

int ParseInteger(std::string_view text, std::int64_t low, std::int64_t high, std::int64_t *value)
{
    return ParseWithin(text, low, high, value);
}

int ParseUnsigned(std::string_view text, std::uint64_t high, std::uint64_t *value)
{
    return ParseWithin(text, std::uint64_t{0}, high, value);
}

bool IsDirectory(const Path &path)
{
    std::string name;
    struct stat status;
    return FileName(path, &name) == 0 && stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::vector<std::string> List(const Path &path, int *error)
{
    std::vector<std::string> names;
    const int result = ReadNames(path, &names);
    if (error != nullptr) *error = result;
    std::sort(names.begin(), names.end());
    return names;
}

int WriteText(const Path &path, std::string_view text)
{
    std::string name;
    if (path.empty()) return EISDIR;
    if (const int error = FileName(path, &name); error != 0) return error;
    const std::string directory = name.substr(0, name.rfind('/'));
    if (const int error = KltMakeDirectory(directory); error != 0) return error;

    std::string newName = directory + '/' + kNewFile;
    ShortDescriptor file([&] { return mkostemp(newName.data(), O_CLOEXEC); });
    if (file.Get() < 0) return errno;
    int error = fchmod(file.Get(), 0644) == 0 ? 0 : errno;
    if (error == 0) error = WriteWhole(file.Get(), std::string(text) + '\n');
    if (close(file.Release()) != 0 && error == 0) error = errno;
    if (error == 0 && rename(newName.c_str(), name.c_str()) != 0) error = errno;
    if (error != 0) unlink(newName.c_str());
    return error;
}

int MakeDirectory(const Path &path)
{
    std::string name;
    if (const int error = FileName(path, &name); error != 0) return error;
    return KltMakeDirectory(name);
}

int Remove(const Path &path)
{
    std::string name;
    if (const int error = FileName(path, &name); error != 0) return error;
    std::error_code error;
    const auto removed = std::filesystem::remove_all(name, error);
    if (error) return error.value();
    return removed == 0 ? ENOENT : 0;
}

std::string EscapeName(std::string_view name)
{
    std::string escaped;
    escaped.reserve(name.size());
    for (const char c : name) {
        if (c == '/')
            escaped += "%2F";
        else if (c == '%')
            escaped += "%25";
        else
            escaped += c;
    }
    return escaped;
}

std::optional<std::string> UnescapeName(std::string_view name)
{
    std::string plain;
    plain.reserve(name.size());
    while (!name.empty()) {
        const bool slash = name.starts_with("%2F");
        if (!slash && name.front() == '%' && !name.starts_with("%25")) return std::nullopt;
        plain += slash ? '/' : name.front();
        name.remove_prefix(name.front() == '%' ? 3 : 1);
    }
    return plain;
}

} // namespace HostInventory
