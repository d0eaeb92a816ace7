#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Installs the Debian packages the project needs, only those missing (with
# sudo when not root). ZAV_EXTRA_PACKAGES adds more, for the fuzzing and
# benchmark scripts.
set -euo pipefail

packages=(
    cmake g++ make pkg-config zlib1g-dev
    qtbase5-dev qtbase5-dev-tools libqt5svg5
    libkf5i18n-dev extra-cmake-modules gettext
    fonts-dejavu-core xvfb xauth locales
    fuse3 python3-fusepy
    qt5-image-formats-plugins kimageformat-plugins
)
read -r -a extra <<<"${ZAV_EXTRA_PACKAGES:-}"
packages+=("${extra[@]}")

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        sudo=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
