#include "ConsoleOutput.h"
#include "MessageHandler.h"
#include "StartupSteps.h"
#include "TestFiles.h"

#include <QDir>
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
    ConsoleOutput::drain(30000);
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

    // Standard output a pipe that is full and not read: every call returns at once; what did not
    // fit is dropped, and once the reader takes it all, the lines that came through and the
    // count of those left out add up to what was logged.
    void fullStandardOutput()
    {
        constexpr int kLines = 3000; // about 600 kB, beyond what may wait
        int fds[2];
        QVERIFY(::pipe2(fds, O_CLOEXEC) == 0);
        QVERIFY(::fcntl(fds[1], F_SETPIPE_SZ, 4096) >= 0);
        const QByteArray filler(::fcntl(fds[1], F_GETPIPE_SZ), '.');
        QCOMPARE(::write(fds[1], filler.constData(), size_t(filler.size())), ssize_t(filler.size()));
        const int saved = ::dup(STDOUT_FILENO);
        ::dup2(fds[1], STDOUT_FILENO);
        ::close(fds[1]);
        const QtMessageHandler previous = qInstallMessageHandler(messageHandler);
        for (int i = 0; i < kLines; ++i) {
            qInfo().noquote() << "[Test] line" << i << QString(180, 'x');
        }
        const QString said = "log lines were left out of standard output while it was full";
        QByteArray out;
        ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
        char buffer[65536];
        for (int waited = 0; !out.contains(said.toUtf8()) && waited < 60000; waited += 10) {
            for (ssize_t n; (n = ::read(fds[0], buffer, sizeof(buffer))) > 0;) {
                out.append(buffer, int(n));
            }
            QTest::qWait(10);
        }
        ConsoleOutput::drain(30000);
        qInstallMessageHandler(previous);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        ::close(fds[0]);
        const QList<QByteArray> lines = out.mid(filler.size()).split('\n');
        const QRegularExpression report("\\[ConsoleOutput\\] (\\d+) " + said + "$");
        const QRegularExpressionMatch match = report.match(QString::fromUtf8(lines.value(lines.size() - 2)));
        QVERIFY2(match.hasMatch(), out.right(300).constData());
        int through = 0;
        int last = -1;
        for (const QByteArray& line : lines) {
            const int at = line.indexOf("[Test] line ");
            if (at >= 0) {
                const int index = line.mid(at + 12).split(' ').first().toInt();
                QVERIFY(index > last); // in order
                last = index;
                through += 1;
            }
        }
        qInfo() << through << "lines came through," << match.captured(1) << "were dropped";
        QVERIFY(through > 0 && through < kLines);
        QCOMPARE(through + match.captured(1).toInt(), kLines);
        QVERIFY(TestFiles::read(mainLog).contains(match.captured(0).toUtf8()));
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

    // The loop log takes lines while they fit under its limit, then one line saying it stops,
    // then nothing; the main log goes on.
    void loopLogLimit()
    {
        QFETCH(qint64, startBytes);
        QFETCH(int, written);
        QFile file(loopLog);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(startBytes));
        file.close();
        for (int i = 0; i < 3; ++i) {
            messageHandler(QtDebugMsg, QMessageLogContext(), "[[loop]][Test] " + QString(200, 'a' + i));
        }
        messageHandler(QtInfoMsg, QMessageLogContext(), "[Test] after");
        QVERIFY(file.open(QIODevice::ReadOnly) && file.seek(startBytes));
        const QList<QByteArray> lines = file.readAll().split('\n');
        QCOMPARE(lines.size() - 1, written + (written < 3 ? 1 : 0));
        for (int i = 0; i < written; ++i) {
            QVERIFY(lines.at(i).contains("[[loop]][Test] " + QByteArray(200, char('a' + i))));
        }
        QCOMPARE(lines.at(written).contains("The loop log has reached its limit of 20 MB"), written < 3);
        QVERIFY(file.size() <= qMax(startBytes, MessageHandler::loopLogLimitBytes) + 300);
        QVERIFY(TestFiles::read(mainLog).contains("[Test] after"));
    }

    void removeOldLogs_data()
    {
        QTest::addColumn<QStringList>("present");
        QTest::addColumn<int>("keepRuns");
        QTest::addColumn<QStringList>("removed");
        const auto stamp = [](int minute, int second = 0) {
            return QString("2024_01_01_00_%1_%2")
                .arg(minute, 2, 10, QChar('0'))
                .arg(second, 2, 10, QChar('0'));
        };
        QStringList pairs;
        for (int minute = 1; minute <= 5; ++minute) {
            pairs << stamp(minute) + ".log"
                  << "loop_" + stamp(minute, 1) + ".log";
        }
        const QStringList oldest{stamp(1) + ".log", "loop_" + stamp(1, 1) + ".log"};
        QTest::newRow("five runs and this one, keep six") << pairs << 6 << QStringList{};
        QTest::newRow("five runs and this one, keep five") << pairs << 5 << oldest;
        QTest::newRow("a loop log alone, other files")
            << (pairs + QStringList{"loop_" + stamp(0) + ".log", "notes.log", "2024_01.log"}) << 5
            << oldest + QStringList{"loop_" + stamp(0) + ".log"};
    }

    // Whole runs go, oldest first, this run counted before its files exist; a loop log goes with
    // the run it belongs to; files of other names stay.
    void removeOldLogs()
    {
        QFETCH(QStringList, present);
        QFETCH(int, keepRuns);
        QFETCH(QStringList, removed);
        QTemporaryDir logs;
        for (const QString& name : present) {
            QVERIFY(TestFiles::write(logs.filePath(name), "x"));
        }
        const QString current = logs.filePath("2024_01_01_00_09_00.log");
        QCOMPARE(StartupSteps::removeOldLogs(logs.path(), current, keepRuns), removed.size());
        QStringList left = present;
        for (const QString& name : removed) {
            left.removeOne(name);
        }
        left.sort();
        QCOMPARE(QDir(logs.path()).entryList(QDir::Files, QDir::Name), left);
    }
};

QTEST_GUILESS_MAIN(TestLogging)
#include "tst_Logging.moc"
