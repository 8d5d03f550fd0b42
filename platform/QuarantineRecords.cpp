#include "platform/QuarantineRecords.h"

#include "platform/FileWriting.h"
#include "platform/LongPath.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/TrashInfo.h"
#include "platform/UniqueFd.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <optional>
#include <set>
#include <tuple>

namespace kv {
namespace {

bool fail(std::string* error, const std::string& text)
{
    if (error)
        *error = text;
    return false;
}

std::string reason() { return std::strerror(errno); }

std::string shown(const std::string& path) { return displayText(path); }

// Holds an flock(2) on a descriptor for its lifetime.
class FileLock {
public:
    FileLock(int fd, int operation) : fd_(fd)
    {
        do {
            locked_ = ::flock(fd, operation) == 0;
        } while (!locked_ && errno == EINTR);
    }
    ~FileLock()
    {
        if (locked_)
            ::flock(fd_, LOCK_UN);
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    bool locked() const { return locked_; }

private:
    int fd_;
    bool locked_ = false;
};

// What opening the index found.
enum class IndexState { Open, Missing, Refused };

// Opens the index with flags (O_CREAT among them for the agent), after
// making sure only the user can write it or its folder.
IndexState openIndex(const std::string& path, int flags, UniqueFd* index, std::string* error)
{
    const size_t slash = path.rfind('/');
    if (path.empty() || path.back() == '/') {
        fail(error, "The quarantine index " + shown(path) + " is not a file name");
        return IndexState::Refused;
    }
    if ((flags & O_CREAT) && slash != std::string::npos && slash > 0 && !makeDirectories(path.substr(0, slash), 0700)) {
        fail(error, "Can't create the folder of the quarantine index " + shown(path) + ": " + reason());
        return IndexState::Refused;
    }
    const ParentAndName parent = openParent(path);
    struct stat info{};
    if (!parent.folder || ::fstat(parent.folder.get(), &info) != 0) {
        if (errno == ENOENT && !(flags & O_CREAT))
            return IndexState::Missing;
        fail(error, "Can't open the folder of the quarantine index " + shown(path) + ": " + reason());
        return IndexState::Refused;
    }
    if (info.st_uid != ::geteuid() || (info.st_mode & (S_IWGRP | S_IWOTH))) {
        fail(error, "The folder of the quarantine index " + shown(path) +
                        " belongs to another user or others can write to it");
        return IndexState::Refused;
    }
    // O_NONBLOCK: a FIFO put there must not hold the opening.
    index->reset(::openat(parent.folder.get(), parent.name.c_str(),
                          flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    if (!*index) {
        if (errno == ENOENT && !(flags & O_CREAT))
            return IndexState::Missing;
        fail(error, errno == ELOOP ? "The quarantine index " + shown(path) + " is a symbolic link"
                                   : "Can't open the quarantine index " + shown(path) + ": " + reason());
        return IndexState::Refused;
    }
    if (::fstat(index->get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid() ||
        (info.st_mode & (S_IWGRP | S_IWOTH))) {
        index->reset();
        fail(error, "The quarantine index " + shown(path) +
                        " is not a file of the user's own that only the user can write");
        return IndexState::Refused;
    }
    return IndexState::Open;
}

bool readAll(int fd, std::string* text)
{
    char buffer[64 * 1024];
    for (off_t offset = 0;;) {
        const ssize_t length = ::pread(fd, buffer, sizeof buffer, offset);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return length == 0;
        text->append(buffer, static_cast<size_t>(length));
        offset += length;
    }
}

std::vector<std::string_view> linesOf(std::string_view text)
{
    std::vector<std::string_view> lines;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos)
            end = text.size();
        if (end > start)
            lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

QString encoded(const std::string& bytes) { return QString::fromLatin1(percentEncodePath(bytes)); }

std::string lineOf(const QuarantineRecord& record)
{
    const QJsonObject object{
        {"originalPath", encoded(record.originalPath)},
        {"storedPath", encoded(record.storedPath)},
        {"signature", encoded(record.signature)},
        {"movedAt", static_cast<qint64>(record.movedAt)},
        {"place", record.place == QuarantineRecord::Place::Trash ? "trash" : "quarantine"},
        // As text: a JSON number holds 53 bits exactly, an inode 64.
        {"device", QString::number(record.device)},
        {"inode", QString::number(record.inode)},
    };
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString() + "\n";
}

std::optional<QuarantineRecord> parseLine(std::string_view line)
{
    QJsonParseError parseError{};
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray(line.data(), static_cast<qsizetype>(line.size())), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();
    const auto bytes = [&](const char* key) -> std::optional<std::string> {
        const QJsonValue value = object.value(QLatin1String(key));
        if (!value.isString())
            return std::nullopt;
        return percentDecodePath(value.toString().toStdString());
    };
    const auto number = [&](const char* key) -> std::optional<std::uint64_t> {
        const std::string text = object.value(QLatin1String(key)).toString().toStdString();
        std::uint64_t value = 0;
        const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (text.empty() || status != std::errc() || end != text.data() + text.size())
            return std::nullopt;
        return value;
    };
    QuarantineRecord record;
    const std::optional<std::string> original = bytes("originalPath");
    const std::optional<std::string> stored = bytes("storedPath");
    const std::optional<std::string> signature = bytes("signature");
    const std::optional<std::uint64_t> device = number("device");
    const std::optional<std::uint64_t> inode = number("inode");
    const QString place = object.value("place").toString();
    // Paths are full paths of real names: a NUL byte would cut one short.
    const auto isPath = [](const std::optional<std::string>& path) {
        return path && path->starts_with('/') && path->find('\0') == std::string::npos;
    };
    if (!isPath(original) || !isPath(stored) || !signature || !device || !inode ||
        !object.value("movedAt").isDouble() || (place != "trash" && place != "quarantine"))
        return std::nullopt;
    record.originalPath = *original;
    record.storedPath = *stored;
    record.signature = *signature;
    record.movedAt = object.value("movedAt").toInteger();
    record.place = place == "trash" ? QuarantineRecord::Place::Trash : QuarantineRecord::Place::Quarantine;
    record.device = *device;
    record.inode = *inode;
    return record;
}

bool sameFile(const struct stat& info, const QuarantineRecord& record)
{
    return S_ISREG(info.st_mode) && static_cast<std::uint64_t>(info.st_dev) == record.device &&
           static_cast<std::uint64_t>(info.st_ino) == record.inode;
}

bool stillStored(const QuarantineRecord& record)
{
    struct stat info{};
    return statPath(record.storedPath, &info, false) && sameFile(info, record);
}

// The stored file of a record, held by an O_PATH descriptor, with the folder
// that names it.
struct StoredFile {
    ParentAndName at;
    UniqueFd file;
    struct stat info{};

    // Whether the name still leads to the file held, just before it is acted on.
    bool stillNamed() const
    {
        struct stat now{};
        return ::fstatat(at.folder.get(), at.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
               now.st_dev == info.st_dev && now.st_ino == info.st_ino;
    }
};

bool openRecorded(const QuarantineRecord& record, StoredFile* stored, std::string* error)
{
    stored->at = openParent(record.storedPath);
    if (stored->at.folder)
        stored->file.reset(
            ::openat(stored->at.folder.get(), stored->at.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!stored->file)
        return fail(error, errno == ENOENT ? shown(record.storedPath) + " is gone"
                                           : "Can't open " + shown(record.storedPath) + ": " + reason());
    struct stat folder{};
    if (::fstat(stored->file.get(), &stored->info) != 0 || ::fstat(stored->at.folder.get(), &folder) != 0)
        return fail(error, "Can't examine " + shown(record.storedPath) + ": " + reason());
    // Between the checks below and the rename or removal, only the user
    // could swap the file: the folder it lies in must be the user's alone.
    if (folder.st_uid != ::geteuid() || (folder.st_mode & (S_IWGRP | S_IWOTH)))
        return fail(error, "The folder of " + shown(record.storedPath) +
                               " is not the user's alone (another user owns it or may write to it)");
    if (!sameFile(stored->info, record))
        return fail(error, shown(record.storedPath) + " is no longer the file that was moved there");
    return true;
}

// The .trashinfo of a file in a Trash's files folder: <Trash>/info/<name>.trashinfo,
// reached from the files folder already checked, never by its path again.
void removeTrashInfo(const QuarantineRecord& record, const StoredFile& stored)
{
    if (record.place != QuarantineRecord::Place::Trash)
        return;
    const std::string& path = record.storedPath;
    const size_t slash = path.rfind('/');
    static constexpr std::string_view kFiles = "/files";
    if (slash == std::string::npos || slash < kFiles.size() ||
        std::string_view(path).substr(slash - kFiles.size(), kFiles.size()) != kFiles)
        return;
    const UniqueFd trash(::openat(stored.at.folder.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd info(trash ? ::openat(trash.get(), "info", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1);
    if (info)
        ::unlinkat(info.get(), (stored.at.name + ".trashinfo").c_str(), 0);
}

// The move back to another file system: a new file at the original name,
// never one that exists, with the stored contents; then the stored name goes.
bool copyBack(const StoredFile& stored, const ParentAndName& target, mode_t mode, const std::string& original,
              std::string* error)
{
    const int readOnly = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const UniqueFd source(::openat(stored.at.folder.get(), stored.at.name.c_str(), readOnly));
    struct stat info{};
    if (!source || ::fstat(source.get(), &info) != 0)
        return fail(error, "Can't read the stored file: " + reason());
    if (info.st_dev != stored.info.st_dev || info.st_ino != stored.info.st_ino)
        return fail(error, "The stored file changed while it was restored");
    const UniqueFd copy(
        ::openat(target.folder.get(), target.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!copy)
        return fail(error, errno == EEXIST ? "Something already exists at " + shown(original)
                                           : "Can't create " + shown(original) + ": " + reason());
    std::string why;
    if (!copyContents(source.get(), copy.get()) || ::fchmod(copy.get(), mode) != 0 || ::fsync(copy.get()) != 0)
        why = "Can't write " + shown(original) + ": " + reason();
    else if (!stored.stillNamed())
        why = "The stored file changed while it was restored";
    else if (::unlinkat(stored.at.folder.get(), stored.at.name.c_str(), 0) != 0)
        why = "Can't remove the stored file: " + reason();
    else
        return true;
    ::unlinkat(target.folder.get(), target.name.c_str(), 0);
    return fail(error, why);
}

} // namespace

std::optional<WalkedFile> walkToFile(const std::string& path, std::string* error)
{
    std::string walked;
    for (size_t start = 0; start < path.size();) {
        const size_t slash = std::min(path.find('/', start), path.size());
        const std::string_view name = std::string_view(path).substr(start, slash - start);
        if (name == "." || name == "..") {
            fail(error, shown(path) + " is not a plain path: it holds \".\" or \"..\"");
            return std::nullopt;
        }
        if (!name.empty()) {
            walked += '/';
            walked += name;
        }
        start = slash + 1;
    }
    if (!path.starts_with('/') || walked.empty()) {
        fail(error, shown(path) + " is not the full path of a file");
        return std::nullopt;
    }
    ParentAndName at = openParentWithoutLinks(walked);
    if (!at.folder) {
        fail(error, errno == ENOENT                       ? "A folder on the way to " + shown(path) + " is gone"
                    : errno == ELOOP || errno == ENOTDIR ? "A folder on the way to " + shown(path) + " is a link"
                                                          : "Can't open the folder of " + shown(path) + ": " + reason());
        return std::nullopt;
    }
    return WalkedFile{std::move(at.folder), std::move(at.name), std::move(walked)};
}

QuarantineRecords::QuarantineRecords(std::string indexPath) : indexPath_(std::move(indexPath)) {}

std::string QuarantineRecords::defaultIndexPath() { return joinPath(dataHome(), "korvane/quarantine.jsonl"); }

const std::string& QuarantineRecords::indexPath() const { return indexPath_; }

bool QuarantineRecords::record(QuarantineRecord record, std::string* error)
{
    struct stat info{};
    if (!statPath(record.storedPath, &info, false))
        return fail(error, "Can't examine " + shown(record.storedPath) + ": " + reason());
    if (!S_ISREG(info.st_mode))
        return fail(error, shown(record.storedPath) + " is not a regular file");
    record.device = info.st_dev;
    record.inode = info.st_ino;
    return append(record, error);
}

std::optional<QuarantineRecord> QuarantineRecords::moveToTrash(const WalkedFile& file, std::string* error,
                                                               std::optional<std::pair<dev_t, ino_t>> only)
{
    const UniqueFd found(
        ::openat(file.folder.get(), file.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info{};
    if (!found || ::fstat(found.get(), &info) != 0) {
        fail(error, errno == ELOOP ? shown(file.path) + " is a link" : "Can't open " + shown(file.path) + ": " + reason());
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode)) {
        fail(error, shown(file.path) + " is not a regular file");
        return std::nullopt;
    }
    if (only && *only != std::pair(info.st_dev, info.st_ino)) {
        fail(error, shown(file.path) + " is no longer the file that was found");
        return std::nullopt;
    }
    std::string why;
    const OpenTrash trash = openTrash(&why);
    if (!trash.files) {
        fail(error, why);
        return std::nullopt;
    }
    const std::optional<std::string> name =
        moveIntoFolder(file.folder.get(), file.name, found.get(), trash.files.get(), &why);
    if (!name) {
        fail(error, why);
        return std::nullopt;
    }
    QuarantineRecord record;
    record.originalPath = file.path;
    record.storedPath = joinPath(trashFilesFolder(), *name);
    record.movedAt = std::time(nullptr);
    record.place = QuarantineRecord::Place::Trash;
    // The file is in the Trash: what follows can only fail to say so.
    std::vector<std::string> problems;
    if (!writeTrashInfoAt(trash.info.get(), *name, file.path, record.movedAt))
        problems.push_back("Can't write its .trashinfo: " + reason());
    // Looked at in the user's own Trash, by the folder it was just moved into.
    struct stat stored{};
    if (::fstatat(trash.files.get(), name->c_str(), &stored, AT_SYMLINK_NOFOLLOW) == 0) {
        record.device = stored.st_dev;
        record.inode = stored.st_ino;
        if (!append(record, &why))
            problems.push_back(why);
    } else {
        problems.push_back("Can't examine " + shown(record.storedPath) + ": " + reason());
    }
    if (error) {
        error->clear();
        for (const std::string& problem : problems)
            *error += (error->empty() ? "" : "; ") + problem;
    }
    return record;
}

bool QuarantineRecords::append(const QuarantineRecord& record, std::string* error)
{
    UniqueFd index;
    if (openIndex(indexPath_, O_WRONLY | O_CREAT | O_APPEND, &index, error) != IndexState::Open)
        return false;
    const FileLock lock(index.get(), LOCK_EX);
    if (!lock.locked())
        return fail(error, "Can't lock the quarantine index " + shown(indexPath_) + ": " + reason());
    if (!writeAll(index.get(), lineOf(record)))
        return fail(error, "Can't write the quarantine index " + shown(indexPath_) + ": " + reason());
    return true;
}

std::vector<QuarantineRecord> QuarantineRecords::current(std::string* error, int* skipped) const
{
    if (skipped)
        *skipped = 0;
    UniqueFd index;
    if (openIndex(indexPath_, O_RDONLY, &index, error) != IndexState::Open)
        return {};
    std::string text;
    {
        const FileLock lock(index.get(), LOCK_SH);
        if (!lock.locked() || !readAll(index.get(), &text)) {
            fail(error, "Can't read the quarantine index " + shown(indexPath_) + ": " + reason());
            return {};
        }
    }
    // Newest last in the file: walked backwards, the first record of a file
    // is the one that counts (a name and inode used again after a file
    // was deleted by hand).
    std::vector<QuarantineRecord> records;
    std::set<std::tuple<std::string, std::uint64_t, std::uint64_t>> seen;
    const std::vector<std::string_view> lines = linesOf(text);
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        std::optional<QuarantineRecord> record = parseLine(*line);
        if (!record) {
            if (skipped)
                ++*skipped;
            continue;
        }
        if (seen.emplace(record->storedPath, record->device, record->inode).second && stillStored(*record))
            records.push_back(std::move(*record));
    }
    std::stable_sort(records.begin(), records.end(),
                     [](const QuarantineRecord& a, const QuarantineRecord& b) { return a.movedAt > b.movedAt; });
    return records;
}

bool QuarantineRecords::restore(const QuarantineRecord& record, std::string* error)
{
    StoredFile stored;
    if (!openRecorded(record, &stored, error))
        return false;
    const std::string& original = record.originalPath;
    // Every folder on the way is opened without following a link: a folder
    // of a shared place swapped for a link since the file was found must not
    // send it into one of the user's own (autostart, bin, ...).
    const ParentAndName target = openParentWithoutLinks(original);
    if (!target.folder)
        return fail(error, errno == ENOENT ? "The folder of " + shown(original) + " no longer exists"
                           : errno == ELOOP || errno == ENOTDIR
                               ? "A folder on the way to " + shown(original) + " is now a link; it was not restored"
                               : "Can't open the folder of " + shown(original) + ": " + reason());
    if (target.name == "." || target.name == "..")
        return fail(error, shown(original) + " names no file");
    struct stat existing{};
    if (::fstatat(target.folder.get(), target.name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0)
        return fail(error, "Something already exists at " + shown(original));
    if (errno != ENOENT)
        return fail(error, "Can't examine " + shown(original) + ": " + reason());

    // The bits go before the file does, on the file held: a quarantined
    // program must not come back set-user-ID.
    const mode_t mode = stored.info.st_mode & 07777 & ~(S_ISUID | S_ISGID);
    if (mode != (stored.info.st_mode & 07777) &&
        ::chmod(("/proc/self/fd/" + std::to_string(stored.file.get())).c_str(), mode) != 0)
        return fail(error, "Can't change the mode of " + shown(record.storedPath) + ": " + reason());

    if (!stored.stillNamed())
        return fail(error, shown(record.storedPath) + " is no longer the file that was moved there");
    // A file another user owns comes back as a copy the user owns: whoever
    // made it may still hold it open for writing.
    const bool othersFile = stored.info.st_uid != ::geteuid();
    bool moved = !othersFile && ::renameat2(stored.at.folder.get(), stored.at.name.c_str(), target.folder.get(),
                                            target.name.c_str(), RENAME_NOREPLACE) == 0;
    if (!othersFile && !moved && errno == EINVAL) {
        // No RENAME_NOREPLACE on this file system (NFS, some FUSE ones): a
        // hard link refuses a taken name just the same.
        const int linked =
            ::linkat(stored.at.folder.get(), stored.at.name.c_str(), target.folder.get(), target.name.c_str(), 0);
        if (linked == 0) {
            if (!stored.stillNamed() || ::unlinkat(stored.at.folder.get(), stored.at.name.c_str(), 0) != 0) {
                ::unlinkat(target.folder.get(), target.name.c_str(), 0);
                return fail(error, "The stored file changed while it was restored");
            }
            moved = true;
        }
    }
    if (!moved) {
        if (!othersFile && errno == EEXIST)
            return fail(error, "Something already exists at " + shown(original));
        if (!othersFile && errno != EXDEV && errno != EINVAL && errno != EPERM)
            return fail(error, "Can't move " + shown(record.storedPath) + " to " + shown(original) + ": " + reason());
        if (!copyBack(stored, target, mode, original, error))
            return false;
    }
    removeTrashInfo(record, stored);
    compact();
    return true;
}

bool QuarantineRecords::remove(const QuarantineRecord& record, std::string* error)
{
    StoredFile stored;
    if (!openRecorded(record, &stored, error))
        return false;
    if (!stored.stillNamed())
        return fail(error, shown(record.storedPath) + " is no longer the file that was moved there");
    if (::unlinkat(stored.at.folder.get(), stored.at.name.c_str(), 0) != 0)
        return fail(error, "Can't remove " + shown(record.storedPath) + ": " + reason());
    removeTrashInfo(record, stored);
    compact();
    return true;
}

bool QuarantineRecords::compact() const
{
    UniqueFd index;
    if (openIndex(indexPath_, O_RDWR, &index, nullptr) != IndexState::Open)
        return false;
    const FileLock lock(index.get(), LOCK_EX);
    std::string text;
    if (!lock.locked() || !readAll(index.get(), &text))
        return false;
    // Lines this version cannot read are kept: they may be a later
    // version's, and they are not ours to judge.
    std::string kept;
    for (const std::string_view line : linesOf(text)) {
        const std::optional<QuarantineRecord> record = parseLine(line);
        if (!record || stillStored(*record)) {
            kept.append(line);
            kept += '\n';
        }
    }
    if (kept.size() == text.size())
        return true;
    return ::lseek(index.get(), 0, SEEK_SET) == 0 && writeAll(index.get(), kept) &&
           ::ftruncate(index.get(), static_cast<off_t>(kept.size())) == 0;
}

} // namespace kv
