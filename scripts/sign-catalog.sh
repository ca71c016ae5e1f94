#!/usr/bin/env bash
# Signs the built-in provider catalog with Ed25519.
#
#   scripts/sign-catalog.sh KEY.pem             signs MailCore/Accounts/catalog/providers.json
#   scripts/sign-catalog.sh KEY.pem FILE        signs FILE (an update), writing FILE.sig
#   scripts/sign-catalog.sh --new-key KEY.pem   makes a new private key at KEY.pem (outside
#                                               the repository) and puts its public half into
#                                               MailCore/Accounts/catalog/providers-public-key.hex
#
# The private key never belongs in the repository: keep it where only the
# people who publish catalogs can read it. A new key makes every catalog
# signed with the old one invalid, the built-in one included: sign it again.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
catalog_dir="$root/MailCore/Accounts/catalog"

if [ "${1:-}" = "--new-key" ]; then
  key="${2:?usage: sign-catalog.sh --new-key KEY.pem}"
  case "$(cd "$(dirname "$key")" && pwd)/" in
    "$root"/*) echo "sign-catalog: keep the private key outside the repository" >&2; exit 64 ;;
  esac
  [ -e "$key" ] && { echo "sign-catalog: $key exists; not replaced" >&2; exit 1; }
  (umask 077 && openssl genpkey -algorithm ed25519 -out "$key")
  openssl pkey -in "$key" -pubout -outform DER | tail -c 32 | od -An -tx1 | tr -d ' \n' \
    > "$catalog_dir/providers-public-key.hex"
  echo >> "$catalog_dir/providers-public-key.hex"
  echo "sign-catalog: new key at $key; public key written; now sign the catalog with it"
  exit 0
fi

key="${1:?usage: sign-catalog.sh KEY.pem [CATALOG]}"
file="${2:-$catalog_dir/providers.json}"
openssl pkeyutl -sign -rawin -inkey "$key" -in "$file" | base64 -w0 > "$file.sig"
echo >> "$file.sig"
echo "sign-catalog: wrote $file.sig"
