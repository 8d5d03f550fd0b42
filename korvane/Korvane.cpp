#include "korvane/Korvane.h"

#include "platform/Paths.h"
#include "platform/QuarantineRecords.h"

#include <QFileDialog>

namespace kv {

Korvane::Korvane(Parts parts)
    : prefs_(parts.preferencesFolder), agent_(parts.bus, parts.agentProgram),
      context_{prefs_, agent_, {}, std::move(parts.chooseFolder),
               parts.homeDirectory.empty() ? homeDirectory() : parts.homeDirectory, {},
               parts.quarantineIndexPath.empty() ? QuarantineRecords::defaultIndexPath() : parts.quarantineIndexPath}
{
    context_.scanLogPath = joinPath(context_.homeDirectory, "Library/Logs/KorvaneVelgar-scan.log");
    if (!context_.chooseFolder) {
        context_.chooseFolder = [this](const QString& title, const QString& start) {
            return QFileDialog::getExistingDirectory(window_.get(), title, start);
        };
    }
    window_ = std::make_unique<MainWindow>(context_);
    QObject::connect(&agent_, &AgentLink::pageRequested, window_.get(), [this](const QString& name) {
        // No name: only come forward, at the page the user left it on.
        if (!name.isEmpty())
            window_->showPageNamed(name);
        window_->show();
        window_->raise();
        window_->activateWindow();
    });
}

} // namespace kv
