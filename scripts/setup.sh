#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, if missing.
# Usage: scripts/setup.sh [extra-package ...]
set -euo pipefail
packages=(cmake ninja-build g++ clang libclang-rt-14-dev pkg-config valgrind python3 python3-numpy
          python3-setuptools python3-wheel python3-pip python3-soundfile python3-distributed
          libgtest-dev libsndfile1-dev libsoxr-dev libmpg123-dev sox espeak-ng groff-base
          libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools gstreamer1.0-plugins-base
          gstreamer1.0-plugins-good gstreamer1.0-plugins-bad python3-gi gir1.2-gstreamer-1.0 gir1.2-gst-plugins-base-1.0 pulseaudio pulseaudio-utils
          "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "setup: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
