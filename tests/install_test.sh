#!/usr/bin/env bash
# install_test.sh -- what the Debian package installs, and that its unit and
# manual pages pass their linters.
#
# usage: install_test.sh BUILD_DIR SOURCE_DIR (package|lint)
#   package  builds the package with cpack from BUILD_DIR into a temporary
#            directory, checks its file list, its control fields and the
#            conffile, and verifies the installed unit with systemd-analyze
#   lint     lints every manual page with mandoc
# Exit status: 0 pass, 1 fail, 77 skipped (a needed program is missing).
set -euo pipefail
build=$1
src=$2
what=$3

fail() {
	echo "FAIL: $*" >&2
	exit 1
}
need() {
	for p in "$@"; do
		command -v "$p" >/dev/null || {
			echo "SKIP: $p is not installed (scripts/deps.sh installs it)"
			exit 77
		}
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
	cpack -G DEB -B "$tmp" --config "$build/CPackConfig.cmake" >"$tmp/cpack.log" 2>&1 ||
		{ cat "$tmp/cpack.log"; fail "cpack"; }
	deb=$(ls "$tmp"/orvalindwarden_*.deb)
	prefix=$(sed -n 's/^set(CPACK_PACKAGING_INSTALL_PREFIX "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
	[ -n "$prefix" ] || fail "no packaging prefix in CPackConfig.cmake"

	# Every file the package must carry.
	dpkg-deb -c "$deb" | awk '{print $6}' | sed 's#^\./#/#' >"$tmp/files"
	for f in \
		"$prefix/sbin/orvalindwarden" \
		"$prefix/bin/orvalindwarden-stat" "$prefix/bin/orvalindwarden-ctl" \
		"$prefix/bin/sbfd-ping" "$prefix/bin/blcat" \
		"$prefix/lib/systemd/system/orvalindwarden.service" \
		"$prefix/lib/systemd/system/orvalindwarden@.service" \
		/etc/default/orvalindwarden \
		"$prefix/share/man/man8/orvalindwarden.8" "$prefix/share/man/man8/orvalindwarden-stat.8" \
		"$prefix/share/man/man8/orvalindwarden-ctl.8" "$prefix/share/man/man8/sbfd-ping.8" \
		"$prefix/share/man/man1/blcat.1"; do
		grep -qx "$f" "$tmp/files" || { cat "$tmp/files"; fail "package lacks $f"; }
	done
	# No test or benchmark program slips into the package.
	if grep -E '_test$|_bench$|/bench' "$tmp/files"; then
		fail "package carries test programs"
	fi

	# Control fields.
	dpkg-deb -I "$deb" >"$tmp/info"
	for field in 'Package: orvalindwarden' 'Maintainer: ' 'Architecture: ' 'Depends: .*libevent' \
		'Section: net' 'Version: '; do
		grep -q "^ $field" "$tmp/info" || { cat "$tmp/info"; fail "control lacks \"$field\""; }
	done
	dpkg-deb -e "$deb" "$tmp/control"
	grep -qx /etc/default/orvalindwarden "$tmp/control/conffiles" || fail "the environment file is not a conffile"

	# The units as installed. systemd-analyze checks their syntax and
	# directives, and that ExecStart names an executable: pointed at the
	# packaged daemon (the prefix is not installed on this machine). The
	# template is checked as instance "blue". Warnings do not change its
	# exit status, so any output fails.
	if command -v systemd-analyze >/dev/null; then
		dpkg-deb -x "$deb" "$tmp/root"
		unitdir=$tmp/root$prefix/lib/systemd/system
		grep -q "^ExecStart=$prefix/sbin/orvalindwarden " "$unitdir/orvalindwarden.service" ||
			fail "ExecStart does not name the packaged daemon"
		mkdir "$tmp/units"
		for pair in orvalindwarden.service:orvalindwarden.service \
			orvalindwarden@.service:orvalindwarden@blue.service; do
			sed "s#^ExecStart=$prefix/sbin/#ExecStart=$tmp/root$prefix/sbin/#" \
				"$unitdir/${pair%%:*}" >"$tmp/units/${pair#*:}"
			(cd "$tmp/units" && systemd-analyze verify --man=no "./${pair#*:}") >"$tmp/verify" 2>&1 ||
				{ cat "$tmp/verify"; fail "systemd-analyze verify rejects ${pair%%:*}"; }
			if [ -s "$tmp/verify" ]; then
				cat "$tmp/verify"
				fail "systemd-analyze verify warns about ${pair%%:*}"
			fi
		done
	else
		echo "systemd-analyze missing: unit not verified"
	fi
	;;
*)
	fail "unknown check $what"
	;;
esac
echo PASS
