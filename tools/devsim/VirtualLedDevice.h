#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <QVector>

#include <cstdint>
#include <deque>

// A virtual LED strip on a pseudo-terminal: answers the "Moni-A" salutation and decodes every
// colour frame it receives. Driven by the event loop of the thread it lives in; to run it on
// another thread, move it there before open() and call open() on that thread.
class VirtualLedDevice : public QObject
{
    Q_OBJECT
public:
    enum class ReplyMode
    {
        Normal,  // the reply in one write
        Split,   // the reply in two chunks, splitDelayMs apart
        Silent,  // never answers
        Garbage, // answers with garbageBytes random bytes that never start with "OV"
    };

    struct Rgb
    {
        uint8_t r = 0, g = 0, b = 0;
        bool operator==(const Rgb& o) const { return r == o.r && g == o.g && b == o.b; }
    };

    explicit VirtualLedDevice(QObject* parent = nullptr);
    ~VirtualLedDevice() override;

    // Opens the pty pair. With a non-empty linkPath a symlink to the slave is placed there
    // (replacing an old link). Returns false and sets errorString() on failure.
    bool open(const QString& linkPath = QString());
    void close(); // closes the master side: the host sees its port fail
    bool isOpen() const;
    QString slavePath() const; // e.g. /dev/pts/7
    QString linkPath() const;
    QString errorString() const;

    void setReply(const QByteArray& reply); // default "OV5512,ABCD\r\n"
    void setReplyMode(ReplyMode mode);
    void setReplyDelayMs(int ms);
    void setSplitDelayMs(int ms);
    void setGarbageBytes(int n);
    void sendRaw(const QByteArray& bytes); // writes bytes to the host at once
    // Reads no faster than this many bytes per second, like a slow link or device; 0: at once.
    // The host's output is held back while what it wrote waits unread, so that the backlog is
    // the host's own, as on a flow-controlled line.
    void setReadRate(int bytesPerSecond);

    int salutations() const;  // "Moni-A" seen
    int frameCount() const;   // frames decoded without error
    int decodeErrors() const; // bytes or frames that were not a valid frame
    double frameRate() const; // frames per second over the last second of frames
    QVector<Rgb> lastColors() const;
    QByteArray lastFrame() const;       // the raw bytes of the last good frame, header included
    uint16_t lastCount() const;         // the LED count field of the last good frame
    QVector<QByteArray> frames() const; // every good frame since the last clearFrames()
    void clearFrames();
    void setKeepFrames(bool keep); // off by default so long runs do not grow without bound
    QByteArray reply() const;
    ReplyMode replyMode() const;
    // Monotonic time (steady clock, ns) at which the last good frame's counted bytes were read.
    qint64 lastFrameTimeNs() const;
    // Input quieter than this after a frame ends its surplus; a frame body still incomplete
    // after truncatedTimeoutMs of quiet is a decode error.
    static constexpr int kSurplusQuietMs = 20;
    static constexpr int kTruncatedTimeoutMs = 250;

signals:
    void salutationReceived();
    void frameReceived(); // once per decoded frame
    void decodeError(QString what);

private:
    enum class ParseState
    {
        Idle,    // between messages
        Body,    // header read, waiting for 3 * count colour bytes
        Surplus, // a frame is complete; bytes before the next header or quiet belong to it
        Skip,    // after an error: dropping bytes until the next header
    };

    void onReadable();
    void holdWriter();
    void onQuiet();
    void parse();
    void finishFrame();
    void failRun(const QString& what);
    void scheduleReply();
    void writeToHost(const QByteArray& bytes);
    int headerAt(int pos) const; // 1 for "Moni-A", 2 for "Ada", 0 otherwise, -1 if undecidable yet

    int masterFd = -1;
    int slaveFd = -1; // kept open so the master never sees a hang-up when the host closes
    QSocketNotifier* notifier = nullptr;
    QTimer quietTimer;
    QTimer retryTimer; // re-arms the notifier after the master reported a hang-up
    int readRate = 0;
    double readBudget = 0.0; // bytes that may be read now, at readRate
    bool writerHeld = false; // the slave's output stopped by holdWriter()
    QElapsedTimer budgetClock;
    QString slave;
    QString link;
    QString error;

    QByteArray replyText = QByteArrayLiteral("OV5512,ABCD\r\n");
    ReplyMode mode = ReplyMode::Normal;
    int replyDelayMs = 0;
    int splitDelayMs = 50;
    int garbageBytes = 16;

    QByteArray buffer;
    ParseState state = ParseState::Idle;
    uint16_t bodyCount = 0;
    QByteArray current; // the frame being read, header included
    QElapsedTimer lastInput;

    int salutationCount = 0;
    int goodFrames = 0;
    int errors = 0;
    std::deque<qint64> recentFrameMs; // frame times within the last second
    qint64 readNs = 0;                // when the chunk being parsed was read
    QElapsedTimer clock;
    QVector<Rgb> colors;
    QByteArray last;
    uint16_t count = 0;
    qint64 lastFrameNs = 0;
    bool keepFrames = false;
    QVector<QByteArray> kept;
};
