#!/usr/bin/env bash
# Installs what the project needs on Debian 12 (bookworm).
#   scripts/install-deps.sh            building and running, plus testing, fuzzing, benchmarking
#                                      and the node-opcua server of the interop tests
#   scripts/install-deps.sh --run      building and running only (the libraries, the plug-in,
#                                      m2ctl, m2-sim): what scripts/run.sh needs
#   scripts/install-deps.sh --sources  only the APT sources and the pin, for this project's
#                                      Debian packages, which then install with apt
# Idempotent: a machine that already has every package is left alone.
#
# open62541 1.4 is not in bookworm; it comes from Debian 13 (trixie) under a strict pin
# that admits only the open62541 and mbedtls packages from there. Boost 1.83 comes from
# bookworm-backports. Both suites are fetched from the mirror that the machine already
# uses for bookworm.
set -euo pipefail

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "install-deps: run as root or install sudo" >&2; exit 1; }
    SUDO="sudo"
fi

# Packages allowed from trixie, and nothing else.
TRIXIE_PKGS="libopen62541-1.4 libopen62541-1.4-dev libopen62541-1.4-tools libmbedtls-dev libmbedtls21 libmbedcrypto16 libmbedx509-7"

case "${1:-}" in
    "") scope=all ;;
    --run) scope=run ;;
    --sources) scope=sources ;;
    *) echo "usage: scripts/install-deps.sh [--run|--sources]" >&2; exit 2 ;;
esac

# Building and running.
PACKAGES=(
    build-essential cmake ca-certificates
    libopen62541-1.4-dev libopen62541-1.4-tools libmbedtls-dev
    libboost1.83-dev libboost-thread1.83-dev libboost-system1.83-dev
    libboost-url1.83-dev libboost-program-options1.83-dev
    liblog4cplus-dev
)
if [ "$scope" = all ]; then
    # Tests, benchmarks, and the fuzz targets (clang's libFuzzer).
    PACKAGES+=(googletest libgtest-dev libgmock-dev libbenchmark-dev clang clang-format libclang-rt-14-dev)
    # The interop tests' second server runs on Node.js: Debian's own unless one is installed.
    command -v node >/dev/null || PACKAGES+=(nodejs npm)
fi

# node-opcua for those tests, as interop/package-lock.json pins it, when missing or stale.
interop_modules() {
    [ "$scope" = all ] || return 0
    local dir lock
    dir="$(cd "$(dirname "$0")/.." && pwd)/interop"
    lock="$dir/node_modules/.package-lock.json"
    if [ ! -f "$lock" ] || [ "$dir/package-lock.json" -nt "$lock" ]; then
        echo "install-deps: npm ci in interop/"
        # Node trusts only its own roots; add the system's, which a network's TLS proxy may need.
        (cd "$dir" && NODE_EXTRA_CA_CERTS="${NODE_EXTRA_CA_CERTS:-/etc/ssl/certs/ca-certificates.crt}" \
            npm ci --no-audit --no-fund)
    fi
}

missing=()
for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "$scope" != sources ] && [ ${#missing[@]} -eq 0 ] && [ -f /etc/apt/preferences.d/duvo-opcua.pref ]; then
    echo "install-deps: all packages present"
    interop_modules
    exit 0
fi
[ "$scope" = sources ] || echo "install-deps: installing ${missing[*]}"

export DEBIAN_FRONTEND=noninteractive
APT_OPTS=(-y -q -o Dpkg::Use-Pty=0)

# The mirror of bookworm's main suite, as this machine is configured.
mirror=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 2>/dev/null \
    | awk '$2 == "bookworm" { print $1; exit }')
if [ -z "$mirror" ]; then
    $SUDO apt-get update -q
    mirror=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 2>/dev/null \
        | awk '$2 == "bookworm" { print $1; exit }')
fi
[ -n "$mirror" ] || { echo "install-deps: no bookworm source configured in apt" >&2; exit 1; }

sources=/etc/apt/sources.list.d/duvo-opcua.sources
want_sources="Types: deb
URIs: ${mirror}
Suites: trixie bookworm-backports
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg"
if [ ! -f "$sources" ] || [ "$(cat "$sources")" != "$want_sources" ]; then
    # trixie's signing keys need a recent keyring.
    $SUDO apt-get update -q
    $SUDO apt-get install "${APT_OPTS[@]}" --only-upgrade debian-archive-keyring
    printf '%s\n' "$want_sources" | $SUDO tee "$sources" >/dev/null
fi

# apt ignores files in preferences.d with an extension other than .pref.
prefs=/etc/apt/preferences.d/duvo-opcua.pref
want_prefs="Package: ${TRIXIE_PKGS}
Pin: release n=trixie*
Pin-Priority: 500

Package: *
Pin: release n=trixie*
Pin-Priority: -1"
if [ ! -f "$prefs" ] || [ "$(cat "$prefs")" != "$want_prefs" ]; then
    printf '%s\n' "$want_prefs" | $SUDO tee "$prefs" >/dev/null
fi

$SUDO apt-get update -q
if [ "$scope" = sources ]; then
    echo "install-deps: APT sources and pin in place"
    exit 0
fi
$SUDO apt-get install "${APT_OPTS[@]}" --no-install-recommends "${PACKAGES[@]}"

# Nothing but the pinned packages may come from trixie.
# A version counts as trixie's when trixie is the only archive that has it.
stray=$(apt-cache policy $(dpkg-query -W -f='${Package} ') 2>/dev/null | awk -v allowed=" $TRIXIE_PKGS " '
    function flush() {
        if (inst && trixie && !other && index(allowed, " " pkg " ") == 0) print pkg
        inst = 0; trixie = 0; other = 0
    }
    /^[^ ]/ { flush(); pkg = $1; sub(/:$/, "", pkg); next }
    /^ \*\*\* / { flush(); inst = 1; next }
    /^     [^ ]/ { flush(); next }
    inst && /^        / { if ($0 ~ / trixie\//) trixie = 1; else if ($0 !~ /dpkg\/status/) other = 1 }
    END { flush() }')
if [ -n "$stray" ]; then
    echo "install-deps: packages installed from trixie outside the pin: $stray" >&2
    exit 1
fi
interop_modules
echo "install-deps: done"
