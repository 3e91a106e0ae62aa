#include <kltlibs/notify.h>
#include <kltlibs/uniquefd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

void KltNotify(const char *state)
{
    const char *path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path == nullptr || std::strlen(path) >= sizeof address.sun_path) return;
    std::strcpy(address.sun_path, path);
    if (*path == '@') address.sun_path[0] = '\0'; // a name without a file
    const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    (void)sendto(fd.Get(), state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path)));
}
