#!/usr/bin/env bash
# Sets up the machine, builds the release configuration and shows
# kestrune-mcp serving a harness: a scripted MCP exchange over stdio
# (initialize, tools/list, tools/call) while the Kestrune app is not running.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
cmake --preset release >/dev/null
cmake --build --preset release -j "${JOBS:-2}" --target kestrune-mcp
python3 scripts/mcp-exchange.py ./build/release/kestrune_mcp/kestrune-mcp
