#pragma once

#include <QString>

#include <optional>

namespace kv {

// The pages of the Korvane application, in the order of its side bar. Their
// names are what `korvane --page NAME` and the agent's
// "KorvaneShouldOpenPage" request carry.
enum class Page { Protection, Scan, WatchedFolders, WhenFound, Exclusions, Definitions, Quarantine, History, Advanced };

inline constexpr Page kAllPages[] = {Page::Protection, Page::Scan, Page::WatchedFolders, Page::WhenFound, Page::Exclusions,
                                     Page::Definitions, Page::Quarantine,     Page::History,   Page::Advanced};

// "protection", "scan", "folders", "found", "exclusions", "definitions",
// "quarantine", "history", "advanced".
QString pageName(Page page);
// "diagnostics" is the History page showing the agent's own diagnostics.
std::optional<Page> pageNamed(const QString& name);

} // namespace kv
