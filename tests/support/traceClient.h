// A trace client that reads when it is told to.
#ifndef TESTSUPPORT_TRACECLIENT_H
#define TESTSUPPORT_TRACECLIENT_H

#include <cstddef>
#include <string>
#include <vector>

// Connects in its constructor; throws std::system_error when nobody listens at path. One thread at a
// time.
class TraceClient {
public:
    explicit TraceClient(const std::string &path);
    ~TraceClient();
    TraceClient(TraceClient &&other) noexcept;
    TraceClient(const TraceClient &) = delete;

    int Fd() const { return mFd; }

    // The next line without its newline; "(end)" behind the last one, "(nothing)" when none comes.
    std::string Line();

    // The lines up to the blank one, or to the end.
    std::vector<std::string> History();

    // Takes in what has come already, without waiting: true when it was anything.
    bool Fetch();

    // How many bytes have been read from the socket so far.
    std::size_t BytesRead() const { return mBytesRead; }

private:
    bool Read();

    int mFd;
    std::string mRead;
    std::size_t mTaken = 0; // of mRead
    std::size_t mBytesRead = 0;
};

#endif
