#pragma once

#include <QString>

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <cstddef>
#include <cstdint>

// A memory segment shared with the X server (MIT-SHM), so that a read lands in our memory
// without passing the socket: a memfd handed over as a descriptor (MIT-SHM 1.2), or a SysV
// segment. Attached on demand, grown when a read needs more, detached with the object.
class X11ShmSegment
{
public:
    enum class Kind
    {
        None,
        SysV,
        Fd,
    };

    // How the server behind display can share memory with us: only a known colour read through a
    // segment proves it (a remote server lists the extension but can't share memory, and a
    // descriptor sent over TCP closes the connection). Probed on throwaway connections.
    static Kind probe(const QString& display);

    X11ShmSegment(xcb_connection_t* connection, Kind kind);
    ~X11ShmSegment();
    X11ShmSegment(const X11ShmSegment&) = delete;
    X11ShmSegment& operator=(const X11ShmSegment&) = delete;

    Kind kind() const { return type; }
    // Attached with room for bytes; false, with nothing attached, when the server refuses it.
    bool reserve(size_t bytes);
    xcb_shm_seg_t id() const { return segment; }
    const uint8_t* data() const { return memory; }

private:
    bool attach(size_t bytes);
    void detach();
    void unmap();

    xcb_connection_t* connection;
    Kind type;
    xcb_shm_seg_t segment = 0;
    uint8_t* memory = nullptr; // null while nothing is attached
    size_t size = 0;
    int sysvId = -1; // a SysV segment's id, -1 for a memfd
};
