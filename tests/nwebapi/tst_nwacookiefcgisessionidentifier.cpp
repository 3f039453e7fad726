#include <nwebapi/nwaabstracthttpheader.h>
#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include "nmemorychannel.h"

#include <QtTest/QtTest>

#include <sstream>

namespace {

QByteArray rendered(const NwaAbstractHttpHeader& header)
{
    std::ostringstream stream;
    stream << header;
    const std::string text = stream.str();
    return QByteArray(text.data(), int(text.size()));
}

QByteArray cookieValue(const NwaWebSession* session)
{
    return session->id().toString().mid(1, 36).toLatin1();
}

} // namespace

class tst_NwaCookieFcgiSessionIdentifier : public QObject
{
    Q_OBJECT

private slots:
    void cookieNamesTheSession_data();
    void cookieNamesTheSession();
    void firstLivingSessionCounts();
    void requestWithoutCookieHasNoSession();
    void otherNameIsUsedWhereItIsGiven();
    void activeRequestKeepsTheSessionAlive();
    void sessionCookieIsProtected_data();
    void sessionCookieIsProtected();
    void expiredCookieIsDeletedAtOnce();
    void replyAndRequestFitTogether();
};

// In the cookies "@" stands for the session's identifier.
void tst_NwaCookieFcgiSessionIdentifier::cookieNamesTheSession_data()
{
    QTest::addColumn<QByteArray>("cookies");
    QTest::addColumn<bool>("isFound");
    QTest::newRow("alone") << QByteArray("session=@") << true;
    QTest::newRow("after another") << QByteArray("a=b; session=@") << true;
    QTest::newRow("before another") << QByteArray("session=@; a=b") << true;
    QTest::newRow("no blank between") << QByteArray("a=b;session=@;c=d") << true;
    QTest::newRow("blanks and tabs") << QByteArray(" \t session=@ \t ;") << true;
    QTest::newRow("stale one before") << QByteArray("session=gone; session=@") << true;
    QTest::newRow("empty pairs") << QByteArray(";;session=@;;") << true;
    QTest::newRow("empty") << QByteArray("") << false;
    QTest::newRow("other name") << QByteArray("sessions=@") << false;
    QTest::newRow("name ends alike") << QByteArray("mysession=@") << false;
    QTest::newRow("name in capitals") << QByteArray("Session=@") << false;
    QTest::newRow("blank before the equals sign") << QByteArray("session =@") << false;
    QTest::newRow("blank behind the equals sign") << QByteArray("session= @") << false;
    QTest::newRow("value alone") << QByteArray("@") << false;
    QTest::newRow("name in a value") << QByteArray("a=session=@") << false;
    QTest::newRow("quoted") << QByteArray("session=\"@\"") << false;
    QTest::newRow("braces") << QByteArray("session={@}") << false;
    QTest::newRow("character behind") << QByteArray("session=@0") << false;
    QTest::newRow("comma") << QByteArray("a=b, session=@") << false;
    QTest::newRow("null identifier") << QByteArray("session=00000000-0000-0000-0000-000000000000") << false;
    QTest::newRow("hyphens misplaced") << QByteArray("session=0000000-00000-0000-0000-000000000000") << false;
    QTest::newRow("no hexadecimal digit") << QByteArray("session=g0000000-0000-4000-8000-000000000000") << false;
}

void tst_NwaCookieFcgiSessionIdentifier::cookieNamesTheSession()
{
    QFETCH(QByteArray, cookies);
    QFETCH(bool, isFound);
    NwaWebSessionManager manager;
    NwaWebSession* session = manager.createSession();
    cookies.replace("@", cookieValue(session));

    NwaCookieFcgiSessionIdentifier identifier(&manager);
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables("HTTP_COOKIE", cookies));
    QCOMPARE(identifier.identifySession(&request, false), isFound ? session : nullptr);
    QCOMPARE(identifier.identifySession(&request, true), isFound ? session : nullptr);
}

void tst_NwaCookieFcgiSessionIdentifier::firstLivingSessionCounts()
{
    NwaWebSessionManager manager;
    const QByteArray gone = cookieValue(manager.createSession());
    manager.removeSession(QUuid(QString::fromLatin1('{' + gone + '}')));
    NwaWebSession* first = manager.createSession();
    NwaWebSession* second = manager.createSession();

    NwaCookieFcgiSessionIdentifier identifier(&manager);
    NMemoryChannel channel;
    NwaFcgiRequest request(
        &channel, nVariables(
                      "HTTP_COOKIE", "session=" + gone + "; session=" + cookieValue(first).toUpper() +
                                         "; session=" + cookieValue(second)));
    QCOMPARE(identifier.identifySession(&request, false), first);
}

void tst_NwaCookieFcgiSessionIdentifier::requestWithoutCookieHasNoSession()
{
    NwaWebSessionManager manager;
    manager.createSession();
    NwaCookieFcgiSessionIdentifier identifier(&manager);
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables());
    QVERIFY(!identifier.identifySession(&request, false));
}

void tst_NwaCookieFcgiSessionIdentifier::otherNameIsUsedWhereItIsGiven()
{
    NwaWebSessionManager manager;
    NwaWebSession* session = manager.createSession();
    NwaCookieFcgiSessionIdentifier identifier(&manager, "device");
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables("HTTP_COOKIE", "device=" + cookieValue(session)));
    QCOMPARE(identifier.identifySession(&request, false), session);
    NwaFcgiRequest other(&channel, nVariables("HTTP_COOKIE", "session=" + cookieValue(session)));
    QVERIFY(!identifier.identifySession(&other, false));
}

// The session that has been idle for longest makes room for a new one, which shows whose idle time was restarted.
void tst_NwaCookieFcgiSessionIdentifier::activeRequestKeepsTheSessionAlive()
{
    const bool passive[] = {true, false};
    for (int index = 0; index < 2; ++index) {
        NwaWebSessionManager manager;
        manager.setMaximumSessionCount(2);
        const QUuid first = manager.createSession()->id();
        const QUuid second = manager.createSession()->id();

        NwaCookieFcgiSessionIdentifier identifier(&manager);
        NMemoryChannel channel;
        NwaFcgiRequest request(
            &channel, nVariables("HTTP_COOKIE", "session=" + cookieValue(manager.session(first))));
        QVERIFY(identifier.identifySession(&request, passive[index]));
        manager.createSession();
        QCOMPARE(manager.session(first) == nullptr, passive[index]);
        QCOMPARE(manager.session(second) == nullptr, !passive[index]);
    }
}

void tst_NwaCookieFcgiSessionIdentifier::sessionCookieIsProtected_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("isSecure");
    QTest::newRow("plain HTTP") << QByteArray("REQUEST_SCHEME") << QByteArray("http") << false;
    QTest::newRow("HTTPS on") << QByteArray("HTTPS") << QByteArray("on") << true;
    QTest::newRow("HTTPS ON") << QByteArray("HTTPS") << QByteArray("ON") << true;
    QTest::newRow("HTTPS off") << QByteArray("HTTPS") << QByteArray("off") << false;
    QTest::newRow("HTTPS empty") << QByteArray("HTTPS") << QByteArray("") << false;
    QTest::newRow("scheme https") << QByteArray("REQUEST_SCHEME") << QByteArray("https") << true;
    QTest::newRow("header of the client") << QByteArray("HTTP_HTTPS") << QByteArray("on") << false;
}

void tst_NwaCookieFcgiSessionIdentifier::sessionCookieIsProtected()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, value);
    QFETCH(bool, isSecure);
    NwaWebSessionManager manager;
    NwaWebSession* session = manager.createSession();
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables(name.constData(), value));
    NwaAbstractHttpHeader header;
    NwaCookieFcgiSessionIdentifier(&manager).addSessionCookie(&request, session, header);
    QCOMPARE(
        rendered(header), "Set-Cookie: session=" + cookieValue(session) + "; Path=/; HttpOnly; SameSite=Strict" +
                              (isSecure ? "; Secure" : "") + "\r\n\r\n");
}

void tst_NwaCookieFcgiSessionIdentifier::expiredCookieIsDeletedAtOnce()
{
    NwaWebSessionManager manager;
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables("HTTPS", "on"));
    NwaAbstractHttpHeader header;
    NwaCookieFcgiSessionIdentifier(&manager, "device").addExpiredCookie(&request, header);
    QCOMPARE(
        rendered(header), QByteArray("Set-Cookie: device=; Path=/; HttpOnly; SameSite=Strict; Secure; Max-Age=0; "
                                     "Expires=Thu, 01 Jan 1970 00:00:00 GMT\r\n\r\n"));
}

void tst_NwaCookieFcgiSessionIdentifier::replyAndRequestFitTogether()
{
    NwaWebSessionManager manager;
    NwaWebSession* session = manager.createSession();
    NwaCookieFcgiSessionIdentifier identifier(&manager);
    NMemoryChannel channel;
    NwaFcgiRequest login(&channel, nVariables());
    NwaAbstractHttpHeader header;
    identifier.addSessionCookie(&login, session, header);

    const QByteArray field = rendered(header);
    const int begin = int(qstrlen("Set-Cookie: "));
    NwaFcgiRequest request(&channel, nVariables("HTTP_COOKIE", field.mid(begin, field.indexOf(';') - begin)));
    QCOMPARE(identifier.identifySession(&request, false), session);
}

QTEST_MAIN(tst_NwaCookieFcgiSessionIdentifier)
#include "tst_nwacookiefcgisessionidentifier.moc"
