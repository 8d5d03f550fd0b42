#include "ui/Agent.h"

#include "app/AgentScripting.h"
#include "app/KorvaneVelgar.h"
#include "platform/AgentBusObject.h"
#include "platform/BusContract.h"
#include "platform/DBusDistributedCenter.h"
#include "platform/FreedesktopNotifier.h"
#include "platform/Log.h"
#include "platform/MountWatcher.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/SleepWatcher.h"
#include "platform/StringTable.h"
#include "ui/DesktopWorkspace.h"
#include "ui/InfectionDialogs.h"
#include "ui/MainInterface.h"
#include "ui/Throbber.h"

#include <QTimer>

namespace kv {

struct Agent::Owned {
    StringTable strings;
    std::unique_ptr<JsonPreferences> preferences;
    std::unique_ptr<DBusDistributedCenter> distributedCenter;
    std::unique_ptr<FreedesktopNotifier> notifier;
    std::unique_ptr<DesktopWorkspace> workspace;
    std::unique_ptr<SleepWatcher> sleepWatcher;
    std::unique_ptr<MountWatcher> mountWatcher;
};

namespace {

template <typename Part, typename Made>
Part* suppliedOr(Part* supplied, std::unique_ptr<Made>& made)
{
    if (supplied)
        return supplied;
    made = std::make_unique<Made>();
    return made.get();
}

} // namespace

Agent::Agent(Parts parts) : owned_(std::make_unique<Owned>())
{
    const std::string resources = parts.resourcesFolder.empty() ? resourcesDirectory() : parts.resourcesFolder;
    owned_->strings.load(resources);
    if (parts.preferences) {
        preferences_ = parts.preferences;
    } else {
        owned_->preferences = std::make_unique<JsonPreferences>(kAgentDomain);
        preferences_ = owned_->preferences.get();
    }
    Workspace* workspace = suppliedOr(parts.workspace, owned_->workspace);

    mainInterface_ = std::make_unique<MainInterface>(resources);
    Throbber::Environment environment;
    environment.preferences = preferences_;
    environment.workspace = workspace;
    environment.clock = parts.clock;
    environment.resourcesFolder = resources;
    environment.homeDirectory = parts.homeDirectory;
    menu_ = std::make_unique<Throbber>(mainInterface_->root(), environment);
    dialogs_ = std::make_unique<InfectionDialogs>(resources, *workspace);

    ControllerParts controllerParts;
    controllerParts.velgarPrefs = preferences_;
    controllerParts.distributedCenter = suppliedOr(parts.distributedCenter, owned_->distributedCenter);
    controllerParts.notifier = suppliedOr(parts.notifier, owned_->notifier);
    controllerParts.panels = mainInterface_.get();
    controllerParts.mainMenu = menu_.get();
    controllerParts.workspace = workspace;
    controllerParts.scanAlerts = dialogs_.get();
    controllerParts.strings = &owned_->strings;
    controllerParts.homeDirectory = parts.homeDirectory;
    controllerParts.exitProcess = std::move(parts.exitProcess);
    controllerParts.redirectToScanLog = parts.redirectToScanLog;
    if (parts.systemEvents) {
        owned_->sleepWatcher = std::make_unique<SleepWatcher>();
        owned_->mountWatcher = std::make_unique<MountWatcher>();
        controllerParts.sleepEvents = owned_->sleepWatcher.get();
        controllerParts.volumeEvents = owned_->mountWatcher.get();
    }
    controller_ = std::make_unique<KorvaneVelgar>(std::move(controllerParts));

    KorvaneVelgar* controller = controller_.get();
    mainInterface_->setQuitAction([controller] { controller->quit(); });
    mainInterface_->setOpenPrefsAction([controller] { controller->mainApplication().openPrefs(true); });
    menu_->setKorvaneVelgarController(controller);
    dialogs_->setQuitAction([controller] { controller->quit(); });

    // Scripts read the agent's state, which the Korvane application shows live.
    scripting_ = std::make_unique<AgentScripting>(menu_.get(), controllerParts.distributedCenter,
                                                  [controller] { return controller->preventionStatus(); });
    QObject::connect(menu_.get(), &Throbber::menuStateApplied, menu_.get(),
                     [scripting = scripting_.get()](MenuState state) { scripting->menuStateApplied(state); });
}

Agent::~Agent()
{
    // The indicator thread and the open warning dialogs use the controller:
    // they end, and let go of it, before it goes.
    menu_->stopIndicator();
    dialogs_->ignoreAllWarnings();
    dialogs_->setQuitAction({});
}

BusNameResult Agent::publishOnSessionBus()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    const BusNameResult result = claimBusName(bus, bus::kAgentName);
    if (result != BusNameResult::Owned)
        return result;
    // Scripts reach the agent through its object under the name it owns.
    AgentScripting* scripting = scripting_.get();
    AgentBusObject::ScriptedKeys keys;
    keys.handlesKey = [scripting](const std::string& key) { return scripting->applicationDelegateHandlesKey(key); };
    keys.valueForKey = [scripting](const std::string& key) { return scripting->valueForKey(key); };
    keys.names = scripting->keys();
    busObject_ = std::make_unique<AgentBusObject>(keys);
    if (!busObject_->registerOn(bus))
        nsLog("The agent's bus object cannot be registered: scripts cannot reach the agent");
    return result;
}

void Agent::launchSoon()
{
    KorvaneVelgar* controller = controller_.get();
    QTimer::singleShot(0, controller, [controller] { controller->applicationDidFinishLaunching(); });
}

} // namespace kv
