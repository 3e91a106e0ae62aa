// The diagnostic log, read back.
#ifndef TESTSUPPORT_LOGCAPTURE_H
#define TESTSUPPORT_LOGCAPTURE_H

#include "waitFor.h"

#include <string>
#include <string_view>
#include <vector>

// Text that grows in a file without a name, which other threads and child processes write.
class CapturedText {
public:
    CapturedText();
    ~CapturedText();
    CapturedText(const CapturedText &) = delete;
    CapturedText &operator=(const CapturedText &) = delete;

    int Fd() const { return mFd; } // closed on exec; a child's copy is made by dup2

    // All that was written so far.
    std::string Text() const;

private:
    int mFd;
};

// Lines of the diagnostic log. What this process gives to the system log arrives at the capture that was made
// last, and nowhere when there is none. Any thread may log.
class LogCapture {
public:
    // For this process; or for a child process, to which the caller hands Fd() in KELD_LOG_FD.
    enum class Of { ThisProcess, Child };
    explicit LogCapture(Of of = Of::ThisProcess);
    ~LogCapture();

    int Fd() const { return mText.Fd(); }

    // As written: "2026-03-01T12:00:00.000Z: Exiting. rc:0\n"; by the shipped daemon, with the header of
    // the system log before it.
    std::string Raw() const { return mText.Text(); }

    // The whole lines so far, without newline, priority and, where there is one, the time.
    std::vector<std::string> Lines() const;

    // The lines so far that contain part.
    std::vector<std::string> LinesWith(std::string_view part) const;

    // True as soon as a line contains part (count of them); false when limit has passed without.
    bool WaitForLine(std::string_view part, std::chrono::milliseconds limit = kWaitLimit) const;
    bool WaitForLines(std::string_view part, std::size_t count,
                      std::chrono::milliseconds limit = kWaitLimit) const;

private:
    CapturedText mText;
    bool mInstalled;
};

#endif
