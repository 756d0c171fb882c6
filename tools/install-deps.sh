#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with; quiet when nothing is missing.
# With --fuzz, also clang and libFuzzer's runtime (for `make fuzz`).
set -euo pipefail
packages=(cmake g++ make libhdf5-dev hdf5-tools libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev libdeflate-dev libgoogle-perftools-dev libstb-dev libproj-dev proj-data nlohmann-json3-dev python3-h5py clang-format ccache
  slurm-wlm munge  # Slurm and munge: the `cluster` test starts their daemons
  time)  # GNU time: peak memory in bench/threads-throughput.sh
# libclang_rt.fuzzer comes with libclang-rt-dev, which clang only recommends.
[ "${1:-}" = "--fuzz" ] && packages+=(clang libclang-rt-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Node and npm may come from outside Debian's packages; only ask apt when they are absent.
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
