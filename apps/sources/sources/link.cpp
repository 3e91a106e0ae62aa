// Network links, through rtnetlink.
//
// Reads the whole state once, then one notice for each change. When the kernel had to drop notices, it
// reads the whole state again: the model tells the difference, and what the interfaces' own counters say
// of the time in between.

#include "linkMessage.h"
#include "linkModel.h"
#include "source.h"
#include "stateFile.h"
#include "text.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/epoll.h>
#include <sys/stat.h>

namespace {

constexpr const char *kStateFile = "links";

// How long a link may take to come up at first, before it counts as down.
constexpr std::chrono::seconds kSettleTime{10};
constexpr std::chrono::seconds kCoalescedTime{1};
constexpr int kReadsMax = 10;

using SocketPtr = std::unique_ptr<nl_sock, decltype(&nl_socket_free)>;

class LinkSource : public Source {
public:
    explicit LinkSource(const Host &host);
    ~LinkSource() override { Save(); }

private:
    void Read();
    void ReadAll();
    int ReadOnce();
    void Take(nlmsghdr *message);
    void AfterChange();
    void Save();
    bool IsNic(const Link &link) const;

    const Host &mHost;
    LinkModel mModel;
    SocketPtr mNotices{nl_socket_alloc(), nl_socket_free};
    std::vector<Link> mAll; // while the whole state is being read
    std::map<std::string, std::string> mSwitches;
    std::set<std::string> mSaved;
    EventLoop::WatchPtr mWatch, mSettle, mCoalesced;
};

LinkSource::LinkSource(const Host &host)
    : mHost(host), mModel(host.emit, [this](const Link &link) { return IsNic(link); }),
      mSettle(host.loop.OnTimer([this] {
          mModel.Settle();
          AfterChange();
      })),
      mCoalesced(host.loop.OnTimer([this] { mModel.TellCoalesced(); }))
{
    mModel.SetTold(ReadState<std::set<std::string>>(kStateFile));
    mSaved = mModel.Told();
    nl_socket_disable_seq_check(mNotices.get());
    int error = nl_connect(mNotices.get(), NETLINK_ROUTE);
    if (error == 0) error = nl_socket_set_nonblocking(mNotices.get());
    if (error == 0) error = nl_socket_set_buffer_size(mNotices.get(), host.options.receiveBytes, 0);
    if (error == 0) error = nl_socket_add_memberships(mNotices.get(), RTNLGRP_LINK, 0);
    if (error != 0) throw CannotRun(nl_geterror(error));
    nl_socket_modify_cb(
        mNotices.get(), NL_CB_VALID, NL_CB_CUSTOM,
        [](nl_msg *message, void *self) {
            static_cast<LinkSource *>(self)->Take(nlmsg_hdr(message));
            return static_cast<int>(NL_OK);
        },
        this);
    ReadAll();
    mWatch =
        host.loop.OnEvents(nl_socket_get_fd(mNotices.get()), EPOLLIN, [this](std::uint32_t) { Read(); });
}

void LinkSource::Read()
{
    const int error = nl_recvmsgs_default(mNotices.get());
    if (error == -NLE_NOMEM) ReadAll(); // the kernel's ENOBUFS: notices were dropped
    AfterChange();
}

// With a socket of its own, so that no notice is taken for an answer. Notices that are still waiting are
// older than what is read here, or the same: they are thrown away first.
void LinkSource::ReadAll()
{
    std::array<char, 4096> discarded;
    while (recv(nl_socket_get_fd(mNotices.get()), discarded.data(), discarded.size(), MSG_DONTWAIT) > 0 ||
           errno == ENOBUFS) {
    }
    int error = ReadOnce();
    for (int tries = 1; error == -NLE_DUMP_INTR && tries < kReadsMax; ++tries)
        error = ReadOnce(); // the links changed meanwhile
    if (error != 0) {
        fmt::print(stderr, "keld-sources: link: the links cannot be read: {}\n", nl_geterror(error));
        return;
    }
    for (Link &link : mAll)
        link.hasDevice = HasDevice(link.name, mHost.options.root);
    mModel.SetAll(mAll);
    AfterChange();
}

// 0, or libnl's error.
int LinkSource::ReadOnce()
{
    const SocketPtr socket(nl_socket_alloc(), nl_socket_free);
    rtgenmsg request{AF_UNSPEC};
    mAll.clear();
    nl_socket_modify_cb(
        socket.get(), NL_CB_VALID, NL_CB_CUSTOM,
        [](nl_msg *message, void *self) {
            auto link = ReadLink(nlmsg_hdr(message));
            if (link) static_cast<LinkSource *>(self)->mAll.push_back(std::move(*link));
            return static_cast<int>(NL_OK);
        },
        this);
    int error = nl_connect(socket.get(), NETLINK_ROUTE);
    if (error == 0)
        error =
            std::min(0, nl_send_simple(socket.get(), RTM_GETLINK, NLM_F_DUMP, &request, sizeof request));
    return error == 0 ? nl_recvmsgs_default(socket.get()) : error;
}

void LinkSource::Take(nlmsghdr *message)
{
    auto link = ReadLink(message);
    if (!link) return;
    if (message->nlmsg_type == RTM_DELLINK) {
        mModel.Remove(link->index);
    } else {
        link->hasDevice = HasDevice(link->name, mHost.options.root);
        mModel.Set(*link);
    }
}

void LinkSource::AfterChange()
{
    if (mModel.IsUnsettled()) mSettle->Arm(kSettleTime);
    if (mModel.HasCoalesced()) mCoalesced->Arm(kCoalescedTime);
    if (auto switches = mModel.Switches(); switches != mSwitches) {
        mSwitches = std::move(switches);
        Inventory::Entries entries;
        for (const auto &[group, onSwitch] : mSwitches)
            entries[{"net", "portgroups", group}] = onSwitch;
        mHost.inventory.Set({"net", "portgroups"}, entries);
    }
    Save();
}

void LinkSource::Save()
{
    if (mModel.Told() == mSaved) return;
    mSaved = mModel.Told();
    WriteState(kStateFile, mSaved);
}

bool LinkSource::IsNic(const Link &link) const
{
    if (link.IsSwitch() || link.kind == "vlan") return false;
    if (link.hasDevice) return true;
    for (const std::string &pattern : mHost.options.nics)
        if (GlobMatches(pattern, link.name)) return true;
    return false;
}

} // namespace

const SourceKind kLinkSource{
    "link",
    "nothing",
    "network interfaces, through rtnetlink",
    LinkModel::Rows(),
    [](const Host &host) -> std::unique_ptr<Source> { return std::make_unique<LinkSource>(host); },
};
