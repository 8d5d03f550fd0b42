#pragma once

#include <string>
#include <vector>

namespace kv {

// `velgarctl defaults read|write|delete`: reads and edits the preference
// domains the agent and the main application share, one JSON file per
// domain in the preferences folder. Every edit replaces the file atomically,
// so the agent never reads half a file, and a file that is not valid JSON is
// never overwritten.
class DefaultsCommand {
public:
    // folder: where the domain files live; the user's preferences folder
    // when empty.
    explicit DefaultsCommand(std::string folder = {});

    // arguments: everything after "defaults". Returns the exit status.
    int run(const std::vector<std::string>& arguments);

    std::string pathOfDomain(const std::string& domain) const;

private:
    int read(const std::vector<std::string>& arguments);
    int write(const std::vector<std::string>& arguments);
    int remove(const std::vector<std::string>& arguments);

    std::string folder_;
};

} // namespace kv
