#!/usr/bin/env bash
# Sets up the machine, builds the release kestrune and kestrune-mcp, and runs
# the Kestrune application on the demonstration mailbox in a data directory
# of its own (KESTRUNE_DEMO_DIR, default ~/.local/share/kestrune-demo), with
# the steps to connect a harness. Ctrl-C stops the application.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
cmake --preset release >/dev/null
cmake --build --preset release -j "${JOBS:-2}" --target kestrune kestrune-mcp
APP="$PWD/build/release/kestrune_app/kestrune"
HELPER="$PWD/build/release/kestrune_mcp/kestrune-mcp"
DATA="${KESTRUNE_DEMO_DIR:-$HOME/.local/share/kestrune-demo}"
mkdir -p "$DATA" && chmod 700 "$DATA"
"$APP" access on --data-dir "$DATA" >/dev/null
# The socket the app listens on (a long path falls back to /tmp: then use the
# path `serve` prints below).
SOCKET="$DATA/mcp/kestrune.sock"
cat <<TEXT

Kestrune runs on a demonstration mailbox in $DATA.
Connect a harness from another terminal (claude-code, codex, cursor, ...; see --list-harnesses):
  $HELPER --install claude-code --data-dir "$DATA" --socket "$SOCKET"
Answer the confirmations it asks for by typing y or n below, or from another terminal:
  $APP confirm list --data-dir "$DATA"
  $APP confirm yes <id> --data-dir "$DATA"   (asks for the one-time code shown here)
Sending is off until you allow it:  $APP permissions enable send_message --data-dir "$DATA"
The audit log:                      $APP audit --data-dir "$DATA"
All commands:                       $APP --help

TEXT
exec "$APP" serve --demo --data-dir "$DATA"
