#pragma once

#include <QByteArray>

#include <string>

namespace kv {

// "Scan with Korvane" among Thunar's custom actions. Thunar reads them
// only from one file, the user's $XDG_CONFIG_HOME/Thunar/uca.xml (until
// that exists, the first Thunar/uca.xml of $XDG_CONFIG_DIRS, which Thunar
// copies on its first change), so the action is added to the user's file
// and no package can install it.
//
// What the user has in the file is never lost: the file is read whole with
// QXmlStreamReader, and the action's text is put before the closing
// </actions>, every other byte left as it was; the new file replaces the
// old atomically. A file that is not well-formed XML with an <actions>
// root, or not UTF-8, is left alone. An action with the same <unique-id>
// there already (the user may have changed it) counts as added.
//
// Not thread-safe: one caller (velgarctl setup).
class ThunarActions {
public:
    enum class Outcome { Added, AlreadyThere, LeftAlone, NoThunar };
    struct Merge {
        Outcome outcome = Outcome::LeftAlone;
        QByteArray text;  // the file with the action, for Added
        std::string why;  // for LeftAlone: what is wrong with the file
    };

    // The user's file (or the system's, for a user without one) with the
    // first <action> of actionDocument added, the shipped file.
    static Merge merge(const QByteArray& existing, const QByteArray& actionDocument);

    // Adds the action of the shipped file at actionDocumentPath to the
    // user's file, where Thunar is installed or was used; *message says
    // what happened, in a sentence for the user.
    static Outcome addScanAction(const std::string& actionDocumentPath, std::string* message);

    // The user's file: $XDG_CONFIG_HOME/Thunar/uca.xml.
    static std::string userFile();
};

} // namespace kv
