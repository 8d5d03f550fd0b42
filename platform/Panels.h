#pragma once

#include <string>

namespace kv {

// The controller's own panels from the main interface file.
enum class Panel {
    NoEngine, // tells the user that the scanning engine cannot be used
    Update,   // shows the outcome of a definitions update
};

// The desktop layer's panels as the core sees them. Callable from any
// thread: the implementation forwards to the main thread and never waits
// for the user.
class Panels {
public:
    virtual ~Panels() = default;
    // Brings the panel to the front, above other windows, even when the
    // agent is not the active application.
    virtual void displayDialog(Panel panel) = 0;
    virtual void setUpdateWindowText(const std::string& text) = 0;
    // The agent turns into a foreground application with an icon of its
    // own. Returns 0 on success, else an error code.
    virtual int transformToForegroundApplication() = 0;
};

} // namespace kv
