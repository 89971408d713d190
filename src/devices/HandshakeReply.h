#pragma once

#include <QByteArray>
#include <QString>

// A device's answer to the salutation, read from the bytes the port has received so far: a pure
// function of those bytes, so that the handler, the tests and the fuzzer share it.
struct HandshakeReply
{
    enum class Verdict
    {
        Incomplete, // no line end yet: wait for more, or for the time-out
        Device,     // the reply of a device: model, serial and id are set
        NotADevice, // it doesn't begin with the magic
        TooLong,    // no line end within maxBytes
    };

    // The longest reply taken, its line end included.
    static constexpr int maxBytes = 64;

    // The reply at the front of `bytes`: up to and with its first "\n", or, once the device has
    // had its time (`final`), whatever came.
    static HandshakeReply parse(const QByteArray& bytes, bool final);

    Verdict verdict = Verdict::Incomplete;
    int length = 0; // bytes of the input the reply takes; the rest came after it
    // The reply with its last 2 characters, the tail a device ends with, cut: what model, serial
    // and id come from. Read up to the first line end, it holds no CR LF pair to cut a header at.
    QString text;
    bool hasSerial = false;
    QString model;
    QString serial; // the second field's bytes in upper-case hexadecimal
    QString id;
};
