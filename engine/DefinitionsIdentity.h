#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace kv {

class ClamdSupervisor;

// What tells the definitions the engine scans with from any others, so that
// a clean verdict is trusted only under the definitions that gave it: the
// engine's answer to VERSION (its version, the definitions' version and
// their date) and, for a daemon on this machine, the name, size and
// modification time of each signature file in the folder it loads them
// from (the DatabaseDirectory of its clamd.conf; see
// ClamdSupervisor::daemonConfigFile()). So a signature file added and
// loaded counts as new definitions even where VERSION stays the same, as it
// does for a database without a versioned daily file. The identity is a
// digest of both, as text.
//
// The engine is asked at most every kRefresh, not for each file; forget()
// makes the next call ask again (after an update of the definitions).
// Nothing while the engine does not answer or is not trusted: no verdict is
// then looked up or kept.
//
// Thread-safe; the supervisor outlives the object. A call that asks holds
// mutex_ meanwhile, so calls at the same time ask once.
class DefinitionsIdentity {
public:
    static constexpr std::chrono::seconds kRefresh{3};

    explicit DefinitionsIdentity(ClamdSupervisor& clamd) : clamd_(clamd) {}

    std::optional<std::string> current();
    void forget();

    // The text the digest is made of: the VERSION answer, then one line per
    // signature file of the folder ("NAME SIZE MTIME_NS"), in name order.
    static std::string describe(std::string_view version, const std::string& databaseFolder);

private:
    ClamdSupervisor& clamd_;
    std::mutex mutex_;
    std::optional<std::string> identity_;                // guarded by mutex_
    std::chrono::steady_clock::time_point askedAt_;      // guarded by mutex_
    bool asked_ = false;                                 // guarded by mutex_
};

} // namespace kv
