#!/usr/bin/env bash
# Installs what the project builds and tests with, from Debian 12's packages. Run as root.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  qtbase5-dev qttools5-dev qttools5-dev-tools
  libkf5calendarcore-dev
  libgoogle-glog-dev libunwind-dev libcli11-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev clang-format
  dbus
  ffmpeg xvfb x11-xserver-utils
  # sd-bus for the D-Bus back-ends' bus check; the user service: sd_notify, and
  # systemd-analyze with systemd's pkg-config file.
  libsystemd-dev systemd
  # Real desktop services in the tests: logind mocked, and a notification server on Xvfb.
  python3-dbusmock dunst
  # Where bash completions go (its pkg-config file), and fish to try the fish completion.
  bash-completion fish
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" \
    || missing+=("$package")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages: ${missing[*]}; run this script as root" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
