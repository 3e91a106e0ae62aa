// An owned parameter list for KIF_Get and KIF_Set.
#ifndef KNXCTL_KIFPARAMETERS_H
#define KNXCTL_KIFPARAMETERS_H

#include <cstdint>
#include <kltlibs/kif.h>
#include <memory>
#include <string>

class KifParameters {
public:
    void Add(const std::string &text) { Add(KIF_ParamListAddString, text.c_str()); }
    void Add(std::int64_t value) { Add(KIF_ParamListAddInt, value); }

    // KNX_OK, or why something could not be added.
    KnxReturnStatus Status() const { return mStatus; }
    const KifParamList *Get() const { return mList.get(); }

private:
    template <class Value> void Add(KnxReturnStatus (*add)(KifParamList *, Value), Value value)
    {
        if (mStatus == KNX_OK) mStatus = add(mList.get(), value);
    }

    struct Destroy {
        void operator()(KifParamList *list) const { KIF_ParamListDestroy(list); }
    };
    std::unique_ptr<KifParamList, Destroy> mList{KIF_ParamListCreate()};
    KnxReturnStatus mStatus = mList ? KNX_OK : KNX_NO_MEMORY;
};

#endif
