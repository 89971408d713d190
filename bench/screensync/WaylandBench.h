#pragma once

#include <QStringList>

// bench_screensync --wayland [--quick]: screen sync through the desktop portal and PipeWire, the
// portal simulator serving 1920x1080 at 30 frames a second, full screen on a 300-LED virtual
// device, each section's X11 row (Xvfb, mode 0) beside from a run of this program with
// --x11-row <section>. --quick shortens the scenes to 10 s and the memory run to a minute.
int waylandBench(const QStringList& arguments);
