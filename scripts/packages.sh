# Sourced by the scripts: Debian packages, installed when they are missing.

# Architecture-qualified names ("libgtest-dev:amd64") are how dpkg prints them; the query takes plain names.
missing_packages() {
  local package
  for package in "$@"; do
    dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null | grep -q '^install ok installed$' || echo "$package"
  done
}

need_packages() {
  local missing as_root=
  missing=$(missing_packages "$@")
  [ -z "$missing" ] && return 0

  if [ "$(id -u)" -ne 0 ]; then
    as_root=sudo
    command -v sudo >/dev/null || { echo "Not root, and no sudo: please install" $missing >&2; return 1; }
  fi
  echo "Installing Debian packages:" $missing
  $as_root apt-get update -q >/dev/null || return 1
  # shellcheck disable=SC2086
  $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing >/dev/null
}

packages_build="g++ cmake make libcli11-dev nlohmann-json3-dev"
packages_unit="$packages_build libgtest-dev"
packages_test="$packages_unit git pkg-config googletest faketime clang-format python3 ffmpeg chromium
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  g++-arm-linux-gnueabihf qemu-user-static binutils"
packages_fuzz="$packages_unit clang-14 libclang-rt-14-dev"
packages_analyse="cppcheck clang-tidy"
