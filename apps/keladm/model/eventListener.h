// The management agent's side of the event socket: takes one record from each connection.
#ifndef KELADM_EVENTLISTENER_H
#define KELADM_EVENTLISTENER_H

#include "console.h"
#include "eventRecord.h"

#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

// What one connection brought.
struct ReceivedRecord {
    std::string bytes;
    std::optional<EventRecord> event; // nothing for a malformed record
    std::string malformed;            // what is wrong with it
};

// Bounds on what strangers can make it keep.
struct ListenerLimits {
    size_t connectionsMax = 256; // more wait in the backlog
    size_t bytesMax = 128 * 1024;
    std::chrono::milliseconds idle =
        std::chrono::seconds(10); // a connection that says nothing for so long ends
    std::chrono::milliseconds idleWhenFull = std::chrono::seconds(1);
};

class EventListener {
public:
    // Listens on carad-pling.sock in the run directory, which is made when missing. A socket that nobody
    // serves any more is replaced. Throws Failure, with kExitNoPeer where a receiver listens already.
    explicit EventListener(ListenerLimits limits = {});
    ~EventListener(); // removes the socket, unless somebody else's has taken its place

    // Waits until a record has come, one of others (whose revents it fills in) is ready, or until is
    // reached, and gives the records that have come, in the order of their ends.
    //
    // A connection that brings nothing at all is no record.
    std::vector<ReceivedRecord> Wait(Clock::time_point until, std::span<pollfd> others);

    // Makes the receiver hang, or go on. While it hangs, whoever connects waits, and what was sent stays
    // unread. Throws Failure.
    void SetDeaf(bool deaf);

    const std::string &Path() const { return mPath; }

private:
    struct Connection {
        UniqueFd fd;
        std::string bytes;
        Clock::time_point lastHeard;
    };

    void Accept(Clock::time_point now);
    bool Read(Connection &connection, Clock::time_point now); // false when it has ended
    std::chrono::milliseconds IdleLimit() const;

    ListenerLimits mLimits;
    std::string mPath;
    UniqueFd mListener;
    dev_t mDevice = 0; // with mInode: which socket is this one's own
    ino_t mInode = 0;
    std::list<UniqueFd> mFillers; // of the backlog, while it is deaf
    std::list<Connection> mConnections;
    Clock::time_point mAcceptAgain; // out of descriptors: not before then
};

#endif
