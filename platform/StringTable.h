#pragma once

#include <QTranslator>

#include <string>

namespace kv {

// The agent's string table: Qt translations with the context "Localizable"
// and the key as source text, loaded from
// <resources>/translations/korvane-velgar_<language>.qm (English shipped).
// A key missing from the table yields the key itself.
//
// Thread-safe for lookups once loaded.
class StringTable {
public:
    // Loads the table for the user's language, falling back to English.
    // False when no table could be loaded; lookups then yield their keys.
    bool load(const std::string& resourcesFolder);

    std::string localizedString(const std::string& key) const;

private:
    QTranslator translator_;
    bool loaded_ = false;
};

} // namespace kv
