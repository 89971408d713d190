#pragma once

#include <QColor>
#include <QPair>
#include <QRect>
#include <QString>
#include <QVector>

#include <xcb/xcb.h>

// Paints solid rectangles in a mapped window over part of an X screen (the root's own background
// stays as it is, so a capture that misses the windows sees it), and changes the screen's RandR
// monitors and size, as a desktop would.
class ScreenPainter
{
public:
    using Fill = QPair<QRect, QColor>; // in coordinates of the painted area

    ScreenPainter() = default;
    ~ScreenPainter();

    bool open(const QString& display);
    void close();

    // Shows fills over area (root coordinates) in a window of its own, one per area; returns once
    // the server has drawn them.
    bool paint(const QRect& area, const QVector<Fill>& fills);
    // Tiles area with a one-pixel checkerboard of black and white; phase 1 shifts it by one pixel.
    bool paintCheckerboard(const QRect& area, int phase);
    // Picture A: top quarter red, bottom quarter white (full width), left quarter green, right
    // quarter blue, centre black. Picture B: A in the central 80 % inside a magenta frame.
    static QVector<Fill> pictureA(const QSize& size);
    static QVector<Fill> pictureB(const QSize& size);
    // The colour picture A has at (x, y) of an area of size; and whether (x, y) lies within
    // margin pixels of one of its colour edges.
    static QColor colourA(const QSize& size, int x, int y);
    static bool nearEdgeA(const QSize& size, int x, int y, int margin);

    // RandR 1.5 monitors and the screen size (CreateMode, AddOutputMode on output "screen",
    // SetCrtcConfig, SetScreenSize).
    bool addMonitor(const QString& name, const QRect& geometry);
    bool deleteMonitor(const QString& name);
    bool resizeScreen(const QSize& size);
    QSize screenSize();

    // A round trip: everything sent before has been handled by the server.
    bool sync();

private:
    xcb_window_t windowFor(const QRect& area);
    void setBackground(xcb_window_t window, xcb_pixmap_t pixmap);
    xcb_atom_t atom(const QString& name);
    uint32_t pixel(const QColor& colour) const;

    xcb_connection_t* connection = nullptr;
    xcb_screen_t* screen = nullptr;
    struct Window
    {
        QRect area;
        xcb_window_t id;
    };
    QVector<Window> windows;
};
