#include <nbase/network/nnetworkutilities.h>

#include <nbase/network/nmacaddress.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QMetaEnum>

namespace {

const int MaximumByte = 255;
const int MaximumPrefixLength = 32;
const int MaximumLabelLength = 63;

// A host name must be shorter than this. A dot at the end does not count because it denotes the root (RFC 1034,
// section 3.1).
const int HostNameLengthLimit = 253;

typedef QMap<NNetworkUtilities::TransportProtocol, QString> ProtocolNames;

// QChar::isDigit() and QChar::isLetter() also accept digits and letters of other scripts.
bool isDigit(QChar character)
{
    return character >= QLatin1Char('0') && character <= QLatin1Char('9');
}

bool isLetterOrDigit(QChar character)
{
    return isDigit(character) || (character >= QLatin1Char('a') && character <= QLatin1Char('z')) ||
           (character >= QLatin1Char('A') && character <= QLatin1Char('Z'));
}

// The skip functions advance the position behind what they expect. When the text does not match they return false
// and leave the position undefined.

bool skipCharacter(const QChar*& position, const QChar* end, char character)
{
    if (position == end || *position != QLatin1Char(character))
        return false;
    ++position;
    return true;
}

bool skipNumber(const QChar*& position, const QChar* end)
{
    const QChar* const begin = position;
    while (position != end && isDigit(*position))
        ++position;
    return position != begin;
}

// Any number of leading zeros is allowed.
bool skipNumberUpTo(const QChar*& position, const QChar* end, int maximum)
{
    const QChar* const begin = position;
    int value = 0;
    for (; position != end && isDigit(*position); ++position) {
        value = 10 * value + (position->unicode() - '0');
        if (value > maximum)
            return false;
    }
    return position != begin;
}

bool skipIpv4Address(const QChar*& position, const QChar* end)
{
    for (int index = 0; index < 4; ++index) {
        if (index > 0 && !skipCharacter(position, end, '.'))
            return false;
        if (!skipNumberUpTo(position, end, MaximumByte))
            return false;
    }
    return true;
}

bool isAddress(const QChar* position, const QChar* end)
{
    return skipIpv4Address(position, end) && position == end;
}

bool isPrefixLength(const QChar* position, const QChar* end)
{
    return skipNumberUpTo(position, end, MaximumPrefixLength) && position == end;
}

bool beginsWithFourNumbers(const QChar* position, const QChar* end)
{
    for (int index = 0; index < 4; ++index) {
        if (index > 0 && !skipCharacter(position, end, '.'))
            return false;
        if (!skipNumber(position, end))
            return false;
    }
    return true;
}

bool skipLabel(const QChar*& position, const QChar* end)
{
    const QChar* const begin = position;
    while (position != end && (isLetterOrDigit(*position) || *position == QLatin1Char('-')))
        ++position;
    if (position == begin || position - begin > MaximumLabelLength)
        return false;
    return isLetterOrDigit(*begin) && isLetterOrDigit(*(position - 1));
}

bool isLabelSequence(const QChar* position, const QChar* end)
{
    do {
        if (!skipLabel(position, end))
            return false;
        if (position == end)
            return true;
        if (!skipCharacter(position, end, '.'))
            return false;
    } while (position != end);
    return true;
}

// Takes a number, because the caller's value may be outside the enumeration; using such a value as a key is
// undefined.
QString protocolName(int protocol)
{
    switch (protocol) {
    case NNetworkUtilities::TransportProtocolTcp:
        return latin1("tcp");
    case NNetworkUtilities::TransportProtocolUdp:
        return latin1("udp");
    }
    return QString();
}

ProtocolNames readProtocolNames()
{
    ProtocolNames names;
    const QMetaObject& gadget = NNetworkUtilities::staticMetaObject;
    const QMetaEnum protocols = gadget.enumerator(gadget.indexOfEnumerator("TransportProtocol"));
    for (int index = 0; index < protocols.keyCount(); ++index) {
        const int value = protocols.value(index);
        names.insert(static_cast<NNetworkUtilities::TransportProtocol>(value), protocolName(value));
    }
    return names;
}

const ProtocolNames& protocolNames()
{
    static const ProtocolNames names = readProtocolNames();
    return names;
}

} // namespace

const QString NNetworkUtilities::S_IPV4_BYTE_REGEXP = latin1("0*(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)");

const QString NNetworkUtilities::S_IPV4_REGEXP = QLatin1String("(?:") + S_IPV4_BYTE_REGEXP +
                                                 QLatin1String("\\.){3}(?:") + S_IPV4_BYTE_REGEXP +
                                                 QLatin1Char(')');

const QString NNetworkUtilities::S_CIDR_SUFFIX_REGEXP = latin1("0*(?:3[0-2]|[0-2]?[0-9])");

const QString NNetworkUtilities::S_IPV4_RANGE_REGEXP = S_IPV4_REGEXP + QLatin1String("\\/(?:") + S_IPV4_REGEXP +
                                                       QLatin1Char('|') + S_CIDR_SUFFIX_REGEXP + QLatin1Char(')');

const QString NNetworkUtilities::S_HOSTNAME_LABEL_REGEXP =
    latin1("(?:[a-zA-Z0-9]{0,62}|[a-zA-Z0-9][a-zA-Z0-9-]{0,61})[a-zA-Z0-9]");

const QString NNetworkUtilities::S_HOSTNAME_REGEXP = QLatin1String("(?!^\\d+\\.\\d+\\.\\d+\\.\\d+)(?:") +
                                                     S_HOSTNAME_LABEL_REGEXP + QLatin1String("\\.)*") +
                                                     S_HOSTNAME_LABEL_REGEXP + QLatin1String("\\.?");

bool NNetworkUtilities::isMacAddress(const QString& text)
{
    return !NMacAddress(text).isNull();
}

bool NNetworkUtilities::isIpv4Address(const QString& text)
{
    return isAddress(text.constData(), text.constData() + text.size());
}

bool NNetworkUtilities::isIpv4AddressRange(const QString& text)
{
    const QChar* position = text.constData();
    const QChar* const end = position + text.size();
    if (!skipIpv4Address(position, end) || !skipCharacter(position, end, '/'))
        return false;
    return isAddress(position, end) || isPrefixLength(position, end);
}

bool NNetworkUtilities::isHostmane(const QString& text)
{
    const int limit = text.endsWith(QLatin1Char('.')) ? HostNameLengthLimit + 1 : HostNameLengthLimit;
    if (text.size() >= limit)
        return false;

    const QChar* const begin = text.constData();
    const QChar* const end = begin + text.size();
    return !beginsWithFourNumbers(begin, end) && isLabelSequence(begin, end);
}

bool NNetworkUtilities::isEui48(const QString& text, const QSet<NEuiBase::Separator>& separators)
{
    return separators.isEmpty() ? text.isEmpty() : !NEui48(text, separators).isNull();
}

bool NNetworkUtilities::isEui64(const QString& text, const QSet<NEuiBase::Separator>& separators)
{
    return separators.isEmpty() ? text.isEmpty() : !NEui64(text, separators).isNull();
}

QMap<NNetworkUtilities::TransportProtocol, QString> NNetworkUtilities::transportProtocols()
{
    return protocolNames();
}

QString NNetworkUtilities::stringFromTransportProtocol(TransportProtocol protocol)
{
    return protocolName(protocol);
}

NNetworkUtilities::TransportProtocol NNetworkUtilities::transportProtocolFromString(const QString& text)
{
    const ProtocolNames& names = protocolNames();
    for (ProtocolNames::const_iterator it = names.constBegin(); it != names.constEnd(); ++it) {
        if (it.value() == text)
            return it.key();
    }
    return TransportProtocolTcp;
}
