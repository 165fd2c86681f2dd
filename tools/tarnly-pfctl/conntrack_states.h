// The kernel's connection tracking as pf's state table: how many states there are, and killing
// the states of an address range. Functions of the calling process's network namespace; safe from
// any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "pf_ruleset_parser.h"

// The number of tracked connections; 0 when connection tracking is not loaded.
size_t conntrackStateCount();

// Deletes the IPv4 connections whose original source lies in `source` and original destination
// in `destination` (`any` matches everything). Returns how many went; nothing when the kernel's
// table cannot be read, with the reason in `error`.
std::optional<size_t> conntrackKill(const PfAddress& source, const PfAddress& destination,
                                    std::string& error);
