#pragma once

#include "SignalGenerator.h"

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

    // Steady-clock time (ns) of the write that carried the first sample of the latest tone.
    qint64 soundStartNs();

private:
    static void onStreamWrite(pa_stream* s, size_t bytes, void* userdata);
    static void onContextState(pa_context* c, void* userdata);
    static void onStreamState(pa_stream* s, void* userdata);

    pa_threaded_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;

    // Guarded by the loop's lock.
    SignalGenerator generator{48000};
    bool startPending = false;
    qint64 startNs = 0;
};
