#include "TestFiles.h"
#include "service/config/ConsoleOutput.h"
#include "service/config/MessageHandler.h"

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

// Runs `body` with standard output sent to `fd`, and waits until what it logged has been written.
template <typename Body> void captureStdout(int fd, Body body)
{
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    ::dup2(fd, STDOUT_FILENO);
    ::close(fd);
    body();
    ConsoleOutput::drain(30000);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
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
        captureStdout(
            ::open(QFile::encodeName(capture).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600), [&] {
                std::unique_ptr<QThread> other(QThread::create([&] {
                    thread =
                        "0x" + QString::number(reinterpret_cast<quintptr>(QThread::currentThreadId()), 16);
                    log();
                }));
                worker ? other->start() : log();
                QVERIFY(!worker || other->wait(30000));
            });
        const QByteArray out = TestFiles::read(capture);
        const QString line = "^" + kTime + QRegularExpression::escape("@" + thread + "  " + tag + message);
        const QString written = QString::fromUtf8(TestFiles::read(loop ? loopLog : mainLog));
        QVERIFY2(QRegularExpression(line + "\r\n$").match(written).hasMatch(), qPrintable(written));
        QVERIFY(!QFile::exists(loop ? mainLog : loopLog));
        QVERIFY2(loop ? out.isEmpty() : QRegularExpression(line + "\n$").match(out).hasMatch(),
                 out.constData());
    }

    // Standard output a full pipe that nobody reads: every call returns at once. Once the reader
    // takes it all, the lines that came through and the count said to be left out add up to what
    // was logged, and the file has every line.
    void fullStandardOutput()
    {
        constexpr int kLines = 3000; // about 600 kB, more than may wait
        int fds[2];
        QVERIFY(::pipe2(fds, O_CLOEXEC) == 0 && ::fcntl(fds[1], F_SETPIPE_SZ, 4096) > 0);
        const QByteArray filler(::fcntl(fds[1], F_GETPIPE_SZ), '.');
        QCOMPARE(::write(fds[1], filler.constData(), size_t(filler.size())), ssize_t(filler.size()));
        QByteArray out;
        const QRegularExpression report(R"(\[ConsoleOutput\] (\d+) log lines were left out)");
        captureStdout(fds[1], [&] {
            const QtMessageHandler previous = qInstallMessageHandler(messageHandler);
            for (int i = 0; i < kLines; ++i) {
                qInfo().noquote() << "[Test] line" << i << QString(180, 'x');
            }
            ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
            char buffer[65536];
            for (int waited = 0; !report.match(out).hasMatch() && waited < 60000; waited += 10) {
                for (ssize_t n; (n = ::read(fds[0], buffer, sizeof(buffer))) > 0;) {
                    out.append(buffer, int(n));
                }
                QTest::qWait(10);
            }
            qInstallMessageHandler(previous);
        });
        ::close(fds[0]);
        const QRegularExpressionMatch match = report.match(out);
        QVERIFY2(match.hasMatch() && out.endsWith(" while it was full\n"), out.right(300).constData());
        const int through = out.count("[Test] line ");
        qInfo() << through << "lines came through," << match.captured(1) << "were left out";
        QVERIFY(through > 0 && through + match.captured(1).toInt() == kLines);
        QCOMPARE(TestFiles::read(mainLog).count("[Test] line "), kLines);
    }

    void loopLogLimit_data()
    {
        QTest::addColumn<qint64>("startBytes");
        QTest::addColumn<int>("written");
        QTest::newRow("empty") << qint64(0) << 3;
        QTest::newRow("room for one line") << MessageHandler::loopLogLimitBytes - 1000 << 1;
        QTest::newRow("at the limit") << MessageHandler::loopLogLimitBytes << 0;
    }
    // The loop log takes lines while they fit, then one line saying it stops, then nothing; the
    // main log goes on.
    void loopLogLimit()
    {
        QFETCH(qint64, startBytes);
        QFETCH(int, written);
        QFile file(loopLog);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(startBytes)); // sparse
        file.close();
        for (int i = 0; i < 3; ++i) {
            messageHandler(QtDebugMsg, QMessageLogContext(), "[[loop]][Test] " + QString(200, 'a' + i));
        }
        messageHandler(QtInfoMsg, QMessageLogContext(), "[Test] after");
        QVERIFY(file.open(QIODevice::ReadOnly) && file.seek(startBytes));
        QList<QByteArray> lines = file.readAll().split('\n');
        QCOMPARE(lines.takeLast(), QByteArray());
        QCOMPARE(lines.size(), qMin(written + 1, 3));
        for (int i = 0; i < written; ++i) {
            QVERIFY(lines.at(i).endsWith("[[loop]][Test] " + QByteArray(200, char('a' + i)) + '\r'));
        }
        QVERIFY(written == 3 || lines.last().contains("The loop log has reached its limit of 20 MB"));
        QVERIFY(TestFiles::read(mainLog).contains("[Test] after"));
    }
};

QTEST_GUILESS_MAIN(TestLogging)
#include "tst_Logging.moc"
