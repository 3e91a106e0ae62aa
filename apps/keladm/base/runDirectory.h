// The run directory, with its errors put into words.
#ifndef KELADM_RUNDIRECTORY_H
#define KELADM_RUNDIRECTORY_H

#include <string>

// name below the run directory; the run directory itself for an empty name. Throws Failure when
// KALTOR_RUN_DIR cannot be used.
std::string RunDirectoryPath(const std::string &name);

// What to tell a user whose run directory has no daemon.
std::string NoDaemonText();

// A socket address of path. Throws Failure when it is too long.
struct sockaddr_un;
sockaddr_un SocketAddress(const std::string &path);

#endif
