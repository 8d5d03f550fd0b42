#pragma once

#include <QJsonValue>
#include <QString>

#include <functional>
#include <string>

namespace kv {

class AgentLink;
class PreferenceStore;

// What every page of the Korvane application works with. The folder and
// file choosers are parts so that tests can answer them.
struct PageContext {
    PreferenceStore& prefs;
    AgentLink& agent;
    // Shows a sentence in the window's message bar; problem: in warning colours.
    std::function<void(const QString& text, bool problem)> tell;
    // Asks the user for a folder (title, where to start); "" when cancelled.
    std::function<QString(const QString& title, const QString& start)> chooseFolder;
    std::string homeDirectory;
    std::string scanLogPath;
    std::string quarantineIndexPath;

    // Writes one preference; on success asks a running agent to restart
    // watching, which is when it reads its preferences. On failure tells the
    // user why and returns false: nothing was written.
    bool change(const QString& key, const QJsonValue& value);
};

} // namespace kv
