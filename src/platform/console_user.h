// The user at the console: the uid of the active session of seat0 as systemd-logind reports it
// (sd-login). Asks afresh at every call; safe on any thread.
#pragma once

#include <cstdint>
#include <optional>

// The uid of seat0's active session; none when the seat has no active session, when that session
// is a greeter's (the login screen), or when sd-login cannot say.
std::optional<std::uint32_t> activeConsoleUser();
