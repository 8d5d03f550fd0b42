#include "app/DefinitionsUpdater.h"

#include "app/Notifications.h"
#include "platform/DesktopNotifier.h"
#include "platform/Log.h"
#include "platform/Panels.h"
#include "scan/ScanActivity.h"

#include <exception>
#include <thread>

namespace kv {

DefinitionsUpdater::~DefinitionsUpdater()
{
    std::unique_lock<std::mutex> held(mutex_);
    ended_.wait(held, [this] { return running_ == 0; });
}

void DefinitionsUpdater::start(DefinitionsUpdate update, bool notify)
{
    {
        std::lock_guard<std::mutex> held(mutex_);
        ++running_;
    }
    std::thread([this, notify, update = std::move(update)] {
        perform(update, notify);
        std::lock_guard<std::mutex> held(mutex_);
        --running_;
        ended_.notify_all();
    }).detach();
}

void DefinitionsUpdater::perform(const DefinitionsUpdate& update, bool notify)
{
    const ScanActivity::Busy busy(activity_, ScanActivity::Kind::Update);
    try {
        const DefinitionsUpdate::Outcome outcome = update.run();
        if (outcome == DefinitionsUpdate::Outcome::NoUpdater) {
            if (panels_)
                panels_->displayDialog(Panel::NoEngine);
            return;
        }
        NotificationKind kind = NotificationKind::Error;
        const std::string* text = &notifications_.unknownError();
        if (outcome == DefinitionsUpdate::Outcome::Updated) {
            kind = NotificationKind::Updated;
            text = &notifications_.updateSuccessful();
            if (updated_)
                updated_();
        } else if (outcome == DefinitionsUpdate::Outcome::AlreadyUpToDate) {
            kind = NotificationKind::UpToDate;
            text = &notifications_.alreadyUpToDate();
        }
        // An error is shown even for an update nobody asked to hear from.
        if ((notify || kind == NotificationKind::Error) && !notifications_.display(kind, *text) && panels_) {
            panels_->setUpdateWindowText(*text);
            panels_->displayDialog(Panel::Update);
        }
    } catch (const std::exception& exception) {
        nsLogf("The definitions update failed: %s", exception.what());
    }
}

} // namespace kv
