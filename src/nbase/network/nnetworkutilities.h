#ifndef NBASE_NNETWORKUTILITIES_H
#define NBASE_NNETWORKUTILITIES_H

#include <nbase/nbaseglobal.h>
#include <nbase/network/neui.h>

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QString>

/**
 * Checks of network addresses and names that came from outside, before they are used, and the names of the
 * transport protocols. All operations are thread-safe.
 *
 * A text is valid when the whole of it matches the regular expression (of QRegExp, case-sensitive) that stands
 * here for its kind; blanks around it make it invalid. The checks do not run the expressions, they give the same
 * answers in a time that grows with the length of the text at most. The expressions are there for input fields
 * (QRegExpValidator) and the like.
 */
class NBASE_EXPORT NNetworkUtilities
{
    Q_GADGET
    Q_ENUMS(TransportProtocol)

public:
    /** A protocol that carries data between two ports. */
    enum TransportProtocol {
        TransportProtocolTcp, ///< a stream of bytes in a connection
        TransportProtocolUdp  ///< single datagrams
    };

    /** One byte of an IPv4 address: a decimal number from 0 to 255, with any number of zeros before it. */
    static const QString S_IPV4_BYTE_REGEXP;

    /** An IPv4 address: four bytes joined by dots. */
    static const QString S_IPV4_REGEXP;

    /** The length of a network's prefix: a decimal number from 0 to 32, with any number of zeros before it. */
    static const QString S_CIDR_SUFFIX_REGEXP;

    /** A range of IPv4 addresses: an address, "/", and either a netmask as an address or the length of a prefix.
     */
    static const QString S_IPV4_RANGE_REGEXP;

    /** One label of a host name: 1 to 63 ASCII letters, digits and hyphens, no hyphen at either end (RFC 1123). */
    static const QString S_HOSTNAME_LABEL_REGEXP;

    /**
     * A host name: labels joined by dots, with or without a dot at the end. It must not begin like an IPv4
     * address, with four numbers joined by dots, whatever follows them.
     */
    static const QString S_HOSTNAME_REGEXP;

    /** Whether @a text is a MAC address with colons, see NMacAddress::S_REG_EXP_STRING. */
    static bool isMacAddress(const QString& text);

    /** Whether @a text is an IPv4 address, see S_IPV4_REGEXP. */
    static bool isIpv4Address(const QString& text);

    /** Whether @a text is a range of IPv4 addresses, see S_IPV4_RANGE_REGEXP. */
    static bool isIpv4AddressRange(const QString& text);

    /**
     * Whether @a text is a host name, see S_HOSTNAME_REGEXP, of at most 252 characters, not counting a dot at the
     * end. The operation is spelled like this on purpose: applications call it by this name.
     */
    static bool isHostmane(const QString& text);

    /**
     * Whether @a text is an EUI-48 written with one of @a separators, see NEui::regExpString(); without any
     * separators, whether it is empty.
     */
    static bool isEui48(const QString& text, const QSet<NEuiBase::Separator>& separators);

    /** Whether @a text is an EUI-64 written with one of @a separators; as isEui48() otherwise. */
    static bool isEui64(const QString& text, const QSet<NEuiBase::Separator>& separators);

    /** Every transport protocol with its name, "tcp" and "udp". */
    static QMap<TransportProtocol, QString> transportProtocols();

    /** The name of @a protocol; a null string for a value that is no protocol. */
    static QString stringFromTransportProtocol(TransportProtocol protocol);

    /**
     * The protocol whose name is @a text, in lower case and with nothing around it.
     * @return the protocol; TransportProtocolTcp when @a text names none.
     */
    static TransportProtocol transportProtocolFromString(const QString& text);

private:
    NNetworkUtilities();
};

#endif
