#include "stateFile.h"

#include <kltlibs/rundir.h>

#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>

namespace fs = std::filesystem;

namespace {

fs::path FileOf(const std::string &name)
{
    std::array<char, KLT_RUN_PATH_BYTES> path;
    if (KltRunDir_Path(("sources/" + name).c_str(), path.data(), path.size()) != 0) return {};
    return path.data();
}

} // namespace

nlohmann::json ReadStateJson(const std::string &name)
{
    std::ifstream file(FileOf(name));
    auto state = nlohmann::json::parse(file, nullptr, false);
    return state.is_discarded() ? nlohmann::json() : state;
}

void WriteState(const std::string &name, const nlohmann::json &state)
{
    const fs::path path = FileOf(name);
    const fs::path written = path.string() + ".new";
    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    std::ofstream file(written);
    file << state << std::flush;
    if (file) fs::rename(written, path, error);
    if (!file || error) fmt::print(stderr, "keld-sources: {} cannot be kept\n", path.string());
}
