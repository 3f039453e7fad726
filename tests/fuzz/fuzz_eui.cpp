#include <nbase/network/nmacaddress.h>
#include <nbase/network/nnetworkutilities.h>

#include <QtCore/QRegExp>

#include <stdlib.h>

// The input is UTF-8 text. With every set of separators, parsing agrees with the regular expression, and a parsed
// value is printed as text that can be parsed again.

namespace {

typedef QSet<NEuiBase::Separator> Separators;

void require(bool holds)
{
    if (!holds)
        abort();
}

Separators subset(unsigned bits)
{
    Separators separators;
    for (NEuiBase::Separator separator : NEuiBase::separators()) {
        if (bits & (1u << separator))
            separators << separator;
    }
    return separators;
}

template <typename Address> void checkPrinting(const Address& address)
{
    for (NEuiBase::Separator separator : NEuiBase::separators())
        require(Address(address.toString(separator), Separators() << separator) == address);
}

struct Expressions
{
    Expressions(const Separators& separatorsOfBoth)
        : separators(separatorsOfBoth)
        , eui48(NEui48::regExpString(separatorsOfBoth))
        , eui64(NEui64::regExpString(separatorsOfBoth))
    {
    }

    Separators separators;
    QRegExp eui48;
    QRegExp eui64;
};

QList<Expressions> allExpressions()
{
    QList<Expressions> expressions;
    for (unsigned bits = 0; bits < 8; ++bits)
        expressions << Expressions(subset(bits));
    return expressions;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    static const QList<Expressions> expressions = allExpressions();
    static const QRegExp mac(NMacAddress::S_REG_EXP_STRING);

    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    for (const Expressions& with : expressions) {
        require(NNetworkUtilities::isEui48(text, with.separators) == with.eui48.exactMatch(text));
        require(NNetworkUtilities::isEui64(text, with.separators) == with.eui64.exactMatch(text));
        checkPrinting(NEui48(text, with.separators));
        checkPrinting(NEui64(text, with.separators));
    }
    const NMacAddress address(text);
    require(address.isNull() == !mac.exactMatch(text));
    require(address.isNull() || address.toString() == text.toLower());
    return 0;
}
