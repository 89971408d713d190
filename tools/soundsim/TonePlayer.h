#pragma once

#include <QMutex>
#include <QString>

#include <pulse/pulseaudio.h>

// Plays generated float PCM into one sink of the server named by PULSE_SERVER, with at most
// about 10 ms queued so that a change of sound is heard at once.
class TonePlayer
{
public:
    enum Channels
    {
        Left = 1,
        Right = 2,
        Both = 3,
    };

    TonePlayer();
    ~TonePlayer();

    // Connects and starts playing silence into the sink; false if that failed.
    bool start(const QString& sinkName, int rate = 48000);
    void stop();

    void playTone(double frequency, double dbfs, Channels channels = Both);
    void playSilence();
    // Bass kicks, a chord and hiss: a stand-in for music at about the given loudness.
    void playMusic(double dbfs);

    // Steady-clock time (ns) of the write that carried the first sample of the latest tone.
    qint64 soundStartNs();

private:
    enum class Kind
    {
        Silence,
        Tone,
        Music,
    };

    void fill(float* out, size_t frames);
    static void onStreamWrite(pa_stream* s, size_t bytes, void* userdata);
    static void onContextState(pa_context* c, void* userdata);
    static void onStreamState(pa_stream* s, void* userdata);

    pa_threaded_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;
    int sampleRate = 48000;

    // Guarded by the loop's lock.
    Kind kind = Kind::Silence;
    double frequency = 0.0;
    double amplitude = 0.0;
    int channelMask = Both;
    double phase = 0.0;
    quint64 position = 0; // frames written
    bool startPending = false;
    qint64 startNs = 0;
    quint32 noise = 12345;
};
