#!/usr/bin/env bash
# deps.sh -- installs what a fresh Debian 12 machine lacks to build, test and
# demonstrate the reflector. Idempotent: installs only missing packages.
set -euo pipefail

packages=(
	build-essential cmake ninja-build pkg-config
	libevent-dev libgtest-dev libgmock-dev libbenchmark-dev libpcap-dev
	nlohmann-json3-dev
	clang libclang-rt-14-dev
	iproute2 tcpdump mandoc gnuplot-nox valgrind systemd
	procps psmisc file dpkg-dev lintian
	# promtool and node_exporter check orvalindwarden-stat's metrics; where
	# systemd runs, apt starts their services (systemctl disable --now them)
	prometheus prometheus-node-exporter
)

missing=()
for p in "${packages[@]}"; do
	dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' ||
		missing+=("$p")
done
if ((${#missing[@]})); then
	if [ "$(id -u)" -ne 0 ]; then
		echo "deps.sh: missing packages (${missing[*]}); run as root" >&2
		exit 1
	fi
	export DEBIAN_FRONTEND=noninteractive
	apt-get update -q
	apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
