#!/usr/bin/env bash
# install_test.sh -- the Debian package: what it carries, that lintian and the
# unit and manual page linters accept it, what its maintainer scripts do on
# installation, upgrade, removal and purge, and what its units print to the
# journal after a failed run.
#
# usage: install_test.sh BUILD_DIR SOURCE_DIR CHECK
#   CHECK: package, lint, lintian, dpkg-root, maintscripts or failed-run
# Exit status: 0 pass, 1 fail, 77 skipped (a needed program or privilege is missing).
set -euo pipefail
build=$1 src=$2 what=$3 inside=${4:-}

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*"; exit 77; }
need() {
	for p in "$@"; do
		command -v "$p" >/dev/null || skip "$p is not installed (scripts/deps.sh installs it)"
	done
}

# found_package: sets deb (the package in $tmp), p (install prefix), root (unpacked).
found_package() {
	deb=$(ls "$tmp"/orvalindwarden_*.deb)
	p=$(sed -n 's/^set(CPACK_PACKAGING_INSTALL_PREFIX "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
	root=$tmp/root
}
# make_package: builds and unpacks the package in $tmp, removed on exit.
make_package() {
	need cpack dpkg-deb dpkg-shlibdeps
	tmp=$(mktemp -d "${TMPDIR:-/tmp}/orvpkg-$$-XXXXXX")
	trap 'rm -rf "$tmp"' EXIT
	cpack -G DEB -B "$tmp" --config "$build/CPackConfig.cmake" >"$tmp/cpack.log" 2>&1 || { cat "$tmp/cpack.log"; fail cpack; }
	found_package
	dpkg-deb -x "$deb" "$root"
}

# isolated CMD...: runs CMD in new mount and network namespaces (a user one
# too when not root) with an empty tmpfs over each directory that maintainer
# scripts or the daemon write, so that nothing here changes the machine.
PRIVATE_DIRS="/run /var/log /dev/shm /etc/systemd/system"
unshare_as=()
[ "$(id -u)" -eq 0 ] || unshare_as=(-r)
can_isolate() {
	need unshare
	unshare "${unshare_as[@]}" -m -n true 2>/dev/null || skip "this user may not make mount and network namespaces"
	for d in $PRIVATE_DIRS; do
		[ -d "$d" ] || skip "$d is missing: nothing to hide it with"
	done
}
isolated() {
	unshare "${unshare_as[@]}" -m -n --propagation private bash -c '
		set -e
		for d in $0; do mount -t tmpfs orvtest "$d"; done
		exec "$@"' "$PRIVATE_DIRS" "$@"
}

# in_isolation: makes the package and runs this check again under isolated()
# with the package's TEMP_DIR as 4th argument. Returns only there.
in_isolation() {
	if [ -n "$inside" ]; then
		tmp=$inside
		found_package
		return
	fi
	can_isolate
	make_package
	isolated bash "$0" "$build" "$src" "$what" "$tmp"
	exit
}

# unit_line UNIT KEY: the value of KEY in UNIT, continuation lines joined as
# systemd joins them (the backslash becomes a space).
unit_line() {
	sed -e ':a' -e '/\\$/{N;s/\\\n/ /;ba;}' "$1" | sed -n "s/^$2=//p"
}

case $what in
lint)
	need mandoc
	for page in "$src"/man/*.[18]; do
		mandoc -T lint -W warning "$page" || fail "mandoc warns about $page"
	done
	;;
package)
	make_package

	# Every file the package must carry, and no test or benchmark program.
	dpkg-deb -c "$deb" | awk '{print $6}' | sed 's#^\./#/#' >"$tmp/files"
	for f in $p/sbin/orvalindwarden $p/bin/{orvalindwarden-stat,orvalindwarden-ctl,sbfd-ping,blcat} \
		$p/lib/systemd/system/orvalindwarden{,@}.service $p/lib/sysctl.d/60-orvalindwarden.conf \
		/etc/default/orvalindwarden \
		$p/share/man/man8/{orvalindwarden,orvalindwarden-stat,orvalindwarden-ctl,sbfd-ping}.8.gz \
		$p/share/man/man1/blcat.1.gz $p/share/doc/orvalindwarden/{copyright,changelog.gz}; do
		grep -qx "$f" "$tmp/files" || { cat "$tmp/files"; fail "package lacks $f"; }
	done
	! grep -E '_test$|_bench$|/bench' "$tmp/files" || fail "package carries test programs"
	grep -q '^ Depends: .*libevent' <(dpkg-deb -I "$deb") || fail "control does not depend on libevent"
	dpkg-deb -e "$deb" "$tmp/control"
	grep -qx /etc/default/orvalindwarden "$tmp/control/conffiles" || fail "the environment file is not a conffile"

	# Source file names in the programs are relative to the tree (a sanitizer
	# build, never shipped, keeps the sanitizers' own absolute ones).
	if ! grep -q '^ORV_SANITIZE:BOOL=ON' "$build/CMakeCache.txt"; then
		! grep -l -F "$src/" "$root$p"/sbin/* "$root$p"/bin/* || fail "programs name the build's source directory"
	fi

	# Every end of the daemon but a stop by systemctl restarts it: systemd
	# counts these as clean, so on-failure alone would leave it dead.
	for u in orvalindwarden orvalindwarden@; do
		unit=$root$p/lib/systemd/system/$u.service
		[ "$(unit_line "$unit" Restart)" = on-failure ] || fail "$u.service: Restart is not on-failure"
		for status in 0 SIGHUP SIGINT SIGTERM SIGPIPE; do
			unit_line "$unit" RestartForceExitStatus | grep -qw -- "$status" ||
				fail "$u.service: an end by $status does not restart the daemon"
		done
	done

	# The units, ExecStart pointed at the unpacked daemon, the template as
	# instance "blue". systemd-analyze warns without failing: any output fails.
	command -v systemd-analyze >/dev/null || { echo "systemd-analyze missing: units not verified"; echo PASS; exit 0; }
	for pair in orvalindwarden.service:orvalindwarden.service orvalindwarden@.service:orvalindwarden@blue.service; do
		unit=$root$p/lib/systemd/system/${pair%%:*}
		grep -q "^ExecStart=$p/sbin/orvalindwarden " "$unit" || fail "${pair%%:*}: ExecStart is not the packaged daemon"
		sed "s#^ExecStart=$p/sbin/#ExecStart=$root$p/sbin/#" "$unit" >"$tmp/${pair#*:}"
		(cd "$tmp" && systemd-analyze verify --man=no "./${pair#*:}") >"$tmp/verify" 2>&1 &&
			[ ! -s "$tmp/verify" ] || { cat "$tmp/verify"; fail "systemd-analyze verify rejects or warns about ${pair%%:*}"; }
	done
	;;
lintian)
	need lintian
	make_package
	# Tags of every severity shown by default (errors and warnings) fail.
	lintian --fail-on error,warning "$deb" >"$tmp/lintian" 2>"$tmp/lintian.err" &&
		! grep -q '^[EW]: ' "$tmp/lintian" || { cat "$tmp/lintian" "$tmp/lintian.err"; fail "lintian reports errors or warnings"; }
	;;
dpkg-root)
	# The whole life of the package under dpkg in a throwaway root: dpkg runs
	# the scripts outside it with DPKG_ROOT set, as for a system image.
	need dpkg
	in_isolation
	r=$tmp/image
	mkdir -p "$r/var/lib/dpkg/info" "$r/var/lib/dpkg/updates" "$r/var/lib/dpkg/triggers"
	: >"$r/var/lib/dpkg/status"
	dpkg_r() {
		PATH=/usr/sbin:/usr/bin:/sbin:/bin dpkg --root="$r" --force-script-chrootless --force-depends \
			--log=/dev/null "$@" >"$tmp/dpkg.log" 2>&1 || { cat "$tmp/dpkg.log"; fail "dpkg $*"; }
	}
	dpkg_r -i "$deb"
	[ -z "$(ls -A "$r/etc/systemd" 2>/dev/null)" ] || fail "installation enabled a unit"
	[ ! -e "$r/var/log/orvalindwarden" ] || fail "installation made the log directory"

	# What the reflectors leave behind, and neighbours of like names.
	mkdir -p "$r/var/log/orvalindwarden/blue" "$r/var/log/orvalindwarden-other" "$r/dev/shm/orvalindwarden-dir" \
		"$r/etc/systemd/system/multi-user.target.wants"
	touch "$r/var/log/orvalindwarden/orvalindwarden.bl" "$r/var/log/orvalindwarden/blue/orvalindwarden.bl.1" \
		"$r/var/log/orvalindwarden-other/keep" "$r/dev/shm/orvalindwarden" \
		"$r/dev/shm/orvalindwarden-run-netns-blue" "$r/dev/shm/other-store"
	w=$r/etc/systemd/system/multi-user.target.wants
	ln -s /lib/systemd/system/orvalindwarden.service "$w/orvalindwarden.service"
	ln -s /lib/systemd/system/orvalindwarden@.service "$w/orvalindwarden@blue.service"
	ln -s /lib/systemd/system/other.service "$w/other.service"
	ln -s /etc/systemd/system/mine.service "$w/orvalindwarden@mine.service"
	ours="$r/var/log/orvalindwarden $r/dev/shm/orvalindwarden $r/dev/shm/orvalindwarden-run-netns-blue
		$w/orvalindwarden.service $w/orvalindwarden@blue.service"
	theirs="$r/var/log/orvalindwarden-other/keep $r/dev/shm/orvalindwarden-dir $r/dev/shm/other-store
		$w/other.service $w/orvalindwarden@mine.service"

	dpkg_r -r orvalindwarden
	for f in $ours $theirs $r/etc/default/orvalindwarden; do
		[ -e "$f" ] || [ -L "$f" ] || fail "removal without purge deleted ${f#"$r"}"
	done
	dpkg_r -P orvalindwarden
	for f in $ours $r/etc/default/orvalindwarden; do
		[ ! -e "$f" ] && [ ! -L "$f" ] || fail "purge left ${f#"$r"}"
	done
	for f in $theirs; do [ -e "$f" ] || [ -L "$f" ] || fail "purge deleted ${f#"$r"}, which is not the package's"; done
	;;
maintscripts)
	# The scripts against the real paths, which isolated() hides, under systemd;
	# systemctl, deb-systemd-invoke and systemd-sysctl note what they are asked.
	in_isolation
	dpkg-deb -e "$deb" "$tmp/control"
	mkdir -p /run/systemd/system "$tmp/fake"
	for tool in systemctl deb-systemd-invoke systemd-sysctl; do
		printf '#!/bin/sh\necho "%s $*" >>"%s"\n' "$tool" "$tmp/calls" >"$tmp/fake/$tool"
		chmod +x "$tmp/fake/$tool"
	done
	# run SCRIPT ARGS... EXPECTED: runs a maintainer script; its calls must be EXPECTED.
	run() {
		local want=${*: -1}
		: >"$tmp/calls"
		env -u DPKG_ROOT PATH="$tmp/fake:$PATH" "$tmp/control/$1" "${@:2:$#-2}" || fail "$1 ${*:2:$#-2} failed"
		[ "$(cat "$tmp/calls")" = "$want" ] || fail "$1 ${*:2:$#-2} called \"$(cat "$tmp/calls")\", not \"$want\""
	}
	reload="systemctl --system daemon-reload"
	# The receive buffer ceiling applies before an upgrade restarts the daemon.
	sysctl="systemd-sysctl 60-orvalindwarden.conf"
	run postinst configure "" "$reload
$sysctl"
	[ -z "$(ls -A /etc/systemd/system)" ] || fail "postinst made $(ls -A /etc/systemd/system)"
	run postinst configure 0.9.0 "$reload
$sysctl
deb-systemd-invoke try-restart orvalindwarden.service orvalindwarden@*.service"
	run prerm upgrade 1.0.1 ""
	run prerm remove "deb-systemd-invoke stop orvalindwarden.service orvalindwarden@*.service"

	mkdir -p /var/log/orvalindwarden/blue /etc/systemd/system/multi-user.target.wants
	touch /var/log/orvalindwarden/blue/orvalindwarden.bl /dev/shm/orvalindwarden-run-netns-blue /dev/shm/other
	ln -s /lib/systemd/system/orvalindwarden.service /etc/systemd/system/multi-user.target.wants/
	run postrm remove "$reload"
	[ -e /var/log/orvalindwarden/blue/orvalindwarden.bl ] && [ -e /dev/shm/orvalindwarden-run-netns-blue ] ||
		fail "postrm remove deleted a trace or a store"
	run postrm purge "$reload"
	[ ! -e /var/log/orvalindwarden ] && [ ! -e /dev/shm/orvalindwarden-run-netns-blue ] &&
		[ ! -L /etc/systemd/system/multi-user.target.wants/orvalindwarden.service ] ||
		fail "postrm purge left the traces, a store or an enable link"
	[ -e /dev/shm/other ] || fail "postrm purge deleted another program's store"
	;;
failed-run)
	# The packaged daemon fails at start (no room for its store) and
	# leaves error records; the units' ExecStopPost, run as systemd runs it
	# after such a run, prints them at priority err.
	can_isolate
	make_package
	mkdir "$tmp/log"
	isolated sh -c 'mount -t tmpfs -o size=4k orvtest /dev/shm && BREVLOG_DIR="$1" "$2" -d 7 -p 192.0.2.1 -r 1000' \
		daemon "$tmp/log" "$root$p/sbin/orvalindwarden" >"$tmp/daemon.out" 2>&1 && status=0 || status=$?
	[ "$status" -eq 255 ] || { cat "$tmp/daemon.out"; fail "the daemon without room for its store ended with $status, not 255"; }
	"$root$p/bin/blcat" "$tmp/log/orvalindwarden.bl" >"$tmp/trace"
	grep -q 'ERROR: reflector shared memory' "$tmp/trace" || { cat "$tmp/trace"; fail "no error record of the store"; }

	# Each record names its source file relative to the tree.
	awk '/^[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9] / && $4 !~ /^src\/reflector\/[A-Za-z]+\.cpp:[0-9]+$/' \
		"$tmp/trace" >"$tmp/bad"
	[ ! -s "$tmp/bad" ] || { cat "$tmp/bad"; fail "trace records name source files outside the tree's relative paths"; }

	for u in orvalindwarden orvalindwarden@; do
		line=$(unit_line "$root$p/lib/systemd/system/$u.service" ExecStopPost)
		[ -n "$line" ] || fail "$u.service has no ExecStopPost"
		line=${line#-}                       # "-": its failure is ignored
		line=${line//\$\$/\$}                # systemd's "$$" is a "$" for the shell
		line=${line//"$p/bin/blcat"/"$root$p/bin/blcat"}
		(export SERVICE_RESULT=exit-code EXIT_CODE=exited EXIT_STATUS=255 BREVLOG_DIR=$tmp/log; eval "$line") >"$tmp/post"
		grep -qxF "<3>orvalindwarden failed (exit-code: exited 255); last error records of $tmp/log/orvalindwarden.bl:" "$tmp/post" &&
			grep -q '^<3>.* L1 src/reflector/reflectorInit.cpp:[0-9]* ERROR: reflector shared memory' "$tmp/post" &&
			! grep -v '^<3>' "$tmp/post" ||
			{ cat "$tmp/post"; fail "$u.service: ExecStopPost does not print the failed run's error records at priority err"; }
		! grep -q ' L[02-9] ' "$tmp/post" || { cat "$tmp/post"; fail "$u.service: ExecStopPost prints records other than errors"; }
		(export SERVICE_RESULT=success EXIT_CODE=killed EXIT_STATUS=HUP BREVLOG_DIR=$tmp/log; eval "$line") >"$tmp/post"
		[ ! -s "$tmp/post" ] || { cat "$tmp/post"; fail "$u.service: ExecStopPost prints after a clean end"; }
	done
	;;
*) fail "unknown check $what" ;;
esac
echo PASS
