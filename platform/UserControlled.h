#pragma once

#include <string>

namespace kv {

// Places the agent runs programs from, moves infected files into or
// connects to, and whether anyone but the user (and root, and for the
// system's clamd service the clamav user) could change what is there.
//
// Each check walks the path from "/" one component at a time through
// descriptors opened without following links; a symbolic link is read and
// its target walked the same way, so what a link leads to and every folder
// on the way to it are checked too, and the link itself must belong to a
// trusted owner (in a sticky folder, whoever owns a link may replace it).
//
// A folder "may be written by others" when its mode lets anyone write, or
// its group write, unless that group is the user's private group (named
// after the user, with nobody else in it, as Debian makes them). On the
// way to the place, a sticky folder of root's that others may write (such
// as /tmp) is accepted: others can neither rename nor remove what is not
// theirs in it. The place's own folder is never accepted so, because a new
// name in a sticky folder belongs to whoever makes it first.
//
// A name that does not exist is no reason to refuse, as long as no one
// else may make it: the folder that would hold it must not be writable by
// others at all.
//
// Each returns "" when the place is safe, else one sentence naming the
// first place that fails ("/srv/shared may be written by other users").
// Stateless; any thread may call them.

// The engine prefix ("PathToClamav"): its programs and configuration
// (sbin/clamd, bin/clamdscan, bin/freshclam, etc/clamd.conf, and the same
// for the stand-in daemon in standin/ when the prefix has one) belong to
// the user or root, are not writable by others, and so is every folder on
// the way to them and to what their links lead to.
std::string whyEnginePrefixRefused(const std::string& prefix);

// The quarantine folder: every folder on the way belongs to the user or
// root and is not writable by others (a sticky one of root's excepted);
// the folder itself is the user's and not writable by others. A folder
// still to be made is accepted where only the user could make it.
std::string whyQuarantineFolderRefused(const std::string& folder);

// The folder of a clamd socket: another user who could make or replace a
// socket there could serve the engine. Every folder on the way belongs to
// the user, root or clamav, none but a sticky one of root's may be written
// by others, and the socket's own folder may not be written by others at
// all. (A socket straight in /tmp is refused: its name is anyone's to take
// while no daemon holds it.)
std::string whyOthersCouldServe(const std::string& socketPath);

} // namespace kv
