#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, fuzz and
# benchmark. Idempotent: packages already present are left alone.
set -euo pipefail

packages=(
  # build
  cmake ninja-build g++ clang clang-format libclang-rt-14-dev ccache pkg-config
  # libraries
  libgtest-dev libgmock-dev libbenchmark-dev
  libsqlite3-dev sqlite3 libssl-dev openssl libpcre2-dev nlohmann-json3-dev
  libgmime-3.0-dev libglib2.0-dev libfmt-dev
  libsecret-1-dev libcurl4-openssl-dev
  # real peers used by the tests
  dovecot-imapd dovecot-submissiond python3 python3-aiosmtpd
  gnome-keyring dbus-daemon dbus-bin libsecret-tools
  # MIME edge-case corpus used by the tests
  libpython3.11-testsuite
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

# Node.js and npm run the MCP client SDK used as the harness in tests. A
# machine that already has them (from any source) keeps its own.
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)

if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  if [ "$(id -u)" -ne 0 ]; then sudo_cmd="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# Dovecot's packaged service is never used: the tests start their own
# instances on loopback with private configurations.

echo "setup: all packages present"
