#include "MessageHandler.h"
#include "TestFiles.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

using TestFiles::read;

// Runs `body` with standard output sent to a file, and returns what was written to it.
template <typename Body> QByteArray captureStdout(const QString& capturePath, Body body)
{
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    const int fd = ::open(QFile::encodeName(capturePath).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (saved < 0 || fd < 0) {
        return QByteArray("capture failed");
    }
    ::dup2(fd, STDOUT_FILENO);
    ::close(fd);
    body();
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
    return read(capturePath);
}

const QString kTime = QStringLiteral(R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\])");

} // namespace

class TestLogging : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(dir.isValid());
        QFile::remove(dir.filePath("main.log"));
        QFile::remove(dir.filePath("loop_main.log"));
        mainLog = dir.filePath("main.log");
        loopLog = dir.filePath("loop_main.log");
        capture = dir.filePath("stdout.txt");
        MessageHandler::setLogPaths(mainLog, loopLog);
    }

    void cleanup()
    {
        if (previous) {
            qInstallMessageHandler(previous);
            previous = nullptr;
        }
    }

    void lineFormat_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("tag");

        QTest::newRow("debug") << int(QtDebugMsg) << "[Debug]: ";
        QTest::newRow("warning") << int(QtWarningMsg) << "[Warning]: ";
        QTest::newRow("fatal") << int(QtFatalMsg) << "[Fatal]: ";
        QTest::newRow("outside the five") << 17 << "";
    }

    void lineFormat()
    {
        QFETCH(int, type);
        QFETCH(QString, tag);

        const QString message = QStringLiteral("[TestLogging] hello %1").arg(type);
        // Through the handler itself: qFatal would end the test, and other values have no function.
        const QByteArray out = captureStdout(
            capture, [&]() { messageHandler(static_cast<QtMsgType>(type), QMessageLogContext(), message); });

        const QString expectedTag = QRegularExpression::escape("@main  " + tag);
        const QRegularExpression fileLine("^" + kTime + expectedTag + QRegularExpression::escape(message) +
                                          "\r\n$");
        const QRegularExpression outLine("^" + kTime + expectedTag + QRegularExpression::escape(message) +
                                         "\n$");
        const QString file = QString::fromUtf8(read(mainLog));
        QVERIFY2(fileLine.match(file).hasMatch(), qPrintable(file));
        QVERIFY2(outLine.match(QString::fromUtf8(out)).hasMatch(), out.constData());
        QVERIFY(!QFile::exists(loopLog));
    }

    void loopRouting_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("loop");

        QTest::newRow("marker") << "[[loop]]x" << true;
        QTest::newRow("capitalised") << "[[Loop]]x" << false;
        QTest::newRow("marker later") << "x[[loop]]" << false;
    }

    void loopRouting()
    {
        QFETCH(QString, message);
        QFETCH(bool, loop);

        const QByteArray out = captureStdout(capture, [&]() {
            previous = qInstallMessageHandler(messageHandler);
            qInfo().noquote() << message;
            qInstallMessageHandler(previous);
            previous = nullptr;
        });

        const QString target = loop ? loopLog : mainLog;
        const QString other = loop ? mainLog : loopLog;
        const QRegularExpression line("^" + kTime + QRegularExpression::escape("@main  [Info]: " + message) +
                                      "\r\n$");
        const QString written = QString::fromUtf8(read(target));
        QVERIFY2(line.match(written).hasMatch(), qPrintable(written)); // the marker stays in the line
        QVERIFY(!QFile::exists(other));
        if (loop) {
            QVERIFY2(out.isEmpty(), out.constData());
        } else {
            QVERIFY(out.endsWith(message.toUtf8() + "\n"));
        }
    }

    void threadTag()
    {
        quintptr workerId = 0;
        QThread* worker = QThread::create([&]() {
            workerId = reinterpret_cast<quintptr>(QThread::currentThreadId());
            messageHandler(QtWarningMsg, QMessageLogContext(), QStringLiteral("[Worker] from a thread"));
            messageHandler(QtInfoMsg, QMessageLogContext(), QStringLiteral("[[loop]][Worker] stats"));
        });
        captureStdout(capture, [&]() {
            worker->start();
            QVERIFY(worker->wait(30000));
            messageHandler(QtInfoMsg, QMessageLogContext(), QStringLiteral("[Main] from main"));
        });
        delete worker;

        const QString tag = "@0x" + QString::number(workerId, 16) + "  ";
        const QStringList lines = QString::fromUtf8(read(mainLog)).split("\r\n", Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        QVERIFY2(QRegularExpression("^" + kTime +
                                    QRegularExpression::escape(tag + "[Warning]: [Worker] from a thread") +
                                    "$")
                     .match(lines.at(0))
                     .hasMatch(),
                 qPrintable(lines.at(0)));
        QVERIFY2(QRegularExpression("^" + kTime +
                                    QRegularExpression::escape("@main  [Info]: [Main] from main") + "$")
                     .match(lines.at(1))
                     .hasMatch(),
                 qPrintable(lines.at(1)));
        const QString loopLines = QString::fromUtf8(read(loopLog));
        QVERIFY2(loopLines.contains(tag + "[Info]: [[loop]][Worker] stats\r\n"), qPrintable(loopLines));
    }

    void heldMutexDropsTheFileLine()
    {
        QMutex& mutex = MessageHandler::logMutex();
        mutex.lock();
        QElapsedTimer waited;
        const QByteArray out = captureStdout(capture, [&]() {
            waited.start();
            messageHandler(QtInfoMsg, QMessageLogContext(), QStringLiteral("[Test] dropped from the file"));
        });
        const qint64 elapsed = waited.elapsed();
        mutex.unlock();
        // It waited for the lock before giving up, and the console still has the line.
        QVERIFY2(elapsed >= MessageHandler::lockTimeoutMs - 5, qPrintable(QString::number(elapsed)));
        QVERIFY(out.contains("[Test] dropped from the file"));
        QVERIFY(!QFile::exists(mainLog));

        messageHandler(QtInfoMsg, QMessageLogContext(), QStringLiteral("[Test] written again"));
        QVERIFY(read(mainLog).contains("[Test] written again\r\n"));
    }

    void manyThreadsWriteWholeLines()
    {
        const int threads = 4;
        const int perThread = 200;
        QList<QThread*> workers;
        for (int t = 0; t < threads; ++t) {
            workers << QThread::create([t]() {
                for (int i = 0; i < perThread; ++i) {
                    const QString text = QStringLiteral("[Worker] thread %1 line %2").arg(t).arg(i);
                    messageHandler(QtDebugMsg, QMessageLogContext(), i % 2 ? "[[loop]]" + text : text);
                }
            });
        }
        captureStdout(capture, [&]() {
            for (QThread* w : qAsConst(workers)) {
                w->start();
            }
            for (QThread* w : qAsConst(workers)) {
                QVERIFY(w->wait(60000));
            }
        });
        qDeleteAll(workers);

        const QRegularExpression line(
            "^" + kTime + R"(@0x[0-9a-f]+  \[Debug\]: (\[\[loop\]\])?\[Worker\] thread \d line \d+$)");
        int total = 0;
        for (const QString& path : {mainLog, loopLog}) {
            const QStringList lines = QString::fromUtf8(read(path)).split("\r\n", Qt::SkipEmptyParts);
            for (const QString& l : lines) {
                QVERIFY2(line.match(l).hasMatch(), qPrintable(l));
                QCOMPARE(l.contains("[[loop]]"), path == loopLog);
            }
            total += lines.size();
        }
        // Lines may be dropped under contention, never more than were sent.
        QVERIFY(total > 0);
        QVERIFY(total <= threads * perThread);
    }

private:
    QTemporaryDir dir;
    QString mainLog;
    QString loopLog;
    QString capture;
    QtMessageHandler previous = nullptr;
};

QTEST_GUILESS_MAIN(TestLogging)
#include "tst_Logging.moc"
