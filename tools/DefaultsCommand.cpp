#include "tools/DefaultsCommand.h"

#include "platform/Preferences.h"
#include "platform/Paths.h"
#include "tools/CommandStatus.h"
#include "tools/TypedValue.h"

#include <QJsonObject>

namespace kv {
namespace {

const char* const kSuiteDomain = kMainAppDomain;

// Checks DOMAIN (and KEY) before anything is read or written.
int checkDomainAndKey(const std::vector<std::string>& arguments, size_t count)
{
    if (!isDomainName(arguments[0]))
        return reportBadInput("\"" + arguments[0] + "\" is not a domain name (letters, digits, '.', '-' and '_' only)");
    if (count > 1 && arguments[1].empty())
        return reportBadInput("the key must not be empty");
    return kExitSuccess;
}

// The exit status of an edit, with its one line on standard error.
int reportEdit(const std::string& path, DomainEdit outcome, const std::string& error)
{
    switch (outcome) {
    case DomainEdit::Written:
    case DomainEdit::Unchanged: return kExitSuccess;
    case DomainEdit::Refused: return reportFailure(error);
    case DomainEdit::NotValid:
        return reportBadInput(path + " is not a valid preferences file (" + error + "); leaving it untouched");
    case DomainEdit::Failed: break;
    }
    return reportFailure("cannot write " + path + ": " + error);
}

} // namespace

DefaultsCommand::DefaultsCommand(std::string folder)
    : folder_(folder.empty() ? JsonPreferences::defaultFolder() : std::move(folder))
{
}

std::string DefaultsCommand::pathOfDomain(const std::string& domain) const
{
    return joinPath(folder_, domain + ".json");
}

int DefaultsCommand::run(const std::vector<std::string>& arguments)
{
    if (arguments.empty())
        return reportBadInput("defaults needs read, write or delete");
    const std::string& verb = arguments[0];
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    if (verb == "read")
        return read(rest);
    if (verb == "write")
        return write(rest);
    if (verb == "delete")
        return remove(rest);
    return reportBadInput("unknown defaults command \"" + verb + "\" (use read, write or delete)");
}

int DefaultsCommand::read(const std::vector<std::string>& arguments)
{
    if (arguments.size() > 2)
        return reportBadInput("usage: velgarctl defaults read [DOMAIN [KEY]]");

    if (arguments.empty()) {
        QJsonObject both;
        for (const char* domain : {kAgentDomain, kSuiteDomain}) {
            std::string error;
            const std::optional<QJsonObject> contents = readDomainFile(pathOfDomain(domain), &error);
            if (!contents)
                return reportFailure(pathOfDomain(domain) + " is not a readable preferences file: " + error);
            both.insert(QString::fromLatin1(domain), *contents);
        }
        printLine(jsonText(both));
        return kExitSuccess;
    }

    if (const int status = checkDomainAndKey(arguments, arguments.size()); status != kExitSuccess)
        return status;
    const std::string path = pathOfDomain(arguments[0]);
    if (!pathExists(path))
        return reportFailure("the domain " + arguments[0] + " does not exist");
    std::string error;
    const std::optional<QJsonObject> contents = readDomainFile(path, &error);
    if (!contents)
        return reportFailure(path + " is not a readable preferences file: " + error);
    if (arguments.size() == 1) {
        printLine(jsonText(*contents));
        return kExitSuccess;
    }
    const auto found = contents->constFind(QString::fromStdString(arguments[1]));
    if (found == contents->constEnd())
        return reportFailure("the domain " + arguments[0] + " has no key \"" + arguments[1] + "\"");
    printLine(jsonText(*found));
    return kExitSuccess;
}

int DefaultsCommand::write(const std::vector<std::string>& arguments)
{
    if (arguments.size() != 4)
        return reportBadInput("usage: velgarctl defaults write DOMAIN KEY (-string S | -bool B | -int N | -float F | -json J)");
    if (const int status = checkDomainAndKey(arguments, 2); status != kExitSuccess)
        return status;
    std::string error;
    const std::optional<QJsonValue> value = parseTypedValue(arguments[2], arguments[3], &error);
    if (!value)
        return reportBadInput(error);

    const std::string path = pathOfDomain(arguments[0]);
    const QString key = QString::fromStdString(arguments[1]);
    return reportEdit(path, editDomainFile(path, [&](QJsonObject& contents, std::string*) {
        contents.insert(key, *value);
        return true;
    }, &error), error);
}

int DefaultsCommand::remove(const std::vector<std::string>& arguments)
{
    if (arguments.size() != 2)
        return reportBadInput("usage: velgarctl defaults delete DOMAIN KEY");
    if (const int status = checkDomainAndKey(arguments, 2); status != kExitSuccess)
        return status;

    const std::string path = pathOfDomain(arguments[0]);
    const QString key = QString::fromStdString(arguments[1]);
    std::string error;
    const DomainEdit outcome = editDomainFile(path, [&](QJsonObject& contents, std::string* why) {
        if (!contents.contains(key)) {
            *why = "the domain " + arguments[0] + " has no key \"" + arguments[1] + "\"; nothing changed";
            return false;
        }
        contents.remove(key);
        return true;
    }, &error);
    return reportEdit(path, outcome, error);
}

} // namespace kv
