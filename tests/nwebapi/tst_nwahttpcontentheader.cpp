#include <nwebapi/nwahttpcontentheader.h>
#include <nwebapi/nwahttpjsonheader.h>

#include <QtTest/QtTest>

#include <sstream>

namespace {

QByteArray rendered(const NwaAbstractCgiStreamableElement& header)
{
    std::ostringstream stream;
    stream << header;
    const std::string text = stream.str();
    return QByteArray(text.data(), int(text.size()));
}

} // namespace

class tst_NwaHttpContentHeader : public QObject
{
    Q_OBJECT

private slots:
    void mediaTypeAndCharacterSetAreAnnounced();
    void emptyCharacterSetIsNotAnnounced();
    void statusAndFieldsStandAroundTheContentType();
    void lineBreaksAreLeftOut();
    void jsonHeaderAnnouncesJson();
};

void tst_NwaHttpContentHeader::mediaTypeAndCharacterSetAreAnnounced()
{
    const NwaHttpContentHeader header(QString::fromLatin1("text/html"), QString::fromLatin1("iso-8859-1"));
    QCOMPARE(rendered(header), QByteArray("Content-Type: text/html; charset=iso-8859-1\r\n\r\n"));
}

void tst_NwaHttpContentHeader::emptyCharacterSetIsNotAnnounced()
{
    const NwaHttpContentHeader header(QString::fromLatin1("image/png"));
    QCOMPARE(rendered(header), QByteArray("Content-Type: image/png\r\n\r\n"));
}

void tst_NwaHttpContentHeader::statusAndFieldsStandAroundTheContentType()
{
    NwaHttpContentHeader header(QString::fromLatin1("text/plain"));
    header.addField("Allow", "GET");
    header.setStatus(405);
    QCOMPARE(
        rendered(header),
        QByteArray("Status: 405 Method Not Allowed\r\nContent-Type: text/plain\r\nAllow: GET\r\n\r\n"));
}

void tst_NwaHttpContentHeader::lineBreaksAreLeftOut()
{
    const NwaHttpContentHeader header(QString::fromLatin1("a/b\r\nX: 1"), QString::fromLatin1("c\n\nd"));
    QCOMPARE(rendered(header), QByteArray("Content-Type: a/bX: 1; charset=cd\r\n\r\n"));
}

void tst_NwaHttpContentHeader::jsonHeaderAnnouncesJson()
{
    QCOMPARE(
        rendered(NwaHttpJsonHeader(QString::fromLatin1("utf-8"))),
        QByteArray("Content-Type: application/json; charset=utf-8\r\n\r\n"));
}

QTEST_APPLESS_MAIN(tst_NwaHttpContentHeader)
#include "tst_nwahttpcontentheader.moc"
