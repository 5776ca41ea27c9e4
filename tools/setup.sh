#!/usr/bin/env bash
# Installs the Debian packages the project needs, once; a second run only checks.
# Usage: tools/setup.sh [run|test]
#   run   what building and running the engine needs (tools/run.sh)
#   test  that, plus the independent checkers and peers the tests call (tools/test.sh, CI)
# The one list of the project's packages: .ci/run, tools/run.sh and tools/test.sh all come here.
set -euo pipefail
what=${1:-test}

# Build tools and libraries of the engine and its tools; iproute2 for the namespaces
# the default run and the SCTP tests make.
run_pkgs=(build-essential cmake ninja-build ccache pkg-config
          libjansson-dev libssl-dev libsctp-dev libusrsctp-dev libpcap-dev libnghttp2-dev libjose-dev
          libgtest-dev libgmock-dev libbenchmark-dev iproute2 python3)
# The independent checks: tshark dissects what we put on the wire, erlang-asn1 is a
# second PER codec, clang builds the libFuzzer targets, libosmocore is a second
# implementation of Milenage and the EPS key derivation; scapy, h2 and the Debian
# peers (nghttp2's server and load client, the Diameter daemon) for the protocol tests.
test_pkgs=(tshark erlang-base erlang-asn1 clang libclang-rt-14-dev libosmocore-dev
           python3-scapy python3-h2 python3-hpack nghttp2-server nghttp2-client
           freediameter freediameter-extensions)

case "$what" in
    run) pkgs=("${run_pkgs[@]}") ;;
    test) pkgs=("${run_pkgs[@]}" "${test_pkgs[@]}") ;;
    *) echo "usage: $0 [run|test]" >&2; exit 2 ;;
esac

missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# The real core network the protocol tests meet, when its scripts sit beside the source
# tree; as root only, since it lives in a network namespace. Its install is idempotent.
rig_install() {
    local rig
    rig="$(cd "$(dirname "$0")/.." && pwd)/../shared/peers/core"
    if [ "$what" = test ] && [ -f "$rig/install.sh" ] && [ "$(id -u)" = 0 ]; then
        bash "$rig/install.sh" >/dev/null || echo "setup: the real core did not install; its tests will be skipped" >&2
    fi
    return 0
}
trap rig_install EXIT
[ ${#missing[@]} -eq 0 ] && exit 0

if [ ! -r /etc/debian_version ] || ! command -v apt-get >/dev/null; then
    echo "setup: this needs Debian 12 (apt-get); missing packages: ${missing[*]}" >&2
    exit 1
fi
sudo=()
if [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || { echo "setup: run as root or install sudo; missing: ${missing[*]}" >&2; exit 1; }
    sudo=(sudo)
fi
echo "setup: installing ${missing[*]}" >&2
# tshark asks whether non-root users may capture; answer no without a prompt.
echo "wireshark-common wireshark-common/install-setuid boolean false" | "${sudo[@]}" debconf-set-selections
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
