#include "korvane/Pages.h"

#include "korvane/AgentLink.h"
#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"

namespace kv {

QString pageName(Page page)
{
    switch (page) {
    case Page::Protection: return QStringLiteral("protection");
    case Page::Scan: return QStringLiteral("scan");
    case Page::WatchedFolders: return QStringLiteral("folders");
    case Page::WhenFound: return QStringLiteral("found");
    case Page::Exclusions: return QStringLiteral("exclusions");
    case Page::Definitions: return QStringLiteral("definitions");
    case Page::Quarantine: return QStringLiteral("quarantine");
    case Page::History: return QStringLiteral("history");
    case Page::Advanced: return QStringLiteral("advanced");
    }
    return {};
}

std::optional<Page> pageNamed(const QString& name)
{
    if (name == QLatin1String("diagnostics"))
        return Page::History;
    for (const Page page : kAllPages)
        if (pageName(page) == name)
            return page;
    return std::nullopt;
}

bool PageContext::change(const QString& key, const QJsonValue& value)
{
    QString error;
    if (!prefs.write(key, value, &error)) {
        tell(error, true);
        return false;
    }
    // What went wrong before is past: the change went through.
    tell(QString(), false);
    agent.restartWatchingSoon();
    return true;
}

} // namespace kv
