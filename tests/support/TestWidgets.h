#pragma once

#include <QApplication>
#include <QList>
#include <QObject>
#include <QTimer>
#include <QWidget>

#include <algorithm>
#include <functional>

// Finding and answering widgets the way a user meets them.
namespace TestWidgets {

// The shown one where panels parked hidden on the page carry the same names.
template <typename T> T* child(QWidget* root, const char* name)
{
    const QList<T*> found = root->findChildren<T*>(QLatin1String(name));
    auto shown = std::find_if(found.begin(), found.end(), [](T* w) { return w->isVisible(); });
    return shown != found.end() ? *shown : found.value(0);
}

// Runs `answer` inside the loop of the next modal dialog of class T.
template <typename T> void onModal(QObject* owner, std::function<void(T*)> answer)
{
    auto* poll = new QTimer(owner);
    QObject::connect(poll, &QTimer::timeout, owner, [poll, answer] {
        if (auto* dialog = qobject_cast<T*>(QApplication::activeModalWidget())) {
            poll->stop();
            poll->deleteLater();
            answer(dialog);
        }
    });
    poll->start(10);
}

} // namespace TestWidgets
