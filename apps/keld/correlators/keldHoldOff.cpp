#include "keldHoldOff.h"

#include "keldFate.h"

bool KeldHoldOffRule::IsOver(const std::string &key, std::uint64_t begunSeconds,
                             std::uint64_t nowSeconds) const
{
    const std::uint64_t passed = nowSeconds - begunSeconds;
    const bool over = nowSeconds < begunSeconds
                          ? whenClockSetBack == KeldRepeat::Posts
                          : passed > seconds || (passed == seconds && atItsEnd == KeldRepeat::Posts);
    if (over) return true;
    const KeldTimeOfDay end((renewed ? nowSeconds : begunSeconds) + seconds);
    KeldSay(KeldFate::HeldBack, "within %u s of the last one%s%s; posts again %s %s%s", seconds,
            key.empty() ? "" : " for ", key.c_str(), atItsEnd == KeldRepeat::Posts ? "from" : "after",
            end.text, renewed ? ", if quiet until then" : "");
    return false;
}
