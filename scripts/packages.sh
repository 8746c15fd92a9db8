# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
#
# Sourced by the other scripts: which Debian 12 packages each of them needs, and
# how they get there.

# What it takes to build the daemon.
BUILD_PACKAGES="g++ cmake ninja-build pkg-config libsystemd-dev
  libcurl4-openssl-dev libssl-dev libboost1.81-dev"
# What it takes to run it beside its peers in a sandbox. curl plays the one who
# revokes the access token in the demo.
SANDBOX_PACKAGES="bubblewrap curl dbus-daemon openssl python3 python3-dbus
  python3-gi python3-h2 systemd"
# What the checks need on top.
TEST_PACKAGES="git mandoc libgtest-dev libgmock-dev clang clang-format
  clang-tidy dbus-broker libbenchmark-dev python3-pytest python3-seccomp"
[ "$(id -u)" -eq 0 ] || TEST_PACKAGES="$TEST_PACKAGES uidmap"

# What makes a Debian package, and what checks it in small Debian systems.
PACKAGE_PACKAGES="build-essential debhelper fakeroot git lintian"
PACKAGE_CHECK_PACKAGES="debootstrap python3 python3-pytest util-linux"

# What is measured beside the daemon, and measures it.
BENCH_PACKAGES="binutils ca-certificates curl libbenchmark-dev nginx-light
  python3-aiohttp python3-dbus-next"

# What the fuzzers need besides.
FUZZ_PACKAGES="libclang-rt-14-dev"

# install_packages NAME...: installs those that are missing, and says which.
install_packages() {
  local missing="" name
  for name in "$@"; do
    case "$(dpkg-query -W -f '${Status}' "$name" 2>/dev/null)" in
      "install ok installed") ;;
      *) missing="$missing $name" ;;
    esac
  done
  [ -n "$missing" ] || return 0
  echo "Installing Debian packages:$missing"
  local as_root=""
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
      echo "These packages are missing, and there is neither root nor sudo" \
        "to install them:$missing" >&2
      return 1
    }
    as_root="sudo"
  fi
  $as_root apt-get update -q
  # shellcheck disable=SC2086  # One word each.
  $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q \
    --no-install-recommends $missing
}
