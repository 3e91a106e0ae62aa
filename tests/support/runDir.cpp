#include "runDir.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <hostInventory.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace {

// A socket's path has 108 bytes, of which the run directory may take 80.
constexpr std::size_t kBaseBytesMax = 60;

HostInventory::Path PartsOf(std::string_view entry)
{
    HostInventory::Path parts;
    for (const std::filesystem::path &part : std::filesystem::path(entry))
        parts.push_back(HostInventory::UnescapeName(part.string()).value());
    return parts;
}

void Require(int error, std::string_view entry)
{
    if (error != 0) throw std::system_error(error, std::generic_category(), "host/" + std::string(entry));
}

} // namespace

RunDir::RunDir()
{
    const char *base = std::getenv("TMPDIR");
    if (base == nullptr || *base != '/' || std::string_view(base).size() > kBaseBytesMax) base = "/tmp";
    mPath = std::string(base) + "/keldXXXXXX";
    if (mkdtemp(mPath.data()) == nullptr) throw std::system_error(errno, std::generic_category(), mPath);
    setenv("KALTOR_RUN_DIR", mPath.c_str(), 1);
}

RunDir::~RunDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

void RunDir::Host(std::string_view entry, std::string_view text)
{
    Require(HostInventory::WriteText(PartsOf(entry), text), entry);
}

void RunDir::HostDirectory(std::string_view entry)
{
    Require(HostInventory::MakeDirectory(PartsOf(entry)), entry);
}

void RunDir::RemoveHost(std::string_view entry) { Require(HostInventory::Remove(PartsOf(entry)), entry); }

std::optional<std::string> RunDir::HostText(std::string_view entry) const
{
    return HostInventory::ReadText(PartsOf(entry));
}
