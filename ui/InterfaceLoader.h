#pragma once

#include <QUiLoader>

#include <memory>
#include <string>

class QWidget;

namespace kv {

// Loads the agent's interface files (.ui) from the resources folder. Every
// action an interface file declares becomes a MyMenuItem. Main thread only.
class InterfaceLoader : public QUiLoader {
    Q_OBJECT
public:
    explicit InterfaceLoader(QObject* parent = nullptr) : QUiLoader(parent) {}

    QAction* createAction(QObject* parent = nullptr, const QString& name = QString()) override;

    // Loads <folder>/<fileName>. Nothing when the file is missing or does
    // not load; *error then says why.
    std::unique_ptr<QWidget> loadFile(const std::string& folder, const std::string& fileName, std::string* error);
};

} // namespace kv
