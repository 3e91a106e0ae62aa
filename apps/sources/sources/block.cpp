// Disks, the paths to them, and the file systems on them.
//
// A block device's uevent, and a change of the mounts, only say that there is something to look at: what
// there is then is read from sysfs. Only that a path of a multipath device has failed, while it is still
// there, stands in device-mapper's uevent alone.

#include "source.h"

#include "blockModel.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <kltlibs/uniquefd.h>
#include <libudev.h>
#include <memory>
#include <sys/epoll.h>

namespace {

constexpr int kNoticesPerTurn = 1024;

// Where udev runs, its own notices: they come when the device's node and names are there.
const char *NoticesOf(const std::string &root)
{
    return access((root + "/run/udev/control").c_str(), F_OK) == 0 ? "udev" : "kernel";
}

class BlockSource : public Source {
public:
    explicit BlockSource(const Host &host);

private:
    void Look();
    void Read();

    const Host &mHost;
    BlockModel mModel;
    std::vector<MountedFileSystem> mFileSystems;
    std::unique_ptr<udev, decltype(&udev_unref)> mUdev{udev_new(), udev_unref};
    std::unique_ptr<udev_monitor, decltype(&udev_monitor_unref)> mMonitor{nullptr, udev_monitor_unref};
    UniqueFd mMounts;
    EventLoop::WatchPtr mNotices, mMountsWatch;
};

BlockSource::BlockSource(const Host &host) : mHost(host), mModel(host.emit, host.inventory)
{
    const std::string &root = host.options.root;
    mMonitor.reset(udev_monitor_new_from_netlink(mUdev.get(), NoticesOf(root)));
    if (mMonitor == nullptr ||
        udev_monitor_filter_add_match_subsystem_devtype(mMonitor.get(), "block", nullptr) < 0 ||
        udev_monitor_enable_receiving(mMonitor.get()) < 0)
        throw CannotRun("uevents cannot be received");
    mNotices =
        host.loop.OnEvents(udev_monitor_get_fd(mMonitor.get()), EPOLLIN, [this](std::uint32_t) { Read(); });
    mMounts.Reset(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!mMounts) throw CannotRun(std::strerror(errno));
    mMountsWatch = host.loop.OnEvents(mMounts.Get(), EPOLLPRI, [this](std::uint32_t) { Look(); });
    Look();
}

// What waits, and then one look for all of it: a storm of notices costs few looks.
void BlockSource::Read()
{
    struct PathNotice {
        std::string number;
        bool works;
    };
    std::vector<PathNotice> paths;
    for (int notices = 0; notices < kNoticesPerTurn; ++notices) {
        udev_device *device = udev_monitor_receive_device(mMonitor.get());
        if (device == nullptr) break;
        const char *action = udev_device_get_property_value(device, "DM_ACTION");
        const char *number = udev_device_get_property_value(device, "DM_PATH");
        if (action != nullptr && number != nullptr) {
            if (std::strcmp(action, "PATH_FAILED") == 0) paths.push_back({number, false});
            if (std::strcmp(action, "PATH_REINSTATED") == 0) paths.push_back({number, true});
        }
        udev_device_unref(device);
    }
    Look();
    for (const PathNotice &path : paths)
        mModel.SetPath(path.number, path.works);
}

void BlockSource::Look()
{
    const std::string &root = mHost.options.root;
    mFileSystems = ReadFileSystems(root, mFileSystems);
    mModel.Set(ReadDisks(root), mFileSystems);
}

} // namespace

const SourceKind kBlockSource{
    "block",
    "to read the block devices that are mounted",
    "disks, the paths to them and the file systems on them, through uevents and sysfs",
    BlockModel::Rows(),
    [](const Host &host) -> std::unique_ptr<Source> { return std::make_unique<BlockSource>(host); },
};
