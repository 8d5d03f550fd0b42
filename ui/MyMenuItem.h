#pragma once

#include <QAction>

namespace kv {

// The class of every named item of the status menu. Nothing enables or
// disables an item behind the status menu's back: an item is on exactly when
// the status menu switches it on.
//
// It remembers the keyboard modifiers of the event that chose it, because a
// command that acts on them (Alt opens the main application's scan log) may
// run after the menu has closed and the keys were let go. Main thread only.
class MyMenuItem : public QAction {
    Q_OBJECT
public:
    explicit MyMenuItem(QObject* parent = nullptr);

    Qt::KeyboardModifiers modifiersOfLastChoice() const { return modifiersOfLastChoice_; }

private:
    Qt::KeyboardModifiers modifiersOfLastChoice_ = Qt::NoModifier;
};

} // namespace kv
