#!/usr/bin/env bash
# mutate.sh -- how many realistic faults the test run catches: each fault of
# the catalogue (scripts/mutants.txt) is put alone into a copy of the tree at
# HEAD, which is rebuilt and tested with the whole CTest run (unit,
# end-to-end and package tests; not the sanitizer build nor the fuzz
# targets). A fault is "caught" when a test fails, "survived" when all pass,
# and "build-failed" when the tree no longer builds (reported apart, left out
# of the score). Not part of the test run: it takes about a minute a fault.
#
#   bash scripts/mutate.sh [-j N] [-c CATALOGUE] [-k] [NAME...]
#   bash scripts/mutate.sh --check | --list [-c CATALOGUE]
#
#   -j N       build and test jobs (default: the number of CPUs)
#   -c FILE    the catalogue (default: scripts/mutants.txt beside this script)
#   -k         keep the work directory (tree copy, build, logs) at the end
#   --check    only check that every fault's original text is found, once
#   --list     only list the faults' names and files
#   NAME...    only these faults (default: all)
#
# The tree under test is `git archive HEAD` of the repository this script
# lives in, unpacked into a temporary directory: the working tree is never
# touched. It is built once; then for each fault the file is patched, the
# build brought up to date (ninja rebuilds what depends on the file), the
# suite run with --stop-on-failure, and the file restored. A failing test
# is run again (--rerun-failed) before the fault counts as caught; when it
# passes then, the whole suite is run once more, and a fault whose every
# failure passes on its rerun is reported "flaky" and scored as survived.
# A test that fails twice on the unmutated tree (a timing test on a loaded
# machine) is left out of every run and named in the report.
# The run fails before building when any fault's original text is missing
# from its file or found more than once, so that the catalogue follows the
# code. Needs root (the end-to-end tests), python3, cmake, ninja and git.
#
# Catalogue format: one fault per block,
#
#   mutant NAME PATH        PATH relative to the top of the tree
#   about TEXT              one line saying what the fault does
#   - ORIGINAL LINE         one or more: the exact text to find, lines joined
#   + REPLACEMENT LINE      zero or more: the text put in its place (none:
#                           the original text is deleted)
#
# The two characters "- " or "+ " are not part of the text; "-" or "+" alone
# is an empty line. Lines starting with "#" and blank lines separate blocks.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
catalogue=$top/scripts/mutants.txt
jobs=$(nproc)
keep=
mode=run
names=()
while (($#)); do
	case $1 in
	-j) jobs=${2:?-j needs a number}; shift 2 ;;
	-j*) jobs=${1#-j}; shift ;;
	-c) catalogue=$(realpath "${2:?-c needs a file}"); shift 2 ;;
	-k) keep=1; shift ;;
	--check) mode=check; shift ;;
	--list) mode=list; shift ;;
	-h | --help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
	-*) echo "mutate.sh: unknown option $1" >&2; exit 2 ;;
	*) names+=("$1"); shift ;;
	esac
done
[[ $jobs =~ ^[1-9][0-9]*$ ]] || { echo "mutate.sh: -j needs a positive number, not '$jobs'" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/orvmutate-XXXXXX")
. "$top/scripts/netns-pair.sh"  # pid_file_keep / pid_file_restore
pid_kept=
cleanup() {
	local rc=$?
	trap - EXIT INT TERM
	if [ -n "$pid_kept" ]; then pid_file_restore "$work"; fi
	if [ -n "$keep" ]; then
		echo "mutate.sh: work directory kept: $work" >&2
	else
		rm -rf "$work"
	fi
	exit "$rc"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The catalogue's reader and the patcher, standard library only.
cat >"$work/mutants.py" <<'PY'
import os, sys

def parse(path):
    muts, cur = [], None
    def finish():
        if cur is not None:
            if not cur['old']:
                sys.exit(f"{path}:{cur['line']}: {cur['name']}: no '- ' line (original text)")
            muts.append(cur)
    with open(path, encoding='utf-8') as f:
        for n, raw in enumerate(f, 1):
            line = raw.rstrip('\n')
            if line.startswith('mutant '):
                finish()
                parts = line.split()
                if len(parts) != 3:
                    sys.exit(f"{path}:{n}: expected 'mutant NAME PATH'")
                cur = {'name': parts[1], 'file': parts[2], 'about': '', 'old': [], 'new': [], 'line': n}
            elif line.startswith('about '):
                if cur is None:
                    sys.exit(f"{path}:{n}: 'about' outside a mutant")
                cur['about'] = line[6:]
            elif line[:2] in ('- ', '+ ') or line in ('-', '+'):
                if cur is None:
                    sys.exit(f"{path}:{n}: text line outside a mutant")
                cur['old' if line[0] == '-' else 'new'].append(line[2:])
            elif line.strip() == '' or line.startswith('#'):
                continue
            else:
                sys.exit(f"{path}:{n}: cannot read this line: {line!r}")
    finish()
    seen = set()
    for m in muts:
        if m['name'] in seen:
            sys.exit(f"{path}:{m['line']}: mutant {m['name']} defined twice")
        seen.add(m['name'])
        m['old'], m['new'] = '\n'.join(m['old']), '\n'.join(m['new'])
    return muts

def select(muts, names):
    if not names:
        return muts
    by = {m['name']: m for m in muts}
    unknown = [n for n in names if n not in by]
    if unknown:
        sys.exit('no such mutant: ' + ', '.join(unknown))
    return [by[n] for n in names]

def problem(m, tree):
    p = os.path.join(tree, m['file'])
    if not os.path.isfile(p):
        return f"{m['file']} does not exist"
    text = open(p, encoding='utf-8').read()
    k = text.count(m['old'])
    if k != 1:
        return f"original text found {k} times in {m['file']} (must be once)"
    if m['old'] == m['new']:
        return 'replacement equals the original'
    return None

def main():
    cmd, cat, tree, names = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
    muts = parse(cat)
    if cmd == 'names':
        # Faults in file order: consecutive faults of one file cost one compile.
        order = {}
        for m in muts:
            order.setdefault(m['file'], len(order))
        for m in sorted(select(muts, names), key=lambda m: order[m['file']]):
            print(m['name'])
    elif cmd == 'list':
        for m in select(muts, names):
            print(f"{m['name']:44} {m['file']:34} {m['about']}")
    elif cmd == 'check':
        bad = 0
        for m in select(muts, names):
            why = problem(m, tree)
            if why:
                bad += 1
                print(f"{cat}:{m['line']}: {m['name']}: {why}", file=sys.stderr)
        if bad:
            sys.exit(f"{bad} mutant(s) no longer match the code: fix the catalogue")
    elif cmd == 'file':
        print(select(muts, names)[0]['file'])
    elif cmd == 'apply':
        m = select(muts, names)[0]
        why = problem(m, tree)
        if why:
            sys.exit(f"{m['name']}: {why}")
        p = os.path.join(tree, m['file'])
        text = open(p, encoding='utf-8').read()
        with open(p, 'w', encoding='utf-8') as f:
            f.write(text.replace(m['old'], m['new'], 1))
    else:
        sys.exit('unknown command ' + cmd)

main()
PY
mutants() { python3 "$work/mutants.py" "$@"; }

[ -f "$catalogue" ] || { echo "mutate.sh: no catalogue $catalogue" >&2; exit 2; }
if [ "$mode" = list ]; then
	mutants list "$catalogue" - "${names[@]}"
	exit 0
fi

src=$work/src build=$work/build logs=$work/logs
mkdir -p "$src" "$logs"
git -C "$top" archive HEAD | tar -x -C "$src"
head=$(git -C "$top" rev-parse --short HEAD)
mutants check "$catalogue" "$src" "${names[@]}"
if [ "$mode" = check ]; then
	echo "mutate.sh: all $(mutants names "$catalogue" "$src" "${names[@]}" | wc -l) mutants match the tree at $head"
	exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
	echo "mutate.sh: needs root (the end-to-end tests would be skipped and every fault they catch survive)" >&2
	exit 1
fi
mapfile -t order < <(mutants names "$catalogue" "$src" "${names[@]}")

# The daemon started by an end-to-end test writes the global pid file; a run
# stopped at its first failure may skip the fixture that puts it back.
pid_file_keep "$work"
pid_kept=1

t0=$SECONDS
echo "== tree at $head in $src: building (jobs $jobs)"
build_tree() { cmake --build "$build" -j "$jobs" >"$1" 2>&1; }
cmake -S "$src" -B "$build" -G Ninja -DORV_WERROR=ON -DORV_BENCH=OFF >"$logs/configure.log" 2>&1 ||
	{ cat "$logs/configure.log"; exit 1; }
build_tree "$logs/build.log" || { tail -40 "$logs/build.log"; exit 1; }

# The whole default CTest run; returns its status.
exclude=() excluded=
run_suite() {
	ctest --test-dir "$build" -j "$jobs" --timeout 120 "${exclude[@]}" "$@"
}
# Names of the tests that failed in the last run (from CTest's own list).
failed_tests() {
	local f=$build/Testing/Temporary/LastTestsFailed.log
	[ -f "$f" ] && cut -d: -f2- "$f" | paste -sd ' ' - || true
}

# verdict LOG: runs the suite, stopping at the first failure, and runs the
# tests that failed again; prints "pass", "fail TESTS" (failed twice) or
# "flaky TESTS" (passed the second time). A flaky failure may have stopped
# the suite before the test that would fail, so the whole suite is then run
# once more without stopping, and its failures again.
verdict() {
	local flaky= failed
	for stop in --stop-on-failure ""; do
		if run_suite $stop --output-on-failure >"$1${stop:+.first}" 2>&1; then
			break
		fi
		failed=$(failed_tests)
		if ! run_suite --rerun-failed --output-on-failure >>"$1${stop:+.first}" 2>&1; then
			echo "fail $(failed_tests)"
			return
		fi
		flaky="$flaky$failed "
	done
	if [ -n "$flaky" ]; then echo "flaky $flaky"; else echo pass; fi
}

# The unmutated tree: the whole suite, and its failures once more. A test
# that fails twice there (on a machine too loaded for its timing, say) is
# left out of every later run and named, rather than counting each fault
# as caught; more than three such tests end the run.
echo "== baseline: the unmutated tree"
if ! run_suite --output-on-failure >"$logs/baseline.log" 2>&1; then
	echo "   failed: $(failed_tests); running those again"
	if ! run_suite --rerun-failed --output-on-failure >>"$logs/baseline.log" 2>&1; then
		read -r -a bad <<<"$(failed_tests)"
		if ((${#bad[@]} > 3)); then
			echo "mutate.sh: the unmutated tree fails ${#bad[@]} tests: ${bad[*]}" >&2
			exit 1
		fi
		regex=$(printf '%s\n' "${bad[@]}" | sed 's/[].[^$*+?(){}|\\]/\\&/g' | paste -sd '|' -)
		exclude=(-E "^($regex)\$")
		excluded=${bad[*]}
		echo "   EXCLUDED from every run, failing on the unmutated tree: $excluded"
	fi
fi
echo "   done in $((SECONDS - t0)) s (build included)"

caught=() survived=() broken=() flaky=()
printf '\n%-44s %-12s %5s  %s\n' MUTANT RESULT SECS "FAILING TEST / FILE"
for name in "${order[@]}"; do
	t=$SECONDS
	file=$(mutants file "$catalogue" "$src" "$name")
	cp "$src/$file" "$work/original"
	mutants apply "$catalogue" "$src" "$name"
	detail=$file
	if ! build_tree "$logs/$name.build.log"; then
		result=build-failed
		broken+=("$name")
	else
		v=$(verdict "$logs/$name.test.log")
		case $v in
		pass) result=survived; survived+=("$name") ;;
		flaky*) result=flaky; detail="passed on rerun: ${v#flaky }"; flaky+=("$name"); survived+=("$name") ;;
		*) result=caught; detail=${v#fail }; caught+=("$name") ;;
		esac
	fi
	# Restored with a new time stamp: the next build compiles it again.
	cat "$work/original" >"$src/$file"
	printf '%-44s %-12s %5d  %s\n' "$name" "$result" $((SECONDS - t)) "$detail"
done

scored=$((${#caught[@]} + ${#survived[@]}))
echo
if ((${#broken[@]})); then
	echo "build-failed (not scored): ${broken[*]}"
fi
if ((${#flaky[@]})); then
	echo "failed once, passed when run again (scored as survived): ${flaky[*]}"
fi
if ((${#survived[@]})); then
	echo "survived:"
	for name in "${survived[@]}"; do
		mutants list "$catalogue" "$src" "$name" | sed 's/^/  /'
	done
fi
if [ -n "$excluded" ]; then
	echo "tests left out (failing on the unmutated tree): $excluded"
fi
if ((scored)); then
	echo "caught ${#caught[@]}/$scored ($((100 * ${#caught[@]} / scored))%) at $head in $(((SECONDS - t0) / 60)) min $(((SECONDS - t0) % 60)) s"
else
	echo "no mutant scored at $head"
fi
