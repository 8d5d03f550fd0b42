#pragma once

#include <QLabel>
#include <QString>

namespace kv {

// The pages show file names, log lines and engines' answers, which anyone
// who can name a file may spell. Qt takes text that looks like markup for
// markup, and "<img src=/dev/zero>" would then be loaded as a picture: every
// label that shows such text is a plain-text label, and every tool tip is
// escaped.
inline QLabel* plainLabel(QWidget* parent)
{
    auto* label = new QLabel(parent);
    label->setTextFormat(Qt::PlainText);
    return label;
}

inline QString plainToolTip(const QString& text)
{
    return text.isEmpty() ? text : QStringLiteral("<p>") + text.toHtmlEscaped() + QStringLiteral("</p>");
}

} // namespace kv
