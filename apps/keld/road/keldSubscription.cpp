#include "keldSubscription.h"

int KeldSubscriptionAddDomain(KeldSubscription *subscription, const std::string &domain)
{
    if (subscription->prefixCount == kKeldSubscriptionMax) return 1;
    std::string &prefix = subscription->prefixes[static_cast<std::size_t>(subscription->prefixCount++)];
    prefix = "kel." + domain;
    subscription->initials |= KeldInitial(prefix);
    return 0;
}

int KeldSubscriptionAddExactId(KeldSubscription *subscription, const std::string &id)
{
    if (subscription->exactIdCount == kKeldSubscriptionMax) return 1;
    subscription->exactIds[static_cast<std::size_t>(subscription->exactIdCount++)] = id;
    subscription->initials |= KeldInitial(id);
    return 0;
}

bool KeldSubscriptionNames(const KeldSubscription &subscription, std::string_view id)
{
    for (std::int32_t i = 0; i < subscription.prefixCount; ++i) {
        const std::string &prefix = subscription.prefixes[static_cast<std::size_t>(i)];
        if (id.size() > prefix.size() && id[prefix.size()] == '.' && id.starts_with(prefix)) return true;
    }
    for (std::int32_t i = 0; i < subscription.exactIdCount; ++i)
        if (id == subscription.exactIds[static_cast<std::size_t>(i)]) return true;
    return false;
}
