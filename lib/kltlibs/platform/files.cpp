#include "files.h"

#include <cerrno>
#include <sys/stat.h>

int KltMakeDirectory(const std::string &path)
{
    constexpr mode_t mode = 0755;
    struct stat status;
    if (stat(path.c_str(), &status) == 0) return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
    if (mkdir(path.c_str(), mode) != 0) {
        const std::size_t slash = path.rfind('/');
        if (errno == EEXIST) return 0; // another one was faster
        if (errno != ENOENT || slash == 0 || slash == std::string::npos) return errno;
        if (const int error = KltMakeDirectory(path.substr(0, slash)); error != 0) return error;
        if (mkdir(path.c_str(), mode) != 0) return errno == EEXIST ? 0 : errno;
    }
    return chmod(path.c_str(), mode) == 0 ? 0 : errno; // whatever the umask took away
}
