#include "traceClient.h"

#include "unixSocket.h"
#include "waitFor.h"

#include <poll.h>

TraceClient::TraceClient(const std::string &path) : mFd(ConnectTo(path)) {}

std::string TraceClient::Line()
{
    std::size_t newline;
    while ((newline = mRead.find('\n', mTaken)) == mRead.npos) {
        if (WaitForEvents(mFd.Get(), POLLIN) == 0) return "(nothing)";
        char bytes[65536];
        const ssize_t count = read(mFd.Get(), bytes, sizeof bytes);
        if (count <= 0) return "(end)";
        mRead.erase(0, std::exchange(mTaken, 0)).append(bytes, static_cast<std::size_t>(count));
    }
    std::string line = mRead.substr(mTaken, newline - mTaken);
    mTaken = newline + 1;
    return line;
}

std::vector<std::string> TraceClient::History()
{
    std::vector<std::string> lines;
    for (std::string line = Line(); !line.empty() && line != "(end)" && line != "(nothing)"; line = Line())
        lines.push_back(std::move(line));
    return lines;
}
