#include "service/screen/x11/DeskCaptureBackendX11.h"

#include "service/screen/x11/DeskFrameGrabberX11.h"
#include "service/screen/x11/X11Setup.h"

#include <QSocketNotifier>
#include <QtDebug>

#include <xcb/randr.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

using X11Setup::reply;

namespace {

// Logs under DeskDuplManager's name: the log texts of this part are fixed that way.
constexpr char kTag[] = "[DeskDuplManager]:";

QString describe(const QString& display)
{
    return display.isEmpty() ? QStringLiteral("(unset)") : display;
}

} // namespace

DeskCaptureBackend* DeskCaptureBackend::createDefault(QObject* parent)
{
    return new DeskCaptureBackendX11(QString::fromLocal8Bit(qgetenv("DISPLAY")), parent);
}

DeskCaptureBackendX11::DeskCaptureBackendX11(const QString& displayName, QObject* parent)
    : DeskCaptureBackend(parent)
    , display(displayName)
{
    settleTimer.setSingleShot(true);
    settleTimer.setInterval(settleMs);
    connect(&settleTimer, &QTimer::timeout, this, &DeskCaptureBackendX11::enumerate);
    retryTimer.setInterval(retryMs);
    connect(&retryTimer, &QTimer::timeout, this, &DeskCaptureBackendX11::onRetry);
}

DeskCaptureBackendX11::~DeskCaptureBackendX11()
{
    disconnectServer();
}

void DeskCaptureBackendX11::start()
{
    if (display.isEmpty()) {
        qWarning().noquote() << kTag << "DISPLAY is not set: screen sync needs an X11 desktop";
        return;
    }
    if (connectServer()) {
        enumerate();
    }
}

bool DeskCaptureBackendX11::connectServer()
{
    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), &screenNumber);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        if (!warned) {
            warned = true;
            qWarning().noquote() << kTag << "Cannot reach the X11 display" << describe(display)
                                 << "- screen sync needs an X11 desktop; retrying every 2 s";
        }
        retryTimer.start();
        return false;
    }
    const xcb_setup_t* setup = xcb_get_setup(c);
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(setup);
    for (int i = 0; i < screenNumber && it.rem; ++i) {
        xcb_screen_next(&it);
    }
    connection = c;
    root = it.data->root;

    randr15 = false;
    const xcb_query_extension_reply_t* ext = xcb_get_extension_data(c, &xcb_randr_id);
    if (ext && ext->present) {
        randrEventBase = ext->first_event;
        auto version = reply(xcb_randr_query_version_reply(c, xcb_randr_query_version(c, 1, 5), nullptr));
        randr15 = version && (version->major_version > 1 || version->minor_version >= 5);
        if (X11Setup::isXwayland(connection, root)) {
            qWarning().noquote() << kTag << "The display" << describe(display)
                                 << "is Xwayland, whose root shows only X11 windows: screen sync needs an "
                                    "X11 desktop";
            disconnectServer();
            retryTimer.stop();
            return false;
        }
        xcb_randr_select_input(c, root,
                               XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                                   XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
    }
    // RandR 1.5's SetMonitor is announced only by a ConfigureNotify of the root.
    const uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, root, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(c);

    notifier = new QSocketNotifier(xcb_get_file_descriptor(c), QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &DeskCaptureBackendX11::onReadable);
    retryTimer.stop();
    if (connected || warned) {
        qInfo().noquote() << kTag << "The X11 display" << display << "is back";
    }
    connected = true;
    warned = false;
    return true;
}

void DeskCaptureBackendX11::disconnectServer()
{
    delete notifier;
    notifier = nullptr;
    settleTimer.stop();
    if (connection) {
        xcb_disconnect(connection);
        connection = nullptr;
    }
}

QVector<DeskMonitor> DeskCaptureBackendX11::monitors() const
{
    return list;
}

std::unique_ptr<DeskFrameGrabber> DeskCaptureBackendX11::createGrabber() const
{
    return DeskFrameGrabberX11::open(display);
}

void DeskCaptureBackendX11::onReadable()
{
    drainEvents();
}

void DeskCaptureBackendX11::drainEvents()
{
    if (!connection) {
        return;
    }
    bool changed = false;
    while (xcb_generic_event_t* event = xcb_poll_for_event(connection)) {
        const uint8_t type = event->response_type & 0x7f;
        if (type == XCB_CONFIGURE_NOTIFY || type == randrEventBase + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
            type == randrEventBase + XCB_RANDR_NOTIFY) {
            changed = true;
        }
        std::free(event);
    }
    if (xcb_connection_has_error(connection)) {
        onLost();
        return;
    }
    if (changed) {
        settleTimer.start(); // restarts: one re-read 200 ms after the last notice
    }
}

void DeskCaptureBackendX11::enumerate()
{
    if (!connection) {
        return;
    }
    QVector<DeskMonitor> found;
    if (randr15) {
        auto monitors = reply(
            xcb_randr_get_monitors_reply(connection, xcb_randr_get_monitors(connection, root, 1), nullptr));
        if (monitors) {
            QVector<xcb_get_atom_name_cookie_t> names;
            for (auto it = xcb_randr_get_monitors_monitors_iterator(monitors.get()); it.rem;
                 xcb_randr_monitor_info_next(&it)) {
                DeskMonitor monitor;
                monitor.geometry = QRect(it.data->x, it.data->y, it.data->width, it.data->height);
                monitor.primary = it.data->primary;
                found.append(monitor);
                names.append(xcb_get_atom_name(connection, it.data->name));
            }
            for (int i = 0; i < names.size(); ++i) {
                auto name = reply(xcb_get_atom_name_reply(connection, names[i], nullptr));
                if (name) {
                    found[i].name = QString::fromUtf8(xcb_get_atom_name_name(name.get()),
                                                      xcb_get_atom_name_name_length(name.get()));
                }
            }
        }
    }
    found.erase(std::remove_if(found.begin(), found.end(),
                               [](const DeskMonitor& m) { return m.name.isEmpty() || m.geometry.isEmpty(); }),
                found.end());
    if (found.isEmpty()) {
        auto geometry =
            reply(xcb_get_geometry_reply(connection, xcb_get_geometry(connection, root), nullptr));
        if (geometry) {
            DeskMonitor whole;
            whole.name = display;
            whole.geometry = QRect(0, 0, geometry->width, geometry->height);
            whole.primary = true;
            found.append(whole);
        }
    }
    // A reply wait buffers events that the notifier will never announce.
    drainEvents();
    if (!connection) {
        return; // lost while reading; onLost has told the listeners
    }
    list = found;
    emit monitorsChanged();
}

void DeskCaptureBackendX11::onLost()
{
    disconnectServer();
    list.clear();
    if (!warned) {
        warned = true;
        qWarning().noquote() << kTag << "Lost the connection to the X11 display" << display
                             << "- retrying every 2 s";
    }
    emit connectionLost();
    retryTimer.start();
}

void DeskCaptureBackendX11::onRetry()
{
    if (connection) {
        retryTimer.stop();
        return;
    }
    if (connectServer()) {
        enumerate();
    }
}
