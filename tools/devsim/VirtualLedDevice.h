#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSocketNotifier>
#include <QVector>

#include <cstdint>

// A virtual LED strip on a pseudo-terminal: answers the "Moni-A" salutation and decodes every
// colour frame it receives. Runs on the thread that created it (its own event loop drives it).
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

    int salutations() const;   // "Moni-A" seen
    int frameCount() const;    // frames decoded without error
    int decodeErrors() const;  // bytes or frames that were not a valid frame
    double frameRate() const;  // frames per second over the last second of frames
    QVector<Rgb> lastColors() const;
    QByteArray lastFrame() const; // the raw bytes of the last good frame, header included
    uint16_t lastCount() const;   // the LED count field of the last good frame
    QVector<QByteArray> frames() const; // every good frame since the last clearFrames()
    void clearFrames();
    void setKeepFrames(bool keep); // off by default so long runs do not grow without bound

signals:
    void salutationReceived();
    void frameReceived(); // once per decoded frame
    void decodeError(QString what);

private:
    // implementation state (fds, notifier, parser buffer, counters)
};
