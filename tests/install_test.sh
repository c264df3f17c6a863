#!/usr/bin/env bash
# install_test.sh -- what the Debian package installs, and that its units and
# manual pages pass their linters.
#
# usage: install_test.sh BUILD_DIR SOURCE_DIR (package|lint)
# Exit status: 0 pass, 1 fail, 77 skipped (a needed program is missing).
set -euo pipefail
build=$1 src=$2 what=$3

fail() { echo "FAIL: $*" >&2; exit 1; }
need() {
	for p in "$@"; do
		command -v "$p" >/dev/null || { echo "SKIP: $p is not installed (scripts/deps.sh installs it)"; exit 77; }
	done
}

case $what in
lint)
	need mandoc
	for page in "$src"/man/*.[18]; do
		mandoc -T lint -W warning "$page" || fail "mandoc warns about $page"
	done
	;;
package)
	need cpack dpkg-deb dpkg-shlibdeps
	tmp=$(mktemp -d "${TMPDIR:-/tmp}/orvpkg-$$-XXXXXX")
	trap 'rm -rf "$tmp"' EXIT
	cpack -G DEB -B "$tmp" --config "$build/CPackConfig.cmake" >"$tmp/cpack.log" 2>&1 || { cat "$tmp/cpack.log"; fail cpack; }
	deb=$(ls "$tmp"/orvalindwarden_*.deb)
	p=$(sed -n 's/^set(CPACK_PACKAGING_INSTALL_PREFIX "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")

	# Every file the package must carry, and no test or benchmark program.
	dpkg-deb -c "$deb" | awk '{print $6}' | sed 's#^\./#/#' >"$tmp/files"
	for f in $p/sbin/orvalindwarden $p/bin/{orvalindwarden-stat,orvalindwarden-ctl,sbfd-ping,blcat} \
		$p/lib/systemd/system/orvalindwarden{,@}.service /etc/default/orvalindwarden \
		$p/share/man/man8/{orvalindwarden,orvalindwarden-stat,orvalindwarden-ctl,sbfd-ping}.8 $p/share/man/man1/blcat.1; do
		grep -qx "$f" "$tmp/files" || { cat "$tmp/files"; fail "package lacks $f"; }
	done
	! grep -E '_test$|_bench$|/bench' "$tmp/files" || fail "package carries test programs"
	dpkg-deb -I "$deb" >"$tmp/info"
	for field in 'Package: orvalindwarden' 'Maintainer: ' 'Depends: .*libevent'; do
		grep -q "^ $field" "$tmp/info" || { cat "$tmp/info"; fail "control lacks \"$field\""; }
	done
	dpkg-deb -e "$deb" "$tmp/control"
	grep -qx /etc/default/orvalindwarden "$tmp/control/conffiles" || fail "the environment file is not a conffile"

	# The units as installed, ExecStart pointed at the unpacked daemon (the
	# prefix is not installed here); the template as instance "blue".
	# systemd-analyze warns without failing, so any output fails.
	command -v systemd-analyze >/dev/null || { echo "systemd-analyze missing: units not verified"; echo PASS; exit 0; }
	dpkg-deb -x "$deb" "$tmp/root"
	for pair in orvalindwarden.service:orvalindwarden.service orvalindwarden@.service:orvalindwarden@blue.service; do
		unit=$tmp/root$p/lib/systemd/system/${pair%%:*}
		grep -q "^ExecStart=$p/sbin/orvalindwarden " "$unit" || fail "${pair%%:*}: ExecStart is not the packaged daemon"
		sed "s#^ExecStart=$p/sbin/#ExecStart=$tmp/root$p/sbin/#" "$unit" >"$tmp/${pair#*:}"
		(cd "$tmp" && systemd-analyze verify --man=no "./${pair#*:}") >"$tmp/verify" 2>&1 &&
			[ ! -s "$tmp/verify" ] || { cat "$tmp/verify"; fail "systemd-analyze verify rejects or warns about ${pair%%:*}"; }
	done
	;;
*) fail "unknown check $what" ;;
esac
echo PASS
