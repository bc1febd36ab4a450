#!/usr/bin/env bash
# Prepares a Debian 12 machine for quillon_event_log::QuillonEventLog and
# builds it in place.  Safe to run again and again: packages that are already
# installed are not touched (apt-get is not called at all then), Makefile.PL is
# run only when the Makefile is missing or older than it, and make rebuilds
# only what changed.  Run as root, or as a user with sudo, from anywhere.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

packages=(
    build-essential
    perl
    libprotobuf-dev
    protobuf-compiler
    pkg-config
    libextutils-cppguess-perl
    libtest-leaktrace-perl
    libgoogle-protocolbuffers-perl
    libjson-xs-perl
    perl-doc
    libsereal-perl
    libcbor-xs-perl
    zlib1g-dev
    libterm-progressbar-perl
    libio-pty-perl
    python3
    python3-protobuf
    jq
    gzip
    parallel
    libhtml-parser-perl
)

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    case "$status" in
        *" installed") ;;
        *) missing+=("$package") ;;
    esac
done

if ((${#missing[@]})); then
    echo "setup-and-build: installing ${missing[*]}"
    if [ "$(id -u)" -eq 0 ]; then
        as_root=()
    elif command -v sudo >/dev/null 2>&1; then
        as_root=(sudo)
    else
        echo "setup-and-build: run as root to install ${missing[*]}" >&2
        exit 1
    fi
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
fi

if [ ! -f Makefile ] || [ ! Makefile -nt Makefile.PL ]; then
    perl Makefile.PL
fi
make
