#include "platform/StringTable.h"

#include <QLocale>
#include <QString>

namespace kv {

bool StringTable::load(const std::string& resourcesFolder)
{
    const QString folder = QString::fromStdString(resourcesFolder) + "/translations";
    loaded_ = translator_.load(QLocale(), "korvane-velgar", "_", folder) ||
              translator_.load("korvane-velgar_en", folder);
    return loaded_;
}

std::string StringTable::localizedString(const std::string& key) const
{
    if (!loaded_)
        return key;
    const QString text = translator_.translate("Localizable", key.c_str());
    return text.isEmpty() ? key : text.toStdString();
}

} // namespace kv
