#include <nwebapi/nwacgimultipartformdatareader.h>
#include <nwebapi/nwacgirequest.h>

#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <sstream>
#include <string.h>

namespace {

// A body that arrives in pieces: between two of them a reader has to wait once.
class Request : public NwaCgiRequest
{
public:
    Request(const QList<QByteArray>& pieces, const QByteArray& contentType)
        : NwaCgiRequest(variablesFor(contentType))
        , isBroken(false)
        , m_pieces(pieces)
        , m_index(0)
        , m_position(0)
    {
    }

    std::ostream& outputStream() override { return m_stream; }
    std::ostream& errorStream() override { return m_stream; }

    qint64 readBody(char* data, qint64 maximumSize) override
    {
        if (m_index == m_pieces.size())
            return isBroken ? -1 : 0;
        const QByteArray& piece = m_pieces.at(m_index);
        const int size = int(qMin(maximumSize, qint64(piece.size() - m_position)));
        memcpy(data, piece.constData() + m_position, size_t(size));
        m_position += size;
        if (size == 0) {
            ++m_index;
            m_position = 0;
        }
        return size;
    }

    bool atBodyEnd() const override { return !isBroken && m_index == m_pieces.size(); }

    bool isBroken; ///< the body ends early, after the last piece

private:
    static Variables variablesFor(const QByteArray& contentType)
    {
        Variables variables;
        variables.insert("CONTENT_TYPE", contentType);
        return variables;
    }

    QList<QByteArray> m_pieces;
    int m_index;
    int m_position;
    std::ostringstream m_stream;
};

// A body of a given size, made while it is read.
class EndlessRequest : public Request
{
public:
    EndlessRequest(const QByteArray& head, const QByteArray& pattern, qint64 size, const QByteArray& contentType)
        : Request(QList<QByteArray>() << head, contentType)
        , m_pattern(pattern)
        , m_rest(size)
        , m_headIsRead(false)
    {
    }

    qint64 readBody(char* data, qint64 maximumSize) override
    {
        if (!m_headIsRead) {
            const qint64 size = Request::readBody(data, maximumSize);
            m_headIsRead = size == 0;
            if (size > 0)
                return size;
        }
        const qint64 size = qMin(maximumSize, m_rest);
        for (qint64 index = 0; index < size; ++index)
            data[index] = m_pattern.at(int((m_rest - index) % m_pattern.size()));
        m_rest -= size;
        return size;
    }

    bool atBodyEnd() const override { return m_rest == 0; }

private:
    QByteArray m_pattern;
    qint64 m_rest;
    bool m_headIsRead;
};

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

// How a text that may be null is written in a result.
QString shown(const QString& value)
{
    return value.isNull() ? text("-") : value;
}

// Reads the form to its end, up to @a readSize bytes at a time. Each part becomes "name|file name|type|data"; an
// error becomes "error: " and its text.
QStringList parts(NwaCgiMultipartFormDataReader& reader, unsigned int readSize)
{
    QStringList result;
    QString name;
    QString fileName;
    QString contentType;
    for (;;) {
        if (!reader.nextPart(name, fileName, contentType)) {
            if (reader.isWaiting())
                continue;
            break;
        }
        QByteArray data;
        while (!reader.atPartEnd() && !reader.hasError()) {
            const QByteArray piece = reader.readFromPart(readSize);
            if (static_cast<unsigned int>(piece.size()) > readSize)
                return QStringList() << text("too much read");
            data += piece;
        }
        if (!reader.hasError())
            result << shown(name) + QLatin1Char('|') + shown(fileName) + QLatin1Char('|') + shown(contentType) +
                          QLatin1Char('|') + QString::fromLatin1(data);
    }
    if (reader.hasError())
        result << text("error: ") + reader.errorString();
    return result;
}

const char plainType[] = "multipart/form-data; boundary=b";

QStringList partsOf(const QList<QByteArray>& pieces, const QByteArray& contentType, unsigned int readSize = 4096)
{
    Request request(pieces, contentType);
    NwaCgiMultipartFormDataReader reader(&request);
    return parts(reader, readSize);
}

QStringList partsOf(const QByteArray& body, const QByteArray& contentType = QByteArray(plainType))
{
    return partsOf(QList<QByteArray>() << body, contentType);
}

QByteArray field(const QByteArray& name, const QByteArray& data)
{
    return "--b\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + data + "\r\n";
}

// A form with one part that has only this header.
QByteArray formWithHeader(const QByteArray& header)
{
    return "--b\r\n" + header + "\r\n\r\nx\r\n--b--\r\n";
}

QByteArray formWithDisposition(const QByteArray& parameters)
{
    return formWithHeader("Content-Disposition: form-data; " + parameters);
}

// As a browser sends it.
const char sampleType[] = "multipart/form-data; boundary=----WebKitFormBoundary7MA4YWxkTrZu0gW";
const char sampleForm[] = "------WebKitFormBoundary7MA4YWxkTrZu0gW\r\n"
                          "Content-Disposition: form-data; name=\"comment\"\r\n"
                          "\r\n"
                          "two\r\nlines\r\n"
                          "\r\n"
                          "------WebKitFormBoundary7MA4YWxkTrZu0gW\r\n"
                          "Content-Disposition: form-data; name=\"package\"; filename=\"a b.swu\"\r\n"
                          "Content-Type: application/octet-stream\r\n"
                          "\r\n"
                          "\r\n------WebKitFormBoundary7MA4YWxkTrZu0g\r\r\n-\r\n"
                          "------WebKitFormBoundary7MA4YWxkTrZu0gW\r\n"
                          "Content-Disposition: form-data; name=\"empty\"; filename=\"\"\r\n"
                          "\r\n"
                          "\r\n"
                          "------WebKitFormBoundary7MA4YWxkTrZu0gW--\r\n";

QStringList sampleParts()
{
    return QStringList() << text("comment|-|-|two\r\nlines\r\n")
                         << text("package|a b.swu|application/octet-stream|"
                                 "\r\n------WebKitFormBoundary7MA4YWxkTrZu0g\r\r\n-")
                         << text("empty||-|");
}

} // namespace

class tst_NwaCgiMultipartFormDataReader : public QObject
{
    Q_OBJECT

private slots:
    void everySplitOfAFormGivesTheSameParts();
    void everyReadSizeGivesTheSameParts();
    void formMayArriveByteByByte();
    void everyCutOfAFormIsAnError();
    void bodyThatNeverEndsIsAnError();
    void formsAreRead_data();
    void formsAreRead();
    void wrongFormsAreErrors_data();
    void wrongFormsAreErrors();
    void boundaryIsFoundInTheContentType_data();
    void boundaryIsFoundInTheContentType();
    void wrongContentTypeIsAnError_data();
    void wrongContentTypeIsAnError();
    void dispositionIsRead_data();
    void dispositionIsRead();
    void dataMayEndLikeADelimiter();
    void nextPartSkipsTheRest();
    void partCountIsLimited();
    void headerSizeIsLimited_data();
    void headerSizeIsLimited();
    void stateIsReportedAtEachStep();
    void argumentsStayWithoutAPart();
    void largeHostileBodyIsReadInLinearTime_data();
    void largeHostileBodyIsReadInLinearTime();
};

void tst_NwaCgiMultipartFormDataReader::everySplitOfAFormGivesTheSameParts()
{
    const QByteArray form(sampleForm);
    for (int split = 0; split <= form.size(); ++split) {
        const QList<QByteArray> pieces = QList<QByteArray>() << form.left(split) << form.mid(split);
        QCOMPARE(partsOf(pieces, sampleType), sampleParts());
    }
}

void tst_NwaCgiMultipartFormDataReader::everyReadSizeGivesTheSameParts()
{
    for (unsigned int size = 1; size < 80; ++size)
        QCOMPARE(partsOf(QList<QByteArray>() << QByteArray(sampleForm), sampleType, size), sampleParts());
}

void tst_NwaCgiMultipartFormDataReader::formMayArriveByteByByte()
{
    const QByteArray form(sampleForm);
    QList<QByteArray> pieces;
    for (int index = 0; index < form.size(); ++index)
        pieces << form.mid(index, 1);
    QCOMPARE(partsOf(pieces, sampleType), sampleParts());
}

void tst_NwaCgiMultipartFormDataReader::everyCutOfAFormIsAnError()
{
    const QByteArray form(sampleForm);
    // Nothing needs to follow the hyphens of the last boundary.
    const int completeSize = form.size() - 2;
    for (int size = 0; size < completeSize; ++size) {
        const QStringList result = partsOf(form.left(size), sampleType);
        QCOMPARE(result.last(), text("error: the form breaks off"));
        QCOMPARE(result.mid(0, result.size() - 1), sampleParts().mid(0, result.size() - 1));
    }
    for (int size = completeSize; size <= form.size(); ++size)
        QCOMPARE(partsOf(form.left(size), sampleType), sampleParts());
}

void tst_NwaCgiMultipartFormDataReader::bodyThatNeverEndsIsAnError()
{
    Request request(QList<QByteArray>() << field("a", "x"), plainType);
    request.isBroken = true;
    NwaCgiMultipartFormDataReader reader(&request);
    QCOMPARE(parts(reader, 10), QStringList() << text("error: the form breaks off"));
}

void tst_NwaCgiMultipartFormDataReader::formsAreRead_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QStringList>("result");
    QTest::newRow("no parts") << QByteArray("--b--\r\n") << QStringList();
    QTest::newRow("no line end") << QByteArray("--b--") << QStringList();
    QTest::newRow("one part") << field("a", "x") + "--b--\r\n" << (QStringList() << text("a|-|-|x"));
    QTest::newRow("preamble") << "preamble --b\r\n-b\r\n" + field("a", "x") + "--b--\r\n"
                              << (QStringList() << text("a|-|-|x"));
    QTest::newRow("empty line first") << "\r\n" + field("a", "x") + "--b--\r\n"
                                      << (QStringList() << text("a|-|-|x"));
    QTest::newRow("epilogue") << field("a", "x") + "--b--\r\n" + field("c", "y") + "--b--\r\n"
                              << (QStringList() << text("a|-|-|x"));
    QTest::newRow("empty part") << field("a", "") + "--b--\r\n" << (QStringList() << text("a|-|-|"));
    QTest::newRow("part without even a line end")
        << QByteArray("--b\r\nContent-Disposition: form-data; name=a\r\n\r\n--b--\r\n")
        << (QStringList() << text("a|-|-|"));
    QTest::newRow("part is a line end") << field("a", "\r\n") + "--b--\r\n"
                                        << (QStringList() << text("a|-|-|\r\n"));
    QTest::newRow("line feeds are data") << field("a", "\n--b\nx\r") + "--b--\r\n"
                                         << (QStringList() << text("a|-|-|\n--b\nx\r"));
    QTest::newRow("boundary inside a line") << field("a", "x--b\r\n --b\r\n-b") + "--b--\r\n"
                                            << (QStringList() << text("a|-|-|x--b\r\n --b\r\n-b"));
    QTest::newRow("blanks behind the boundary")
        << QByteArray("--b \t \r\nContent-Disposition: form-data; name=a\r\n\r\nx\r\n--b-- \r\n")
        << (QStringList() << text("a|-|-|x"));
    QTest::newRow("same name twice") << field("a", "x") + field("a", "y") + "--b--\r\n"
                                     << (QStringList() << text("a|-|-|x") << text("a|-|-|y"));
    QTest::newRow("type with parameters")
        << formWithHeader("content-type: Text/Plain; charset=utf-8\r\nCONTENT-DISPOSITION: Form-Data; NAME=a")
        << (QStringList() << text("a|-|text/plain|x"));
    QTest::newRow("continued line") << formWithHeader(
                                           "Content-Disposition: form-data;\r\n\t name=a;\r\n filename=f")
                                    << (QStringList() << text("a|f|-|x"));
    QTest::newRow("other fields") << formWithHeader("X: \r\nContent-Disposition: form-data; name=a\r\nY:z")
                                  << (QStringList() << text("a|-|-|x"));
    QTest::newRow("plain encoding")
        << formWithHeader("Content-Disposition: form-data; name=a\r\nContent-Transfer-Encoding: 8BIT")
        << (QStringList() << text("a|-|-|x"));
}

void tst_NwaCgiMultipartFormDataReader::formsAreRead()
{
    QFETCH(QByteArray, body);
    QFETCH(QStringList, result);
    QCOMPARE(partsOf(body), result);
}

void tst_NwaCgiMultipartFormDataReader::wrongFormsAreErrors_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("error");
    const QString malformed = text("the header of a part is malformed");
    const QString disposition = text("a part has no correct content disposition");
    const QString breaksOff = text("the form breaks off");
    QTest::newRow("empty") << QByteArray("") << breaksOff;
    QTest::newRow("no boundary") << QByteArray("a=1&b=2") << breaksOff;
    QTest::newRow("line feeds alone") << QByteArray("--b\nContent-Disposition: form-data; name=a\n\nx\n--b--\n")
                                      << text("a boundary is followed by other text in its line");
    QTest::newRow("no last boundary") << field("a", "x") << breaksOff;
    QTest::newRow("text behind the boundary")
        << QByteArray("--bc\r\n") << text("a boundary is followed by other text in its line");
    QTest::newRow("hyphens behind blanks")
        << QByteArray("--b --\r\n") << text("a boundary is followed by other text in its line");
    QTest::newRow("one hyphen") << QByteArray("--b-\r\n")
                                << text("a boundary is followed by other text in its line");
    QTest::newRow("no header") << QByteArray("--b\r\n\r\nx\r\n--b--\r\n") << disposition;
    QTest::newRow("other disposition") << formWithHeader("Content-Disposition: attachment; name=a") << disposition;
    QTest::newRow("no name") << formWithHeader("Content-Disposition: form-data; filename=f")
                             << text("a part has no name");
    QTest::newRow("name twice") << formWithDisposition("name=a; name=b") << disposition;
    QTest::newRow("name twice in other case") << formWithDisposition("name=a; NAME=b") << disposition;
    QTest::newRow("quote open") << formWithDisposition("name=\"a") << disposition;
    QTest::newRow("text behind the quote") << formWithDisposition("name=\"a\"b") << disposition;
    QTest::newRow("parameter without value") << formWithDisposition("name") << disposition;
    QTest::newRow("parameter with empty value") << formWithDisposition("name=") << disposition;
    QTest::newRow("name not in UTF-8") << formWithDisposition("name=\"\xe4\"")
                                       << text("the name of a part is not in UTF-8");
    QTest::newRow("disposition twice")
        << formWithHeader("Content-Disposition: form-data; name=a\r\ncontent-disposition: form-data; name=b")
        << malformed;
    QTest::newRow("line without colon") << formWithHeader("Content-Disposition") << malformed;
    QTest::newRow("line without name") << formWithHeader(": form-data; name=a") << malformed;
    QTest::newRow("blank before the colon")
        << formWithHeader("Content-Disposition : form-data; name=a") << malformed;
    QTest::newRow("nothing to continue") << formWithHeader(" Content-Disposition: form-data; name=a") << malformed;
    QTest::newRow("line feed in a header")
        << formWithHeader("A: b\nContent-Disposition: form-data; name=a") << malformed;
    QTest::newRow("null character in a header")
        << formWithHeader("Content-Disposition: form-data; name=\"a" + QByteArray(1, '\0') + "\"") << malformed;
    QTest::newRow("encoded data")
        << formWithHeader("Content-Disposition: form-data; name=a\r\nContent-Transfer-Encoding: base64")
        << text("a part is encoded in a way that forms must not be");
}

void tst_NwaCgiMultipartFormDataReader::wrongFormsAreErrors()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, error);
    QCOMPARE(partsOf(body), QStringList() << text("error: ") + error);
}

void tst_NwaCgiMultipartFormDataReader::boundaryIsFoundInTheContentType_data()
{
    QTest::addColumn<QByteArray>("contentType");
    QTest::addColumn<QByteArray>("boundary");
    QTest::newRow("plain") << QByteArray("multipart/form-data; boundary=abc") << QByteArray("abc");
    QTest::newRow("quoted") << QByteArray("multipart/form-data; boundary=\"a:b c\"") << QByteArray("a:b c");
    QTest::newRow("capitals") << QByteArray("Multipart/Form-Data;BOUNDARY=aB") << QByteArray("aB");
    QTest::newRow("other parameter") << QByteArray("multipart/form-data; charset=utf-8; boundary=x ; y=z")
                                     << QByteArray("x");
    QTest::newRow("all characters") << QByteArray("multipart/form-data; boundary=\"09azAZ'()+_,-./:=?\"")
                                    << QByteArray("09azAZ'()+_,-./:=?");
    QTest::newRow("longest") << "multipart/form-data; boundary=" + QByteArray(70, '-') << QByteArray(70, '-');
}

void tst_NwaCgiMultipartFormDataReader::boundaryIsFoundInTheContentType()
{
    QFETCH(QByteArray, contentType);
    QFETCH(QByteArray, boundary);
    const QByteArray body =
        "--" + boundary + "\r\nContent-Disposition: form-data; name=a\r\n\r\nx\r\n--" + boundary + "--\r\n";
    QCOMPARE(partsOf(body, contentType), QStringList() << text("a|-|-|x"));
}

void tst_NwaCgiMultipartFormDataReader::wrongContentTypeIsAnError_data()
{
    QTest::addColumn<QByteArray>("contentType");
    QTest::newRow("none") << QByteArray("");
    QTest::newRow("other form") << QByteArray("application/x-www-form-urlencoded; boundary=b");
    QTest::newRow("other parts") << QByteArray("multipart/mixed; boundary=b");
    QTest::newRow("no boundary") << QByteArray("multipart/form-data");
    QTest::newRow("empty boundary") << QByteArray("multipart/form-data; boundary=");
    QTest::newRow("empty quoted boundary") << QByteArray("multipart/form-data; boundary=\"\"");
    QTest::newRow("two boundaries") << QByteArray("multipart/form-data; boundary=b; boundary=b");
    QTest::newRow("blank at the end") << QByteArray("multipart/form-data; boundary=\"b \"");
    QTest::newRow("line break") << QByteArray("multipart/form-data; boundary=\"b\r\n\"");
    QTest::newRow("no boundary character") << QByteArray("multipart/form-data; boundary=b*");
    QTest::newRow("too long") << "multipart/form-data; boundary=" + QByteArray(71, 'b');
}

void tst_NwaCgiMultipartFormDataReader::wrongContentTypeIsAnError()
{
    QFETCH(QByteArray, contentType);
    QCOMPARE(
        partsOf(field("a", "x") + "--b--\r\n", contentType),
        QStringList() << text("error: the content type announces no form in parts with a boundary"));
}

void tst_NwaCgiMultipartFormDataReader::dispositionIsRead_data()
{
    QTest::addColumn<QByteArray>("parameters");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("fileName");
    QTest::newRow("no file") << QByteArray("name=\"a\"") << text("a") << QString();
    QTest::newRow("not quoted") << QByteArray("name=a;filename=f.txt") << text("a") << text("f.txt");
    QTest::newRow("file first") << QByteArray("filename=\"f\" ; name=\"a\"") << text("a") << text("f");
    QTest::newRow("empty texts") << QByteArray("name=\"\"; filename=\"\"") << text("") << text("");
    QTest::newRow("UTF-8") << QByteArray("name=\"\xc3\xa4\"; filename=\"\xe2\x82\xac\"") << text("\xc3\xa4")
                           << text("\xe2\x82\xac");
    QTest::newRow("file not in UTF-8") << QByteArray("name=a; filename=\"\xe4\"") << text("a")
                                       << text("\xef\xbf\xbd");
    QTest::newRow("semicolon") << QByteArray("name=\"a;b\"; filename=\"c; name=d\"") << text("a;b")
                               << text("c; name=d");
    QTest::newRow("escaped quote") << QByteArray("name=a; filename=\"x\\\"y\"") << text("a") << text("x\"y");
    QTest::newRow("escaped backslash") << QByteArray("name=a; filename=\"x\\\\\"") << text("a") << text("x\\");
    QTest::newRow("path of a browser") << QByteArray("name=a; filename=\"C:\\dir\\new.swu\"") << text("a")
                                       << text("C:\\dir\\new.swu");
    QTest::newRow("encoded quote") << QByteArray("name=\"a%22b\"; filename=\"%22\"") << text("a\"b") << text("\"");
    QTest::newRow("encoded line break")
        << QByteArray("name=a; filename=\"x%0D%0Ay\"") << text("a") << text("x\r\ny");
    QTest::newRow("percent stays") << QByteArray("name=a; filename=\"100%25 %41\"") << text("a")
                                   << text("100%25 %41");
    QTest::newRow("extended name is not used")
        << QByteArray("name=a; filename*=utf-8''f") << text("a") << QString();
    QTest::newRow("semicolon at the end") << QByteArray("name=a;") << text("a") << QString();
}

void tst_NwaCgiMultipartFormDataReader::dispositionIsRead()
{
    QFETCH(QByteArray, parameters);
    QFETCH(QString, name);
    QFETCH(QString, fileName);
    Request request(QList<QByteArray>() << formWithDisposition(parameters), plainType);
    NwaCgiMultipartFormDataReader reader(&request);
    QString readName;
    QString readFileName;
    QString readType = text("before");
    QVERIFY2(reader.nextPart(readName, readFileName, readType), qPrintable(reader.errorString()));
    QCOMPARE(readName, name);
    QCOMPARE(readFileName, fileName);
    QCOMPARE(readFileName.isNull(), fileName.isNull());
    QVERIFY(readType.isNull());
}

void tst_NwaCgiMultipartFormDataReader::dataMayEndLikeADelimiter()
{
    const QByteArray delimiter = "\r\n--boundary";
    for (int length = 0; length < delimiter.size(); ++length) {
        const QByteArray data = "x" + delimiter.left(length);
        const QByteArray body =
            "--boundary\r\nContent-Disposition: form-data; name=a\r\n\r\n" + data + delimiter + "--\r\n";
        for (int split = 0; split <= body.size(); ++split) {
            const QList<QByteArray> pieces = QList<QByteArray>() << body.left(split) << body.mid(split);
            QCOMPARE(
                partsOf(pieces, "multipart/form-data; boundary=boundary"),
                QStringList() << text("a|-|-|") + QString::fromLatin1(data));
        }
    }
}

void tst_NwaCgiMultipartFormDataReader::nextPartSkipsTheRest()
{
    const QByteArray body = field("a", QByteArray(100000, 'x')) + field("b", "y") + field("c", "z") + "--b--\r\n";
    Request request(QList<QByteArray>() << body, plainType);
    NwaCgiMultipartFormDataReader reader(&request);
    QString name;
    QString fileName;
    QString type;
    QVERIFY(reader.nextPart(name, fileName, type));
    QCOMPARE(reader.readFromPart(3), QByteArray("xxx"));
    QStringList names;
    for (int attempt = 0; attempt < 10; ++attempt) {
        if (reader.nextPart(name, fileName, type))
            names << name;
    }
    QCOMPARE(names, QStringList() << text("b") << text("c"));
    QVERIFY(!reader.hasError());
}

void tst_NwaCgiMultipartFormDataReader::partCountIsLimited()
{
    QCOMPARE(int(NwaCgiMultipartFormDataReader::DefaultMaximumPartCount), 100);
    QByteArray body;
    for (int count = 0; count < 100; ++count)
        body += field("a", "");
    QCOMPARE(partsOf(body + "--b--\r\n").size(), 100);
    const QStringList tooMany = partsOf(body + field("a", "") + "--b--\r\n");
    QCOMPARE(tooMany.size(), 101);
    QCOMPARE(tooMany.last(), text("error: the form has too many parts"));

    Request request(QList<QByteArray>() << field("a", "") + field("c", "") + "--b--\r\n", plainType);
    NwaCgiMultipartFormDataReader reader(&request);
    reader.setMaximumPartCount(1);
    QCOMPARE(parts(reader, 10), QStringList() << text("a|-|-|") << text("error: the form has too many parts"));
}

void tst_NwaCgiMultipartFormDataReader::headerSizeIsLimited_data()
{
    QTest::addColumn<int>("limit");
    QTest::newRow("small") << 100;
    QTest::newRow("default") << int(NwaCgiMultipartFormDataReader::DefaultMaximumPartHeaderSize);
    QTest::newRow("large") << 100000;
}

void tst_NwaCgiMultipartFormDataReader::headerSizeIsLimited()
{
    QFETCH(int, limit);
    QCOMPARE(int(NwaCgiMultipartFormDataReader::DefaultMaximumPartHeaderSize), 8192);
    const QByteArray start = "Content-Disposition: form-data; name=a\r\nX: ";
    for (int excess = -1; excess <= 1; ++excess) {
        // The size counts the line end of the last line, but not the empty line.
        const QByteArray header = start + QByteArray(limit + excess - start.size() - 2, 'x');
        Request request(QList<QByteArray>() << formWithHeader(header), plainType);
        NwaCgiMultipartFormDataReader reader(&request);
        reader.setMaximumPartHeaderSize(limit);
        QCOMPARE(
            parts(reader, 10),
            QStringList() << (excess <= 0 ? text("a|-|-|x") : text("error: the header of a part is too long")));
    }

    Request endless(QList<QByteArray>() << "--b\r\nX: " + QByteArray(10 * limit, 'x'), plainType);
    NwaCgiMultipartFormDataReader reader(&endless);
    reader.setMaximumPartHeaderSize(limit);
    QCOMPARE(parts(reader, 10), QStringList() << text("error: the header of a part is too long"));
}

void tst_NwaCgiMultipartFormDataReader::stateIsReportedAtEachStep()
{
    const QByteArray body = field("a", "xy") + "--b--\r\n";
    const int split = body.indexOf("xy") + 1;
    Request request(
        QList<QByteArray>() << QByteArray("--") << body.mid(2, split - 2) << body.mid(split), plainType);
    NwaCgiMultipartFormDataReader reader(&request);
    QString name;
    QString fileName;
    QString type;
    QVERIFY(reader.atPartEnd());
    QVERIFY(!reader.isWaiting());
    QVERIFY(!reader.hasError());
    QVERIFY(reader.errorString().isNull());
    QCOMPARE(reader.readFromPart(10), QByteArray());

    QVERIFY(!reader.nextPart(name, fileName, type));
    QVERIFY(reader.isWaiting());
    QVERIFY(reader.nextPart(name, fileName, type));
    QVERIFY(!reader.isWaiting());
    QVERIFY(!reader.atPartEnd());
    QCOMPARE(reader.readFromPart(0), QByteArray());
    QVERIFY(!reader.atPartEnd());
    // Only the next piece shows whether a boundary follows the first byte.
    QByteArray data;
    int waits = 0;
    while (!reader.atPartEnd()) {
        data += reader.readFromPart(10);
        waits += reader.isWaiting();
    }
    QCOMPARE(data, QByteArray("xy"));
    QVERIFY(waits > 0);
    QCOMPARE(reader.readFromPart(10), QByteArray());
    QVERIFY(!reader.nextPart(name, fileName, type));
    QVERIFY(!reader.isWaiting());
    QVERIFY(!reader.hasError());
    QVERIFY(reader.atPartEnd());
    QVERIFY(!reader.nextPart(name, fileName, type));
}

void tst_NwaCgiMultipartFormDataReader::argumentsStayWithoutAPart()
{
    Request request(QList<QByteArray>() << QByteArray("--b--\r\n"), plainType);
    NwaCgiMultipartFormDataReader reader(&request);
    QString name = text("name");
    QString fileName = text("file");
    QString type = text("type");
    QVERIFY(!reader.nextPart(name, fileName, type));
    QCOMPARE(name, text("name"));
    QCOMPARE(fileName, text("file"));
    QCOMPARE(type, text("type"));
}

void tst_NwaCgiMultipartFormDataReader::largeHostileBodyIsReadInLinearTime_data()
{
    QTest::addColumn<QByteArray>("pattern");
    QTest::addColumn<bool>("isPreamble");
    const QByteArray nearlyTheDelimiter = "\r\n--" + QByteArray(69, 'b');
    const bool isPreamble[] = {false, true};
    for (int index = 0; index < 2; ++index) {
        const QByteArray place = isPreamble[index] ? " in the preamble" : " in a part";
        QTest::newRow("nearly the delimiter" + place) << nearlyTheDelimiter << isPreamble[index];
        QTest::newRow("carriage returns" + place) << QByteArray("\r") << isPreamble[index];
        QTest::newRow("line ends and hyphens" + place) << QByteArray("\r\n--") << isPreamble[index];
        QTest::newRow("boundary characters" + place) << QByteArray("b") << isPreamble[index];
    }
}

// 16 MiB take a fraction of a second; at a quadratic cost, the test would not finish.
void tst_NwaCgiMultipartFormDataReader::largeHostileBodyIsReadInLinearTime()
{
    QFETCH(QByteArray, pattern);
    QFETCH(bool, isPreamble);
    const QByteArray boundary(70, 'b');
    const QByteArray head =
        isPreamble ? QByteArray() : "--" + boundary + "\r\nContent-Disposition: form-data; name=a\r\n\r\n";
    const qint64 size = 16 * 1024 * 1024;
    // The pattern is written backwards, so it is reversed first.
    QByteArray reversed;
    for (int index = pattern.size(); index > 0; --index)
        reversed.append(pattern.at(index - 1));
    EndlessRequest request(head, reversed, size, "multipart/form-data; boundary=" + boundary);
    NwaCgiMultipartFormDataReader reader(&request);
    QString name;
    QString fileName;
    QString type;
    qint64 count = 0;
    if (reader.nextPart(name, fileName, type)) {
        while (!reader.hasError())
            count += reader.readFromPart(4096).size();
    }
    QCOMPARE(reader.errorString(), text("the form breaks off"));
    QVERIFY(isPreamble ? count == 0 : count > size - 100);
}

QTEST_APPLESS_MAIN(tst_NwaCgiMultipartFormDataReader)
#include "tst_nwacgimultipartformdatareader.moc"
