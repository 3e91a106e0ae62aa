// Sockets that have a path.
#ifndef TESTSUPPORT_UNIXSOCKET_H
#define TESTSUPPORT_UNIXSOCKET_H

#include <kltlibs/uniquefd.h>
#include <string>
#include <sys/socket.h>

// The path of a name in the present run directory, "carad-pling.sock".
std::string RunPath(const std::string &name);

// All throw std::system_error naming the path. Who listens or binds replaces what lies there; a listening
// socket does not block.
UniqueFd ConnectTo(const std::string &path, int type = SOCK_STREAM);
UniqueFd ListenAt(const std::string &path, int backlog);
UniqueFd BindDatagramSocket(const std::string &path);

// True when somebody listens on the socket, and has not only bound it or left it behind. Asked of the
// system's list, so that whoever listens is not disturbed.
bool IsListening(const std::string &path);

#endif
