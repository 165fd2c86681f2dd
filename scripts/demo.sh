#!/usr/bin/env bash
# The helper's main job on a fresh machine: installs what is missing, builds, and shows the pf
# ruleset the helper would enforce for the sample policy (samples/policy.json) on this machine.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build "" tarnly-firewall-preview
build/tarnly-firewall-preview samples/policy.json
