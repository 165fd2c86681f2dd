// The helper's listening socket: the one systemd hands over (socket activation), or a Unix stream
// socket the helper binds at its fixed path with mode 0666. Called once at start.
#pragma once

#include <string>

// The listening descriptor (close-on-exec): fd 3 when LISTEN_PID names this process and
// LISTEN_FDS is 1 (both variables are then cleared); otherwise a socket bound at `path`. A stale
// socket file at the path is removed first; a socket some process still listens on, or any other
// kind of file, is left alone. -1 on failure, with `error` set to the sentence to log.
int openServiceSocket(const std::string& path, std::string& error);

// Only the binding half of openServiceSocket, for a path of the caller's choosing.
int bindServiceSocket(const std::string& path, std::string& error);
