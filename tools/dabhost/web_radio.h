// dabhost --web: the receiver driven from a browser page. The host's main
// loop tunes, scans and receives as the console front end does, takes the
// page's commands between polls, and publishes a snapshot of what it knows
// for the HTTP threads (web_server.h) to serve.
#pragma once

#include <csignal>

#include "host_options.h"

// Runs until `interrupted` is set, or for -d seconds if given. Returns the
// exit status: 0, or 1 when the port cannot be bound (or this dabhost was
// built without the web page).
int RunWeb(const HostOptions& options, const volatile std::sig_atomic_t& interrupted);
