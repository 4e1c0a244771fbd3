#!/usr/bin/env bash
# Installs the Debian packages the build, the tools and the tests need, when they are missing.
set -euo pipefail
pkgs=(cmake ninja-build g++ clang libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev
      libcli11-dev nlohmann-json3-dev pkg-config libclang-rt-14-dev python3)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "bootstrap: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
fi
