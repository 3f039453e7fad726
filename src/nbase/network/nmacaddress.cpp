#include <nbase/network/nmacaddress.h>

const NEuiBase::Separator NMacAddress::S_SEPARATOR;
const QSet<NEuiBase::Separator> NMacAddress::S_ALLOWED_EUI_SEPARATORS = QSet<NEuiBase::Separator>() << S_SEPARATOR;
const QString NMacAddress::S_REG_EXP_STRING = NEui<6>::regExpString(S_ALLOWED_EUI_SEPARATORS);

NMacAddress::NMacAddress() {}

NMacAddress::NMacAddress(const unsigned char* bytes)
    : NEui48(bytes)
{
}

NMacAddress::NMacAddress(const QVector<unsigned char>& bytes)
    : NEui48(bytes)
{
}

NMacAddress::NMacAddress(
    unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3, unsigned char b4, unsigned char b5)
    : NEui48(b0, b1, b2, b3, b4, b5)
{
}

NMacAddress::NMacAddress(const NEui48& address)
    : NEui48(address)
{
}

// Does not use the constructor with a set of separators: looking up the only one would take as long as parsing.
NMacAddress::NMacAddress(const QString& text)
{
    read(text, S_SEPARATOR);
}
