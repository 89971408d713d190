#pragma once

#include <QString>

class OrvantaApp;

// With --enable_crash_test, ORVANTA_CRASH_TEST=KIND crashes the program on purpose once the event
// loop runs and the devices present at start are taken, so that the crash path can be tried.
// Without the option the variable is only logged. Each kind is a function of its own, kept out of
// line so that a report names it.
class CrashTest
{
public:
    // Reads the variable and schedules the crash; false when nothing is scheduled.
    static bool arm(OrvantaApp* app);
    static bool knownKind(const QString& kind);

    static void crashSegv();
    static void crashBus();
    static void crashIll();
    static void crashFpe();
    static void crashAbrt();
    static void crashFatal();
    static void crashStack();
    static void crashThread(OrvantaApp* app);
    static void crashTwo();
    static void crashDouble();
    static void crashStore(OrvantaApp* app, int delayMs);
    static void crashSettings(OrvantaApp* app);

private:
    static void run(OrvantaApp* app, const QString& kind);
    static int recurse(int depth);
};
