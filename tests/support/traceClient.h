// A trace client that reads when it is told to.
#ifndef TESTSUPPORT_TRACECLIENT_H
#define TESTSUPPORT_TRACECLIENT_H

#include <cstddef>
#include <kltlibs/uniquefd.h>
#include <string>
#include <vector>

// Connects in its constructor; throws std::system_error when nobody listens at path. One thread at a
// time.
class TraceClient {
public:
    explicit TraceClient(const std::string &path);

    int Fd() const { return mFd.Get(); }

    // The next line without its newline; "(end)" behind the last one, "(nothing)" when none comes.
    std::string Line();

    // The lines up to the blank one, or to the end.
    std::vector<std::string> History();

private:
    UniqueFd mFd;
    std::string mRead;
    std::size_t mTaken = 0; // of mRead
};

#endif
