# Sourced by the set-up scripts: installs the Debian packages that are missing.
# Usage: ensure_packages pkg1 pkg2 ...
ensure_packages() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing missing packages: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -q
    $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
  fi
}

VORSIM_BUILD_PACKAGES=(build-essential cmake pkg-config ccache libeigen3-dev libode-dev libtinyxml-dev libpng-dev)
VORSIM_TEST_PACKAGES=(libgtest-dev libmujoco-dev)
VORSIM_BENCH_PACKAGES=(libmujoco-dev libbullet-dev)

build_jobs() { nproc 2>/dev/null || echo 2; }
