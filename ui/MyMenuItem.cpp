#include "ui/MyMenuItem.h"

#include <QGuiApplication>

namespace kv {

MyMenuItem::MyMenuItem(QObject* parent) : QAction(parent)
{
    // Connected first, so every other receiver of triggered() sees the
    // modifiers of this choice.
    connect(this, &QAction::triggered, this,
            [this] { modifiersOfLastChoice_ = QGuiApplication::keyboardModifiers(); });
}

} // namespace kv
