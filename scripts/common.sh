# Shared by the scripts beside it; to be sourced. Sets the project's folder as the working folder.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Debian packages that a build of everything needs: compilers, the client's libraries, the tests'
# oracles.
build_packages=(
  cmake g++ ninja-build pkg-config uuid-dev
  libblkid-dev libcli11-dev libfmt-dev libfuse3-dev nlohmann-json3-dev
  libgtest-dev libbenchmark-dev liblzo2-dev libssl-dev
  e2fsprogs fdisk fuse2fs fuse3 gdisk util-linux
)
check_packages=(clang clang-format clang-tidy)

# A compiler cache is used where there is one.
if command -v ccache >/dev/null; then
  export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# install_packages NAME...: installs those that are missing.
install_packages() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "Installing: ${missing[*]}"
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" apt-get update -q
  DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -q -y --no-install-recommends \
    "${missing[@]}"
}

# configure_preset NAME [cmake arguments]: configures, with Ninja in a folder that is new.
configure_preset() {
  local preset=$1 folder=build
  shift
  [ "$preset" = release ] || folder=build-$preset
  [ -e "$folder/CMakeCache.txt" ] || set -- -G Ninja "$@"
  cmake --preset "$preset" "$@"
}
