// Errors of memory modules, as the EDAC drivers count them in sysfs.
//
// The counters are looked at once in a period. What they held at the start is known and not told: it may be
// years old.

#include "source.h"

#include "textFile.h"

#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <utility>

namespace fs = std::filesystem;

namespace {

enum { kCorrected, kUncorrected };
constexpr Row kRows[] = {
    {"kel.external.warning", kExternalFormat, "a module's counter of correctable errors has grown"},
    {"kel.external.error", kExternalFormat, "a module's counter of uncorrectable errors has grown"},
};

class MemorySource : public Source {
public:
    explicit MemorySource(const Host &host)
        : mHost(host), mControllers(host.options.root + "/sys/devices/system/edac/mc")
    {
        if (!fs::is_directory(mControllers)) throw CannotRun("no EDAC driver counts memory errors");
        Look(false);
        host.loop.EachPeriod([this] { Look(true); });
    }

private:
    void Look(bool tell);
    void LookAt(const fs::path &module, const char *counter, const char *kind, const Row &row, bool tell);

    const Host &mHost;
    const fs::path mControllers;
    std::map<std::string, std::uint64_t> mCounters; // by file
};

void MemorySource::Look(bool tell)
{
    std::error_code error;
    for (const auto &controller : fs::directory_iterator(mControllers, error))
        for (const auto &module : fs::directory_iterator(controller, error)) {
            LookAt(module, "dimm_ce_count", "correctable", kRows[kCorrected], tell);
            LookAt(module, "dimm_ue_count", "uncorrectable", kRows[kUncorrected], tell);
        }
}

void MemorySource::LookAt(const fs::path &module, const char *counter, const char *kind, const Row &row,
                          bool tell)
{
    const std::string file = module / counter;
    const std::optional<std::uint64_t> count = ReadNumberFile(file);
    if (!count) return;
    const auto [known, isNew] = mCounters.try_emplace(file, tell ? 0 : *count);
    const std::uint64_t before = std::exchange(known->second, *count);
    if (*count <= before) return; // the driver was loaded anew
    std::string label = ReadTextFile(module / "dimm_label");
    if (label.empty()) label = "without a label";
    const auto text = fmt::format("memory module {} ({}, {}) had {} {} errors", label,
                                  module.parent_path().filename().string(), module.filename().string(),
                                  *count - before, kind);
    mHost.emit(row, External("memory", text));
}

} // namespace

const SourceKind kMemorySource{
    "memory",
    "an EDAC driver",
    "error counters of memory modules, once in a period",
    kRows,
    [](const Host &host) -> std::unique_ptr<Source> { return std::make_unique<MemorySource>(host); },
};
