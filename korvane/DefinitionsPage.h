#pragma once

#include "korvane/EngineStatus.h"

#include <QWidget>

class QLabel;
class QPlainTextEdit;
class QProcess;
class QProgressBar;
class QPushButton;

namespace kv {

struct PageContext;

// The virus definitions: when they were last updated, their version (as the
// engine reports it), "Update Now" with its progress and its outcome in
// words, and the update log.
class DefinitionsPage : public QWidget {
    Q_OBJECT
public:
    explicit DefinitionsPage(PageContext& context, QWidget* parent = nullptr);
    ~DefinitionsPage() override;

    void refresh();
    // Runs the engine's updater; false when it could not start.
    bool updateNow();
    bool updating() const;

Q_SIGNALS:
    void updateFinished(bool succeeded);

private:
    void finishUpdate(int exitCode, bool crashed);
    void showLog();

    PageContext& context_;
    EngineDescription engine_;
    QLabel* lastUpdated_;
    QLabel* version_;
    QLabel* warning_;
    QPushButton* updateButton_;
    QProgressBar* progress_;
    QLabel* outcome_;
    QPlainTextEdit* log_;
    QProcess* updater_ = nullptr;
    QString updaterOutput_;
    EngineQuestion versionQuestion_;
};

} // namespace kv
