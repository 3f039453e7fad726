#ifndef NBASE_NNETWORKUTILITIES_H
#define NBASE_NNETWORKUTILITIES_H

#include <nbase/nbaseglobal.h>
#include <nbase/network/neui.h>

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QString>

/**
 * Validates network addresses and names from external input, and names the transport protocols. All operations are
 * thread-safe.
 *
 * A text is valid when it matches the regular expression of its kind exactly (QRegExp, case-sensitive); blanks
 * around it make it invalid. The checks give the same results without running the expressions, in time linear in
 * the length of the text. The expressions are meant for input fields (QRegExpValidator).
 */
class NBASE_EXPORT NNetworkUtilities
{
    Q_GADGET
    Q_ENUMS(TransportProtocol)

public:
    /** A transport protocol. */
    enum TransportProtocol {
        TransportProtocolTcp, ///< connection with a stream of bytes
        TransportProtocolUdp  ///< datagrams
    };

    /** One byte of an IPv4 address: a decimal number from 0 to 255, with any number of leading zeros. */
    static const QString S_IPV4_BYTE_REGEXP;

    /** An IPv4 address: four bytes separated by dots. */
    static const QString S_IPV4_REGEXP;

    /** The length of a network prefix: a decimal number from 0 to 32, with any number of leading zeros. */
    static const QString S_CIDR_SUFFIX_REGEXP;

    /** A range of IPv4 addresses: an address, "/", and either a netmask in address form or a prefix length. */
    static const QString S_IPV4_RANGE_REGEXP;

    /** One label of a host name: 1 to 63 ASCII letters, digits and hyphens, no hyphen at either end (RFC 1123). */
    static const QString S_HOSTNAME_LABEL_REGEXP;

    /**
     * A host name: labels separated by dots, with or without a dot at the end. It must not begin with four numbers
     * separated by dots.
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
     * end. The misspelt name is intended: applications call it by this name.
     */
    static bool isHostmane(const QString& text);

    /**
     * Whether @a text is an EUI-48 written with one of @a separators, see NEui::regExpString(). When @a separators
     * is empty, whether the text is empty.
     */
    static bool isEui48(const QString& text, const QSet<NEuiBase::Separator>& separators);

    /** Whether @a text is an EUI-64 written with one of @a separators; otherwise like isEui48(). */
    static bool isEui64(const QString& text, const QSet<NEuiBase::Separator>& separators);

    /** Every transport protocol with its name, "tcp" and "udp". */
    static QMap<TransportProtocol, QString> transportProtocols();

    /** The name of @a protocol; a null string for an unknown value. */
    static QString stringFromTransportProtocol(TransportProtocol protocol);

    /**
     * The protocol whose name is exactly @a text, in lower case.
     * @return the protocol; TransportProtocolTcp when there is none.
     */
    static TransportProtocol transportProtocolFromString(const QString& text);

private:
    NNetworkUtilities();
};

#endif
