#include "ui/MainInterface.h"

#include "platform/Log.h"
#include "ui/InterfaceLoader.h"

#include <QApplication>
#include <QDialog>
#include <QFile>
#include <QLabel>
#include <QPushButton>

namespace kv {

MainInterface::MainInterface(const std::string& resourcesFolder, QObject* parent) : QObject(parent)
{
    const QString path = QString::fromStdString(resourcesFolder) + "/KorvaneVelgar.ui";
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        nsLogf("Error loading the main interface file %s: %s", qPrintable(path), qPrintable(file.errorString()));
        return;
    }
    // Its actions are the status menu's items.
    InterfaceLoader loader;
    root_.reset(loader.load(&file));
    if (!root_) {
        nsLogf("Error loading the main interface file %s: %s", qPrintable(path), qPrintable(loader.errorString()));
        return;
    }
    noEngineWindow_ = root_->findChild<QDialog*>("noEngineWindow");
    updateWindow_ = root_->findChild<QDialog*>("updateWindow");
    updateWindowText_ = root_->findChild<QLabel*>("updateWindowText");
    openPrefsButton_ = root_->findChild<QPushButton*>("openPrefsButton");
    if (!noEngineWindow_ || !updateWindow_ || !updateWindowText_) {
        nsLogf("The main interface file %s lacks its panels", qPrintable(path));
        root_.reset();
        return;
    }
    if (openPrefsButton_)
        connect(openPrefsButton_, &QPushButton::clicked, this, [this] {
            if (openPrefsAction_)
                openPrefsAction_();
        });
    if (auto* close = root_->findChild<QPushButton*>("noEngineCloseButton"))
        connect(close, &QPushButton::clicked, noEngineWindow_, &QDialog::hide);
    if (auto* quit = root_->findChild<QPushButton*>("noEngineQuitButton"))
        connect(quit, &QPushButton::clicked, this, [this] {
            if (quitAction_)
                quitAction_();
        });
    if (auto* close = root_->findChild<QPushButton*>("updateCloseButton"))
        connect(close, &QPushButton::clicked, updateWindow_, &QDialog::hide);
}

MainInterface::~MainInterface() = default;

void MainInterface::displayDialog(Panel panel)
{
    QMetaObject::invokeMethod(this, [this, panel] { showOnMainThread(panel); }, Qt::QueuedConnection);
}

void MainInterface::setUpdateWindowText(const std::string& text)
{
    const QString qtext = QString::fromStdString(text);
    QMetaObject::invokeMethod(
        this,
        [this, qtext] {
            if (updateWindowText_)
                updateWindowText_->setText(qtext);
        },
        Qt::QueuedConnection);
}

int MainInterface::transformToForegroundApplication()
{
    // A Linux desktop has no separate foreground state: the window icon is
    // all there is to change.
    return 0;
}

void MainInterface::showOnMainThread(Panel panel)
{
    QDialog* window = panel == Panel::NoEngine ? noEngineWindow_.data() : updateWindow_.data();
    if (!window) {
        nsLog(panel == Panel::NoEngine ? "Cannot show the no-engine panel: the interface file did not load"
                                       : "Cannot show the update window: the interface file did not load");
        return;
    }
    window->setWindowFlag(Qt::WindowStaysOnTopHint, true);
    window->show();
    window->raise();
    window->activateWindow();
}

} // namespace kv
