#include "MessageHandler.h"
#include "TestFiles.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {
const QString kTime = QStringLiteral(R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\])");

// Runs `body` with standard output sent to a file, and returns what was written to it.
template <typename Body> QByteArray captureStdout(const QString& capturePath, Body body)
{
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    const int fd = ::open(QFile::encodeName(capturePath).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, STDOUT_FILENO);
    ::close(fd);
    body();
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
    return TestFiles::read(capturePath);
}
} // namespace

class TestLogging : public QObject
{
    Q_OBJECT
    QTemporaryDir dir;
    const QString mainLog = dir.filePath("main.log");
    const QString loopLog = dir.filePath("loop_main.log");
    const QString capture = dir.filePath("stdout.txt");

private slots:
    void init()
    {
        QFile::remove(mainLog);
        QFile::remove(loopLog);
        MessageHandler::setLogPaths(mainLog, loopLog);
    }

    // One line per message in the file its marker chooses, the marker kept, tagged with the level
    // and the thread; only ordinary lines reach standard output too.
    void lineFormatAndRouting_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("tag");
        QTest::addColumn<bool>("loop");
        QTest::addColumn<bool>("worker");
        QTest::newRow("debug") << "[Test] a" << int(QtDebugMsg) << "[Debug]: " << false << false;
        QTest::newRow("warning") << "[Test] b" << int(QtWarningMsg) << "[Warning]: " << false << false;
        QTest::newRow("fatal") << "[Test] c" << int(QtFatalMsg) << "[Fatal]: " << false << false;
        QTest::newRow("outside the five") << "[Test] d" << 17 << "" << false << false;
        QTest::newRow("loop marker") << "[[loop]]x" << int(QtInfoMsg) << "[Info]: " << true << false;
        QTest::newRow("capitalised marker") << "[[Loop]]x" << int(QtInfoMsg) << "[Info]: " << false << false;
        QTest::newRow("marker later") << "x[[loop]]" << int(QtInfoMsg) << "[Info]: " << false << false;
        QTest::newRow("worker thread") << "[Worker] e" << int(QtWarningMsg) << "[Warning]: " << false << true;
        QTest::newRow("worker loop") << "[[loop]][Worker] f" << int(QtInfoMsg) << "[Info]: " << true << true;
    }
    void lineFormatAndRouting()
    {
        QFETCH(QString, message);
        QFETCH(int, type);
        QFETCH(QString, tag);
        QFETCH(bool, loop);
        QFETCH(bool, worker);
        // Through the handler itself: qFatal would end the test, and other values have no function.
        QString thread = "main";
        auto log = [&] { messageHandler(static_cast<QtMsgType>(type), QMessageLogContext(), message); };
        const QByteArray out = captureStdout(capture, [&] {
            std::unique_ptr<QThread> other(QThread::create([&] {
                thread = "0x" + QString::number(reinterpret_cast<quintptr>(QThread::currentThreadId()), 16);
                log();
            }));
            worker ? other->start() : log();
            QVERIFY(!worker || other->wait(30000));
        });
        const QString line = "^" + kTime + QRegularExpression::escape("@" + thread + "  " + tag + message);
        const QString written = QString::fromUtf8(TestFiles::read(loop ? loopLog : mainLog));
        QVERIFY2(QRegularExpression(line + "\r\n$").match(written).hasMatch(), qPrintable(written));
        QVERIFY(!QFile::exists(loop ? mainLog : loopLog));
        QVERIFY2(loop ? out.isEmpty() : QRegularExpression(line + "\n$").match(out).hasMatch(),
                 out.constData());
    }
};

QTEST_GUILESS_MAIN(TestLogging)
#include "tst_Logging.moc"
