// Volumes mounted while the agent watches: real tmpfs mounts under /mnt (the
// tests run as root), the agent's MountWatcher on the kernel's mount table,
// and the agent's own workers.

#include "platform/MountWatcher.h"
#include "tests/support/AgentSupport.h"

#include <sys/mount.h>
#include <unistd.h>

#include <QJsonArray>

namespace {

// A tmpfs at a fresh folder directly under /mnt, with a blank in its name as
// volume names often have; unmounted and removed with the object.
class ScopedVolume {
public:
    ~ScopedVolume() { ::umount2(path().c_str(), MNT_DETACH); }
    bool mount(const std::string& eicar = {})
    {
        if (::mount("korvane-test", path().c_str(), "tmpfs", 0, "size=1m") != 0)
            return false;
        if (!eicar.empty())
            kvtest::writeFile(path() + "/eicar.com", eicar);
        return true;
    }
    const std::string& path() const { return folder_.path(); }

private:
    kvtest::TempDir folder_{"/mnt", "Korvane test "};
};

// The real mount watcher, noting what it reports, so that a test knows when
// a mount has been seen even where the agent ignores it.
class CountingVolumes : public kv::VolumeEvents {
public:
    bool observeMounts(Handler handler) override
    {
        observing = true;
        deliver = handler;
        return real.observeMounts([this, handler](const std::string& mountPoint) {
            seen.push_back(mountPoint);
            handler(mountPoint);
        });
    }
    void removeObserver() override
    {
        observing = false;
        real.removeObserver();
    }
    kv::MountWatcher real;
    std::vector<std::string> seen;
    bool observing = false;
    Handler deliver;  // as the watcher would, for mount points the test names
};

class MountedVolumes : public kvtest::AgentTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(::geteuid(), 0u) << "mounting a volume needs root: run the core tests as root, as scripts/test.sh does";
    }
    // The agent launched with its workers, quarantining into ~/Quarantine.
    kv::KorvaneVelgar& watch(QJsonObject preferences)
    {
        preferences["VelgarQuarantineFiles"] = true;
        preferences["QuarantineFolder"] = QString::fromStdString(home_ / "Quarantine");
        preferences_.own = preferences;
        kv::KorvaneVelgar& agent = makeController([this](kv::ControllerParts& parts) { parts.volumeEvents = &volumes_; });
        agent.applicationDidFinishLaunching();
        EXPECT_TRUE(agent.isWatching());
        return agent;
    }
    bool seen(size_t count)
    {
        return kvtest::processEventsUntil([&] { return volumes_.seen.size() >= count; });
    }
    static std::string scanLine(const std::string& path)
    {
        return "The volume " + path +
               " was just mounted and we're not supposed to be monitoring it for new content, so just scan it immediately.";
    }

    CountingVolumes volumes_;
};

// A volume mounted while watching is scanned whole only when asked: its
// files one by one, the infected one quarantined.
TEST_F(MountedVolumes, NewVolumeIsScannedWholeOnlyWhenAsked)
{
    for (const QJsonValue& asked : {QJsonValue(QJsonValue::Undefined), QJsonValue(false), QJsonValue(true)}) {
        watch(asked.isUndefined() ? QJsonObject{} : QJsonObject{{"VelgarScanVolumes", asked}});
        ScopedVolume volume;
        const size_t before = volumes_.seen.size();
        ASSERT_TRUE(volume.mount(kvtest::eicar()));
        ASSERT_TRUE(seen(before + 1));
        EXPECT_EQ(volumes_.seen.back(), volume.path());
        EXPECT_EQ(log_.count(scanLine(volume.path())), asked.toBool() ? 1u : 0u);
        const auto quarantined = [&] { return kvtest::exists(home_ / "Quarantine/eicar.com"); };
        EXPECT_EQ(kvtest::waitFor(quarantined, asked.toBool() ? 60000 : 0), asked.toBool());
    }
}

TEST_F(MountedVolumes, WatchedMountPointMountedAgainIsRecognised)
{
    ScopedVolume volume;
    watch({{"VelgarScanVolumes", true},
           {"VelgarFolderArray", QJsonArray{QJsonObject{{"pathName", QString::fromStdString(volume.path())}}}}});
    ASSERT_TRUE(volume.mount());
    ASSERT_TRUE(seen(1));
    volumes_.deliver(volume.path() + "/");
    EXPECT_EQ(log_.count("One of the volumes we're supposed to be watching has just appeared, so don't scan it for the "
                         "time being, just wait for new additions."),
              2u)
        << "without and with the trailing \"/\"";
    volumes_.deliver(volume.path() + "2");
    EXPECT_EQ(log_.count(scanLine(volume.path() + "2")), 1u) << "a name that only begins alike is another volume";
}

TEST_F(MountedVolumes, MountsWhileStoppedAreNeverSeen)
{
    kv::KorvaneVelgar& agent = watch({{"VelgarScanVolumes", true}});
    agent.stopWatcher();
    EXPECT_FALSE(volumes_.observing);
    ScopedVolume whileStopped, afterStart;
    ASSERT_TRUE(whileStopped.mount());
    agent.startWatcher(false);
    EXPECT_TRUE(volumes_.observing);
    ASSERT_TRUE(afterStart.mount());
    ASSERT_TRUE(seen(1));
    EXPECT_EQ(volumes_.seen, std::vector<std::string>{afterStart.path()});
    EXPECT_EQ(log_.count(scanLine(whileStopped.path())), 0u);
}

} // namespace
