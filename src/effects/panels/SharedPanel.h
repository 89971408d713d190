#pragma once

#include <QPointer>

// Hands out the one panel of class T: the live one, or a new one when there is none (never made,
// or deleted since). It is watched here, not owned: it has no owner until the built-in factory
// lists it, which deletes it at its end unless the page that adopted (reparented) it went first
// (IPanelMaker::shared). A class with a private constructor befriends SharedPanel<T>. Main thread
// only.
template <typename T> class SharedPanel
{
public:
    T* live() const { return watched.data(); }
    // made, when given, tells whether the panel was made by this call.
    T* get(bool* made = nullptr)
    {
        const bool renew = watched.isNull();
        if (renew) {
            watched = new T; // no owner until adopted: see above
        }
        if (made) {
            *made = renew;
        }
        return watched.data();
    }

private:
    QPointer<T> watched;
};
