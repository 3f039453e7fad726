// Opens a port without blocking, asks the device at its other end a question and prints the answer, one line.
//
//     nbase-example-serial-question <port> <question>

#include <nbase/serial/nserialport.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>
#include <QtCore/QTimer>

#include <stdio.h>

class Question : public QObject
{
    Q_OBJECT

public:
    Question(const QString& portName, const QByteArray& question)
        : m_port(portName, nullptr)
        , m_question(question + '\n')
    {
        connect(&m_port, SIGNAL(opened()), SLOT(ask()));
        connect(&m_port, SIGNAL(openingError()), SLOT(fail()));
        connect(&m_port, SIGNAL(readyRead()), SLOT(readAnswer()));
        connect(&m_port, SIGNAL(readChannelFinished()), SLOT(fail()));
        m_port.setBaudRate(NSerialPort::BaudRate115200);
        m_port.asyncOpen(QIODevice::ReadWrite, 5000);
    }

private slots:
    void ask()
    {
        // The driver of a port that has just been opened has room for some bytes. Longer data need a loop.
        if (m_port.write(m_question) == m_question.size())
            QTimer::singleShot(2000, this, SLOT(reportSilence()));
        else
            fail();
    }

    void readAnswer()
    {
        if (!m_port.canReadLine())
            return;
        printf("%s", m_port.readLine().constData());
        end(0);
    }

    void reportSilence()
    {
        fprintf(stderr, "there is no answer\n");
        end(1);
    }

    void fail()
    {
        fprintf(stderr, "%s\n", m_port.errorString().toLocal8Bit().constData());
        end(1);
    }

private:
    void end(int exitStatus)
    {
        m_port.close();
        QCoreApplication::exit(exitStatus);
    }

    NSerialPort m_port;
    QByteArray m_question;
};

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 3)
        return 2;
    Question question(arguments.at(1), arguments.at(2).toLocal8Bit());
    return application.exec();
}

#include "question.moc"
