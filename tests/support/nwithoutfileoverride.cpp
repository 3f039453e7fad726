#include "support/nwithoutfileoverride.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const quint32 FileOverride = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);

// Both capabilities lie in the first of the two 32-bit words that the kernel's interface has.
quint32 exchangeEffective(quint32 remove, quint32 add)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3];
    if (::syscall(SYS_capget, &header, data) != 0)
        qFatal("cannot read the capabilities of this thread");
    const quint32 removed = data[0].effective & remove;
    data[0].effective = (data[0].effective & ~remove) | add;
    if (::syscall(SYS_capset, &header, data) != 0)
        qFatal("cannot change the capabilities of this thread");
    return removed;
}

} // namespace

NWithoutFileOverride::NWithoutFileOverride()
    : m_removed(exchangeEffective(FileOverride, 0))
{
}

NWithoutFileOverride::~NWithoutFileOverride()
{
    exchangeEffective(0, m_removed);
}
