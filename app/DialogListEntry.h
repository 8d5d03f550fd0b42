#pragma once

namespace kv {

// An open warning dialog as the controller's dialog list holds it: the
// desktop's FileRemover. Created, listed and closed on the main thread.
class DialogListEntry {
public:
    virtual ~DialogListEntry() = default;

    // Closes the dialog without touching its file and disposes of the entry
    // once the current event has been handled. The caller takes the entry off
    // the list itself.
    virtual void ignoreWarning() = 0;
};

} // namespace kv
