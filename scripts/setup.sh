#!/usr/bin/env bash
# Installs every Debian package the build and the tests need, when missing.
# Safe to run again: packages already present are left alone.
set -euo pipefail

PKGS=(cmake ninja-build g++ pkg-config
      libgtest-dev libgmock-dev libbenchmark-dev librapidcheck-dev
      libtinyxml-dev libsqlite3-dev libcli11-dev libfmt-dev libstb-dev
      g++-mingw-w64-i686 g++-mingw-w64-x86-64 binutils-mingw-w64-i686 binutils-mingw-w64-x86-64
      wine64 dpkg-dev
      ntfs-3g-dev ntfs-3g python3-libfsntfs)

missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"

# The Windows builds compile TinyXML from Debian's source package, so a deb-src entry is needed.
need_src=0
if ! ls /var/lib/apt/lists/*_source_Sources* >/dev/null 2>&1 && ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ && ! grep -qs '^deb-src' /etc/apt/sources.list; then
  need_src=1
fi
if [ "$need_src" -eq 1 ]; then
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    $SUDO sed -i 's/^Types: deb$/Types: deb deb-src/' /etc/apt/sources.list.d/debian.sources
  elif [ -f /etc/apt/sources.list ]; then
    grep '^deb ' /etc/apt/sources.list | sed 's/^deb /deb-src /' | $SUDO tee /etc/apt/sources.list.d/glidewell-src.list >/dev/null
  fi
fi

if [ "${#missing[@]}" -gt 0 ] || [ "$need_src" -eq 1 ]; then
  echo "setup: installing ${missing[*]:-source lists}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  [ "${#missing[@]}" -eq 0 ] || $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# TinyXML source for the mingw builds, unpacked once into .deps/ (never committed).
top="$(cd "$(dirname "$0")/.." && pwd)"
if [ ! -f "$top/.deps/tinyxml/tinyxml.cpp" ]; then
  tmp="$(mktemp -d)"
  (cd "$tmp" && apt-get source -qq tinyxml >/dev/null 2>&1) || { echo "setup: apt-get source tinyxml failed" >&2; exit 1; }
  src="$(find "$tmp" -maxdepth 1 -type d -name 'tinyxml-*' | head -n1)"
  mkdir -p "$top/.deps/tinyxml"
  cp "$src"/tinyxml.cpp "$src"/tinyxml.h "$src"/tinyxmlerror.cpp "$src"/tinyxmlparser.cpp "$src"/tinystr.cpp "$src"/tinystr.h "$top/.deps/tinyxml/"
  rm -rf "$tmp"
fi
