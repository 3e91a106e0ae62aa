#include "logCapture.h"

#include "logFile.h"

#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <kltlibs/ksyslog.h>
#include <sys/mman.h>
#include <system_error>

namespace {

// No program with this writes to the log of the host that it runs on.
[[maybe_unused]] const bool kCaught = (KSyslog_SetSink(LogFile::Write), true);

constexpr std::string_view kTimeShape = "0000-00-00T00:00:00.000Z: ";

bool BeginsWithTime(std::string_view line)
{
    if (line.size() < kTimeShape.size()) return false;
    for (std::size_t i = 0; i < kTimeShape.size(); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (kTimeShape[i] == '0' ? !digit : line[i] != kTimeShape[i]) return false;
    }
    return true;
}

std::string_view WithoutPrefixes(std::string_view line)
{
    // "<14>Mar  1 12:00:00 keld: "
    if (line.starts_with("<")) line.remove_prefix(std::min(line.find(": ") + 2, line.size()));
    if (BeginsWithTime(line)) line.remove_prefix(kTimeShape.size());
    return line;
}

} // namespace

CapturedText::CapturedText() : mFd(memfd_create("captured", MFD_CLOEXEC))
{
    // Appending: the offset of such a file is not guarded, and two threads would write over each other.
    if (mFd < 0 || fcntl(mFd, F_SETFL, O_APPEND) != 0)
        throw std::system_error(errno, std::generic_category(), "memfd_create");
}

CapturedText::~CapturedText() { close(mFd); }

std::string CapturedText::Text() const
{
    std::string text;
    char piece[4096];
    for (ssize_t got; (got = pread(mFd, piece, sizeof piece, static_cast<off_t>(text.size()))) > 0;)
        text.append(piece, static_cast<std::size_t>(got));
    return text;
}

LogCapture::LogCapture(Of of) : mInstalled(of == Of::ThisProcess)
{
    if (mInstalled) LogFile::descriptor = mText.Fd();
}

LogCapture::~LogCapture()
{
    if (mInstalled) LogFile::descriptor = -1;
}

std::vector<std::string> LogCapture::Lines() const { return LinesWith(""); }

std::vector<std::string> LogCapture::LinesWith(std::string_view part) const
{
    const std::string text = Raw();
    std::vector<std::string> lines;
    for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string_view line = WithoutPrefixes(std::string_view(text).substr(start, end - start));
        if (line.find(part) != std::string_view::npos) lines.emplace_back(line);
    }
    return lines;
}

bool LogCapture::WaitForLine(std::string_view part, std::chrono::milliseconds limit) const
{
    return WaitForLines(part, 1, limit);
}

bool LogCapture::WaitForLines(std::string_view part, std::size_t count,
                              std::chrono::milliseconds limit) const
{
    return WaitUntil([&] { return LinesWith(part).size() >= count; }, limit);
}
