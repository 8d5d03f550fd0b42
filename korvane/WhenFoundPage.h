#pragma once

#include <QWidget>

class QCheckBox;
class QLabel;
class QLineEdit;
class QRadioButton;

namespace kv {

struct PageContext;

// What the agent does with an infected file: leave it and warn, move it to
// the Trash, or move it to a quarantine folder ("VelgarTrashFiles",
// "VelgarQuarantineFiles", "QuarantineFolder"), and whether a dialog comes up
// for each finding ("SuppressInfoDialogs").
//
// A quarantine folder is created (mode 0700) when it is chosen; one that
// cannot be created is refused with the reason, and the setting stays as it
// was, so an infected file is never left with nowhere to go.
class WhenFoundPage : public QWidget {
    Q_OBJECT
public:
    explicit WhenFoundPage(PageContext& context, QWidget* parent = nullptr);

    void refresh();
    enum class Choice { Warn, Trash, Quarantine };
    // The user's choice; the folder is used for Quarantine. False when it was
    // refused (and the user told why).
    bool choose(Choice choice, const QString& quarantineFolder = {});

private:
    QString defaultQuarantineFolder() const;

    PageContext& context_;
    QRadioButton* warnButton_;
    QRadioButton* trashButton_;
    QRadioButton* quarantineButton_;
    QLineEdit* folderEdit_;
    QCheckBox* dialogsBox_;
    bool filling_ = false;
};

} // namespace kv
