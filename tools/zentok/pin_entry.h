// Gives the provider the PIN that the user typed as an option.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <thread>

#include "tools/zentok/csp.h"
#include "tools/zentok/failure.h"

/// Where an operation with a private key gets its PIN while this object lives: from the option, else from the
/// provider's own dialog, which the user answers. A PIN that the token refuses is never tried a second time.
class PinEntry {
public:
    /// `pin` is UTF-8. Throws when the provider refuses it at once.
    PinEntry(const Context& context, const std::optional<std::string>& pin);
    PinEntry(const PinEntry&) = delete;
    PinEntry& operator=(const PinEntry&) = delete;
    ~PinEntry();

    /// The failure of an operation with the last error `code`; says so when it was the PIN that the token refused.
    Failure failure(const std::string& action, DWORD code);

private:
    void answerDialogs(const std::string& pin);
    void stop();

    std::atomic<bool> stopped_ = false;
    bool asked_ = false;   ///< a dialog came; like refusal_ the thread's until it has ended
    std::string refusal_;  ///< what the provider's message box said
    std::thread thread_;
};
