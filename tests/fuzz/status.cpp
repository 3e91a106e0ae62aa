// Status files as keladm might find them after whatever has happened to the disk.
#include "fuzz.h"

#include <statusFormats.h>

void Fuzz(std::string_view input)
{
    const StatusFile file = DecodeStatusFile(std::as_bytes(std::span(input)));
    StatusOutside outside;
    if (file.kind == StatusFile::Kind::Good) // of a daemon that lives
        outside.process = StatusProcess{file.content.processStart, 'S', {}};
    const StatusReport report = JudgeStatus(file, outside, "0.1.0");
    FUZZ_CHECK(report.Sentence().size() > std::string_view("well: ").size());
    FUZZ_CHECK(report.counted == (file.kind == StatusFile::Kind::Good));
    FUZZ_CHECK(!StatusJson(report).empty() && StatusMetrics(report).ends_with('\n'));
}
