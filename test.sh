#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Tests everything: the sources against the house's rules, the shipped build, the
# same under the sanitizers, and the documents against the tests.
# shellcheck disable=SC2317 # steps are called by their names
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")" || exit 1
export PYTHONDONTWRITEBYTECODE=1 # nothing is left in the tree

usage() {
	cat <<'TEXT'
Usage: ./test.sh [OPTION...]

  (none)              packages, static checks, the release build and its tests,
                      the sanitizer build and its tests, the documents
  --quick             release build and tests only
  --static            format, shellcheck and clang-tidy only, the tests included
  --coverage          line and branch coverage of src/ instead; the report goes
                      to build/coverage/report
  --web               the update page in a real browser instead; with --pictures
                      the screenshots in docs/pictures are taken anew
  --vm                updates on the virtual router instead, power cuts included
  --arch ARCH         the tests for another architecture instead (armhf, s390x), run by
                      an emulator; what it cannot do is in tests/not-emulated.md.
                      With --quick: the unit tests, and an update by a daemon of ARCH
                      on a bus of this machine
  --mutants N         N small changes to src/ instead, which the tests must notice
  --seed S            which changes (default 1)
  --filter PATTERN    only the tests that match, as --gtest_filter takes it
                      (with --web and --vm as pytest's -k takes it)
  --help              show this

The last line is "N passed, N failed"; the exit status is 0 only when nothing
failed, no check complained and at least one test ran.
TEXT
}

misuse() {
	echo "test.sh: $*" >&2
	usage >&2
	exit 2
}

mode=full
arch=
mutants=0
seed=1
filter=
while [ $# -gt 0 ]; do
	case $1 in
	--arch | --mutants | --seed | --filter)
		[ $# -ge 2 ] || misuse "$1 takes a value" ;;
	esac
	case $1 in
	--quick) mode=quick ;;
	--arch) arch=$2 && shift ;;
	--static) mode=static ;;
	--coverage) mode=coverage ;;
	--web) mode=web ;;
	--vm) mode=vm ;;
	--pictures) export FWUPDATE_PICTURES=1 ;;
	--mutants) mode=mutants mutants=$2 && shift ;;
	--seed) seed=$2 && shift ;;
	--filter) filter=$2 && shift ;;
	--help) usage && exit 0 ;;
	*) misuse "unknown argument '$1'" ;;
	esac
	shift
done

for number in "$mutants" "$seed"; do
	[[ $number =~ ^[0-9]+$ ]] || misuse "'$number' is not a number"
done
[ "$mode" != mutants ] || [ "$mutants" -gt 0 ] || misuse "--mutants takes at least 1"

case $arch:$mode in
:*) ;;
armhf:full | s390x:full) mode=arch ;;
armhf:quick | s390x:quick) mode="arch-quick" ;;
armhf:* | s390x:*) misuse "--arch goes with --quick and --filter only" ;;
*) misuse "'$arch' is not an architecture that the tests run for; armhf and s390x are" ;;
esac

jobs=$(nproc)
emulate=() # what a command for another architecture is prefixed with
excluded=  # tests that are left out, as GTEST_FILTER takes them
passed=0
failed=0
complaints=()
early= # what runs beside the tests

heading() {
	printf '\n== %s\n' "$*"
}

# Runs one step; its failure is remembered and told again at the end.
step() {
	local name=$1
	shift
	heading "$name"
	"$@" && return
	complaints+=("$name")
	return 1
}

# Counts one build's reports. A program that crashed leaves no report: the test
# entries that ctest saw fail are the least that failed.
count_results() {
	local build=$1 failed_entries=$2 results good bad skipped
	results=$(tests/list_results "$build")
	good=$(grep -c '^passed ' <<<"$results")
	bad=$(grep -c '^failed ' <<<"$results")
	skipped=$(grep -c '^skipped ' <<<"$results")
	[ "$bad" -ge "$failed_entries" ] || bad=$failed_entries
	passed=$((passed + good))
	failed=$((failed + bad))
	echo "$build: $good passed, $bad failed, $skipped skipped"
}

build_and_test() {
	local preset=$1 build=build/$1 output status failed_entries choice=()
	step "build: $preset" build_preset "$preset" || { failed=$((failed + 1)); return 1; }
	heading "test: $preset"
	rm -rf "$build/reports"
	output=$(mktemp)
	# The pattern is GoogleTest's; a Python test alone is run by pytest itself.
	[ -z "$filter" ] || choice=(-LE python)
	GTEST_FILTER=${filter:-*}${excluded:+-$excluded} GTEST_OUTPUT=xml:$PWD/$build/reports/ \
		"${emulate[@]}" ctest --test-dir "$build" --output-on-failure -j $((3 * jobs)) --no-tests=error "${choice[@]}" |
		tee "$output"
	status=$?
	failed_entries=$(sed -n 's/.* \([0-9]*\) tests failed out of .*/\1/p' "$output")
	rm -f "$output"
	[ "$status" -eq 0 ] || [ "${failed_entries:-0}" -gt 0 ] || failed_entries=1
	count_results "$build" "${failed_entries:-0}"
	[ "$status" -eq 0 ] || complaints+=("test: $preset")
	return "$status"
}

# build_preset PRESET [TARGET...]
build_preset() {
	cmake --preset "$1" >"build/$1.log" 2>&1 || { cat "build/$1.log"; return 1; }
	sed -n '/^-- lib/p' "build/$1.log"
	cmake --build --preset "$1" -j "$jobs" ${2+--target "${@:2}"} -- --quiet
}

# Whatever is in the tree now, committed or not.
files() {
	find . -path ./build -prune -o -path ./.git -prune -o -type f "$@" -printf '%P\n'
}

sources() {
	files \( -name '*.[ch]' -o -name '*.cpp' \)
}

scripts() {
	files | xargs awk 'FNR == 1 && (/^#!.*\/(env )?(ba)?sh/ || FILENAME ~ /\.sh$/) { print FILENAME } { nextfile }'
}

check_format() {
	sources | xargs clang-format --dry-run -Werror
}

check_scripts() {
	scripts | xargs shellcheck
}

# Another compiler follows a build's commands, without its precompiled header. The
# stand-ins' headers are C, which the rules for C++ are not for.
check_tidy() {
	local folders=$1
	mkdir -p build/tidy
	sed -E 's/ -Winvalid-pch -include [^ ]+//' build/asan/compile_commands.json \
		>build/tidy/compile_commands.json
	sources | grep -E '\.(c|cpp)$' | grep -E "^($folders)/" |
		xargs -P "$jobs" -n 4 clang-tidy -p build/tidy --quiet \
			--header-filter='/(src|testbed/tools|tests|fuzz|bench)/' \
			2> >(grep -vE '^[0-9]+ warnings? |^Suppressed |^Use -' >&2)
}

# What comes next begins early, at a low priority: the tests wait half of their time.
# begin_early NAME COMMAND...: prints to build/NAME.log; sets `early` to the process, which leads
# a group of its own, so that nothing of it is left when this script is interrupted.
begin_early() {
	local name=$1
	set -m
	(
		renice -n 10 "$BASHPID" >/dev/null
		"${@:2}"
	) >"build/$name.log" 2>&1 </dev/null &
	early=$!
	set +m
}

# end_early NAME: its output and its status.
end_early() {
	local status=0
	wait "$early" || status=$?
	early=
	cat "build/$1.log"
	return "$status"
}
trap '[ -z "$early" ] || kill -- "-$early"' EXIT

# Tests that the emulator is known to fail: one that passes has to leave the list.
check_not_emulated() {
	local build=build/$1
	rm -rf "$build/reports"
	GTEST_FILTER=$(tests/not_emulated tried "$1") \
		"${emulate[@]}" ctest --test-dir "$build" -Q -LE 'python|fuzz' -j "$jobs"
	tests/not_emulated check "$1" "$build"
}

prepare_arch() {
	testbed/sysroot "$arch" && emulate=(testbed/emulate "$arch") &&
		excluded=$(tests/not_emulated all "$arch")
}

test_arch() {
	build_and_test "$arch"
	[ -n "$filter" ] || step "not emulated: $arch" check_not_emulated "$arch"
}

# The tools and, for the update, the tests are this machine's: that is faster, and what
# goes over the bus is understood in both byte orders.
test_arch_quickly() {
	local program status=0
	step "build: $arch" build_preset "$arch" fwupdate base_tests daemon_tests discovery_tests firmware_tests verify_tests &&
		step "build: release" build_preset release fwupdate ubusd ubus jsonfilter fwtool routerd router_tests || return
	rm -rf "build/$arch/reports"
	for program in base_tests daemon_tests discovery_tests firmware_tests verify_tests; do
		GTEST_FILTER="*-$excluded" tests/in_router --tools build/release "build/$arch" "$program" --gtest_brief=1 || status=1
	done
	tests/in_router --daemon "build/$arch" build/release router_tests --gtest_brief=1 \
		--gtest_filter='UpdateInstall.*:CheckEvent.*' || status=1
	count_results "build/$arch" "$status"
	return "$status"
}

report_coverage() {
	local report=build/coverage/report
	mkdir -p "$report"
	gcovr --root . --filter 'src/' --object-directory build/coverage \
		--exclude-throw-branches --exclude-unreachable-branches \
		--html-details "$report/index.html" --txt "$report/lines.txt" &&
		gcovr --root . --filter 'src/' --object-directory build/coverage \
			--exclude-throw-branches --exclude-unreachable-branches \
			--branches --print-summary | tee "$report/branches.txt" &&
		cat "$report/lines.txt"
}

# Runs the Python tests of one further part of the project: the page in a browser, the
# virtual router. A skipped test is no passed one: on an automatic run, where all that the
# tests need is there, it counts as failed.
# test_part PART [OPTION...]
test_part() {
	local part=$1 status=0
	rm -rf "build/$part/reports"
	FWUPDATE_BUILD=build/release /usr/bin/python3 -B -m pytest -q -rs -p no:cacheprovider "${@:2}" \
		-k "${filter:-test}" --junitxml="build/$part/reports/$part.xml" "tests/$part" || status=$?
	count_results "build/$part" "$((status != 0))"
	return "$status"
}

finish() {
	local complaint
	printf '\n'
	for complaint in "${complaints[@]}"; do
		echo "FAILED: $complaint"
	done
	if [ "$mode" = static ]; then
		[ ${#complaints[@]} -eq 0 ]
		exit
	fi
	echo "$passed passed, $failed failed"
	[ ${#complaints[@]} -eq 0 ] && [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
	exit
}

check_documents() {
	tests/check_behaviours docs/behaviours.md build/release &&
		tests/check_behaviours docs/security.md build/release &&
		tests/check_behaviours docs/reliability.md build/release &&
		tests/check_reliability docs/reliability.md build/release
}

check_arch_size() {
	grep -q "^$arch " bench/size-budget || return 0
	step "size: $arch" bench/size --check "$arch"
}

mkdir -p build
parts=()
case $mode in web | vm) parts=("--$mode") ;; arch*) parts=(--arch) ;; esac
step packages ./setup.sh "${parts[@]}" || finish
case $mode in
full)
	step "format" check_format
	step "scripts" check_scripts
	step "floors" tests/check_floors
	begin_early build-asan build_preset asan
	build_and_test release
	end_early build-asan >/dev/null # what is wrong with it, the next step shows
	if [ -f build/asan/compile_commands.json ]; then
		begin_early clang-tidy check_tidy 'src|testbed'
		build_and_test asan
		step "clang-tidy" end_early clang-tidy
	else
		build_and_test asan
	fi
	step "size" bench/size --check
	if [ -z "$filter" ]; then
		step "documents" check_documents
	fi
	;;
static)
	step "format" check_format
	step "scripts" check_scripts
	step "floors" tests/check_floors
	step "build: asan" build_preset asan && step "clang-tidy" check_tidy 'src|testbed|tests|fuzz|bench'
	;;
quick)
	build_and_test release
	;;
web)
	step "build: release" build_preset release fwupdate ubusd ubus jsonfilter fwtool routerd &&
		step "test: web" test_part web -n "$jobs"
	;;
vm)
	step "build: virtual router" testbed/machine/build &&
		step "test: vm" test_part vm -n "$jobs" --basetemp=build/vm/tests --durations=0 --durations-min=1 &&
		[ -z "$filter" ] && step "documents" tests/check_behaviours docs/virtual-router.md build/vm
	;;
arch)
	step "libraries: $arch" prepare_arch && test_arch
	check_arch_size
	;;
arch-quick)
	step "libraries: $arch" prepare_arch && step "test: $arch" test_arch_quickly
	check_arch_size
	;;
coverage)
	build_and_test coverage
	step "coverage" report_coverage
	;;
mutants)
	build_and_test release && step "mutants" tests/mutate --count "$mutants" --seed "$seed"
	;;
esac
finish
