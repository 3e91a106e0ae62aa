// Which observations an agent wants.
#ifndef KELD_SUBSCRIPTION_H
#define KELD_SUBSCRIPTION_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr int kKeldSubscriptionMax = 10; // prefixes, and exact IDs

struct KeldSubscription {
    std::int32_t prefixCount = 0;
    std::int32_t exactIdCount = 0;
    std::array<std::string, kKeldSubscriptionMax> prefixes; // "kel.net"
    std::array<std::string, kKeldSubscriptionMax> exactIds;
    std::uint32_t initials = 0; // of what may match: they rule most observations out
};

// 0, or 1 when there are 10 already.
int KeldSubscriptionAddDomain(KeldSubscription *subscription, const std::string &domain);
int KeldSubscriptionAddExactId(KeldSubscription *subscription, const std::string &id);

// The bit of an ID's first letter behind "kel.", in a set of them; all bits for an ID that has none.
constexpr std::uint32_t KeldInitial(std::string_view id)
{
    return id.size() > 4 ? 1U << (static_cast<unsigned char>(id[4]) % 32) : ~0U;
}

// The same as KeldSubscriptionMatches, for an ID whose initial may match.
bool KeldSubscriptionNames(const KeldSubscription &subscription, std::string_view id);

// True for an ID that lies below a prefix ("kel.net.x" for "kel.net", neither "kel.net" nor
// "kel.network.x"), or is an exact ID.
inline bool KeldSubscriptionMatches(const KeldSubscription &subscription, std::string_view id)
{
    return (subscription.initials & KeldInitial(id)) != 0 && KeldSubscriptionNames(subscription, id);
}

#endif
