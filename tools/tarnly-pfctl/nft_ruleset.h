// The nftables form of pf for tarnly-pfctl: the scripts that load the anchor and enable pf in one
// table of its own, and the reading of that table back into pf's terms. Pure functions of their
// arguments; safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pf_ruleset_parser.h"

// The one table tarnly-pfctl owns (family inet); nothing outside it is ever touched.
extern const char* const nftTableName;

// A loaded rule read back from the kernel, with what the kernel counted for it.
struct NftLoadedRule {
  PfRule rule;
  PfCounters counters;
};

// The table as the kernel holds it.
struct NftTableState {
  bool exists = false;
  bool enabled = false;  // both base chains are there
  std::vector<NftLoadedRule> rules;
};

// The script that replaces the anchor with `rules` in one transaction, keeping the base chains
// when `enabled` (pf on) and leaving them out otherwise. Fails (nothing) only when a rule cannot
// be carried, with the reason in `error`.
std::optional<std::string> nftLoadScript(const std::vector<PfRule>& rules, bool enabled,
                                         std::string& error);

// The script that adds the base chains (pf on) to the table as it is in `current`, creating the
// table and empty anchor chains when missing.
std::string nftEnableScript(const NftTableState& current);

// Reads a JSON listing (`nft -j list table inet ...` or `nft -j list chains inet`) for the table;
// a listing that does not hold the table gives a state that does not exist. Rules come only with
// the table's listing.
NftTableState nftTableStateFromJson(const std::string& json);
