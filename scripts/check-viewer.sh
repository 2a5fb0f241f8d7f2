#!/usr/bin/env bash
# Opens a trace export in speedscope, in headless Chromium, and fails on an import error or when
# no frame named after a zep operation shows; saves a screenshot.
#
#   scripts/check-viewer.sh TRACE.json SCREENSHOT.png [FRAME NAME...]
# Installs what it needs when run as root: Debian's chromium and nodejs/npm, and the npm packages
# speedscope and playwright-core (into $ZEP_VIEWER_DIR, default build/viewer).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
json=$(realpath "$1")
shot=$(realpath -m "$2")
shift 2
names=("$@")
[ ${#names[@]} -gt 0 ] || names=(zepFileRename ZEPHFile::open zepFileDelete)
dir=${ZEP_VIEWER_DIR:-$here/../build/viewer}
mkdir -p "$dir"
dir=$(realpath "$dir")

missing=()
command -v chromium >/dev/null || missing+=(chromium)
command -v npm >/dev/null || missing+=(npm)
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ]; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
  else
    echo "check-viewer: needs ${missing[*]}: sudo apt-get install ${missing[*]}" >&2
    exit 1
  fi
fi
if [ ! -d "$dir/node_modules/speedscope" ] || [ ! -d "$dir/node_modules/playwright-core" ]; then
  (cd "$dir" && { [ -f package.json ] || npm init -y >/dev/null; } &&
   npm install --silent --no-audit --no-fund speedscope playwright-core >/dev/null 2>&1)
fi

# Speedscope fetches the profile by URL: serve both from one local directory.
site=$(mktemp -d)
trap 'kill $server 2>/dev/null || true; rm -rf "$site"' EXIT
cp -r "$dir/node_modules/speedscope/dist/release" "$site/speedscope"
cp "$json" "$site/trace.json"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
python3 -m http.server "$port" --bind 127.0.0.1 --directory "$site" >/dev/null 2>&1 &
server=$!
for _ in $(seq 50); do
  python3 -c "import urllib.request; urllib.request.urlopen('http://127.0.0.1:$port/trace.json')" \
    2>/dev/null && break
  sleep 0.1
done
cp "$here/check-viewer.mjs" "$dir/check-viewer.mjs"
node "$dir/check-viewer.mjs" "http://127.0.0.1:$port/speedscope/index.html" \
  "http://127.0.0.1:$port/trace.json" "$shot" "${names[@]}"
