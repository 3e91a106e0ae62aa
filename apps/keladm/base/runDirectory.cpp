#include "runDirectory.h"

#include "failure.h"
#include "text.h"

#include "kltlibs/rundir.h"

#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

std::string RunDirectoryPath(const std::string &name)
{
    char path[KLT_RUN_PATH_BYTES];
    int error = KltRunDir_Path(name.c_str(), path, sizeof path);
    if (error == 0) return path;
    const char *variable = std::getenv("KALTOR_RUN_DIR");
    throw Failure(kExitUsage,
                  fmt::format("KALTOR_RUN_DIR is {}: it must be an absolute path of at most {} bytes",
                              Quoted(variable == nullptr ? "" : variable), int{KLT_RUN_DIR_BYTES_MAX}));
}

std::string NoDaemonText()
{
    return fmt::format("no daemon serves {}: start keld, or name its run directory in KALTOR_RUN_DIR",
                       RunDirectoryPath(""));
}

sockaddr_un SocketAddress(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw Failure(kExitUsage, fmt::format("{}: too long for a socket", path));
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}
