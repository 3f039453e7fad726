#include <nbase/core/nsyslog.h>

#include "support/ndocumentedloglines.h"
#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"
#include "support/nthreads.h"
#include "support/nwithoutfileoverride.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QMetaMethod>
#include <QtCore/QTextCodec>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

typedef NSysLog::LogLevels LogLevels;

namespace {

const char LogDirectory[] = "/dev/nbase-test-log";
const char LogSocketPath[] = "/dev/nbase-test-log/socket";

// The memory that logLines() may need besides its result, including what Qt allocates on first use.
const int MemoryKibibytes = 4 * 1024;

// Replaces "/dev/log" for the test, in a /dev of its own, so that the system's is not changed.
void provideSystemLog()
{
    NPrivateNamespace::mountEmptyDirectory(latin1("/run")); // for the daemons' own files
    NPrivateNamespace::mountEmptyDirectory(latin1(LogDirectory));
    ::umount2("/dev/log", MNT_DETACH | UMOUNT_NOFOLLOW);
    if ((::unlink("/dev/log") != 0 && errno != ENOENT) || ::symlink(LogSocketPath, "/dev/log") != 0)
        qFatal("cannot replace /dev/log: %s", strerror(errno));
}

// The receiving end of the system log, for the exact bytes that are sent, which a daemon would not show.
class LogSocket
{
public:
    LogSocket()
        : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_un address;
        memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, LogSocketPath);
        ::unlink(LogSocketPath);
        const struct timeval timeout = {30, 0};
        if (::bind(m_socket, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0 ||
            ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0)
            qFatal("cannot listen at %s: %s", LogSocketPath, strerror(errno));
    }

    ~LogSocket()
    {
        ::close(m_socket);
        ::unlink(LogSocketPath);
    }

    // The next record without its time: "<pri>identity: text".
    QByteArray receive()
    {
        QByteArray record(8192, '\0');
        const ssize_t size = ::recv(m_socket, record.data(), record.size(), 0);
        if (size < 0)
            return QByteArray("nothing was logged");
        record.truncate(int(size));
        const int timeSize = int(strlen("Jan  5 01:02:03 "));
        return record.remove(record.indexOf('>') + 1, timeSize);
    }

private:
    Q_DISABLE_COPY(LogSocket)

    int m_socket;
};

// A real syslog daemon that writes to its own file.
class LogDaemon
{
public:
    LogDaemon()
        : m_process(-1)
    {
    }

    ~LogDaemon()
    {
        if (m_process > 0) {
            ::kill(m_process, SIGTERM);
            ::waitpid(m_process, nullptr, 0);
        }
        ::unlink(LogSocketPath);
    }

    QString logFile() const { return m_directory.filePath(latin1("messages")); }

    bool start(const QByteArray& name)
    {
        QList<QByteArray> command = name == "rsyslogd" ? rsyslogCommand() : busyBoxCommand();
        QVector<char*> arguments;
        for (int index = 0; index < command.size(); ++index)
            arguments.append(command[index].data());
        arguments.append(nullptr);
        m_process = ::fork();
        if (m_process == 0) {
            ::execv(arguments.first(), arguments.data());
            ::_exit(127);
        }
        return NTest::waitUntil([]() { return QFileInfo(latin1(LogSocketPath)).exists(); });
    }

    // Waits for a line that ends in @a text and returns the log.
    QByteArray logUntil(const QByteArray& text) const
    {
        QByteArray log;
        NTest::waitUntil([&]() {
            QFile file(logFile());
            log = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
            return log.contains(text + '\n');
        });
        return log;
    }

private:
    Q_DISABLE_COPY(LogDaemon)

    QList<QByteArray> busyBoxCommand() const
    {
        return QList<QByteArray>() << "/bin/busybox"
                                   << "syslogd"
                                   << "-n"
                                   << "-O" << QFile::encodeName(logFile());
    }

    // The rules are those of the guide, so that the guide is tested.
    QList<QByteArray> rsyslogCommand() const
    {
        QFile guide(latin1(NBASE_LOGGING_GUIDE));
        if (!guide.open(QIODevice::ReadOnly))
            qFatal("the guide to logging is missing");
        const QByteArray text = guide.readAll();
        const QByteArray fence = "```rsyslog\n";
        const int begin = text.indexOf(fence) + fence.size();
        QByteArray rules = text.mid(begin, text.indexOf("```", begin) - begin);
        rules.replace("/var/log/messages", QFile::encodeName(logFile()));
        QByteArray input = "global(workDirectory=\"@\")\n";
        input.replace('@', QFile::encodeName(m_directory.path()));
        input += "module(load=\"imuxsock\" SysSock.Use=\"off\")\n";
        input += "input(type=\"imuxsock\" Socket=\"" + QByteArray(LogSocketPath) + "\")\n";
        const QString configuration = m_directory.writeFile(latin1("rsyslog.conf"), input + rules);
        return QList<QByteArray>() << "/usr/sbin/rsyslogd"
                                   << "-n"
                                   << "-f" << QFile::encodeName(configuration) << "-i"
                                   << QFile::encodeName(m_directory.filePath(latin1("pid")));
    }

    NTemporaryDirectory m_directory;
    pid_t m_process;
};

struct ChildResult
{
    int status; // from waitpid(2)
    QByteArray output;
};

pid_t startChild(const QList<QByteArray>& arguments, int output, const char* name = "tst_nsyslog")
{
    QList<QByteArray> all = arguments;
    all.prepend("--child");
    all.prepend(name);
    QVector<char*> pointers;
    for (int index = 0; index < all.size(); ++index)
        pointers.append(all[index].data());
    pointers.append(nullptr);
    const pid_t process = ::fork();
    if (process == 0) {
        const struct rlimit noCore = {0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        if (output >= 0)
            ::dup2(output, STDOUT_FILENO);
        ::execv("/proc/self/exe", pointers.data());
        ::_exit(127);
    }
    return process;
}

// Runs this program again, for tests that are possible only once in a process or terminate it.
ChildResult runChild(const QList<QByteArray>& arguments, const char* name = "tst_nsyslog")
{
    ChildResult result = {-1, QByteArray()};
    int ends[2];
    if (::pipe(ends) != 0)
        return result;
    const pid_t process = startChild(arguments, ends[1], name);
    ::close(ends[1]);
    char piece[4096];
    ssize_t size;
    while ((size = ::read(ends[0], piece, sizeof(piece))) > 0)
        result.output.append(piece, int(size));
    ::close(ends[0]);
    ::waitpid(process, &result.status, 0);
    return result;
}

bool succeeded(const ChildResult& result)
{
    return WIFEXITED(result.status) && WEXITSTATUS(result.status) == 0;
}

bool wasAborted(const ChildResult& result)
{
    return WIFSIGNALED(result.status) && WTERMSIG(result.status) == SIGABRT;
}

QList<QRegExp> programs(const char* first, const char* second = nullptr)
{
    QList<QRegExp> expressions;
    expressions << QRegExp(latin1(first));
    if (second)
        expressions << QRegExp(latin1(second));
    return expressions;
}

QList<QRegExp> anyProgram()
{
    return programs(".*");
}

QStringList
readBack(const QStringList& files, int level = NSysLog::Debug, const QList<QRegExp>& wanted = anyProgram())
{
    return NSysLog(0, LOG_USER, files, nullptr).logLines(LogLevels(level), wanted);
}

QStringList readBack(const QString& file, int level = NSysLog::Debug, const QList<QRegExp>& wanted = anyProgram())
{
    return readBack(QStringList(file), level, wanted);
}

// A file that is filled up to a size with NULs, as a sparse file, before its end is appended.
QString
writeSparseFile(const NTemporaryDirectory& directory, const QByteArray& begin, qint64 size, const QByteArray& end)
{
    const QString path = directory.writeFile(latin1("sparse"), begin);
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite) || !file.resize(size) || !file.seek(size) ||
        file.write(end) != end.size())
        qFatal("cannot enlarge a file: %s", qPrintable(file.errorString()));
    return path;
}

// The peak memory of this process.
int peakKibibytes()
{
    QFile status(latin1("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = status.readAll();
    const int begin = text.indexOf("VmHWM:") + 6;
    return text.mid(begin, text.indexOf("kB", begin) - begin).trimmed().toInt();
}

// ---- What the child processes do ----

void sendEveryQtMessage()
{
    // Qt 4 passes messages to the handler in the encoding of the locale.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    qDebug("a debug message");
    qWarning("a warning, 100%% certain, %s", "Gr\xc3\xbc\xc3\x9f Gott");
    qCritical("a critical message");
    qWarning("QWSLock::lock: invalid semaphore");
    qWarning("qwslock:: in small letters");
    qWarning(" QWSLock:: after a blank");
    qDebug("the last message");
}

void rewriteForEver(const char* path)
{
    QFile file(QFile::decodeName(path));
    const QByteArray line = "Jan  5 01:02:03 box user.info prog: always the same line\n";
    if (!file.open(QIODevice::ReadWrite))
        ::_exit(EXIT_FAILURE);
    forever {
        file.resize(0);
        file.seek(0);
        file.write(line.repeated(8000));
        file.flush();
    }
}

int reportMemory(char** arguments)
{
    const NSysLog log(0, LOG_USER, QStringList(QFile::decodeName(arguments[0])), nullptr);
    const QList<QRegExp> wanted = programs(arguments[1]);
    const int before = peakKibibytes();
    const QStringList lines = log.logLines(NSysLog::Debug, wanted);
    printf("%d lines, %d KiB", lines.size(), peakKibibytes() - before);
    return before > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int runAsChild(const QByteArray& task, char** arguments)
{
    if (task == "handler without NSysLog") {
        NSysLog::setAsQtMsgHandler();
        qWarning("no identity");
        return EXIT_SUCCESS;
    }
    if (task == "memory")
        return reportMemory(arguments);
    if (task == "rewrite")
        rewriteForEver(arguments[0]);

    NSysLog log(QString(), LOG_PID, LOG_LOCAL3, QStringList(), nullptr);
    NSysLog::setAsQtMsgHandler();
    if (task == "messages")
        sendEveryQtMessage();
    else if (task == "fatal")
        qFatal("a fatal message");
    else if (task == "fatal handler")
        NSysLogMsgHandler(QtFatalMsg, "fatal, called directly");
    else if (task == "identity")
        log.log(NSysLog::Notice, latin1("who am I"));
    else
        return EXIT_FAILURE;
    return EXIT_SUCCESS;
}

// ---- Lines that almost match ----

class LineMaker
{
public:
    explicit LineMaker(quint32 seed)
        : m_state(seed)
    {
    }

    int number(int end)
    {
        m_state = m_state * 1664525u + 1013904223u;
        return int((m_state >> 8) % quint32(end));
    }

    // A random line as a daemon writes it.
    QByteArray validLine()
    {
        static const char* const Programs[] = {"kernel", "dhcpd[311]", "sshd[1]", "", "a.b/c-d", "\xe9t\xe9"};
        static const char* const Texts[] = {"x", "no lease: none free", "\xfc", ": :", "a  b\tc", "100% %s"};
        static const char* const Days[] = {" 1", "05", "19", "31", "39", " 0"};
        static const char* const Hosts[] = {"box", "", "10.0.0.1", "fe80::1", "a:b"};
        QByteArray line = NSysLog::S_LOG_MONTHES_LABELS.at(number(12)).toLatin1();
        line += ' ' + QByteArray(Days[number(6)]) + " 0" + QByteArray::number(number(10)) + ":59:00 ";
        line += QByteArray(Hosts[number(5)]) + ' ';
        line += NSysLog::S_LOG_FACILITIES_LABELS.at(number(20)).toLatin1() + '.';
        line += NSysLog::S_LOG_LEVELS_LABELS.at(number(8)).toLatin1() + ' ';
        return line + Programs[number(6)] + ": " + Texts[number(6)];
    }

    QByteArray mutatedLine()
    {
        QByteArray line = validLine();
        for (int count = 1 + number(3); count > 0 && !line.isEmpty(); --count)
            mutate(line);
        return line.replace('\n', ' ');
    }

    QByteArray randomLine()
    {
        QByteArray line;
        for (int count = number(80); count > 0; --count)
            line += telling();
        return line.replace('\n', '\r');
    }

private:
    char telling()
    {
        static const char Bytes[] = " :.0123459JanFeberwk\t\r\v\f\x85\xa0\xff\x1c\x1f[]()|*\\";
        return number(8) == 0 ? char(number(256)) : Bytes[number(int(sizeof(Bytes)))]; // with its NUL
    }

    void mutate(QByteArray& line)
    {
        const int place = number(line.size());
        switch (number(7)) {
        case 0:
            line[place] = telling();
            break;
        case 1:
            line.insert(place, telling());
            break;
        case 2:
            line.remove(place, 1 + number(3));
            break;
        case 3:
            line.truncate(place);
            break;
        case 4:
            line.append(telling());
            break;
        case 5:
            line.prepend(telling());
            break;
        case 6:
            line.insert(place, line.mid(number(line.size()), number(8)));
            break;
        }
    }

    quint32 m_state;
};

} // namespace

class LogSignal : public QObject
{
    Q_OBJECT

public:
    void send(LogLevels level, const QString& line) { emit lineReady(level, line); }

signals:
    void lineReady(LogLevels level, const QString& line);
};

class tst_NSysLog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void labelsAreInOrder();
    void levelsAreTheSyslogPriorities();
    void logIsTheOnlyMethodOfTheMetaObject();

    void linesHaveLevelAndFacility_data();
    void linesHaveLevelAndFacility();
    void linesAreNotFormatStrings();
    void linesAreLatin1();
    void signalsCanBeConnectedToLog_data();
    void signalsCanBeConnectedToLog();
    void logCanBeInvokedFromAnotherThread();
    void threadsMayLogAndReadBackConcurrently();

    void identityIsUsedUnchanged_data();
    void identityIsUsedUnchanged();
    void nullIdentityIsTheFileNameOfTheProgram();
    void constructorWithoutIdentityUsesTheFileName();
    void optionsArePassedToOpenlog();
    void newestObjectAppliesToTheWholeProcess();
    void destructorLeavesTheConnectionOpen();
    void parentOwnsTheObject();

    void handlerMapsTypesToPriorities_data();
    void handlerMapsTypesToPriorities();
    void handlerIgnoresOtherTypes_data();
    void handlerIgnoresOtherTypes();
    void handlerDropsMessagesOfTheWindowSystem();
    void handlerAbortsAfterAFatalMessage_data();
    void handlerAbortsAfterAFatalMessage();
    void handlerWorksWithoutAnNSysLog();
    void qtMessagesReachTheLogUnchanged();

    void linesOfADaemonAreReadBack_data();
    void linesOfADaemonAreReadBack();

    void lineIsAccepted_data();
    void lineIsAccepted();
    void everyMonthFacilityAndLevelIsAccepted();
    void levelsUpToTheGivenOneAreAccepted_data();
    void levelsUpToTheGivenOneAreAccepted();
    void spaceAroundALineIsRemoved_data();
    void spaceAroundALineIsRemoved();
    void nulsAndLatin1StayInALine();
    void lastLineNeedsNoEnd();
    void programsAreMatchedExactly_data();
    void programsAreMatchedExactly();
    void withoutProgramsNothingIsRead();
    void lineIsAddedOnceForSeveralPrograms();
    void filesAreReadInTheirOrder();
    void fileListedTwiceIsReadTwice();
    void unreadableFilesAreSkipped();
    void everyCallReadsTheFilesAgain();
    void allFilesAreOpenedBeforeReadingAndClosedAtTheEnd();
    void fileMayBeTruncatedDuringReading();

    void resultAgreesWithTheDocumentedExpression_data();
    void resultAgreesWithTheDocumentedExpression();
    void lineMayExtendOverBlocks();
    void longLineIsReturnedCompletely();
    void programsUpToOneMebibyteAreAccepted_data();
    void programsUpToOneMebibyteAreAccepted();
    void unwantedLinesNeedNoMemory_data();
    void unwantedLinesNeedNoMemory();
};

void tst_NSysLog::initTestCase()
{
    provideSystemLog();
}

// The identity that syslog(3) points to was released with the test's NSysLog.
void tst_NSysLog::cleanup()
{
    ::closelog();
}

void tst_NSysLog::labelsAreInOrder()
{
    QCOMPARE(
        NSysLog::S_LOG_LEVELS_LABELS.join(latin1(",")), latin1("emerg,alert,crit,err,warn,notice,info,debug"));
    QCOMPARE(
        NSysLog::S_LOG_FACILITIES_LABELS.join(latin1(",")),
        latin1("kern,user,mail,daemon,auth,syslog,lpr,news,uucp,cron,authpriv,ftp,"
               "local0,local1,local2,local3,local4,local5,local6,local7"));
    QCOMPARE(
        NSysLog::S_LOG_MONTHES_LABELS.join(latin1(",")),
        latin1("Jan,Feb,Mar,Apr,May,Jun,Jul,Aug,Sep,Oct,Nov,Dec"));
}

void tst_NSysLog::levelsAreTheSyslogPriorities()
{
    QCOMPARE(int(NSysLog::Emergency), LOG_EMERG);
    QCOMPARE(int(NSysLog::Alert), LOG_ALERT);
    QCOMPARE(int(NSysLog::Critical), LOG_CRIT);
    QCOMPARE(int(NSysLog::Error), LOG_ERR);
    QCOMPARE(int(NSysLog::Warning), LOG_WARNING);
    QCOMPARE(int(NSysLog::Notice), LOG_NOTICE);
    QCOMPARE(int(NSysLog::Informational), LOG_INFO);
    QCOMPARE(int(NSysLog::Debug), LOG_DEBUG);
}

void tst_NSysLog::logIsTheOnlyMethodOfTheMetaObject()
{
    const QMetaObject& meta = NSysLog::staticMetaObject;
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
    const int index = meta.indexOfSlot("log(LogLevels,QString)");
    QCOMPARE(index, meta.methodOffset());
    const QMetaMethod method = meta.method(index);
    QCOMPARE(method.methodType(), QMetaMethod::Slot);
    QCOMPARE(method.access(), QMetaMethod::Public);
    QCOMPARE(
        method.parameterNames(), QList<QByteArray>() << "level"
                                                     << "line");
    QCOMPARE(latin1(meta.superClass()->className()), latin1("QObject"));
}

void tst_NSysLog::linesHaveLevelAndFacility_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("facility");
    QTest::addColumn<QByteArray>("record");
    for (int level = 0; level < 8; ++level) {
        QTest::newRow(qPrintable(NSysLog::S_LOG_LEVELS_LABELS.at(level)))
            << level << int(LOG_LOCAL3) << QByteArray("<" + QByteArray::number(19 * 8 + level) + ">me: a line");
    }
    QTest::newRow("daemon") << 3 << int(LOG_DAEMON) << QByteArray("<27>me: a line");
    QTest::newRow("user") << 6 << int(LOG_USER) << QByteArray("<14>me: a line");
}

void tst_NSysLog::linesHaveLevelAndFacility()
{
    QFETCH(int, level);
    QFETCH(int, facility);
    QFETCH(QByteArray, record);
    LogSocket socket;
    NSysLog log(latin1("me"), 0, facility, QStringList(), nullptr);
    log.log(LogLevels(level), latin1("a line"));
    QCOMPARE(socket.receive(), record);
}

void tst_NSysLog::linesAreNotFormatStrings()
{
    LogSocket socket;
    NSysLog log(latin1("me"), 0, LOG_USER, QStringList(), nullptr);
    log.log(NSysLog::Error, latin1("100%s %n %m"));
    QCOMPARE(socket.receive(), QByteArray("<11>me: 100%s %n %m"));
    NSysLogMsgHandler(QtCriticalMsg, "100%s %n %m");
    QCOMPARE(socket.receive(), QByteArray("<10>me: 100%s %n %m"));
}

void tst_NSysLog::linesAreLatin1()
{
    LogSocket socket;
    NSysLog log(latin1("me"), 0, LOG_USER, QStringList(), nullptr);
    log.log(NSysLog::Error, latin1("Gr\xfc\xdf ") + QChar(0x20ac));
    QCOMPARE(socket.receive(), QByteArray("<11>me: Gr\xfc\xdf ?"));
}

void tst_NSysLog::signalsCanBeConnectedToLog_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("direct") << int(Qt::DirectConnection);
    QTest::newRow("queued") << int(Qt::QueuedConnection);
}

void tst_NSysLog::signalsCanBeConnectedToLog()
{
    QFETCH(int, type);
    LogSocket socket;
    NSysLog log(latin1("me"), 0, LOG_USER, QStringList(), nullptr);
    LogSignal sender;
    const char* const ready = SIGNAL(lineReady(LogLevels,QString));
    const char* const logged = SLOT(log(LogLevels,QString));
    QVERIFY(connect(&sender, ready, &log, logged, Qt::ConnectionType(type)));
    sender.send(NSysLog::Alert, latin1("by signal"));
    QCoreApplication::processEvents();
    QCOMPARE(socket.receive(), QByteArray("<9>me: by signal"));
}

void tst_NSysLog::logCanBeInvokedFromAnotherThread()
{
    LogSocket socket;
    QThread thread;
    NSysLog log(latin1("me"), 0, LOG_USER, QStringList(), nullptr);
    log.moveToThread(&thread);
    thread.start();
    const bool invoked = QMetaObject::invokeMethod(
        &log, "log", Qt::QueuedConnection, Q_ARG(LogLevels, NSysLog::Notice), Q_ARG(QString, latin1("invoked")));
    const QByteArray record = invoked ? socket.receive() : QByteArray();
    thread.quit();
    thread.wait();
    QCOMPARE(record, QByteArray("<13>me: invoked"));
}

void tst_NSysLog::threadsMayLogAndReadBackConcurrently()
{
    const int writerCount = 4;
    const int lineCount = 50;
    LogSocket socket;
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(latin1("messages"), "Jan  5 01:02:03 box user.info prog: text\n");
    NSysLog log(latin1("me"), 0, LOG_USER, QStringList(file), nullptr);

    QSet<QByteArray> records;
    const auto write = [&log](int writer, int number) {
        const QByteArray text = QByteArray::number(writer) + ' ' + QByteArray::number(number);
        if (number % 2 == 0)
            log.log(NSysLog::Notice, latin1(text.constData()));
        else
            NSysLogMsgHandler(QtCriticalMsg, text.constData());
        return log.logLines(NSysLog::Debug, anyProgram()).size() == 1;
    };
    QVERIFY(NTest::holdsInThreads(writerCount + 1, [&](int index) {
        bool read = true;
        // The socket buffers only a few records, so one of the threads reads them meanwhile.
        for (int number = 0; number < lineCount; ++number) {
            if (index < writerCount)
                read = write(index, number) && read;
            else
                for (int writer = 0; writer < writerCount; ++writer)
                    records.insert(socket.receive());
        }
        return read;
    }));

    QSet<QByteArray> expected;
    for (int writer = 0; writer < writerCount; ++writer) {
        for (int number = 0; number < lineCount; ++number)
            expected.insert(
                (number % 2 == 0 ? "<13>me: " : "<10>me: ") + QByteArray::number(writer) + ' ' +
                QByteArray::number(number));
    }
    QVERIFY(records == expected);
}

void tst_NSysLog::identityIsUsedUnchanged_data()
{
    QTest::addColumn<QString>("identity");
    QTest::addColumn<QByteArray>("sent");
    QTest::newRow("a word") << latin1("device") << QByteArray("device");
    QTest::newRow("with a path") << latin1("/usr/bin/device") << QByteArray("/usr/bin/device");
    QTest::newRow("empty") << latin1("") << QByteArray("");
    QTest::newRow("Latin-1") << latin1("ger\xe4t") << QByteArray("ger\xe4t");
    QTest::newRow("beyond Latin-1") << QString(QChar(0x20ac)) << QByteArray("?");
    QTest::newRow("null") << QString() << QByteArray("tst_nsyslog");
}

void tst_NSysLog::identityIsUsedUnchanged()
{
    QFETCH(QString, identity);
    QFETCH(QByteArray, sent);
    LogSocket socket;
    NSysLog log(identity, 0, LOG_USER, QStringList(), nullptr);
    identity.fill(QLatin1Char('x'));
    log.log(NSysLog::Notice, latin1("text"));
    QCOMPARE(socket.receive(), QByteArray("<13>" + sent + ": text"));
}

// Not the name by which the program was started, which is the default of syslog(3).
void tst_NSysLog::nullIdentityIsTheFileNameOfTheProgram()
{
    LogSocket socket;
    QVERIFY(succeeded(runChild(QList<QByteArray>() << "identity", "/another/name")));
    const QByteArray record = socket.receive();
    QVERIFY2(record.startsWith("<157>tst_nsyslog["), record.constData());
}

void tst_NSysLog::constructorWithoutIdentityUsesTheFileName()
{
    LogSocket socket;
    NSysLog log(0, LOG_USER, QStringList(), nullptr);
    log.log(NSysLog::Notice, latin1("text"));
    QCOMPARE(socket.receive(), QByteArray("<13>tst_nsyslog: text"));
}

void tst_NSysLog::optionsArePassedToOpenlog()
{
    LogSocket socket;
    NSysLog log(latin1("me"), LOG_PID, LOG_USER, QStringList(), nullptr);
    log.log(NSysLog::Notice, latin1("text"));
    QCOMPARE(socket.receive(), QByteArray("<13>me[" + QByteArray::number(int(::getpid())) + "]: text"));
}

void tst_NSysLog::newestObjectAppliesToTheWholeProcess()
{
    LogSocket socket;
    NSysLog older(latin1("older"), 0, LOG_USER, QStringList(), nullptr);
    NSysLog newer(latin1("newer"), LOG_PID, LOG_DAEMON, QStringList(), nullptr);
    const QByteArray identity = "newer[" + QByteArray::number(int(::getpid())) + "]: ";
    older.log(NSysLog::Notice, latin1("by the older one"));
    QCOMPARE(socket.receive(), QByteArray("<29>" + identity + "by the older one"));
    NSysLogMsgHandler(QtWarningMsg, "by the handler");
    QCOMPARE(socket.receive(), QByteArray("<28>" + identity + "by the handler"));
}

void tst_NSysLog::destructorLeavesTheConnectionOpen()
{
    const QDir descriptors(latin1("/proc/self/fd"));
    LogSocket socket;
    const int before = descriptors.entryList(QDir::AllEntries | QDir::System).size();
    delete new NSysLog(latin1("me"), LOG_NDELAY, LOG_USER, QStringList(), nullptr);
    QCOMPARE(descriptors.entryList(QDir::AllEntries | QDir::System).size(), before + 1);
    ::closelog();
    QCOMPARE(descriptors.entryList(QDir::AllEntries | QDir::System).size(), before);
}

void tst_NSysLog::parentOwnsTheObject()
{
    QObject parent;
    QCOMPARE((new NSysLog(latin1("me"), 0, LOG_USER, QStringList(), &parent))->parent(), &parent);
    QCOMPARE((new NSysLog(0, LOG_USER, QStringList(), &parent))->parent(), &parent);
}

void tst_NSysLog::handlerMapsTypesToPriorities_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("record");
    QTest::newRow("debug") << int(QtDebugMsg) << QByteArray("<31>me: text");
    QTest::newRow("warning") << int(QtWarningMsg) << QByteArray("<28>me: text");
    QTest::newRow("critical") << int(QtCriticalMsg) << QByteArray("<26>me: text");
}

void tst_NSysLog::handlerMapsTypesToPriorities()
{
    QFETCH(int, type);
    QFETCH(QByteArray, record);
    LogSocket socket;
    NSysLog log(latin1("me"), 0, LOG_DAEMON, QStringList(), nullptr);
    NSysLogMsgHandler(QtMsgType(type), "text");
    QCOMPARE(socket.receive(), record);
}

void tst_NSysLog::handlerIgnoresOtherTypes_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("4, an information in Qt 5") << 4;
    QTest::newRow("5") << 5;
    QTest::newRow("largest") << INT_MAX;
    QTest::newRow("negative") << -1;
}

void tst_NSysLog::handlerIgnoresOtherTypes()
{
    QFETCH(int, type);
    LogSocket socket;
    NSysLog log(latin1("me"), 0, LOG_USER, QStringList(), nullptr);
    NSysLogMsgHandler(QtMsgType(type), "ignored");
    NSysLogMsgHandler(QtDebugMsg, "afterwards");
    QCOMPARE(socket.receive(), QByteArray("<15>me: afterwards"));
}

void tst_NSysLog::handlerDropsMessagesOfTheWindowSystem()
{
    LogSocket socket;
    NSysLog log(latin1("me"), 0, LOG_USER, QStringList(), nullptr);
    NSysLogMsgHandler(QtDebugMsg, "QWSLock::up(): Invalid argument");
    NSysLogMsgHandler(QtWarningMsg, "QWSLock::");
    NSysLogMsgHandler(QtCriticalMsg, "QWSLock::down(): Invalid argument");
    NSysLogMsgHandler(QtFatalMsg, "QWSLock::lock(): the process lives on");
    NSysLogMsgHandler(QtWarningMsg, "QWSLock:");
    QCOMPARE(socket.receive(), QByteArray("<12>me: QWSLock:"));
    NSysLogMsgHandler(QtWarningMsg, "qwslock::");
    QCOMPARE(socket.receive(), QByteArray("<12>me: qwslock::"));
    NSysLogMsgHandler(QtWarningMsg, "in QWSLock::up()");
    QCOMPARE(socket.receive(), QByteArray("<12>me: in QWSLock::up()"));
}

void tst_NSysLog::handlerAbortsAfterAFatalMessage_data()
{
    QTest::addColumn<QByteArray>("task");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("qFatal()") << QByteArray("fatal") << QByteArray("]: a fatal message");
    QTest::newRow("the handler itself") << QByteArray("fatal handler") << QByteArray("]: fatal, called directly");
}

void tst_NSysLog::handlerAbortsAfterAFatalMessage()
{
    QFETCH(QByteArray, task);
    QFETCH(QByteArray, text);
    LogSocket socket;
    QVERIFY(wasAborted(runChild(QList<QByteArray>() << task)));
    const QByteArray record = socket.receive();
    QVERIFY2(record.startsWith("<153>tst_nsyslog[") && record.endsWith(text), record.constData());
}

void tst_NSysLog::handlerWorksWithoutAnNSysLog()
{
    LogSocket socket;
    QVERIFY(succeeded(runChild(QList<QByteArray>() << "handler without NSysLog", "syslogs-own-choice")));
    QCOMPARE(socket.receive(), QByteArray("<12>syslogs-own-choice: no identity"));
}

void tst_NSysLog::qtMessagesReachTheLogUnchanged()
{
    LogSocket socket;
    QVERIFY(succeeded(runChild(QList<QByteArray>() << "messages")));
    QList<QByteArray> records;
    while (records.isEmpty() || (records.last() != "<159>the last message" && records.size() < 10)) {
        const QByteArray record = socket.receive();
        records << record.left(record.indexOf('>') + 1) + record.mid(record.indexOf("]: ") + 3);
    }
    QCOMPARE(
        records, QList<QByteArray>() << "<159>a debug message"
                                     << "<156>a warning, 100% certain, Gr\xc3\xbc\xc3\x9f Gott"
                                     << "<154>a critical message"
                                     << "<156>qwslock:: in small letters"
                                     << "<156> QWSLock:: after a blank"
                                     << "<159>the last message");
}

void tst_NSysLog::linesOfADaemonAreReadBack_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("rsyslogd with the guide's template") << QByteArray("rsyslogd");
    QTest::newRow("BusyBox's syslogd with its default") << QByteArray("busybox syslogd");
}

void tst_NSysLog::linesOfADaemonAreReadBack()
{
    QFETCH(QByteArray, name);
    LogDaemon daemon;
    QVERIFY(daemon.start(name));
    NSysLog log(latin1("device"), 0, LOG_LOCAL7, QStringList(daemon.logFile()), nullptr);
    for (int level = NSysLog::Emergency; level <= NSysLog::Debug; ++level)
        log.log(LogLevels(level), latin1("Gr\xfc\xdf of level ") + QString::number(level));
    QVERIFY(succeeded(runChild(QList<QByteArray>() << "messages")));
    QVERIFY(wasAborted(runChild(QList<QByteArray>() << "fatal")));
    const QByteArray written = daemon.logUntil("a fatal message");

    QRegExp timeAndHost(latin1("\\w{3} [ 123]\\d \\d{2}:\\d{2}:\\d{2} [^ ]+ "));
    QStringList lines = log.logLines(NSysLog::Debug, programs("device"));
    QVERIFY2(lines.size() == 8, written.constData());
    for (int level = NSysLog::Emergency; level <= NSysLog::Debug; ++level) {
        QCOMPARE(timeAndHost.indexIn(lines.at(level)), 0);
        QCOMPARE(
            lines.at(level).mid(timeAndHost.matchedLength()), latin1("local7.%1 device: Gr\xfc\xdf of level %2")
                                                                  .arg(NSysLog::S_LOG_LEVELS_LABELS.at(level))
                                                                  .arg(level));
        QCOMPARE(log.logLines(LogLevels(level), programs("device")), QStringList(lines.mid(0, level + 1)));
    }

    lines = log.logLines(NSysLog::Debug, programs("tst_nsyslog\\[\\d+\\]"));
    lines.replaceInStrings(timeAndHost, QString());
    lines.replaceInStrings(QRegExp(latin1("\\[\\d+\\]")), QString());
    QCOMPARE(
        lines, QStringList() << latin1("local3.debug tst_nsyslog: a debug message")
                             << latin1("local3.warn tst_nsyslog: a warning, 100% certain, "
                                       "Gr\xc3\xbc\xc3\x9f Gott")
                             << latin1("local3.crit tst_nsyslog: a critical message")
                             << latin1("local3.warn tst_nsyslog: qwslock:: in small letters")
                             << latin1("local3.warn tst_nsyslog:  QWSLock:: after a blank")
                             << latin1("local3.debug tst_nsyslog: the last message")
                             << latin1("local3.alert tst_nsyslog: a fatal message"));
}

void tst_NSysLog::lineIsAccepted_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<bool>("taken");
    QTest::newRow("usual") << QByteArray("Jan 15 01:02:03 box user.info prog: text") << true;
    QTest::newRow("day with a blank") << QByteArray("Jan  5 01:02:03 box user.info prog: text") << true;
    QTest::newRow("day with a zero") << QByteArray("Jan 05 01:02:03 box user.info prog: text") << true;
    QTest::newRow("day 39") << QByteArray("Jan 39 01:02:03 box user.info prog: text") << true;
    QTest::newRow("day 40") << QByteArray("Jan 40 01:02:03 box user.info prog: text") << false;
    QTest::newRow("day of one character") << QByteArray("Jan 5 01:02:03 box user.info prog: text") << false;
    QTest::newRow("day without digit") << QByteArray("Jan 1  01:02:03 box user.info prog: text") << false;
    QTest::newRow("hour 99") << QByteArray("Jan  5 99:99:99 box user.info prog: text") << true;
    QTest::newRow("hour of one digit") << QByteArray("Jan  5  1:02:03 box user.info prog: text") << false;
    QTest::newRow("superscript digit") << QByteArray("Jan  \xb2 01:02:03 box user.info prog: text") << false;
    QTest::newRow("fraction of a second") << QByteArray("Jan  5 01:02:03.5 box user.info prog: text") << false;
    QTest::newRow("lower-case month") << QByteArray("jan  5 01:02:03 box user.info prog: text") << false;
    QTest::newRow("unknown month") << QByteArray("Mai  5 01:02:03 box user.info prog: text") << false;
    QTest::newRow("no host") << QByteArray("Jan  5 01:02:03 user.info prog: text") << false;
    QTest::newRow("empty host") << QByteArray("Jan  5 01:02:03  user.info prog: text") << true;
    QTest::newRow("two blanks after the host") << QByteArray("Jan  5 01:02:03 box  user.info prog: text") << false;
    QTest::newRow("host with colons and tab") << QByteArray("Jan  5 01:02:03 fe80::1\t user.info prog: x") << true;
    QTest::newRow("facility not in the table") << QByteArray("Jan  5 01:02:03 box security.info prog: x") << false;
    QTest::newRow("truncated facility") << QByteArray("Jan  5 01:02:03 box use.info prog: text") << false;
    QTest::newRow("facility and more") << QByteArray("Jan  5 01:02:03 box authprivy.info prog: text") << false;
    QTest::newRow("auth") << QByteArray("Jan  5 01:02:03 box auth.info prog: text") << true;
    QTest::newRow("authpriv") << QByteArray("Jan  5 01:02:03 box authpriv.notice prog: text") << true;
    QTest::newRow("upper-case facility") << QByteArray("Jan  5 01:02:03 box User.info prog: text") << false;
    QTest::newRow("warning in full") << QByteArray("Jan  5 01:02:03 box user.warning prog: x") << false;
    QTest::newRow("error in full") << QByteArray("Jan  5 01:02:03 box user.error prog: x") << false;
    QTest::newRow("upper-case level") << QByteArray("Jan  5 01:02:03 box user.INFO prog: text") << false;
    QTest::newRow("no level") << QByteArray("Jan  5 01:02:03 box user. prog: text") << false;
    QTest::newRow("no dot") << QByteArray("Jan  5 01:02:03 box userinfo prog: text") << false;
    QTest::newRow("level before facility") << QByteArray("Jan  5 01:02:03 box info.user prog: text") << false;
    QTest::newRow("priority after program") << QByteArray("Jan  5 01:02:03 box prog: user.info text") << false;
    QTest::newRow("program and id") << QByteArray("Jan  5 01:02:03 box user.info prog[123]: text") << true;
    QTest::newRow("empty program") << QByteArray("Jan  5 01:02:03 box user.info : text") << true;
    QTest::newRow("program with a blank") << QByteArray("Jan  5 01:02:03 box user.info a prog: text") << false;
    QTest::newRow("no colon") << QByteArray("Jan  5 01:02:03 box user.info prog text") << false;
    QTest::newRow("no blank after colon") << QByteArray("Jan  5 01:02:03 box user.info prog:text") << false;
    QTest::newRow("tab after colon") << QByteArray("Jan  5 01:02:03 box user.info prog:\ttext") << false;
    QTest::newRow("empty text") << QByteArray("Jan  5 01:02:03 box user.info prog: ") << false;
    QTest::newRow("text of white space") << QByteArray("Jan  5 01:02:03 box user.info prog:  \t \xa0 ") << false;
    QTest::newRow("text of one character") << QByteArray("Jan  5 01:02:03 box user.info prog: x") << true;
    QTest::newRow("colons in the text") << QByteArray("Jan  5 01:02:03 box user.info prog: a: b: c") << true;
    QTest::newRow("something before") << QByteArray("<14>Jan  5 01:02:03 box user.info prog: text") << false;
    QTest::newRow("NULs before") << QByteArray("\0\0Jan  5 01:02:03 box user.info prog: text", 42) << false;
    QTest::newRow("empty") << QByteArray("") << false;
    QTest::newRow("blank") << QByteArray("   ") << false;
    QTest::newRow("truncated") << QByteArray("Jan  5 01:02:0") << false;
}

void tst_NSysLog::lineIsAccepted()
{
    QFETCH(QByteArray, line);
    QFETCH(bool, taken);
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(latin1("messages"), line + '\n');
    const QStringList expected(latin1(line.constData()));
    QCOMPARE(readBack(file), taken ? expected : QStringList());
    QCOMPARE(NDocumentedLogLines::read(file, NSysLog::Debug, anyProgram()), taken ? expected : QStringList());
}

void tst_NSysLog::everyMonthFacilityAndLevelIsAccepted()
{
    QByteArray content;
    for (const QString& month : NSysLog::S_LOG_MONTHES_LABELS) {
        for (const QString& facility : NSysLog::S_LOG_FACILITIES_LABELS) {
            for (const QString& level : NSysLog::S_LOG_LEVELS_LABELS)
                content += (month + latin1("  5 01:02:03 box ") + facility + QLatin1Char('.') + level).toLatin1() +
                           " prog: text\n";
        }
    }
    NTemporaryDirectory directory;
    const QStringList lines = readBack(directory.writeFile(latin1("messages"), content));
    QCOMPARE(lines.size(), 12 * 20 * 8);
    QCOMPARE(lines.join(latin1("\n")).toLatin1() + '\n', content);
}

void tst_NSysLog::levelsUpToTheGivenOneAreAccepted_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("texts");
    QTest::newRow("negative") << -1 << latin1("of no level");
    QTest::newRow("very negative") << INT_MIN << latin1("of no level");
    QTest::newRow("emergency") << 0 << latin1("emerg");
    QTest::newRow("alert") << 1 << latin1("emerg,alert");
    QTest::newRow("critical") << 2 << latin1("emerg,alert,crit");
    QTest::newRow("error") << 3 << latin1("emerg,alert,crit,err");
    QTest::newRow("warning") << 4 << latin1("emerg,alert,crit,err,warn");
    QTest::newRow("notice") << 5 << latin1("emerg,alert,crit,err,warn,notice");
    QTest::newRow("informational") << 6 << latin1("emerg,alert,crit,err,warn,notice,info");
    QTest::newRow("debug") << 7 << latin1("emerg,alert,crit,err,warn,notice,info,debug");
    QTest::newRow("beyond debug") << 8 << latin1("emerg,alert,crit,err,warn,notice,info,debug");
    QTest::newRow("largest") << INT_MAX << latin1("emerg,alert,crit,err,warn,notice,info,debug");
}

// With a negative level the documented expression ends its priority with "(?:)", which matches the empty text.
void tst_NSysLog::levelsUpToTheGivenOneAreAccepted()
{
    QFETCH(int, level);
    QFETCH(QString, texts);
    QByteArray content = "Jan  5 01:02:03 box user. prog: of no level\n";
    for (const QString& label : NSysLog::S_LOG_LEVELS_LABELS)
        content += "Jan  5 01:02:03 box user." + label.toLatin1() + " prog: " + label.toLatin1() + '\n';
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(latin1("messages"), content);
    QStringList lines = readBack(file, level);
    lines.replaceInStrings(QRegExp(latin1(".*: ")), QString());
    QCOMPARE(lines.join(latin1(",")), texts);
}

void tst_NSysLog::spaceAroundALineIsRemoved_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::newRow("line break of another system") << QByteArray() << QByteArray("\r");
    QTest::newRow("blanks") << QByteArray("  ") << QByteArray("   ");
    QTest::newRow("tabs and feeds") << QByteArray("\t\v\f") << QByteArray("\t\v\f");
    QTest::newRow("no-break space") << QByteArray("\xa0") << QByteArray("\xa0");
}

void tst_NSysLog::spaceAroundALineIsRemoved()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    NTemporaryDirectory directory;
    const QByteArray line = "Jan  5 01:02:03 box user.info prog: text";
    const QString file = directory.writeFile(latin1("messages"), before + line + after + "\n\n" + line + after);
    QCOMPARE(readBack(file), QStringList() << latin1(line.constData()) << latin1(line.constData()));
}

void tst_NSysLog::nulsAndLatin1StayInALine()
{
    const char bytes[] = "Jan  5 01:02:03 box user.info prog: \0Gr\xfc\xdf\0 \x85.";
    const int size = int(sizeof(bytes) - 1);
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(latin1("messages"), QByteArray(bytes, size) + '\n');
    QCOMPARE(readBack(file), QStringList(QString::fromLatin1(bytes, size)));
}

void tst_NSysLog::lastLineNeedsNoEnd()
{
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(
        latin1("messages"), "Jan  5 01:02:03 box user.info prog: first\nJan  5 01:02:03 box user.info prog: last");
    QCOMPARE(
        readBack(file), QStringList() << latin1("Jan  5 01:02:03 box user.info prog: first")
                                      << latin1("Jan  5 01:02:03 box user.info prog: last"));
}

void tst_NSysLog::programsAreMatchedExactly_data()
{
    QTest::addColumn<QString>("expression");
    QTest::addColumn<QString>("texts");
    QTest::newRow("without its id") << latin1("prog") << latin1("1");
    QTest::newRow("with its id") << latin1("prog\\[\\d+\\]") << latin1("2,4");
    QTest::newRow("with or without") << latin1("prog(\\[\\d+\\])?") << latin1("1,2,4");
    QTest::newRow("part of the name") << latin1("pro") << QString();
    QTest::newRow("empty") << QString() << latin1("5");
    QTest::newRow("any") << latin1(".*") << latin1("1,2,3,4,5");
    QTest::newRow("invalid") << latin1("(") << QString();
}

void tst_NSysLog::programsAreMatchedExactly()
{
    QFETCH(QString, expression);
    QFETCH(QString, texts);
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(
        latin1("messages"), "Jan  5 01:02:03 box user.info prog: 1\n"
                            "Jan  5 01:02:03 box user.info prog[12]: 2\n"
                            "Jan  5 01:02:03 box user.info program: 3\n"
                            "Jan  5 01:02:03 box user.info prog[12]: 4\n"
                            "Jan  5 01:02:03 box user.info : 5\n");
    QStringList lines = readBack(file, NSysLog::Debug, QList<QRegExp>() << QRegExp(expression));
    lines.replaceInStrings(QRegExp(latin1(".*: ")), QString());
    QCOMPARE(lines.join(latin1(",")), texts);
}

void tst_NSysLog::withoutProgramsNothingIsRead()
{
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(latin1("messages"), "Jan  5 01:02:03 box user.info prog: text\n");
    QCOMPARE(readBack(file, NSysLog::Debug, QList<QRegExp>()), QStringList());
}

void tst_NSysLog::lineIsAddedOnceForSeveralPrograms()
{
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(
        latin1("messages"),
        "Jan  5 01:02:03 box user.info prog: text\nJan  5 01:02:03 box user.info other: text\n");
    QCOMPARE(
        readBack(file, NSysLog::Debug, programs("prog", "p.*")),
        QStringList(latin1("Jan  5 01:02:03 box user.info prog: text")));
    QCOMPARE(readBack(file, NSysLog::Debug, programs("other", "p.*")).size(), 2);
}

void tst_NSysLog::filesAreReadInTheirOrder()
{
    NTemporaryDirectory directory;
    const QString newer = directory.writeFile(
        latin1("a"), "Jan  5 01:02:03 box user.info prog: 3\nJan  5 01:02:03 box user.info prog: 2\n");
    const QString older = directory.writeFile(latin1("b"), "Jan  4 01:02:03 box user.info prog: 1");
    QCOMPARE(
        readBack(QStringList() << older << newer), QStringList()
                                                       << latin1("Jan  4 01:02:03 box user.info prog: 1")
                                                       << latin1("Jan  5 01:02:03 box user.info prog: 3")
                                                       << latin1("Jan  5 01:02:03 box user.info prog: 2"));
}

void tst_NSysLog::fileListedTwiceIsReadTwice()
{
    NTemporaryDirectory directory;
    const QString line = latin1("Jan  5 01:02:03 box user.info prog: text");
    const QString file = directory.writeFile(latin1("messages"), line.toLatin1() + '\n');
    QCOMPARE(readBack(QStringList() << file << file), QStringList() << line << line);
}

void tst_NSysLog::unreadableFilesAreSkipped()
{
    NTemporaryDirectory directory;
    const QString line = latin1("Jan  5 01:02:03 box user.info prog: text");
    const QString file = directory.writeFile(latin1("messages"), line.toLatin1() + '\n');
    const QString unreadable = directory.writeFile(latin1("unreadable"), line.toLatin1() + '\n');
    const QString pipe = directory.filePath(latin1("pipe"));
    QVERIFY(QFile::setPermissions(unreadable, QFile::Permissions()));
    QVERIFY(::mkfifo(QFile::encodeName(pipe).constData(), 0600) == 0);
    QVERIFY(::symlink("nowhere", QFile::encodeName(directory.filePath(latin1("dangling"))).constData()) == 0);
    const NWithoutFileOverride permissionsCount;
    QCOMPARE(
        readBack(
            QStringList() << directory.filePath(latin1("missing")) << QString() << unreadable << directory.path()
                          << pipe << directory.filePath(latin1("dangling")) << latin1("/dev/zero")
                          << directory.writeFile(latin1("empty"), QByteArray()) << file),
        QStringList(line));
}

void tst_NSysLog::everyCallReadsTheFilesAgain()
{
    NTemporaryDirectory directory;
    const NSysLog log(latin1("me"), 0, LOG_USER, QStringList(directory.filePath(latin1("messages"))), nullptr);
    QCOMPARE(log.logLines(NSysLog::Debug, anyProgram()), QStringList());
    directory.writeFile(latin1("messages"), "Jan  5 01:02:03 box user.info prog: text\n");
    QCOMPARE(log.logLines(NSysLog::Debug, anyProgram()).size(), 1);
    QCOMPARE(log.logLines(NSysLog::Debug, anyProgram()).size(), 1);
}

// Otherwise a rotation between the two would lose the lines that move from one file to the other.
void tst_NSysLog::allFilesAreOpenedBeforeReadingAndClosedAtTheEnd()
{
    NTemporaryDirectory directory;
    const QByteArray line = "Jan  5 01:02:03 box user.info prog: text\n";
    const QString first = directory.writeFile(latin1("1"), line);
    const QString second = directory.writeFile(latin1("2"), line);
    const int watcher = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const quint32 interesting = IN_OPEN | IN_ACCESS | IN_CLOSE_NOWRITE;
    QCOMPARE(::inotify_add_watch(watcher, QFile::encodeName(first).constData(), interesting), 1);
    QCOMPARE(::inotify_add_watch(watcher, QFile::encodeName(second).constData(), interesting), 2);

    QCOMPARE(readBack(QStringList() << first << second).size(), 2);

    QByteArray order;
    struct inotify_event events[64];
    const ssize_t size = ::read(watcher, events, sizeof(events));
    ::close(watcher);
    for (int index = 0; index < int(size / ssize_t(sizeof(events[0]))); ++index) {
        const char what = events[index].mask & IN_OPEN ? 'o' : events[index].mask & IN_ACCESS ? 'r' : 'c';
        order += QByteArray(1, what) + QByteArray::number(events[index].wd) + ' ';
    }
    QVERIFY2(order.startsWith("o1 o2 r1 "), order.constData());
    QVERIFY2(order.contains("r2 ") && order.contains("c1 ") && order.contains("c2 "), order.constData());
}

void tst_NSysLog::fileMayBeTruncatedDuringReading()
{
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(latin1("messages"), QByteArray());
    const QString line = latin1("Jan  5 01:02:03 box user.info prog: always the same line");
    const pid_t writer = startChild(QList<QByteArray>() << "rewrite" << QFile::encodeName(file), -1);
    const bool started = NTest::waitUntil([&]() { return QFileInfo(file).size() > 0; });
    QString wrong;
    for (int count = 0; count < 100 && wrong.isEmpty(); ++count) {
        // The last line may be incomplete.
        for (const QString& found : readBack(file)) {
            if (!line.startsWith(found))
                wrong = found;
        }
    }
    ::kill(writer, SIGKILL);
    ::waitpid(writer, nullptr, 0);
    QVERIFY(started);
    QCOMPARE(wrong, QString());
}

void tst_NSysLog::resultAgreesWithTheDocumentedExpression_data()
{
    QTest::addColumn<int>("level");
    QTest::newRow("negative") << -1;
    for (const QString& label : NSysLog::S_LOG_LEVELS_LABELS)
        QTest::newRow(qPrintable(label)) << NSysLog::S_LOG_LEVELS_LABELS.indexOf(label);
}

void tst_NSysLog::resultAgreesWithTheDocumentedExpression()
{
    QFETCH(int, level);
    LineMaker maker(quint32(level + 2));
    QByteArray content;
    for (int count = 0; count < 8000; ++count)
        content += maker.validLine() + '\n' + maker.mutatedLine() + '\n' + maker.mutatedLine() + '\n' +
                   maker.randomLine() + '\n';
    NTemporaryDirectory directory;
    const QString file = directory.writeFile(latin1("messages"), content);
    const QList<QRegExp> wanted = programs("[^s].*|", "dhcpd\\[\\d+\\]");
    const QStringList expected = NDocumentedLogLines::read(file, level, wanted);
    QVERIFY(level < 0 || expected.size() > 1000);
    QCOMPARE(readBack(file, level, wanted), expected);
}

// Whatever the positions at which lines are split when a file is read in pieces.
void tst_NSysLog::lineMayExtendOverBlocks()
{
    NTemporaryDirectory directory;
    const QByteArray line = "  Jan  5 01:02:03 box authpriv.notice prog[1]: text \t\r\n";
    const QStringList expected(latin1(line.constData()).trimmed());
    for (int blockSize = 4096; blockSize <= 256 * 1024; blockSize *= 4) {
        for (int before = -1; before <= line.size() + 1; ++before) {
            const QByteArray content =
                QByteArray(blockSize - before - 1, 'x') + '\n' + line + QByteArray(5000, 'y');
            QCOMPARE(readBack(directory.writeFile(latin1("messages"), content)), expected);
            QCOMPARE(
                readBack(
                    directory.writeFile(latin1("messages"), content.left(blockSize - before) + line.trimmed())),
                expected);
        }
    }
}

void tst_NSysLog::longLineIsReturnedCompletely()
{
    NTemporaryDirectory directory;
    QByteArray text;
    for (int number = 0; number < 500000; ++number)
        text += QByteArray::number(number) + ' ';
    const QByteArray line = "Jan  5 01:02:03 box user.info prog: " + text.trimmed();
    const QByteArray shortLine = "Jan  5 01:02:03 box user.info prog: short";
    const QString file = directory.writeFile(
        latin1("messages"), "\t" + line + "  \n" + shortLine + '\n' + QByteArray(300000, ' ') + line);
    const QStringList lines = readBack(file);
    QCOMPARE(lines.size(), 3);
    QVERIFY(lines.at(0) == latin1(line.constData()));
    QCOMPARE(lines.at(1), latin1(shortLine.constData()));
    QVERIFY(lines.at(2) == latin1(line.constData()));
}

void tst_NSysLog::programsUpToOneMebibyteAreAccepted_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("isTaken");
    QTest::newRow("longer than a cached name") << 65 << true;
    QTest::newRow("1 MiB") << 1024 * 1024 << true;
    QTest::newRow("longer than 1 MiB") << 1024 * 1024 + 1 << false;
}

void tst_NSysLog::programsUpToOneMebibyteAreAccepted()
{
    QFETCH(int, size);
    QFETCH(bool, isTaken);
    const QByteArray line = "Jan  5 01:02:03 box user.info " + QByteArray(size, 'p') + ": text";
    NTemporaryDirectory directory;
    const QStringList lines =
        readBack(directory.writeFile(latin1("messages"), line), NSysLog::Debug, programs("p*"));
    QVERIFY(lines == (isTaken ? QStringList(latin1(line.constData())) : QStringList()));
}

// A file system may leave NULs at the end of a log after a power loss.
void tst_NSysLog::unwantedLinesNeedNoMemory_data()
{
    QTest::addColumn<QByteArray>("begin");
    QTest::addColumn<QByteArray>("end");
    const QByteArray nothing;
    QTest::newRow("only NULs") << QByteArray("\n") << nothing;
    QTest::newRow("endless host") << QByteArray("Jan  5 01:02:03 ") << nothing;
    QTest::newRow("endless facility") << QByteArray("Jan  5 01:02:03 box user") << nothing;
    QTest::newRow("endless program") << QByteArray("Jan  5 01:02:03 box user.info prog") << nothing;
    QTest::newRow("long program") << QByteArray("Jan  5 01:02:03 box user.info prog") << QByteArray(": text\n");
    QTest::newRow("text of another program") << QByteArray("Jan  5 01:02:03 box user.info other: ") << nothing;
    QTest::newRow("blanks before") << QByteArray(30 * 1024 * 1024, ' ') << nothing;
    QTest::newRow("many short lines") << QByteArray("Jan  5 01:02:03 box user.info other: x\n").repeated(500000)
                                      << nothing;
}

void tst_NSysLog::unwantedLinesNeedNoMemory()
{
    QFETCH(QByteArray, begin);
    QFETCH(QByteArray, end);
    NTemporaryDirectory directory;
    const QString file = writeSparseFile(directory, begin, 100 * 1024 * 1024, end);
    const ChildResult result = runChild(QList<QByteArray>() << "memory" << QFile::encodeName(file) << "prog.*");
    QVERIFY(succeeded(result));
    const QByteArray expected = "0 lines, ";
    QVERIFY2(result.output.startsWith(expected), result.output.constData());
    const int grown = result.output.mid(expected.size()).replace(" KiB", "").toInt();
    QVERIFY2(grown < MemoryKibibytes, result.output.constData());
}

int main(int argc, char** argv)
{
    if (argc > 2 && qstrcmp(argv[1], "--child") == 0)
        return runAsChild(argv[2], argv + 3);
    NPrivateNamespace::enter(NPrivateNamespace::Mounts);
    QCoreApplication application(argc, argv);
    tst_NSysLog test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_nsyslog.moc"
