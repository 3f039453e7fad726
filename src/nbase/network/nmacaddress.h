#ifndef NBASE_NMACADDRESS_H
#define NBASE_NMACADDRESS_H

#include <nbase/network/neui.h>

/**
 * The hardware address of an Ethernet interface: an EUI-48 whose text always has colons between the bytes, as the
 * system's network tools write it.
 */
class NBASE_EXPORT NMacAddress : public NEui48
{
public:
    /** The separator between the bytes of a MAC address in text. */
    static const NEuiBase::Separator S_SEPARATOR = NEuiBase::SeparatorColon;

    /** The separators that are accepted in text: S_SEPARATOR only. */
    static const QSet<NEuiBase::Separator> S_ALLOWED_EUI_SEPARATORS;

    /** The regular expression (of QRegExp) that a MAC address in text matches exactly. */
    static const QString S_REG_EXP_STRING;

    /** A null address. */
    NMacAddress();

    /** The address of the six bytes at @a bytes, the first printed one first. A null pointer makes it null. */
    explicit NMacAddress(const unsigned char* bytes);

    /** The address of these bytes, the first printed one first; null unless there are exactly six. */
    explicit NMacAddress(const QVector<unsigned char>& bytes);

    /** The address of these bytes, @a b0 being the first printed one; it is never null. */
    NMacAddress(
        unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3, unsigned char b4,
        unsigned char b5);

    /** The same address, or null when @a address is null: every EUI-48 is a MAC address. */
    NMacAddress(const NEui48& address);

    /**
     * Parses @a text: six pairs of hexadecimal digits, in either letter case, separated by colons, without blanks
     * around them. The address is null when the text is anything else.
     */
    explicit NMacAddress(const QString& text);

    using NEui48::toString;

    /** The address as text with colons, in lower case: "00:1a:2b:3c:4d:5e"; a null string when this is null. */
    QString toString() const { return NEui48::toString(S_SEPARATOR); }
};

Q_DECLARE_TYPEINFO(NMacAddress, Q_MOVABLE_TYPE);

#endif
