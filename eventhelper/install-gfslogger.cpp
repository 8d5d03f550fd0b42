// install-gfslogger: makes the installed gfslogger set-user-ID root. The
// agent runs it through pkexec, under the polkit action
// com.korvane.KorvaneVelgar.install-gfslogger, when the helper lacks root's
// rights.
//
// Runs as root on behalf of any user who can answer the administrator's
// password prompt, so it trusts nothing the caller chooses: it takes no
// arguments and no environment, and the only file it changes is the
// gfslogger of its own installation, <prefix>/share/korvane-velgar/gfslogger
// beside <prefix>/libexec/korvane-velgar/install-gfslogger, and only when
// root alone controls that file and every folder above it. Owner and mode
// are set on the descriptor that was checked, never by path.
//
// Exit status 0 when the helper is set-user-ID root, 1 when it was refused,
// 2 when used wrongly.

#include "platform/RootControlled.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view kOwnFolder = "/libexec/korvane-velgar";
constexpr std::string_view kHelperInPrefix = "/share/korvane-velgar/gfslogger";

int refuse(const std::string& why)
{
    std::fprintf(stderr, "install-gfslogger: %s\n", why.c_str());
    return 1;
}

} // namespace

int main(int argc, char*[])
{
    if (argc != 1) {
        std::fprintf(stderr, "install-gfslogger: takes no arguments\n");
        return 2;
    }
    if (::geteuid() != 0) {
        std::fprintf(stderr, "install-gfslogger: must be run as root, through pkexec\n");
        return 2;
    }
    ::clearenv();
    ::umask(022);

    // Our own path as the kernel started us: pkexec runs the program the
    // polkit action names, and no caller can change where that is.
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0 || self[0] != '/')
        return refuse("cannot tell where it is installed");
    const std::string program(self, static_cast<size_t>(length));
    const std::string folder = program.substr(0, program.rfind('/'));
    if (!folder.ends_with(kOwnFolder))
        return refuse(program + " is not in an installation's libexec/korvane-velgar folder");
    const std::string helper = folder.substr(0, folder.size() - kOwnFolder.size()) + std::string(kHelperInPrefix);

    std::string why;
    const kv::UniqueFd file = kv::openRootControlled(helper, &why);
    if (!file)
        return refuse(why + "; nothing was changed");
    if (::fchown(file.get(), 0, 0) != 0 || ::fchmod(file.get(), 04755) != 0)
        return refuse(helper + ": " + std::strerror(errno));
    std::printf("install-gfslogger: %s is now set-user-ID root\n", helper.c_str());
    return 0;
}
