#!/usr/bin/env bash
# Installs what building and testing sxscan needs on Debian bookworm, the
# Windows builds included (the MinGW-w64 cross compilers and zlib for them,
# wine64 to run the x86-64 tests, Xvfb for screenshots of the real dialogs),
# what `sxscan serve` is built and tested with (libmicrohttpd, pugixml, Avahi;
# cpp-httplib and sane-airscan as its test clients; headless Chromium, its
# driver, Selenium and Pillow to test its web page in a browser), and the PDF
# readers the tests check written documents with (qpdf, poppler's pdfinfo and
# pdftoppm).
# Safe to run again: when every package is installed already, apt is not
# touched.
set -euo pipefail

PACKAGES=(cmake g++ g++-multilib make binutils googletest libgtest-dev libbenchmark-dev
          libpng-dev libtiff-dev clang libclang-rt-14-dev pkg-config liblcms2-dev
          libjpeg-dev zlib1g-dev libsane-dev sane-utils libopencv-dev qemu-user
          g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix binutils-mingw-w64 libz-mingw-w64-dev
          wine64 xvfb
          libmicrohttpd-dev libcpp-httplib-dev libpugixml-dev libavahi-client-dev sane-airscan avahi-utils
          avahi-daemon doxygen chromium chromium-driver python3-selenium python3-pil qpdf poppler-utils)

missing=()
for package in "${PACKAGES[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done

if ((${#missing[@]} == 0)); then
  echo "setup: all ${#PACKAGES[@]} packages are installed"
  exit 0
fi

echo "setup: installing ${missing[*]}"
if [[ $(id -u) -ne 0 ]]; then
  echo "setup: run as root to install packages" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${PACKAGES[@]}"
