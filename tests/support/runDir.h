// A run directory of the test's own, and the host inventory in it.
#ifndef TESTSUPPORT_RUNDIR_H
#define TESTSUPPORT_RUNDIR_H

#include <optional>
#include <string>
#include <string_view>

// Makes a private directory under TMPDIR (or /tmp, where TMPDIR is too long for a socket's path) and
// names it in KALTOR_RUN_DIR; removes it with all that is in it at the end.
//
// Make it before the first thread starts: it changes the environment. One at a time. Throws
// std::runtime_error when the directory cannot be made.
class RunDir {
public:
    RunDir();
    ~RunDir();
    RunDir(const RunDir &) = delete;
    RunDir &operator=(const RunDir &) = delete;

    // "/tmp/keldXXXXXX", and a path in it.
    const std::string &Path() const { return mPath; }
    std::string Path(const std::string &name) const { return mPath + "/" + name; }

    // Writes, reads, makes and removes one entry of the host, named as on disk under host/:
    // Host("storage/paths/hba1:C0:T0:L4", "naa.60003ff44dc75adc"). Throw std::runtime_error on failure.
    void Host(std::string_view entry, std::string_view text);
    void HostDirectory(std::string_view entry);
    void RemoveHost(std::string_view entry);

    // Nothing when the entry is absent.
    std::optional<std::string> HostText(std::string_view entry) const;

private:
    std::string mPath;
};

#endif
