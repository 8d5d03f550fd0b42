#include "platform/Preferences.h"

#include "platform/Log.h"
#include "platform/Paths.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

#include <cctype>

namespace kv {

bool objectBoolValue(const QJsonValue& value)
{
    if (value.isBool())
        return value.toBool();
    if (value.isDouble())
        return value.toDouble() != 0.0;
    if (!value.isString())
        return false;
    const std::string text = value.toString().toStdString();
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r'))
        ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        ++i;
    while (i < text.size() && text[i] == '0')
        ++i;
    if (i >= text.size())
        return false;
    const char first = text[i];
    return first == 'Y' || first == 'y' || first == 'T' || first == 't' || (first >= '1' && first <= '9');
}

std::optional<std::string> Preferences::string(const std::string& key) const
{
    const std::optional<QJsonValue> value = object(key);
    if (!value || !value->isString())
        return std::nullopt;
    return value->toString().toStdString();
}

std::optional<QJsonArray> Preferences::array(const std::string& key) const
{
    const std::optional<QJsonValue> value = object(key);
    if (!value || !value->isArray())
        return std::nullopt;
    return value->toArray();
}

bool Preferences::boolean(const std::string& key) const
{
    const std::optional<QJsonValue> value = object(key);
    return value && objectBoolValue(*value);
}

JsonPreferences::JsonPreferences(std::string ownDomain, std::string folder)
    : folder_(folder.empty() ? defaultFolder() : std::move(folder))
{
    domains_.push_back(std::move(ownDomain));
    contents_.emplace_back();
}

std::string JsonPreferences::defaultFolder() { return joinPath(configHome(), "korvane"); }

std::string JsonPreferences::pathOfDomain(const std::string& domain) const
{
    return joinPath(folder_, domain + ".json");
}

void JsonPreferences::addSuite(const std::string& domain)
{
    std::lock_guard<std::mutex> guard(mutex_);
    for (const std::string& known : domains_) {
        if (known == domain)
            return;
    }
    domains_.push_back(domain);
    contents_.emplace_back();
}

void JsonPreferences::synchronize()
{
    std::vector<std::string> domains;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        domains = domains_;
    }
    // Parse outside the lock; readers keep the previous contents meanwhile.
    std::vector<QJsonObject> loaded;
    loaded.reserve(domains.size());
    for (const std::string& domain : domains) {
        const std::string path = pathOfDomain(domain);
        std::string error;
        std::optional<QJsonObject> contents = readDomainFile(path, &error);
        if (!contents) {
            nsLogf("Preferences file %s could not be read and counts as empty: %s", path.c_str(), error.c_str());
            contents.emplace();
        }
        loaded.push_back(std::move(*contents));
    }
    std::lock_guard<std::mutex> guard(mutex_);
    if (domains == domains_)
        contents_ = std::move(loaded);
}

std::optional<QJsonValue> JsonPreferences::object(const std::string& key) const
{
    const QString qkey = QString::fromStdString(key);
    std::lock_guard<std::mutex> guard(mutex_);
    for (const QJsonObject& domain : contents_) {
        const auto found = domain.constFind(qkey);
        if (found != domain.constEnd() && !found->isNull() && !found->isUndefined())
            return *found;
    }
    return std::nullopt;
}

std::optional<QJsonObject> readDomainFile(const std::string& path, std::string* error)
{
    QFile file(QString::fromStdString(path));
    if (!file.exists())
        return QJsonObject();
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = file.errorString().toStdString();
        return std::nullopt;
    }
    const QByteArray bytes = file.readAll();
    if (bytes.trimmed().isEmpty())
        return QJsonObject();
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        if (error)
            *error = parseError.errorString().toStdString() + " at offset " + std::to_string(parseError.offset);
        return std::nullopt;
    }
    if (!document.isObject()) {
        if (error)
            *error = "the file holds no JSON object";
        return std::nullopt;
    }
    return document.object();
}

bool writeDomainFile(const std::string& path, const QJsonObject& contents, std::string* error)
{
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !makeDirectories(path.substr(0, slash), 0700)) {
        if (error)
            *error = "cannot create the folder of " + path;
        return false;
    }
    QSaveFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::WriteOnly)) {
        if (error)
            *error = file.errorString().toStdString();
        return false;
    }
    file.write(QJsonDocument(contents).toJson(QJsonDocument::Indented));
    if (!file.commit()) {
        if (error)
            *error = file.errorString().toStdString();
        return false;
    }
    return true;
}

bool isDomainName(const std::string& text)
{
    if (text.empty())
        return false;
    for (const char c : text) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                             c == '-' || c == '_';
        if (!allowed)
            return false;
    }
    return true;
}

DomainEdit editDomainFile(const std::string& path, const DomainEditor& edit, std::string* error)
{
    std::string why;
    const std::optional<QJsonObject> before = readDomainFile(path, &why);
    if (!before) {
        if (error)
            *error = why;
        // A file that exists but does not parse is the user's: never replaced.
        return QFile::exists(QString::fromStdString(path)) && QFileInfo(QString::fromStdString(path)).isReadable()
                   ? DomainEdit::NotValid
                   : DomainEdit::Failed;
    }
    QJsonObject after = *before;
    if (!edit(after, &why)) {
        if (error)
            *error = why;
        return DomainEdit::Refused;
    }
    if (after == *before)
        return DomainEdit::Unchanged;
    if (!writeDomainFile(path, after, &why)) {
        if (error)
            *error = why;
        return DomainEdit::Failed;
    }
    return DomainEdit::Written;
}

} // namespace kv
