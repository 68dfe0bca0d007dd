// The readiness attribute, the only state that other processes see: 0 while the
// mirror fills or is gone, 1 while it is whole.
#pragma once

namespace qdb
{

inline constexpr char kReadyKey[] =
    "Tarnu.Embedded.1#QuillonDB.1#IsQuillonDBReady";

// Start-up's first act: clears the attribute, and with it change signals.
void ClearReadiness();

// Start-up's last act: sets the attribute, and with it lets change signals out.
// When that fails the listener tries again on its events.
void PublishReadiness();

// Tries again if publishing is pending. `caller` is named in the log.
void RetryReadiness(const char *caller);

// Closing's last act: clears the attribute.
void WithdrawReadiness();

} // namespace qdb
