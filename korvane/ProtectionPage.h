#pragma once

#include "korvane/EngineStatus.h"

#include <QWidget>

class QCheckBox;
class QLabel;
class QPushButton;

namespace kv {

struct PageContext;

// Is the agent running, watching, scanning (live), which engine it uses and
// whether that answers; start and stop the agent; start it at login; hold
// opens of new files until their verdict ("BlockUntilScanned"), and how
// many opens waited and were refused since watching began. The
// preferences' problems are listed as the agent's load finds them, among
// them an engine folder or quarantine folder it refuses, with the reason.
class ProtectionPage : public QWidget {
    Q_OBJECT
public:
    explicit ProtectionPage(PageContext& context, QWidget* parent = nullptr);

    // Reads the preferences and the agent's state again, and asks the engine.
    void refresh();

private:
    void showAgentState();
    void showPrevention();
    void checkEngine();

    PageContext& context_;
    QLabel* agentState_;
    QLabel* foldersState_;
    QPushButton* startButton_;
    QPushButton* stopButton_;
    QPushButton* restartButton_;
    QLabel* engineKind_;
    QLabel* engineAnswer_;
    QLabel* definitionsWarning_;
    QCheckBox* loginBox_;
    QCheckBox* holdBox_;
    QLabel* preventionState_;
    QLabel* problems_;
    EngineDescription engine_;
    EngineQuestion engineQuestion_;
    bool agentWasRunning_ = false;
};

} // namespace kv
