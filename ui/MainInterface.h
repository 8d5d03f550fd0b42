#pragma once

#include "platform/Panels.h"

#include <QDialog>
#include <QLabel>
#include <QObject>
#include <QPointer>
#include <QPushButton>

#include <functional>
#include <memory>
#include <string>


namespace kv {

// The main interface file, KorvaneVelgar.ui in the resources folder, loaded
// at run time: the no-engine panel (noEngineWindow, with openPrefsButton),
// the update window (updateWindow, updateWindowText), and the status menu
// with its items, which the Throbber finds below root().
//
// Lives on the main thread. The Panels calls may come from any thread and
// are forwarded to the main thread without waiting.
class MainInterface : public QObject, public Panels {
    Q_OBJECT
public:
    explicit MainInterface(const std::string& resourcesFolder, QObject* parent = nullptr);
    ~MainInterface() override;

    // False when the interface file is missing or could not be loaded; the
    // panels then only log what they would have shown.
    bool loaded() const { return root_ != nullptr; }

    void displayDialog(Panel panel) override;
    void setUpdateWindowText(const std::string& text) override;
    int transformToForegroundApplication() override;

    // The actions the panels' buttons send.
    void setQuitAction(std::function<void()> quit) { quitAction_ = std::move(quit); }
    void setOpenPrefsAction(std::function<void()> openPrefs) { openPrefsAction_ = std::move(openPrefs); }

    // The loaded file's top-level widget; null when it did not load.
    QWidget* root() const { return root_.get(); }

    QDialog* noEngineWindow() const { return noEngineWindow_; }
    QDialog* updateWindow() const { return updateWindow_; }
    QLabel* updateWindowText() const { return updateWindowText_; }
    QPushButton* openPrefsButton() const { return openPrefsButton_; }

private:
    void showOnMainThread(Panel panel);

    std::unique_ptr<QWidget> root_;
    QPointer<QDialog> noEngineWindow_;
    QPointer<QDialog> updateWindow_;
    QPointer<QLabel> updateWindowText_;
    QPointer<QPushButton> openPrefsButton_;
    std::function<void()> quitAction_;
    std::function<void()> openPrefsAction_;
};

} // namespace kv
